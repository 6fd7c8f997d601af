// Socket helpers shared by tests and their helper programs (no GoogleTest).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

namespace testutil {

// The local (or, with peer, the remote) port of a connected TCP socket.
inline uint16_t port_of(int fd, bool peer)
{
    sockaddr_storage ss = {};
    socklen_t len = sizeof ss;
    if (peer)
        getpeername(fd, reinterpret_cast<sockaddr *>(&ss), &len);
    else
        getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
    if (ss.ss_family == AF_INET)
        return ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
    return ntohs(reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port);
}

} // namespace testutil
