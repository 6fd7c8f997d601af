// The tracing loop: follows processes from system call to system call and
// turns every event into text for the caller's output callback.
#include "trace.h"

#include "common.h"
#include "proc.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

pthread_mutex_t strace_lock = PTHREAD_MUTEX_INITIALIZER;

int strace_vprintf(strace_ctx *ctx, const char *fmt, va_list ap)
{
    int len = vsnprintf(ctx->buf, static_cast<size_t>(ctx->bufsize), fmt, ap);
    if (len < 1)
        return len;
    // Text that did not fit is dropped as a whole.
    if (len >= ctx->bufsize)
        return len;
    if (ctx->out)
        ctx->out(ctx->arg, ctx->buf, len);
    return len;
}

int strace_printf(strace_ctx *ctx, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int len = strace_vprintf(ctx, fmt, ap);
    va_end(ap);
    return len;
}

int strace_find_pid(int pid, const int32_t *pids, int n)
{
    if (pid == -1 || n < 1)
        return -1;
    for (int i = 0; i < n; i++)
        if (pids[i] == pid)
            return i;
    return -1;
}

namespace {

const char *rec_name(strace_ctx *ctx, int pid)
{
    int i = strace_find_pid(pid, ctx->pids, ctx->npids);
    if (i < 0 || !ctx->pidrecs || !*ctx->pidrecs)
        return "";
    return (*ctx->pidrecs)[i].name;
}

}  // namespace

int strace_list_fds(strace_ctx *ctx, int pid)
{
    int fds[1024];
    int n = proc_fdlist(pid, fds, 1024);
    if (n <= 0)
        return 0;
    int total = strace_printf(ctx, "\n[%d %s] %d open fds:\n", pid, rec_name(ctx, pid), n);
    for (int k = 0; k < n; k++) {
        total += strace_printf(ctx, "%d\t", fds[k]);
        int len = proc_fdinfo_lookup(pid, fds[k], ctx->buf, ctx->bufsize);
        // A description cut by the buffer reports its full length: send only
        // what the buffer holds.
        if (len >= ctx->bufsize)
            len = static_cast<int>(strnlen(ctx->buf, static_cast<size_t>(ctx->bufsize)));
        if (len > 0) {
            if (ctx->out)
                ctx->out(ctx->arg, ctx->buf, len);
            total += len;
        }
        total += strace_printf(ctx, "\n");
    }
    return total;
}

void strace_exit(strace_ctx *ctx, int pid, int kind, int code, const unsigned long *regs)
{
    if (kind == 1) {
        unsigned long msg = 0;
        ptrace(static_cast<__ptrace_request>(PTRACE_GETEVENTMSG), pid, nullptr, &msg);
        code = static_cast<int>(msg);
    }
    if (ctx->flags & STRACE_F_FDS)
        strace_list_fds(ctx, pid);
    if (ctx->on_exit)
        ctx->on_exit(ctx, ctx->arg, pid, kind, code, regs);
}

namespace {

const char *const signal_names[] = {
#include "signal_names.inc"
};

}  // namespace

const char *signal_map_sig2name(int sig)
{
    if (sig < 1 || sig >= 32)
        return "Invalid";
    return signal_names[sig - 1];
}

