#include "capture.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t pcapdump_stop;

void pcapdump_on_stop(int)
{
    pcapdump_stop = 1;
}

} // namespace

int run_pcapdump(int argc, char **argv)
{
    if (argc < 3) {
        puts("USAGE: pcapdump netif dumpname");
        return 1;
    }
    int fd = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        perror(argv[2]);
        return 1;
    }

    // An interrupt ends the capture through its normal exit: whole records
    // only, promiscuous mode off again.  Writes retry an interrupted call, so
    // a record is never cut.
    struct sigaction sa = {};
    sa.sa_handler = pcapdump_on_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, SIGINT);
    sigaddset(&wake, SIGTERM);

    pcap_dump_stoppable(argv[1], fd, 0, 0, 0x7fffffff, 1, nullptr, &pcapdump_stop, &wake);
    close(fd);
    return 0;
}
