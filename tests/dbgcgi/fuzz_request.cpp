// Control messages of any shape through pre_process_request, with the
// handlers' callees stood in for (request_stubs.cpp) and a connection whose
// other end only drains.  Every message must end with the connection closed
// (or held as listener), nothing left running, no archive flag left set.
#include "dbgcgi.h"
#include "request_stubs.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // As in the daemon: a connection that has gone shows as EPIPE.
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static char buf[4096];
    size_t len = size < 4095 ? size : 4095;
    memcpy(buf, data, len);
    buf[len] = '\0';
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
        abort();
    pre_process_request(sv[1], buf, static_cast<int>(len));
    if (push_listener_fd == sv[1]) {
        // Held for a pushed dump: push an empty one.
        int p[2];
        if (pipe(p) != 0)
            abort();
        close(p[1]);
        if (handle_request_push(p[0], "core") != 0)
            abort();
    }
    char sink[4096];
    for (;;) {
        pollfd p = {sv[0], POLLIN, 0};
        int r = poll(&p, 1, 20000);
        if (r == -1 && errno == EINTR)  // the fuzzer's own timer
            continue;
        if (r != 1) {
            fprintf(stderr, "connection never closed\n");
            abort();
        }
        if (read(sv[0], sink, sizeof sink) <= 0)
            break;
    }
    close(sv[0]);
    // The archive stand-in ends on its own thread: the next input starts
    // only once it has.
    while (__atomic_load_n(&archive_in_progress, __ATOMIC_SEQ_CST))
        usleep(100);
    return 0;
}
