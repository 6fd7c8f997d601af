// The board's syslog for the checks (the board runs no syslog daemon):
// "board_syslog PATH" binds a datagram socket at PATH (normally /dev/log)
// and prints every message as one line "<PRIORITY>TEXT", the time stamp
// that syslog(3) puts after the priority left out, until SIGTERM or SIGINT;
// then it removes PATH.  It writes "ready" to standard error once bound.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t stop;

void on_signal(int)
{
    stop = 1;
}

// "<PRI>Mmm dd hh:mm:ss rest" -> "<PRI>rest".
void print_message(const char *msg, size_t len)
{
    const char *gt = static_cast<const char *>(memchr(msg, '>', len));
    size_t head = gt ? static_cast<size_t>(gt - msg) + 1 : 0;
    const char *stamp = msg + head;
    size_t rest = len - head;
    bool stamped = rest >= 16 && stamp[3] == ' ' && stamp[6] == ' ' && stamp[9] == ':' &&
                   stamp[12] == ':' && stamp[15] == ' ';
    fwrite(msg, 1, head, stdout);
    if (stamped)
        fwrite(stamp + 16, 1, rest - 16, stdout);
    else
        fwrite(stamp, 1, rest, stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: board_syslog PATH\n");
        return 2;
    }
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    int s = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (s < 0 || strlen(argv[1]) >= sizeof addr.sun_path) {
        perror("board_syslog: socket");
        return 1;
    }
    strcpy(addr.sun_path, argv[1]);
    unlink(argv[1]);
    if (bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        perror("board_syslog: bind");
        return 1;
    }
    chmod(argv[1], 0666);
    fputs("ready\n", stderr);
    char buf[4096];
    while (!stop) {
        ssize_t n = recv(s, buf, sizeof buf, 0);
        if (n > 0)
            print_message(buf, static_cast<size_t>(n));
        else if (n < 0 && errno != EINTR)
            break;
    }
    unlink(argv[1]);
    return 0;
}
