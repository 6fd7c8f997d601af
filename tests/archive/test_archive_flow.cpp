// The whole debug archive with its slow collectors replaced (the trace and
// the capture, through --wrap), inside a mount namespace whose /proc, /etc
// and /run are small trees made here: the member order, what the snapshot
// reads, the collectors' arguments and what stops the archive.  GNU tar
// reads the results.  Also the error texts of the file reader and of the
// compressed entry point, with allocation, pipe and fork failures injected.
#include "archive.h"
#include "io_wrap.h"
#include "testutil.h"
#include "trace.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

using testutil::Pipe;
using testutil::temp_file;

namespace {

// What the replaced collectors saw, one line per call.
std::string notes;

// Trace behaviour: write one line, or make that line's write fail.
bool trace_write_fails;

// Allocation failure: the next `fail_alloc_count` allocations of
// `fail_alloc_size` bytes fail, after `fail_alloc_skip` of them went through.
size_t fail_alloc_size;
int fail_alloc_skip;
int fail_alloc_count;

int fail_pipe_errno;
int fail_fork_errno;
int fork_calls;

} // namespace

extern "C" {
void *__real_malloc(size_t size);
int __real_pipe2(int fds[2], int flags);
pid_t __real_fork();

void *__wrap_malloc(size_t size)
{
    if (fail_alloc_count > 0 && size == fail_alloc_size) {
        if (fail_alloc_skip > 0) {
            fail_alloc_skip--;
        } else {
            fail_alloc_count--;
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __real_malloc(size);
}

int __wrap_pipe2(int fds[2], int flags)
{
    if (fail_pipe_errno) {
        errno = fail_pipe_errno;
        return -1;
    }
    return __real_pipe2(fds, flags);
}

pid_t __wrap_fork()
{
    fork_calls++;
    if (fail_fork_errno) {
        errno = fail_fork_errno;
        return -1;
    }
    return __real_fork();
}

// The collectors are C++ functions: --wrap takes their mangled names.
int __wrap__Z9pcap_dumpPKciiiiiPK10sock_fprog(const char *ifname, int out_fd, int max_bytes, int rec_len, int duration,
                     int promisc, const sock_fprog *filter)
{
    char line[256];
    snprintf(line, sizeof line, "capture %s fd=%d max=%d rec=%d seconds=%d promisc=%d filter=%s\n",
             ifname, out_fd, max_bytes, rec_len, duration, promisc, filter ? "set" : "none");
    notes += line;
    // Nothing captured: the caller fills the whole member.
    return 0;
}

void __wrap__Z9do_straceP10strace_ctx(strace_ctx *ctx)
{
    char line[256];
    snprintf(line, sizeof line, "trace flags=%d npids=%d seconds=%d children=%d out=%s\n",
             ctx->flags, ctx->npids, ctx->duration, ctx->children,
             ctx->out == cb_strace ? "cb_strace" : "other");
    notes += line;
    if (ctx->out != cb_strace)
        return;
    auto *budget = static_cast<cb_strace_ctx *>(ctx->arg);
    if (trace_write_fails) {
        iowrap::watch_write(budget->fd);
        iowrap::fail_writes(1, EPIPE);
    }
    static const char text[] = "pause() = ? <unfinished ...>\n";
    ctx->out(ctx->arg, text, static_cast<int>(sizeof text - 1));
    free(ctx->buf);
}
} // extern "C"

namespace {

const char *const PROC_DIRS[] = {
    "/proc/sys/", "/proc/sys/fs/", "/proc/sys/kernel/", "/proc/sys/kernel/random/",
    "/proc/sys/net/bridge/", "/proc/sys/net/core/", "/proc/sys/net/ipv4/",
    "/proc/sys/net/ipv4/conf/", "/proc/sys/net/ipv4/neigh/", "/proc/sys/net/ipv4/route/",
    "/proc/sys/net/ipv6/", "/proc/sys/net/ipv6/conf/", "/proc/sys/net/ipv6/icmp/",
    "/proc/sys/net/ipv6/neigh/", "/proc/sys/net/ipv6/route/", "/proc/sys/net/unix/",
    "/proc/sys/vm/", "/proc/driver/", "/proc/net/", "/proc/net/dev_snmp6/",
    "/proc/net/ip6t_hashlimit/", "/proc/net/ipt_hashlimit/", "/proc/net/netfilter/",
    "/proc/net/rpc/", "/proc/net/stat/", "/proc/net/vlan/"};

bool put(const std::string &path, const std::string &content)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return false;
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    return ok;
}

bool mkdirs(const std::string &path)
{
    for (size_t i = 1; i <= path.size(); i++) {
        if ((i == path.size() || path[i] == '/') &&
            mkdir(path.substr(0, i).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

// The device-like tree: the monitor report and media configuration, and a
// /proc with one ordinary top-level file, the four that must be left out,
// and a file "f" in each of the extra directories.  A /proc without
// process directories gives an empty process list.
std::string make_tree()
{
    // The board's root has no /var/run: the mount point is made first.
    auto fresh = [](const char *dir) {
        return mkdirs(dir) && mount("tmpfs", dir, "tmpfs", 0, "size=4m") == 0;
    };
    if (!fresh("/proc") || !fresh("/etc") || !fresh("/var/run"))
        return std::string("SKIP [unshare] mount tmpfs: ") + strerror(errno);
    bool ok = mkdirs("/var/run/dbg-cgi") && put("/var/run/dbg-cgi/dbg-monitor.txt", "monitor\n") &&
              mkdirs("/etc/ws/onvif/media") && put("/etc/ws/onvif/media/media.conf", "media\n") &&
              put("/proc/meminfo", "MemTotal: 1 kB\n") && put("/proc/kcore", "core image\n");
    for (const char *name : {"vmcore", "kmem", "kmsg"})
        ok = ok && put(std::string("/proc/") + name, "not stored\n");
    for (const char *dir : PROC_DIRS)
        ok = ok && mkdirs(dir) && put(std::string(dir) + "f", std::string(dir) + "\n");
    return ok ? "" : std::string("tree: ") + strerror(errno);
}

// Runs body in a child with mount and network namespaces of its own, the
// tree mounted.
// The child's notes (or what went wrong) come back; a skip reason starts
// with "SKIP".
template <typename Body> std::string in_device_tree(Body body)
{
    Pipe p;
    pid_t pid = fork();
    if (pid == 0) {
        close(p.r);
        std::string err;
        // A network namespace too: should a collector ever escape its
        // replacement, it finds no interface of this machine.
        if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0)
            err = std::string("SKIP [unshare] unshare: ") + strerror(errno);
        else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            err = std::string("SKIP [unshare] mount private: ") + strerror(errno);
        else
            err = make_tree();
        if (err.empty()) {
            notes.clear();
            body();
            err = "OK\n" + notes;
        }
        (void)!write(p.w, err.data(), err.size());
        _exit(0);
    }
    p.close_w();
    std::string out = testutil::read_all(p.r);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    return out;
}

// Member names as GNU tar lists them, the archive directory cut off and
// each snapshot's own directory written "proc.STAMP/".  A stopped archive
// ends without its closing blocks; tar says so on stderr and still lists
// every header it read.
std::vector<std::string> tar_names(int fd)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/fd/%d", getpid(), fd);
    std::string cmd = std::string("tar -tf ") + path + " 2>/dev/null";
    FILE *f = popen(cmd.c_str(), "r");
    EXPECT_NE(f, nullptr);
    std::vector<std::string> names;
    if (!f)
        return names;
    const std::regex dir_re(R"(^debug-\d{8}-\d{6}-c\d+/)");
    const std::regex snap_re(R"(^proc\.\d{8}-\d{6}/)");
    char line[512];
    while (fgets(line, sizeof line, f)) {
        std::string n(line, strcspn(line, "\n"));
        std::smatch m;
        EXPECT_TRUE(std::regex_search(n, m, dir_re)) << n;
        n = m.suffix();
        n = std::regex_replace(n, snap_re, "proc.STAMP/");
        names.push_back(n);
    }
    pclose(f);
    return names;
}

std::vector<std::string> snapshot_names()
{
    std::vector<std::string> v = {"proc.STAMP/meminfo"};
    for (const char *dir : PROC_DIRS)
        v.push_back(std::string(dir + 1) + "f");
    return v;
}

std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts)
{
    std::vector<std::string> v;
    for (auto &p : parts)
        v.insert(v.end(), p.begin(), p.end());
    return v;
}

class ArchiveFlow : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        iowrap::reset();
        notes.clear();
        trace_write_fails = false;
        fail_alloc_count = fail_alloc_skip = 0;
        fail_alloc_size = 0;
        fail_pipe_errno = fail_fork_errno = 0;
        fork_calls = 0;
    }
    void TearDown() override
    {
        iowrap::reset();
        fail_alloc_count = 0;
        fail_pipe_errno = fail_fork_errno = 0;
    }
};

#define SKIP_OR_OK(out)                                                                    \
    do {                                                                                   \
        if ((out).rfind("SKIP", 0) == 0)                                                   \
            GTEST_SKIP() << (out);                                                         \
        ASSERT_EQ((out).rfind("OK\n", 0), 0u) << (out);                                    \
    } while (0)

TEST_F(ArchiveFlow, MembersInOrderWithKcoreBetweenOopsLogAndSecondSnapshot)
{
    int fd = temp_file();
    std::string out = in_device_tree([fd] { stream_archive(fd, -1); });
    SKIP_OR_OK(out);
    auto snap = snapshot_names();
    EXPECT_EQ(tar_names(fd),
              concat({{"dbg-monitor.txt", "media.conf"}, snap,
                      {"strace.log", "netdump.cap", "sysdigest.txt", "oopslog", "kcore"}, snap}));
    close(fd);
}

TEST_F(ArchiveFlow, TraceAndCaptureArguments)
{
    int fd = temp_file();
    std::string out = in_device_tree([fd] { stream_archive(fd, -1); });
    SKIP_OR_OK(out);
    // No processes in this /proc; the capture goes into a file, so there is
    // no connection to leave out.
    EXPECT_EQ(out, "OK\n"
                   "trace flags=-1 npids=0 seconds=5 children=0 out=cb_strace\n"
                   "capture eth0 fd=" + std::to_string(fd) +
                   " max=512000 rec=1536 seconds=5 promisc=1 filter=none\n");
    close(fd);
}

TEST_F(ArchiveFlow, AFailedTraceWriteStopsTheArchive)
{
    int fd = temp_file();
    trace_write_fails = true;
    std::string out = in_device_tree([fd] { stream_archive(fd, -1); });
    SKIP_OR_OK(out);
    EXPECT_EQ(out.find("capture"), std::string::npos) << out;
    EXPECT_EQ(tar_names(fd),
              concat({{"dbg-monitor.txt", "media.conf"}, snapshot_names(), {"strace.log"}}));
    // Nothing after the trace member's header: no filler, no padding.
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size % 512, 0);
    close(fd);
}

