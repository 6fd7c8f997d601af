// HTTP/1.0 framing of downloads and status pages, zero padding, and the
// budgeted trace callback that writes a trace as an archive member.
#include "tar.h"

#include "common.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// The past Expires date and no-cache together keep browsers and proxies from
// serving a stale download or page; both responses carry the pair.
#define NO_CACHE_LINES                                                                  \
    "Cache-Control: no-cache\r\n"                                                       \
    "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"

int stream_http_header(int fd, const char *content_type, const char *filename)
{
    char *text = nullptr;
    int n = asprintf(&text,
                     "HTTP/1.0 200 OK\r\n" NO_CACHE_LINES
                     "Content-Type: %s\r\n"
                     "Content-Disposition: attachment; filename=\"%s\"\r\n"
                     "\r\n",
                     content_type, filename);
    if (n < 0)
        return 1;
    int w = safe_write(fd, text, static_cast<unsigned>(n));
    free(text);
    return w < 0 ? 1 : 0;
}

void stream_http_message(int fd, const char *status, const char *message)
{
    char *text = nullptr;
    int n = asprintf(&text,
                     "HTTP/1.0 %s\r\n" NO_CACHE_LINES
                     "Content-Type: text/html\r\n"
                     "\r\n"
                     "<HTML><HEAD></HEAD>\r\n"
                     "<BODY>\r\n"
                     "%s\r\n"
                     "</BODY></HTML>\r\n"
                     "\r\n",
                     status, message);
    if (n < 0)
        return;
    // The connection is closed right after; a failed page changes nothing.
    (void)safe_write(fd, text, static_cast<unsigned>(n));
    free(text);
}

int stream_pad(int fd, int n)
{
    char zeros[32];
    while (n > 0) {
        int piece = n < static_cast<int>(sizeof zeros) ? n : static_cast<int>(sizeof zeros);
        memset(zeros, 0, sizeof zeros);
        if (safe_write(fd, zeros, static_cast<unsigned>(piece)) < 0)
            return 1;
        n -= piece;
    }
    return 0;
}

int cb_strace(void *ctx, const char *buf, int len)
{
    cb_strace_ctx *c = static_cast<cb_strace_ctx *>(ctx);
    int n = c->budget < len ? c->budget : len;
    if (n < 0)
        n = 0;
    // Even a zero-length write is made: the tracer's empty calls are how a
    // client that has gone away is noticed while the trace is quiet.
    // Bounded: while the tracer waits here, every traced process is stopped.
    if (safe_write_within(c->fd, buf, static_cast<unsigned>(n), stall_limit_ms) < 0) {
        c->error = 1;
        return 0;
    }
    c->budget -= n;
    return c->budget > 0 ? 1 : 0;
}
