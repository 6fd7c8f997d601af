// memsnap: the dumper that makes cores of live processes.  It stops every
// thread of a process with ptrace (seize + interrupt, which the process
// cannot see), works out the exact size of the ELF core, reports it on
// standard error and then streams the core from /proc/PID/mem through one
// bounded buffer.  The process runs on unharmed afterwards.
//
// What differs between architectures (ELF identity of the core, register
// sets) lives in arch/<arch>/; everything here is shared.
#pragma once

#include <link.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/procfs.h>
#include <sys/types.h>

// ---- growable arrays of plain data ----
// Allocation failure ends the program: the dumper has nothing to save then.
template <typename T> struct snap_vec {
    T *v = nullptr;
    int n = 0;
    int cap = 0;

    snap_vec() = default;
    snap_vec(const snap_vec &) = delete;
    snap_vec &operator=(const snap_vec &) = delete;
    ~snap_vec() { free(v); }

    T *push()
    {
        if (n == cap) {
            int ncap = cap ? cap * 2 : 16;
            void *p = realloc(v, sizeof(T) * static_cast<size_t>(ncap));
            if (!p)
                abort();
            v = static_cast<T *>(p);
            cap = ncap;
        }
        T *t = &v[n++];
        memset(static_cast<void *>(t), 0, sizeof *t);
        return t;
    }
    T &operator[](int i) { return v[i]; }
    const T &operator[](int i) const { return v[i]; }
};

// A growable byte buffer.
struct snap_buf {
    unsigned char *p = nullptr;
    size_t len = 0;
    size_t cap = 0;

    snap_buf() = default;
    snap_buf(const snap_buf &) = delete;
    snap_buf &operator=(const snap_buf &) = delete;
    ~snap_buf() { free(p); }
    // Appends n bytes (zeros when data is null); returns where they went.
    unsigned char *append(const void *data, size_t n);
};

// ---- errors ----
// Records the one-line reason of a failure (printf format, no newline) for
// the final message; returns -1.
int snap_fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// The recorded reason, "" when none.
const char *snap_failure();

// ---- the report line ----
// "length: " (8 characters), the decimal core length, " bytes, other tasks: "
// (21 characters), then the ids of the process's other threads separated by
// single spaces, and a newline.  The line is always shorter than
// SNAP_REPORT_MAX bytes; ids that do not fit are left out.
enum { SNAP_REPORT_MAX = 256 };
#define SNAP_REPORT_LABEL "length: "
#define SNAP_REPORT_LABEL2 " bytes, other tasks: "
// Writes the line into buf (at least SNAP_REPORT_MAX bytes, NUL-terminated);
// returns its length without the terminator.
int snap_report_line(char *buf, uint64_t length, const int *tids, int ntids);

// ---- architecture (arch/<arch>/regs.cpp) ----
// A register set written as a note of every thread after NT_PRSTATUS; max is
// the largest size the kernel may hand out for it.
struct snap_regset {
    unsigned type;
    const char *name;
    unsigned max;
};
extern const unsigned char snap_arch_class; // ELFCLASS32 / ELFCLASS64
extern const uint16_t snap_arch_machine;    // EM_*
extern const snap_regset snap_arch_regsets[];
extern const int snap_arch_nregsets;
// e_flags of the core, given the e_flags of the dumped program (0 when it
// could not be read).
uint32_t snap_arch_eflags(uint32_t exe_flags);

enum { SNAP_MAX_REGSETS = 4 };

// ---- threads ----
struct snap_regdata {
    unsigned type;
    const char *name;
    unsigned size;
    unsigned char *data; // malloc'ed
};

struct snap_thread {
    int tid;
    int state;      // SNAP_SEIZED, SNAP_STOPPED, SNAP_GONE
    int resume_sig; // a signal whose delivery the stop caught: handed back at detach
    int has_regs;
    elf_gregset_t regs;
    int nextra;
    snap_regdata extra[SNAP_MAX_REGSETS];
};
enum { SNAP_SEIZED = 1, SNAP_STOPPED, SNAP_GONE };

// The low word of a signal mask as /proc/PID/status shows it in hex
// ("SigBlk:\t0000...0001"); wider masks than a word keep their last digits.
unsigned long snap_sigmask_low(const char *hex);

// How long the threads of a process may take to stop, all together; one
// that has not stopped by then is left out of the core.
enum { SNAP_STOP_DEADLINE_MS = 2000 };

// Every thread of one process, stopped.  The destructor detaches them all.
struct snap_threads {
    int tgid = 0;
    snap_vec<snap_thread> t;
    // One line per thread left out, for standard error after the report.
    char late_note[1024] = "";
    int late_len = 0;

    snap_threads() = default;
    snap_threads(const snap_threads &) = delete;
    snap_threads &operator=(const snap_threads &) = delete;
    ~snap_threads();
    // Lets every thread run on (handing back caught signals); idempotent.
    void detach();
};

