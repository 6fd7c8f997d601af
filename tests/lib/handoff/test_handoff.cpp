// The descriptor hand-off: what a datagram must be to be usable, and that
// nothing a sender passes stays open when it is not.
#include "handoff.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace {

class Handoff : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/handoff-test.XXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        dir = tmpl;
        path = dir + "/sock";
        server = handoff_server_socket(path.c_str(), 0666);
        ASSERT_GE(server, 0);
    }
    void TearDown() override
    {
        close(server);
        unlink(path.c_str());
        rmdir(dir.c_str());
    }

    // Sends a raw datagram with the given descriptors.
    void send_raw(const void *msg, size_t len, const int *fds, int nfds)
    {
        int s = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un sa = {};
        sa.sun_family = AF_UNIX;
        strcpy(sa.sun_path, path.c_str());
        char control[CMSG_SPACE(sizeof(int) * 4)] = {};
        iovec iov = {const_cast<void *>(msg), len};
        msghdr mh = {};
        mh.msg_name = &sa;
        mh.msg_namelen = sizeof sa;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        if (nfds) {
            mh.msg_control = control;
            mh.msg_controllen = CMSG_SPACE(sizeof(int) * nfds);
            cmsghdr *c = CMSG_FIRSTHDR(&mh);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int) * nfds);
            memcpy(CMSG_DATA(c), fds, sizeof(int) * nfds);
        }
        ASSERT_EQ(sendmsg(s, &mh, 0), static_cast<ssize_t>(len)) << strerror(errno);
        close(s);
    }

    // True when the other end of a socket pair has been closed everywhere.
    static bool peer_gone(int fd)
    {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1)
            return false;
        char c;
        return read(fd, &c, 1) == 0;
    }

    std::string dir, path;
    int server = -1;
};

TEST_F(Handoff, SocketFileModeIgnoresUmask)
{
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    std::string p2 = dir + "/private";
    mode_t old = umask(0077);
    int s = handoff_server_socket(p2.c_str(), 0620);
    umask(old);
    ASSERT_GE(s, 0);
    ASSERT_EQ(stat(p2.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0620u);
    EXPECT_EQ(fcntl(s, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(s);
    unlink(p2.c_str());
}

TEST_F(Handoff, ExistingFileAndBadPaths)
{
    EXPECT_EQ(handoff_server_socket(path.c_str(), 0666), -EADDRINUSE);
    EXPECT_EQ(handoff_server_socket((dir + "/no/such").c_str(), 0666), -ENOENT);
    EXPECT_EQ(handoff_server_socket(std::string(200, 'x').c_str(), 0666), -ENAMETOOLONG);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    EXPECT_EQ(handoff_send((dir + "/none").c_str(), sv[0], "x", 1), -ENOENT);
    close(sv[0]);
    close(sv[1]);
}

TEST_F(Handoff, RoundTrip)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    const char msg[] = "/cgi/debug.tgz\0cmd=ps\0";
    ASSERT_EQ(handoff_send(path.c_str(), sv[1], msg, sizeof msg - 1), 0);
    close(sv[1]);
    char buf[4096];
    int fd = -2;
    int n = handoff_recv(server, buf, sizeof buf - 1, &fd);
    ASSERT_EQ(n, static_cast<int>(sizeof msg - 1));
    EXPECT_EQ(memcmp(buf, msg, sizeof msg - 1), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    // The passed descriptor is the connection.
    ASSERT_EQ(write(fd, "hi", 2), 2);
    char got[2];
    ASSERT_EQ(read(sv[0], got, 2), 2);
    EXPECT_EQ(memcmp(got, "hi", 2), 0);
    close(fd);
    EXPECT_TRUE(peer_gone(sv[0]));
    close(sv[0]);
}

TEST_F(Handoff, WithoutDescriptor)
{
    send_raw("/x\0\0", 4, nullptr, 0);
    char buf[64];
    int fd = -2;
    EXPECT_EQ(handoff_recv(server, buf, sizeof buf, &fd), 0);
    EXPECT_EQ(fd, -1);
}

TEST_F(Handoff, SeveralDescriptorsAreAllClosed)
{
    int a[2], b[2], c[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, a), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, b), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, c), 0);
    int fds[3] = {a[1], b[1], c[1]};
    send_raw("/x\0\0", 4, fds, 3);
    for (int f : fds)
        close(f);
    char buf[64];
    int fd = -2;
    EXPECT_EQ(handoff_recv(server, buf, sizeof buf, &fd), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(peer_gone(a[0]));
    EXPECT_TRUE(peer_gone(b[0]));
    EXPECT_TRUE(peer_gone(c[0]));
    close(a[0]);
    close(b[0]);
    close(c[0]);
}

TEST_F(Handoff, TruncatedAndEmptyMessagesCloseTheirDescriptor)
{
    for (size_t len : {size_t{5000}, size_t{4096}, size_t{0}}) {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        std::string msg(len, 'q');
        ASSERT_EQ(handoff_send(path.c_str(), sv[1], msg.data(), msg.size()), 0);
        close(sv[1]);
        char buf[4096];
        int fd = -2;
        EXPECT_EQ(handoff_recv(server, buf, 4095, &fd), 0) << len;
        EXPECT_EQ(fd, -1);
        EXPECT_TRUE(peer_gone(sv[0])) << len;
        close(sv[0]);
    }
    // 4095 bytes fit.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    std::string msg(4095, 'q');
    ASSERT_EQ(handoff_send(path.c_str(), sv[1], msg.data(), msg.size()), 0);
    char buf[4096];
    int fd = -2;
    EXPECT_EQ(handoff_recv(server, buf, 4095, &fd), 4095);
    EXPECT_GE(fd, 0);
    close(fd);
    close(sv[0]);
    close(sv[1]);
}

TEST_F(Handoff, OtherAncillaryDataIsNotADescriptor)
{
    // Credentials instead of rights: unusable.
    int s = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un sa = {};
    sa.sun_family = AF_UNIX;
    strcpy(sa.sun_path, path.c_str());
    char control[CMSG_SPACE(sizeof(ucred))] = {};
    iovec iov = {const_cast<char *>("/x\0\0"), 4};
    msghdr mh = {};
    mh.msg_name = &sa;
    mh.msg_namelen = sizeof sa;
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    mh.msg_control = control;
    mh.msg_controllen = sizeof control;
    cmsghdr *c = CMSG_FIRSTHDR(&mh);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_CREDENTIALS;
    c->cmsg_len = CMSG_LEN(sizeof(ucred));
    ucred cr = {getpid(), getuid(), getgid()};
    memcpy(CMSG_DATA(c), &cr, sizeof cr);
    ASSERT_EQ(sendmsg(s, &mh, 0), 4) << strerror(errno);
    close(s);
    char buf[64];
    int fd = -2;
    EXPECT_EQ(handoff_recv(server, buf, sizeof buf, &fd), 0);
    EXPECT_EQ(fd, -1);
}

}  // namespace
