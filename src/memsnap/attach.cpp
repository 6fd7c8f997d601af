// Stopping and releasing the threads of a process, and reading their
// registers.  PTRACE_SEIZE does not stop a thread and PTRACE_INTERRUPT stops
// it without a signal, so the process sees nothing of the dump: no SIGSTOP,
// no EINTR from its blocking calls.
#include "memsnap.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
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

// Waits for the stop of a seized and interrupted thread.
void wait_stop(snap_thread *t)
{
    for (;;) {
        int status;
        pid_t r = waitpid(t->tid, &status, __WALL);
        if (r == -1) {
            if (errno == EINTR)
                continue;
            t->state = SNAP_GONE;
            return;
        }
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            t->state = SNAP_GONE;
            return;
        }
        if (WIFSTOPPED(status)) {
            // A signal-delivery stop came before the interrupt: the signal is
            // handed back at detach so the process still gets it.
            if (status >> 16 == 0)
                t->resume_sig = WSTOPSIG(status);
            t->state = SNAP_STOPPED;
            return;
        }
    }
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
        for (int i = first_new; i < ts->t.n; i++)
            if (ts->t[i].state == SNAP_SEIZED)
                wait_stop(&ts->t[i]);
        if (err)
            return snap_fail("cannot attach to process %d: %s", pid, strerror(err));
        if (ts->t.n == first_new)
            break;
    }
    if (snap_live_tid(ts, pid) < 0)
        return snap_fail("process %d: %s", pid, strerror(ESRCH));
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
    for (int i = 0; i < t.n; i++) {
        snap_thread &th = t[i];
        if (th.state == SNAP_STOPPED)
            ptrace(PTRACE_DETACH, th.tid, 0L, reinterpret_cast<void *>(static_cast<uintptr_t>(th.resume_sig)));
        else if (th.state == SNAP_SEIZED)
            // Seized but its stop never came: detaching a running tracee
            // fails, so interrupt, wait and let go.
            if (ptrace(PTRACE_INTERRUPT, th.tid, 0L, 0L) == 0) {
                wait_stop(&th);
                if (th.state == SNAP_STOPPED)
                    ptrace(PTRACE_DETACH, th.tid, 0L,
                           reinterpret_cast<void *>(static_cast<uintptr_t>(th.resume_sig)));
            }
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
