// The resource-leak monitor: per-process descriptor and child counts, round
// after round, with alerts on growth and a status report per round.
#include "monitor.h"

#include "proc.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static_assert(sizeof(void *) != 4 || sizeof(monitor_proc) == 280,
              "the device's process record is 280 bytes");

namespace {

constexpr uint32_t TABLE_HINT = 512;
constexpr int MAX_PIDS = 1024;
// A score must rise this far above its last reported peak to be reported again.
constexpr int FD_SCORE_STEP = 32;
// From this score on a process is listed in the report.
constexpr int FD_SCORE_REPORT = 32;
constexpr int FORK_LIMIT = 16;
constexpr int FORK_LIMIT_KTHREAD = 32;
// Report labels of the history slots, read as hours when rounds are an hour apart.
constexpr int SLOT_LABEL[MONITOR_HISTORY] = {0, 1, 2, 3, 4, 37, 70, 103};

const size_t ENTRY_OFFSET = offsetof(monitor_proc, entry);

monitor_proc *lookup(monitor *mon, int32_t pid)
{
    return static_cast<monitor_proc *>(ehash_lookup_e(mon->procs, &pid, sizeof pid, ENTRY_OFFSET));
}

// The record of pid for this round: the stored one, a fresh one when the pid
// is new or was reused by another program, or null when it cannot be named
// or allocated.
monitor_proc *record_for(monitor *mon, int32_t pid)
{
    monitor_proc *rec = lookup(mon, pid);
    if (rec) {
        char name[sizeof rec->name] = {};
        proc_get_pidname(pid, name, sizeof name);
        if (rec->pid == pid && strcmp(rec->name, name) == 0)
            return rec;
        // Another program under the same pid starts with an empty history.
        ehash_remove(mon->procs, &rec->entry);
        memset(rec, 0, sizeof *rec);
    } else {
        rec = static_cast<monitor_proc *>(calloc(1, sizeof *rec));
        if (!rec)
            return nullptr;
    }
    rec->pid = pid;
    if (!proc_get_pidname(pid, rec->name, sizeof rec->name)) {
        free(rec);
        return nullptr;
    }
    ehash_insert_e(mon->procs, &rec->pid, sizeof rec->pid, &rec->entry);
    return rec;
}

void sample(monitor *mon, monitor_proc *rec)
{
    monitor_sample *h = rec->hist;
    if ((mon->round & 31) == 0) {
        h[7] = h[6];
        h[6] = h[5];
        h[5] = h[4];
    }
    monitor_sample sum = {h[3].nr_fd + h[2].nr_fd + h[1].nr_fd,
                          h[3].nr_sock + h[2].nr_sock + h[1].nr_sock,
                          h[3].nr_pipe + h[2].nr_pipe + h[1].nr_pipe};
    h[3] = h[2];
    h[2] = h[1];
    h[1] = h[0];
    h[0].nr_fd = proc_nr_fd2(rec->pid, &h[0].nr_sock, &h[0].nr_pipe);
    // The sample of the round just before is left out of the average.
    h[4].nr_fd = static_cast<int32_t>(static_cast<uint32_t>(h[0].nr_fd + sum.nr_fd) / 4u);
    h[4].nr_sock = static_cast<int32_t>(static_cast<uint32_t>(h[0].nr_sock + sum.nr_sock) / 4u);
    h[4].nr_pipe = static_cast<int32_t>(static_cast<uint32_t>(h[0].nr_pipe + sum.nr_pipe) / 4u);
}

// The first touch of a record in a round resets its child count.
void touch_childs(monitor_proc *rec, uint32_t round)
{
    if (rec->childs_reset == round)
        rec->nr_childs = 0;
    rec->childs_reset = round + 1;
}

void count_child(monitor *mon, monitor_proc *rec)
{
    touch_childs(rec, mon->round);
    rec->ppid = proc_ppid(rec->pid);
    // The cached pointer may name a record freed since; the table decides.
    monitor_proc *parent = lookup(mon, rec->ppid);
    rec->parent = parent;
    if (!parent)
        return;
    touch_childs(parent, mon->round);
    parent->nr_childs++;
}

void evaluate(monitor *mon, monitor_proc *rec)
{
    const monitor_sample &now = rec->hist[0];
    int score = (now.nr_fd - now.nr_sock - now.nr_pipe) / 32 + now.nr_pipe / 32 + now.nr_sock / 8;
    if (score > rec->fd_score_peak + FD_SCORE_STEP) {
        rec->fd_score_peak = score;
        int diff = score - rec->fd_score_prev;
        monitor_log(mon, "pid %d name %s fd_score %d [%s%d] sk=%d\n", rec->pid, rec->name, score,
                    diff > 0 ? "+" : "", diff, now.nr_sock);
    }
    rec->fd_score_prev = score;
    if (score >= FD_SCORE_REPORT && mon->report) {
        fprintf(mon->report, "fdstats for pid=%ld score=%d:\n", static_cast<long>(rec->pid), score);
        for (int i = 0; i < MONITOR_HISTORY; i++) {
            fprintf(mon->report, "%dh nr_fd=%d ", SLOT_LABEL[i], rec->hist[i].nr_fd);
            fprintf(mon->report, "nr_sock=%d ", rec->hist[i].nr_sock);
            fprintf(mon->report, "nr_pipe=%d\n", rec->hist[i].nr_pipe);
        }
    }

    int limit = proc_is_kernel_thread(rec->pid) ? FORK_LIMIT_KTHREAD : FORK_LIMIT;
    if (rec->nr_childs >= limit + rec->nr_childs_peak) {
        rec->nr_childs_peak = rec->nr_childs;
        int diff = rec->nr_childs - rec->nr_childs_prev;
        monitor_log(mon, "pid %d name %s fork_score %d [%s%d]\n", rec->pid, rec->name,
                    rec->nr_childs, diff > 0 ? "+" : "", diff);
    }
    rec->nr_childs_prev = rec->nr_childs;
    if (rec->nr_childs >= limit && mon->report)
        fprintf(mon->report, "forkstats for pid=%ld: score=%d nr_childs=%d\n",
                static_cast<long>(rec->pid), rec->nr_childs, rec->nr_childs);
}

void open_report(monitor *mon, char *tmp, size_t size)
{
    mon->report = nullptr;
    if (!mon->report_path)
        return;
    int n = snprintf(tmp, size, "%s.tmp-XXXXXX", mon->report_path);
    if (n < 0 || static_cast<size_t>(n) >= size)
        return;
    int fd = mkostemp(tmp, O_CLOEXEC);
    if (fd < 0)
        return;
    mon->report = fdopen(fd, "w");
    if (!mon->report) {
        close(fd);
        unlink(tmp);
        return;
    }
    fprintf(mon->report, "Debug monitor status round=%lx\n\n", static_cast<unsigned long>(mon->round));
}

volatile sig_atomic_t mon_stop;

void on_sigint(int)
{
    mon_stop = 1;
}

} // namespace

