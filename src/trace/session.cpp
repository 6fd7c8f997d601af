// ptrace session helpers: attach, resume, release.
#include "trace.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

// glibc's ptrace takes an enum on some targets and an int on others.
#define PT(req) static_cast<__ptrace_request>(req)

int trace_attach(int pid)
{
    if (ptrace(PT(PTRACE_ATTACH), pid, nullptr, nullptr) == -1)
        return -1;
    int status;
    int w = waitpid(pid, &status, WUNTRACED);
    if (w != -1)
        return w;
    // The stop may not be visible yet right after the attach.
    for (int i = 0; i < 4 && errno == ECHILD; i++) {
        usleep(10);
        w = waitpid(pid, &status, WUNTRACED);
        if (w != -1)
            return w;
    }
    trace_detach(pid);
    return -1;
}

void trace_detach_sig(int pid, int sig)
{
    long sigarg = sig;
    int status = 0;
    bool detached = ptrace(PT(PTRACE_DETACH), pid, nullptr, reinterpret_cast<void *>(sigarg)) == 0;
    if (!detached)
        kill(pid, SIGSTOP);
    // After a successful detach the wait only collects a state change that is
    // already there (a child of ours); blocking would wait for the end of a
    // process that is no longer ours to hold.
    int options = detached ? WNOHANG : 0;
    for (;;) {
        int w = waitpid(pid, &status, options);
        if (w == -1 && errno != EINVAL)
            return;
        if (w == 0)
            return;
        options = 0;
        // On EINVAL the status of the previous pass is looked at again.
        if (!WIFSTOPPED(status))
            return;
        int stopsig = WSTOPSIG(status);
        if (stopsig == SIGSTOP) {
            ptrace(PT(PTRACE_DETACH), pid, nullptr, reinterpret_cast<void *>(sigarg));
            return;
        }
        if (sig == SIGSTOP)
            continue;
        if (ptrace(PT(PTRACE_CONT), pid, nullptr, nullptr) < 0)
            return;
    }
}

void trace_detach(int pid)
{
    trace_detach_sig(pid, 0);
}

int trace_setoptions(int pid, int options)
{
    long opt = options;
    long r = ptrace(PT(PTRACE_SETOPTIONS), pid, nullptr, reinterpret_cast<void *>(opt));
    if (r == -1)
        // Names the wrong request; kept, people grep for this text.
        printf("PTRACE_CONT failed %s\n", strerror(errno));
    return static_cast<int>(r);
}

namespace {
int resume(int req, const char *msg, int pid, int sig)
{
    long sigarg = sig;
    long r = -1;
    for (int i = 0; i < 4; i++) {
        r = ptrace(PT(req), pid, nullptr, reinterpret_cast<void *>(sigarg));
        if (r != -1)
            break;
        printf(msg, strerror(errno));
    }
    return static_cast<int>(r);
}
}  // namespace

int trace_syscall(int pid, int sig)
{
    return resume(PTRACE_SYSCALL, "SYSCALL failed %s\n", pid, sig);
}

int trace_cont(int pid, int sig)
{
    return resume(PTRACE_CONT, "PTRACE_CONT failed %s\n", pid, sig);
}
