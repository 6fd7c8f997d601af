#include "common.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

int sys_run_envp_nowait(const char *path, char *const argv[], char *const envp[],
                        int fd_in, int fd_out, int fd_err, int traceme)
{
    static char *const no_env[] = {nullptr};

    pid_t pid = fork();
    if (pid == -1) {
        perror("fork");
        return -1;
    }
    if (pid != 0)
        return pid;

    if (fd_in != STDIN_FILENO)
        close(STDIN_FILENO);
    if (fd_out != STDOUT_FILENO)
        close(STDOUT_FILENO);
    if (fd_err != STDERR_FILENO)
        close(STDERR_FILENO);
    dup2(fd_in, STDIN_FILENO);
    dup2(fd_out, STDOUT_FILENO);
    dup2(fd_err, STDERR_FILENO);
    if (traceme)
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execve(path, argv, envp ? envp : no_env);
    perror("execve");
    // _exit: the parent's unflushed stdio buffers must not reach the new stdout.
    _exit(1);
}

int sys_run_nowait(const char *path, char *const argv[], int fd_in, int fd_out, int fd_err,
                   int traceme)
{
    return sys_run_envp_nowait(path, argv, nullptr, fd_in, fd_out, fd_err, traceme);
}

int sys_run(const char *path, char *const argv[], int fd_in, int fd_out, int fd_err,
            int traceme)
{
    pid_t pid = sys_run_nowait(path, argv, fd_in, fd_out, fd_err, traceme);
    int status = 1;
    // A failed fork leaves pid at -1: this then waits for any child, as callers expect.
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}