TEST_F(ArchiveFlow, NoBufferForAFileStopsTheArchive)
{
    int fd = temp_file();
    // The monitor report gets its buffer, the media configuration does not.
    fail_alloc_size = 102400;
    fail_alloc_skip = 1;
    fail_alloc_count = 1;
    std::string out = in_device_tree([fd] { stream_archive(fd, -1); });
    fail_alloc_count = 0;
    SKIP_OR_OK(out);
    EXPECT_EQ(out, "OK\n") << "neither trace nor capture ran";
    EXPECT_EQ(tar_names(fd), std::vector<std::string>{"dbg-monitor.txt"});
    // The header and the report's bytes, nothing after.
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 512 + 8);
    close(fd);
}

TEST_F(ArchiveFlow, NoBufferIsTheReadersOnlyStop)
{
    int fd = temp_file();
    tar *t = tar_new(fd, nullptr);
    fail_alloc_size = 4096;
    fail_alloc_count = 1;
    EXPECT_EQ(stream_file_unknownsize(t, fd, "x", "/proc/self/status", 4096), 1);
    fail_alloc_count = 0;
    EXPECT_EQ(stream_file_unknownsize(t, fd, "x", "/nonexistent/x", 4096), 0);
    tar_close(t);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 0);
    close(fd);
}

