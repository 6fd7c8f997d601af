// The ustar member writer: headers and data straight onto a descriptor the
// writer neither owns nor seeks, each member padded to 512 bytes.
#include "tar.h"

#include "common.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace {

constexpr uint32_t BLOCK = 512;

const char zero_block[BLOCK] = {};

// Finishes the current member's data on a block boundary.
void tar_pad(tar *t)
{
    uint32_t rest = t->count % BLOCK;
    if (rest != 0)
        tar_write(t, zero_block, BLOCK - rest);
}

// Copies len bytes of src to hdr[at..], clipped at the end of the header so
// that an overlong name can never run past it.
void put(char *hdr, uint32_t at, const char *src, size_t len)
{
    if (at >= BLOCK)
        return;
    if (len > BLOCK - at)
        len = BLOCK - at;
    memcpy(hdr + at, src, len);
}

// Stores printed digits and their NUL into a field, never beyond its width.
void put_field(char *field, size_t width, const char *text, int n)
{
    if (n < 0)
        return;
    size_t len = static_cast<size_t>(n) + 1;
    memcpy(field, text, len < width ? len : width);
}

} // namespace

tar *tar_new(int fd, const char *prefix)
{
    tar *t = static_cast<tar *>(calloc(1, sizeof(tar)));
    if (!t)
        return nullptr;
    if (prefix && *prefix) {
        t->prefix = strdup(prefix);
        if (!t->prefix) {
            free(t);
            return nullptr;
        }
        t->prefix_len = static_cast<uint32_t>(strlen(prefix));
    }
    t->fd = fd;
    return t;
}

void tar_addfile(tar *t, const char *name, uint32_t size)
{
    char hdr[BLOCK];
    memset(hdr, 0, sizeof hdr);

    // The whole name goes into the name field; what does not fit there spills
    // into the following fields, most of which the stores below overwrite.
    size_t at = 0;
    if (t->prefix) {
        size_t len = strlen(t->prefix);
        put(hdr, 0, t->prefix, len + 1);
        at = len;
    }
    put(hdr, static_cast<uint32_t>(at < BLOCK ? at : BLOCK), name, strlen(name) + 1);

    memcpy(hdr + 100, "0000644", 8);
    memcpy(hdr + 108, "0000100", 8);
    memcpy(hdr + 116, "0000100", 8);
    char digits[32];
    int n = snprintf(digits, sizeof digits, "%11.11lo", static_cast<unsigned long>(size));
    put_field(hdr + 124, 12, digits, n);
    n = snprintf(digits, sizeof digits, "%11.11o", static_cast<unsigned>(time(nullptr)));
    put_field(hdr + 136, 12, digits, n);

    // "ustar\0" with a two-space version is what the device's tools have always
    // produced; readers accept it.
    memcpy(hdr + 257, "ustar", 6);
    memcpy(hdr + 263, "  ", 2);
    memcpy(hdr + 265, "admin", 6);
    memcpy(hdr + 297, "admin", 6);
    memset(hdr + 148, ' ', 8);
    hdr[156] = '0';

    // Bytes count as unsigned: names may hold bytes above 127.
    unsigned sum = 0;
    for (unsigned char c : hdr)
        sum += c;
    // Six digits and a NUL; byte 155 keeps its space.
    n = snprintf(digits, sizeof digits, "%6.6o", sum);
    put_field(hdr + 148, 7, digits, n);

    tar_pad(t);
    tar_write(t, hdr, BLOCK);
    t->count = 0;
}

void tar_write(tar *t, const void *buf, uint32_t len)
{
    // A broken output is noticed by the callers' own writes, not here.
    (void)safe_write(t->fd, buf, len);
    t->count += len;
}

void tar_fakewrite(tar *t, uint32_t len)
{
    t->count += len;
}

void tar_close(tar *t)
{
    if (!t)
        return;
    tar_pad(t);
    free(t->prefix);
    free(t);
}
