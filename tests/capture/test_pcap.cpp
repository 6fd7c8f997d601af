// pcap_dump on the loopback interface of the test's own network namespace:
// stream layout, exact lengths with filler records, record lengths, limits,
// write errors, interface flags; pcap_set_promisc and ptime.
#include "capture.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/filter.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using testutil::wait_until;
using testutil::waitpid_deadline;

struct record {
    uint32_t sec, usec, incl, orig;
    std::vector<unsigned char> data;
};

struct stream {
    std::vector<unsigned char> header;
    std::vector<record> records;
    bool whole = true;  // ends exactly after a record
};

uint32_t u32(const unsigned char *p)
{
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

stream parse(const std::vector<unsigned char> &b)
{
    stream s;
    if (b.size() < 24) {
        s.whole = false;
        return s;
    }
    s.header.assign(b.begin(), b.begin() + 24);
    size_t at = 24;
    while (at < b.size()) {
        if (b.size() - at < 16) {
            s.whole = false;
            break;
        }
        record r{u32(&b[at]), u32(&b[at + 4]), u32(&b[at + 8]), u32(&b[at + 12]), {}};
        at += 16;
        if (b.size() - at < r.incl) {
            s.whole = false;
            break;
        }
        r.data.assign(b.begin() + at, b.begin() + at + r.incl);
        at += r.incl;
        s.records.push_back(std::move(r));
    }
    return s;
}

std::vector<unsigned char> expected_header()
{
    std::vector<unsigned char> h(24);
    uint32_t magic = 0xa1b2c3d4, snap = 65535, link = 1, zero = 0;
    uint16_t major = 2, minor = 4;
    memcpy(&h[0], &magic, 4);
    memcpy(&h[4], &major, 2);
    memcpy(&h[6], &minor, 2);
    memcpy(&h[8], &zero, 4);
    memcpy(&h[12], &zero, 4);
    memcpy(&h[16], &snap, 4);
    memcpy(&h[20], &link, 4);
    return h;
}

bool is_filler(const record &r)
{
    if (r.sec || r.usec || r.incl != r.orig)
        return false;
    for (unsigned char c : r.data)
        if (c)
            return false;
    return true;
}

// An unlinked temporary file.
int temp_fd()
{
    char name[] = "/tmp/tn-capture-XXXXXX";
    int fd = mkstemp(name);
    if (fd >= 0)
        unlink(name);
    return fd;
}

std::vector<unsigned char> contents(int fd)
{
    struct stat st;
    fstat(fd, &st);
    std::vector<unsigned char> b(static_cast<size_t>(st.st_size));
    if (!b.empty() && pread(fd, b.data(), b.size(), 0) != static_cast<ssize_t>(b.size()))
        b.clear();
    return b;
}

short lo_flags()
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo");
    ioctl(s, SIOCGIFFLAGS, &ifr);
    close(s);
    return ifr.ifr_flags;
}

// Sends UDP datagrams of payload bytes over loopback until stopped.
class udp_traffic {
public:
    explicit udp_traffic(size_t payload, int interval_us = 20000)
    {
        // A bound receiver: no port-unreachable replies among the frames.
        sink_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(9);
        bind(sink_, reinterpret_cast<sockaddr *>(&to), sizeof to);
        th_ = std::thread([this, payload, interval_us, to] {
            int s = socket(AF_INET, SOCK_DGRAM, 0);
            std::vector<char> buf(payload, 'u');
            while (!stop_) {
                sendto(s, buf.data(), buf.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                       sizeof to);
                usleep(interval_us);  // a steady flow, not a flood
            }
            close(s);
        });
    }
    ~udp_traffic()
    {
        stop_ = true;
        th_.join();
        close(sink_);
    }

private:
    int sink_ = -1;
    std::atomic<bool> stop_{false};
    std::thread th_;
};

TEST(PcapDump, IdleInterfaceGivesHeaderAndFillerOnly)
{
    int fd = temp_fd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(pcap_dump("lo", fd, 5120000, 1536, 1, 0, nullptr), 5120000);
    auto b = contents(fd);
    close(fd);
    ASSERT_EQ(b.size(), 5120000u);
    stream s = parse(b);
    EXPECT_TRUE(s.whole);
    EXPECT_EQ(s.header, expected_header());
    ASSERT_FALSE(s.records.empty());
    for (const record &r : s.records) {
        EXPECT_TRUE(is_filler(r));
        EXPECT_LE(r.incl + 16, 32767u);
        EXPECT_GE(r.incl + 16, 16u);
    }
    // 5119976 bytes: 156 full records of 32767, then the rest in one.
    EXPECT_EQ(s.records.size(), 157u);
    EXPECT_EQ(s.records.back().incl + 16, 5119976u - 156u * 32767u);
}

