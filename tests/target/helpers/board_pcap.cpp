// Board helper for the capture check (the board has no ping and no pcap reader):
//   board_pcap send HOST PORT COUNT   COUNT UDP datagrams of 64 bytes to HOST:PORT
//   board_pcap read FILE PORT         checks a pcap file and prints one summary line:
//     "linktype L records N udp-to-port M ordered O whole W"
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

static uint32_t le32(const unsigned char *p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

static int send_udp(const char *host, int port, int count)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    if (fd < 0 || inet_pton(AF_INET, host, &to.sin_addr) != 1)
        return 2;
    char payload[64];
    memset(payload, 'u', sizeof payload);
    for (int i = 0; i < count; i++) {
        sendto(fd, payload, sizeof payload, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        usleep(2000);  // paced, so that no datagram is dropped before the capture
    }
    close(fd);
    return 0;
}

static int read_pcap(const char *path, int port)
{
    FILE *f = fopen(path, "rb");
    if (!f)
        return 2;
    std::vector<unsigned char> d;
    unsigned char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        d.insert(d.end(), buf, buf + n);
    fclose(f);
    if (d.size() < 24 || le32(&d[0]) != 0xa1b2c3d4u) {
        printf("bad header\n");
        return 1;
    }
    uint32_t linktype = le32(&d[20]);
    size_t at = 24;
    int records = 0, udp = 0, ordered = 1;
    uint64_t last = 0;
    while (at + 16 <= d.size()) {
        uint32_t sec = le32(&d[at]), usec = le32(&d[at + 4]);
        uint32_t incl = le32(&d[at + 8]), orig = le32(&d[at + 12]);
        if (at + 16 + incl > d.size() || incl > orig)
            break;
        uint64_t t = static_cast<uint64_t>(sec) * 1000000 + usec;
        if (t < last)
            ordered = 0;
        last = t;
        const unsigned char *fr = &d[at + 16];
        // Ethernet, IPv4, UDP, destination port.
        if (incl >= 14 + 20 + 8 && fr[12] == 0x08 && fr[13] == 0x00 && fr[23] == 17) {
            size_t ihl = (fr[14] & 0x0f) * 4u;
            if (incl >= 14 + ihl + 8 && ((fr[14 + ihl + 2] << 8) | fr[14 + ihl + 3]) == port)
                udp++;
        }
        records++;
        at += 16 + incl;
    }
    printf("linktype %u records %d udp-to-port %d ordered %d whole %d\n", linktype, records, udp,
           ordered, at == d.size() ? 1 : 0);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc == 5 && !strcmp(argv[1], "send"))
        return send_udp(argv[2], atoi(argv[3]), atoi(argv[4]));
    if (argc == 4 && !strcmp(argv[1], "read"))
        return read_pcap(argv[2], atoi(argv[3]));
    fprintf(stderr, "usage: board_pcap send HOST PORT COUNT | read FILE PORT\n");
    return 2;
}
