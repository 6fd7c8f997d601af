// Formatter table shared by the architectures: each architecture maps its
// call numbers onto a strace_fmt and reads its registers; the text is made
// here.
#include "trace.h"

#include "common.h"
#include "proc.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/net.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

namespace {

// Appends like chained snprintf calls: never writes past size, keeps the text
// NUL-terminated where there is room, and counts what would have been written.
// Text and numbers are put in directly: a line is made at every system-call
// stop, and format-string parsing was a good part of the tracer's own time.
struct fmt_buf {
    char *buf;
    int size;
    int pos;

    char *at() { return buf + (pos < size ? pos : size); }
    size_t room() const { return pos < size ? static_cast<size_t>(size - pos) : 0; }

    // snprintf(at(), room(), "%.*s", n, p) and its count.
    fmt_buf &put(const char *p, size_t n)
    {
        if (pos < size) {
            size_t room = static_cast<size_t>(size - pos);
            size_t k = n < room - 1 ? n : room - 1;
            memcpy(buf + pos, p, k);
            buf[pos + static_cast<int>(k)] = '\0';
        }
        pos += static_cast<int>(n);
        return *this;
    }
    fmt_buf &s(const char *p) { return put(p, strlen(p)); }
    // "%lu", "%lx" (also "%u", "%x" for values that fit), "%ld" ("%d").
    fmt_buf &u(unsigned long v) { return digits(v, 10, false); }
    fmt_buf &x(unsigned long v) { return digits(v, 16, false); }
    fmt_buf &d(long v)
    {
        return v < 0 ? digits(0ul - static_cast<unsigned long>(v), 10, true)
                     : digits(static_cast<unsigned long>(v), 10, false);
    }

    void addc(char c)
    {
        if (pos < size)
            buf[pos] = c;
        pos++;
        if (pos < size)
            buf[pos] = '\0';
    }
    void added(int n)
    {
        if (n > 0)
            pos += n;
    }

private:
    fmt_buf &digits(unsigned long v, unsigned base, bool minus)
    {
        char text[3 * sizeof v + 2];
        char *end = text + sizeof text;
        char *p = end;
        do {
            *--p = "0123456789abcdef"[v % base];
            v /= base;
        } while (v);
        if (minus)
            *--p = '-';
        return put(p, static_cast<size_t>(end - p));
    }
};

long ptrace_word(int req, int pid, unsigned long addr, unsigned long *val)
{
    errno = 0;
    long v = ptrace(static_cast<__ptrace_request>(req), pid, reinterpret_cast<void *>(addr),
                    nullptr);
    *val = static_cast<unsigned long>(v);
    return (v == -1 && errno) ? -1 : 0;
}

int pt_getregs(void *, int pid, void *block)
{
    return ptrace(static_cast<__ptrace_request>(PTRACE_GETREGS), pid, nullptr, block) == -1 ? -1
                                                                                           : 0;
}

int pt_peekuser(void *, int pid, unsigned long off, unsigned long *val)
{
    return static_cast<int>(ptrace_word(PTRACE_PEEKUSER, pid, off, val));
}

int pt_peekdata(void *, int pid, unsigned long addr, unsigned long *val)
{
    return static_cast<int>(ptrace_word(PTRACE_PEEKDATA, pid, addr, val));
}

int pt_pokeuser(void *, int pid, unsigned long off, unsigned long val)
{
    return ptrace(static_cast<__ptrace_request>(PTRACE_POKEUSER), pid,
                  reinterpret_cast<void *>(off), reinterpret_cast<void *>(val)) == -1
               ? -1
               : 0;
}

long pt_readmem(void *, int pid, unsigned long addr, void *buf, unsigned long len)
{
    iovec local = {buf, len};
    iovec remote = {reinterpret_cast<void *>(addr), len};
    return process_vm_readv(pid, &local, 1, &remote, 1, 0);
}

int pt_fdinfo(void *, int pid, int fd, char *buf, int size)
{
    return proc_fdinfo_lookup(pid, fd, buf, size);
}

int pt_mem_pread(void *, int pid, void *buf, unsigned len, int64_t off)
{
    return proc_mem_pread(pid, buf, len, off);
}

} // namespace

