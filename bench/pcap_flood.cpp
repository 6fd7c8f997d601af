// Sends a fixed count of small UDP datagrams, evenly paced over a duration:
// the load of the capture benchmark (pcap_flood.sh).
// usage: bench_pcap_flood DEST_IPV4 PORT COUNT SECONDS [PAYLOAD]
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 5) {
        fprintf(stderr, "usage: bench_pcap_flood DEST_IPV4 PORT COUNT SECONDS [PAYLOAD]\n");
        return 2;
    }
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
    if (inet_pton(AF_INET, argv[1], &to.sin_addr) != 1)
        return 2;
    const long count = atol(argv[3]);
    const double seconds = atof(argv[4]);
    const size_t payload = argc > 5 ? static_cast<size_t>(atoi(argv[5])) : 18;
    char buf[1500];
    memset(buf, 'f', sizeof buf);

    int s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0) {
        perror("socket");
        return 1;
    }
    long sent = 0;
    const double t0 = now();
    while (sent < count) {
        double elapsed = now() - t0;
        long due = elapsed >= seconds ? count : static_cast<long>(count * (elapsed / seconds));
        if (due > count)
            due = count;
        while (sent < due) {
            if (sendto(s, buf, payload, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) < 0) {
                if (errno == ENOBUFS || errno == EAGAIN || errno == EINTR)
                    continue;
                perror("sendto");
                return 1;
            }
            sent++;
        }
        usleep(200);
    }
    printf("sent %ld datagrams in %.2f s\n", sent, now() - t0);
    close(s);
    return 0;
}
