#include "proc.h"

#include "tar.h"
#include "proc_test_util.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

using namespace proctest;

namespace {

std::string s(const char *lit, size_t n)
{
    return std::string(lit, n);
}

std::vector<int32_t> list_all(int32_t exclude)
{
    std::vector<int32_t> pids(1 << 16, -7);
    int n = proc_list(pids.data(), static_cast<int>(pids.size()), exclude);
    pids.resize(static_cast<size_t>(n));
    return pids;
}

bool contains(const std::vector<int32_t> &v, int32_t pid)
{
    return std::find(v.begin(), v.end(), pid) != v.end();
}

std::string pidname(pid_t pid)
{
    char buf[128];
    memset(buf, 'Z', sizeof buf);
    if (!proc_get_pidname(pid, buf, sizeof buf))
        return "<none>";
    return buf;
}

// Waits for one line from a child's stdout pipe.
std::string read_line(int fd)
{
    std::string out;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n')
        out += c;
    return out;
}

// A shell that renames itself (comm) and then waits on its stdin.
struct RenamedShell {
    Child child;
    int in_w = -1;
    explicit RenamedShell(const std::string &comm)
    {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0)
            return;
        // "sh" without a '/' so that the name comes from the stat file.
        std::string script = "printf '%s' '" + comm + "' >/proc/self/comm; echo ready; sleep 1000";
        child = spawn("/bin/sh", {"sh", "-c", script}, {}, out[1]);
        close(out[1]);
        std::string line = read_line(out[0]);
        close(out[0]);
        EXPECT_EQ(line, "ready");
    }
};

} // namespace

// ---- proc_read_file ----

TEST(ProcReadFile, OneReadOfAtMostLenWithoutTerminator)
{
    TempDir d;
    d.write("f", "hello world");
    char buf[8];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(proc_read_file((d.path + "/f").c_str(), buf, 5), 5);
    EXPECT_EQ(s(buf, 8), "helloXXX");
    EXPECT_EQ(proc_read_file((d.path + "/f").c_str(), buf, sizeof buf), 8);
    EXPECT_EQ(proc_read_file((d.path + "/missing").c_str(), buf, sizeof buf), -1);
}

TEST(ProcReadFile, EmptyFileGivesZero)
{
    TempDir d;
    d.write("e", "");
    char buf[4];
    EXPECT_EQ(proc_read_file((d.path + "/e").c_str(), buf, sizeof buf), 0);
}

// ---- name parsers ----

