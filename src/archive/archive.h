// Archive streaming: ustar writer, HTTP framing and stream primitives.
#pragma once

#include <stdint.h>

// ---- ustar member writer ----
//
// Forward only: headers and data go straight to fd (never seeked, never
// buffered, never closed by the writer).  Callers may write a member's data
// to fd themselves and then declare it with tar_fakewrite, so that the
// padding before the next header stays right.  No end-of-archive blocks are
// written: the stream simply ends after the last member's padding.
struct tar {
    char *prefix;         // put in front of every member name; null when none
    uint32_t prefix_len;  // strlen(prefix), 0 without one
    int fd;               // output, not owned
    uint32_t count;       // data bytes written or declared since the last header
};

// A new writer on fd; a non-empty prefix (usually a directory ending in '/')
// is copied.  Null when out of memory.
tar *tar_new(int fd, const char *prefix);

// Pads the previous member to a 512-byte boundary, then writes the header of
// member prefix+name that promises exactly size data bytes.  Names are not
// checked: prefix+name should stay within 100 bytes.
void tar_addfile(tar *t, const char *name, uint32_t size);

// Writes member data; write errors are not reported (count still advances).
void tar_write(tar *t, const void *buf, uint32_t len);

// Declares len data bytes that the caller wrote to fd itself.
void tar_fakewrite(tar *t, uint32_t len);

// Pads the last member and frees the writer; fd stays open.
void tar_close(tar *t);

// ---- HTTP/1.0 framing and stream primitives ----

// Download header (200 OK, no caching, attachment saved as filename; the
// name is inserted as given, quotes included).  0 when written, 1 when it
// could not be formatted or written.
int stream_http_header(int fd, const char *content_type, const char *filename);

// Complete response with a small HTML page; status is the phrase after the
// version ("200 OK").  Failures are not reported.
void stream_http_message(int fd, const char *status, const char *message);

// Writes n zero bytes in pieces of at most 32.  0 when done (or n < 1),
// 1 at the first failed write.
int stream_pad(int fd, int n);

// Context of cb_strace: where the trace goes and how much of it may still go.
struct cb_strace_ctx {
    int fd;
    int32_t budget;  // bytes that may still be written
    int error;       // set when a write failed; starts 0
};

// Trace output callback: writes at most the remaining budget of buf.  1 to
// go on tracing, 0 once the budget is used up or a write failed.
int cb_strace(void *ctx, const char *buf, int len);

// ---- debug archive composer ----
//
// Member writers return 0 to go on and 1 to stop the whole archive (the
// client is gone or nothing more can be written); a stop leaves the stream
// truncated, without further members.

// Path of the kernel core image; tests point it elsewhere.
extern const char *stream_kcore_path;

// The whole debug archive onto fd; exclude_pid (-1: none) is left out of the
// traced and dumped processes.
void stream_archive(int fd, int32_t exclude_pid);
// One file read once into a bufsize-byte buffer (0: 102400) and stored as
// member; longer files are cut, empty ones left out.  1 only without memory.
int stream_file_unknownsize(tar *t, int fd, const char *member, const char *path,
                            int bufsize);
// Every file of one directory, not recursive, each under member_dir (may be
// null) + its name; names in skip_list (may be null) are left out.  1 when the
// directory cannot be opened.
int stream_dir_unknownsize(tar *t, int fd, const char *member_dir, const char *dir_path,
                           const char *const *skip_list);
// Index of s in a null-terminated list, -1 when absent or the list is null.
int strlist_lookup(const char *s, const char *const *list);
// A snapshot of the /proc top level and of the fixed /proc/sys and /proc/net
// directories.
int stream_proc(tar *t, int fd);
// strace.log: 5 seconds of trace of pids, exactly 204800 bytes.
int stream_strace_log(tar *t, int32_t *pids, int npids);
// netdump.cap (or, with a null t, the bare stream): a capture of exactly size
// bytes that leaves out fd's own TCP connection.
int stream_pcap_dump(tar *t, int fd, const char *ifname, int seconds, int size);
// sysdigest.txt, oopslog and kcore members.
int stream_sysdigest(tar *t, int fd);
int stream_oopslog(tar *t, int fd);
int stream_kcore(tar *t, int fd);
// A core and descriptor map of every listed process; stops when the client
// is gone.
void stream_coredumps(tar *t, int fd, int32_t *pids, int npids);
// Stand-alone downloads: a capture of eth0 (negative values: 5 s, 5120000
// bytes) and the output of /bin/ps.
int stream_pcap(int fd, int seconds, int size);
void stream_ps(int fd);

// ---- gzip filter and archive entry points ----

// The archive as plain tar onto fd.
void stream_tar(int fd);
// The archive gzip-compressed onto fd by a forked filter process.
void stream_tgz(int fd);
// Standard input to a gzip stream on standard output (level 1).  0, or 1 when
// a write failed (standard input is then closed).
int gzip_filter();