const trace_reader trace_ptrace_reader = {
    nullptr, pt_getregs, pt_peekuser, pt_peekdata, pt_pokeuser, pt_readmem, pt_fdinfo,
    pt_mem_pread,
};

const char *const socketcall_names[32] = {
    nullptr,   "socket",  "bind",     "connect",     "listen",      "accept",
    "getsockname", "getpeername", "socketpair", "send", "recv", "sendto",
    "recvfrom", "shutdown", "setsockopt", "getsockopt", "sendmsg", "recvmsg",
    "accept4",
};

int strace_format_fd(int pid, char *buf, int size, int fd, const trace_reader *rd)
{
    char tmp[128];
    fmt_buf o = {buf, size, 0};
    int n = rd->fdinfo(rd->arg, pid, fd, tmp, sizeof tmp);
    if (n >= 1) {
        if (n > static_cast<int>(sizeof tmp) - 1)
            n = sizeof tmp - 1;
        tmp[n] = '\0';
        o.d(fd).s(" ").s(tmp);
    } else {
        o.d(fd);
    }
    return o.pos;
}

int strace_format_string(int pid, char *buf, int size, unsigned long addr, long len,
                         const trace_reader *rd)
{
    fmt_buf o = {buf, size, 0};
    long limit;
    if (len >= 1 && len <= 64)
        limit = len;
    else if (len == -1 || len >= 65)
        limit = 32;
    else {
        o.s("\"\"");
        return o.pos;
    }

    // Byte i is shown only when the whole word at addr + i can be read (one
    // PTRACE_PEEKDATA per byte).  One bulk read of the span that those words
    // cover gives the same bytes; when it comes back short, the words are
    // peeked one by one.
    constexpr long W = sizeof(unsigned long);
    unsigned char bulk[64 + W];
    long have = 0;
    if (rd->readmem) {
        long want = limit + W - 1;
        if (rd->readmem(rd->arg, pid, addr, bulk, static_cast<unsigned long>(want)) == want)
            have = limit;
    }

    o.addc('"');
    for (long i = 0; i < limit; i++) {
        if (o.pos + 3 >= size)
            break;
        unsigned c;
        if (i < have) {
            c = bulk[i];
        } else {
            unsigned long word;
            if (rd->peekdata(rd->arg, pid, addr + static_cast<unsigned long>(i), &word) == -1)
                break;
            c = word & 0xff;
        }
        if (c == 0 && len == -1)
            break;
        if (c == '\n') {
            o.addc('\\');
            o.addc('n');
        } else if (c == '\r') {
            o.addc('\\');
            o.addc('r');
        } else if (c == '\t') {
            o.addc('\\');
            o.addc('t');
        } else if (isprint(c) && !iscntrl(c)) {
            o.addc(static_cast<char>(c));
        } else {
            o.s("\\x").x(c);
        }
    }
    o.addc('"');
    return o.pos;
}

int strace_format_timespec(int pid, char *buf, int size, unsigned long addr, int more,
                           const trace_reader *rd)
{
    fmt_buf o = {buf, size, 0};
    unsigned long sec, nsec;
    rd->peekdata(rd->arg, pid, addr, &sec);
    rd->peekdata(rd->arg, pid, addr + sizeof(unsigned long), &nsec);
    o.s("{ ").d(static_cast<long>(sec)).s(", ").d(static_cast<long>(nsec)).s(" }").s(more ? ", " : ")");
    return o.pos;
}

namespace {
// "%lu, %lu, %lu, %lu, %lu, %lu)": the arguments of a call without a formatter.
void raw_args(fmt_buf &o, unsigned long a1, unsigned long a2, unsigned long a3,
              unsigned long a4, unsigned long a5, unsigned long a6)
{
    o.u(a1).s(", ").u(a2).s(", ").u(a3).s(", ").u(a4).s(", ").u(a5).s(", ").u(a6).s(")");
}
}  // namespace

