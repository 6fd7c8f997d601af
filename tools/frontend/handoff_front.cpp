// handoff-front: a minimal HTTP front end for the debug service.  It accepts
// TCP connections, reads each request head, and hands the connection with
// its path and query string to a local service through lib/handoff, which
// then answers on the connection itself.  Tests and development use it where
// the device's web server is not at hand.
//
//   handoff-front [-a ADDRESS] [-p PORT] [-c SOCKET]
//
// Defaults: 127.0.0.1, 8080, /var/run/dbg-cgi/ctrl-cgi-socket.  PORT 0 takes
// a free port.  Once listening it prints "listening ADDRESS PORT" on
// standard output.
#include <errno.h>
#include <netdb.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "handoff.h"

namespace {

const char *service_socket = "/var/run/dbg-cgi/ctrl-cgi-socket";

// Longest request head taken; the control message must stay below the
// service's 4096 bytes anyway.
enum { HEAD_MAX = 8192, HEAD_TIMEOUT_S = 10 };

const char reply_400[] =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\nmalformed request\n";
const char reply_414[] =
    "HTTP/1.0 414 URI Too Long\r\nContent-Type: text/plain\r\n\r\nrequest too long\n";
const char reply_503[] =
    "HTTP/1.0 503 Service Unavailable\r\nContent-Type: text/plain\r\n\r\n"
    "debug service not reachable\n";

void reply(int fd, const char *text)
{
    size_t len = strlen(text);
    while (len > 0) {
        ssize_t n = send(fd, text, len, MSG_NOSIGNAL);
        if (n <= 0)
            return;
        text += n;
        len -= static_cast<size_t>(n);
    }
}

// Reads exactly the request head (up to and including the empty line) so
// that nothing the client sends later is consumed here.  Its length, 0 when
// the client closed or stalled, -1 when it is too long.
int read_head(int fd, char *head, int size)
{
    int have = 0;
    for (;;) {
        ssize_t n = recv(fd, head, static_cast<size_t>(size), MSG_PEEK);
        if (n == -1 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        for (int i = have > 3 ? have - 3 : 0; i + 1 < n; i++) {
            int end = 0;
            if (i + 3 < n && memcmp(head + i, "\r\n\r\n", 4) == 0)
                end = i + 4;
            else if (memcmp(head + i, "\n\n", 2) == 0)
                end = i + 2;
            if (end) {
                int got = 0;
                while (got < end) {
                    ssize_t r = recv(fd, head + got, static_cast<size_t>(end - got), 0);
                    if (r <= 0)
                        return 0;
                    got += static_cast<int>(r);
                }
                return end;
            }
        }
        if (n >= size)
            return -1;
        have = static_cast<int>(n);
        // Wait for more than what is already there.
        ssize_t more;
        do
            more = recv(fd, head, static_cast<size_t>(n) + 1, MSG_PEEK | MSG_WAITALL);
        while (more == -1 && errno == EINTR);
        if (more <= n)
            return 0;
    }
}

// "METHOD TARGET VERSION": path and query of the target into msg as
// path NUL query NUL.  The message length, or 0 when the line is malformed.
int control_message(char *head, char *msg, int size)
{
    char *eol = strpbrk(head, "\r\n");
    if (eol)
        *eol = '\0';
    char *sp1 = strchr(head, ' ');
    if (!sp1 || sp1 == head)
        return 0;
    char *target = sp1 + 1;
    char *sp2 = strchr(target, ' ');
    if (sp2)
        *sp2 = '\0';
    // Absolute form: drop scheme and authority.
    if (strncmp(target, "http://", 7) == 0 || strncmp(target, "https://", 8) == 0) {
        char *slash = strchr(strstr(target, "//") + 2, '/');
        target = slash ? slash : const_cast<char *>("/");
    }
    if (*target != '/')
        return 0;
    char *hash = strchr(target, '#');
    if (hash)
        *hash = '\0';
    char *q = strchr(target, '?');
    const char *query = "";
    if (q) {
        *q = '\0';
        query = q + 1;
    }
    size_t plen = strlen(target), qlen = strlen(query);
    if (plen + qlen + 2 > static_cast<size_t>(size))
        return -1;
    memcpy(msg, target, plen + 1);
    memcpy(msg + plen + 1, query, qlen + 1);
    return static_cast<int>(plen + qlen + 2);
}

void *serve(void *arg)
{
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    timeval tv = {HEAD_TIMEOUT_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    char head[HEAD_MAX + 1];
    char msg[4096];
    int n = read_head(fd, head, HEAD_MAX);
    if (n < 0) {
        reply(fd, reply_414);
    } else if (n > 0) {
        head[n] = '\0';
        int len = control_message(head, msg, sizeof msg - 1);
        if (len < 0) {
            reply(fd, reply_414);
        } else if (len == 0) {
            reply(fd, reply_400);
        } else {
            // The service shares this socket from now on: no time-out left.
            tv = {0, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            int r = handoff_send(service_socket, fd, msg, static_cast<size_t>(len));
            if (r < 0) {
                fprintf(stderr, "handoff-front: %s: %s\n", service_socket, strerror(-r));
                reply(fd, reply_503);
            }
        }
    }
    close(fd);
    return nullptr;
}

int listen_on(const char *address, const char *port, char *shown, size_t shown_size,
              char *shown_port, size_t port_size)
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *ai;
    int r = getaddrinfo(address, port, &hints, &ai);
    if (r != 0) {
        fprintf(stderr, "handoff-front: %s %s: %s\n", address, port, gai_strerror(r));
        return -1;
    }
    int s = socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    if (s == -1 || setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == -1 ||
        bind(s, ai->ai_addr, ai->ai_addrlen) == -1 || listen(s, 128) == -1) {
        fprintf(stderr, "handoff-front: %s %s: %s\n", address, port, strerror(errno));
        freeaddrinfo(ai);
        if (s != -1)
            close(s);
        return -1;
    }
    freeaddrinfo(ai);
    sockaddr_storage ss;
    socklen_t sl = sizeof ss;
    getsockname(s, reinterpret_cast<sockaddr *>(&ss), &sl);
    getnameinfo(reinterpret_cast<sockaddr *>(&ss), sl, shown, static_cast<socklen_t>(shown_size),
                shown_port, static_cast<socklen_t>(port_size), NI_NUMERICHOST | NI_NUMERICSERV);
    return s;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *address = "127.0.0.1";
    const char *port = "8080";
    int c;
    while ((c = getopt(argc, argv, "a:p:c:h")) != -1) {
        switch (c) {
        case 'a':
            address = optarg;
            break;
        case 'p':
            port = optarg;
            break;
        case 'c':
            service_socket = optarg;
            break;
        default:
            fprintf(stderr, "usage: handoff-front [-a ADDRESS] [-p PORT] [-c SOCKET]\n");
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);

    char shown[NI_MAXHOST], shown_port[NI_MAXSERV];
    int s = listen_on(address, port, shown, sizeof shown, shown_port, sizeof shown_port);
    if (s < 0)
        return 1;
    printf("listening %s %s\n", shown, shown_port);
    fflush(stdout);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    for (;;) {
        int fd = accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EMFILE || errno == ENFILE) {
                usleep(10000);
                continue;
            }
            perror("handoff-front: accept");
            return 1;
        }
        pthread_t t;
        if (pthread_create(&t, &attr, serve, reinterpret_cast<void *>(static_cast<intptr_t>(fd))) != 0) {
            reply(fd, reply_503);
            close(fd);
        }
    }
}
