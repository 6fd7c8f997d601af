// Formatter table shared by the architectures: each architecture maps its
// call numbers onto a strace_fmt and reads its registers; the text is made
// here.
#include "trace.h"

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

// "%lu, %lu, %lu, %lu, %lu, %lu)": the arguments of a call without a formatter.
static void raw_args(fmt_buf &o, unsigned long a1, unsigned long a2, unsigned long a3,
                     unsigned long a4, unsigned long a5, unsigned long a6)
{
    o.u(a1).s(", ").u(a2).s(", ").u(a3).s(", ").u(a4).s(", ").u(a5).s(", ").u(a6).s(")");
}

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

static const char *ptrace_request_name(unsigned long req)
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

int strace_format_syscall(strace_ctx *ctx, int entry, const char *name, int pid,
                          const char *procname, char *buf, int size, unsigned long *block,
                          const trace_reader *rd)
{
    fmt_buf o = {buf, size, 0};
    unsigned long a1 = block[SA_A1], a2 = block[SA_A2], a3 = block[SA_A3];
    unsigned long a4 = block[SA_A4], a5 = block[SA_A5], a6 = block[SA_A6];
    long result = static_cast<long>(block[SA_RESULT]);
    int subcall = 0;
    int kind = arch_call_format(block[SA_NR], &subcall);

    auto fd = [&](unsigned long v) {
        o.added(strace_format_fd(pid, o.at(), static_cast<int>(o.room()), static_cast<int>(v), rd));
    };
    auto str = [&](unsigned long addr, long n) {
        o.added(strace_format_string(pid, o.at(), static_cast<int>(o.room()), addr, n, rd));
    };
    auto sock = [&](int sub, unsigned long b1, unsigned long b2, unsigned long b3,
                    unsigned long b4, unsigned long b5, unsigned long b6) {
        o.added(strace_format_sockcall(pid, o.at(), static_cast<int>(o.room()), sub, b1, b2, b3,
                                       b4, b5, b6, rd));
    };

    unsigned long place[6] = {a1, a2, a3, a4, a5, a6};
    if (kind == SF_SOCKETCALL) {
        name = socketcall_names[a1 & 31];
        // Asks /proc/PID/mem for each argument word with the block address as
        // the length and 4 as the offset: the reads fail and every place keeps
        // the socketcall's own register value.  At most one word is taken.
        for (int k = 0; k < 6; k++) {
            unsigned len = static_cast<unsigned>(a2);
            if (len > sizeof place[k])
                len = sizeof place[k];
            rd->mem_pread(rd->arg, pid, &place[k], len, 4);
        }
    }

    o.s("[").d(pid).s(" ").s(procname).s("] [").x(block[SA_PC]).s(" ").x(block[SA_RA]);
    o.s("] ").s(name ? name : "(null)").s("(");

    switch (kind) {
    case SF_EXIT:
        o.d(static_cast<long>(a1)).s(")");
        if (ctx) {
            // The exit notice may list descriptors through the same buffer:
            // keep this line intact across it.
            int len = o.pos < size ? o.pos : size - 1;
            char *save = len > 0 ? static_cast<char *>(malloc(static_cast<size_t>(len))) : nullptr;
            if (save)
                memcpy(save, buf, static_cast<size_t>(len));
            strace_exit(ctx, pid, 2, static_cast<int>(a1), block);
            if (save) {
                memcpy(buf, save, static_cast<size_t>(len));
                buf[len] = '\0';
                free(save);
            }
        }
        break;
    case SF_READ:
        fd(a1);
        o.s(", ");
        if (!entry && result > 0)
            str(a2, result);
        else
            o.s("0x").x(a2);
        o.s(", ").d(static_cast<long>(a3)).s(")");
        break;
    case SF_WRITE:
        fd(a1);
        o.s(", ");
        str(a2, static_cast<long>(a3));
        o.s(", ").d(static_cast<long>(a3)).s(")");
        break;
    case SF_OPEN:
        str(a1, -1);
        o.s(", ").d(static_cast<long>(a2)).s(", ").d(static_cast<long>(a3)).s(")");
        break;
    case SF_OPENAT:
        if (static_cast<int>(a1) == AT_FDCWD)
            o.s("AT_FDCWD");
        else
            fd(a1);
        o.s(", ");
        str(a2, -1);
        o.s(", ").d(static_cast<long>(a3)).s(", ").d(static_cast<long>(a4)).s(")");
        break;
    case SF_CLOSE:
        fd(a1);
        o.s(")");
        break;
    case SF_WAITPID:
        // Decimal behind "0x", as it has always been printed.
        o.s("0x").d(static_cast<long>(a1)).s(", 0x").x(a2).s(", ").d(static_cast<long>(a3));
        o.s(")");
        break;
    case SF_TIME:
    case SF_BRK:
        o.s("0x").x(a1).s(")");
        break;
    case SF_LSEEK:
        fd(a1);
        o.s(", ").d(static_cast<long>(a2)).s(", ").d(static_cast<long>(a3)).s(")");
        break;
    case SF_PTRACE: {
        const char *req = ptrace_request_name(a1);
        if (req)
            o.s(req);
        else
            o.d(static_cast<long>(a1));
        o.s(", ").u(a2).s(", 0x").x(a3).s(", 0x").x(a4).s(")");
        break;
    }
    case SF_ACCESS:
        str(a1, -1);
        o.s(", 0x").x(static_cast<unsigned>(a2)).s(")");
        break;
    case SF_IOCTL:
        fd(a1);
        o.s(", ").d(static_cast<long>(a2)).s(", ").x(a3).s(", ").x(a4).s(", ").x(a5);
        o.s(", ").x(a6).s(")");
        break;
    case SF_TIMEOFDAY:
        o.s("0x").x(a1).s(", 0x").x(a2).s(")");
        break;
    case SF_MMAP:
        o.s("0x").x(a1).s(", ").u(a2).s(", 0x").x(a3).s(", 0x").x(a4).s(", ");
        fd(a5);
        o.s(", ").u(a6).s(")");
        break;
    case SF_MUNMAP:
        o.s("0x").x(a1).s(", ").u(a2).s(")");
        break;
    case SF_SOCKETCALL:
        sock(static_cast<int>(a1), place[0], place[1], place[2], place[3], place[4], place[5]);
        break;
    case SF_STAT:
        str(a1, -1);
        o.s(", 0x").x(a2).s(")");
        break;
    case SF_FSTAT:
        fd(a1);
        o.s(", 0x").x(a2).s(")");
        break;
    case SF_NANOSLEEP:
        o.added(strace_format_timespec(pid, o.at(), static_cast<int>(o.room()), a1, 1, rd));
        o.added(strace_format_timespec(pid, o.at(), static_cast<int>(o.room()), a2, 0, rd));
        break;
    case SF_POLL:
        o.s("0x").x(a1).s(", ").d(static_cast<long>(a2)).s(", ").d(static_cast<long>(a3)).s(")");
        break;
    case SF_SOCK:
        sock(subcall, a1, a2, a3, a4, a5, a6);
        break;
    default:
        raw_args(o, a1, a2, a3, a4, a5, a6);
        break;
    }

    if (entry)
        return o.pos;
    if (kind == SF_BRK || kind == SF_MMAP)
        o.s(" = 0x").x(block[SA_RESULT]).s("\n");
    else
        o.s(" = ").d(result).s("\n");
    return o.pos;
}

int arch_print_syscall(strace_ctx *ctx, const char *name, int pid, const char *procname,
                       char *buf, int size, unsigned long *block, const trace_reader *rd)
{
    int n = strace_format_syscall(ctx, 1, name, pid, procname, buf, size, block, rd);
    if (size > n + 2) {
        buf[n++] = '\n';
        buf[n] = '\0';
    }
    return n;
}

int arch_print_syscall_ret(strace_ctx *ctx, const char *name, int pid, const char *procname,
                           char *buf, int size, unsigned long *block, const trace_reader *rd)
{
    return strace_format_syscall(ctx, 0, name, pid, procname, buf, size, block, rd);
}
