// The request module with its callees stood in for (request_stubs.cpp): what
// each control message turns into, the fixed answers, the strace watcher and
// the push to a listener.  Connections are socket pairs; the test holds the
// browser's end.
#include "dbgcgi.h"
#include "request_stubs.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

// Allocation seam (linked with --wrap): the next allocation of exactly the
// armed size fails, as it would on a device out of memory.
size_t fail_alloc_size;
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
char *__real_strndup(const char *s, size_t n);
void *__wrap_malloc(size_t size)
{
    if (fail_alloc_size && size == fail_alloc_size) {
        fail_alloc_size = 0;
        return nullptr;
    }
    return __real_malloc(size);
}
void *__wrap_calloc(size_t n, size_t size)
{
    if (fail_alloc_size && n * size == fail_alloc_size) {
        fail_alloc_size = 0;
        return nullptr;
    }
    return __real_calloc(n, size);
}
char *__wrap_strndup(const char *s, size_t n)
{
    if (fail_alloc_size && strnlen(s, n) + 1 == fail_alloc_size) {
        fail_alloc_size = 0;
        return nullptr;
    }
    return __real_strndup(s, n);
}
}

namespace {

const std::string bad_request =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    "The request has bad syntax or was inherently impossible to satisfy\n";
const std::string internal_error =
    "HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    "The server encountered an internal error and could not complete the request\n";

std::string header(const char *type, const char *name)
{
    return std::string("HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\n"
                       "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: ") +
           type + "\r\nContent-Disposition: attachment; filename=\"" + name + "\"\r\n\r\n";
}

// Everything the daemon side writes until it closes its end (10 s at most).
std::string drain(int fd)
{
    std::string out;
    char buf[4096];
    for (;;) {
        pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, 10000);
        if (r == -1 && errno == EINTR)
            continue;
        if (r != 1) {
            ADD_FAILURE() << "no end of the response";
            return out;
        }
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return out;
        out.append(buf, static_cast<size_t>(n));
    }
}

template <typename F>
bool eventually(F cond)
{
    return testutil::wait_until(cond, 60);
}

// Threads of this process, and whether any thread has a child.
int threads()
{
    int n = 0;
    DIR *d = opendir("/proc/self/task");
    while (dirent *de = readdir(d))
        n += de->d_name[0] != '.';
    closedir(d);
    return n;
}

bool has_child(pid_t tid)
{
    char path[64], buf[64] = {};
    snprintf(path, sizeof path, "/proc/self/task/%d/children", tid);
    FILE *f = fopen(path, "r");
    if (!f)
        return false;
    bool any = fread(buf, 1, sizeof buf - 1, f) > 0;
    fclose(f);
    return any;
}

bool has_children()
{
    for (pid_t t : testutil::tasks(getpid()))
        if (has_child(t))
            return true;
    return false;
}

// The stand-in tracer blocked in its waitpid(-1): the thread that forked
// the process it holds, asleep.
bool tracer_waiting()
{
    for (pid_t t : testutil::tasks(getpid()))
        if (has_child(t) && testutil::state_of(getpid(), t) == 'S')
            return true;
    return false;
}

// The threads of the process before the test (a sanitizer may have its own).
int base_threads;

bool quiet()
{
    return threads() <= base_threads && !has_children();
}

int archive_busy()
{
    return __atomic_load_n(&archive_in_progress, __ATOMIC_SEQ_CST);
}

class Request : public ::testing::Test {
protected:
    void SetUp() override
    {
        // As in the daemon: a browser that has gone shows as EPIPE.
        signal(SIGPIPE, SIG_IGN);
        stub_reset();
        // A sanitizer starts a thread of its own with the first thread.
        std::thread([] {}).join();
        base_threads = threads();
        if (push_listener_fd != -1)
            close(push_listener_fd);
        push_listener_fd = -1;
    }
    void TearDown() override
    {
        ASSERT_TRUE(eventually([] { return archive_busy() == 0; }));
        if (push_listener_fd != -1)
            close(push_listener_fd);
        push_listener_fd = -1;
    }

