// Stopping and releasing the threads of a process, and reading their
// registers.  PTRACE_SEIZE does not stop a thread and PTRACE_INTERRUPT stops
// it without a signal, so the process sees no SIGSTOP; most blocking calls
// resume unseen, though a few the kernel does not restart (epoll_wait)
// return EINTR, as after any debugger's attach.  Stopping has a deadline: a
// thread that cannot stop is left out rather than waited for.
#include "memsnap.h"

#include "common.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <elf.h>

namespace {

snap_thread *find(snap_threads *ts, int tid)
{
    for (int i = 0; i < ts->t.n; i++)
        if (ts->t[i].tid == tid)
            return &ts->t[i];
    return nullptr;
}

// Whether /proc/TGID/task/TID says the thread is a zombie (an exited leader
// whose threads live on): it cannot be seized and has nothing to show.
bool is_zombie(int tgid, int tid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task/%d/stat", tgid, tid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return true;
    char buf[512];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0)
        return true;
    buf[n] = 0;
    const char *p = strrchr(buf, ')');
    return p && p[1] == ' ' && (p[2] == 'Z' || p[2] == 'X');
}

// The thread group of pid ("Tgid:" of its status), or -1.
int thread_group(int pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", pid);
    FILE *f = fopen(path, "re");
    if (!f)
        return -1;
    char line[256];
    int tgid = -1;
    while (fgets(line, sizeof line, f))
        if (sscanf(line, "Tgid: %d", &tgid) == 1)
            break;
    fclose(f);
    return tgid;
}

// Records one wait result against its thread.
void note_status(snap_threads *ts, pid_t tid, int status)
{
    snap_thread *t = find(ts, tid);
    if (!t)
        return;
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
        t->state = SNAP_GONE;
        return;
    }
    if (WIFSTOPPED(status) && t->state == SNAP_SEIZED) {
        // A signal-delivery stop came before the interrupt: the signal is
        // handed back at detach so the process still gets it.
        if (status >> 16 == 0)
            t->resume_sig = WSTOPSIG(status);
        t->state = SNAP_STOPPED;
    }
}

// Takes every wait result there is now, of any traced thread.  Waiting for
// one thread by its id could wait for ever: an exited leader is not reported
// while its exited siblings are unreaped.
void take_statuses(snap_threads *ts)
{
    for (;;) {
        int status;
        pid_t r = waitpid(-1, &status, __WALL | WNOHANG);
        if (r == -1 && errno == EINTR)
            continue;
        if (r <= 0) {
            if (r == -1)
                // No tracee is left: every thread we still wait for is gone.
                for (int i = 0; i < ts->t.n; i++)
                    if (ts->t[i].state == SNAP_SEIZED)
                        ts->t[i].state = SNAP_GONE;
            return;
        }
        note_status(ts, r, status);
    }
}

bool any_seized(const snap_threads *ts)
{
    for (int i = 0; i < ts->t.n; i++)
        if (ts->t[i].state == SNAP_SEIZED)
            return true;
    return false;
}

// Waits until every seized thread has stopped or gone, or until the deadline
// (monotonic milliseconds).  Stops and exits of tracees raise SIGCHLD, which
// is blocked here and taken with a time limit.
void wait_stops(snap_threads *ts, long long deadline)
{
    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &chld, &old);
    for (;;) {
        // A SIGCHLD pending from before is taken first, so none is missed
        // between the look below and the wait.
        timespec zero = {0, 0};
        while (sigtimedwait(&chld, nullptr, &zero) == SIGCHLD) {
        }
        take_statuses(ts);
        long long left = deadline - monotonic_ms();
        if (!any_seized(ts) || left <= 0)
            break;
        timespec ts_left = {static_cast<time_t>(left / 1000), static_cast<long>(left % 1000) * 1000000};
        sigtimedwait(&chld, nullptr, &ts_left);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// "state R wchan do_wait" of a thread, for the note on a thread left out.
void describe_thread(int tgid, int tid, char *out, size_t size)
{
    char path[80], stat[512] = "", wchan[128] = "";
    snprintf(path, sizeof path, "/proc/%d/task/%d/stat", tgid, tid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = read(fd, stat, sizeof stat - 1);
        stat[n > 0 ? n : 0] = 0;
        close(fd);
    }
    snprintf(path, sizeof path, "/proc/%d/task/%d/wchan", tgid, tid);
    fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = read(fd, wchan, sizeof wchan - 1);
        wchan[n > 0 ? n : 0] = 0;
        close(fd);
    }
    const char *p = strrchr(stat, ')');
    char state = p && p[1] == ' ' ? p[2] : '?';
    snprintf(out, size, "state %c wchan %s", state, *wchan ? wchan : "?");
}

} // namespace