TEST(PcapDump, SmallRemainderIsAvoidedByHalving)
{
    int fd = temp_fd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(pcap_dump("lo", fd, 24 + 32767 + 10, 1536, 1, 0, nullptr), 24 + 32767 + 10);
    stream s = parse(contents(fd));
    close(fd);
    EXPECT_TRUE(s.whole);
    ASSERT_EQ(s.records.size(), 2u);
    EXPECT_EQ(s.records[0].incl + 16, 16383u);
    EXPECT_EQ(s.records[1].incl + 16, 32777u - 16383u);
    EXPECT_TRUE(is_filler(s.records[0]));
    EXPECT_TRUE(is_filler(s.records[1]));
}

TEST(PcapDump, LimitBelowHeaderPlusRecordHeaderStaysExact)
{
    for (int max : {24, 30, 39, 40, 41}) {
        int fd = temp_fd();
        ASSERT_GE(fd, 0);
        int want = max < 24 ? 24 : max;
        EXPECT_EQ(pcap_dump("lo", fd, max, 1536, 1, 0, nullptr), want) << max;
        EXPECT_EQ(contents(fd).size(), static_cast<size_t>(want)) << max;
        close(fd);
    }
}

TEST(PcapDump, FixedRecordLengthWithTraffic)
{
    int fd = temp_fd();
    ASSERT_GE(fd, 0);
    const int max = 200000;
    int r;
    {
        udp_traffic t(100);
        r = pcap_dump("lo", fd, max, 1536, 2, 1, nullptr);
    }
    EXPECT_EQ(r, max);
    auto b = contents(fd);
    close(fd);
    ASSERT_EQ(b.size(), static_cast<size_t>(max));
    stream s = parse(b);
    EXPECT_TRUE(s.whole);
    size_t frames = 0, at = 24;
    bool filler_seen = false;
    uint64_t last = 0;
    for (const record &rec : s.records) {
        if (is_filler(rec)) {
            filler_seen = true;
        } else {
            EXPECT_FALSE(filler_seen) << "frame after filler";
            EXPECT_EQ(rec.incl, 1536u);
            EXPECT_EQ(rec.orig, 14u + 20u + 8u + 100u);
            uint64_t t = uint64_t(rec.sec) * 1000000 + rec.usec;
            EXPECT_GE(t, last);
            last = t;
            // The 48-byte reserve: each frame left room for a final header.
            EXPECT_LT(at + 16 + rec.incl + 48, static_cast<size_t>(max) + 1);
            frames++;
        }
        at += 16 + rec.incl;
    }
    EXPECT_GE(frames, 10u);
}

TEST(PcapDump, NaturalRecordLengthAndSizeLimitStopsCapture)
{
    int fd = temp_fd();
    ASSERT_GE(fd, 0);
    // A size limit that fills up long before the time limit.
    const int max = 24 + 20 * (16 + 142) + 48;
    int r;
    {
        udp_traffic t(100, 1000);
        r = pcap_dump("lo", fd, max, 0, 30, 0, nullptr);
    }
    EXPECT_EQ(r, max);
    stream s = parse(contents(fd));
    close(fd);
    EXPECT_TRUE(s.whole);
    size_t frames = 0;
    for (const record &rec : s.records) {
        if (!is_filler(rec)) {
            EXPECT_EQ(rec.incl, rec.orig);
            EXPECT_EQ(rec.incl, 142u);
            EXPECT_EQ(rec.data[12], 0x08);
            frames++;
        }
    }
    EXPECT_EQ(frames, 20u);
}

TEST(PcapDump, NoLimitsEndsWhenReaderCloses)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    // The reader closes once the capture runs (its header has come).
    ssize_t header = 0;
    std::thread closer([&] {
        unsigned char buf[64];
        header = read(sv[1], buf, sizeof buf);
        shutdown(sv[1], SHUT_WR);
    });
    int r = pcap_dump("lo", sv[0], 0, 0, 0, 1, nullptr);
    closer.join();
    EXPECT_EQ(r, 24);  // the header, no filler
    EXPECT_EQ(header, 24);
    unsigned char buf[64];
    EXPECT_EQ(recv(sv[1], buf, sizeof buf, MSG_DONTWAIT), -1);  // nothing after it
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(sv[0]);
    close(sv[1]);
}

