// Packet capture into a classic pcap stream of exact length.
#include "capture.h"

#include "common.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr unsigned frame_max = 1536;  // read size: longer frames are cut
constexpr long long filler_max = 32767;
constexpr long long tail_reserve = 48;  // room for a final filler header

struct pcap_global_header {
    uint32_t magic;
    uint16_t major;
    uint16_t minor;
    int32_t zone;
    uint32_t accuracy;
    uint32_t snaplen;
    uint32_t linktype;
};

struct pcap_record_header {
    uint32_t sec;
    uint32_t usec;
    uint32_t incl;
    uint32_t orig;
};

static_assert(sizeof(pcap_global_header) == 24);
static_assert(sizeof(pcap_record_header) == 16);

constexpr uint32_t pcap_magic = 0xa1b2c3d4;
constexpr uint32_t pcap_linktype_ethernet = 1;

// Filler data goes out in frame-sized pieces; the zero tail of a fixed record
// length beyond the frame buffer (which may be as long as rec_len allows) in
// large ones.
constexpr unsigned tail_piece = 65536;
const char zeros[tail_piece] = {};

// Writes n zero bytes in pieces of at most piece bytes.
int write_zeros(int fd, long long n, unsigned piece = frame_max)
{
    while (n > 0) {
        unsigned len = n < piece ? static_cast<unsigned>(n) : piece;
        if (safe_write(fd, zeros, len) < 0)
            return -1;
        n -= len;
    }
    return 0;
}

// Completes the stream to max_bytes with filler records.
int write_filler(int fd, long long &count, long long max_bytes)
{
    while (count < max_bytes) {
        long long r = max_bytes - count;
        long long c = r < filler_max ? r : filler_max;
        // Never leave a remainder too small for a record header.
        if (r - c >= 1 && r - c <= 15)
            c /= 2;
        if (c < static_cast<long long>(sizeof(pcap_record_header))) {
            // Only a limit shorter than header plus one record header gets
            // here; plain zeros still keep the length exact.
            if (write_zeros(fd, c) < 0)
                return -1;
        } else {
            uint32_t len = static_cast<uint32_t>(c - sizeof(pcap_record_header));
            pcap_record_header h = {0, 0, len, len};
            if (safe_write(fd, &h, sizeof h) < 0 || write_zeros(fd, len) < 0)
                return -1;
        }
        count += c;
    }
    return 0;
}

// Whether one of the signals in set is pending.
bool wake_pending(const sigset_t *set)
{
    sigset_t pending;
    if (sigpending(&pending) != 0)
        return false;
    for (int sig = 1; sig < NSIG; sig++)
        if (sigismember(set, sig) == 1 && sigismember(&pending, sig) == 1)
            return true;
    return false;
}

bool readable(short revents)
{
    return revents & (POLLIN | POLLHUP | POLLERR);
}

} // namespace

void pcap_set_promisc(int sock, const char *ifname, int on)
{
    ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    memcpy(ifr.ifr_name, ifname, strnlen(ifname, IFNAMSIZ));
    if (ioctl(sock, SIOCGIFFLAGS, &ifr) < 0)
        return;
    if (on)
        ifr.ifr_flags |= IFF_PROMISC;
    else
        ifr.ifr_flags &= ~IFF_PROMISC;
    ioctl(sock, SIOCSIFFLAGS, &ifr);
}

unsigned long ptime()
{
    struct sysinfo si;
    if (sysinfo(&si) < 0)
        return 0;
    return static_cast<unsigned long>(si.uptime);
}

