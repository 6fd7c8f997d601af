// The debug archive: its composer with the member writers, the gzip filter
// and the archive entry points, on top of the tar stream primitives.
#pragma once

#include <stdint.h>

#include "tar.h"

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