TEST(PcapDump, WriteErrorReturnsMinusOneAndRestoresFlags)
{
    signal(SIGPIPE, SIG_IGN);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[0]);
    EXPECT_EQ(pcap_dump("lo", p[1], 100000, 1536, 1, 1, nullptr), -1);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(p[1]);

    // A write that fails after the capture started, while promiscuous.
    ASSERT_EQ(pipe(p), 0);
    std::thread reader([&] {
        char buf[24];
        read(p[0], buf, sizeof buf);
        // Switched on before the header was written.
        EXPECT_NE(lo_flags() & IFF_PROMISC, 0);
        close(p[0]);
    });
    int r;
    {
        udp_traffic t(100, 5000);
        r = pcap_dump("lo", p[1], 0, 0, 5, 1, nullptr);
    }
    reader.join();
    EXPECT_EQ(r, -1);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(p[1]);
}

TEST(PcapDump, PromiscuousModeOffAfterwardsEvenIfOnBefore)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    pcap_set_promisc(s, "lo", 1);
    EXPECT_NE(lo_flags() & IFF_PROMISC, 0);
    int fd = temp_fd();
    EXPECT_EQ(pcap_dump("lo", fd, 0, 0, 1, 0, nullptr), 24);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(fd);
    close(s);
}

TEST(PcapDump, FilterThatCannotAttachIsASetupError)
{
    sock_filter bad[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0)};  // no return
    sock_fprog prog = {1, bad};
    int fd = temp_fd();
    testing::internal::CaptureStderr();
    EXPECT_EQ(pcap_dump("lo", fd, 1000, 1536, 1, 1, &prog), -EINVAL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "setsockopt attach filter: Invalid argument\n");
    EXPECT_EQ(contents(fd).size(), 0u);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(fd);
}

TEST(PcapDump, AttachedFilterDropsFrames)
{
    // A program that drops everything: only filler remains.
    sock_filter none[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
    sock_fprog prog = {1, none};
    int fd = temp_fd();
    int r;
    {
        udp_traffic t(100, 5000);
        r = pcap_dump("lo", fd, 50000, 1536, 1, 0, &prog);
    }
    EXPECT_EQ(r, 50000);
    stream s = parse(contents(fd));
    close(fd);
    for (const record &rec : s.records)
        EXPECT_TRUE(is_filler(rec));
}

TEST(PcapDump, StopFlagEndsLikeTheTimeLimit)
{
    volatile sig_atomic_t stop = 1;
    int fd = temp_fd();
    EXPECT_EQ(pcap_dump_stoppable("lo", fd, 0, 0, 100, 1, nullptr, &stop, nullptr), 24);
    EXPECT_EQ(pcap_dump_stoppable("lo", fd, 5000, 0, 100, 1, nullptr, &stop, nullptr), 5000);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(fd);
}

volatile sig_atomic_t usr1_stop;

void on_usr1(int)
{
    usr1_stop = 1;
}

// The stop signal arriving after the flag was checked and before the wait
// began: it is pending when the wait starts and must end the capture, on a
// quiet interface writing into a pipe that never becomes ready (the wait
// blocks) or into a file that always is (the wait returns at once).  Run in
// a child, whose signal state the test may change; a stalled capture is
// killed at the deadline.
void stop_signal_pending_at_the_wait(bool into_file)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    int file = temp_fd();
    ASSERT_GE(file, 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct sigaction sa = {};
        sa.sa_handler = on_usr1;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGUSR1, &sa, nullptr);
        sigset_t wake;
        sigemptyset(&wake);
        sigaddset(&wake, SIGUSR1);
        sigprocmask(SIG_BLOCK, &wake, nullptr);
        raise(SIGUSR1);  // pending: the handler has not run, the flag is clear
        int r = pcap_dump_stoppable("lo", into_file ? file : p[1], 0, 0, 0x7fffffff, 0, nullptr,
                                    &usr1_stop, &wake);
        // The caller's mask is back: the signal was taken inside the capture.
        sigset_t now;
        sigprocmask(SIG_BLOCK, nullptr, &now);
        _exit(r == 24 && usr1_stop && sigismember(&now, SIGUSR1) == 1 ? 0 : 1);
    }
    int status = 0;
    pid_t w = waitpid_deadline(child, &status, 60);
    if (w != child) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    close(p[0]);
    close(p[1]);
    close(file);
    ASSERT_EQ(w, child) << "the capture did not end within 60 s";
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(PcapDump, StopSignalPendingWhenTheWaitBeginsEndsIt)
{
    stop_signal_pending_at_the_wait(false);
}

