// Record writers of the runtime trace: exact headers, file pieces, the disk
// usage table, and what happens when the reader is gone.
#include "monitor.h"
#include "testutil.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/statfs.h>
#include <sys/time.h>

#include <thread>

#include <string>
#include <vector>

namespace {

struct record {
    uint32_t type;
    uint32_t len;
    int64_t ms;
    uint8_t flag;
    std::string data;
};

// Splits a stream into records; fails the test on a malformed one.
std::vector<record> parse(const std::string &s)
{
    std::vector<record> out;
    size_t off = 0;
    while (off < s.size()) {
        EXPECT_GE(s.size() - off, RTRACE_HEADER_SIZE) << "cut header at " << off;
        if (s.size() - off < RTRACE_HEADER_SIZE)
            break;
        record r;
        memcpy(&r.type, s.data() + off, 4);
        memcpy(&r.len, s.data() + off + 4, 4);
        memcpy(&r.ms, s.data() + off + 8, 8);
        r.flag = static_cast<uint8_t>(s[off + 16]);
        EXPECT_EQ(s.substr(off + 17, 3), std::string(3, '\0'));
        off += RTRACE_HEADER_SIZE;
        EXPECT_LE(r.len, s.size() - off);
        r.data = s.substr(off, r.len);
        off += r.len;
        out.push_back(r);
    }
    return out;
}

int64_t now_ms()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

std::string pid_bytes(int32_t pid)
{
    return std::string(reinterpret_cast<const char *>(&pid), 4);
}

std::string temp_path(const std::string &content)
{
    char name[] = "/tmp/tn-rtrace-XXXXXX";
    int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
    return name;
}

// A pipe whose reader has gone: every write fails with EPIPE.
struct dead_pipe {
    int w = -1;
    dead_pipe()
    {
        signal(SIGPIPE, SIG_IGN);
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        close(p[0]);
        w = p[1];
    }
    ~dead_pipe() { close(w); }
};

} // namespace

TEST(RtraceHeader, TwentyBytesInNativeOrder)
{
    testutil::Pipe p;
    int64_t before = now_ms();
    ASSERT_EQ(rtrace_write_header(p.w, 13, 0x01020304, 1), 0);
    int64_t after = now_ms();
    std::string s = p.finish();
    ASSERT_EQ(s.size(), 20u);
    EXPECT_EQ(s.substr(0, 8), std::string("\x0d\0\0\0\x04\x03\x02\x01", 8));
    int64_t ms;
    memcpy(&ms, s.data() + 8, 8);
    EXPECT_GE(ms, before);
    EXPECT_LE(ms, after);
    EXPECT_EQ(s.substr(16), std::string("\x01\0\0\0", 4));
}

TEST(RtraceHeader, FailedWriteIsMinusOne)
{
    dead_pipe d;
    EXPECT_EQ(rtrace_write_header(d.w, 4, 0, 1), -1);
}

TEST(RtraceSendFile, PiecesLedByThePidThenAClosingHeader)
{
    std::string content = "Name:\tprobe\nVmRSS:\t  1234 kB\n";
    std::string path = temp_path(content);
    testutil::Pipe p;
    EXPECT_EQ(rtrace_send_file(p.w, 3, path.c_str(), 4321), 1);
    unlink(path.c_str());
    auto recs = parse(p.finish());
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].type, 3u);
    EXPECT_EQ(recs[0].flag, 1);
    EXPECT_EQ(recs[0].len, content.size() + 4);
    EXPECT_EQ(recs[0].data, pid_bytes(4321) + content);
    EXPECT_EQ(recs[1].type, 3u);
    EXPECT_EQ(recs[1].len, 0u);
    EXPECT_EQ(recs[1].flag, 0);
}

TEST(RtraceSendFile, WithoutPidTheDataStandsAlone)
{
    std::string path = temp_path("nr_free_pages 42\n");
    testutil::Pipe p;
    EXPECT_EQ(rtrace_send_file(p.w, 8, path.c_str(), -1), 1);
    unlink(path.c_str());
    auto recs = parse(p.finish());
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].len, 17u);
    EXPECT_EQ(recs[0].data, "nr_free_pages 42\n");
    EXPECT_EQ(recs[1].len, 0u);
    EXPECT_EQ(recs[1].flag, 0);
}