namespace {

// Short name of a traced process from its command line (the part after the
// last '/').
void read_name(strace_pid_rec *rec, int pid)
{
    char path[30];
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    ssize_t n = read(fd, rec->name, 31);
    close(fd);
    if (n < 0)
        return;
    // The long-standing second close after a successful read stays (it fails
    // with EBADF), but on a number no thread can own: in the daemon another
    // thread may already have been given fd again.
    close(-1);
    rec->name[n] = '\0';
    char *slash = strrchr(rec->name, '/');
    if (slash)
        memmove(rec->name, slash + 1, strlen(slash + 1) + 1);
}

// The descriptor directories of the traced pids, each opened at its first
// use: a description is then read relative to it, without the path walk
// through /proc.  Valid while the pid is traced: its number cannot pass to
// another process before its end has been seen here, and it is closed then.
// At most max_open at a time, so that a trace of many processes in the
// daemon does not take descriptors its other threads need; the rest take
// the path.
struct fd_dirs {
    strace_ctx *ctx;
    int *dirfd;  // per pids entry: -1 not yet opened, -2 not to be opened
    int open;
    static constexpr int max_open = 16;
};

int dir_fdinfo(void *arg, int pid, int fd, char *buf, int size)
{
    fd_dirs *d = static_cast<fd_dirs *>(arg);
    int i = strace_find_pid(pid, d->ctx->pids, d->ctx->npids);
    if (i >= 0 && d->dirfd[i] == -1 && d->open < fd_dirs::max_open) {
        char path[32];
        snprintf(path, sizeof path, "/proc/%d/fd", pid);
        int dir = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        d->dirfd[i] = dir >= 0 ? dir : -2;
        if (dir >= 0)
            d->open++;
    }
    if (i >= 0 && d->dirfd[i] >= 0)
        return proc_fdinfo_lookup_at(d->dirfd[i], pid, fd, buf, static_cast<size_t>(size));
    return proc_fdinfo_lookup(pid, fd, buf, static_cast<size_t>(size));
}

void forget_dir(fd_dirs *d, int i)
{
    if (!d->dirfd)
        return;
    if (d->dirfd[i] >= 0) {
        close(d->dirfd[i]);
        d->open--;
    }
    d->dirfd[i] = -1;
}

int poll_out(strace_ctx *ctx)
{
    return ctx->out ? ctx->out(ctx->arg, ctx->buf, 0) : 1;
}

void drop(strace_ctx *ctx, fd_dirs *dirs, int i, int pid)
{
    printf("WARNING: ptrace SYSCALL failed! %d\n", pid);
    trace_detach(pid);
    ctx->pids[i] = -1;
    forget_dir(dirs, i);
}

// Bits 9 and 10 of a stop's wait status, inside its stop signal: the test
// that has always picked out the exit event.  SIGTRAP (5) sets bit 10 itself,
// so every plain SIGTRAP stop passes it and is reported as an exit (and
// resumed with the signal); the test stays as it is because the trace's text
// depends on it.
constexpr int EXIT_EVENT_BITS = 0x600;

// One trace: the caller's parameters, the per-pid records, the descriptor
// directories and the reader the decoders use.
struct trace_state {
    strace_ctx *ctx;
    strace_pid_rec *recs;
    fd_dirs *dirs;
    const trace_reader *rd;
    int active;  // pids still traced
};

// Attaches every listed pid (or, for children, only sets them up) and
// starts it towards its next system call.  The number now traced.
int attach_all(trace_state *t)
{
    strace_ctx *ctx = t->ctx;
    int active = 0;
    for (int i = 0; i < ctx->npids; i++) {
        int pid = ctx->pids[i];
        if (pid == -1)
            continue;
        if (!ctx->children && trace_attach(pid) == -1) {
            ctx->pids[i] = -1;
            continue;
        }
        if (t->dirs->dirfd)
            t->dirs->dirfd[i] = -1;
        trace_setoptions(pid, (ctx->flags & STRACE_F_EXIT)
                                  ? PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT
                                  : PTRACE_O_TRACESYSGOOD);
        if (trace_syscall(pid, 0) == -1)
            drop(ctx, t->dirs, i, pid);
        else
            active++;
        read_name(&t->recs[i], ctx->pids[i]);
    }
    return active;
}

// A system-call stop of pid w: its entry or return decoded into the text
// buffer and sent out.
void report_syscall(trace_state *t, strace_pid_rec *rec, int w)
{
    strace_ctx *ctx = t->ctx;
    int n;
    if (rec->state & 1) {
        n = arch_dec_syscall_ret(ctx, w, rec->name, ctx->buf, ctx->bufsize, &rec->regs,
                                 &rec->ret, t->rd);
        if (n != 0)
            rec->state &= static_cast<uint8_t>(~1u);
    } else {
        n = arch_dec_syscall(ctx, w, rec->name, ctx->buf, ctx->bufsize, &rec->regs, t->rd);
        if (n != -1)
            rec->state |= 1;
        else
            n = arch_dec_syscall_ret(ctx, w, rec->name, ctx->buf, ctx->bufsize, &rec->regs,
                                     &rec->ret, t->rd) -
                1;
    }
    if (n < 0)
        n = 0;
    // Only what is in the buffer goes out.
    if (n > ctx->bufsize - 1)
        n = ctx->bufsize - 1;
    if (ctx->out)
        ctx->out(ctx->arg, ctx->buf, n);
}

// A stop of traced pid w (entry i): reported, then the pid resumed.
void handle_stop(trace_state *t, int i, int w, int status)
{
    strace_ctx *ctx = t->ctx;
    strace_pid_rec *rec = &t->recs[i];
    int sig = WSTOPSIG(status);
    int r;
    if (sig == (SIGTRAP | 0x80)) {
        if (ctx->flags & STRACE_F_CALLS)
            report_syscall(t, rec, w);
        r = trace_syscall(w, 0);
    } else if (sig == SIGTRAP && (status & EXIT_EVENT_BITS)) {
        strace_exit(ctx, w, 1, 0, nullptr);
        r = trace_syscall(w, SIGTRAP);
    } else {
        if (ctx->flags & STRACE_F_SIGNALS)
            strace_printf(ctx, "\n[%d %s] ---  SIGNAL %d %s ---\n\n", w, rec->name, sig,
                          signal_map_sig2name(sig));
        r = trace_syscall(w, sig);
    }
    if (r == -1)
        drop(ctx, t->dirs, i, w);
}

// Waits for the traced processes until the output callback, the last exit,
// the end of all children or the timer ends the trace.  The last waitpid
// result.
int follow(trace_state *t, int timer)
{
    strace_ctx *ctx = t->ctx;
    int last = 0;
    for (int running = 1; running;) {
        int status = 0;
        int w = waitpid(-1, &status, 0);
        last = w;
        running = poll_out(ctx);
        if (!running)
            break;
        if (w == -1) {
            if (errno == ECHILD)
                break;
            if (errno == EINTR)
                running = poll_out(ctx);
            continue;
        }
        // The timer has ended, and been reaped by this wait.
        if (timer != -1 && w == timer)
            break;
        int i = strace_find_pid(w, ctx->pids, ctx->npids);
        if (i >= ctx->npids)
            printf("pid=%d i=%d, nr_pids=%d\n", w, i, ctx->npids);
        if (i < 0)
            continue;

        if (WIFEXITED(status)) {
            ctx->pids[i] = -1;
            forget_dir(t->dirs, i);
            if (--t->active == 0)
                break;
            continue;
        }
        if (WIFSIGNALED(status)) {
            // Killed: the loop ends with ECHILD (or the timer), not here.
            ctx->pids[i] = -1;
            forget_dir(t->dirs, i);
            t->active--;
            continue;
        }
        if (WIFSTOPPED(status))
            handle_stop(t, i, w, status);
    }
    return last;
}

// Lets every process still traced run on, after listing its descriptors
// when asked.
void detach_all(strace_ctx *ctx)
{
    for (int i = 0; i < ctx->npids; i++) {
        int pid = ctx->pids[i];
        if (pid == -1)
            continue;
        if (ctx->flags & STRACE_F_FDS)
            strace_list_fds(ctx, pid);
        trace_detach(pid);
    }
}

// The trace itself, with strace_lock held: attach, follow, detach.
void trace_locked(trace_state *t)
{
    strace_ctx *ctx = t->ctx;
    if (!ctx->buf || ctx->bufsize == 0) {
        ctx->bufsize = 4096;
        ctx->buf = static_cast<char *>(malloc(4096));
        if (!ctx->buf)
            return;
    }
    if (ctx->npids < 1)
        return;
    t->active = attach_all(t);
    if (t->active == 0)
        return;

    int timer = -1;
    if (ctx->duration > 0) {
        char duration_text[20];
        char *timer_argv[] = {const_cast<char *>("/bin/sleep"), duration_text, nullptr};
        snprintf(duration_text, sizeof duration_text, "%d", ctx->duration);
        timer = sys_run_nowait("/bin/sleep", timer_argv, 0, 1, 2, 0);
    }
    int last = follow(t, timer);
    if (timer != -1 && last != timer) {
        int status;
        kill(timer, SIGINT);
        waitpid(timer, &status, 0);
    }
    detach_all(ctx);
}

}  // namespace

