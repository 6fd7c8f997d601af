#include "common.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

using testutil::emulated;
using testutil::Pipe;

TEST(SysRun, ReturnsTheExitCode)
{
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("exit 3"), nullptr};
    EXPECT_EQ(sys_run("/bin/sh", argv, 0, 1, 2, 0), 3);
}

TEST(SysRun, AChildKilledBySignalGivesZero)
{
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("kill -9 $$; exit 7"), nullptr};
    EXPECT_EQ(sys_run("/bin/sh", argv, 0, 1, 2, 0), 0);
}

TEST(SysRun, MissingProgramReportsOnTheGivenStderr)
{
    Pipe err;
    char *const argv[] = {const_cast<char *>("nothing"), nullptr};
    EXPECT_EQ(sys_run("/nonexistent/program", argv, 0, 1, err.w, 0), 1);
    EXPECT_EQ(err.finish(), "execve: No such file or directory\n");
}

TEST(SysRun, ThePathIsNotSearched)
{
    Pipe err;
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("exit 0"), nullptr};
    EXPECT_EQ(sys_run("sh", argv, 0, 1, err.w, 0), 1);
    EXPECT_EQ(err.finish(), "execve: No such file or directory\n");
}

TEST(SysRun, OutputGoesToTheGivenPipeOnly)
{
    Pipe out;
    char name[] = "/tmp/tn-stdout-XXXXXX";
    int capture = mkstemp(name);
    ASSERT_GE(capture, 0);
    unlink(name);
    fflush(stdout);
    int saved = dup(1);
    dup2(capture, 1);

    char *const argv[] = {const_cast<char *>("echo"), const_cast<char *>("hello"), nullptr};
    int rc = sys_run("/bin/echo", argv, 0, out.w, 2, 0);

    dup2(saved, 1);
    close(saved);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out.finish(), "hello\n");
    EXPECT_EQ(lseek(capture, 0, SEEK_END), 0) << "parent's stdout received output";
    close(capture);
}

TEST(SysRun, StdinAndStderrAreWired)
{
    Pipe in, out, err;
    ASSERT_EQ(write(in.w, "abc", 3), 3);
    in.close_w();
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("cat; echo oops >&2"), nullptr};
    EXPECT_EQ(sys_run("/bin/sh", argv, in.r, out.w, err.w, 0), 0);
    EXPECT_EQ(out.finish(), "abc");
    EXPECT_EQ(err.finish(), "oops\n");
}

TEST(SysRun, GivenDescriptorsStayOpenInParentAndChild)
{
    Pipe out;
    std::string script = "echo direct >&" + std::to_string(out.w);
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>(script.c_str()), nullptr};
    EXPECT_EQ(sys_run("/bin/sh", argv, 0, out.w, 2, 0), 0);
    EXPECT_NE(fcntl(out.w, F_GETFD), -1);
    EXPECT_EQ(out.finish(), "direct\n");
}

TEST(SysRun, ProgramsSeeAnEmptyEnvironment)
{
    setenv("TOOLNEST_SHOULD_NOT_LEAK", "1", 1);
    Pipe out;
    char *const argv[] = {const_cast<char *>("env"), nullptr};
    EXPECT_EQ(sys_run("/usr/bin/env", argv, 0, out.w, 2, 0), 0);
    EXPECT_EQ(out.finish(), "");
    unsetenv("TOOLNEST_SHOULD_NOT_LEAK");
}

TEST(SysRun, AGivenEnvironmentIsPassed)
{
    Pipe out;
    char *const argv[] = {const_cast<char *>("env"), nullptr};
    char *const envp[] = {const_cast<char *>("A=1"), const_cast<char *>("B=two"), nullptr};
    int pid = sys_run_envp_nowait("/usr/bin/env", argv, envp, 0, out.w, 2, 0);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(out.finish(), "A=1\nB=two\n");
}

