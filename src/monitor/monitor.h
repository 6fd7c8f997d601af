// Monitoring: the resource-leak monitor (mon applet, the daemon's hourly
// round) and the runtime trace sampler (rtrace).
#pragma once

#include "proc.h"

#include <stdint.h>
#include <stdio.h>

// ---- resource-leak monitor ----

// One sample of a process's descriptors.
struct monitor_sample {
    int32_t nr_fd;
    int32_t nr_sock;
    int32_t nr_pipe;
};

// Slots of a record's history: 0 the latest sample, 1..3 the three before,
// 4 a four-sample average, 5..7 older averages shifted every 32 rounds.
constexpr int MONITOR_HISTORY = 8;

// One monitored process (280 bytes on the 32-bit device).
struct monitor_proc {
    int32_t pid;
    int32_t ppid;              // refreshed each round
    monitor_proc *parent;      // cache of the parent's record; may be stale
    ehash_entry entry;         // the table sees the record here
    char name[128];
    monitor_sample hist[MONITOR_HISTORY];
    int32_t fd_score_prev;
    int32_t fd_score_peak;     // score at the last stderr line
    int32_t nr_childs;         // children counted this round
    int32_t nr_childs_prev;
    int32_t nr_childs_peak;    // count at the last stderr line
    uint32_t childs_reset;     // the first touch in this round resets the count
    uint32_t seen_round;
    uint32_t eval_round;
};

struct monitor {
    const char *report_path;   // borrowed; null: no report file
    FILE *report;              // open only during a round
    ehash *procs;              // keyed by the 4 bytes of the pid
    uint32_t round;            // starts at 1
};

// A monitor writing its per-round report to report_path (may be null).
// Null when it cannot be allocated.
monitor *monitor_create(const char *report_path);
// One round: sample every listed process, print alerts to stderr, replace
// the report file.
void monitor_run(monitor *mon);
// Frees every record, the table and the monitor.  Accepts null.
void monitor_destroy(monitor *mon);
// Formatted text to standard error; mon is not used.
void monitor_log(monitor *mon, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Body of the daemon's monitor thread: idle scheduling class, then one round
// an hour into "/var/run/dbg-cgi/dbg-monitor.txt", for ever.  Returns only
// when the scheduling class cannot be set.
void *monitor_thread_run(void *arg);

// The mon applet: [interval in microseconds, default 1000]; stops on SIGINT.
int run_mon(int argc, char **argv);

// ---- runtime trace sampler ----

// Item bits: what each round sends.
enum : uint32_t {
    RTRACE_SMAPS = 1,
    RTRACE_STATUS = 2,
    RTRACE_SMAPSTOT = 4,
    RTRACE_FILENR = 8,
    RTRACE_MEMINFO = 16,
    RTRACE_DISKINFO = 32,
    RTRACE_IOSTAT = 64,
    RTRACE_PAGETYPEINFO = 128,
    RTRACE_HEARTH = 256,
    RTRACE_EVENT = 512,
    RTRACE_PIDSTAT = 1024,
};

// Record types of the stream.
enum : uint32_t {
    RTRACE_REC_IOSTAT = 1,
    RTRACE_REC_SMAPS = 2,
    RTRACE_REC_STATUS = 3,
    RTRACE_REC_PERPID = 4,     // length 0; flag 1 opens, 0 closes
    RTRACE_REC_FOLLOW = 5,
    RTRACE_REC_SMAPSTOT = 6,
    RTRACE_REC_FILENR = 7,
    RTRACE_REC_MEMINFO = 8,
    RTRACE_REC_DISKINFO = 9,
    RTRACE_REC_PAGETYPEINFO = 10,
    RTRACE_REC_HEARTH = 11,
    RTRACE_REC_EVENT = 12,
    RTRACE_REC_PIDSTAT = 13,
};

// Record header on the wire: type (u32), length (u32), milliseconds since
// the epoch (s64), flag (u8), three zero bytes; native byte order.
constexpr unsigned RTRACE_HEADER_SIZE = 20;
// Files and helper output go out in pieces of at most this many bytes.
constexpr unsigned RTRACE_BUF_SIZE = 204800;
// Rows of the helper table; the running-helpers record has room for one more.
constexpr int RTRACE_MAX_APPS = 5;

struct rtrace_config {
    int32_t interval;          // seconds between samples
    int fd;                    // the connection
    uint32_t items;
};

// The helpers of one trace (88 bytes).
struct rtrace_apps {
    int32_t count;
    int pipes[RTRACE_MAX_APPS][2];
    int32_t pids[RTRACE_MAX_APPS];
    int32_t maxfd;             // highest write end: the select limit
    uint32_t types[RTRACE_MAX_APPS];
};

// Null on allocation failure.
rtrace_config *rtrace_create(int fd, int interval, uint32_t items);
// Streams rounds until a write to the connection fails; always 0.
int rtrace_run(rtrace_config *config);
// Accepts null.
void rtrace_destroy(rtrace_config *config);

// Starts the selected helpers behind pipes; *apps stays null when none is
// selected.  Always 0.
int rtrace_start_apps(rtrace_config *config, rtrace_apps **apps);
// Closes the pipes, stops (SIGTERM) and reaps the helpers, frees apps.
// -1 when either argument is null, else 0.
int rtrace_end_apps(rtrace_config *config, rtrace_apps *apps);
// One record header stamped now; 0, or -1 unless all 20 bytes were written.
int rtrace_write_header(int fd, uint32_t type, uint32_t length, uint8_t flag);
// A file as records (a pid >= 0 leads each piece); 1 on success or when the
// file cannot be opened, 0 when a write failed.
int rtrace_send_file(int fd, uint32_t type, const char *path, int32_t pid);
// "/proc/PID" + suffix of every process; 1, or 0 on a failed write.
int rtrace_send_per_pid(int fd, uint32_t type, const char *suffix);
// The disk usage table of "/proc/mounts"; 1, or 0 on failure.
int rtrace_send_diskinfo(int fd);
// The same from another mount table: tests feed it mounts this machine
// cannot make (CIFS shares).
int rtrace_send_diskinfo_from(int fd, const char *mount_table);
// The sampling steps of one round (everything but the wait); 1, or 0 when a
// write failed.
int rtrace_send_round(rtrace_config *config);
// Relays helper output for one interval; 0 when the interval ran out, -1 on
// failure.
int rtrace_pump_apps(rtrace_config *config, rtrace_apps *apps);
// Sends path as type 5 every interval while that succeeds.  Returns 0.
int rtrace_follow_file(rtrace_config *config, const char *path);