    // Sends path NUL query NUL the way the daemon hands it over; returns the
    // browser's end of the connection.
    int send(const std::string &path, const std::string &query)
    {
        std::string msg = path + '\0' + query + '\0';
        return send_raw(msg);
    }
    int send_raw(const std::string &msg)
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        static char buf[4096];
        size_t len = msg.size() < 4095 ? msg.size() : 4095;
        memcpy(buf, msg.data(), len);
        buf[len] = '\0';
        pre_process_request(sv[1], buf, static_cast<int>(len));
        return sv[0];
    }
    // The whole answer to one request.
    std::string ask(const std::string &path, const std::string &query)
    {
        int c = send(path, query);
        std::string out = drain(c);
        close(c);
        return out;
    }
    stub_call only_call(const char *fn)
    {
        auto calls = stub_calls();
        for (auto &c : calls)
            if (c.fn == fn)
                return c;
        ADD_FAILURE() << fn << " not called";
        return {};
    }
};

TEST(RtraceOptions, TableAndLookup)
{
    const struct {
        const char *name;
        uint32_t bits;
    } want[] = {{"smaps", 0x1},    {"status", 0x2},       {"smapstot", 0x4}, {"filenr", 0x8},
                {"meminfo", 0x10}, {"diskinfo", 0x20},    {"iostat", 0x40},  {"pagetypeinfo", 0x80},
                {"hearth", 0x100}, {"event", 0x200},      {"pidstat", 0x400}, {"all", 0x67B},
                {"fast", 0x67C}};
    int i = 0;
    for (const rtrace_option *o = rtrace_options; o->name; o++, i++) {
        EXPECT_STREQ(o->name, want[i].name);
        EXPECT_EQ(o->bits, want[i].bits);
        EXPECT_EQ(rtrace_option_lookup(want[i].name), want[i].bits);
    }
    EXPECT_EQ(i, 13);
    EXPECT_EQ(rtrace_option_lookup("Fast"), 0u);
    EXPECT_EQ(rtrace_option_lookup(""), 0u);
    EXPECT_EQ(rtrace_option_lookup("meminfo "), 0u);
}

TEST_F(Request, RtraceMaskAndInterval)
{
    const struct {
        const char *query;
        long interval;
        long mask;
    } cases[] = {
        {"cmd=rtrace&trace=meminfo,%20iostat", 10, 0x50},
        {"cmd=rtrace&trace=bogus", 10, 0x67C},
        {"cmd=rtrace&interval=abc", -1, 0x67C},
        {"cmd=rtrace", 10, 0x67C},
        {"cmd=rtrace&interval=0", 0, 0x67C},
        {"cmd=rtrace&interval=-3", -3, 0x67C},
        {"cmd=rtrace&interval=%2012abc", 12, 0x67C},
        {"cmd=rtrace&interval=99999999999", -1, 0x67C},
        {"cmd=rtrace&interval=", -1, 0x67C},
        {"cmd=rtrace&trace=all", 10, 0x67B},
        {"cmd=rtrace&trace=fast,smaps", 10, 0x67D},
        {"cmd=rtrace&trace=,,meminfo,", 10, 0x10},
        {"cmd=rtrace&trace=+meminfo+", 10, 0x10},
        {"cmd=rtrace&trace=aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa,filenr", 10, 0x8},
        {"cmd=rtrace&trace=%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20%20meminfo", 10, 0x67C},
        {"cmd=rtrace&trace=", 10, 0x67C},
        {"cmd=rtracexyz&trace=status", 10, 0x2},
    };
    for (auto &c : cases) {
        stub_reset();
        std::string out = ask("/x", c.query);
        EXPECT_EQ(out, header("application/octet-stream", "rtrace") + "rtrace") << c.query;
        stub_call call = only_call("rtrace_create");
        EXPECT_EQ(call.a, c.interval) << c.query;
        EXPECT_EQ(call.b, c.mask) << c.query;
    }
}

TEST_F(Request, PcapValues)
{
    const struct {
        const char *query;
        long duration, size;
    } cases[] = {
        {"cmd=pcapdump&duration=-5", 0, 0},
        {"cmd=pcapdump", 0, 0},
        {"cmd=pcapdump&duration=7x&totalsize=100", 7, 100},
        {"cmd=pcapdump&duration=x&totalsize=-1", 0, 0},
        {"cmd=pcapdumpz&totalsize=%2B12", 0, 12},
    };
    for (auto &c : cases) {
        stub_reset();
        EXPECT_EQ(ask("/x", c.query), header("application/octet-stream", "pcapdump.cap") + "pcap");
        stub_call call = only_call("stream_pcap");
        EXPECT_EQ(call.a, c.duration) << c.query;
        EXPECT_EQ(call.b, c.size) << c.query;
    }
}