int strace_format_sockcall(int pid, char *buf, int size, int subcall, unsigned long a1,
                           unsigned long a2, unsigned long a3, unsigned long a4,
                           unsigned long a5, unsigned long a6, const trace_reader *rd)
{
    fmt_buf o = {buf, size, 0};
    auto fd = [&](unsigned long v) {
        o.added(strace_format_fd(pid, o.at(), static_cast<int>(o.room()), static_cast<int>(v), rd));
    };
    auto str = [&](unsigned long addr, long n) {
        o.added(strace_format_string(pid, o.at(), static_cast<int>(o.room()), addr, n, rd));
    };
    switch (subcall) {
    case SYS_SOCKET:
        o.u(a1).s(", ").u(a2).s(", ").u(a3).s(")");
        break;
    case SYS_BIND:
    case SYS_CONNECT:
        fd(a1);
        o.s(", 0x").x(a2).s(", ").d(static_cast<long>(a3)).s(")");
        break;
    case SYS_SENDTO:
        fd(a1);
        o.s(", ");
        str(a2, static_cast<long>(a3));
        o.s(", ").d(static_cast<long>(a3)).s(", 0x").x(a4).s(", 0x").x(a5).s(", ");
        o.d(static_cast<long>(a6)).s(")");
        break;
    case SYS_RECVFROM:
        fd(a1);
        o.s(", ");
        str(a2, static_cast<long>(a3));
        o.s(", 0x").x(a4).s(", 0x").x(a5).s(", 0x").x(a6).s(")");
        break;
    case SYS_SHUTDOWN:
        fd(a1);
        o.s(", ").d(static_cast<long>(a2)).s(")");
        break;
    case SYS_SETSOCKOPT:
        fd(a1);
        o.s(", ").d(static_cast<long>(a2)).s(", ").d(static_cast<long>(a3));
        o.s(", 0x").x(a4).s(", 0x").x(a5).s(")");
        break;
    case SYS_SENDMSG:
        fd(a1);
        o.s(", 0x").x(a2).s(", ").x(static_cast<unsigned>(a3)).s(")");
        break;
    case SYS_RECVMSG:
        fd(a1);
        o.s(", 0x").x(a2).s(", ").d(static_cast<long>(a3)).s(")");
        break;
    default:
        raw_args(o, a1, a2, a3, a4, a5, a6);
        break;
    }
    return o.pos;
}

namespace {

const char *ptrace_request_name(unsigned long req)
{
    switch (req) {
    case PTRACE_PEEKTEXT: return "PTRACE_PEEKTEXT";
    case PTRACE_PEEKDATA: return "PTRACE_PEEKDATA";
    case PTRACE_PEEKUSER: return "PTRACE_PEEKUSER";
    case PTRACE_POKETEXT: return "PTRACE_POKETEXT";
    case PTRACE_POKEDATA: return "PTRACE_POKEDATA";
    case PTRACE_POKEUSER: return "PTRACE_POKEUSER";
    case PTRACE_ATTACH: return "PTRACE_ATTACH";
    case PTRACE_SYSCALL: return "PTRACE_SYSCALL";
    default: return nullptr;
    }
}

// One call's arguments on their way into the line: a1..a6 are a[0]..a[5].
struct call_args {
    fmt_buf &o;
    int pid;
    const trace_reader *rd;
    const unsigned long *a;
    long result;
    int entry;