TEST(PcapDump, StopSignalPendingWithAnAlwaysReadyOutputEndsIt)
{
    stop_signal_pending_at_the_wait(true);
}

// The inode's line of the namespace's packet sockets, "" until there is one.
std::string packet_socket_line()
{
    FILE *f = fopen("/proc/self/net/packet", "r");
    if (!f)
        return "";
    char line[512];
    std::string found;
    if (fgets(line, sizeof line, f) && fgets(line, sizeof line, f))  // header, then ours
        found = line;
    fclose(f);
    return found;
}

// Column k of a packet socket line: sk RefCnt Type Proto Iface R Rmem User
// Inode.  Rmem counts bytes of frames queued and not yet read.
enum { PACKET_IFACE = 4, PACKET_RMEM = 6 };
long packet_socket_field(const std::string &line, size_t k)
{
    std::vector<std::string> fields;
    size_t at = 0;
    while (at < line.size()) {
        size_t start = line.find_first_not_of(" \t\n", at);
        if (start == std::string::npos)
            break;
        size_t end = line.find_first_of(" \t\n", start);
        fields.push_back(line.substr(start, end - start));
        at = end;
    }
    return fields.size() > k ? std::stol(fields[k]) : -1;
}

// A capture without size limit that writes more than 2 GiB still reports
// success: one frame with a fixed record length of INT_MAX is enough.  The
// output goes to /dev/null; a time limit keeps its always-readable state
// from ending the capture.
volatile sig_atomic_t count_stop;

void count_stop_handler(int)
{
    count_stop = 1;
}

TEST(PcapDump, CountPastTwoGibIsNotAnError)
{
    // The capture runs in a child stopped by a signal, as pcapdump is: the
    // flag is then set by a handler in the capturing process itself.
    int res[2];
    ASSERT_EQ(pipe(res), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct sigaction sa = {};
        sa.sa_handler = count_stop_handler;
        sigaction(SIGUSR1, &sa, nullptr);
        int out = open("/dev/null", O_RDWR);
        int r = pcap_dump_stoppable("lo", out, 0, INT_MAX, 3600, 0, nullptr, &count_stop, nullptr);
        if (write(res[1], &r, sizeof r) != sizeof r)
            _exit(2);
        _exit(0);
    }
    close(res[1]);

    // Once the capture's socket is bound, one datagram (seen twice on lo);
    // once the socket's queue is empty again the frames are read and their
    // records go out before the flag is looked at.
    bool bound = wait_until(
        [] { return packet_socket_field(packet_socket_line(), PACKET_IFACE) > 0; }, 60);
    if (bound) {
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(9);
        sendto(s, "x", 1, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        close(s);
    }
    bool drained =
        bound && wait_until([] { return packet_socket_field(packet_socket_line(), PACKET_RMEM) == 0; }, 60);
    kill(child, SIGUSR1);
    int r = 0;
    ssize_t n = read(res[0], &r, sizeof r);
    close(res[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(bound) << "no packet socket appeared";
    ASSERT_TRUE(drained) << packet_socket_line();
    ASSERT_EQ(n, static_cast<ssize_t>(sizeof r));
    EXPECT_EQ(r, INT_MAX);
}

TEST(PcapSetPromisc, SetsAndClearsTheFlag)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    pcap_set_promisc(s, "lo", 1);
    EXPECT_NE(lo_flags() & IFF_PROMISC, 0);
    EXPECT_NE(lo_flags() & IFF_UP, 0);
    pcap_set_promisc(s, "lo", 0);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    EXPECT_NE(lo_flags() & IFF_UP, 0);
    // Unknown names and over-long names change nothing.
    pcap_set_promisc(s, "nosuchif0", 1);
    pcap_set_promisc(s, "lolololololololololo", 1);
    EXPECT_EQ(lo_flags() & IFF_PROMISC, 0);
    close(s);
}

TEST(Ptime, SecondsSinceBoot)
{
    FILE *f = fopen("/proc/uptime", "r");
    ASSERT_NE(f, nullptr);
    double up = 0;
    ASSERT_EQ(fscanf(f, "%lf", &up), 1);
    fclose(f);
    unsigned long t = ptime();
    EXPECT_LE(static_cast<double>(t), up + 2);
    EXPECT_GE(static_cast<double>(t), up - 2);
}

} // namespace
