// Times whole rounds of the monitoring module over the processes of the
// calling pid namespace:
//   bench_monitor_round monitor ROUNDS   leak-monitor rounds (after a first
//                                        round that fills the table)
//   bench_monitor_round rtrace ROUNDS    runtime-trace rounds with smaps and
//                                        status, into /dev/null
//   bench_monitor_round hold N           keeps N descriptors open (counting
//                                        0, 1 and 2) until killed
#include "monitor.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

double now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

int processes()
{
    static int32_t pids[65536];
    return proc_list(pids, 65536, 0);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    int n = atoi(argv[2]);
    if (strcmp(argv[1], "hold") == 0) {
        for (int i = 3; i < n; i++)
            open("/dev/null", O_RDONLY);
        for (;;)
            pause();
    }
    if (strcmp(argv[1], "monitor") == 0) {
        monitor *mon = monitor_create("/tmp/bench-monitor-report.txt");
        monitor_run(mon);
        double start = now();
        for (int r = 0; r < n; r++)
            monitor_run(mon);
        double elapsed = now() - start;
        int procs = processes();
        printf("rounds %d processes/round %d records %u\n", n, procs, mon->procs->count);
        printf("us_per_process %.3f\n", elapsed * 1e6 / n / (procs ? procs : 1));
        monitor_destroy(mon);
        return 0;
    }
    if (strcmp(argv[1], "rtrace") == 0) {
        rtrace_config *c = rtrace_create(open("/dev/null", O_WRONLY), 1, RTRACE_SMAPS | RTRACE_STATUS);
        double start = now();
        for (int r = 0; r < n; r++) {
            if (!rtrace_send_round(c))
                return 1;
        }
        double elapsed = now() - start;
        printf("rounds %d ms_per_round %.3f\n", n, elapsed * 1e3 / n);
        rtrace_destroy(c);
        return 0;
    }
    return 2;
}
