// Configuration files are written by people: any bytes must read as some list
// of entries, each with three terminated strings, without touching memory
// outside what the reader owns.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "kvconf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int fd = memfd_create("fuzz-kvconf", 0);
    static char path[64];
    if (fd < 0)
        abort();
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    kvconf *cfg = kvconf_opencfg(path);
    if (!cfg)
        abort();
    while (const kvconf_entry *e = kvconf_getcfg(cfg)) {
        // Every string is complete; no entry spans a line break.
        if (strchr(e->key, '\n') || strchr(e->value, '\n') || strchr(e->section, '\n'))
            abort();
    }
    kvconf_closecfg(cfg);
    return 0;
}
