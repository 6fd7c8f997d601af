// Lists every process, names it and counts its descriptors, the way the leak
// monitor and the archive walk the system; prints the time per process.
#include "proc.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <vector>

namespace {

double now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

}  // namespace

int main(int argc, char **argv)
{
    int rounds = argc > 1 ? atoi(argv[1]) : 10;
    std::vector<int32_t> pids(65536);
    long processes = 0, fds = 0, sockets = 0, named = 0;
    double start = now();
    for (int r = 0; r < rounds; r++) {
        int n = proc_list(pids.data(), static_cast<int>(pids.size()), 0);
        for (int i = 0; i < n; i++) {
            char name[256];
            int nsock = 0, npipe = 0;
            named += proc_get_pidname(pids[i], name, sizeof name);
            fds += proc_nr_fd2(pids[i], &nsock, &npipe);
            sockets += nsock;
        }
        processes += n;
    }
    double elapsed = now() - start;
    printf("rounds %d processes/round %ld named %ld descriptors/round %ld sockets/round %ld\n",
           rounds, processes / rounds, named / rounds, fds / rounds, sockets / rounds);
    printf("us_per_process %.3f\n", elapsed * 1e6 / (processes ? processes : 1));
    return 0;
}
