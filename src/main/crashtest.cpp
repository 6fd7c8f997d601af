// Applets that misbehave on purpose, to exercise the device's failure paths.
#include "dispatch.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <fcntl.h>
#include <unistd.h>

int run_ctest(int, char **)
{
    printf("call exit\n");
    exit(0);
}

int run_forkbomb(int argc, char **argv)
{
    unsigned long interval = 0;
    unsigned long depth = 1;
    if (argc > 1) {
        interval = strtoul(argv[1], nullptr, 0);
        if (argc > 2)
            depth = strtoul(argv[2], nullptr, 0);
    }

    int32_t forks = 0;
    unsigned long generation = 0;
    for (;;) {
        if (fork() == 0) {
            generation++;
            if (generation >= depth) {
                for (;;) {
                    // Burn CPU for ever: the point of the test.
                    __asm__ volatile("" ::: "memory");
                }
            }
            // Below the depth a child goes on exactly like its parent.
        }
        // A failed fork counts as a fork too.
        forks++;
        printf("forks %ld\n", static_cast<long>(forks));
        // Flushed before the next fork so that children do not repeat old lines.
        fflush(stdout);
        if (interval)
            usleep(static_cast<useconds_t>(interval));
    }
}

int run_fdleak(int argc, char **argv)
{
    unsigned long interval = 0;
    if (argc > 1)
        interval = strtoul(argv[1], nullptr, 0);

    unsigned long long count = 0;
    for (;;) {
        int fd;
        if (count % 2 == 0)
            fd = socket(AF_INET, SOCK_STREAM, 0);
        else
            fd = open("/dev/null", O_RDONLY);
        if (fd == -1) {
            perror("open");
            exit(0);
        }
        usleep(static_cast<useconds_t>(interval));
        count++;
        if (count % 16 == 0) {
            printf("leaked %llu\n", count);
            fflush(stdout);
        }
    }
}

__attribute__((no_sanitize("undefined"))) int run_segfault(int, char **)
{
    // The address comes through a volatile so the compiler emits a real store
    // (and the process dies of SIGSEGV) instead of a trap instruction.
    volatile uintptr_t address = 0;
    *reinterpret_cast<volatile int *>(address) = 0;
    return 0;
}
