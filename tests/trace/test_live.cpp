// The ptrace helpers and the tracer loop on real processes.  qemu-user has
// no ptrace: these skip when TOOLNEST_TEST_EMULATED is set and run on the
// host and on a real (or fully emulated) device.
#include "trace.h"

#include "tar.h"
#include "common.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <dirent.h>
#include <atomic>
#include <chrono>
#include <memory>
#include <functional>
#include <errno.h>
#include <fcntl.h>
#include <regex>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <vector>
#include <unistd.h>

namespace {

using testutil::emulated;
using testutil::state_of;
using testutil::status_field;
using testutil::wait_sleeping;
using testutil::wait_until;

int devnull()
{
    static int fd = open("/dev/null", O_RDWR);
    return fd;
}

// A traced child of ours, stopped at its exec.
int start_traced(const char *mode, const char *arg = nullptr)
{
    char *argv[] = {const_cast<char *>("trace_helper"), const_cast<char *>(mode),
                    const_cast<char *>(arg), nullptr};
    int pid = sys_run_nowait(TRACE_HELPER, argv, devnull(), devnull(), 2, 1);
    int status;
    waitpid(pid, &status, 0);
    return pid;
}

// A process that is not our child (its parent exited), idle.
int start_orphan()
{
    int p[2];
    if (pipe(p) != 0)
        return -1;
    pid_t mid = fork();
    if (mid == 0) {
        pid_t g = fork();
        if (g == 0) {
            close(p[0]);
            close(p[1]);
            char *argv[] = {const_cast<char *>("trace_helper"), const_cast<char *>("idle"),
                            nullptr};
            execv(TRACE_HELPER, argv);
            _exit(127);
        }
        write(p[1], &g, sizeof g);
        _exit(0);
    }
    close(p[1]);
    pid_t g = -1;
    read(p[0], &g, sizeof g);
    close(p[0]);
    waitpid(mid, nullptr, 0);
    wait_sleeping(g);  // settled in its pause
    return g;
}

struct collected {
    std::string text;
    int calls = 0;
    int stop_after = -1;  // return 0 from this call on
};

int collect(void *arg, const char *buf, int len)
{
    collected *c = static_cast<collected *>(arg);
    c->text.append(buf, static_cast<size_t>(len));
    c->calls++;
    return c->stop_after < 0 || c->calls < c->stop_after;
}

strace_ctx make_ctx(int32_t *pids, int n, collected *c)
{
    strace_ctx ctx{};
    ctx.out = collect;
    ctx.arg = c;
    ctx.flags = -1;
    ctx.pids = pids;
    ctx.npids = n;
    ctx.duration = -1;
    return ctx;
}

std::string capture_stdout(const std::function<void()> &f)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(Session, AttachToMissingPidFails)
{
    EXPECT_EQ(trace_attach(0x3ffffff0), -1);
}

TEST(Session, SyscallOnVanishedProcessTriesFourTimes)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    int r = 0;
    std::string out = capture_stdout([&] { r = trace_syscall(pid, 0); });
    EXPECT_EQ(r, -1);
    std::string one = std::string("SYSCALL failed ") + strerror(ESRCH) + "\n";
    if (!emulated()) {
        EXPECT_EQ(out, one + one + one + one);
    } else {
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4);
    }
}

TEST(Session, ContOnVanishedProcessTriesFourTimes)
{
    std::string out = capture_stdout([&] { EXPECT_EQ(trace_cont(0x3ffffff0, 0), -1); });
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4);
    EXPECT_EQ(out.rfind("PTRACE_CONT failed ", 0), 0u);
}