monitor *monitor_create(const char *report_path)
{
    monitor *mon = static_cast<monitor *>(calloc(1, sizeof *mon));
    if (!mon)
        return nullptr;
    mon->report_path = report_path;
    mon->procs = ehash_new(TABLE_HINT);
    if (!mon->procs) {
        free(mon);
        return nullptr;
    }
    mon->round = 1;
    return mon;
}

void monitor_run(monitor *mon)
{
    if (!mon)
        return;
    char tmp[PATH_MAX];
    open_report(mon, tmp, sizeof tmp);

    int32_t pids[MAX_PIDS];
    int n = proc_list(pids, MAX_PIDS, -1);
    for (int i = 0; i < n; i++) {
        monitor_proc *rec = record_for(mon, pids[i]);
        if (!rec)
            continue;
        rec->seen_round = mon->round;
        rec->eval_round = mon->round;
        sample(mon, rec);
        count_child(mon, rec);
    }

    ehash_iter it = {};
    while (monitor_proc *rec =
               static_cast<monitor_proc *>(ehash_iterate_e(mon->procs, &it, nullptr, nullptr, ENTRY_OFFSET))) {
        if (rec->seen_round != mon->round) {
            // Gone: removing the entry invalidates the iterator.
            ehash_remove(mon->procs, &rec->entry);
            free(rec);
            it = {};
            continue;
        }
        if (rec->eval_round != mon->round)
            continue;
        evaluate(mon, rec);
        rec->eval_round++;
    }

    mon->round++;
    if (mon->report) {
        // Renamed first: the buffered tail reaches the file just after.
        rename(tmp, mon->report_path);
        fclose(mon->report);
        mon->report = nullptr;
    }
}

void monitor_destroy(monitor *mon)
{
    if (!mon)
        return;
    for (;;) {
        ehash_iter it = {};
        monitor_proc *rec =
            static_cast<monitor_proc *>(ehash_iterate_e(mon->procs, &it, nullptr, nullptr, ENTRY_OFFSET));
        if (!rec)
            break;
        ehash_remove(mon->procs, &rec->entry);
        free(rec);
    }
    ehash_free(mon->procs);
    free(mon);
}

void monitor_log(monitor *, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
}

void *monitor_thread_run(void *)
{
    // Idle class: the hourly round never competes with request work.
    sched_param param = {};
    param.sched_priority = 0;
    int err = pthread_setschedparam(pthread_self(), SCHED_IDLE, &param);
    if (err != 0) {
        errno = err;
        perror("setschedparam");
        return nullptr;
    }
    monitor *mon = monitor_create("/var/run/dbg-cgi/dbg-monitor.txt");
    for (;;) {
        monitor_run(mon);
        sleep(3600);
    }
}

int run_mon(int argc, char **argv)
{
    unsigned long interval = argc > 1 ? strtoul(argv[1], nullptr, 0) : 1000;

    struct sigaction sa = {};
    sa.sa_handler = on_sigint;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);

    monitor *mon = monitor_create("/tmp/dbg-report.txt");
    while (!mon_stop) {
        monitor_run(mon);
        usleep(static_cast<useconds_t>(interval));
    }
    fputs("\nCleanup and exit.\n", stderr);
    monitor_destroy(mon);
    return 0;
}
