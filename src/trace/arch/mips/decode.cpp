// MIPS o32: system calls 4000 and up, arguments 1-4 in a0-a3, 5 and 6 on the
// user stack at sp+16 and sp+20.
#include "trace.h"

#include <stddef.h>
#include <string.h>

#include <asm/ptrace.h>
#include <stdio.h>
#include <sys/syscall.h>

#include <linux/net.h>

const char *const syscall_names[] = {
#include "syscall_names.inc"
};
const int syscall_names_count = sizeof syscall_names / sizeof syscall_names[0];
const long syscall_names_base = 4000;
static_assert(sizeof syscall_names / sizeof syscall_names[0] == 932);
static_assert(__NR_Linux == 4000);

static_assert(sizeof(strace_regs) == 304, "the PTRACE_GETREGS block");
static_assert(sizeof(struct pt_regs) == sizeof(strace_regs));

namespace {
enum { R_V0 = 2, R_A0 = 4, R_SP = 29, R_RA = 31, S_PC = 37 };

unsigned long user_word(const trace_reader *rd, int pid, unsigned long off)
{
    unsigned long v;
    rd->peekuser(rd->arg, pid, off, &v);
    return v;
}

unsigned long data_word(const trace_reader *rd, int pid, unsigned long addr)
{
    unsigned long v;
    rd->peekdata(rd->arg, pid, addr, &v);
    return v;
}

// Arguments 5 and 6, the words at sp + 16 and sp + 20: one bulk read when
// both words can be read that way (the same bytes PTRACE_PEEKDATA gives),
// else word by word, where a failed read gives -1 as before.
void stack_args(const trace_reader *rd, int pid, unsigned long sp, unsigned long *a5,
                unsigned long *a6)
{
    uint32_t w[2];
    if (rd->readmem && rd->readmem(rd->arg, pid, sp + 16, w, sizeof w) == sizeof w) {
        *a5 = w[0];
        *a6 = w[1];
        return;
    }
    *a5 = data_word(rd, pid, sp + 16);
    *a6 = data_word(rd, pid, sp + 20);
}

// The low word of the 64-bit value at byte offset off of a PTRACE_GETREGS
// block (the device is little-endian).
uint32_t word_at(const strace_regs *r, size_t off)
{
    return r->w[off / 4];
}

uint32_t gpr(const strace_regs *r, int k)
{
    return word_at(r, offsetof(struct pt_regs, regs) + 8 * static_cast<size_t>(k));
}
} // namespace

int arch_call_format(unsigned long nr, int *subcall)
{
    switch (nr) {
    case __NR_exit:
    case __NR_exit_group: return SF_EXIT;
    case __NR_read: return SF_READ;
    case __NR_write: return SF_WRITE;
    case __NR_open: return SF_OPEN;
    case __NR_close: return SF_CLOSE;
    case __NR_waitpid: return SF_WAITPID;
    case __NR_time: return SF_TIME;
    case __NR_lseek: return SF_LSEEK;
    case __NR_ptrace: return SF_PTRACE;
    case __NR_access: return SF_ACCESS;
    case __NR_brk: return SF_BRK;
    case __NR_ioctl: return SF_IOCTL;
    case __NR_gettimeofday:
    case __NR_settimeofday: return SF_TIMEOFDAY;
    case __NR_mmap:
    case __NR_mmap2: return SF_MMAP;
    case __NR_munmap: return SF_MUNMAP;
    case __NR_socketcall: return SF_SOCKETCALL;
    case __NR_stat:
    case __NR_lstat: return SF_STAT;
    case __NR_fstat: return SF_FSTAT;
    case __NR_nanosleep: return SF_NANOSLEEP;
    case __NR_poll: return SF_POLL;
    case __NR_bind: *subcall = SYS_BIND; return SF_SOCK;
    case __NR_connect: *subcall = SYS_CONNECT; return SF_SOCK;
    case __NR_recvfrom: *subcall = SYS_RECVFROM; return SF_SOCK;
    case __NR_recvmsg: *subcall = SYS_RECVMSG; return SF_SOCK;
    case __NR_sendmsg: *subcall = SYS_SENDMSG; return SF_SOCK;
    case __NR_sendto: *subcall = SYS_SENDTO; return SF_SOCK;
    case __NR_setsockopt: *subcall = SYS_SETSOCKOPT; return SF_SOCK;
    case __NR_shutdown: *subcall = SYS_SHUTDOWN; return SF_SOCK;
    case __NR_socket: *subcall = SYS_SOCKET; return SF_SOCK;
    default: return SF_DEFAULT;
    }
}