TEST(ProcParseCmdlineName, TailOfFirstWordBehindLastSlash)
{
    char buf[] = "/usr/bin/foo\0-x\0/other/bar\0";
    EXPECT_EQ(proc_parse_cmdline_name(buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "foo");
}

TEST(ProcParseCmdlineName, FirstWordWithoutSlashIsNotUsed)
{
    char buf[] = "foo\0/usr/bin/bar\0";
    EXPECT_EQ(proc_parse_cmdline_name(buf, sizeof buf), 0);
}

TEST(ProcParseCmdlineName, TrailingSlashGivesNothing)
{
    char buf[] = "/usr/bin/\0x\0";
    EXPECT_EQ(proc_parse_cmdline_name(buf, sizeof buf), 0);
}

TEST(ProcParseCmdlineName, NameWithBlank)
{
    char buf[] = "/opt/my prog\0arg\0";
    EXPECT_EQ(proc_parse_cmdline_name(buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "my prog");
}

TEST(ProcParseCmdlineName, LastByteIsForcedToNul)
{
    char buf[9];
    memcpy(buf, "/x/abcdefg", 9);  // no terminator within the buffer
    EXPECT_EQ(proc_parse_cmdline_name(buf, 6), 1);
    EXPECT_STREQ(buf, "ab");
}

TEST(ProcParseCmdlineName, EmptyAndZeroSize)
{
    char buf[4] = {0, 0, 0, 0};
    EXPECT_EQ(proc_parse_cmdline_name(buf, sizeof buf), 0);
    EXPECT_EQ(proc_parse_cmdline_name(buf, 0), 0);
}

TEST(ProcParseStatName, TextBetweenParentheses)
{
    char buf[] = "123 (foo) S 1 123 123 0 -1";
    EXPECT_EQ(proc_parse_stat_name(buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "foo");
}

TEST(ProcParseStatName, LastCloseMustBeFollowedByBlank)
{
    char buf[] = "123 (foo)S 1";
    EXPECT_EQ(proc_parse_stat_name(buf, sizeof buf), 0);
    char end[] = "123 (foo)";
    EXPECT_EQ(proc_parse_stat_name(end, sizeof end), 0);
}

TEST(ProcParseStatName, NameWithParenthesesAndBlanks)
{
    // Last ')' + blank closes the name, the last '(' before it opens it.
    char buf[] = "77 (x(y) z) S 1";
    EXPECT_EQ(proc_parse_stat_name(buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "y) z");
    char paren[] = "77 (a) b) S 1";
    EXPECT_EQ(proc_parse_stat_name(paren, sizeof paren), 1);
    EXPECT_STREQ(paren, "a) b");
    char blank[] = "78 (my prog) S 1";
    EXPECT_EQ(proc_parse_stat_name(blank, sizeof blank), 1);
    EXPECT_STREQ(blank, "my prog");
}

TEST(ProcParseStatName, EmptyOrMissingOpen)
{
    char empty[] = "1 () S";
    EXPECT_EQ(proc_parse_stat_name(empty, sizeof empty), 0);
    char noopen[] = "1 foo) S";
    EXPECT_EQ(proc_parse_stat_name(noopen, sizeof noopen), 0);
    char none[] = "nothing here";
    EXPECT_EQ(proc_parse_stat_name(none, sizeof none), 0);
    EXPECT_EQ(proc_parse_stat_name(none, 0), 0);
}

TEST(ProcParseStatName, CutByBufferSize)
{
    char buf[] = "1 (abcdefgh) S 0";
    // Only 7 characters fit: "1 (abcd" has no ')'.
    EXPECT_EQ(proc_parse_stat_name(buf, 8), 0);
}

TEST(ProcParseStatPpid, FourthField)
{
    const char t[] = "123 (foo) S 42 123 123 0";
    EXPECT_EQ(proc_parse_stat_ppid(t, strlen(t)), 42);
}

TEST(ProcParseStatPpid, BlankInNameShiftsFields)
{
    const char t[] = "123 (my prog) S 42 123";
    EXPECT_EQ(proc_parse_stat_ppid(t, strlen(t)), 0);  // "S" parses as 0
    const char t2[] = "123 (a b 9) S 42";
    EXPECT_EQ(proc_parse_stat_ppid(t2, strlen(t2)), 9);
}

TEST(ProcParseStatPpid, RunsOfWhiteSpaceCountOnce)
{
    const char t[] = "  5 (x)\t\n 7 8";
    EXPECT_EQ(proc_parse_stat_ppid(t, strlen(t)), 7);  // the leading run is the first
}

TEST(ProcParseStatPpid, EndOfTextBeforeField)
{
    const char t[] = "123 (foo) S";
    EXPECT_EQ(proc_parse_stat_ppid(t, strlen(t)), -1);
    EXPECT_EQ(proc_parse_stat_ppid("", 0), -1);
    const char full[] = "123 (foo) S 42";
    EXPECT_EQ(proc_parse_stat_ppid(full, 11), -1);  // the length bounds the text
}

TEST(ProcParseStatPpid, OnlyFirst256Bytes)
{
    std::string t = "1 (" + std::string(300, 'a') + ") S 9";
    EXPECT_EQ(proc_parse_stat_ppid(t.data(), t.size()), -1);
    std::string u = "1 (x) S 9" + std::string(300, 'b');
    EXPECT_EQ(proc_parse_stat_ppid(u.data(), u.size()), 9);
}

// ---- proc_name_from_dir on a made-up tree ----

class ProcNameFromDir : public ::testing::Test {
protected:
    TempDir d;
    std::string name(int32_t pid, size_t size = 128, const char *prefill = nullptr)
    {
        std::vector<char> buf(size + 1, 'Z');
        if (prefill)
            memcpy(buf.data(), prefill, strlen(prefill) + 1);
        if (!proc_name_from_dir(d.path.c_str(), pid, buf.data(), size))
            return "<none>";
        EXPECT_EQ(buf[size], 'Z');  // nothing beyond size
        return buf.data();
    }
};

TEST_F(ProcNameFromDir, CmdlineWithSlashWins)
{
    d.write("10/cmdline", s("/usr/bin/foo\0-x\0", 16));
    d.write("10/stat", "10 (bar) S 1");
    EXPECT_EQ(name(10), "foo");
}

TEST_F(ProcNameFromDir, CmdlineWithoutSlashFallsBackToStat)
{
    d.write("11/cmdline", s("foo\0arg\0", 8));
    d.write("11/stat", "11 (bar) S 1");
    EXPECT_EQ(name(11), "bar");
}

TEST_F(ProcNameFromDir, EmptyCmdlineUsesStat)
{
    d.write("12/cmdline", "");
    d.write("12/stat", "12 (kthreadd) S 0 0 0 0 -1");
    EXPECT_EQ(name(12), "kthreadd");
}

TEST_F(ProcNameFromDir, NoCmdlineFile)
{
    d.write("13/stat", "13 (x y) S 1");
    EXPECT_EQ(name(13), "x y");
}

TEST_F(ProcNameFromDir, StatWithoutBlankAfterCloseGivesNothing)
{
    d.write("14/stat", "14 (x)S 1");
    EXPECT_EQ(name(14), "<none>");
}

TEST_F(ProcNameFromDir, EmptyStatGivesNothing)
{
    d.write("17/stat", "");
    EXPECT_EQ(name(17, 128, "1 (stale) S"), "<none>");
}

TEST_F(ProcNameFromDir, MissingStatParsesTheBufferAsItStands)
{
    EXPECT_EQ(name(15, 128, "9 (stale) S"), "stale");
    EXPECT_EQ(name(15, 128, "nothing"), "<none>");
    // What a slash-less cmdline left in the buffer is parsed in the same way.
    d.write("16/cmdline", s("a (b) c\0", 8));
    EXPECT_EQ(name(16), "b");
}

TEST_F(ProcNameFromDir, SmallBuffers)
{
    d.write("20/cmdline", s("/a/bcdefg\0", 10));
    EXPECT_EQ(name(20, 6), "bc");
    d.write("21/stat", "21 (abcdefgh) S 1");
    EXPECT_EQ(name(21, 8), "<none>");
    // The blank behind ')' must fit as well.
    EXPECT_EQ(name(21, 14), "<none>");
    EXPECT_EQ(name(21, 15), "abcdefgh");
    EXPECT_EQ(name(21, 0), "<none>");
}

TEST_F(ProcNameFromDir, OverlongDirectoryIsNoName)
{
    std::string dir(200, 'd');
    char buf[64] = "1 (x) S";
    EXPECT_EQ(proc_name_from_dir(dir.c_str(), 1, buf, sizeof buf), 0);
}

// ---- names of live processes ----

TEST(ProcGetPidname, Argv0WithSlash)
{
    Child c = spawn("/bin/sleep", {"/opt/tn/namedsleeper", "1000"});
    ASSERT_GT(c.pid, 0);
    EXPECT_EQ(pidname(c.pid), "namedsleeper");
}

TEST(ProcGetPidname, Argv0WithoutSlashUsesStatName)
{
    Child c = spawn("/bin/sleep", {"nosl", "1000"});
    ASSERT_GT(c.pid, 0);
    EXPECT_EQ(pidname(c.pid), "sleep");  // comm comes from the executable
}

TEST(ProcGetPidname, Argv0WithBlank)
{
    Child c = spawn("/bin/sleep", {"/x/my prog", "1000"});
    ASSERT_GT(c.pid, 0);
    EXPECT_EQ(pidname(c.pid), "my prog");
}

TEST(ProcGetPidname, StatNameWithBlank)
{
    RenamedShell sh("my prog");
    ASSERT_GT(sh.child.pid, 0);
    EXPECT_EQ(pidname(sh.child.pid), "my prog");
    // The blank shifts the stat fields for the parent pid.
    EXPECT_EQ(proc_ppid(sh.child.pid), 0);
}

TEST(ProcGetPidname, StatNameWithParentheses)
{
    RenamedShell sh("x(y) z");
    ASSERT_GT(sh.child.pid, 0);
    EXPECT_EQ(pidname(sh.child.pid), "y) z");
}

TEST(ProcGetPidname, KernelThreadHasStatName)
{
    std::string stat = read_file("/proc/2/stat");
    if (stat.rfind("2 (kthreadd)", 0) != 0)
        GTEST_SKIP() << "[pid-namespace] no kthreadd visible in this pid namespace";
    EXPECT_EQ(read_file("/proc/2/cmdline"), "");
    EXPECT_EQ(pidname(2), "kthreadd");
    EXPECT_EQ(proc_is_kernel_thread(2), 1);
}

TEST(ProcGetPidname, VanishedProcess)
{
    EXPECT_EQ(pidname(vanished_pid()), "<none>");
}

// ---- proc_list ----

TEST(ProcList, LeavesOutInitSelfParentExcludedAndIgnored)
{
    SKIP_UNLESS_PROC_ROOT_LISTABLE();
    Child plain = spawn("/bin/sleep", {"sleep", "1000"});
    Child excluded = spawn("/bin/sleep", {"sleep", "1000"});
    Child ignored = spawn("/bin/sleep", {"sleep", "1000"});
    ASSERT_GT(plain.pid, 0);
    ASSERT_GT(excluded.pid, 0);
    ASSERT_GT(ignored.pid, 0);

    proc_extra_ignore_pid = ignored.pid;
    std::vector<int32_t> pids = list_all(excluded.pid);
    proc_extra_ignore_pid = 0;

    EXPECT_TRUE(contains(pids, plain.pid));
    EXPECT_FALSE(contains(pids, 1));
    EXPECT_FALSE(contains(pids, getpid()));
    EXPECT_FALSE(contains(pids, getppid()));
    EXPECT_FALSE(contains(pids, excluded.pid));
    EXPECT_FALSE(contains(pids, ignored.pid));
    EXPECT_FALSE(contains(pids, 0));

    // Without those settings both come back.
    pids = list_all(-1);
    EXPECT_TRUE(contains(pids, excluded.pid));
    EXPECT_TRUE(contains(pids, ignored.pid));
}

TEST(ProcList, CapacityZeroAndOne)
{
    int32_t pids[2] = {-7, -7};
    EXPECT_EQ(proc_list(pids, 0, -1), 0);
    EXPECT_EQ(pids[0], -7);
    SKIP_UNLESS_PROC_ROOT_LISTABLE();
    Child a = spawn("/bin/sleep", {"sleep", "1000"});
    Child b = spawn("/bin/sleep", {"sleep", "1000"});
    EXPECT_EQ(proc_list(pids, 1, -1), 1);
    EXPECT_GT(pids[0], 1);
    EXPECT_EQ(pids[1], -7);
}

namespace {

// Runs in a fresh pid namespace with its own /proc:
//   init(1) -> A -> { X, Y, Z, B }, where B lists the processes.
// Reports "" on success, else what went wrong, through fd.
[[noreturn]] void namespace_tree(int fd)
{
    auto say = [fd](const std::string &m) { (void)!write(fd, m.data(), m.size()); };
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) {
        say(std::string("SKIP [unshare] unshare: ") + strerror(errno));
        _exit(0);
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        say(std::string("SKIP [unshare] mount private: ") + strerror(errno));
        _exit(0);
    }
    pid_t init = fork();
    if (init != 0) {
        waitpid(init, nullptr, 0);
        _exit(0);
    }
    // pid 1 of the namespace.
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0) {
        say(std::string("SKIP [unshare] mount proc: ") + strerror(errno));
        _exit(0);
    }
    pid_t a = fork();
    if (a != 0) {
        waitpid(a, nullptr, 0);
        _exit(0);
    }
    pid_t kids[3];
    for (pid_t &k : kids) {
        k = fork();
        if (k == 0) {
            pause();
            _exit(0);
        }
    }
    pid_t b = fork();
    if (b == 0) {
        std::string err;
        auto expect = [&](std::vector<int32_t> got, std::vector<int32_t> want, const char *what) {
            std::sort(got.begin(), got.end());
            std::sort(want.begin(), want.end());
            if (got != want) {
                err += what;
                err += ": got";
                for (int32_t p : got)
                    err += " " + std::to_string(p);
                err += "; ";
            }
        };
        if (getpid() == 1 || getppid() == 1)
            err += "unexpected tree; ";
        int32_t pids[16];
        int n = proc_list(pids, 16, -1);
        expect(std::vector<int32_t>(pids, pids + n), {kids[0], kids[1], kids[2]}, "plain");
        proc_extra_ignore_pid = kids[0];
        n = proc_list(pids, 16, kids[1]);
        expect(std::vector<int32_t>(pids, pids + n), {kids[2]}, "excluded+ignored");
        proc_extra_ignore_pid = 0;
        pids[0] = -7;
        if (proc_list(pids, 0, -1) != 0 || pids[0] != -7)
            err += "capacity 0; ";
        pids[1] = -7;
        if (proc_list(pids, 1, -1) != 1 || pids[1] != -7)
            err += "capacity 1; ";
        say(err.empty() ? "OK" : err);
        _exit(0);
    }
    waitpid(b, nullptr, 0);
    for (pid_t k : kids) {
        kill(k, SIGKILL);
        waitpid(k, nullptr, 0);
    }
    _exit(0);
}

} // namespace

TEST(ProcList, ExactListInPidNamespace)
{
    SKIP_UNLESS_PROC_ROOT_LISTABLE();
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(p[0]);
        namespace_tree(p[1]);
    }
    close(p[1]);
    std::string out;
    char buf[512];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    waitpid(pid, nullptr, 0);
    if (out.rfind("SKIP", 0) == 0)
        GTEST_SKIP() << out;
    EXPECT_EQ(out, "OK");
}

// ---- proc_plist_remove_pid ----

TEST(ProcPlistRemovePid, ErasesFirstOccurrenceFromFirstIndex)
{
    int32_t pids[] = {5, 7, 5, 9, 5};
    proc_plist_remove_pid(pids, 0, 5, 5);
    EXPECT_EQ(std::vector<int32_t>(pids, pids + 5), (std::vector<int32_t>{-1, 7, 5, 9, 5}));
    proc_plist_remove_pid(pids, 1, 5, 5);
    EXPECT_EQ(std::vector<int32_t>(pids, pids + 5), (std::vector<int32_t>{-1, 7, -1, 9, 5}));
}

TEST(ProcPlistRemovePid, NegativeFirstIndexStaysInsideTheArray)
{
    // The list proper starts at slot 1; slot 0 stands for the memory before it.
    int32_t storage[] = {9, 5, 9, 7};
    int32_t *pids = storage + 1;
    proc_plist_remove_pid(pids, -1, 3, 9);
    EXPECT_EQ(std::vector<int32_t>(storage, storage + 4), (std::vector<int32_t>{9, 5, -1, 7}));
    proc_plist_remove_pid(pids, -1000, 3, 5);
    EXPECT_EQ(std::vector<int32_t>(storage, storage + 4), (std::vector<int32_t>{9, -1, -1, 7}));
    proc_plist_remove_pid(pids, -1, 0, 7);  // nothing in [first, count) is in the array
    EXPECT_EQ(std::vector<int32_t>(storage, storage + 4), (std::vector<int32_t>{9, -1, -1, 7}));
}

TEST(ProcPlistRemovePid, BoundsAndAbsentPid)
{
    int32_t pids[] = {5, 7, 9};
    proc_plist_remove_pid(pids, 3, 3, 9);   // first not below count
    proc_plist_remove_pid(pids, 4, 3, 9);
    proc_plist_remove_pid(pids, 0, 2, 9);   // slot 2 is outside the count
    proc_plist_remove_pid(pids, 0, 3, 42);  // absent
    EXPECT_EQ(std::vector<int32_t>(pids, pids + 3), (std::vector<int32_t>{5, 7, 9}));
}

// ---- exe link, kernel threads, parent ----

TEST(ProcPidExe, FullLinkIsNotTerminated)
{
    Child c = spawn("/bin/sleep", {"sleep", "1000"});
    ASSERT_GT(c.pid, 0);
    std::string want = readlink_str("/proc/" + std::to_string(c.pid) + "/exe");
    ASSERT_FALSE(want.empty());
    std::vector<char> buf(want.size() + 10, 'X');
    int n = proc_pid_exe(c.pid, buf.data(), buf.size());
    ASSERT_EQ(n, static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf.data(), static_cast<size_t>(n)), want);
    EXPECT_EQ(buf[static_cast<size_t>(n)], 'X');
}

