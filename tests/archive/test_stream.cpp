#include "tar.h"
#include "io_wrap.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

using testutil::Pipe;

class Stream : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        iowrap::reset();
    }
    void TearDown() override { iowrap::reset(); }
};

// ---- stream_http_header ----

TEST_F(Stream, HeaderTextIsExactAndWrittenInOnePiece)
{
    Pipe p;
    iowrap::watch_write(p.w);
    EXPECT_EQ(stream_http_header(p.w, "application/x-tar", "debug.tar"), 0);
    const std::string want =
        "HTTP/1.0 200 OK\r\n"
        "Cache-Control: no-cache\r\n"
        "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
        "Content-Type: application/x-tar\r\n"
        "Content-Disposition: attachment; filename=\"debug.tar\"\r\n"
        "\r\n";
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].asked, want.size());
    EXPECT_EQ(p.finish(), want);
}

TEST_F(Stream, HeaderInsertsAQuoteInTheFileNameUnescaped)
{
    Pipe p;
    EXPECT_EQ(stream_http_header(p.w, "text/plain", "a\"b.txt"), 0);
    std::string got = p.finish();
    EXPECT_NE(got.find("Content-Disposition: attachment; filename=\"a\"b.txt\"\r\n"),
              std::string::npos)
        << got;
}

TEST_F(Stream, HeaderWithEmptyStrings)
{
    Pipe p;
    EXPECT_EQ(stream_http_header(p.w, "", ""), 0);
    EXPECT_EQ(p.finish(),
              "HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\n"
              "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: \r\n"
              "Content-Disposition: attachment; filename=\"\"\r\n\r\n");
}

TEST_F(Stream, HeaderReportsAFailedWrite)
{
    Pipe p;
    p.close_r();
    EXPECT_EQ(stream_http_header(p.w, "text/plain", "x"), 1);  // EPIPE

    Pipe q;
    iowrap::watch_write(q.w);
    iowrap::fail_writes(1, EIO);
    EXPECT_EQ(stream_http_header(q.w, "text/plain", "x"), 1);
    EXPECT_EQ(q.finish(), "");
}

// ---- stream_http_message ----

// The whole page for a status and a message.
std::string page(const std::string &status, const std::string &message)
{
    return "HTTP/1.0 " + status +
           "\r\n"
           "Cache-Control: no-cache\r\n"
           "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
           "Content-Type: text/html\r\n"
           "\r\n"
           "<HTML><HEAD></HEAD>\r\n"
           "<BODY>\r\n" +
           message +
           "\r\n"
           "</BODY></HTML>\r\n"
           "\r\n";
}

TEST_F(Stream, MessagePageIsExact)
{
    Pipe p;
    stream_http_message(p.w, "503 Service Unavailable", "busy, try again later");
    EXPECT_EQ(p.finish(),
              "HTTP/1.0 503 Service Unavailable\r\n"
              "Cache-Control: no-cache\r\n"
              "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
              "Content-Type: text/html\r\n"
              "\r\n"
              "<HTML><HEAD></HEAD>\r\n"
              "<BODY>\r\n"
              "busy, try again later\r\n"
              "</BODY></HTML>\r\n"
              "\r\n");
}

TEST_F(Stream, MessageInsertsTextVerbatimInOneWrite)
{
    Pipe p;
    iowrap::watch_write(p.w);
    stream_http_message(p.w, "200 OK", "<b>%s \"quoted\"</b>");
    ASSERT_EQ(iowrap::writes().size(), 1u);
    std::string got = p.finish();
    EXPECT_EQ(got.substr(0, 17), "HTTP/1.0 200 OK\r\n");
    EXPECT_NE(got.find("<BODY>\r\n<b>%s \"quoted\"</b>\r\n</BODY></HTML>\r\n\r\n"),
              std::string::npos);
}

TEST_F(Stream, MessageIgnoresAFailedWrite)
{
    // A vanished reader: the page is tried once, whole, and the failure is
    // left at that; the descriptor stays the caller's.
    Pipe p;
    p.close_r();
    iowrap::watch_write(p.w);
    stream_http_message(p.w, "200 OK", "gone");
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].asked, page("200 OK", "gone").size());
    EXPECT_EQ(log[0].got, -1);
    EXPECT_EQ(log[0].err, EPIPE);
    EXPECT_NE(fcntl(p.w, F_GETFD), -1);

    // Any other error: no retry either, and the next page goes out normally.
    Pipe q;
    iowrap::reset();
    iowrap::watch_write(q.w);
    iowrap::fail_writes(1, EIO);
    stream_http_message(q.w, "500 Internal Server Error", "first");
    stream_http_message(q.w, "200 OK", "second");
    log = iowrap::writes();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].got, -1);
    EXPECT_EQ(log[0].err, EIO);
    EXPECT_EQ(q.finish(), page("200 OK", "second"));
}

// ---- stream_pad ----

TEST_F(Stream, PadNothingForZeroOrNegative)
{
    Pipe p;
    iowrap::watch_write(p.w);
    EXPECT_EQ(stream_pad(p.w, 0), 0);
    EXPECT_EQ(stream_pad(p.w, -1), 0);
    EXPECT_EQ(stream_pad(p.w, -1000), 0);
    EXPECT_TRUE(iowrap::writes().empty());
    EXPECT_EQ(p.finish(), "");
}

