#include "common.h"
#include "io_wrap.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

using testutil::file_content;
using testutil::Pipe;
using testutil::temp_file;
using testutil::wait_until;

std::string drain(int fd)
{
    return testutil::read_all(fd);
}

std::string pattern(size_t n)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return s;
}

class SafeIo : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        iowrap::reset();
    }
    void TearDown() override { iowrap::reset(); }
};

// ---- safe_read ----

TEST_F(SafeIo, ReadReturnsShortCountAtEndOfInputThenZero)
{
    Pipe p;
    ASSERT_EQ(write(p.w, "0123456789", 10), 10);
    p.close_w();
    char buf[100];
    EXPECT_EQ(safe_read(p.r, buf, 100), 10);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(safe_read(p.r, buf, 100), 0);
}

TEST_F(SafeIo, ReadCollectsPiecesUntilTheLengthIsReached)
{
    Pipe p;
    iowrap::watch_read(p.r);
    // Each piece goes in once the one before has been read: every read can
    // see at most one piece.
    std::thread writer([&] {
        for (int i = 0; i < 3; i++) {
            ASSERT_TRUE(wait_until([&] { return iowrap::reads().size() == size_t(i); }, 60));
            ASSERT_EQ(write(p.w, "abcdefghij", 10), 10);
        }
    });
    char buf[30];
    EXPECT_EQ(safe_read(p.r, buf, 30), 30);
    writer.join();
    EXPECT_EQ(std::string(buf, 30), "abcdefghijabcdefghijabcdefghij");
    auto log = iowrap::reads();
    ASSERT_EQ(log.size(), 3u);
    for (const io_call &c : log)
        EXPECT_EQ(c.got, 10);
}

TEST_F(SafeIo, ReadRetriesInjectedEintrAndEagain)
{
    Pipe p;
    ASSERT_EQ(write(p.w, "hello", 5), 5);
    p.close_w();
    iowrap::watch_read(p.r);
    iowrap::fail_reads(1, EINTR);
    char buf[8];
    EXPECT_EQ(safe_read(p.r, buf, 8), 5);
    auto log = iowrap::reads();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log[0].err, EINTR);
    EXPECT_EQ(log[1].got, 5);

    Pipe q;
    ASSERT_EQ(write(q.w, "xyz", 3), 3);
    q.close_w();
    iowrap::reset();
    iowrap::watch_read(q.r);
    iowrap::fail_reads(3, EAGAIN);
    EXPECT_EQ(safe_read(q.r, buf, 8), 3);
    EXPECT_EQ(iowrap::reads().size(), 5u); // 3 failures, 3 bytes, end of input
}

TEST_F(SafeIo, ReadPollsAnEmptyNonBlockingPipe)
{
    Pipe p;
    ASSERT_EQ(fcntl(p.r, F_SETFL, O_NONBLOCK), 0);
    iowrap::watch_read(p.r);
    // The data comes only after the reader found the pipe empty.
    std::thread writer([&] {
        ASSERT_TRUE(wait_until([] { return !iowrap::reads().empty(); }, 60));
        ASSERT_EQ(write(p.w, "late!", 5), 5);
        p.close_w();
    });
    char buf[16];
    EXPECT_EQ(safe_read(p.r, buf, 16), 5);
    writer.join();
    EXPECT_EQ(std::string(buf, 5), "late!");
    auto log = iowrap::reads();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log[0].err, EAGAIN);
}

void on_alarm(int) {}