TEST(ProcPidExe, LongerLinkIsCutAndTerminated)
{
    Child c = spawn("/bin/sleep", {"sleep", "1000"});
    ASSERT_GT(c.pid, 0);
    std::string want = readlink_str("/proc/" + std::to_string(c.pid) + "/exe");
    ASSERT_GT(want.size(), 5u);
    char buf[6];
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(proc_pid_exe(c.pid, buf, 5), 4);
    EXPECT_EQ(std::string(buf), want.substr(0, 4));
    EXPECT_EQ(buf[5], 'X');

    // Exactly size - 1 bytes: terminated at size - 1.
    std::vector<char> exact(want.size() + 2, 'X');
    EXPECT_EQ(proc_pid_exe(c.pid, exact.data(), want.size() + 1),
              static_cast<int>(want.size()));
    EXPECT_EQ(exact[want.size()], '\0');
}

TEST(ProcPidExe, VanishedProcess)
{
    char buf[64];
    EXPECT_EQ(proc_pid_exe(vanished_pid(), buf, sizeof buf), -1);
}

TEST(ProcIsKernelThread, UserProcessAndVanished)
{
    Child c = spawn("/bin/sleep", {"sleep", "1000"});
    ASSERT_GT(c.pid, 0);
    EXPECT_EQ(proc_is_kernel_thread(c.pid), 0);
    EXPECT_EQ(proc_is_kernel_thread(vanished_pid()), 1);
}