TEST(RtraceSendFile, LargeFilesGoOutIn200KiBPieces)
{
    std::string content(RTRACE_BUF_SIZE + 95200, 'x');
    for (size_t i = 0; i < content.size(); i += 97)
        content[i] = static_cast<char>('a' + i % 26);
    std::string path = temp_path(content);
    testutil::Pipe p;
    std::string got;
    // The pipe holds less than the file: read while the writer writes.
    std::thread reader([&] { got = testutil::read_all(p.r); });
    EXPECT_EQ(rtrace_send_file(p.w, 2, path.c_str(), 7), 1);
    p.close_w();
    reader.join();
    unlink(path.c_str());
    auto recs = parse(got);
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].len, RTRACE_BUF_SIZE + 4);
    EXPECT_EQ(recs[1].len, 95200u + 4);
    EXPECT_EQ(recs[0].data.substr(4) + recs[1].data.substr(4), content);
    EXPECT_EQ(recs[1].data.substr(0, 4), pid_bytes(7));
    EXPECT_EQ(recs[2].len, 0u);
}

TEST(RtraceSendFile, EmptyOrMissingFilesSendNothing)
{
    std::string path = temp_path("");
    testutil::Pipe p;
    EXPECT_EQ(rtrace_send_file(p.w, 2, path.c_str(), 1), 1);
    EXPECT_EQ(rtrace_send_file(p.w, 6, "/nonexistent/smapstot", -1), 1);
    unlink(path.c_str());
    EXPECT_EQ(p.finish(), "");
}

TEST(RtraceSendFile, FailedWriteIsZero)
{
    std::string path = temp_path("MemTotal: 1 kB\n");
    dead_pipe d;
    EXPECT_EQ(rtrace_send_file(d.w, 8, path.c_str(), -1), 0);
    EXPECT_EQ(rtrace_send_file(d.w, 3, path.c_str(), 5), 0);
    unlink(path.c_str());
}

TEST(RtraceSendPerPid, OwnStatusIsAmongTheProcesses)
{
    testutil::Pipe p;
    std::string got;
    std::thread reader([&] { got = testutil::read_all(p.r); });
    EXPECT_EQ(rtrace_send_per_pid(p.w, 3, "/status"), 1);
    p.close_w();
    reader.join();
    auto recs = parse(got);
    bool own = false;
    std::string mine = "\nPid:\t" + std::to_string(getpid()) + "\n";
    for (size_t i = 0; i < recs.size(); i++) {
        EXPECT_EQ(recs[i].type, 3u);
        if (recs[i].flag == 1 && recs[i].data.substr(0, 4) == pid_bytes(getpid())) {
            own = true;
            EXPECT_NE(recs[i].data.find(mine), std::string::npos);
            ASSERT_LT(i + 1, recs.size());
            EXPECT_EQ(recs[i + 1].len, 0u);
            EXPECT_EQ(recs[i + 1].flag, 0);
        }
    }
    EXPECT_TRUE(own);
}

TEST(RtraceSendPerPid, FailedWriteIsZero)
{
    dead_pipe d;
    EXPECT_EQ(rtrace_send_per_pid(d.w, 3, "/status"), 0);
}