TEST(Session, SetoptionsFailureNamesContinue)
{
    int r = 0;
    std::string out = capture_stdout([&] { r = trace_setoptions(getppid(), 1); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out.rfind("PTRACE_CONT failed ", 0), 0u) << out;
    if (!emulated()) {
        EXPECT_EQ(out, std::string("PTRACE_CONT failed ") + strerror(ESRCH) + "\n");
    }
}

TEST(Session, AttachStopsAndDetachReleases)
{
    NEED_PTRACE();
    int pid = start_orphan();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(trace_attach(pid), pid);
    EXPECT_EQ(status_field(pid, "TracerPid"), std::to_string(getpid()));
    EXPECT_EQ(trace_setoptions(pid, PTRACE_O_TRACESYSGOOD), 0);
    EXPECT_EQ(trace_syscall(pid, 0), 0);
    // Running again: the detach has to stop it first.
    trace_detach(pid);
    EXPECT_EQ(status_field(pid, "TracerPid"), "0");
    // Released, it goes back to its pause.
    EXPECT_TRUE(wait_sleeping(pid)) << state_of(pid);
    kill(pid, SIGKILL);
}

// The line layout: "[pid name] [pc ra] call(...)" with the addresses in hex.
std::string unaddress(const std::string &s)
{
    static const std::regex addr(R"(\] \[[0-9a-f]+ [0-9a-f]+\] )");
    return std::regex_replace(s, addr, "] [A A] ");
}

bool has(const std::string &text, const std::string &needle)
{
    return text.find(needle) != std::string::npos;
}

TEST(Tracer, KnownCallsOfAChild)
{
    NEED_PTRACE();
    int pid = start_traced("calls");
    int32_t pids[1] = {pid};
    collected c;
    strace_ctx ctx = make_ctx(pids, 1, &c);
    ctx.children = 1;
    do_strace(&ctx);
    std::string t = unaddress(c.text);
    std::string p = "[" + std::to_string(pid) + " trace_helper] [A A] ";

    EXPECT_TRUE(has(t, p + "write(1 /dev/null, \"hi\\n\", 3)\n" + p +
                           "write(1 /dev/null, \"hi\\n\", 3) = 3\n")) << t;
    std::string x32(32, 'x');
    EXPECT_TRUE(has(t, p + "write(1 /dev/null, \"" + x32 + "\", 100) = 100\n")) << t;
    EXPECT_TRUE(has(t, p + "open(\"/nonexistent/directory/with/a/lo\", 0, 0) = " +
#if defined(__mips__)
                           "2\n"
#else
                           "-2\n"
#endif
                    )) << t;
    EXPECT_TRUE(has(t, p + "nanosleep({ 0, 1000000 }, { 0, 0 }) = 0\n") ||
                has(t, p + "nanosleep({ 0, 1000000 }, { -1, -1 }) = 0\n")) << t;
    EXPECT_TRUE(has(t, p + "socket(" + std::to_string(AF_INET) + ", " +
                           std::to_string(SOCK_STREAM) + ", 0) = ")) << t;
    EXPECT_TRUE(std::regex_search(
        t, std::regex(R"(connect\(\d+ socket:\[\d+\]\[127\.0\.0\.1:\d+ -> 127\.0\.0\.1:\d+\]\[TCP_ESTABLISHED\], 0x[0-9a-f]+, 16\) = 0\n)")))
        << t;
    EXPECT_TRUE(has(t, "\n[" + std::to_string(pid) + " trace_helper] ---  SIGNAL " +
                           std::to_string(SIGUSR1) + " SIGUSR1 ---\n\n")) << t;
    EXPECT_TRUE(has(t, p + "exit_group(2)\n")) << t;
    // The descriptor listing at the exit call and at the exit event.
    std::regex fds(R"(\n\[\d+ trace_helper\] (\d+) open fds:\n0\t/dev/null\n1\t/dev/null\n2\t)");
    auto begin = std::sregex_iterator(t.begin(), t.end(), fds);
    EXPECT_EQ(std::distance(begin, std::sregex_iterator()), 2) << t;
    EXPECT_EQ(pids[0], -1);
}

// Runs f in a thread and waits for it at most seconds: whether it returned
// by then.  One that does not is left running (the test fails and the
// process ends with it).  A tracer thread must start its traced children
// itself: ptrace requests come from the thread a tracee is attached to.
template <typename F> bool returns_within(F f, int seconds)
{
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([f, done] {
        f();
        *done = true;
    }).detach();
    return wait_until([done] { return done->load(); }, seconds);
}

bool strace_returns_within(strace_ctx *ctx, int seconds)
{
    return returns_within([ctx] { do_strace(ctx); }, seconds);
}

TEST(Tracer, EmptyListReturnsAtOnce)
{
    NEED_PTRACE();
    // A timer of an hour: had one been started, the trace would wait for it.
    collected c;
    strace_ctx ctx = make_ctx(nullptr, 0, &c);
    ctx.duration = 3600;
    ASSERT_TRUE(strace_returns_within(&ctx, 60));
    int32_t pids[2] = {-1, 0x3ffffff0};
    ctx = make_ctx(pids, 2, &c);
    ctx.duration = 3600;
    ASSERT_TRUE(strace_returns_within(&ctx, 60));
    EXPECT_EQ(pids[1], -1);
    EXPECT_EQ(c.calls, 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no timer child was started
}

TEST(Tracer, TimerEndsTraceOfIdleProcess)
{
    NEED_PTRACE();
    int pid = start_orphan();
    int32_t pids[1] = {pid};
    collected c;
    strace_ctx ctx = make_ctx(pids, 1, &c);
    ctx.duration = 1;
    auto t0 = std::chrono::steady_clock::now();
    // The trace cannot end before its one-second timer; that it ends at all
    // is waited for generously.
    ASSERT_TRUE(strace_returns_within(&ctx, 60));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1000));
    EXPECT_EQ(pids[0], pid);
    EXPECT_EQ(status_field(pid, "TracerPid"), "0");
    EXPECT_TRUE(wait_sleeping(pid)) << state_of(pid);
    // The listing at the end.
    EXPECT_TRUE(has(c.text, " open fds:\n")) << c.text;
    kill(pid, SIGKILL);
}