TEST(ProcPpid, ParentOfChildAndVanished)
{
    Child c = spawn("/bin/sleep", {"sleep", "1000"});
    ASSERT_GT(c.pid, 0);
    EXPECT_EQ(proc_ppid(c.pid), getpid());
    EXPECT_EQ(proc_ppid(vanished_pid()), -1);
}

// ---- proc_find_pid_by_name ----

TEST(ProcFindPidByName, MadeUpTree)
{
    TempDir d;
    d.write("100/cmdline", s("/bin/alpha\0", 11));
    d.write("101/stat", "101 (alpha) S 1");
    d.write("102/stat", "102 (beta) S 1");
    d.write("103/cmdline", s("/usr/alpha\0", 11));
    d.write("self/stat", "5 (alpha) S 1");  // not a number: skipped
    d.write("net/x", "");

    int32_t pids[8];
    int count = -1;
    proc_find_pid_by_name(d.path.c_str(), "alpha", pids, &count, 8);
    ASSERT_EQ(count, 3);
    std::vector<int32_t> got(pids, pids + 3);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<int32_t>{100, 101, 103}));

    proc_find_pid_by_name(d.path.c_str(), "alpha", pids, &count, 2);
    EXPECT_EQ(count, 2);
    proc_find_pid_by_name(d.path.c_str(), "alpha", pids, &count, 0);
    EXPECT_EQ(count, 0);
    proc_find_pid_by_name(d.path.c_str(), "gamma", pids, &count, 8);
    EXPECT_EQ(count, 0);
    count = 99;
    proc_find_pid_by_name((d.path + "/missing").c_str(), "alpha", pids, &count, 8);
    EXPECT_EQ(count, 0);
}