TEST_F(SafeIo, ReadSurvivesRealInterruptions)
{
    struct sigaction sa = {};
    sa.sa_handler = on_alarm; // no SA_RESTART: a blocked read fails with EINTR
    sigemptyset(&sa.sa_mask);
    struct sigaction old = {};
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    struct itimerval tick = {{0, 5000}, {0, 5000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &tick, nullptr), 0);

    Pipe p;
    iowrap::watch_read(p.r);
    // Each half goes in only after the blocked read was interrupted: once
    // before the first, and once more after the first half was read.
    auto interrupted_after = [](size_t calls) {
        auto log = iowrap::reads();
        for (size_t i = calls; i < log.size(); i++)
            if (log[i].err == EINTR)
                return true;
        return false;
    };
    std::thread writer([&] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        ASSERT_TRUE(wait_until([&] { return interrupted_after(0); }, 60));
        ASSERT_EQ(write(p.w, "0123", 4), 4);
        size_t seen = 0;
        ASSERT_TRUE(wait_until(
            [&] {
                auto log = iowrap::reads();
                for (size_t i = 0; i < log.size(); i++)
                    if (log[i].got == 4)
                        seen = i + 1;
                return seen > 0;
            },
            60));
        ASSERT_TRUE(wait_until([&] { return interrupted_after(seen); }, 60));
        ASSERT_EQ(write(p.w, "4567", 4), 4);
    });
    char buf[8];
    int n = safe_read(p.r, buf, 8);
    struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    writer.join();
    sigaction(SIGALRM, &old, nullptr);

    EXPECT_EQ(n, 8);
    EXPECT_EQ(std::string(buf, 8), "01234567");
    bool saw_eintr = false;
    for (auto &c : iowrap::reads())
        saw_eintr |= c.err == EINTR;
    EXPECT_TRUE(saw_eintr);
}

TEST_F(SafeIo, ReadGivesUpBytesAlreadyReadOnAnOtherError)
{
    Pipe p;
    ASSERT_EQ(write(p.w, "0123456789", 10), 10);
    iowrap::watch_read(p.r);
    iowrap::fail_reads(1, EIO, 1);
    char buf[20];
    errno = 0;
    EXPECT_EQ(safe_read(p.r, buf, 20), -1);
    EXPECT_EQ(errno, EIO);
    auto log = iowrap::reads();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].got, 10);
}

