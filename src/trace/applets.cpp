// tstrace prints what traced processes do; stopper holds them at their exit
// until Ctrl-C so that they can be inspected before they go away.
#include "trace.h"

#include "common.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t tstrace_stop = 0;
volatile sig_atomic_t stopper_stop = 0;

void tstrace_on_sigint(int)
{
    tstrace_stop = 1;
}

void stopper_on_sigint(int)
{
    stopper_stop = 1;
}

const char tstrace_usage[] =
    "USAGE: tstrace [ -ppid ] [ command [ arg ... ] ]\n\n"
    "-p<pid>\tAdd a pid to trace, can be given multiple times.";
const char stopper_usage[] =
    "USAGE: stopper [ -ppid ] [ command [ arg ... ] ]\n\n"
    "-p<pid>\tAdd a pid to stop at exit";

char found_path[4096];

// The program file for cmd: the path itself for '/' and '.', else the first
// regular file along PATH (or a fixed list without PATH).  Null when none.
const char *find_command(const char *cmd)
{
    static const char *const fallback[] = {"/bin", "/sbin", "/usr/bin", "/usr/sbin",
                                           "/usr/local/bin"};
    char cwd[4096];
    char *path_copy = nullptr;
    const char *dirs[2];
    int ndirs = 0;
    const char *const *list = dirs;

    if (cmd[0] == '/') {
        dirs[ndirs++] = "/";
    } else if (cmd[0] == '.') {
        if (!getcwd(cwd, sizeof cwd - 1))
            cwd[0] = '\0';
        strcat(cwd, "/");
        dirs[ndirs++] = cwd;
    } else {
        const char *path = getenv("PATH");
        if (path)
            path_copy = strdup(path);
        if (!path_copy) {
            list = fallback;
            ndirs = 5;
        }
    }

    size_t cmdlen = strlen(cmd);
    const char *result = nullptr;
    auto try_dir = [&](const char *dir) {
        if (strlen(dir) + cmdlen >= sizeof found_path)
            return false;
        int n = snprintf(found_path, sizeof found_path, "%s/%s", dir, cmd);
        if (n < 0 || n >= static_cast<int>(sizeof found_path))
            return false;
        struct stat st;
        return stat(found_path, &st) == 0 && S_ISREG(st.st_mode);
    };
    if (path_copy) {
        // Empty entries are tried too, as "/cmd".
        char *p = path_copy;
        for (;;) {
            char *colon = strchr(p, ':');
            if (colon)
                *colon = '\0';
            if (try_dir(p)) {
                result = found_path;
                break;
            }
            if (!colon)
                break;
            p = colon + 1;
        }
        free(path_copy);
    } else {
        for (int k = 0; k < ndirs; k++) {
            if (try_dir(list[k])) {
                result = found_path;
                break;
            }
        }
    }
    return result;
}

int run_tracer(int argc, char **argv, const char *usage, void (*on_sigint)(int),
               strace_out_fn out, strace_exit_fn on_exit, int flags)
{
    int pids[100];
    int npids = 0;
    int k = 1;
    bool dangling = false;
    while (k < argc && argv[k][0] == '-') {
        if (argv[k][1] != 'p') {
            puts(usage);
            return 0;
        }
        if (k + 1 >= argc) {
            dangling = true;
            break;
        }
        // Room for 100; more -p options than that are not checked for.
        pids[npids++] = static_cast<int>(strtoul(argv[k + 1], nullptr, 0));
        k += 2;
        if (npids == 100)
            break;
    }
    if (npids == 0 && (dangling || k >= argc)) {
        puts(usage);
        return 0;
    }

    // Console output in the order it happens, also into a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGALRM, SIG_IGN);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_sigint;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);

    strace_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    ctx.out = out;
    ctx.on_exit = on_exit;
    ctx.arg = reinterpret_cast<void *>(static_cast<intptr_t>(STDOUT_FILENO));
    ctx.flags = flags;
    ctx.duration = -1;

    if (npids > 0) {
        ctx.pids = pids;
        ctx.npids = npids;
        do_strace(&ctx);
        return 0;
    }

    const char *path = find_command(argv[k]);
    if (!path)
        return 1;
    int child = sys_run_nowait(path, &argv[k], STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 1);
    int status;
    wait(&status);
    pids[0] = child;
    ctx.pids = pids;
    ctx.npids = 1;
    ctx.children = 1;
    do_strace(&ctx);
    // Deliberately no kill(-1, SIGINT) on this path: when the command could
    // not be started (fork failed, child is -1), do_strace has returned at
    // once, and a signal to pid -1 would interrupt every process the caller
    // may signal (for root, the whole system).  Nobody is signalled and
    // nothing is waited for; the exit status stays 0, with no message of
    // our own beyond the runner's "fork" one.
    if (child != -1) {
        kill(child, SIGINT);
        waitpid(child, &status, 0);
    }
    return 0;
}

} // namespace

int tstrace_write(void *arg, const char *buf, int len)
{
    // A poll (len 0) has nothing to write.
    if (len > 0)
        safe_write(static_cast<int>(reinterpret_cast<intptr_t>(arg)), buf,
                   static_cast<unsigned>(len));
    return !tstrace_stop;
}

int write_cb(void *, const char *, int)
{
    return !stopper_stop;
}

int stopper_on_exit(strace_ctx *, void *, int pid, int kind, int code, const unsigned long *)
{
    if (!stopper_stop)
        printf("stopper: Trapped pid=%d exit code %d\n", pid, code);
    if (kind != 2) {
        fflush(stdout);
        // Held in its exit until Ctrl-C.
        while (!stopper_stop)
            sleep(999);
    }
    return 1;
}

int run_tstrace(int argc, char **argv)
{
    return run_tracer(argc, argv, tstrace_usage, tstrace_on_sigint, tstrace_write, nullptr, -1);
}

int run_stopper(int argc, char **argv)
{
    return run_tracer(argc, argv, stopper_usage, stopper_on_sigint, write_cb, stopper_on_exit,
                      STRACE_F_CALLS | STRACE_F_EXIT);
}