namespace {

// The packet socket bound to ifname, with the filter (may be null) attached.
// The descriptor, or -errno.
int open_capture(const char *ifname, const sock_fprog *filter)
{
    sockaddr_ll addr;
    memset(&addr, 0, sizeof addr);
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = static_cast<int>(if_nametoindex(ifname));

    // ETH_P_ALL unconverted matches no frames: only the bound address selects
    // what arrives, so nothing of other interfaces slips in before the bind.
    unique_fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, ETH_P_ALL));
    if (!sock.valid())
        return -errno;
    // The filter goes on before the bind: once bound, frames queue at once,
    // and any queued before the filter would slip past it unfiltered.
    if (filter &&
        setsockopt(sock.get(), SOL_SOCKET, SO_ATTACH_FILTER, filter, sizeof *filter) < 0) {
        int err = errno;
        perror("setsockopt attach filter");
        return -err;
    }
    if (bind(sock.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        int err = errno;
        perror("bind");
        return -err;
    }
    return sock.release();
}

// One capture in progress.
struct capture_run {
    int sock;
    int out_fd;
    int max_bytes;
    int rec_len;
    unsigned long limit;  // seconds, 0: none
    unsigned long t0;
    volatile sig_atomic_t *stop;
    const sigset_t *wake;
    bool masked;  // the wake signals are blocked outside the wait
    sigset_t wait_mask;
    long long count;  // bytes written
    bool failed;      // a write failed
    bool fill;        // complete the stream to max_bytes at the end
    // Record header and frame side by side, so each record is one write.
    // Zeroed once: a fixed record length shows an earlier frame's tail,
    // never stack contents.
    char buf[sizeof(pcap_record_header) + frame_max];
};

enum wait_step { WAIT_AGAIN, WAIT_READY, WAIT_END };

// Waits for a frame or for the reader, at most until the time limit.  At an
// error the stream is not completed either.
wait_step wait_ready(capture_run &c, pollfd fds[2])
{
    timespec ts = {0, 0};
    if (c.limit) {
        unsigned long elapsed = ptime() - c.t0;
        if (elapsed >= c.limit)
            return WAIT_END;
        ts.tv_sec = static_cast<time_t>(c.limit - elapsed);
    }
    // poll rather than select, so any descriptor number works.
    fds[0] = {c.sock, POLLIN, 0};
    fds[1] = {c.out_fd, POLLIN, 0};
    int r = ppoll(fds, 2, c.limit ? &ts : nullptr, c.masked ? &c.wait_mask : nullptr);
    // A wait that found a descriptor ready at once (an output file always
    // is) takes no signal: let a pending one in here.
    if (c.masked && r >= 0 && wake_pending(c.wake)) {
        pthread_sigmask(SIG_SETMASK, &c.wait_mask, nullptr);
        pthread_sigmask(SIG_BLOCK, c.wake, nullptr);
    }
    if (r < 0) {
        if (errno == EINTR)
            return WAIT_AGAIN;
        perror("select");
        c.fill = false;
        return WAIT_END;
    }
    if (r == 0)
        return WAIT_AGAIN;
    if ((fds[0].revents | fds[1].revents) & POLLNVAL) {
        errno = EBADF;
        perror("select");
        c.fill = false;
        return WAIT_END;
    }
    return WAIT_READY;
}

// One record of n bytes for a frame of len bytes read into the buffer.
// 0, or -1 when the write failed.
int write_record(capture_run &c, ssize_t len, long long n)
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    pcap_record_header rh = {static_cast<uint32_t>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec),
                             static_cast<uint32_t>(n), static_cast<uint32_t>(len)};
    memcpy(c.buf, &rh, sizeof rh);
    // A fixed length beyond the buffer is completed with zeros.
    long long from_buf = n < frame_max ? n : frame_max;
    if (safe_write(c.out_fd, c.buf, static_cast<unsigned>(sizeof rh + from_buf)) < 0 ||
        write_zeros(c.out_fd, n - from_buf, tail_piece) < 0)
        return -1;
    return 0;
}