std::atomic<int> polls{0};

int count_polls(void *, const char *, int len)
{
    if (len == 0)
        polls++;
    return 1;
}

// Whether pid is blocked in the system call nr (/proc/PID/syscall).
bool blocked_in(int pid, long nr)
{
    char path[64], text[256];
    snprintf(path, sizeof path, "/proc/%d/syscall", pid);
    int fd = open(path, O_RDONLY);
    if (fd < 0)
        return false;
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    text[n > 0 ? n : 0] = '\0';
    return n > 0 && strtol(text, nullptr, 10) == nr;
}

TEST(Tracer, KilledProcessLeavesTimerRunning)
{
    NEED_PTRACE();
    std::atomic<int> pid{-1};
    int32_t pids[1] = {-1};
    strace_ctx ctx{};
    ctx.out = count_polls;
    ctx.flags = STRACE_F_CALLS;
    ctx.pids = pids;
    ctx.npids = 1;
    ctx.children = 1;
    ctx.duration = 5;  // ample time to reach the pause and be killed there
    polls = 0;
    bool returned = false;
    std::thread tracer([&] {
        pid = pids[0] = start_traced("idle");
        do_strace(&ctx);
        returned = true;
    });
    // Killed while it waits in its pause (the tracer waits too: no poll is
    // under way), the process is gone; the trace goes on to the timer's end:
    // one poll for the death, one for the timer.
    bool paused = wait_until([&] { return pid > 0 && blocked_in(pid, SYS_pause); }, 60);
    int before = polls;
    if (pid > 0)
        kill(pid, SIGKILL);
    tracer.join();
    ASSERT_TRUE(paused);
    EXPECT_TRUE(returned);
    EXPECT_EQ(pids[0], -1);
    EXPECT_EQ(polls - before, 2);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // timer and process reaped
}

TEST(Tracer, OutReturningZeroEndsTrace)
{
    NEED_PTRACE();
    int pid = start_traced("spam", "100000");
    int32_t pids[1] = {pid};
    collected c;
    c.stop_after = 5;
    strace_ctx ctx = make_ctx(pids, 1, &c);
    ctx.flags = STRACE_F_CALLS | STRACE_F_SIGNALS | STRACE_F_EXIT;  // no listing at the end
    ctx.children = 1;
    do_strace(&ctx);
    EXPECT_EQ(c.calls, 5);
    // Detached: it runs to its end by itself.
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Tracer, BudgetStopsTrace)
{
    NEED_PTRACE();
    int pid = start_traced("spam", "100000");
    int32_t pids[1] = {pid};
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    std::string got;
    std::thread reader([&] {
        char b[65536];
        ssize_t n;
        while ((n = read(p[0], b, sizeof b)) > 0)
            got.append(b, static_cast<size_t>(n));
    });
    cb_strace_ctx budget{p[1], 204800, 0};
    strace_ctx ctx{};
    ctx.out = cb_strace;
    ctx.arg = &budget;
    ctx.flags = -1;
    ctx.pids = pids;
    ctx.npids = 1;
    ctx.children = 1;
    do_strace(&ctx);
    close(p[1]);
    reader.join();
    close(p[0]);
    EXPECT_EQ(budget.budget, 0);
    EXPECT_EQ(budget.error, 0);
    EXPECT_EQ(got.size(), 204800u);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
}

int count_open_fds()
{
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d))
            n++;
        closedir(d);
    }
    return n;
}