TEST_F(Request, ArchiveFormatByPath)
{
    const struct {
        const char *path;
        const char *query;
        bool gzip;
    } cases[] = {
        {"/cgi/debug.tgz", "", true},        {"/x/debug.tar", "", false},
        {"/x/coredumps.tgz", "", true},      {"/debug.tgz.old", "a=b", true},
        {"/x/coredumps.tgzz", "", true},     {"/x/DEBUG.TGZ", "", false},
        {"/x/debug.tg", "", false},          {"/", "", false},
        {"/debug.tgz/x", "", false},         {"/x/other", "a=1&listen", false},
    };
    for (auto &c : cases) {
        stub_reset();
        std::string out = ask(c.path, c.query);
        if (c.gzip)
            EXPECT_EQ(out, header("application/x-tar", "debug.tgz") + "tgz") << c.path;
        else
            EXPECT_EQ(out, header("application/x-tar", "debug.tar") + "tar") << c.path;
        ASSERT_TRUE(eventually([] { return archive_busy() == 0; }));
    }
}

TEST_F(Request, OneArchiveAtATime)
{
    int first = send("/x/debug.tar", "");
    std::string out = drain(first);
    close(first);
    ASSERT_TRUE(eventually([] { return archive_busy() == 0; }));
    // While an archive is being made (the flag as its thread holds it):
    __atomic_store_n(&archive_in_progress, 1, __ATOMIC_SEQ_CST);
    std::string busy = ask("/x/debug.tgz", "");
    EXPECT_EQ(busy, "HTTP/1.0 503 Service Unavailable\r\nCache-Control: no-cache\r\n"
                    "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: text/html\r\n\r\n"
                    "<HTML><HEAD></HEAD>\r\n<BODY>\r\nAnother Crash Report generation is in "
                    "progress. Please try again later ... \r\n</BODY></HTML>\r\n\r\n");
    EXPECT_EQ(ask("/x", "cmd=ps"), header("text/plain", "psdump.txt") + "ps");
    __atomic_store_n(&archive_in_progress, 0, __ATOMIC_SEQ_CST);
    EXPECT_EQ(out, header("application/x-tar", "debug.tar") + "tar");
}

TEST_F(Request, NoMemoryForARequestAnswers500)
{
    // Each request's record, and the query's copy: 500, never a crash, and
    // the archive slot is free again.
    struct {
        const char *path, *query;
        size_t size;
    } cases[] = {
        {"/x/debug.tar", "", sizeof(archive_req)},
        {"/x", "cmd=pcapdump", sizeof(pcap_req)},
        {"/x", "cmd=rtrace", sizeof(rtrace_req)},
        {"/x", "cmd=strace&pid=1", sizeof(strace_req)},
        // The query's copy: a length no record has.
        {"/x", "cmd=ps&zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz", 0},
    };
    for (auto &c : cases) {
        // With 32-bit pointers the query decoder's own 8-byte blocks come
        // first and take the failure meant for the 8-byte archive record.
        if (c.size == 8 && sizeof(void *) < 8)
            continue;
        stub_reset();
        fail_alloc_size = c.size ? c.size : strlen(c.query) + 1;
        EXPECT_EQ(ask(c.path, c.query), internal_error) << c.query;
        EXPECT_EQ(fail_alloc_size, 0u) << "the allocation was made: " << c.query;
        fail_alloc_size = 0;
        EXPECT_EQ(archive_busy(), 0);
        EXPECT_TRUE(stub_calls().empty()) << c.query;
    }
    EXPECT_TRUE(eventually(quiet));
}

TEST_F(Request, FixedErrors)
{
    EXPECT_EQ(bad_request.size(), 121u);
    EXPECT_EQ(internal_error.size(), 140u);
    EXPECT_EQ(ask("/x", "cmd=unknown"), bad_request);
    EXPECT_EQ(ask("/x", "cmd="), bad_request);
    EXPECT_EQ(ask("debug.tgz", ""), internal_error);  // no '/'
    int c = send_raw(std::string("/x/debug.tgz"));   // no end of the path
    EXPECT_EQ(drain(c), internal_error);
    close(c);
    c = send_raw(std::string("/x\0cmd=nope", 11));  // query without its NUL
    EXPECT_EQ(drain(c), bad_request);
    close(c);
    EXPECT_TRUE(stub_calls().empty());
}