    long d(int k) const { return static_cast<long>(a[k]); }
    // A descriptor with its /proc description.
    void fd(unsigned long v)
    {
        o.added(strace_format_fd(pid, o.at(), static_cast<int>(o.room()), static_cast<int>(v), rd));
    }
    // A quoted tracee string of n bytes (-1: up to its NUL).
    void str(unsigned long addr, long n)
    {
        o.added(strace_format_string(pid, o.at(), static_cast<int>(o.room()), addr, n, rd));
    }
    void sock(int sub, const unsigned long *b)
    {
        o.added(strace_format_sockcall(pid, o.at(), static_cast<int>(o.room()), sub, b[0], b[1],
                                       b[2], b[3], b[4], b[5], rd));
    }
};

// Calls on a descriptor.  False when kind is none of them.
bool descriptor_args(call_args &c, int kind)
{
    fmt_buf &o = c.o;
    switch (kind) {
    case SF_READ:
        c.fd(c.a[0]);
        o.s(", ");
        if (!c.entry && c.result > 0)
            c.str(c.a[1], c.result);
        else
            o.s("0x").x(c.a[1]);
        o.s(", ").d(c.d(2)).s(")");
        return true;
    case SF_WRITE:
        c.fd(c.a[0]);
        o.s(", ");
        c.str(c.a[1], c.d(2));
        o.s(", ").d(c.d(2)).s(")");
        return true;
    case SF_CLOSE:
        c.fd(c.a[0]);
        o.s(")");
        return true;
    case SF_LSEEK:
        c.fd(c.a[0]);
        o.s(", ").d(c.d(1)).s(", ").d(c.d(2)).s(")");
        return true;
    case SF_IOCTL:
        c.fd(c.a[0]);
        o.s(", ").d(c.d(1)).s(", ").x(c.a[2]).s(", ").x(c.a[3]).s(", ").x(c.a[4]);
        o.s(", ").x(c.a[5]).s(")");
        return true;
    case SF_FSTAT:
        c.fd(c.a[0]);
        o.s(", 0x").x(c.a[1]).s(")");
        return true;
    default:
        return false;
    }
}

// Calls on a path.  False when kind is none of them.
bool path_args(call_args &c, int kind)
{
    fmt_buf &o = c.o;
    switch (kind) {
    case SF_OPEN:
        c.str(c.a[0], -1);
        o.s(", ").d(c.d(1)).s(", ").d(c.d(2)).s(")");
        return true;
    case SF_OPENAT:
        if (static_cast<int>(c.a[0]) == AT_FDCWD)
            o.s("AT_FDCWD");
        else
            c.fd(c.a[0]);
        o.s(", ");
        c.str(c.a[1], -1);
        o.s(", ").d(c.d(2)).s(", ").d(c.d(3)).s(")");
        return true;
    case SF_ACCESS:
        c.str(c.a[0], -1);
        o.s(", 0x").x(static_cast<unsigned>(c.a[1])).s(")");
        return true;
    case SF_STAT:
        c.str(c.a[0], -1);
        o.s(", 0x").x(c.a[1]).s(")");
        return true;
    default:
        return false;
    }
}

// Calls on memory and addresses.  False when kind is none of them.
bool memory_args(call_args &c, int kind)
{
    fmt_buf &o = c.o;
    switch (kind) {
    case SF_TIME:
    case SF_BRK:
        o.s("0x").x(c.a[0]).s(")");
        return true;
    case SF_MMAP:
        o.s("0x").x(c.a[0]).s(", ").u(c.a[1]).s(", 0x").x(c.a[2]).s(", 0x").x(c.a[3]).s(", ");
        c.fd(c.a[4]);
        o.s(", ").u(c.a[5]).s(")");
        return true;
    case SF_MUNMAP:
        o.s("0x").x(c.a[0]).s(", ").u(c.a[1]).s(")");
        return true;
    case SF_TIMEOFDAY:
        o.s("0x").x(c.a[0]).s(", 0x").x(c.a[1]).s(")");
        return true;
    case SF_POLL:
        o.s("0x").x(c.a[0]).s(", ").d(c.d(1)).s(", ").d(c.d(2)).s(")");
        return true;
    default:
        return false;
    }
}

// Calls on processes and time.  False when kind is none of them.
bool process_args(call_args &c, int kind)
{
    fmt_buf &o = c.o;
    switch (kind) {
    case SF_WAITPID:
        // Decimal behind "0x", as it has always been printed.
        o.s("0x").d(c.d(0)).s(", 0x").x(c.a[1]).s(", ").d(c.d(2));
        o.s(")");
        return true;
    case SF_PTRACE: {
        const char *req = ptrace_request_name(c.a[0]);
        if (req)
            o.s(req);
        else
            o.d(c.d(0));
        o.s(", ").u(c.a[1]).s(", 0x").x(c.a[2]).s(", 0x").x(c.a[3]).s(")");
        return true;
    }
    case SF_NANOSLEEP:
        o.added(strace_format_timespec(c.pid, o.at(), static_cast<int>(o.room()), c.a[0], 1, c.rd));
        o.added(strace_format_timespec(c.pid, o.at(), static_cast<int>(o.room()), c.a[1], 0, c.rd));
        return true;
    default:
        return false;
    }
}

// exit and exit_group: the code, then the exit notice, which may list
// descriptors through the same buffer: the line is kept intact across it.
void exit_args(strace_ctx *ctx, call_args &c, char *buf, int size, unsigned long *block)
{
    fmt_buf &o = c.o;
    o.d(c.d(0)).s(")");
    if (!ctx)
        return;
    int len = o.pos < size ? o.pos : size - 1;
    unique_heap<char[]> save;
    if (len > 0)
        save = heap_buffer(static_cast<size_t>(len));
    if (save)
        memcpy(save.get(), buf, static_cast<size_t>(len));
    strace_exit(ctx, c.pid, 2, static_cast<int>(c.a[0]), block);
    if (save) {
        memcpy(buf, save.get(), static_cast<size_t>(len));
        buf[len] = '\0';
    }
}

// The argument words of a socketcall.  Asks /proc/PID/mem for each with the
// block address as the length and 4 as the offset: the reads fail and every
// place keeps the socketcall's own register value.  At most one word is taken.
void socketcall_places(int pid, const unsigned long *a, unsigned long *place,
                       const trace_reader *rd)
{
    for (int k = 0; k < 6; k++) {
        unsigned len = static_cast<unsigned>(a[1]);
        if (len > sizeof place[k])
            len = sizeof place[k];
        rd->mem_pread(rd->arg, pid, &place[k], len, 4);
    }
}

}  // namespace