struct many_seen {
    std::string text;
    int baseline = 0, most = 0;
};

int collect_and_count(void *arg, const char *buf, int len)
{
    auto *m = static_cast<many_seen *>(arg);
    m->text.append(buf, static_cast<size_t>(len));
    m->most = std::max(m->most, count_open_fds());
    return 1;
}

// Many traced processes: each one's descriptors are described right (each
// process has its own directory), and the tracer holds only a bounded number
// of directories open however many it traces.
TEST(Tracer, DescriptionsOfManyTracedProcesses)
{
    NEED_PTRACE();
    const int n = 40;
    many_seen m;
    m.baseline = count_open_fds();
    int32_t pids[n];
    for (int k = 0; k < n; k++)
        pids[k] = start_traced("spam", "3");
    strace_ctx ctx{};
    ctx.out = collect_and_count;
    ctx.arg = &m;
    ctx.flags = STRACE_F_CALLS;
    ctx.pids = pids;
    ctx.npids = n;
    ctx.children = 1;
    std::vector<int> started(pids, pids + n);
    do_strace(&ctx);
    std::string t = unaddress(m.text);
    for (int pid : started) {
        // Its writes of 40 bytes go to /dev/null, whatever number it got.
        std::regex line("\\[" + std::to_string(pid) +
                        R"( trace_helper\] \[A A\] write\(\d+ /dev/null, "0123456789)");
        EXPECT_TRUE(std::regex_search(t, line)) << pid;
        waitpid(pid, nullptr, 0);
    }
    EXPECT_LE(m.most, m.baseline + 16 + 2) << "descriptors held while tracing " << n;
}

TEST(Tracer, LongMessageIsDropped)
{
    collected c;
    strace_ctx ctx{};
    ctx.out = collect;
    ctx.arg = &c;
    char buf[16];
    ctx.buf = buf;
    ctx.bufsize = sizeof buf;
    EXPECT_EQ(strace_printf(&ctx, "%s", "0123456789abcdefXYZ"), 19);
    EXPECT_EQ(c.calls, 0);
    EXPECT_EQ(strace_printf(&ctx, "%s", "short"), 5);
    EXPECT_EQ(c.text, "short");
    EXPECT_EQ(strace_printf(&ctx, "%s", ""), 0);
    EXPECT_EQ(c.calls, 1);
}

TEST(Tracer, FindPid)
{
    int32_t pids[4] = {5, -1, 7, 5};
    EXPECT_EQ(strace_find_pid(5, pids, 4), 0);
    EXPECT_EQ(strace_find_pid(7, pids, 4), 2);
    EXPECT_EQ(strace_find_pid(-1, pids, 4), -1);
    EXPECT_EQ(strace_find_pid(7, pids, 2), -1);
    EXPECT_EQ(strace_find_pid(5, pids, 0), -1);
}

TEST(Tracer, ListFdsOfOwnProcess)
{
    collected c;
    int32_t pids[1] = {getpid()};
    strace_ctx ctx = make_ctx(pids, 1, &c);
    char *buf = static_cast<char *>(malloc(4096));
    ctx.buf = buf;
    ctx.bufsize = 4096;
    int n = strace_list_fds(&ctx, getpid());
    EXPECT_GT(n, 0);
    EXPECT_EQ(static_cast<size_t>(n), c.text.size());
    EXPECT_TRUE(std::regex_search(c.text, std::regex(R"(^\n\[\d+ \] \d+ open fds:\n0\t)")))
        << c.text;
    free(buf);
}

TEST(Tracer, ConcurrentTracesRunOneAfterTheOther)
{
    NEED_PTRACE();
    int a = start_orphan(), b = start_orphan();
    auto t0 = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration end[2];
    auto run = [&](int k, int pid) {
        int32_t pids[1] = {pid};
        collected c;
        strace_ctx ctx = make_ctx(pids, 1, &c);
        ctx.duration = 1;
        do_strace(&ctx);
        end[k] = std::chrono::steady_clock::now() - t0;
    };
    std::thread ta(run, 0, a), tb(run, 1, b);
    ta.join();
    tb.join();
    auto first = std::min(end[0], end[1]), second = std::max(end[0], end[1]);
    EXPECT_GE(first, std::chrono::milliseconds(900));
    EXPECT_GE(second, first + std::chrono::milliseconds(900));
    kill(a, SIGKILL);
    kill(b, SIGKILL);
}

} // namespace