TEST_F(Request, ListenersAndCoredumpWithoutPid)
{
    int a = send("/x/y", "listen");
    EXPECT_NE(push_listener_fd, -1);
    int b = send("/x/y", "cmd=coredump");
    // The first listener is closed without a byte.
    EXPECT_EQ(drain(a), "");
    close(a);
    EXPECT_NE(push_listener_fd, -1);
    int src[2];
    ASSERT_EQ(pipe(src), 0);
    ASSERT_EQ(write(src[1], "dump bytes", 10), 10);
    close(src[1]);
    EXPECT_EQ(handle_request_push(src[0], "core"), 0);
    EXPECT_EQ(push_listener_fd, -1);
    EXPECT_EQ(drain(b), header("application/octet-stream", "core") + "dump bytes");
    close(b);
    EXPECT_EQ(fcntl(src[0], F_GETFD), -1) << "the source is closed";
}

TEST_F(Request, PushWithoutListenerClosesTheSource)
{
    int src[2];
    ASSERT_EQ(pipe(src), 0);
    EXPECT_EQ(handle_request_push(src[0], "core"), 1);
    EXPECT_EQ(fcntl(src[0], F_GETFD), -1);
    close(src[1]);
}

TEST_F(Request, PushToAGoneListenerFailsAndFreesTheSlot)
{
    int a = send("/x/y", "listen");
    close(a);
    int src[2];
    ASSERT_EQ(pipe(src), 0);
    std::string big(100000, 'c');
    std::thread writer([&] {
        if (write(src[1], big.data(), big.size()) < 0) {
        }
        close(src[1]);
    });
    EXPECT_EQ(handle_request_push(src[0], "core"), 1);
    writer.join();
    EXPECT_EQ(push_listener_fd, -1);
}