void do_strace(strace_ctx *ctx)
{
    strace_pid_rec *recs = nullptr;
    ctx->pidrecs = &recs;

    int nrecs = ctx->npids > 0 ? ctx->npids + 1 : 1;
    unique_heap<strace_pid_rec[]> rec_table(
        static_cast<strace_pid_rec *>(calloc(static_cast<size_t>(nrecs), sizeof *recs)));
    recs = rec_table.get();
    if (!recs)
        return;
    // Without room for the directory cache descriptions take the path.
    unique_heap<int[]> dirfd(static_cast<int *>(malloc(static_cast<size_t>(nrecs) * sizeof(int))));
    fd_dirs dirs = {ctx, dirfd.get(), 0};
    if (dirs.dirfd)
        for (int i = 0; i < nrecs; i++)
            dirs.dirfd[i] = -2;
    trace_reader rd = trace_ptrace_reader;
    if (dirs.dirfd) {
        rd.arg = &dirs;
        rd.fdinfo = dir_fdinfo;
    }

    trace_state t = {ctx, recs, &dirs, &rd, 0};
    pthread_mutex_lock(&strace_lock);
    trace_locked(&t);
    pthread_mutex_unlock(&strace_lock);

    for (int i = 0; dirs.dirfd && i < nrecs; i++)
        forget_dir(&dirs, i);
    // The text buffer, the caller's too, ends with the trace.
    free(ctx->buf);
    ctx->buf = nullptr;
    ctx->pidrecs = nullptr;
}