TEST_F(SafeIo, ReadOfABadDescriptorFails)
{
    char buf[4];
    errno = 0;
    EXPECT_EQ(safe_read(-1, buf, 4), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- safe_write ----

TEST_F(SafeIo, WriteToAClosedPipeFailsWithEpipe)
{
    Pipe p;
    p.close_r();
    errno = 0;
    EXPECT_EQ(safe_write(p.w, "data", 4), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(SafeIo, WriteOfZeroBytesMakesOneCall)
{
    Pipe p;
    iowrap::watch_write(p.w);
    EXPECT_EQ(safe_write(p.w, "", 0), 0);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].asked, 0u);
}

TEST_F(SafeIo, WriteContinuesAfterPartialWrites)
{
    Pipe p;
    std::string data = pattern(100);
    iowrap::watch_write(p.w);
    iowrap::cap_writes(7);
    EXPECT_EQ(safe_write(p.w, data.data(), 100), 100);
    p.close_w();
    EXPECT_EQ(drain(p.r), data);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 15u);
    EXPECT_EQ(log[0].asked, 100u);
    EXPECT_EQ(log[1].asked, 93u);
    EXPECT_EQ(log[14].got, 2);
}

TEST_F(SafeIo, WriteRetriesInjectedEintrAndEagain)
{
    Pipe p;
    iowrap::watch_write(p.w);
    iowrap::fail_writes(2, EINTR);
    EXPECT_EQ(safe_write(p.w, "abc", 3), 3);
    iowrap::fail_writes(2, EAGAIN);
    EXPECT_EQ(safe_write(p.w, "def", 3), 3);
    p.close_w();
    EXPECT_EQ(drain(p.r), "abcdef");
    EXPECT_EQ(iowrap::writes().size(), 6u);
}

TEST_F(SafeIo, WriteToAFullNonBlockingPipeWaitsForTheReader)
{
    Pipe p;
    fcntl(p.w, F_SETPIPE_SZ, 4096);
    ASSERT_EQ(fcntl(p.w, F_SETFL, O_NONBLOCK), 0);
    std::string data = pattern(200000);
    std::string got;
    iowrap::watch_write(p.w);
    // Reading starts only once the writer found the pipe full.
    std::thread reader([&] {
        wait_until(
            [] {
                for (auto &c : iowrap::writes())
                    if (c.err == EAGAIN)
                        return true;
                return false;
            },
            60);
        char buf[1000];
        ssize_t n;
        while ((n = read(p.r, buf, sizeof buf)) > 0)
            got.append(buf, static_cast<size_t>(n));
    });
    EXPECT_EQ(safe_write(p.w, data.data(), static_cast<unsigned>(data.size())), 200000);
    p.close_w();
    reader.join();
    EXPECT_EQ(got, data);
    bool saw_eagain = false;
    for (auto &c : iowrap::writes())
        saw_eagain |= c.err == EAGAIN;
    EXPECT_TRUE(saw_eagain);
}

TEST_F(SafeIo, WriteFailsOnAnOtherErrorWhateverWasWritten)
{
    Pipe p;
    iowrap::watch_write(p.w);
    iowrap::cap_writes(10);
    iowrap::fail_writes(1, EIO, 2);
    errno = 0;
    EXPECT_EQ(safe_write(p.w, pattern(50).data(), 50), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(iowrap::writes().size(), 3u);

    int ro = open("/dev/null", O_RDONLY);
    ASSERT_GE(ro, 0);
    errno = 0;
    EXPECT_EQ(safe_write(ro, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    close(ro);
}

// ---- safe_copyfd ----

TEST_F(SafeIo, CopyOfAnEmptyFileIsZero)
{
    int in = temp_file("");
    int out = temp_file("");
    EXPECT_EQ(safe_copyfd(in, out), 0);
    EXPECT_EQ(file_content(out), "");
    close(in);
    close(out);
}

TEST_F(SafeIo, CopyReadsInChunksOf16384)
{
    std::string data = pattern(40000);
    int in = temp_file(data);
    int out = temp_file("");
    iowrap::watch_read(in);
    EXPECT_EQ(safe_copyfd(in, out), 40000);
    auto log = iowrap::reads();
    ASSERT_EQ(log.size(), 4u);
    for (auto &c : log)
        EXPECT_EQ(c.asked, 16384u);
    EXPECT_EQ(log[0].got, 16384);
    EXPECT_EQ(log[1].got, 16384);
    EXPECT_EQ(log[2].got, 7232);
    EXPECT_EQ(log[3].got, 0);
    EXPECT_EQ(file_content(out), data);
    close(in);
    close(out);
}

TEST_F(SafeIo, CopyToAClosedPipeStopsAfterTheFirstChunk)
{
    int in = temp_file(pattern(40000));
    Pipe p;
    p.close_r();
    iowrap::watch_read(in);
    errno = 0;
    EXPECT_EQ(safe_copyfd(in, p.w), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(iowrap::reads().size(), 1u);
    close(in);
}

TEST_F(SafeIo, CopyReadsAgainAfterReadErrors)
{
    std::string data = pattern(40000);
    int in = temp_file(data);
    int out = temp_file("");
    iowrap::watch_read(in);
    iowrap::fail_reads(2, EIO, 1);
    EXPECT_EQ(safe_copyfd(in, out), 40000);
    EXPECT_EQ(iowrap::reads().size(), 6u);
    EXPECT_EQ(file_content(out), data);
    close(in);
    close(out);
}

TEST_F(SafeIo, CopyDropsAChunkOnAnOtherWriteError)
{
    std::string data = pattern(40000);
    int in = temp_file(data);
    int out = temp_file("");
    iowrap::watch_write(out);
    iowrap::fail_writes(1, EIO);
    EXPECT_EQ(safe_copyfd(in, out), 40000 - 16384);
    EXPECT_EQ(file_content(out), data.substr(16384));
    close(in);
    close(out);

    // An output that cannot be written at all: everything is read, nothing counted.
    in = temp_file(data);
    int ro = open("/dev/null", O_RDONLY);
    iowrap::reset();
    iowrap::watch_read(in);
    EXPECT_EQ(safe_copyfd(in, ro), 0);
    EXPECT_EQ(iowrap::reads().size(), 4u);
    close(in);
    close(ro);
}

TEST_F(SafeIo, CopyFromAPipeUntilTheWriterCloses)
{
    Pipe p;
    int out = temp_file("");
    std::string data = pattern(100000);
    std::thread writer([&] {
        ASSERT_EQ(safe_write(p.w, data.data(), static_cast<unsigned>(data.size())), 100000);
        p.close_w();
    });
    EXPECT_EQ(safe_copyfd(p.r, out), 100000);
    writer.join();
    EXPECT_EQ(file_content(out), data);
    close(out);
}

// ---- pad_ascii ----

std::string padded(int count)
{
    int out = temp_file("");
    pad_ascii(out, count);
    std::string s = file_content(out);
    close(out);
    return s;
}

TEST_F(SafeIo, PadWritesTwoLinesAndFortySpacesFor200)
{
    int out = temp_file("");
    iowrap::watch_write(out);
    pad_ascii(out, 200);
    std::string line = std::string(79, ' ') + "\n";
    EXPECT_EQ(file_content(out), line + line + std::string(40, ' '));
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].asked, 80u);
    EXPECT_EQ(log[1].asked, 80u);
    EXPECT_EQ(log[2].asked, 40u);
    close(out);
}

TEST_F(SafeIo, PadPiecesComeFromTheStartOfTheLine)
{
    std::string line = std::string(79, ' ') + "\n";
    EXPECT_EQ(padded(80), line);
    EXPECT_EQ(padded(79), std::string(79, ' '));
    EXPECT_EQ(padded(81), line + " ");
    EXPECT_EQ(padded(160), line + line);
    EXPECT_EQ(padded(1), " ");
}

TEST_F(SafeIo, PadOfZeroOrLessWritesNothing)
{
    int out = temp_file("");
    iowrap::watch_write(out);
    pad_ascii(out, 0);
    pad_ascii(out, -5);
    EXPECT_TRUE(iowrap::writes().empty());
    EXPECT_EQ(file_content(out), "");
    close(out);
}

TEST_F(SafeIo, PadStopsAtTheFirstWriteError)
{
    Pipe p;
    p.close_r();
    iowrap::watch_write(p.w);
    pad_ascii(p.w, 400);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].err, EPIPE);

    int out = temp_file("");
    iowrap::reset();
    iowrap::watch_write(out);
    iowrap::fail_writes(1, EIO, 1);
    pad_ascii(out, 400);
    EXPECT_EQ(iowrap::writes().size(), 2u);
    EXPECT_EQ(file_content(out), std::string(79, ' ') + "\n");
    close(out);
}

// ---- safe_write_within ----

// A socket pair whose sending side holds little, so a peer that does not
// read fills it at once.
struct SmallSocketPair {
    int s[2] = {-1, -1};
    SmallSocketPair()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, s), 0);
        int small = 4096;
        setsockopt(s[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        setsockopt(s[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    }
    ~SmallSocketPair()
    {
        close(s[0]);
        close(s[1]);
    }
};

TEST_F(SafeIo, WithinGivesUpOnASocketPeerThatTakesNothing)
{
    SmallSocketPair sp;
    std::string data = pattern(1 << 20);
    errno = 0;
    EXPECT_EQ(safe_write_within(sp.s[0], data.data(), static_cast<unsigned>(data.size()), 200), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    // The descriptor is left blocking: its flags may be shared.
    EXPECT_EQ(fcntl(sp.s[0], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(SafeIo, WithinGivesUpOnAPipeThatNobodyReads)
{
    Pipe p;
    std::string data = pattern(1 << 20);
    errno = 0;
    EXPECT_EQ(safe_write_within(p.w, data.data(), static_cast<unsigned>(data.size()), 200), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(SafeIo, WithinNeverCutsASlowReaderThatKeepsTakingBytes)
{
    // The reader takes 4096 bytes at a time with pauses far inside the
    // limit (the pauses make the whole write last longer than the limit;
    // they are what the test is about, not a wait for a state); the write
    // must complete.
    SmallSocketPair sp;
    std::string data = pattern(192 * 1024);
    std::string got;
    std::thread reader([&] {
        char buf[4096];
        ssize_t n;
        while ((n = read(sp.s[1], buf, sizeof buf)) > 0) {
            got.append(buf, static_cast<size_t>(n));
            std::this_thread::sleep_for(50ms);
        }
    });
    EXPECT_EQ(safe_write_within(sp.s[0], data.data(), static_cast<unsigned>(data.size()), 2000),
              static_cast<int>(data.size()));
    shutdown(sp.s[0], SHUT_WR);
    reader.join();
    EXPECT_EQ(got, data);
}

TEST_F(SafeIo, WithinSeesAVanishedReaderAsEpipe)
{
    Pipe p;
    p.close_r();
    errno = 0;
    EXPECT_EQ(safe_write_within(p.w, "x", 1, 200), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(SafeIo, WithinWritesAFileWhole)
{
    int fd = temp_file("");
    std::string data = pattern(300000);
    EXPECT_EQ(safe_write_within(fd, data.data(), static_cast<unsigned>(data.size()), 200),
              static_cast<int>(data.size()));
    EXPECT_EQ(file_content(fd), data);
    close(fd);
}

} // namespace
