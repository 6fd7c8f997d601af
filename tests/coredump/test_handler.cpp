// The handler's own pieces in-process: the upload's read callback on standard
// input and the wait for the service's answer on the crash socket.
#include <gtest/gtest.h>

#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "coredump.h"
#include "testutil.h"

namespace {

using testutil::Pipe;

// Puts fd in place of a standard descriptor for the life of the object.
class Redirect {
public:
    Redirect(int target, int fd) : target_(target), saved_(dup(target))
    {
        EXPECT_GE(saved_, 0);
        if (fd >= 0)
            EXPECT_EQ(dup2(fd, target), target);
        else
            close(target);
    }
    ~Redirect()
    {
        dup2(saved_, target_);
        close(saved_);
    }

private:
    int target_;
    int saved_;
};

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

TEST(ReadCallback, ReadsStandardInputUpToTheRequestedSize)
{
    Pipe p;
    ASSERT_EQ(write(p.w, "0123456789", 10), 10);
    p.close_w();
    Redirect in(STDIN_FILENO, p.r);
    char buf[16] = {};
    // size x nmemb is the limit.
    EXPECT_EQ(coredump_read_cb(buf, 2, 3, nullptr), 6u);
    EXPECT_EQ(std::string(buf, 6), "012345");
    EXPECT_EQ(coredump_read_cb(buf, 1, 16, nullptr), 4u);
    EXPECT_EQ(std::string(buf, 4), "6789");
    // End of input ends the upload.
    EXPECT_EQ(coredump_read_cb(buf, 1, 16, nullptr), 0u);
}

TEST(ReadCallback, FailedReadAbortsTheUpload)
{
    Redirect in(STDIN_FILENO, -1);
    char buf[16];
    EXPECT_EQ(coredump_read_cb(buf, 1, sizeof buf, nullptr), static_cast<size_t>(CURL_READFUNC_ABORT));
}

TEST(MgmClose, ReadsAtMostEightBytesOfTheAnswerAndCloses)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_EQ(write(sv[1], "0123456789", 10), 10);
    cored_mgm_close(sv[0]);
    EXPECT_FALSE(is_open(sv[0]));
    // The handler's side is gone with two bytes of the answer unread: the
    // service sees the connection reset.
    char buf[4];
    errno = 0;
    EXPECT_EQ(read(sv[1], buf, sizeof buf), -1);
    EXPECT_EQ(errno, ECONNRESET);
    close(sv[1]);
}

TEST(MgmClose, ServiceThatClosesEndsTheWaitAtOnce)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    cored_mgm_close(sv[0]);
    EXPECT_FALSE(is_open(sv[0]));
}

void on_alarm(int) {}

TEST(MgmClose, InterruptedWaitIsReportedAndTheSocketClosed)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    struct sigaction sa = {}, old = {};
    sa.sa_handler = on_alarm;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    Pipe err;
    {
        Redirect e(STDERR_FILENO, err.w);
        itimerval t = {};
        t.it_value.tv_usec = 100000;
        setitimer(ITIMER_REAL, &t, nullptr);
        cored_mgm_close(sv[0]);
    }
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(err.finish(), std::string("select(): ") + strerror(EINTR) + "\n");
    EXPECT_FALSE(is_open(sv[0]));
    close(sv[1]);
}

}  // namespace