// Seizes and stops every thread of the process that pid belongs to, scanning
// /proc/TGID/task again until no new thread shows up.  0, or -1 with the
// reason recorded.
int snap_stop_all(snap_threads *ts, int pid);
// Reads the registers of every stopped thread: 0, or -1 with the reason.
int snap_read_regs(snap_threads *ts);
// Thread id of a stopped thread through whose /proc/TGID/task/TID entry the
// address space is read (the requested one when it is alive), or -1.
int snap_live_tid(const snap_threads *ts, int pid);

// ---- mappings ----
enum {
    SNAP_VM_DONTDUMP = 1, // MADV_DONTDUMP
    SNAP_VM_IO = 2,       // device memory: reading may have side effects
    SNAP_VM_HUGETLB = 4,
};
enum { SNAP_NONAME = 0xffffffffu };

struct snap_vma {
    uint64_t start, end;
    uint64_t offset;     // file offset of start
    uint64_t dump;       // bytes of the mapping written into the core, from start
    unsigned prot;       // PF_R | PF_W | PF_X
    unsigned shared;     // a MAP_SHARED mapping
    unsigned vmflags;    // SNAP_VM_*
    uint32_t name;       // offset of the path in the name pool, or SNAP_NONAME
    uint64_t rss_kb, swap_kb, anon_kb;
};

struct snap_maps {
    snap_vec<snap_vma> v;
    snap_buf names; // NUL-terminated paths

    const char *name(const snap_vma &m) const
    {
        return m.name == SNAP_NONAME ? "" : reinterpret_cast<const char *>(names.p) + m.name;
    }
};

// Parses a smaps text (as /proc/PID/smaps gives it) from fd.  0 or -1.
int snap_parse_smaps(snap_maps *maps, int fd);

// Bits of /proc/PID/coredump_filter, as the kernel's own dumps use them.
enum {
    SNAP_FILTER_ANON_PRIVATE = 1 << 0,
    SNAP_FILTER_ANON_SHARED = 1 << 1,
    SNAP_FILTER_MAPPED_PRIVATE = 1 << 2,
    SNAP_FILTER_MAPPED_SHARED = 1 << 3,
    SNAP_FILTER_ELF_HEADERS = 1 << 4,
    SNAP_FILTER_HUGETLB_PRIVATE = 1 << 5,
    SNAP_FILTER_HUGETLB_SHARED = 1 << 6,
    SNAP_FILTER_DEFAULT = 0x33,
};
// How much of a mapping goes into the core.
enum { SNAP_DUMP_NONE, SNAP_DUMP_WHOLE, SNAP_DUMP_ELF_HEADER };
int snap_vma_dump_kind(const snap_vma &m, const char *name, unsigned filter);

// ---- the core ----
struct snap_proc {
    int pid;  // the requested thread: its registers come first
    int tgid;
    int mem_pid; // a held thread whose address space is read
    int mem_fd;  // its /proc/TGID/task/TID/mem
    unsigned pagesize;
    uint32_t eflags;
    elf_prpsinfo psinfo;
    snap_buf auxv;
    snap_threads *threads;
    snap_maps *maps;
};

struct snap_layout {
    int phnum;         // PT_NOTE + one PT_LOAD per mapping
    int extnum;        // phnum needs the extended numbering (a section header)
    uint64_t phoff;
    uint64_t notes_off, notes_size;
    uint64_t data_off; // first PT_LOAD's data, page-aligned
    uint64_t shoff;    // the section header of extended numbering
    uint64_t total;    // length of the whole core
};

// Decides how much of each mapping goes in (probing ELF headers through the
// mem descriptor).
void snap_size_mappings(snap_proc *p, unsigned filter);
// Builds the notes (PT_NOTE contents) into out.
void snap_build_notes(const snap_proc *p, snap_buf *out);
// Computes the file layout from the sized mappings and the notes' size:
// 0, or -1 when the core does not fit the ELF class.
int snap_plan(const snap_proc *p, uint64_t notes_size, snap_layout *lay);
// Streams the whole core to fd: exactly lay->total bytes, or -1 with the
// reason recorded (the output failed).
int snap_write_core(const snap_proc *p, const snap_buf *notes, const snap_layout *lay, int fd);

// Reads len bytes of the address space of pid (mem_fd: its /proc/PID/mem) at
// addr into buf; pages that cannot be read come out as zeros.  Returns the
// number of such zero-filled bytes.
uint64_t snap_read_mem(int pid, int mem_fd, uint64_t addr, unsigned char *buf, size_t len,
                       unsigned pagesize);

// Fills the process-wide facts of p (psinfo, auxv, eflags): 0 or -1.
int snap_read_proc(snap_proc *p);

// The memsnap program: memsnap -c FILE PID.
int snap_main(int argc, char **argv);
