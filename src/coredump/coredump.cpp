// Live core dumps: the external dumper runs with its output and report on
// two pipes; the core goes into the archive or straight to the client.
#include "coredump.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common.h"
#include "proc.h"
#include "tar.h"

namespace {

enum { CTL_MAX = 256, LEN_OFFSET = 8, THREADS_OFFSET = 21 };

int null_fd = -1;
char **dumper_argv;
int dumper_argc;
char pid_text[100];       // dump_one: the pid argument, then the member name
char pid_text_core[100];  // coredump: the pid argument
char ctl_line[CTL_MAX + 1];

// The two ends of one pipe.
struct pipe_ends {
    unique_fd rd;
    unique_fd wr;
};

// Both pipes with both ends close-on-exec: the dumper gets them through dup2
// only, and no other child started meanwhile keeps a write end (and so the
// pipe) open.
int open_pipes(pipe_ends &data, pipe_ends &ctl)
{
    int fds[2][2];
    if (pipe2(fds[0], O_CLOEXEC) == -1) {
        perror("pipes");
        return -1;
    }
    data.rd.reset(fds[0][0]);
    data.wr.reset(fds[0][1]);
    if (pipe2(fds[1], O_CLOEXEC) == -1) {
        perror("pipes");
        return -1;
    }
    ctl.rd.reset(fds[1][0]);
    ctl.wr.reset(fds[1][1]);
    return 0;
}

int start_dumper(char *pid_slot, int32_t pid, int out, int err)
{
    snprintf(pid_slot, 100, "%d", pid);
    if (!dumper_argv || dumper_argc < 1)
        return -1;
    dumper_argv[dumper_argc - 1] = pid_slot;
    return sys_run_nowait(dumper_argv[0], dumper_argv, STDIN_FILENO, out, err, 0);
}

// Member directory of pid into dir: base name of argv[0] + ".PID/", or
// "unknown.PID/" when the command line cannot be read.
void member_dir(int32_t pid, char *dir, size_t size)
{
    char path[30];
    char cmd[81];
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    ssize_t n = -1;
    if (unique_fd fd(open(path, O_RDONLY | O_CLOEXEC)); fd.valid()) {
        do
            n = read(fd.get(), cmd, 80);
        while (n == -1 && errno == EINTR);
    }
    if (n < 0) {
        snprintf(dir, size, "unknown.%d/", pid);
        return;
    }
    cmd[n] = '\0';
    const char *slash = strrchr(cmd, '/');
    snprintf(dir, size, "%s.%d/", slash ? slash + 1 : cmd, pid);
}

// The dumper ran to its end and exited 0.
bool exited_cleanly(int status)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Reads the report line into ctl_line.  Its length, or -1 (nothing usable).
int read_report(int ctl)
{
    memset(ctl_line, 0, sizeof ctl_line);
    int total = 0;
    while (total < CTL_MAX) {
        ssize_t n = read(ctl, ctl_line + total, CTL_MAX - total);
        if (n == -1 && errno == EINTR)
            continue;
        // End of input before the newline: the line never comes.
        if (n <= 0)
            return -1;
        bool nl = memchr(ctl_line + total, '\n', n) != nullptr;
        total += n;
        if (nl)
            return total;
    }
    fputs("failed to read ctl line.\n", stderr);
    return -1;
}

}  // namespace

int dump_init()
{
    null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    return null_fd;
}

void dump_set_dumper(char **argv)
{
    dumper_argv = argv;
    int n = 0;
    while (argv && argv[n])
        n++;
    dumper_argc = n + 1;
}

int dump_parse_report(char *buf, int len, int32_t *pids, int index, int npids)
{
    if (len < 0)
        len = 0;
    buf[len] = '\0';
    char *end = buf + len;
    char *num_end = buf + (len < LEN_OFFSET ? len : LEN_OFFSET);
    int clen = static_cast<int>(strtol(num_end, &num_end, 10));
    char *p = num_end + THREADS_OFFSET;
    int spaces = 0;
    for (char *q = p; q < end; q++) {
        if (*q == ' ') {
            *q = '\0';
            spaces++;
        }
    }
    for (int k = 0; k <= spaces && p < end; k++) {
        while (p < end && !isdigit(static_cast<unsigned char>(*p)))
            p++;
        if (p >= end)
            break;
        int32_t tid = static_cast<int32_t>(strtol(p, &p, 10));
        proc_plist_remove_pid(pids, index, npids, tid);
    }
    return clen;
}

int dump_one(tar *t, int fd, int32_t *pids, int index, int npids)
{
    int32_t pid = pids[index];
    pipe_ends data, ctl;
    if (open_pipes(data, ctl) == -1)
        return 0;

    int child = start_dumper(pid_text, pid, data.wr.get(), ctl.wr.get());
    data.wr.reset();
    ctl.wr.reset();

    char dir[90];
    member_dir(pid, dir, sizeof dir);

    int result = 0;
    bool core_written = false;
    bool data_drained = false;
    int len = read_report(ctl.rd.get());
    int clen = len < 0 ? 0 : dump_parse_report(ctl_line, len, pids, index, npids);
    if (clen != 0) {
        snprintf(pid_text, sizeof pid_text, "%score", dir);
        tar_addfile(t, pid_text, static_cast<uint32_t>(clen));
        // A reader that takes nothing for the stall limit counts as gone.
        int copied = safe_copyfd_within(data.rd.get(), fd, stall_limit_ms);
        if (copied != clen) {
            if (copied == -1) {
                fputs("ABORT!\n", stderr);
                result = EPIPE;
            } else {
                fprintf(stderr, "WARNING: err=%d clen=%d pid=%d\n", copied, clen, pid);
            }
            safe_copyfd(data.rd.get(), null_fd);
            safe_copyfd(ctl.rd.get(), STDERR_FILENO);
            data_drained = true;
        }
        tar_fakewrite(t, static_cast<uint32_t>(clen));
        core_written = true;
    }

    if (!data_drained)
        safe_copyfd(data.rd.get(), null_fd);
    safe_copyfd(ctl.rd.get(), null_fd);
    int status = 0;
    int reaped = child > 0 ? waitpid(child, &status, 0) : -1;
    if (reaped == child && child > 0 && exited_cleanly(status)) {
        if (core_written) {
            snprintf(pid_text, sizeof pid_text, "%sfdmap", dir);
            proc_append_fdmap(t, pid_text, pid, fd);
        }
    } else {
        fprintf(stderr, "dump error for pid %d", pid);
    }
    return result;
}

int coredump(int fd, int32_t pid)
{
    pipe_ends out, err;
    if (open_pipes(out, err) == -1)
        return 0;
    int child = start_dumper(pid_text_core, pid, out.wr.get(), err.wr.get());
    out.wr.reset();
    err.wr.reset();
    // A client that takes nothing for the stall limit is given up: the rest
    // of the core is drained so the dumper ends and lets the process go.
    safe_copyfd_within(out.rd.get(), fd, stall_limit_ms);
    safe_copyfd(out.rd.get(), null_fd);
    safe_copyfd(err.rd.get(), null_fd);
    int status = 0;
    if (child <= 0 || waitpid(child, &status, 0) != child || !exited_cleanly(status))
        fprintf(stderr, "dump error for pid %d\n", pid);
    return 0;
}
