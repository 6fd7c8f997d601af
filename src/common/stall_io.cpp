#include "common.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>

namespace {

// How one piece is written without blocking past a ready poll: a socket
// takes MSG_DONTWAIT for this call alone; a pipe that polls writable takes
// PIPE_BUF bytes whole; a file or device never waits on a peer.
enum class kind { socket, pipe, file };

kind kind_of(int fd)
{
    struct stat st;
    if (fstat(fd, &st) < 0)
        return kind::pipe;
    if (S_ISSOCK(st.st_mode))
        return kind::socket;
    if (S_ISREG(st.st_mode) || S_ISBLK(st.st_mode))
        return kind::file;
    return kind::pipe;
}

} // namespace

long long monotonic_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int safe_write_within(int fd, const void *buf, unsigned len, int limit_ms)
{
    const char *p = static_cast<const char *>(buf);
    unsigned total = 0;
    // An empty write is still made, once: it is how a caller with nothing
    // to say finds out that the reader has gone.
    if (len == 0) {
        ssize_t n;
        do
            n = write(fd, buf, 0);
        while (n < 0 && errno == EINTR);
        return n < 0 && errno != EAGAIN ? -1 : 0;
    }
    kind k = kind_of(fd);
    long long deadline = monotonic_ms() + limit_ms;
    while (total < len) {
        if (k != kind::file) {
            long long left = deadline - monotonic_ms();
            if (left <= 0) {
                errno = ETIMEDOUT;
                return -1;
            }
            pollfd pfd = {fd, POLLOUT, 0};
            int r = poll(&pfd, 1, static_cast<int>(left));
            if (r < 0 && errno != EINTR)
                return -1;
            if (r <= 0)
                continue;
        }
        unsigned want = len - total;
        ssize_t n;
        if (k == kind::socket) {
            n = send(fd, p + total, want, MSG_DONTWAIT | MSG_NOSIGNAL);
        } else {
            if (k == kind::pipe && want > PIPE_BUF)
                want = PIPE_BUF;
            n = write(fd, p + total, want);
        }
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            return -1;
        }
        total += static_cast<unsigned>(n);
        if (n > 0)
            deadline = monotonic_ms() + limit_ms;
    }
    return static_cast<int>(total);
}

int safe_copyfd_within(int in, int out, int limit_ms)
{
    char buf[16384];
    uint32_t total = 0;
    for (;;) {
        ssize_t n = read(in, buf, sizeof buf);
        if (n == -1) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
        if (n == 0)
            return static_cast<int32_t>(total);
        int w = safe_write_within(out, buf, static_cast<unsigned>(n), limit_ms);
        if (w == -1) {
            if (errno == EPIPE || errno == ETIMEDOUT)
                return -1;
            // Other output errors drop this chunk and go on with the next.
            continue;
        }
        total += static_cast<uint32_t>(w);
    }
}
