/* A process with known state for the dumper's tests: a global holding a
 * known value, a string on the heap, and three threads parked in known
 * functions: the main thread in park_main (reading stdin), two others in
 * park_alpha and park_beta (each reading its own pipe).
 *
 * It prints "ready PID MARKER-ADDRESS TEXT-ADDRESS\n" (addresses in hex)
 * once every thread is about to block.  A line on stdin (or its end)
 * releases the threads; the program then checks that each blocking read got
 * its byte (a dump must not disturb it), prints "bye\n" and exits 0; any
 * disturbance gives exit status 3.
 *
 * "snap_subject churn" keeps a fourth thread starting and joining short-lived
 * threads all the time, so that threads come and go during a dump; it prints
 * "bye N\n" with the number of threads it started. */
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

unsigned long snap_marker;
char *snap_text;

static sem_t parked;
static int pipe_alpha[2], pipe_beta[2];

__attribute__((noinline)) static int park(int fd)
{
    char c;
    sem_post(&parked);
    return read(fd, &c, 1) == 1 && c == 'g' ? 0 : 3;
}

__attribute__((noinline)) int park_alpha(void)
{
    return park(pipe_alpha[0]);
}

__attribute__((noinline)) int park_beta(void)
{
    return park(pipe_beta[0]);
}

static void *alpha_main(void *arg)
{
    (void)arg;
    return (void *)(long)park_alpha();
}

static void *beta_main(void *arg)
{
    (void)arg;
    return (void *)(long)park_beta();
}

__attribute__((noinline)) int park_main(void)
{
    char line[64];
    return read(0, line, sizeof line) >= 0 ? 0 : 3;
}

static volatile int churning = 1;
static unsigned long churned;

static void *short_lived(void *arg)
{
    return arg;
}

static void *churn_main(void *arg)
{
    (void)arg;
    while (churning) {
        pthread_t t;
        if (pthread_create(&t, NULL, short_lived, NULL) == 0 && pthread_join(t, NULL) == 0)
            churned++;
    }
    return NULL;
}

int main(int argc, char **argv)
{
    int churn = argc > 1 && strcmp(argv[1], "churn") == 0;
    pthread_t churner;
    /* Set at run time: the program file alone holds neither. */
    snap_marker = 0x5eed1234UL;
    snap_text = strdup("held on the heap");

    pthread_attr_t attr;
    pthread_t alpha, beta;
    /* Small stacks keep the board's core small. */
    if (sem_init(&parked, 0, 0) || pipe(pipe_alpha) || pipe(pipe_beta) || pthread_attr_init(&attr) ||
        pthread_attr_setstacksize(&attr, 256 * 1024) ||
        pthread_create(&alpha, &attr, alpha_main, NULL) ||
        pthread_create(&beta, &attr, beta_main, NULL))
        return 2;
    sem_wait(&parked);
    sem_wait(&parked);
    if (churn && pthread_create(&churner, &attr, churn_main, NULL))
        return 2;
    printf("ready %d %lx %lx\n", (int)getpid(), (unsigned long)&snap_marker, (unsigned long)snap_text);
    fflush(stdout);

    int rc = park_main();
    void *ra, *rb;
    if (write(pipe_alpha[1], "g", 1) != 1 || write(pipe_beta[1], "g", 1) != 1 ||
        pthread_join(alpha, &ra) || pthread_join(beta, &rb))
        return 2;
    if (rc || ra || rb)
        return 3;
    if (churn) {
        churning = 0;
        if (pthread_join(churner, NULL))
            return 2;
        printf("bye %lu\n", churned);
        return 0;
    }
    printf("bye\n");
    return 0;
}
