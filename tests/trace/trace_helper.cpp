// Makes a known sequence of system calls for the tracer tests.
//   trace_helper calls      the sequence, then exit_group(2)
//   trace_helper wait-calls reads one byte from stdin first (to be attached)
//   trace_helper idle       sleeps without end
//   trace_helper spam N     N writes of 40 bytes to /dev/null, then exit 0
//   trace_helper exit1      exit(1)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static void on_usr1(int) {}

static void calls()
{
    write(1, "hi\n", 3);
    char hundred[100];
    memset(hundred, 'x', sizeof hundred);
    write(1, hundred, sizeof hundred);
    syscall(SYS_open, "/nonexistent/directory/with/a/long/name/file.txt", O_RDONLY, 0);
    struct timespec ts = {0, 1000000};
    syscall(SYS_nanosleep, &ts, nullptr);

    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    listen(lfd, 1);
    socklen_t len = sizeof sa;
    getsockname(lfd, reinterpret_cast<sockaddr *>(&sa), &len);
    // Direct calls: the C library may route these through socketcall.
    int cfd = static_cast<int>(syscall(SYS_socket, AF_INET, SOCK_STREAM, 0));
    syscall(SYS_connect, cfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);

    signal(SIGUSR1, on_usr1);
    kill(getpid(), SIGUSR1);
    syscall(SYS_exit_group, 2);
}

int main(int argc, char **argv)
{
    const char *mode = argc > 1 ? argv[1] : "calls";
    if (!strcmp(mode, "calls")) {
        calls();
    } else if (!strcmp(mode, "wait-calls")) {
        char c;
        read(0, &c, 1);
        calls();
    } else if (!strcmp(mode, "idle")) {
        for (;;)
            pause();
    } else if (!strcmp(mode, "spam")) {
        int n = argc > 2 ? atoi(argv[2]) : 1000;
        int fd = open("/dev/null", O_WRONLY);
        for (int i = 0; i < n; i++)
            write(fd, "0123456789012345678901234567890123456789", 40);
        return 0;
    } else if (!strcmp(mode, "exit1")) {
        exit(1);
    }
    return 3;
}
