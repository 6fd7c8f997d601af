#include "handoff.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Room for more descriptors than a usable datagram carries, so that a
// datagram with several is recognised (and all of them closed) rather than
// cut short by the kernel.
enum { FDS_ROOM = 16 };

// A datagram socket and the address of path: the descriptor, or -errno.
int dgram_socket(const char *path, sockaddr_un *sa)
{
    size_t len = strlen(path);
    if (len == 0 || len >= sizeof sa->sun_path)
        return -ENAMETOOLONG;
    memset(sa, 0, sizeof *sa);
    sa->sun_family = AF_UNIX;
    memcpy(sa->sun_path, path, len);
    int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return s == -1 ? -errno : s;
}

void close_all(const int *fds, int n)
{
    for (int i = 0; i < n; i++)
        close(fds[i]);
}

}  // namespace

int handoff_server_socket(const char *path, int mode)
{
    sockaddr_un sa;
    int s = dgram_socket(path, &sa);
    if (s < 0)
        return s;
    int r;
    if (bind(s, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == -1 ||
        chmod(path, static_cast<mode_t>(mode)) == -1) {
        r = -errno;
        close(s);
        return r;
    }
    return s;
}

int handoff_recv(int sock, char *buf, int size, int *fd)
{
    *fd = -1;
    if (size < 1)
        return -EINVAL;
    union {
        cmsghdr align;
        char bytes[CMSG_SPACE(sizeof(int) * FDS_ROOM)];
    } control;
    iovec iov = {buf, static_cast<size_t>(size)};
    msghdr mh = {};
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    mh.msg_control = control.bytes;
    mh.msg_controllen = sizeof control.bytes;

    ssize_t n;
    do
        n = recvmsg(sock, &mh, MSG_CMSG_CLOEXEC);
    while (n == -1 && errno == EINTR);
    if (n == -1)
        return -errno;

    int fds[FDS_ROOM];
    int nfds = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
            continue;
        size_t k = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < k && nfds < FDS_ROOM; i++)
            memcpy(&fds[nfds++], CMSG_DATA(c) + i * sizeof(int), sizeof(int));
    }
    bool usable = n > 0 && nfds == 1 && !(mh.msg_flags & (MSG_TRUNC | MSG_CTRUNC));
    if (!usable) {
        close_all(fds, nfds);
        return 0;
    }
    *fd = fds[0];
    return static_cast<int>(n);
}

int handoff_send(const char *path, int fd, const void *msg, size_t len)
{
    sockaddr_un sa;
    int s = dgram_socket(path, &sa);
    if (s < 0)
        return s;

    union {
        cmsghdr align;
        char bytes[CMSG_SPACE(sizeof(int))];
    } control;
    memset(&control, 0, sizeof control);
    iovec iov = {const_cast<void *>(msg), len};
    msghdr mh = {};
    mh.msg_name = &sa;
    mh.msg_namelen = sizeof sa;
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    mh.msg_control = control.bytes;
    mh.msg_controllen = sizeof control.bytes;
    cmsghdr *c = CMSG_FIRSTHDR(&mh);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(c), &fd, sizeof fd);

    ssize_t n;
    do
        n = sendmsg(s, &mh, MSG_NOSIGNAL);
    while (n == -1 && errno == EINTR);
    int r = n == -1 ? -errno : 0;
    close(s);
    return r;
}
