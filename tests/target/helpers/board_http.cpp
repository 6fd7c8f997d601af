// A browser for the board's checks (the board has no curl): "board_http
// ADDRESS PORT TARGET" connects over TCP, sends "GET TARGET HTTP/1.0" and
// copies the whole response, head and body, to standard output until the
// server closes.  Exit status 0 when the server closed the connection.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: board_http ADDRESS PORT TARGET\n");
        return 2;
    }
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
    if (inet_pton(AF_INET, argv[1], &addr.sin_addr) != 1) {
        fprintf(stderr, "board_http: bad address %s\n", argv[1]);
        return 2;
    }
    int s = socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0 || connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        perror("board_http: connect");
        return 1;
    }
    char request[1024];
    int len = snprintf(request, sizeof request, "GET %s HTTP/1.0\r\nHost: %s\r\n\r\n", argv[3],
                       argv[1]);
    if (len <= 0 || len >= static_cast<int>(sizeof request) || write(s, request, len) != len) {
        perror("board_http: write");
        return 1;
    }
    char buf[65536];
    for (;;) {
        ssize_t n = read(s, buf, sizeof buf);
        if (n == 0)
            return 0;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            perror("board_http: read");
            return 1;
        }
        if (fwrite(buf, 1, static_cast<size_t>(n), stdout) != static_cast<size_t>(n))
            return 1;
    }
}