namespace {
// The argument block of the call in r: arguments 5 and 6 are read from the
// stack (sp+16, sp+20) at entry and again at return.  False for a number
// outside the name table.
bool o32_block(int pid, const strace_regs *r, unsigned long result,
                      unsigned long *block, const trace_reader *rd)
{
    unsigned long a5, a6;
    stack_args(rd, pid, r->w[R_SP], &a5, &a6);
    unsigned long nr = r->w[R_V0];
    if (nr - syscall_names_base >= static_cast<unsigned long>(syscall_names_count))
        return false;
    unsigned long b[SA_WORDS] = {r->w[S_PC], r->w[R_RA], nr, r->w[4], r->w[5], r->w[6],
                                 r->w[7], a5, a6, result, 0};
    memcpy(block, b, sizeof b);
    return true;
}
} // namespace

strace_call arch_call(unsigned long nr)
{
    strace_call call = {syscall_names[nr - syscall_names_base], SF_DEFAULT, 0};
    call.kind = arch_call_format(nr, &call.subcall);
    return call;
}

int arch_dec_syscall(strace_ctx *ctx, int pid, const char *procname, char *buf, int size,
                     strace_regs *r, const trace_reader *rd)
{
    if (rd->getregs(rd->arg, pid, r->w) == -1)
        return -1;
    // The one register read of the stop.  PTRACE_GETREGS gives each register
    // as a 64-bit word (struct pt_regs); the snapshot keeps register k in slot
    // k and the program counter in slot 37, the values PTRACE_PEEKUSER would
    // give for them.  Taken out first: the slots overlap the words.
    static const int regs[] = {R_V0, 4, 5, 6, 7, R_SP, R_RA};
    uint32_t value[sizeof regs / sizeof regs[0]];
    for (size_t k = 0; k < sizeof regs / sizeof regs[0]; k++)
        value[k] = gpr(r, regs[k]);
    uint32_t pc = word_at(r, offsetof(struct pt_regs, cp0_epc));
    for (size_t k = 0; k < sizeof regs / sizeof regs[0]; k++)
        r->w[regs[k]] = value[k];
    r->w[S_PC] = pc;
    unsigned long block[SA_WORDS];
    if (!o32_block(pid, r, r->w[R_V0], block, rd))
        return -1;
    int n = arch_print_syscall(ctx, arch_call(r->w[R_V0]), pid, procname, buf, size, block, rd);
    if (block[SA_WB])
        arch_writeback_sc(pid, block, rd);
    return n;
}

int arch_dec_syscall_ret(strace_ctx *ctx, int pid, const char *procname, char *buf, int size,
                         strace_regs *r, strace_regs *ret, const trace_reader *rd)
{
    ret->w[R_V0] = static_cast<uint32_t>(user_word(rd, pid, R_V0));
    // The raw v0: a failing call shows its positive error number (a3 is not
    // consulted).
    unsigned long block[SA_WORDS];
    if (!o32_block(pid, r, ret->w[R_V0], block, rd))
        return -1;
    return arch_print_syscall_ret(ctx, arch_call(r->w[R_V0]), pid, procname, buf, size, block,
                                  rd);
}

void arch_writeback_sc(int pid, unsigned long *block, const trace_reader *rd)
{
    puts("arch_writeback_sc");
    for (int k = 0; k < 4; k++)
        rd->pokeuser(rd->arg, pid, static_cast<unsigned long>(R_A0 + k), block[SA_A1 + k]);
    rd->pokeuser(rd->arg, pid, R_V0, block[SA_RESULT]);
    block[SA_WB] = 0;
}