int strace_format_syscall(strace_ctx *ctx, int entry, const strace_call &call, int pid,
                          const char *procname, char *buf, int size, unsigned long *block,
                          const trace_reader *rd)
{
    const char *name = call.name;
    const int kind = call.kind;
    const int subcall = call.subcall;
    fmt_buf o = {buf, size, 0};
    const unsigned long a[6] = {block[SA_A1], block[SA_A2], block[SA_A3],
                                block[SA_A4], block[SA_A5], block[SA_A6]};
    long result = static_cast<long>(block[SA_RESULT]);
    call_args c = {o, pid, rd, a, result, entry};

    unsigned long place[6] = {a[0], a[1], a[2], a[3], a[4], a[5]};
    if (kind == SF_SOCKETCALL) {
        name = socketcall_names[a[0] & 31];
        socketcall_places(pid, a, place, rd);
    }

    o.s("[").d(pid).s(" ").s(procname).s("] [").x(block[SA_PC]).s(" ").x(block[SA_RA]);
    o.s("] ").s(name ? name : "(null)").s("(");

    if (kind == SF_EXIT)
        exit_args(ctx, c, buf, size, block);
    else if (kind == SF_SOCKETCALL)
        c.sock(static_cast<int>(a[0]), place);
    else if (kind == SF_SOCK)
        c.sock(subcall, a);
    else if (!descriptor_args(c, kind) && !path_args(c, kind) && !memory_args(c, kind) &&
             !process_args(c, kind))
        raw_args(o, a[0], a[1], a[2], a[3], a[4], a[5]);

    if (entry)
        return o.pos;
    if (kind == SF_BRK || kind == SF_MMAP)
        o.s(" = 0x").x(block[SA_RESULT]).s("\n");
    else
        o.s(" = ").d(result).s("\n");
    return o.pos;
}

int arch_print_syscall(strace_ctx *ctx, const strace_call &call, int pid, const char *procname,
                       char *buf, int size, unsigned long *block, const trace_reader *rd)
{
    int n = strace_format_syscall(ctx, 1, call, pid, procname, buf, size, block, rd);
    if (size > n + 2) {
        buf[n++] = '\n';
        buf[n] = '\0';
    }
    return n;
}

int arch_print_syscall_ret(strace_ctx *ctx, const strace_call &call, int pid,
                           const char *procname, char *buf, int size, unsigned long *block,
                           const trace_reader *rd)
{
    return strace_format_syscall(ctx, 0, call, pid, procname, buf, size, block, rd);
}
