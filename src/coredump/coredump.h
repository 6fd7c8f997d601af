// Core dumps: cores of live processes through the external dumper, and the
// kernel's core-pattern pipe program.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct tar;

// ---- live core dumps ----
//
// The dumper (by default /usr/bin/memsnap) is run as its path, its fixed
// arguments and the pid; it writes the core on its standard output and one
// report line on its standard error:
//   8-character label, decimal core length, 21-character label, then the ids
//   of the other threads the core covers, separated by single spaces, "\n".
// Module state is process-wide and unlocked: one dump at a time.

// Opens /dev/null read-write for draining pipes; returns the descriptor.
int dump_init();

// Stores the dumper's argument vector (not copied).  It must end in two null
// entries: the first is overwritten with the pid text at each dump.
void dump_set_dumper(char **argv);

// Dumps pids[index] into the archive on fd as DIR/core and DIR/fdmap, where
// DIR is the base name of argv[0] followed by ".PID/".  Threads named in the
// report line are erased from pids[index..npids).  32 (EPIPE) when the
// client connection broke, else 0.
int dump_one(tar *t, int fd, int32_t *pids, int index, int npids);

// Streams the bare core of pid to fd.  Always 0.
int coredump(int fd, int32_t pid);

// Parses a report line held in buf[0..len) (buf must have room for a
// terminator at buf[len]; spaces after the thread label are overwritten):
// erases the listed thread ids from pids[index..npids) and returns the core
// length.
int dump_parse_report(char *buf, int len, int32_t *pids, int index, int npids);

// ---- kernel core-pattern handler ----
//
// The kernel runs it with the core on standard input:
//   coredump-handler [FILE-NAME [SIZE-LIMIT PATH-WITH-! NAME]]
// With "CoreHandler" = FTP... in /etc/conf.d/debugar.cgi the core is
// uploaded by FTP, otherwise it is streamed to the debug service over
// /var/run/dbg-cgi/ctrl-segf-socket.  Messages go to syslog only.

int run_coredump_handler(int argc, char **argv);

// Connects to the debug service's crash socket.  The socket, or -1 after
// "connect to PATH failed" on stderr.
int cored_mgm_connect();

// Waits up to 5 s for the service's acknowledgement (up to 8 bytes, not
// looked at), then closes sock.
void cored_mgm_close(int sock);

// The upload's read callback: reads standard input into buf.  The count (0
// at the end), or CURL_READFUNC_ABORT when the read fails.
size_t coredump_read_cb(char *buf, size_t size, size_t nmemb, void *unused);