// Records frames until the stop flag, the time limit, the size limit, the
// reader's end or an error.
void capture_frames(capture_run &c)
{
    char *frame = c.buf + sizeof(pcap_record_header);
    while (!c.failed) {
        if (c.stop && *c.stop)
            break;
        pollfd fds[2];
        wait_step step = wait_ready(c, fds);
        if (step == WAIT_END)
            break;
        if (step == WAIT_AGAIN)
            continue;
        if (readable(fds[1].revents)) {
            // Whatever the reader sends is dropped; its close ends an
            // unlimited capture.
            ssize_t d = read(c.out_fd, frame, frame_max);
            if (!c.limit && !c.max_bytes && d <= 0) {
                c.fill = false;
                break;
            }
        }
        if (!readable(fds[0].revents))
            continue;
        ssize_t len = read(c.sock, frame, frame_max);
        if (len <= 0)
            break;
        long long n = c.rec_len > 0 ? c.rec_len : len;
        if (c.max_bytes > 0 && c.max_bytes <= c.count + tail_reserve + n)
            break;
        if (write_record(c, len, n) < 0) {
            c.failed = true;
            break;
        }
        c.count += static_cast<long long>(sizeof(pcap_record_header)) + n;
    }
}

// The stop signals stay blocked except inside the wait: one that arrives
// after the flag was looked at is then pending and cuts the wait short,
// instead of being noticed only with the next frame.
void block_wake_signals(capture_run &c, sigset_t *saved_mask)
{
    c.masked = c.stop && c.wake;
    if (!c.masked)
        return;
    pthread_sigmask(SIG_BLOCK, c.wake, saved_mask);
    c.wait_mask = *saved_mask;
    for (int sig = 1; sig < NSIG; sig++)
        if (sigismember(c.wake, sig) == 1)
            sigdelset(&c.wait_mask, sig);
}

// Undoes what the capture changed on the socket and the interface.
// Promiscuous mode ends with the capture even if it was on before.
void release_capture(int sock, const char *ifname)
{
    pcap_set_promisc(sock, ifname, 0);
    int unused = 0;
    setsockopt(sock, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused);
}

} // namespace

int pcap_dump_stoppable(const char *ifname, int out_fd, int max_bytes, int rec_len,
                        int duration, int promisc, const sock_fprog *filter,
                        volatile sig_atomic_t *stop, const sigset_t *wake)
{
    int opened = open_capture(ifname, filter);
    if (opened < 0)
        return opened;
    unique_fd sock(opened);
    pcap_set_promisc(sock.get(), ifname, promisc);

    capture_run c{};
    c.sock = sock.get();
    c.out_fd = out_fd;
    c.max_bytes = max_bytes;
    c.rec_len = rec_len;
    c.stop = stop;
    c.wake = wake;
    c.fill = true;
    const pcap_global_header gh = {pcap_magic, 2, 4, 0, 0, 65535, pcap_linktype_ethernet};
    int w = safe_write(out_fd, &gh, sizeof gh);
    if (w < 0)
        c.failed = true;
    else
        c.count = w;
    // A negative duration is taken as no time limit.
    c.limit = duration > 0 ? static_cast<unsigned long>(duration) : 0;
    c.t0 = ptime();

    sigset_t saved_mask;
    sigemptyset(&saved_mask);
    block_wake_signals(c, &saved_mask);
    capture_frames(c);
    if (!c.failed && c.fill && max_bytes > 0 && c.count < max_bytes) {
        if (write_filler(out_fd, c.count, max_bytes) < 0)
            c.failed = true;
    }
    if (c.masked)
        pthread_sigmask(SIG_SETMASK, &saved_mask, nullptr);

    release_capture(sock.get(), ifname);
    sock.reset();
    if (c.failed)
        return -1;
    // An unlimited capture may pass what an int holds; it still succeeded.
    return c.count > INT_MAX ? INT_MAX : static_cast<int>(c.count);
}

int pcap_dump(const char *ifname, int out_fd, int max_bytes, int rec_len, int duration,
              int promisc, const sock_fprog *filter)
{
    return pcap_dump_stoppable(ifname, out_fd, max_bytes, rec_len, duration, promisc, filter,
                               nullptr, nullptr);
}
