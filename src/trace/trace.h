// System-call tracing: ptrace session helpers, the tracer core, system-call
// decoding and the tstrace and stopper applets.
//
// The decoder for the build's architecture lives in arch/<arch>/ (MIPS o32 on
// the device, x86_64 on the host); everything here is shared.
#pragma once

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>

// ---- ptrace session helpers ----
// Messages go to stdout with printf, never through a trace's output callback.

// Attaches and waits for the stop.  The pid waitpid returned, or -1 (the
// process is then left detached).
int trace_attach(int pid);
// Releases pid, delivering sig (0 = none); a running tracee is stopped first.
void trace_detach_sig(int pid, int sig);
void trace_detach(int pid);
// PTRACE_SETOPTIONS; 0 or -1.
int trace_setoptions(int pid, int options);
// Resume to the next system-call stop / resume; four attempts, last result.
int trace_syscall(int pid, int sig);
int trace_cont(int pid, int sig);

// ---- tracee access ----
// How the decoders read a tracee.  Normally ptrace and /proc
// (trace_ptrace_reader); the unit tests hand in synthetic registers and memory.
struct trace_reader {
    void *arg;
    // PTRACE_GETREGS into block (at most 304 bytes): 0, or -1.
    int (*getregs)(void *arg, int pid, void *block);
    // PTRACE_PEEKUSER / PTRACE_PEEKDATA of one word: 0 with *val set, or -1
    // when the request failed (errno set), *val then being -1.
    int (*peekuser)(void *arg, int pid, unsigned long off, unsigned long *val);
    int (*peekdata)(void *arg, int pid, unsigned long addr, unsigned long *val);
    int (*pokeuser)(void *arg, int pid, unsigned long off, unsigned long val);
    // Bulk read of tracee memory, a speed-up only: the bytes read (possibly
    // short) or -1.  May be null.
    long (*readmem)(void *arg, int pid, unsigned long addr, void *buf, unsigned long len);
    // Description of descriptor fd of pid into buf (proc_fdinfo_lookup).
    int (*fdinfo)(void *arg, int pid, int fd, char *buf, int size);
    // proc_mem_pread.
    int (*mem_pread)(void *arg, int pid, void *buf, unsigned len, int64_t off);
};
extern const trace_reader trace_ptrace_reader;

// ---- tracer core ----

struct strace_ctx;
// Output: non-zero to go on, 0 to stop the trace.  len 0 is a poll.
typedef int (*strace_out_fn)(void *arg, const char *buf, int len);
// Exit notice: kind 1 = exit event (code = PTRACE_GETEVENTMSG status word),
// kind 2 = exit/exit_group call seen (code = its argument, regs = the
// decoded argument block).  The result is ignored.
typedef int (*strace_exit_fn)(strace_ctx *ctx, void *arg, int pid, int kind, int code,
                              const unsigned long *regs);

struct strace_pid_rec;

// Flag bits of strace_ctx::flags; callers pass -1 for everything.
enum {
    STRACE_F_CALLS = 1,   // decode and print system calls
    STRACE_F_SIGNALS = 2, // report signals
    STRACE_F_EXIT = 4,    // stop processes at their exit (PTRACE_O_TRACEEXIT)
    STRACE_F_FDS = 8,     // list open descriptors at exit and at the end
};

struct strace_ctx {
    strace_out_fn out;          // may be null: text is made and dropped
    strace_exit_fn on_exit;     // may be null
    void *arg;                  // first argument of out, second of on_exit
    strace_pid_rec **pidrecs;   // set by do_strace to its record table pointer
    int32_t flags;              // STRACE_F_*
    int32_t reserved;           // zero
    int32_t *pids;              // an entry becomes -1 when its process is gone
    int32_t npids;
    int32_t duration;           // seconds; > 0 limits the trace
    int32_t children;           // pids are children already tracing themselves
    char *buf;                  // malloc'd text buffer (null: 4096 allocated);
                                // freed by do_strace in every case
    int32_t bufsize;
};

// Register snapshot: the PTRACE_GETREGS block of 38 eight-byte registers on
// the device, used as 32-bit slots indexed by register number.
struct strace_regs {
    alignas(8) uint32_t w[76];
};

struct strace_pid_rec {
    char name[32];     // process name, at most 31 characters
    uint8_t state;     // bit 0: inside a system call
    strace_regs regs;  // snapshot at system-call entry
    strace_regs ret;   // at return; the result is slot 2
};

