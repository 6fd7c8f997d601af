/* Processes that make a dump hard, for the dumper's stop tests.
 *
 * "stop_subject threads N": N threads blocked in reads of a pipe and the
 * main thread reading stdin; prints "ready PID\n" once all N run.
 *
 * "stop_subject vfork": a second thread vforks a child that blocks reading a
 * pipe, so that thread cannot stop until the child ends.  Prints
 * "ready PID TID\n" (TID: the vforking thread) once the child runs.  A line
 * on stdin lets the child end; the thread then returns from vfork, and the
 * program prints "bye\n" and exits 0. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static int hold[2], child_in[2], child_up[2];
static volatile long vfork_tid;

static void *block(void *arg)
{
    char c;
    (void)arg;
    if (read(hold[0], &c, 1) < 0)
        return NULL;
    return NULL;
}

static void *vforker(void *arg)
{
    (void)arg;
    vfork_tid = syscall(SYS_gettid);
    pid_t pid = vfork();
    if (pid == 0) {
        /* Only raw calls in the child: it shares the parent's memory. */
        char c = 'u';
        /* Its own copy of the write end closed: the child ends (end of
         * input) when the program dies, whoever kills it. */
        syscall(SYS_close, child_in[1]);
        syscall(SYS_write, child_up[1], &c, 1);
        syscall(SYS_read, child_in[0], &c, 1);
        _exit(0);
    }
    return pid > 0 ? NULL : (void *)1;
}

int main(int argc, char **argv)
{
    char line[64];
    pthread_t t;
    setvbuf(stdout, NULL, _IONBF, 0);
    if (pipe(hold) || pipe(child_in) || pipe(child_up))
        return 2;
    if (argc == 3 && strcmp(argv[1], "threads") == 0) {
        int n = atoi(argv[2]);
        pthread_attr_t small;
        /* Small stacks: the dump stays quick however many threads. */
        pthread_attr_init(&small);
        pthread_attr_setstacksize(&small, 64 * 1024);
        for (int i = 0; i < n; i++)
            if (pthread_create(&t, &small, block, NULL))
                return 2;
        printf("ready %d\n", getpid());
        if (!fgets(line, sizeof line, stdin))
            return 0;
        return 0;
    }
    if (argc == 2 && strcmp(argv[1], "vfork") == 0) {
        char c;
        void *r;
        if (pthread_create(&t, NULL, vforker, NULL) || read(child_up[0], &c, 1) != 1)
            return 2;
        printf("ready %d %ld\n", getpid(), vfork_tid);
        if (!fgets(line, sizeof line, stdin))
            return 2;
        if (write(child_in[1], "g", 1) != 1 || pthread_join(t, &r) || r)
            return 3;
        printf("bye\n");
        return 0;
    }
    return 2;
}
