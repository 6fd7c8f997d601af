// Board helper for the debug-service check (the board has no HTTP client):
//   board_http [-H HEADFILE] [-n BYTES] HOST PORT TARGET
//       GET TARGET over TCP; the response on standard output (with -H the
//       head, up to and including its empty line, goes to HEADFILE instead);
//       with -n the browser leaves after BYTES bytes.
//   board_http -u SOCKET
//       standard input into a local stream socket (a crashing process's core).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

static bool write_all(int fd, const char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

static int to_unix(const char *path)
{
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa = {};
    sa.sun_family = AF_UNIX;
    strncpy(sa.sun_path, path, sizeof sa.sun_path - 1);
    if (s < 0 || connect(s, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        perror(path);
        return 2;
    }
    char buf[8192];
    ssize_t n;
    while ((n = read(0, buf, sizeof buf)) > 0)
        if (!write_all(s, buf, static_cast<size_t>(n)))
            return 1;
    close(s);
    return 0;
}

int main(int argc, char **argv)
{
    const char *headfile = nullptr;
    long limit = -1;
    int c;
    while ((c = getopt(argc, argv, "H:n:u:")) != -1) {
        switch (c) {
        case 'H':
            headfile = optarg;
            break;
        case 'n':
            limit = atol(optarg);
            break;
        case 'u':
            return to_unix(optarg);
        default:
            return 2;
        }
    }
    if (argc - optind != 3) {
        fprintf(stderr, "usage: board_http [-H HEADFILE] [-n BYTES] HOST PORT TARGET\n");
        return 2;
    }
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(atoi(argv[optind + 1])));
    if (s < 0 || inet_pton(AF_INET, argv[optind], &to.sin_addr) != 1 ||
        connect(s, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        perror("connect");
        return 2;
    }
    std::string req = std::string("GET ") + argv[optind + 2] + " HTTP/1.0\r\n\r\n";
    if (!write_all(s, req.data(), req.size()))
        return 1;
    std::string head;
    bool in_head = headfile != nullptr;
    long total = 0;
    char buf[16384];
    ssize_t n;
    while ((limit < 0 || total < limit) && (n = read(s, buf, sizeof buf)) > 0) {
        total += n;
        const char *p = buf;
        size_t len = static_cast<size_t>(n);
        if (in_head) {
            head.append(p, len);
            size_t end = head.find("\r\n\r\n");
            if (end == std::string::npos)
                continue;
            std::string body = head.substr(end + 4);
            head.resize(end + 4);
            in_head = false;
            if (!write_all(1, body.data(), body.size()))
                return 1;
            continue;
        }
        if (!write_all(1, p, len))
            return 1;
    }
    if (headfile) {
        FILE *f = fopen(headfile, "w");
        if (!f)
            return 2;
        fwrite(head.data(), 1, head.size(), f);
        fclose(f);
    }
    close(s);
    return 0;
}