TEST(ProcNameIndex, FindsWhatAScanPerNameFinds)
{
    TempDir d;
    d.write("100/cmdline", s("/bin/alpha\0", 11));
    d.write("101/stat", "101 (alpha) S 1");
    d.write("102/stat", "102 (beta) S 1");
    d.write("103/cmdline", s("/usr/alpha\0", 11));
    d.write("104/cmdline", "/usr/" + std::string(70, 'l'));
    for (int i = 200; i < 600; i++)
        d.write(std::to_string(i) + "/stat", std::to_string(i) + " (many) S 1");
    d.write("self/stat", "5 (alpha) S 1");

    proc_name_index ix;
    ASSERT_EQ(proc_name_index_build(d.path.c_str(), &ix), 0);
    EXPECT_EQ(ix.n, 405);
    for (const char *name : {"alpha", "beta", "many", "gamma", "l"}) {
        for (int cap : {0, 1, 2, 8, 32}) {
            int32_t a[32], b[32];
            int na = -1, nb = -1;
            proc_find_pid_by_name(d.path.c_str(), name, a, &na, cap);
            proc_name_index_find(&ix, name, b, &nb, cap);
            ASSERT_EQ(na, nb) << name << " " << cap;
            EXPECT_EQ(std::vector<int32_t>(a, a + na), std::vector<int32_t>(b, b + nb)) << name;
        }
    }
    // A name of 64 bytes or more matches nothing.
    int32_t pids[4];
    int n = -1;
    proc_name_index_find(&ix, "", pids, &n, 4);
    EXPECT_EQ(n, 0);
    proc_name_index_free(&ix);
    EXPECT_EQ(ix.n, 0);
    EXPECT_EQ(proc_name_index_build((d.path + "/missing").c_str(), &ix), -1);
    EXPECT_EQ(ix.n, 0);
}

