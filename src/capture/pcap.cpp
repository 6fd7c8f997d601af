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

int pcap_dump_stoppable(const char *ifname, int out_fd, int max_bytes, int rec_len,
                        int duration, int promisc, const sock_fprog *filter,
                        volatile sig_atomic_t *stop, const sigset_t *wake)
{
    sockaddr_ll addr;
    memset(&addr, 0, sizeof addr);
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = static_cast<int>(if_nametoindex(ifname));

    // ETH_P_ALL unconverted matches no frames: only the bound address selects
    // what arrives, so nothing of other interfaces slips in before the bind.
    int sock = socket(AF_PACKET, SOCK_RAW, ETH_P_ALL);
    if (sock < 0)
        return -errno;
    // The filter goes on before the bind: once bound, frames queue at once,
    // and any queued before the filter would slip past it unfiltered.
    if (filter && setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, filter, sizeof *filter) < 0) {
        int err = errno;
        perror("setsockopt attach filter");
        close(sock);
        return -err;
    }
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        int err = errno;
        perror("bind");
        close(sock);
        return -err;
    }

    pcap_set_promisc(sock, ifname, promisc);

    // Record header and frame side by side, so each record is one write.
    // Zeroed once: a fixed record length shows an earlier frame's tail, never
    // stack contents.
    char buf[sizeof(pcap_record_header) + frame_max];
    memset(buf, 0, sizeof buf);
    char *frame = buf + sizeof(pcap_record_header);

    long long count = 0;
    bool failed = false;
    bool fill = true;
    const pcap_global_header gh = {pcap_magic, 2, 4, 0, 0, 65535, pcap_linktype_ethernet};
    int w = safe_write(out_fd, &gh, sizeof gh);
    if (w < 0)
        failed = true;
    else
        count = w;
    // A negative duration is taken as no time limit.
    const unsigned long limit = duration > 0 ? static_cast<unsigned long>(duration) : 0;
    const unsigned long t0 = ptime();

    // The stop signals stay blocked except inside the wait: one that arrives
    // after the flag was looked at is then pending and cuts the wait short,
    // instead of being noticed only with the next frame.
    sigset_t saved_mask, wait_mask;
    const bool masked = stop && wake;
    if (masked) {
        pthread_sigmask(SIG_BLOCK, wake, &saved_mask);
        wait_mask = saved_mask;
        for (int sig = 1; sig < NSIG; sig++)
            if (sigismember(wake, sig) == 1)
                sigdelset(&wait_mask, sig);
    }

    while (!failed) {
        if (stop && *stop)
            break;
        timespec ts = {0, 0};
        if (limit) {
            unsigned long elapsed = ptime() - t0;
            if (elapsed >= limit)
                break;
            ts.tv_sec = static_cast<time_t>(limit - elapsed);
        }
        // poll rather than select, so any descriptor number works.
        pollfd fds[2] = {{sock, POLLIN, 0}, {out_fd, POLLIN, 0}};
        int r = ppoll(fds, 2, limit ? &ts : nullptr, masked ? &wait_mask : nullptr);
        // A wait that found a descriptor ready at once (an output file always
        // is) takes no signal: let a pending one in here.
        if (masked && r >= 0 && wake_pending(wake)) {
            pthread_sigmask(SIG_SETMASK, &wait_mask, nullptr);
            pthread_sigmask(SIG_BLOCK, wake, nullptr);
        }
        if (r < 0) {
            if (errno == EINTR)
                continue;
            perror("select");
            fill = false;
            break;
        }
        if (r == 0)
            continue;
        if ((fds[0].revents | fds[1].revents) & POLLNVAL) {
            errno = EBADF;
            perror("select");
            fill = false;
            break;
        }
        if (readable(fds[1].revents)) {
            // Whatever the reader sends is dropped; its close ends an
            // unlimited capture.
            ssize_t d = read(out_fd, frame, frame_max);
            if (!limit && !max_bytes && d <= 0) {
                fill = false;
                break;
            }
        }
        if (!readable(fds[0].revents))
            continue;
        ssize_t len = read(sock, frame, frame_max);
        if (len <= 0)
            break;
        long long n = rec_len > 0 ? rec_len : len;
        if (max_bytes > 0 && max_bytes <= count + tail_reserve + n)
            break;

        timeval tv;
        gettimeofday(&tv, nullptr);
        pcap_record_header rh = {static_cast<uint32_t>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec),
                                 static_cast<uint32_t>(n), static_cast<uint32_t>(len)};
        memcpy(buf, &rh, sizeof rh);
        // A fixed length beyond the buffer is completed with zeros.
        long long from_buf = n < frame_max ? n : frame_max;
        if (safe_write(out_fd, buf, static_cast<unsigned>(sizeof rh + from_buf)) < 0 ||
            write_zeros(out_fd, n - from_buf, tail_piece) < 0) {
            failed = true;
            break;
        }
        count += static_cast<long long>(sizeof rh) + n;
    }

    if (!failed && fill && max_bytes > 0 && count < max_bytes) {
        if (write_filler(out_fd, count, max_bytes) < 0)
            failed = true;
    }

    if (masked)
        pthread_sigmask(SIG_SETMASK, &saved_mask, nullptr);

    // Promiscuous mode ends with the capture even if it was on before.
    pcap_set_promisc(sock, ifname, 0);
    int unused = 0;
    setsockopt(sock, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused);
    close(sock);
    if (failed)
        return -1;
    // An unlimited capture may pass what an int holds; it still succeeded.
    return count > INT_MAX ? INT_MAX : static_cast<int>(count);
}

int pcap_dump(const char *ifname, int out_fd, int max_bytes, int rec_len, int duration,
              int promisc, const sock_fprog *filter)
{
    return pcap_dump_stoppable(ifname, out_fd, max_bytes, rec_len, duration, promisc, filter,
                               nullptr, nullptr);
}
