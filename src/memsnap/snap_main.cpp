// memsnap -c FILE PID: the core of process PID into FILE (/dev/stdout for
// standard output), the report line on standard error first.
#include "memsnap.h"

#include "common.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

namespace {

const char usage[] = "usage: memsnap -c FILE PID\n";

int fail_exit()
{
    // One line; the message never starts with a digit, so a reader that
    // expects the report line finds no length in it.
    dprintf(2, "memsnap: %s\n", snap_failure());
    return 1;
}

unsigned read_filter(int tgid)
{
    char path[64], buf[32];
    snprintf(path, sizeof path, "/proc/%d/coredump_filter", tgid);
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return SNAP_FILTER_DEFAULT;
    int n = safe_read(fd.get(), buf, sizeof buf - 1);
    fd.reset();
    if (n <= 0)
        return SNAP_FILTER_DEFAULT;
    buf[n] = 0;
    return static_cast<unsigned>(strtoul(buf, nullptr, 16));
}

// The PID of "memsnap -c FILE PID"; 0 when the command line is wrong.
long parse_pid(int argc, char **argv)
{
    if (argc != 4 || strcmp(argv[1], "-c") != 0)
        return 0;
    char *end;
    long pid = strtol(argv[3], &end, 10);
    if (*argv[3] == 0 || *end || pid <= 0 || pid > 0x7fffffff)
        return 0;
    return pid;
}

// Opens the memory of the held process into mem and reads its map and state
// into proc.  0, or -1 after snap_fail.
int read_process(snap_proc &proc, unique_fd &mem)
{
    // Through the task entry of a held thread: a leader that has exited has
    // no address space of its own any more.
    int live = snap_live_tid(proc.threads, proc.pid);
    char path[96];
    snprintf(path, sizeof path, "/proc/%d/task/%d/mem", proc.tgid, live);
    mem.reset(open(path, O_RDONLY | O_CLOEXEC));
    if (!mem.valid()) {
        snap_fail("process %ld: cannot open its memory: %s", static_cast<long>(proc.pid),
                  strerror(errno));
        return -1;
    }
    proc.mem_fd = mem.get();
    proc.mem_pid = live;
    snprintf(path, sizeof path, "/proc/%d/task/%d/smaps", proc.tgid, live);
    unique_fd smaps(open(path, O_RDONLY | O_CLOEXEC));
    if (!smaps.valid() || snap_parse_smaps(proc.maps, smaps.get()) < 0) {
        snap_fail("process %ld: cannot read its memory map: %s", static_cast<long>(proc.pid),
                  strerror(errno));
        return -1;
    }
    return snap_read_proc(&proc) < 0 ? -1 : 0;
}

// The report line, in one write: the length, then the other threads that
// this core covers.  0, or -1 after snap_fail.
int send_report(const snap_threads &threads, const snap_proc &proc, const snap_layout &lay)
{
    snap_vec<int> others;
    for (int i = 0; i < threads.t.n; i++)
        if (threads.t[i].has_regs && threads.t[i].tid != proc.pid)
            *others.push() = threads.t[i].tid;
    char line[SNAP_REPORT_MAX];
    int len = snap_report_line(line, lay.total, others.v, others.n);
    if (safe_write(2, line, static_cast<unsigned>(len)) < 0) {
        snap_fail("cannot write the report line: %s", strerror(errno));
        return -1;
    }
    // Threads left out, after the report line: a reader takes that first.
    if (threads.late_len)
        safe_write(2, threads.late_note, static_cast<unsigned>(threads.late_len));
    return 0;
}

} // namespace

int snap_main(int argc, char **argv)
{
    // A reader that goes away must show up as EPIPE and a message, not as a
    // silent death.
    signal(SIGPIPE, SIG_IGN);
    // Stops of the threads are waited for with SIGCHLD; an ignored SIGCHLD
    // inherited from the starter would send none.
    signal(SIGCHLD, SIG_DFL);

    long pid = parse_pid(argc, argv);
    if (pid == 0) {
        safe_write(2, usage, sizeof usage - 1);
        return 2;
    }
    const char *file = argv[2];
    if (pid == getpid()) {
        snap_fail("cannot dump itself");
        return fail_exit();
    }

    // Standard output is used as it is: a socket cannot be reopened by name.
    unique_fd out;
    int fd = 1;
    if (strcmp(file, "/dev/stdout") != 0 && strcmp(file, "-") != 0) {
        out.reset(open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!out.valid()) {
            snap_fail("cannot open %s: %s", file, strerror(errno));
            return fail_exit();
        }
        fd = out.get();
    }

    snap_threads threads;
    if (snap_stop_all(&threads, static_cast<int>(pid)) < 0 || snap_read_regs(&threads) < 0)
        return fail_exit();

    snap_maps maps;
    snap_proc proc;
    proc.pid = static_cast<int>(pid);
    proc.tgid = threads.tgid;
    proc.pagesize = static_cast<unsigned>(sysconf(_SC_PAGESIZE));
    proc.threads = &threads;
    proc.maps = &maps;
    unique_fd mem;
    if (read_process(proc, mem) < 0)
        return fail_exit();

    snap_size_mappings(&proc, read_filter(proc.tgid));
    snap_buf notes;
    snap_build_notes(&proc, &notes);
    snap_layout lay;
    if (snap_plan(&proc, notes.len, &lay) < 0 || send_report(threads, proc, lay) < 0)
        return fail_exit();

    if (snap_write_core(&proc, &notes, &lay, fd) < 0)
        return fail_exit();
    threads.detach();
    if (out.valid() && close(out.release()) < 0) {
        snap_fail("cannot write the core: %s", strerror(errno));
        return fail_exit();
    }
    return 0;
}
