#include "common.h"

#include <errno.h>
#include <stdint.h>
#include <unistd.h>

int safe_read(int fd, void *buf, unsigned len)
{
    unsigned total = 0;
    for (;;) {
        ssize_t n = read(fd, static_cast<char *>(buf) + total, len - total);
        if (n == -1) {
            // Non-blocking descriptors are polled without a pause on purpose.
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
        total += static_cast<unsigned>(n);
        if (total >= len || n == 0)
            return static_cast<int>(total);
    }
}

int safe_write(int fd, const void *buf, unsigned len)
{
    unsigned total = 0;
    do {
        ssize_t n = write(fd, static_cast<const char *>(buf) + total, len - total);
        if (n == -1) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
        total += static_cast<unsigned>(n);
    } while (total < len);
    return static_cast<int>(total);
}

int safe_copyfd(int in, int out)
{
    char buf[16384];
    uint32_t total = 0;
    for (;;) {
        ssize_t n = read(in, buf, sizeof buf);
        // A failing input is read again: the copy ends only at end of input or
        // when the output breaks.
        if (n == -1)
            continue;
        if (n == 0)
            return static_cast<int32_t>(total);
        int w = safe_write(out, buf, static_cast<unsigned>(n));
        if (w == -1) {
            if (errno == EPIPE)
                return -1;
            // Other output errors drop this chunk and go on with the next.
            continue;
        }
        total += static_cast<uint32_t>(w);
    }
}

void pad_ascii(int fd, int count)
{
    static const char line[80] = {
        ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
        ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
        ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
        ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
        ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', '\n',
    };
    int written = 0;
    while (written < count) {
        int n = count - written;
        if (n > 80)
            n = 80;
        if (safe_write(fd, line, static_cast<unsigned>(n)) < 0)
            return;
        written += n;
    }
}