TEST(RtraceDiskinfo, NetworkSharesAndUnreachableMountsAreLeftOut)
{
    std::string table =
        "//server/share / cifs rw 0 0\n"
        "//server/old / smbfs rw 0 0\n"
        "host:/export / nfs rw 0 0\n"
        "[fe80::1]:/x / nfs4 rw 0 0\n"
        "//server/local / tmpfs rw 0 0\n"
        "rootdev / ext4 rw 0 0\n"
        "gone /nonexistent/mountpoint tmpfs rw 0 0\n";
    std::string path = temp_path(table);
    testutil::Pipe p;
    EXPECT_EQ(rtrace_send_diskinfo_from(p.w, path.c_str()), 1);
    unlink(path.c_str());
    auto recs = parse(p.finish());
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].type, 9u);
    EXPECT_EQ(recs[0].flag, 0);

    struct statfs st;
    ASSERT_EQ(statfs("/", &st), 0);
    uint32_t used = static_cast<uint32_t>(st.f_blocks - st.f_bfree) * static_cast<uint32_t>(st.f_bsize);
    uint32_t avail = static_cast<uint32_t>(st.f_bsize) * static_cast<uint32_t>(st.f_bavail);
    char want[512];
    // Free space may move between the two statfs calls on a busy disk;
    // compare the layout exactly and the numbers from one statfs.
    snprintf(want, sizeof want, "%-20s\tUsed\tAvail\tMounted on\n", "Filesystem");
    std::string text = recs[0].data;
    ASSERT_EQ(text.substr(0, strlen(want)), want);
    std::vector<std::string> lines;
    size_t pos = strlen(want);
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        ASSERT_NE(nl, std::string::npos);
        lines.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    ASSERT_EQ(lines.size(), 2u) << text;
    char fs[64];
    long u, a;
    char dir[64];
    ASSERT_EQ(sscanf(lines[0].c_str(), "%63s\t%ld\t%ld\t%63s", fs, &u, &a, dir), 4);
    EXPECT_STREQ(fs, "//server/local");
    EXPECT_EQ(lines[0].substr(0, 21), "//server/local      \t");
    EXPECT_STREQ(dir, "/");
    EXPECT_NEAR(u, static_cast<long>(used >> 10), 64 * 1024);
    EXPECT_NEAR(a, static_cast<long>(avail >> 10), 64 * 1024);
    EXPECT_EQ(lines[1].substr(0, 21), "rootdev             \t");
}

TEST(RtraceDiskinfo, MissingTableGivesTheTitleOnly)
{
    testutil::Pipe p;
    EXPECT_EQ(rtrace_send_diskinfo_from(p.w, "/nonexistent/mounts"), 1);
    auto recs = parse(p.finish());
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].data, "Filesystem          \tUsed\tAvail\tMounted on\n");
}

TEST(RtraceDiskinfo, FailedWriteIsZero)
{
    dead_pipe d;
    EXPECT_EQ(rtrace_send_diskinfo(d.w), 0);
}

TEST(RtraceRound, ItemsZeroWritesNothing)
{
    dead_pipe d;
    rtrace_config *c = rtrace_create(d.w, 10, 0);
    ASSERT_NE(c, nullptr);
    // Nothing is written, so nothing can fail.
    EXPECT_EQ(rtrace_send_round(c), 1);
    rtrace_destroy(c);
    rtrace_destroy(nullptr);
}

TEST(RtraceRound, StepsInOrder)
{
    testutil::Pipe p;
    std::string got;
    std::thread reader([&] { got = testutil::read_all(p.r); });
    rtrace_config *c = rtrace_create(p.w, 10, RTRACE_STATUS | RTRACE_FILENR | RTRACE_MEMINFO |
                                                  RTRACE_DISKINFO | RTRACE_SMAPSTOT);
    EXPECT_EQ(rtrace_send_round(c), 1);
    rtrace_destroy(c);
    p.close_w();
    reader.join();
    auto recs = parse(got);
    ASSERT_GE(recs.size(), 8u);
    EXPECT_EQ(recs.front().type, 4u);
    EXPECT_EQ(recs.front().flag, 1);
    std::vector<uint32_t> tail;
    size_t i = 1;
    while (i < recs.size() && recs[i].type == 3)
        i++;
    for (; i < recs.size(); i++)
        tail.push_back(recs[i].type * 10 + recs[i].flag);
    // Closing marker; /proc/smapstot exists only on the device's kernel;
    // file-nr, meminfo (piece and closing header), the disk table.
    std::vector<uint32_t> want = {40, 71, 70, 81, 80, 90};
    if (access("/proc/smapstot", R_OK) == 0)
        want.insert(want.begin() + 1, {61, 60});
    EXPECT_EQ(tail, want);
}

TEST(RtraceApps, NoneSelectedLeavesTheRecordUnset)
{
    rtrace_config *c = rtrace_create(1, 10, RTRACE_SMAPS | RTRACE_MEMINFO);
    rtrace_apps *apps = nullptr;
    EXPECT_EQ(rtrace_start_apps(c, &apps), 0);
    EXPECT_EQ(apps, nullptr);
    EXPECT_EQ(rtrace_end_apps(c, nullptr), -1);
    EXPECT_EQ(rtrace_end_apps(nullptr, apps), -1);
    rtrace_destroy(c);
}
