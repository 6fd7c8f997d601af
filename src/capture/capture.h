// Capture tools: packet capture into pcap streams and the oops-log reader.
#pragma once

#include <signal.h>

struct sock_fprog;

// Captures the frames of ifname with a packet socket into out_fd as a pcap
// stream.  max_bytes 0 = no size limit, otherwise the stream is completed with
// filler records to exactly max_bytes; rec_len 0 = records carry the frame as
// read, otherwise every record carries rec_len bytes; duration in seconds, 0 =
// no time limit; promisc non-zero switches the interface to promiscuous mode
// for the capture (it is switched off at every exit); filter may be null.
// Returns the bytes written (INT_MAX for an unlimited capture that wrote more),
// -errno when the socket cannot be set up, or -1 when a write fails.
int pcap_dump(const char *ifname, int out_fd, int max_bytes, int rec_len, int duration,
              int promisc, const sock_fprog *filter);

// As pcap_dump, for a console applet stopped by a signal: the capture ends as
// if its time were up once *stop is non-zero.  wake holds the signals whose
// handlers set it: they are blocked during the capture except inside its
// wait, so one arriving just after the flag was checked still ends the wait.
int pcap_dump_stoppable(const char *ifname, int out_fd, int max_bytes, int rec_len,
                        int duration, int promisc, const sock_fprog *filter,
                        volatile sig_atomic_t *stop, const sigset_t *wake);

// The socket filter that drops the frames of TCP connection sockfd: a heap
// block (free it) holding the sock_filter instructions from its start; the
// caller forms the sock_fprog from it and *count.  *count (when count is not
// null) gets the instruction count, 8 (IPv4) or 9 (IPv6).  Null when the
// addresses cannot be read or are neither both IPv4 nor both IPv6.
void *filter_me(int sockfd, int *count);

// Sets (on != 0) or clears IFF_PROMISC of ifname through socket sock; nothing
// happens when the flags cannot be read.
void pcap_set_promisc(int sock, const char *ifname, int on);

// Seconds since boot.
unsigned long ptime();

int run_pcapdump(int argc, char **argv);
int run_oopslog(int argc, char **argv);