// stderr of one call.
template <typename Call> std::string stderr_of(Call call)
{
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

TEST_F(ArchiveFlow, AnUnreadableFileIsNamedOnStderr)
{
    int fd = temp_file();
    tar *t = tar_new(fd, nullptr);
    EXPECT_EQ(stderr_of([&] { stream_file_unknownsize(t, fd, "m", "/nonexistent/file", 0); }),
              std::string("/nonexistent/file: ") + strerror(ENOENT) + "\n");
    // Opens, but cannot be read from its start.
    EXPECT_EQ(stderr_of([&] { stream_file_unknownsize(t, fd, "m", "/proc/self/mem", 0); }),
              std::string("/proc/self/mem: ") + strerror(EIO) + "\n");
    // Directories are left out silently.
    EXPECT_EQ(stderr_of([&] { stream_file_unknownsize(t, fd, "m", "/tmp", 0); }), "");
    EXPECT_EQ(stderr_of([&] { stream_file_unknownsize(t, fd, "m", "/tmp/", 0); }), "");
    tar_close(t);
    close(fd);
}

int open_fds()
{
    DIR *d = opendir("/proc/self/fd");
    int n = 0;
    while (dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

TEST_F(ArchiveFlow, CompressedArchiveWithoutAPipeSaysPipes)
{
    Pipe out;
    fail_pipe_errno = EMFILE;
    std::string err = stderr_of([&] { stream_tgz(out.w); });
    fail_pipe_errno = 0;
    EXPECT_EQ(err, std::string("pipes: ") + strerror(EMFILE) + "\n");
    EXPECT_EQ(fork_calls, 0);
    EXPECT_EQ(out.finish(), "");
}

TEST_F(ArchiveFlow, CompressedArchiveWithoutAChildSaysForkAndClosesThePipe)
{
    Pipe out;
    int before = open_fds();
    fail_fork_errno = EAGAIN;
    std::string err = stderr_of([&] { stream_tgz(out.w); });
    fail_fork_errno = 0;
    EXPECT_EQ(err, std::string("fork: ") + strerror(EAGAIN) + "\n");
    EXPECT_EQ(fork_calls, 1);
    EXPECT_EQ(open_fds(), before);
    EXPECT_EQ(out.finish(), "");
}

} // namespace
