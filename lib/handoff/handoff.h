// Descriptor hand-off: a web front end passes a client connection, together
// with a short control message, to a service over a local datagram socket.
//
// Wire format (docs/HANDOFF.md): one AF_UNIX SOCK_DGRAM datagram per
// request.  Its bytes are the control message, for the debug service the
// request path, a NUL, the query string and a NUL.  Its ancillary data is
// one SCM_RIGHTS message carrying exactly one descriptor: the connection.
#pragma once

#include <stddef.h>

// Largest datagram a sender should use; the receiving service decides what it
// accepts (the debug service takes at most 4095 bytes).
enum { HANDOFF_MSG_MAX = 65536 };

// A datagram socket bound at path, its file given the permission bits mode
// (the process umask does not apply).  Close-on-exec.  The descriptor, or
// -errno on failure.  An existing file at path makes the bind fail: callers
// remove stale files first.
int handoff_server_socket(const char *path, int mode);

// Receives one datagram into buf (at most size bytes).  When it is usable --
// a non-empty message that fit into buf, and exactly one descriptor -- the
// descriptor (close-on-exec) is stored in *fd and the message length is
// returned.  Otherwise every descriptor it brought is closed, *fd is -1, and
// the result is 0; -errno when receiving failed.
int handoff_recv(int sock, char *buf, int size, int *fd);

// Sends msg[0..len) with descriptor fd to the socket bound at path.  fd stays
// open in the caller.  0, or -errno (-ENOENT / -ECONNREFUSED: nobody listens
// there; -EMSGSIZE: message too long).
int handoff_send(const char *path, int fd, const void *msg, size_t len);
