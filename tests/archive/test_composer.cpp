// Member writers of the debug archive and the gzip filter, on real files,
// real processes and real pipes.  Archives are read back header by header at
// the offsets the ustar format fixes; gzip output is judged by gzip itself.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <zlib.h>

#include "archive.h"
#include "common.h"
#include "testutil.h"

namespace {

using testutil::file_content;
using testutil::tar_members;
using testutil::temp_file;

// A writer on an unlinked temporary file; the stream once it is closed.
struct Archive {
    int fd = temp_file();
    tar *t = tar_new(fd, nullptr);
    std::string finish()
    {
        tar_close(t);
        t = nullptr;
        std::string s = file_content(fd);
        close(fd);
        return s;
    }
    ~Archive()
    {
        if (t)
            tar_close(t);
    }
};

std::string tmpdir()
{
    char tmpl[] = "/tmp/tn-compose-XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    return tmpl;
}

void write_file(const std::string &path, const std::string &content)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

TEST(Strlist, Lookup)
{
    const char *const list[] = {"kcore", "vmcore", "kmem", "kmsg", nullptr};
    const char *const empty[] = {nullptr};
    EXPECT_EQ(strlist_lookup("kcore", list), 0);
    EXPECT_EQ(strlist_lookup("kmsg", list), 3);
    EXPECT_EQ(strlist_lookup("kcor", list), -1);
    EXPECT_EQ(strlist_lookup("kcore", empty), -1);
    EXPECT_EQ(strlist_lookup("kcore", nullptr), -1);
}

TEST(Composer, AFileLongerThanTheBufferIsCut)
{
    std::string dir = tmpdir();
    std::string big(102400 + 777, 'x');
    for (size_t i = 0; i < big.size(); i++)
        big[i] = static_cast<char>('a' + i % 26);
    write_file(dir + "/big", big);
    Archive a;
    EXPECT_EQ(stream_file_unknownsize(a.t, a.fd, "big", (dir + "/big").c_str(), 0), 0);
    auto m = tar_members(a.finish());
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].size, 102400u);
    EXPECT_EQ(m[0].data, big.substr(0, 102400));
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Composer, EmptyMissingAndDirectoryEntriesGiveNoMember)
{
    std::string dir = tmpdir();
    write_file(dir + "/empty", "");
    mkdir((dir + "/sub").c_str(), 0755);
    Archive a;
    EXPECT_EQ(stream_file_unknownsize(a.t, a.fd, "e", (dir + "/empty").c_str(), 0), 0);
    EXPECT_EQ(stream_file_unknownsize(a.t, a.fd, "s", (dir + "/sub").c_str(), 0), 0);
    EXPECT_EQ(stream_file_unknownsize(a.t, a.fd, "m", (dir + "/missing").c_str(), 0), 0);
    EXPECT_EQ(a.finish(), "");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Composer, ADirectoryIsReadFlatWithItsSkipList)
{
    std::string dir = tmpdir();
    write_file(dir + "/one", "1\n");
    write_file(dir + "/kmsg", "skipped\n");
    mkdir((dir + "/sub").c_str(), 0755);
    write_file(dir + "/sub/deep", "not read\n");
    const char *const skip[] = {"kcore", "vmcore", "kmem", "kmsg", nullptr};
    Archive a;
    EXPECT_EQ(stream_dir_unknownsize(a.t, a.fd, "snap/", (dir + "/").c_str(), skip), 0);
    EXPECT_EQ(stream_dir_unknownsize(a.t, a.fd, "x/", (dir + "/absent/").c_str(), skip), 1);
    auto m = tar_members(a.finish());
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].name, "snap/one");
    EXPECT_EQ(m[0].data, "1\n");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Composer, ALongProcFileIsCutInTheSnapshot)
{
    // kallsyms is far longer than a file buffer on any kernel that has it
    struct stat st;
    ASSERT_EQ(stat("/proc/kallsyms", &st), 0);
    Archive a;
    EXPECT_EQ(stream_proc(a.t, a.fd), 0);
    auto m = tar_members(a.finish());
    bool found = false;
    for (auto &x : m) {
        if (x.name.size() > 9 && x.name.compare(x.name.size() - 9, 9, "/kallsyms") == 0 &&
            x.name.rfind("proc.", 0) == 0) {
            found = true;
            EXPECT_EQ(x.size, 102400u);
        }
        EXPECT_NE(x.name.substr(x.name.find('/') + 1), "kcore");
        EXPECT_NE(x.name.substr(x.name.find('/') + 1), "kmsg");
    }
    EXPECT_TRUE(found);
}

