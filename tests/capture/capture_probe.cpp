// Test tool for the namespace tests: runs pcap_dump and filter_me as the debug
// service would, with the results on stderr.
//   capture_probe dump IFNAME OUT MAX REC DUR PROMISC
//       OUT: a file path, or "closed-pipe" (a pipe without reader)
//   capture_probe connect IFNAME HOST PORT MAX REC DUR
//       connects to HOST:PORT and captures into that connection, filtered
//   capture_probe accept6 IFNAME PORT MAX REC DUR
//       the same on one connection accepted on a dual-stack [::]:PORT
// Prints "filter COUNT LOCALPORT PEERPORT HEX" and "result N".
#include "capture.h"
#include "netutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testutil::port_of;

int capture_into(const char *ifname, int conn, char **limits)
{
    int count = 0;
    void *block = filter_me(conn, &count);
    if (!block) {
        fprintf(stderr, "filter none\n");
        return 1;
    }
    sock_fprog fprog = {static_cast<unsigned short>(count), static_cast<sock_filter *>(block)};
    auto *prog = &fprog;
    fprintf(stderr, "filter %d %d %d ", count, port_of(conn, false), port_of(conn, true));
    auto *bytes = static_cast<unsigned char *>(block);
    for (int i = 0; i < count * 8; i++)
        fprintf(stderr, "%02x", bytes[i]);
    fprintf(stderr, "\n");
    int r = pcap_dump(ifname, conn, atoi(limits[0]), atoi(limits[1]), atoi(limits[2]), 1, prog);
    fprintf(stderr, "result %d\n", r);
    free(block);
    close(conn);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stderr, nullptr, _IONBF, 0);
    if (argc == 8 && strcmp(argv[1], "dump") == 0) {
        int fd;
        if (strcmp(argv[3], "closed-pipe") == 0) {
            int p[2];
            if (pipe(p) < 0)
                return 1;
            close(p[0]);
            fd = p[1];
        } else {
            fd = open(argv[3], O_WRONLY | O_CREAT | O_TRUNC, 0600);
        }
        if (fd < 0)
            return 1;
        int r = pcap_dump(argv[2], fd, atoi(argv[4]), atoi(argv[5]), atoi(argv[6]), atoi(argv[7]),
                          nullptr);
        fprintf(stderr, "result %d\n", r);
        close(fd);
        return 0;
    }
    if (argc == 8 && strcmp(argv[1], "connect") == 0) {
        addrinfo hints = {}, *ai = nullptr;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICHOST;
        if (getaddrinfo(argv[3], argv[4], &hints, &ai) != 0)
            return 1;
        int s = socket(ai->ai_family, SOCK_STREAM, 0);
        if (s < 0 || connect(s, ai->ai_addr, ai->ai_addrlen) < 0) {
            perror("connect");
            return 1;
        }
        freeaddrinfo(ai);
        return capture_into(argv[2], s, argv + 5);
    }
    if (argc == 7 && strcmp(argv[1], "accept6") == 0) {
        int l = socket(AF_INET6, SOCK_STREAM, 0);
        int off = 0, on = 1;
        setsockopt(l, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
        setsockopt(l, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in6 a = {};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_any;
        a.sin6_port = htons(static_cast<uint16_t>(atoi(argv[3])));
        if (bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 || listen(l, 1) < 0) {
            perror("listen");
            return 1;
        }
        fprintf(stderr, "listening\n");
        int c = accept(l, nullptr, nullptr);
        close(l);
        if (c < 0)
            return 1;
        return capture_into(argv[2], c, argv + 4);
    }
    fprintf(stderr, "usage: see the head of capture_probe.cpp\n");
    return 2;
}
