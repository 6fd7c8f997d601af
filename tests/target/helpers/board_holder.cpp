// Holds descriptors or child processes for the monitor checks on the board
// (which has no python to script it): "board_holder files N" keeps N
// descriptors on /dev/null open, "board_holder children N" keeps N children.
// Prints "ready PID" when it holds them and waits until it is killed.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: board_holder files|children N\n");
        return 2;
    }
    long n = atol(argv[2]);
    if (strcmp(argv[1], "files") == 0) {
        rlimit rl;
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = rl.rlim_max = static_cast<rlim_t>(n + 64);
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
            perror("setrlimit");
            return 1;
        }
        for (long i = 0; i < n; i++) {
            if (open("/dev/null", O_RDONLY) < 0) {
                perror("open");
                return 1;
            }
        }
    } else if (strcmp(argv[1], "children") == 0) {
        for (long i = 0; i < n; i++) {
            pid_t pid = fork();
            if (pid == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (;;)
                    pause();
            }
            if (pid < 0) {
                perror("fork");
                return 1;
            }
        }
    } else {
        return 2;
    }
    printf("ready %d\n", static_cast<int>(getpid()));
    fflush(stdout);
    for (;;)
        pause();
}