TEST_F(Stream, Pad70WritesPiecesOf32And32And6)
{
    Pipe p;
    iowrap::watch_write(p.w);
    EXPECT_EQ(stream_pad(p.w, 70), 0);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].asked, 32u);
    EXPECT_EQ(log[1].asked, 32u);
    EXPECT_EQ(log[2].asked, 6u);
    EXPECT_EQ(p.finish(), std::string(70, '\0'));
}

TEST_F(Stream, PadExactMultipleAndSmallCounts)
{
    Pipe p;
    iowrap::watch_write(p.w);
    EXPECT_EQ(stream_pad(p.w, 64), 0);
    EXPECT_EQ(stream_pad(p.w, 1), 0);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].asked, 32u);
    EXPECT_EQ(log[1].asked, 32u);
    EXPECT_EQ(log[2].asked, 1u);
    EXPECT_EQ(p.finish(), std::string(65, '\0'));
}

TEST_F(Stream, PadStopsAtTheFirstFailedWrite)
{
    Pipe p;
    iowrap::watch_write(p.w);
    iowrap::fail_writes(1, EIO, 1);
    EXPECT_EQ(stream_pad(p.w, 100), 1);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 2u);  // one good piece, the failure, nothing after
    EXPECT_EQ(log[0].got, 32);
    EXPECT_EQ(log[1].err, EIO);
    EXPECT_EQ(p.finish(), std::string(32, '\0'));

    Pipe q;
    q.close_r();
    EXPECT_EQ(stream_pad(q.w, 10), 1);
}

TEST_F(Stream, PadLargeCountIsAllZeros)
{
    Pipe p;
    EXPECT_EQ(stream_pad(p.w, 10000), 0);
    std::string got = p.finish();
    EXPECT_EQ(got, std::string(10000, '\0'));
}

// ---- cb_strace ----

TEST_F(Stream, TraceBudget10With25ByteLineWrites10AndStops)
{
    Pipe p;
    cb_strace_ctx ctx = {p.w, 10, 0};
    iowrap::watch_write(p.w);
    EXPECT_EQ(cb_strace(&ctx, "0123456789abcdefghijklmno", 25), 0);
    EXPECT_EQ(ctx.budget, 0);
    EXPECT_EQ(ctx.error, 0);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].asked, 10u);
    EXPECT_EQ(p.finish(), "0123456789");
}

TEST_F(Stream, TraceGoesOnWhileBudgetRemains)
{
    Pipe p;
    cb_strace_ctx ctx = {p.w, 60, 0};
    const char line[] = "write(1, \"x\", 1) = 1\n";  // 21 bytes
    EXPECT_EQ(cb_strace(&ctx, line, 21), 1);
    EXPECT_EQ(ctx.budget, 39);
    EXPECT_EQ(cb_strace(&ctx, line, 21), 1);
    EXPECT_EQ(ctx.budget, 18);
    EXPECT_EQ(cb_strace(&ctx, line, 21), 0);
    EXPECT_EQ(ctx.budget, 0);
    // A late call after the budget is spent writes no byte, but still makes
    // its one (empty) write call, which is how a vanished reader shows.
    iowrap::watch_write(p.w);
    EXPECT_EQ(cb_strace(&ctx, line, 21), 0);
    ASSERT_EQ(iowrap::writes().size(), 1u);
    EXPECT_EQ(iowrap::writes()[0].asked, 0u);
    EXPECT_EQ(ctx.budget, 0);
    EXPECT_EQ(ctx.error, 0);
    EXPECT_EQ(p.finish(), std::string(line) + line + std::string(line, 18));
}

TEST_F(Stream, AnEmptyCallFindsAReaderThatHasGone)
{
    // The tracer calls with no text while the trace is quiet: the empty
    // write finds the closed connection, so the trace stops at once.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    close(sv[1]);
    cb_strace_ctx ctx = {sv[0], 100, 0};
    EXPECT_EQ(cb_strace(&ctx, "", 0), 0);
    EXPECT_EQ(ctx.error, 1);
    EXPECT_EQ(ctx.budget, 100);
    close(sv[0]);
}

TEST_F(Stream, TraceExactFitStops)
{
    Pipe p;
    cb_strace_ctx ctx = {p.w, 5, 0};
    EXPECT_EQ(cb_strace(&ctx, "abcde", 5), 0);
    EXPECT_EQ(ctx.budget, 0);
    EXPECT_EQ(p.finish(), "abcde");
}

TEST_F(Stream, TraceWriteFailureSetsErrorAndStops)
{
    Pipe p;
    p.close_r();
    cb_strace_ctx ctx = {p.w, 100, 0};
    EXPECT_EQ(cb_strace(&ctx, "line\n", 5), 0);
    EXPECT_EQ(ctx.error, 1);
    EXPECT_EQ(ctx.budget, 100);

    Pipe q;
    cb_strace_ctx ctx2 = {q.w, 100, 0};
    iowrap::watch_write(q.w);
    iowrap::fail_writes(1, EIO, 1);
    EXPECT_EQ(cb_strace(&ctx2, "first\n", 6), 1);
    EXPECT_EQ(cb_strace(&ctx2, "second\n", 7), 0);
    EXPECT_EQ(ctx2.error, 1);
    EXPECT_EQ(ctx2.budget, 94);
    EXPECT_EQ(q.finish(), "first\n");
}

} // namespace
