// x86_64 host backend: the device's line layout and formatters for the calls
// that exist here under the same name.  The call number is orig_rax, the
// arguments rdi, rsi, rdx, r10, r8, r9; the printed addresses are the program
// counter (rip) and, in the place of MIPS's return address, the stack
// pointer (rsp): x86_64 has no link register and rsp is exact at every stop.
#include "trace.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/user.h>

#include <linux/net.h>

const char *const syscall_names[] = {
#include "syscall_names.inc"
};
const int syscall_names_count = sizeof syscall_names / sizeof syscall_names[0];
const long syscall_names_base = 0;

static_assert(sizeof(user_regs_struct) <= sizeof(strace_regs));

namespace {
user_regs_struct uregs(const strace_regs *r)
{
    user_regs_struct u;
    memcpy(&u, r->w, sizeof u);
    return u;
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
    case __NR_openat: return SF_OPENAT;
    case __NR_close: return SF_CLOSE;
    case __NR_time: return SF_TIME;
    case __NR_lseek: return SF_LSEEK;
    case __NR_ptrace: return SF_PTRACE;
    case __NR_access: return SF_ACCESS;
    case __NR_brk: return SF_BRK;
    case __NR_ioctl: return SF_IOCTL;
    case __NR_gettimeofday:
    case __NR_settimeofday: return SF_TIMEOFDAY;
    case __NR_mmap: return SF_MMAP;
    case __NR_munmap: return SF_MUNMAP;
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
void fill_block(const user_regs_struct *u, unsigned long result, unsigned long *block)
{
    block[SA_PC] = u->rip;
    block[SA_RA] = u->rsp;
    block[SA_NR] = u->orig_rax;
    block[SA_A1] = u->rdi;
    block[SA_A2] = u->rsi;
    block[SA_A3] = u->rdx;
    block[SA_A4] = u->r10;
    block[SA_A5] = u->r8;
    block[SA_A6] = u->r9;
    block[SA_RESULT] = result;
    block[SA_WB] = 0;
}
}  // namespace

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
    user_regs_struct u = uregs(r);
    unsigned long nr = u.orig_rax;
    if (nr >= static_cast<unsigned long>(syscall_names_count))
        return -1;
    unsigned long block[SA_WORDS];
    fill_block(&u, nr, block);
    int n = arch_print_syscall(ctx, arch_call(nr), pid, procname, buf, size, block, rd);
    if (block[SA_WB])
        arch_writeback_sc(pid, block, rd);
    return n;
}

int arch_dec_syscall_ret(strace_ctx *ctx, int pid, const char *procname, char *buf, int size,
                         strace_regs *r, strace_regs *ret, const trace_reader *rd)
{
    unsigned long rax;
    rd->peekuser(rd->arg, pid, offsetof(user_regs_struct, rax), &rax);
    memcpy(reinterpret_cast<char *>(ret->w) + offsetof(user_regs_struct, rax), &rax, sizeof rax);
    user_regs_struct u = uregs(r);
    unsigned long nr = u.orig_rax;
    if (nr >= static_cast<unsigned long>(syscall_names_count))
        return -1;
    unsigned long block[SA_WORDS];
    fill_block(&u, rax, block);
    return arch_print_syscall_ret(ctx, arch_call(nr), pid, procname, buf, size, block, rd);
}

void arch_writeback_sc(int pid, unsigned long *block, const trace_reader *rd)
{
    static const size_t args[] = {offsetof(user_regs_struct, rdi), offsetof(user_regs_struct, rsi),
                                  offsetof(user_regs_struct, rdx), offsetof(user_regs_struct, r10)};
    puts("arch_writeback_sc");
    for (int k = 0; k < 4; k++)
        rd->pokeuser(rd->arg, pid, args[k], block[SA_A1 + k]);
    rd->pokeuser(rd->arg, pid, offsetof(user_regs_struct, rax), block[SA_RESULT]);
    block[SA_WB] = 0;
}