TEST(SysRun, NowaitReturnsWhileTheChildRuns)
{
    Pipe in, out;
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("read x; echo got $x; exit 5"), nullptr};
    int pid = sys_run_nowait("/bin/sh", argv, in.r, out.w, 2, 0);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(kill(pid, 0), 0);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "child ended before its input came";
    ASSERT_EQ(write(in.w, "ping\n", 5), 5);
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_EQ(out.finish(), "got ping\n");
}

TEST(SysRun, TraceFlagStopsTheChildAtItsExec)
{
    if (emulated())
        GTEST_SKIP() << "[qemu-user] qemu-user does not emulate ptrace";
    char *const argv[] = {const_cast<char *>("true"), nullptr};
    int pid = sys_run_nowait("/bin/true", argv, 0, 1, 2, 1);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_EQ(WSTOPSIG(status), SIGTRAP);
    // The exe link already names the new program.
    char exe[256] = {};
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ASSERT_GT(readlink(link.c_str(), exe, sizeof exe - 1), 0);
    EXPECT_NE(strstr(exe, "true"), nullptr);
    ASSERT_EQ(ptrace(PTRACE_DETACH, pid, nullptr, nullptr), 0);
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SysRun, ForkFailureReportsAndSysRunWaitsForAnyChild)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "[root] needs root to drop to an unprivileged user";
    Pipe err, code, release;
    pid_t helper = fork();
    ASSERT_GE(helper, 0);
    if (helper == 0) {
        // Root ignores RLIMIT_NPROC: become nobody first.
        if (setresgid(65534, 65534, 65534) || setresuid(65534, 65534, 65534))
            _exit(10);
        // A child made before the limit and unrelated to the calls below; it
        // ends with 42 once the test releases it.
        pid_t other = fork();
        if (other < 0)
            _exit(11);
        if (other == 0) {
            release.close_w();
            err.close_w();
            code.close_w();
            char c;
            (void)!read(release.r, &c, 1);
            _exit(42);
        }
        release.close_r();
        release.close_w();
        struct rlimit lim = {0, 0};
        if (setrlimit(RLIMIT_NPROC, &lim))
            _exit(12);
        dup2(err.w, 2);
        char *const argv[] = {const_cast<char *>("true"), nullptr};
        if (sys_run_nowait("/bin/true", argv, 0, 1, 2, 0) != -1)
            _exit(13);
        // fork fails, so sys_run waits for any child: it blocks until the
        // other child ends and returns that child's exit code.
        int first = sys_run("/bin/true", argv, 0, 1, 2, 0);
        // Now there is no child at all: waitpid(-1) fails, the preset gives 0.
        int second = sys_run("/bin/true", argv, 0, 1, 2, 0);
        int results[2] = {first, second};
        (void)!write(code.w, results, sizeof results);
        _exit(0);
    }
    release.close_r();
    code.close_w();
    // The helper has entered sys_run when its first "fork" message arrives
    // twice (sys_run_nowait, then sys_run's own); only then is the other
    // child released.
    std::string messages;
    err.close_w();
    while (messages.size() < 2 * strlen("fork: Resource temporarily unavailable\n")) {
        char buf[128];
        ssize_t n = read(err.r, buf, sizeof buf);
        if (n <= 0)
            break;
        messages.append(buf, static_cast<size_t>(n));
    }
    int results[2] = {-1, -1};
    release.close_w();
    EXPECT_EQ(read(code.r, results, sizeof results), static_cast<ssize_t>(sizeof results));
    int status = 0;
    ASSERT_EQ(waitpid(helper, &status, 0), helper);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(results[0], 42);
    EXPECT_EQ(results[1], 0);
    messages += err.finish();
    EXPECT_EQ(messages, "fork: Resource temporarily unavailable\n"
                        "fork: Resource temporarily unavailable\n"
                        "fork: Resource temporarily unavailable\n");
}

} // namespace