int snap_stop_all(snap_threads *ts, int pid)
{
    int tgid = thread_group(pid);
    if (tgid <= 0)
        return snap_fail("process %d: %s", pid, strerror(ESRCH));
    ts->tgid = tgid;

    char taskdir[64];
    snprintf(taskdir, sizeof taskdir, "/proc/%d/task", tgid);
    long long deadline = monotonic_ms() + SNAP_STOP_DEADLINE_MS;
    // A thread can start another only while it runs; once a whole scan finds
    // nothing new, every thread is held.
    for (;;) {
        DIR *d = opendir(taskdir);
        if (!d)
            return snap_fail("process %d: %s", pid, strerror(errno));
        int first_new = ts->t.n;
        int err = 0;
        while (dirent *e = readdir(d)) {
            char *end;
            long tid = strtol(e->d_name, &end, 10);
            if (*end || tid <= 0 || find(ts, static_cast<int>(tid)))
                continue;
            if (ptrace(PTRACE_SEIZE, tid, 0L, 0L) == -1) {
                int e2 = errno;
                if (e2 == ESRCH || is_zombie(tgid, static_cast<int>(tid)))
                    continue;
                err = e2;
                break;
            }
            snap_thread *t = ts->t.push();
            t->tid = static_cast<int>(tid);
            t->state = SNAP_SEIZED;
            if (ptrace(PTRACE_INTERRUPT, tid, 0L, 0L) == -1)
                t->state = SNAP_GONE;
        }
        closedir(d);
        wait_stops(ts, deadline);
        if (err)
            return snap_fail("cannot attach to process %d: %s", pid, strerror(err));
        if (ts->t.n == first_new)
            break;
    }
    // Threads that did not stop in time (uninterruptible sleep, a frozen
    // cgroup, a vfork parent) are left out; the rest is dumped.
    for (int i = 0; i < ts->t.n; i++)
        if (ts->t[i].state == SNAP_SEIZED) {
            char what[160];
            describe_thread(tgid, ts->t[i].tid, what, sizeof what);
            int n = snprintf(ts->late_note + ts->late_len, sizeof ts->late_note - ts->late_len,
                             "memsnap: thread %d did not stop within %d ms, left out: %s\n",
                             ts->t[i].tid, SNAP_STOP_DEADLINE_MS, what);
            if (n > 0 && ts->late_len + n < static_cast<int>(sizeof ts->late_note))
                ts->late_len += n;
        }
    if (snap_live_tid(ts, pid) < 0) {
        if (any_seized(ts))
            return snap_fail("process %d: no thread stopped within %d ms", pid, SNAP_STOP_DEADLINE_MS);
        return snap_fail("process %d: %s", pid, strerror(ESRCH));
    }
    return 0;
}

int snap_live_tid(const snap_threads *ts, int pid)
{
    int any = -1;
    for (int i = 0; i < ts->t.n; i++) {
        if (ts->t[i].state != SNAP_STOPPED)
            continue;
        if (ts->t[i].tid == pid)
            return pid;
        if (any < 0)
            any = ts->t[i].tid;
    }
    return any;
}

int snap_read_regs(snap_threads *ts)
{
    for (int i = 0; i < ts->t.n; i++) {
        snap_thread *t = &ts->t[i];
        if (t->state != SNAP_STOPPED)
            continue;
        iovec iov = {&t->regs, sizeof t->regs};
        if (ptrace(PTRACE_GETREGSET, t->tid, reinterpret_cast<void *>(NT_PRSTATUS), &iov) == -1) {
            if (errno == ESRCH) {
                t->state = SNAP_GONE;
                continue;
            }
            return snap_fail("thread %d: registers: %s", t->tid, strerror(errno));
        }
        // A process of another ABI (a 32-bit one under a 64-bit kernel) has
        // another register layout: its core would be wrong.
        if (iov.iov_len != sizeof t->regs)
            return snap_fail("thread %d: register set of %zu bytes, this dumper knows %zu",
                             t->tid, iov.iov_len, sizeof t->regs);
        t->has_regs = 1;
        for (int r = 0; r < snap_arch_nregsets && r < SNAP_MAX_REGSETS; r++) {
            const snap_regset &rs = snap_arch_regsets[r];
            unsigned char *data = static_cast<unsigned char *>(malloc(rs.max));
            if (!data)
                abort();
            iovec v = {data, rs.max};
            // A set the CPU or kernel lacks is left out.
            if (ptrace(PTRACE_GETREGSET, t->tid, reinterpret_cast<void *>(static_cast<uintptr_t>(rs.type)),
                       &v) == -1 ||
                v.iov_len == 0) {
                free(data);
                continue;
            }
            // Only what the kernel filled is kept: processes with many
            // threads keep many of these.
            if (v.iov_len < rs.max) {
                void *fit = realloc(data, v.iov_len);
                if (fit)
                    data = static_cast<unsigned char *>(fit);
            }
            snap_regdata &x = t->extra[t->nextra++];
            x.type = rs.type;
            x.name = rs.name;
            x.size = static_cast<unsigned>(v.iov_len);
            x.data = data;
        }
    }
    return 0;
}

void snap_threads::detach()
{
    // A thread whose stop came late is taken now and let go like the rest;
    // one still not stopped is let go by the kernel when this program ends
    // (the pending interrupt goes with the trace link), never waited for.
    if (any_seized(this))
        take_statuses(this);
    for (int i = 0; i < t.n; i++) {
        snap_thread &th = t[i];
        if (th.state == SNAP_STOPPED)
            ptrace(PTRACE_DETACH, th.tid, 0L, reinterpret_cast<void *>(static_cast<uintptr_t>(th.resume_sig)));
        if (th.state != SNAP_SEIZED)
            th.state = SNAP_GONE;
    }
}

snap_threads::~snap_threads()
{
    detach();
    for (int i = 0; i < t.n; i++)
        for (int r = 0; r < t[i].nextra; r++)
            free(t[i].extra[r].data);
}
