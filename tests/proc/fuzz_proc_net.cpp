// Lines of /proc/net/tcp, tcp6 and unix as the table reader sees them.
#include "proc.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

// Checks a cut description against the full one: same count, a prefix.
template <typename F> void check_cut(F describe, size_t size)
{
    char full[512];
    int want = describe(full, sizeof full);
    if (want < 0 || static_cast<size_t>(want) >= sizeof full)
        abort();
    char *cut = static_cast<char *>(malloc(size ? size : 1));
    if (!cut)
        return;
    if (describe(size ? cut : nullptr, size) != want)
        abort();
    if (size > 0 && strncmp(cut, full, size - 1) != 0)
        abort();
    free(cut);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const unsigned table = data[0] % 3;
    const size_t dst_size = data[0] >> 2;  // 0..63, cuts included
    data++;
    size--;
    // fgets hands over at most 255 characters ending in NUL.
    if (size > 255)
        size = 255;
    char *line = static_cast<char *>(malloc(size + 1));
    if (!line)
        return 0;
    memcpy(line, data, size);
    line[size] = '\0';

    if (table < 2) {
        const int ipv6 = static_cast<int>(table);
        proc_tcp_sock s;
        if (proc_net_tcp_parse(line, ipv6, &s)) {
            check_cut([&](char *d, size_t n) { return proc_net_tcp_line(line, ipv6, s.inode, d, n); },
                      dst_size);
            char buf[8];
            if (proc_net_tcp_line(line, ipv6, s.inode + 1, buf, sizeof buf) != -1)
                abort();
        }
    } else {
        unsigned long inode;
        const char *path;
        size_t len;
        if (proc_net_unix_parse(line, &inode, &path, &len)) {
            if (path && (path < line || path + len > line + size))
                abort();
            if (path)
                check_cut([&](char *d, size_t n) { return proc_net_unix_line(line, inode, d, n); },
                          dst_size);
            char buf[8];
            if (proc_net_unix_line(line, inode + 1, buf, sizeof buf) != -1)
                abort();
        }
    }
    free(line);
    return 0;
}
