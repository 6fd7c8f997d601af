// Process inspection: /proc queries, descriptor and socket descriptions, and
// a small intrusive hash table.
#pragma once

#include <stddef.h>
#include <stdint.h>

// ---- ehash: intrusive chained hash table ----
// The caller's records embed an ehash_entry; the table copies only the key.

struct ehash_entry {
    ehash_entry *next;
    void *key;       // heap copy owned by the table, not NUL-terminated
    uint32_t keylen;
};

struct ehash {
    uint32_t count;
    uint32_t nbuckets;       // a power of two
    ehash_entry *buckets[];  // nbuckets heads, then one spare word that stays null
};

// Iteration state; zero both fields to start.
struct ehash_iter {
    uint32_t bucket;
    ehash_entry *cur;
};

// h = h * 65599 + byte over the key's bytes, in 32-bit arithmetic.
uint32_t ehash_hash(const void *key, uint32_t len);
// An empty table with 16 buckets for a hint of 0, else the smallest power of two
// above the hint.  Null when it cannot be allocated or its size cannot even be
// expressed on this target.
ehash *ehash_new(unsigned hint);
// Frees the key copies and the table, not the entries.  Accepts null.
void ehash_free(ehash *table);
// keylen 0 means strlen(key).  Returns the bucket head now holding the entry.
ehash_entry **ehash_insert_e(ehash *table, const void *key, uint32_t keylen, ehash_entry *entry);
// The record (entry address minus offset) of the newest entry with this key, or null.
void *ehash_lookup_e(ehash *table, const void *key, uint32_t keylen, size_t offset);
// 0, or -ENOENT when the entry is not in its bucket (also when it was removed
// already).
int ehash_remove(ehash *table, ehash_entry *entry);
// The next record (entry minus offset), or null at the end.  Removing the entry
// the iterator stands on invalidates it: restart from a zeroed iterator.
void *ehash_iterate_e(ehash *table, ehash_iter *iter, void **key, uint32_t *keylen,
                      size_t offset);

// ---- /proc process queries ----
// Pids are signed 32-bit; failures are results (0 entries, 0 for no name, -1
// for no value), nothing is printed.

struct tar;

// A pid that proc_list never returns (dbg-cgi -i); 0 by default.
extern int32_t proc_extra_ignore_pid;

// One read of at most len bytes (not NUL-terminated); -1 when path cannot be opened.
int proc_read_file(const char *path, void *buf, size_t len);

// Short name of a process under dir (normally "/proc"): the tail of argv[0]
// behind its last '/', else the stat name.  1 with the name NUL-terminated in
// buf, else 0.
int proc_name_from_dir(const char *dir, int32_t pid, char *buf, size_t size);
// proc_name_from_dir("/proc", ...).
int proc_get_pidname(int32_t pid, char *buf, size_t size);

// In place on a cmdline read into buf[0..size): forces buf[size - 1] to NUL and,
// when the first string holds a '/' with text behind it, moves that text to the
// start.  1 when it did, else 0 (buf may then be altered).
int proc_parse_cmdline_name(char *buf, size_t size);
// In place on stat text in buf[0..size): forces buf[size - 1] to NUL and moves
// the text between the last '(' and the last ')' (which must be followed by a
// blank) to the start.  1 on success, 0 when there is no such name.
int proc_parse_stat_name(char *buf, size_t size);
// The field after the third run of white space of stat text (the parent pid
// when the name holds no blank), parsed with strtoul; -1 when the text ends
// before it.  Looks at no more than the first len bytes, and at most 256.
int32_t proc_parse_stat_ppid(const char *text, size_t len);

// Pids of /proc in directory order, leaving out 1, exclude,
// proc_extra_ignore_pid, the caller and its parent; at most capacity.
int proc_list(int32_t *pids, int capacity, int32_t exclude);
// Sets the first slot in [first, count) that holds pid to -1 (a negative first
// counts from 0).
void proc_plist_remove_pid(int32_t *pids, int first, int count, int32_t pid);
// readlink of the exe link into at most size - 1 bytes; terminated only when
// it filled all of them (the result delimits a shorter text).  -1 on failure.
int proc_pid_exe(int32_t pid, char *buf, size_t size);
// 1 when the exe link cannot be read (kernel thread, gone, not permitted).
int proc_is_kernel_thread(int32_t pid);
// Parent pid from the stat file (proc_parse_stat_ppid), -1 when unreadable.
int32_t proc_ppid(int32_t pid);
// Pids under dir whose short name equals name, at most capacity; *count says
// how many were stored.
void proc_find_pid_by_name(const char *dir, const char *name, int32_t *pids, int *count,
                           int capacity);