TEST_F(Request, CoredumpTargets)
{
    pid_t child = fork();
    if (child == 0) {
        execl("/bin/sleep", "/opt/x/uniqsleeper", "60", nullptr);
        _exit(127);
    }
    ASSERT_TRUE(eventually([&] {
        char path[64], buf[64] = {};
        snprintf(path, sizeof path, "/proc/%d/cmdline", child);
        FILE *f = fopen(path, "r");
        if (!f)
            return false;
        size_t n = fread(buf, 1, sizeof buf - 1, f);
        fclose(f);
        return n > 0 && strstr(buf, "uniqsleeper");
    }));
    const std::string core = header("application/octet-stream", "core") + "core";
    std::string q = "cmd=coredump&pid=" + std::to_string(child);
    EXPECT_EQ(ask("/x", q), core);
    EXPECT_EQ(only_call("coredump").a, child);
    stub_reset();
    EXPECT_EQ(ask("/x", "cmd=coredump&pid=%20uniqsleeper%09"), core);
    EXPECT_EQ(only_call("coredump").a, child);
    stub_reset();
    EXPECT_EQ(ask("/x", "cmd=coredumpx&pid=0"), core);
    EXPECT_EQ(only_call("coredump").a, 0);
    stub_reset();
    for (const char *bad : {"pid=-5", "pid=-1", "pid=nosuchname", "pid=", "pid=%20", "pid=999999999"})
        EXPECT_EQ(ask("/x", std::string("cmd=coredump&") + bad), bad_request) << bad;
    EXPECT_EQ(ask("/x", "cmd=coredump&pid=" + std::to_string(getpid())), bad_request);
    EXPECT_TRUE(stub_calls().empty());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(Request, StraceTargets)
{
    pid_t kids[2];
    for (pid_t &k : kids) {
        k = fork();
        if (k == 0) {
            execl("/bin/sleep", "/opt/x/tracesleeper", "60", nullptr);
            _exit(127);
        }
    }
    ASSERT_TRUE(eventually([&] {
        char buf[64] = {};
        for (pid_t k : kids) {
            char path[64];
            snprintf(path, sizeof path, "/proc/%d/cmdline", k);
            FILE *f = fopen(path, "r");
            if (!f)
                return false;
            size_t n = fread(buf, 1, sizeof buf - 1, f);
            fclose(f);
            if (n == 0 || !strstr(buf, "tracesleeper"))
                return false;
        }
        return true;
    }));
    const std::string ok = header("text/plain", "stracedump.txt") + "[1 stub] trace line\n";
    std::string me = std::to_string(getpid());

    EXPECT_EQ(ask("/x", "cmd=strace&pid=" + me + ",tracesleeper"), ok);
    stub_call c = only_call("do_strace");
    EXPECT_EQ(c.a, -1);   // flags: everything
    EXPECT_EQ(c.b, -1);   // no time limit
    EXPECT_EQ(c.c, 0);    // attach to running processes
    ASSERT_EQ(c.pids.size(), 3u);
    EXPECT_EQ(c.pids[0], getpid());
    EXPECT_EQ(std::min(c.pids[1], c.pids[2]), std::min(kids[0], kids[1]));
    EXPECT_EQ(std::max(c.pids[1], c.pids[2]), std::max(kids[0], kids[1]));

    stub_reset();
    EXPECT_EQ(ask("/x", "cmd=strace&pid=" + std::string(32, 'z') + "," + me + ","), ok);
    EXPECT_EQ(only_call("do_strace").pids, std::vector<int32_t>{getpid()});

    stub_reset();
    for (const char *bad : {"pid=99999999", "pid=nosuchprocess", "pid=", "pid=%20", "pid=,,",
                            "pid=-1"})
        EXPECT_EQ(ask("/x", std::string("cmd=strace&") + bad), bad_request) << bad;
    EXPECT_TRUE(stub_calls().empty());

    // Without pid: every process but this one (and init, and the parent).
    EXPECT_EQ(ask("/x", "cmd=strace"), ok);
    c = only_call("do_strace");
    EXPECT_FALSE(c.pids.empty());
    for (int32_t p : c.pids) {
        EXPECT_NE(p, getpid());
        EXPECT_NE(p, 1);
        EXPECT_NE(p, getppid());
    }
    for (pid_t k : kids) {
        kill(k, SIGKILL);
        waitpid(k, nullptr, 0);
    }
}

TEST_F(Request, StraceCapAt512)
{
    // 600 times pid 1 (alive, and ours to signal as root): the list stops at 512.
    if (geteuid() != 0)
        GTEST_SKIP() << "[root] needs root to signal pid 1";
    std::string list;
    for (int i = 0; i < 600; i++)
        list += "1,";
    EXPECT_EQ(ask("/x", "cmd=strace&pid=" + list),
              header("text/plain", "stracedump.txt") + "[1 stub] trace line\n");
    EXPECT_EQ(only_call("do_strace").pids.size(), 512u);
}

TEST_F(Request, BrowserLeavingStopsAWaitingTrace)
{
    stub_trace = STUB_TRACE_WAIT;
    int c = send("/x", "cmd=strace&pid=" + std::to_string(getpid()));
    std::string want = header("text/plain", "stracedump.txt") + "[1 stub] trace line\n";
    std::string got;
    while (got.size() < want.size()) {
        char buf[512];
        ssize_t n = read(c, buf, sizeof buf);
        ASSERT_GT(n, 0);
        got.append(buf, static_cast<size_t>(n));
    }
    EXPECT_EQ(got, want);
    ASSERT_TRUE(eventually([] { return !stub_calls().empty(); }));
    ASSERT_TRUE(eventually(tracer_waiting));
    // The browser goes: the watcher wakes the tracer, which stops; the thread
    // then closes the connection and no child is left behind.
    shutdown(c, SHUT_WR);
    EXPECT_EQ(drain(c), "");
    close(c);
    EXPECT_TRUE(eventually(quiet));
}

TEST_F(Request, BrowserLeavingAtOnce)
{
    // Gone before (or while) the trace starts, one trace waiting behind the
    // other: no wake-up is lost, every request ends.  (One whose header
    // could not be written does not trace at all.)
    stub_trace = STUB_TRACE_WAIT;
    for (int i = 0; i < 20; i++) {
        int c = send("/x", "cmd=strace&pid=" + std::to_string(getpid()));
        close(c);
    }
    EXPECT_TRUE(eventually(quiet));
    EXPECT_LE(stub_calls().size(), 20u);
}

}  // namespace
