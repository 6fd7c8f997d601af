// The debug-info daemon, started as "debugar.cgi": it receives client
// connections with their request from the web front end over a local
// datagram socket (lib/handoff), answers each with a hand-made HTTP/1.0
// response from a thread of its own, and forwards core dumps of crashing
// processes to a waiting listener.
#pragma once

#include <pthread.h>
#include <stdint.h>

// Settings from the command line, process-wide.
struct dbgcgi_settings {
    int dump_mode;           // -d: one archive to stdout, then exit
    int gzip;                // -t clears it
    int foreground;          // -n
    const char *cgi_socket;  // -c
    const char *segf_socket; // -s
    const char *dumper;      // -p
    const char *dump_dir;    // -k
};
extern dbgcgi_settings dbgcgi;

int run_dbg_cgi(int argc, char **argv);

// The accept loop on both control sockets; returns only when the monitor
// thread cannot be started (1).
int debug_info_daemon(int cgi_fd, int segf_fd);

// ---- requests ----

// The connection waiting for the next pushed core dump, -1 when none.  Main
// thread only.
extern int push_listener_fd;
// Set while an archive is being generated (one at a time).  Set by the main
// thread, cleared by the archive thread.
extern int archive_in_progress;

// Upper bound of the ids of one strace request.
enum { STRACE_REQ_MAX_PIDS = 512 };

// Request records: allocated by the parser, owned and freed by the handler
// thread that receives them.
struct archive_req {
    int fd;
    int gzip;  // 0 or 1
};

struct pcap_req {
    int fd;
    int duration;   // seconds, >= 0 (0: no limit)
    int totalsize;  // bytes, >= 0 (0: no limit)
};

struct rtrace_req {
    int fd;
    int interval;   // seconds
    uint32_t mask;  // rtrace item bits
};

struct strace_req {
    int32_t pids[STRACE_REQ_MAX_PIDS];
    int npids;
    int fd;
    int running;       // 1 while the trace may go on; trace thread and watcher
    pthread_t thread;  // the thread running the trace
    int stopping;      // the tracer has seen running cleared and is leaving
    int done;          // the trace is over
};

// Control message: request path, NUL, query string (NUL-terminated, or ended
// by len).  Takes over fd: hands it to a handler thread, keeps it as push
// listener, or answers and closes it.  Main thread only.
void pre_process_request(int fd, char *msg, int len);
void prepare_strace_request(int fd);
// Adds the process(es) that token names (a pid or a process name) to pids.
// Names are looked up in names, read from /proc at the first name (names
// starts empty; the caller frees it with proc_name_index_free).
struct proc_name_index;
void strace_add_target(char *token, int32_t *pids, int *count, proc_name_index *names);
// Bit value of one "trace" option name, 0 when unknown.
uint32_t rtrace_option_lookup(const char *name);

struct rtrace_option {
    const char *name;
    uint32_t bits;
};
extern const rtrace_option rtrace_options[];

// The fixed 500 response.
void reply_internal_error(int fd);

// Handler thread bodies.
void *run_archive_request(void *req);
void *run_pcap_request(void *req);
void *run_ps_request(void *fd);
void *run_rtrace_request(void *req);
void *run_strace_request(void *req);
void *run_strace_watcher(void *req);
void strace_wakeup_handler(int sig);

// Sends the dump readable on src_fd to the push listener as a download named
// name; closes src_fd and the listener in every case.  0 when delivered, else
// non-zero (also when nobody listens).  Main thread only.
int handle_request_push(int src_fd, const char *name);