// Argument block handed to the printers and to on_exit.
enum {
    SA_PC, SA_RA, SA_NR, SA_A1, SA_A2, SA_A3, SA_A4, SA_A5, SA_A6, SA_RESULT, SA_WB,
    SA_WORDS
};

// Only one trace runs in a process at a time.
extern pthread_mutex_t strace_lock;

void do_strace(strace_ctx *ctx);
int strace_vprintf(strace_ctx *ctx, const char *fmt, va_list ap)
    __attribute__((format(printf, 2, 0)));
int strace_printf(strace_ctx *ctx, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void strace_exit(strace_ctx *ctx, int pid, int kind, int code, const unsigned long *regs);
int strace_list_fds(strace_ctx *ctx, int pid);
int strace_find_pid(int pid, const int32_t *pids, int n);
const char *signal_map_sig2name(int sig);

// ---- decoding (arch/<arch>) ----

extern const char *const syscall_names[];
extern const int syscall_names_count;
// First call number of syscall_names (4000 on MIPS o32, 0 on x86_64).
extern const long syscall_names_base;
extern const char *const socketcall_names[32];

int arch_dec_syscall(strace_ctx *ctx, int pid, const char *procname, char *buf, int size,
                     strace_regs *r, const trace_reader *rd = &trace_ptrace_reader);
int arch_dec_syscall_ret(strace_ctx *ctx, int pid, const char *procname, char *buf, int size,
                         strace_regs *r, strace_regs *ret,
                         const trace_reader *rd = &trace_ptrace_reader);

// A call as the printers take it: its name and how its arguments are printed
// (a strace_fmt; for SF_SOCK also the socket call's number).
struct strace_call {
    const char *name;
    int kind;
    int subcall;
};
// The architecture's call nr (within the name table) for the printers.
strace_call arch_call(unsigned long nr);

int arch_print_syscall(strace_ctx *ctx, const strace_call &call, int pid, const char *procname,
                       char *buf, int size, unsigned long *block,
                       const trace_reader *rd = &trace_ptrace_reader);
int arch_print_syscall_ret(strace_ctx *ctx, const strace_call &call, int pid,
                           const char *procname, char *buf, int size, unsigned long *block,
                           const trace_reader *rd = &trace_ptrace_reader);
void arch_writeback_sc(int pid, unsigned long *block,
                       const trace_reader *rd = &trace_ptrace_reader);

// How a call's arguments are printed (the formatter table); the architecture
// maps its call numbers onto these.
enum strace_fmt {
    SF_DEFAULT, SF_EXIT, SF_READ, SF_WRITE, SF_OPEN, SF_OPENAT, SF_CLOSE, SF_WAITPID,
    SF_TIME, SF_LSEEK, SF_PTRACE, SF_ACCESS, SF_BRK, SF_IOCTL, SF_TIMEOFDAY, SF_MMAP,
    SF_MUNMAP, SF_SOCKETCALL, SF_STAT, SF_FSTAT, SF_NANOSLEEP, SF_POLL, SF_SOCK,
};
// Formatter of call nr; for SF_SOCK the sub-call number goes to *subcall.
int arch_call_format(unsigned long nr, int *subcall);

// Every formatter appends at buf, writes at most size bytes and returns the
// number of characters it produced, as snprintf counts them.
int strace_format_syscall(strace_ctx *ctx, int entry, const strace_call &call, int pid,
                          const char *procname, char *buf, int size, unsigned long *block,
                          const trace_reader *rd = &trace_ptrace_reader);
int strace_format_sockcall(int pid, char *buf, int size, int subcall, unsigned long a1,
                           unsigned long a2, unsigned long a3, unsigned long a4,
                           unsigned long a5, unsigned long a6,
                           const trace_reader *rd = &trace_ptrace_reader);
int strace_format_string(int pid, char *buf, int size, unsigned long addr, long len,
                         const trace_reader *rd = &trace_ptrace_reader);
int strace_format_fd(int pid, char *buf, int size, int fd,
                     const trace_reader *rd = &trace_ptrace_reader);
int strace_format_timespec(int pid, char *buf, int size, unsigned long addr, int more,
                           const trace_reader *rd = &trace_ptrace_reader);

// ---- applets ----

int tstrace_write(void *arg, const char *buf, int len);
int write_cb(void *arg, const char *buf, int len);
int stopper_on_exit(strace_ctx *ctx, void *arg, int pid, int kind, int code,
                    const unsigned long *regs);

int run_tstrace(int argc, char **argv);
int run_stopper(int argc, char **argv);
