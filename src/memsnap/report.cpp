#include "memsnap.h"

#include <stdarg.h>
#include <stdio.h>

static_assert(sizeof SNAP_REPORT_LABEL - 1 == 8, "the reader finds the length at offset 8");
static_assert(sizeof SNAP_REPORT_LABEL2 - 1 == 21, "the reader skips 21 characters after it");

int snap_report_line(char *buf, uint64_t length, const int *tids, int ntids)
{
    int len = snprintf(buf, SNAP_REPORT_MAX, SNAP_REPORT_LABEL "%llu" SNAP_REPORT_LABEL2,
                       static_cast<unsigned long long>(length));
    // Ids go in while the line, newline included, stays below the limit: the
    // reader takes at most SNAP_REPORT_MAX bytes and wants the newline in them.
    for (int i = 0; i < ntids; i++) {
        char id[16];
        int n = snprintf(id, sizeof id, "%s%d", i ? " " : "", tids[i]);
        if (len + n + 1 >= SNAP_REPORT_MAX)
            break;
        memcpy(buf + len, id, static_cast<size_t>(n));
        len += n;
    }
    buf[len++] = '\n';
    buf[len] = 0;
    return len;
}

namespace {
char failure[200];
}  // namespace

int snap_fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(failure, sizeof failure, fmt, ap);
    va_end(ap);
    return -1;
}

const char *snap_failure()
{
    return failure;
}

unsigned char *snap_buf::append(const void *data, size_t n)
{
    if (len + n > cap) {
        size_t ncap = cap ? cap : 4096;
        while (ncap < len + n)
            ncap *= 2;
        void *q = realloc(p, ncap);
        if (!q)
            abort();
        p = static_cast<unsigned char *>(q);
        cap = ncap;
    }
    unsigned char *at = p + len;
    if (data)
        memcpy(at, data, n);
    else
        memset(at, 0, n);
    len += n;
    return at;
}
