#include "kvconf.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <ini.h>

// Made with calloc: all zero is the empty state.
struct kvconf {
    kvconf_entry *entries;
    size_t count;
    size_t capacity;
    size_t next;
    bool out_of_memory;
};

namespace {

// Each entry owns one block: section, key and value, NUL-terminated, in a row.
int keep_entry(void *user, const char *section, const char *key, const char *value)
{
    kvconf *cfg = static_cast<kvconf *>(user);
    if (cfg->out_of_memory)
        return 0;
    if (cfg->count == cfg->capacity) {
        size_t capacity = cfg->capacity ? cfg->capacity * 2 : 16;
        void *grown = realloc(cfg->entries, capacity * sizeof *cfg->entries);
        if (!grown) {
            cfg->out_of_memory = true;
            return 0;
        }
        cfg->entries = static_cast<kvconf_entry *>(grown);
        cfg->capacity = capacity;
    }
    size_t ls = strlen(section) + 1, lk = strlen(key) + 1, lv = strlen(value) + 1;
    char *block = static_cast<char *>(malloc(ls + lk + lv));
    if (!block) {
        cfg->out_of_memory = true;
        return 0;
    }
    memcpy(block, section, ls);
    memcpy(block + ls, key, lk);
    memcpy(block + ls + lk, value, lv);
    cfg->entries[cfg->count++] = {block, block + ls, block + ls + lk};
    // Lines the parser cannot read are its concern; keep reading the rest.
    return 1;
}

}  // namespace

kvconf *kvconf_opencfg(const char *path)
{
    FILE *f = fopen(path, "re");
    if (!f)
        return nullptr;
    kvconf *cfg = static_cast<kvconf *>(calloc(1, sizeof *cfg));
    if (!cfg) {
        fclose(f);
        errno = ENOMEM;
        return nullptr;
    }
    ini_parse_file(f, keep_entry, cfg);
    bool read_error = ferror(f) != 0;
    fclose(f);
    if (cfg->out_of_memory || read_error) {
        kvconf_closecfg(cfg);
        errno = read_error ? EIO : ENOMEM;
        return nullptr;
    }
    return cfg;
}

const kvconf_entry *kvconf_getcfg(kvconf *cfg)
{
    if (!cfg || cfg->next >= cfg->count)
        return nullptr;
    return &cfg->entries[cfg->next++];
}

void kvconf_closecfg(kvconf *cfg)
{
    if (!cfg)
        return;
    for (size_t i = 0; i < cfg->count; i++)
        free(const_cast<char *>(cfg->entries[i].section));
    free(cfg->entries);
    free(cfg);
}
