// Drives the monitoring module for the system tests: a runtime trace on
// standard output, the daemon's monitor thread, or a cut of a trace stream.
//
//   monitor_probe rtrace ITEMS INTERVAL   rtrace_run into stdout until a write
//                                         fails; then says whether any child
//                                         is left unreaped
//   monitor_probe thread                  monitor_thread_run in a thread
//   monitor_probe cut ROUNDS EXTRA        copies a stream from stdin to stdout
//                                         up to the end of ROUNDS per-process
//                                         blocks and EXTRA bytes more
#include "monitor.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool read_exact(int fd, void *buf, size_t len)
{
    char *p = static_cast<char *>(buf);
    while (len) {
        ssize_t n = read(fd, p, len);
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool write_exact(int fd, const void *buf, size_t len)
{
    const char *p = static_cast<const char *>(buf);
    while (len) {
        ssize_t n = write(fd, p, len);
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

int do_rtrace(uint32_t items, int interval)
{
    signal(SIGPIPE, SIG_IGN);
    rtrace_config *config = rtrace_create(1, interval, items);
    if (!config)
        return 2;
    int rc = rtrace_run(config);
    rtrace_destroy(config);
    errno = 0;
    pid_t left = waitpid(-1, nullptr, WNOHANG);
    fprintf(stderr, "rtrace_run returned %d, children: %s\n", rc,
            left == -1 && errno == ECHILD ? "none" : "left");
    return 0;
}

int do_thread()
{
    pthread_t t;
    if (pthread_create(&t, nullptr, monitor_thread_run, nullptr) != 0)
        return 2;
    fprintf(stderr, "monitor thread started\n");
    pthread_join(t, nullptr);
    fprintf(stderr, "monitor thread ended\n");
    return 1;
}

int do_cut(long rounds, long extra)
{
    unsigned char h[RTRACE_HEADER_SIZE];
    static char data[RTRACE_BUF_SIZE + 4];
    long seen = 0;
    while (seen < rounds) {
        if (!read_exact(0, h, sizeof h))
            return 1;
        uint32_t type, len;
        memcpy(&type, h, 4);
        memcpy(&len, h + 4, 4);
        if (len > sizeof data || !read_exact(0, data, len))
            return 1;
        if (!write_exact(1, h, sizeof h) || !write_exact(1, data, len))
            return 1;
        if (type == RTRACE_REC_PERPID && h[16] == 0)
            seen++;
    }
    while (extra > 0) {
        ssize_t n = read(0, data, extra < static_cast<long>(sizeof data) ? extra : sizeof data);
        if (n <= 0)
            return 1;
        if (!write_exact(1, data, static_cast<size_t>(n)))
            return 1;
        extra -= n;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "rtrace") == 0)
        return do_rtrace(static_cast<uint32_t>(strtoul(argv[2], nullptr, 0)), atoi(argv[3]));
    if (argc == 2 && strcmp(argv[1], "thread") == 0)
        return do_thread();
    if (argc == 4 && strcmp(argv[1], "cut") == 0)
        return do_cut(atol(argv[2]), atol(argv[3]));
    fprintf(stderr, "usage: monitor_probe rtrace ITEMS INTERVAL | thread | cut ROUNDS EXTRA\n");
    return 2;
}