struct KcorePath {
    explicit KcorePath(const std::string &p) : path(p) { stream_kcore_path = path.c_str(); }
    ~KcorePath() { stream_kcore_path = "/proc/kcore"; }
    std::string path;
};

TEST(Composer, KcoreOfSizeZeroGivesNoMember)
{
    std::string dir = tmpdir();
    write_file(dir + "/kcore", "");
    KcorePath k(dir + "/kcore");
    Archive a;
    EXPECT_EQ(stream_kcore(a.t, a.fd), 0);
    EXPECT_EQ(a.finish(), "");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Composer, KcoreAboveTenMebibytesGivesNoMember)
{
    std::string dir = tmpdir();
    write_file(dir + "/kcore", "");
    ASSERT_EQ(truncate((dir + "/kcore").c_str(), 10485761), 0);
    KcorePath k(dir + "/kcore");
    Archive a;
    EXPECT_EQ(stream_kcore(a.t, a.fd), 0);
    EXPECT_EQ(a.finish(), "");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Composer, KcoreOfTenMebibytesIsStored)
{
    std::string dir = tmpdir();
    write_file(dir + "/kcore", "ELF");
    ASSERT_EQ(truncate((dir + "/kcore").c_str(), 10485760), 0);
    KcorePath k(dir + "/kcore");
    Archive a;
    EXPECT_EQ(stream_kcore(a.t, a.fd), 0);
    auto m = tar_members(a.finish());
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].name, "kcore");
    EXPECT_EQ(m[0].size, 10485760u);
    EXPECT_EQ(m[0].data.substr(0, 3), "ELF");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Composer, AMissingKcoreGivesNoMember)
{
    KcorePath k("/nonexistent/kcore");
    Archive a;
    EXPECT_EQ(stream_kcore(a.t, a.fd), 0);
    EXPECT_EQ(a.finish(), "");
}

pid_t spawn(const char *script)
{
    pid_t p = fork();
    if (p == 0) {
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        execl("/bin/sh", "sh", "-c", script, static_cast<char *>(nullptr));
        _exit(127);
    }
    // Trace only once the shell (or what it execs) runs: a plain SIGTRAP
    // stop (as after an execve under trace) counts as the tracee's exit event.
    EXPECT_TRUE(testutil::wait_exec_away(p));
    return p;
}

void reap(pid_t p)
{
    kill(p, SIGKILL);
    waitpid(p, nullptr, 0);
}

TEST(Composer, AShortTraceIsFilledWithLinesOfSpaces)
{
    NEED_PTRACE();
    pid_t p = spawn("exec sleep 60");
    int32_t pids[1] = {p};
    Archive a;
    EXPECT_EQ(stream_strace_log(a.t, pids, 1), 0);
    auto m = tar_members(a.finish());
    reap(p);
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].name, "strace.log");
    ASSERT_EQ(m[0].data.size(), 204800u);
    // the trace, then 79 spaces and a newline after another to the end
    std::string line = std::string(79, ' ') + "\n";
    size_t tail = m[0].data.find(line);
    ASSERT_NE(tail, std::string::npos);
    ASSERT_GT(tail, 0u) << "the sleeping process shows up in the trace";
    for (size_t i = tail; i < m[0].data.size(); i++) {
        size_t col = (i - tail) % 80;
        ASSERT_EQ(m[0].data[i], col == 79 ? '\n' : ' ') << "at " << i;
    }
}

TEST(Composer, ALongTraceIsCutAtTheBudget)
{
    NEED_PTRACE();
    pid_t p = spawn("while :; do echo x > /dev/null; done");
    int32_t pids[1] = {p};
    Archive a;
    EXPECT_EQ(stream_strace_log(a.t, pids, 1), 0);
    // the next header sits exactly behind the 204800 promised bytes
    tar_addfile(a.t, "next", 0);
    auto m = tar_members(a.finish());
    reap(p);
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0].data.size(), 204800u);
    EXPECT_EQ(m[0].data.find(std::string(79, ' ') + "\n"), std::string::npos);
    EXPECT_EQ(m[1].name, "next");
}

