// The least a tracer printing tstrace's lines can do, for the benchmark:
// starts PROGRAM under trace and, at every system-call stop, makes the
// system calls tstrace must make there, and nothing else (no text is made).
//   bench_trace_floor stops PROGRAM [ARG...]   wait, one register read, resume
//   bench_trace_floor calls PROGRAM [ARG...]   the same, plus for a write: the
//       descriptor's link read and its data read (at entry and at return, as
//       both lines show them), and one write of output per stop
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#if defined(__x86_64__)
#include <sys/user.h>
#endif

namespace {

#define PT(req) static_cast<__ptrace_request>(req)

struct call {
    unsigned long nr, fd, buf, len;
};

// The one register read of an entry stop; false where not supported.
bool entry_regs(pid_t pid, call *c)
{
#if defined(__x86_64__)
    user_regs_struct u;
    if (ptrace(PT(PTRACE_GETREGS), pid, nullptr, &u) == -1)
        return false;
    *c = {u.orig_rax, u.rdi, u.rsi, u.rdx};
    return true;
#elif defined(__mips__)
    unsigned long long r[38];
    if (ptrace(PT(PTRACE_GETREGS), pid, nullptr, r) == -1)
        return false;
    *c = {static_cast<unsigned long>(r[2]), static_cast<unsigned long>(r[4]),
          static_cast<unsigned long>(r[5]), static_cast<unsigned long>(r[6])};
    return true;
#else
    (void)pid;
    (void)c;
    return false;
#endif
}

unsigned long result_offset()
{
#if defined(__x86_64__)
    return offsetof(user_regs_struct, rax);
#else
    return 2;
#endif
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3 || (strcmp(argv[1], "stops") != 0 && strcmp(argv[1], "calls") != 0)) {
        fprintf(stderr, "usage: bench_trace_floor stops|calls PROGRAM [ARG...]\n");
        return 2;
    }
    const bool calls = strcmp(argv[1], "calls") == 0;
    pid_t pid = fork();
    if (pid == 0) {
        ptrace(PT(PTRACE_TRACEME), 0, nullptr, nullptr);
        execv(argv[2], argv + 2);
        _exit(127);
    }
    int status;
    waitpid(pid, &status, 0);
    ptrace(PT(PTRACE_SETOPTIONS), pid, nullptr, reinterpret_cast<void *>(PTRACE_O_TRACESYSGOOD));
    ptrace(PT(PTRACE_SYSCALL), pid, nullptr, nullptr);
    int out = open("/dev/null", O_WRONLY);
    char dir[32], link[128], data[64], line[100];
    snprintf(dir, sizeof dir, "/proc/%d/fd", pid);
    int dirfd = open(dir, O_RDONLY | O_DIRECTORY);
    memset(line, 'x', sizeof line);
    call c = {};
    bool inside = false;
    for (;;) {
        if (waitpid(-1, &status, 0) == -1 || WIFEXITED(status) || WIFSIGNALED(status))
            break;
        if (!inside) {
            if (!entry_regs(pid, &c))
                return 2;
        } else {
            ptrace(PT(PTRACE_PEEKUSER), pid, reinterpret_cast<void *>(result_offset()), nullptr);
        }
        if (calls) {
            if (c.nr == SYS_write) {
                char name[24];
                snprintf(name, sizeof name, "%lu", c.fd);
                readlinkat(dirfd, name, link, sizeof link);
                iovec local = {data, c.len < sizeof data ? c.len : sizeof data};
                iovec remote = {reinterpret_cast<void *>(c.buf), local.iov_len};
                process_vm_readv(pid, &local, 1, &remote, 1, 0);
            }
            if (write(out, line, sizeof line) < 0)
                return 2;
        }
        inside = !inside;
        ptrace(PT(PTRACE_SYSCALL), pid, nullptr, nullptr);
    }
    return 0;
}