// The short names of all processes under dir, read in one pass, so that many
// names are looked up without a scan of dir per name.  Names of 64 bytes or
// more are kept as "" (no name looked up is that long).
struct proc_name_index {
    int n;
    int32_t *pids;
    char (*names)[64];
};
// 0, or -1 when dir cannot be read or there is no memory (ix is then empty).
int proc_name_index_build(const char *dir, proc_name_index *ix);
// As proc_find_pid_by_name, from the index: the first capacity matches in
// directory order.
void proc_name_index_find(const proc_name_index *ix, const char *name, int32_t *pids, int *count,
                          int capacity);
void proc_name_index_free(proc_name_index *ix);
// Descriptor numbers of a process, at most capacity; 0 when unreadable.
int proc_fdlist(int32_t pid, int *fds, int capacity);
// Number of open descriptors; the non-null out-pointers get the sockets and
// the links that read exactly "pipe:[" (so, in practice, no pipes).
int proc_nr_fd2(int32_t pid, int *nr_sock, int *nr_pipe);
// safe_read of len bytes of the process's memory at offset; -1 when the mem
// file cannot be opened.
int proc_mem_pread(int32_t pid, void *buf, unsigned len, int64_t offset);
// Archive member holding "ls -l" of the process's descriptor directory; on
// failure the member is simply missing.
void proc_append_fdmap(tar *t, const char *member, int32_t pid, int out_fd);

// ---- descriptor and socket descriptions ----

// Link text of /proc/PID/fd/FD into buf (at most size - 1 bytes, terminated);
// a socket gets its description appended.  Returns the total length as
// snprintf counts it, or the readlink result when below 1.
int proc_fdinfo_lookup(int32_t pid, int fd, char *buf, size_t size);
// The same, with the link read relative to dirfd, an open /proc/PID/fd
// directory of that pid (a caller that describes many descriptors of one
// process keeps it open and saves the path walk).
int proc_fdinfo_lookup_at(int dirfd, int32_t pid, int fd, char *buf, size_t size);
// Description of the socket with this inode from /proc/net/tcp, tcp6 or unix
// (in that order; pid is not used): snprintf semantics into dst, 0 when the
// inode is in none of them or is a unix socket without a path.
int proc_skinfo_lookup(int32_t pid, unsigned long inode, char *dst, size_t size);
// As proc_skinfo_lookup, with the tables taken from netdir instead of /proc/net.
int proc_skinfo_lookup_at(const char *netdir, unsigned long inode, char *dst, size_t size);

uint32_t byteswap32(uint32_t v);

// Name of a state of the st column; states the kernel never prints give "UNKNOWN".
const char *proc_tcp_state_name(unsigned long state);

// One line of /proc/net/tcp or tcp6 taken at the kernel's fixed columns.
// Address words are as printed (raw 32-bit values); tcp uses word 0 only.
struct proc_tcp_sock {
    uint32_t local[4];
    uint32_t remote[4];
    unsigned long local_port;
    unsigned long remote_port;
    unsigned long state;
    unsigned long inode;
};

// Parses a NUL-terminated line of tcp (ipv6 0) or tcp6 (ipv6 1).  0 when the
// line ends before the inode column, else 1.
int proc_net_tcp_parse(const char *line, int ipv6, proc_tcp_sock *out);
// "[laddr:lport -> raddr:rport][STATE]" into dst, snprintf semantics.
int proc_net_tcp_format(const proc_tcp_sock *s, int ipv6, char *dst, size_t size);
// The description from one tcp/tcp6 line when it holds inode, else -1.
int proc_net_tcp_line(const char *line, int ipv6, unsigned long inode, char *dst, size_t size);

// Inode and path of a NUL-terminated /proc/net/unix line: the inode is the
// seventh field, the path (length *pathlen, up to the newline) starts one
// character behind it; *path is null when there is none.  0 when the line has
// fewer than seven fields, else 1.
int proc_net_unix_parse(const char *line, unsigned long *inode, const char **path,
                        size_t *pathlen);
// "[path]" from one unix line that holds inode (0 when it has no path), else -1.
int proc_net_unix_line(const char *line, unsigned long inode, char *dst, size_t size);
