// Formatters and decoders against a synthetic tracee: run on every build,
// also under qemu-user.
#include "fake_tracee.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <string>

namespace {

constexpr unsigned long W = sizeof(unsigned long);

std::string str(fake_tracee &t, unsigned long addr, long len, int size = 256)
{
    trace_reader rd = t.reader();
    char buf[512];
    memset(buf, 'Z', sizeof buf);
    int n = strace_format_string(1, buf, size, addr, len, &rd);
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    return std::string(buf, static_cast<size_t>(n));
}

TEST(FormatString, EscapesAndQuotes)
{
    fake_tracee t;
    unsigned long a = t.put(0, "hi\n\r\t\x01\xff", 8);
    EXPECT_EQ(str(t, a, 7), "\"hi\\n\\r\\t\\x1\\xff\"");
}

TEST(FormatString, NulEndsOnlyTerminatedStrings)
{
    fake_tracee t;
    unsigned long a = t.put(0, "ab\0cd", 5);
    EXPECT_EQ(str(t, a, -1), "\"ab\"");
    EXPECT_EQ(str(t, a, 5), "\"ab\\x0cd\"");
}

TEST(FormatString, Limits)
{
    fake_tracee t;
    std::string s(100, 'x');
    unsigned long a = t.put_str(0, s);
    EXPECT_EQ(str(t, a, 100), "\"" + std::string(32, 'x') + "\"");
    EXPECT_EQ(str(t, a, 64), "\"" + std::string(64, 'x') + "\"");
    EXPECT_EQ(str(t, a, 65), "\"" + std::string(32, 'x') + "\"");
    EXPECT_EQ(str(t, a, -1), "\"" + std::string(32, 'x') + "\"");
    EXPECT_EQ(str(t, a, 0), "\"\"");
    EXPECT_EQ(str(t, a, -2), "\"\"");
}

TEST(FormatString, SizeBoundsOutput)
{
    fake_tracee t;
    unsigned long a = t.put_str(0, "abcdefghij");
    // Stops once position + 3 reaches the size; the closing quote follows.
    EXPECT_EQ(str(t, a, -1, 8), "\"abcd\"");
    char buf[4] = {'Z', 'Z', 'Z', 'Z'};
    trace_reader rd = t.reader();
    int n = strace_format_string(1, buf, 3, a, -1, &rd);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(buf[3], 'Z');
}

// Byte i shows only when the whole word at addr + i is readable: a string
// that runs up to the end of readable memory is cut W - 1 bytes early, with
// the bulk reader and without it.
TEST(FormatString, UnreadableWordCutsString)
{
    for (int mode = 0; mode < 3; mode++) {
        fake_tracee t;
        t.bulk = mode != 0;
        t.bulk_partial = mode == 1;
        unsigned long a = t.put(t.mem.size() - 10, "0123456789", 10);
        std::string want = "\"" + std::string("0123456789").substr(0, 10 - (W - 1)) + "\"";
        EXPECT_EQ(str(t, a, -1), want) << mode;
        EXPECT_EQ(str(t, a, 10), want) << mode;
        EXPECT_EQ(str(t, t.base + t.mem.size() + 16, 5), "\"\"") << mode;
    }
}

TEST(FormatString, BulkReadSavesPeeks)
{
    fake_tracee t;
    unsigned long a = t.put_str(0, std::string(40, 'q'));
    str(t, a, 40);
    EXPECT_EQ(t.peeks, 0);
    EXPECT_EQ(t.bulk_reads, 1);
    t.bulk = false;
    str(t, a, 40);
    EXPECT_EQ(t.peeks, 40);
}

TEST(FormatFd, WithAndWithoutDescription)
{
    fake_tracee t;
    t.fds[1] = "/dev/pts/3";
    trace_reader rd = t.reader();
    char buf[64];
    EXPECT_EQ(strace_format_fd(1, buf, sizeof buf, 1, &rd), 12);
    EXPECT_STREQ(buf, "1 /dev/pts/3");
    EXPECT_EQ(strace_format_fd(1, buf, sizeof buf, 7, &rd), 1);
    EXPECT_STREQ(buf, "7");
    // Bounded, counted as snprintf counts.
    EXPECT_EQ(strace_format_fd(1, buf, 4, 1, &rd), 12);
    EXPECT_STREQ(buf, "1 /");
}

TEST(FormatTimespec, MoreAndLast)
{
    fake_tracee t;
    t.put_word(t.base + 64, 5);
    t.put_word(t.base + 64 + W, 250);
    trace_reader rd = t.reader();
    char buf[64];
    strace_format_timespec(1, buf, sizeof buf, t.base + 64, 1, &rd);
    EXPECT_STREQ(buf, "{ 5, 250 }, ");
    strace_format_timespec(1, buf, sizeof buf, t.base + 64, 0, &rd);
    EXPECT_STREQ(buf, "{ 5, 250 })");
}

std::string sock(fake_tracee &t, int sub, unsigned long a1, unsigned long a2, unsigned long a3,
                 unsigned long a4 = 0, unsigned long a5 = 0, unsigned long a6 = 0)
{
    trace_reader rd = t.reader();
    char buf[256];
    int n = strace_format_sockcall(9, buf, sizeof buf, sub, a1, a2, a3, a4, a5, a6, &rd);
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    return buf;
}

TEST(FormatSockcall, EverySubcall)
{
    fake_tracee t;
    t.fds[3] = "socket:[77]";
    unsigned long a = t.put_str(0, "ping");
    EXPECT_EQ(sock(t, 1, 2, 1, 0), "2, 1, 0)");
    EXPECT_EQ(sock(t, 2, 3, 0x1000, 16), "3 socket:[77], 0x1000, 16)");
    EXPECT_EQ(sock(t, 3, 3, 0x1000, 16), "3 socket:[77], 0x1000, 16)");
    EXPECT_EQ(sock(t, 11, 3, a, 4, 0, 0x20, 16), "3 socket:[77], \"ping\", 4, 0x0, 0x20, 16)");
    EXPECT_EQ(sock(t, 12, 3, a, 4, 1, 2, 3), "3 socket:[77], \"ping\", 0x1, 0x2, 0x3)");
    EXPECT_EQ(sock(t, 13, 3, 1, 0), "3 socket:[77], 1)");
    EXPECT_EQ(sock(t, 14, 3, 1, 2, 0x30, 4), "3 socket:[77], 1, 2, 0x30, 0x4)");
    EXPECT_EQ(sock(t, 16, 3, 0x40, 0x4000), "3 socket:[77], 0x40, 4000)");
    EXPECT_EQ(sock(t, 17, 3, 0x40, 64), "3 socket:[77], 0x40, 64)");
    EXPECT_EQ(sock(t, 4, 3, 5, 0, 0, 0, 0), "3, 5, 0, 0, 0, 0)");
}

TEST(SignalNames, RangeAndInvalid)
{
    EXPECT_STREQ(signal_map_sig2name(0), "Invalid");
    EXPECT_STREQ(signal_map_sig2name(32), "Invalid");
    EXPECT_STREQ(signal_map_sig2name(-3), "Invalid");
    EXPECT_STREQ(signal_map_sig2name(1), "SIGHUP");
    EXPECT_STREQ(signal_map_sig2name(9), "SIGKILL");
#if defined(__mips__)
    EXPECT_STREQ(signal_map_sig2name(7), "SIGEMT");
    EXPECT_STREQ(signal_map_sig2name(10), "SIGBUS");
    EXPECT_STREQ(signal_map_sig2name(18), "SIGCHLD");
    EXPECT_STREQ(signal_map_sig2name(23), "SIGSTOP");
    EXPECT_STREQ(signal_map_sig2name(31), "SIGXFSZ");
#else
    EXPECT_STREQ(signal_map_sig2name(7), "SIGBUS");
    EXPECT_STREQ(signal_map_sig2name(19), "SIGSTOP");
    EXPECT_STREQ(signal_map_sig2name(31), "SIGSYS");
#endif
}

TEST(SocketcallNames, Table)
{
    EXPECT_EQ(socketcall_names[0], nullptr);
    EXPECT_STREQ(socketcall_names[1], "socket");
    EXPECT_STREQ(socketcall_names[12], "recvfrom");
    EXPECT_STREQ(socketcall_names[18], "accept4");
    for (int i = 19; i < 32; i++)
        EXPECT_EQ(socketcall_names[i], nullptr) << i;
}

} // namespace