// Runs gzip_filter in a child with the given input; its output and status.
std::string gzip_child(const std::string &input, int *status, bool closed_output = false)
{
    int in = temp_file(input);
    int out = temp_file();
    int p[2];
    if (closed_output) {
        EXPECT_EQ(pipe(p), 0);
        close(p[0]);
    }
    pid_t c = fork();
    if (c == 0) {
        signal(SIGPIPE, SIG_IGN);
        dup2(in, 0);
        dup2(closed_output ? p[1] : out, 1);
        int r = gzip_filter();
        // a failed write leaves descriptor 0 closed
        bool in_closed = fcntl(0, F_GETFD) == -1 && errno == EBADF;
        _exit(r * 10 + (in_closed ? 1 : 0));
    }
    waitpid(c, status, 0);
    if (closed_output)
        close(p[1]);
    std::string s = file_content(out);
    close(in);
    close(out);
    return s;
}

TEST(Gzip, EmptyInputIsHeaderEndBlockAndZeroTrailer)
{
    int status;
    std::string s = gzip_child("", &status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const unsigned char want[] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3, 0x03, 0x00,
                                  0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(s, std::string(reinterpret_cast<const char *>(want), sizeof want));
}

TEST(Gzip, GzipDecompressesToExactlyTheInput)
{
    std::string input;
    unsigned v = 1;
    for (int i = 0; i < 3000000; i++) {
        v = v * 1103515245u + 12345u;
        // text-like runs, then noise
        input.push_back(i % 100000 < 60000 ? static_cast<char>('a' + (i / 7) % 26)
                                           : static_cast<char>(v >> 16));
    }
    int status;
    std::string gz = gzip_child(input, &status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string dir = tmpdir();
    write_file(dir + "/x.gz", gz);
    EXPECT_EQ(system(("gzip -t " + dir + "/x.gz").c_str()), 0);
    FILE *f = popen(("gzip -dc " + dir + "/x.gz").c_str(), "r");
    ASSERT_NE(f, nullptr);
    std::string back;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        back.append(buf, n);
    EXPECT_EQ(pclose(f), 0);
    EXPECT_TRUE(back == input) << back.size() << " bytes back of " << input.size();
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

TEST(Gzip, AFailedWriteClosesTheInputAndReportsOne)
{
    int status;
    gzip_child(std::string(100000, 'x'), &status, true);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 11);
}

// zlib's own raw deflate of the whole input in one call.
std::string zlib_raw_deflate(const std::string &input, int level)
{
    z_stream zs;
    memset(&zs, 0, sizeof zs);
    EXPECT_EQ(deflateInit2(&zs, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out(deflateBound(&zs, input.size()), '\0');
    zs.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(input.data()));
    zs.avail_in = static_cast<uInt>(input.size());
    zs.next_out = reinterpret_cast<Bytef *>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&zs, Z_FINISH), Z_STREAM_END);
    out.resize(zs.total_out);
    deflateEnd(&zs);
    return out;
}

TEST(Gzip, BodyIsZlibsFastestRawDeflate)
{
    // Many input buffers' worth of text with repeats at all distances, where
    // the levels choose different matches.
    std::string input;
    unsigned v = 7;
    while (input.size() < 1500000) {
        v = v * 1103515245u + 12345u;
        static const char *const words[] = {"proc", "sys", "net", "ipv4", "conf", "= 0\n",
                                            "kernel", "random", " ", "route", "\n", "eth0"};
        input += words[(v >> 16) % 12];
        if ((v >> 8) % 7 == 0)
            input += std::to_string(v % 1000);
    }
    std::string level1 = zlib_raw_deflate(input, 1);
    ASSERT_NE(level1, zlib_raw_deflate(input, 2)) << "an input on which the levels differ";
    int status;
    std::string gz = gzip_child(input, &status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_GT(gz.size(), 18u);
    std::string body = gz.substr(10, gz.size() - 18);
    EXPECT_TRUE(body == level1) << body.size() << " bytes of body, zlib's level 1 gives "
                                << level1.size();
}

}  // namespace