TEST(ProcFindPidByName, LiveProcess)
{
    SKIP_UNLESS_PROC_ROOT_LISTABLE();
    std::string name = "tn-findme-" + std::to_string(getpid());
    Child c = spawn("/bin/sleep", {"/x/" + name, "1000"});
    ASSERT_GT(c.pid, 0);
    int32_t pids[32];
    int count = 0;
    proc_find_pid_by_name("/proc", name.c_str(), pids, &count, 32);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(pids[0], c.pid);
}

// ---- descriptors ----

namespace {

// A sleeping child holding /dev/null on 0-2, three pipe descriptors on 3-5
// and two sockets on 6-7, and nothing else.
Child child_with_pipes_and_sockets()
{
    int p1[2], p2[2], sv[2];
    if (pipe(p1) != 0 || pipe(p2) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        return Child();
    Child c = spawn("/bin/sleep", {"sleep", "1000"}, {p1[0], p1[1], p2[0], sv[0], sv[1]});
    for (int fd : {p1[0], p1[1], p2[0], p2[1], sv[0], sv[1]})
        close(fd);
    return c;
}

} // namespace

TEST(ProcFdlist, DescriptorsOfChild)
{
    Child c = child_with_pipes_and_sockets();
    ASSERT_GT(c.pid, 0);
    int fds[16];
    int n = proc_fdlist(c.pid, fds, 16);
    ASSERT_EQ(n, 8);
    std::set<int> got(fds, fds + n);
    EXPECT_EQ(got, (std::set<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(proc_fdlist(c.pid, fds, 3), 3);
    EXPECT_EQ(proc_fdlist(c.pid, fds, 0), 0);
    EXPECT_EQ(proc_fdlist(vanished_pid(), fds, 16), 0);
}

TEST(ProcNrFd2, ThreePipesTwoSockets)
{
    Child c = child_with_pipes_and_sockets();
    ASSERT_GT(c.pid, 0);
    int socks = -1, pipes = -1;
    EXPECT_EQ(proc_nr_fd2(c.pid, &socks, &pipes), 8);
    EXPECT_EQ(socks, 2);
    EXPECT_EQ(pipes, 0);  // exact "pipe:[" match: real links carry the inode
    socks = -1;
    EXPECT_EQ(proc_nr_fd2(c.pid, &socks, nullptr), 8);
    EXPECT_EQ(socks, 2);
    pipes = -1;
    EXPECT_EQ(proc_nr_fd2(c.pid, nullptr, &pipes), 8);
    EXPECT_EQ(pipes, 0);
    EXPECT_EQ(proc_nr_fd2(c.pid, nullptr, nullptr), 8);
}

TEST(ProcNrFd2, VanishedProcessGivesZeros)
{
    int socks = 99, pipes = 99;
    EXPECT_EQ(proc_nr_fd2(vanished_pid(), &socks, &pipes), 0);
    EXPECT_EQ(socks, 0);
    EXPECT_EQ(pipes, 0);
    EXPECT_EQ(proc_nr_fd2(vanished_pid(), nullptr, nullptr), 0);
}

TEST(ProcNrFd2, ChurningDescriptorsStillEnd)
{
    // A child that opens and closes descriptors without pause makes links
    // vanish under the reader, which then starts over; it must still finish.
    int sync[2];
    ASSERT_EQ(pipe(sync), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(sync[0]);
        (void)!write(sync[1], "r", 1);
        for (;;) {
            int fds[64];
            for (int &fd : fds)
                fd = dup(sync[1]);
            for (int fd : fds)
                close(fd);
        }
    }
    Child c(pid);
    close(sync[1]);
    char r;
    ASSERT_EQ(read(sync[0], &r, 1), 1);
    close(sync[0]);
    for (int i = 0; i < 200; i++) {
        int socks = -1, pipes = -1;
        int n = proc_nr_fd2(pid, &socks, &pipes);
        EXPECT_GE(n, 1);
        EXPECT_GE(socks, 0);
        EXPECT_EQ(pipes, 0);
    }
}

// ---- proc_mem_pread ----

namespace {
char mem_marker[64] = "original contents of the marker buffer";
}

TEST(ProcMemPread, ReadsChildMemory)
{
    if (emulated())
        GTEST_SKIP() << "[qemu-user] guest addresses are not the host addresses /proc/PID/mem uses";
    int sync[2];
    ASSERT_EQ(pipe(sync), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Differs from the parent's copy, so the read must come from the child.
        strcpy(mem_marker, "the child's own marker text");
        (void)!write(sync[1], "r", 1);
        pause();
        _exit(0);
    }
    Child c(pid);
    close(sync[1]);
    char r;
    ASSERT_EQ(read(sync[0], &r, 1), 1);
    close(sync[0]);

    char buf[64];
    memset(buf, 0, sizeof buf);
    int64_t at = static_cast<int64_t>(reinterpret_cast<uintptr_t>(mem_marker));
    EXPECT_EQ(proc_mem_pread(pid, buf, sizeof buf, at), static_cast<int>(sizeof buf));
    EXPECT_STREQ(buf, "the child's own marker text");
    EXPECT_EQ(proc_mem_pread(pid, buf, 5, at + 4), 5);
    EXPECT_EQ(std::string(buf, 5), "child");
    // Offset 4 is never mapped: the read fails.
    EXPECT_EQ(proc_mem_pread(pid, buf, 4, 4), -1);
}

TEST(ProcMemPread, ReadsElfHeaderOfExecutedChild)
{
    // A natively running child, so its addresses are real ones even under qemu-user.
    Child c = spawn("/bin/sleep", {"sleep", "1000"});
    ASSERT_GT(c.pid, 0);
    std::string exe = readlink_str("/proc/" + std::to_string(c.pid) + "/exe");
    std::string maps = read_file("/proc/" + std::to_string(c.pid) + "/maps");
    // The first mapping of the executable starts at file offset 0: the ELF header.
    size_t end = maps.find(" " + exe + "\n");
    ASSERT_NE(end, std::string::npos) << maps;
    size_t begin = maps.rfind('\n', end);
    begin = begin == std::string::npos ? 0 : begin + 1;
    unsigned long long start = strtoull(maps.c_str() + begin, nullptr, 16);
    char buf[4];
    ASSERT_EQ(proc_mem_pread(c.pid, buf, sizeof buf, static_cast<int64_t>(start)), 4);
    EXPECT_EQ(std::string(buf, 4), "\x7f" "ELF");
}

TEST(ProcMemPread, VanishedProcess)
{
    char buf[4];
    EXPECT_EQ(proc_mem_pread(vanished_pid(), buf, sizeof buf, 0), -1);
}

// ---- proc_append_fdmap ----

namespace {

using Member = testutil::TarMember;

// Reads the members of a stream written by the tar writer (no end blocks).
std::vector<Member> members(const std::string &tarball)
{
    size_t end = 0;
    std::vector<Member> out = testutil::tar_members(tarball, &end);
    EXPECT_EQ(end, tarball.size());
    return out;
}

std::string fdmap_of(pid_t pid)
{
    char tmpl[] = "/tmp/tn-fdmap-test-XXXXXX";
    int fd = mkstemp(tmpl);
    EXPECT_GE(fd, 0);
    unlink(tmpl);
    tar *t = tar_new(fd, "dir/");
    EXPECT_NE(t, nullptr);
    proc_append_fdmap(t, "fdmap", pid, fd);
    tar_close(t);
    lseek(fd, 0, SEEK_SET);
    std::string all;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        all.append(buf, static_cast<size_t>(n));
    close(fd);
    return all;
}

} // namespace

TEST(ProcAppendFdmap, LongListingOfDescriptors)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    struct stat st;
    ASSERT_EQ(fstat(p[0], &st), 0);
    Child c = spawn("/bin/sleep", {"sleep", "1000"}, {p[0]});
    close(p[0]);
    close(p[1]);
    ASSERT_GT(c.pid, 0);

    std::vector<Member> ms = members(fdmap_of(c.pid));
    ASSERT_EQ(ms.size(), 1u);
    EXPECT_EQ(ms[0].name, "dir/fdmap");
    EXPECT_EQ(ms[0].data.size(), ms[0].size);
    EXPECT_EQ(ms[0].data.rfind("total ", 0), 0u) << ms[0].data;
    std::string pipe_link = "3 -> pipe:[" + std::to_string(st.st_ino) + "]\n";
    EXPECT_NE(ms[0].data.find(pipe_link), std::string::npos) << ms[0].data;
    // Descriptors 0-2 are /dev/null (under qemu-user the sysroot's, by its path mapping).
    EXPECT_NE(ms[0].data.find(" 2 -> "), std::string::npos) << ms[0].data;
    EXPECT_NE(ms[0].data.find("/dev/null\n"), std::string::npos) << ms[0].data;
    EXPECT_EQ(ms[0].data.find(" 4 -> "), std::string::npos) << ms[0].data;
}

TEST(ProcAppendFdmap, VanishedProcessKeepsTheErrorText)
{
    pid_t gone = vanished_pid();
    std::vector<Member> ms = members(fdmap_of(gone));
    ASSERT_EQ(ms.size(), 1u);
    EXPECT_EQ(ms[0].name, "dir/fdmap");
    // ls writes its complaint to the same temporary file.
    EXPECT_NE(ms[0].data.find("/proc/" + std::to_string(gone) + "/fd"), std::string::npos)
        << ms[0].data;
}
