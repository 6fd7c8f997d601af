// Entry and return decoding of the build's architecture from synthetic
// registers and memory: run on every build, also under qemu-user.
#include "fake_tracee.h"

#include <gtest/gtest.h>

#include <stddef.h>
#include <stdint.h>
#include <string>
#include <sys/syscall.h>
#if defined(__x86_64__)
#include <sys/user.h>
#endif
#if defined(__mips__)
#include <asm/ptrace.h>
#endif

namespace {

struct exit_seen {
    int calls = 0, pid = 0, kind = 0, code = 0;
};

int record_exit(strace_ctx *, void *arg, int pid, int kind, int code, const unsigned long *)
{
    exit_seen *e = static_cast<exit_seen *>(arg);
    e->calls++;
    e->pid = pid;
    e->kind = kind;
    e->code = code;
    return 1;
}

// One call set up in the synthetic tracee the way the architecture passes it.
struct call {
    fake_tracee t;
    unsigned long sp = 0;

    call() { sp = t.base + 2048; }

#if defined(__mips__)
    static constexpr unsigned long PCV = 0x400100, RAV = 0x400abc;
    // The registers as the kernel hands them out: PTRACE_PEEKUSER by number,
    // and PTRACE_GETREGS as struct pt_regs of sign-extended 64-bit words.
    void set_reg(unsigned long k, unsigned long v)
    {
        t.user[k] = v;
        int64_t wide = static_cast<int32_t>(v);
        size_t off = k == PC ? offsetof(struct pt_regs, cp0_epc)
                             : offsetof(struct pt_regs, regs) + 8 * k;
        memcpy(t.regs_block.data() + off, &wide, sizeof wide);
    }
    void set(unsigned long nr, unsigned long a1 = 0, unsigned long a2 = 0, unsigned long a3 = 0,
             unsigned long a4 = 0, unsigned long a5 = 0, unsigned long a6 = 0)
    {
        set_reg(2, nr);
        set_reg(4, a1);
        set_reg(5, a2);
        set_reg(6, a3);
        set_reg(7, a4);
        set_reg(29, sp);
        set_reg(31, RAV);
        set_reg(PC, PCV);
        t.put_word(sp + 16, a5);
        t.put_word(sp + 20, a6);
    }
    void set_result(unsigned long v) { t.user[2] = v; }
#else
    static constexpr unsigned long PCV = 0x401000;
    unsigned long RAV = 0;
    void set(unsigned long nr, unsigned long a1 = 0, unsigned long a2 = 0, unsigned long a3 = 0,
             unsigned long a4 = 0, unsigned long a5 = 0, unsigned long a6 = 0)
    {
        user_regs_struct u{};
        u.orig_rax = nr;
        u.rax = static_cast<unsigned long>(-ENOSYS);
        u.rdi = a1;
        u.rsi = a2;
        u.rdx = a3;
        u.r10 = a4;
        u.r8 = a5;
        u.r9 = a6;
        u.rip = PCV;
        u.rsp = sp;
        RAV = sp;
        memcpy(t.regs_block.data(), &u, sizeof u);
    }
    void set_result(unsigned long v) { t.user[offsetof(user_regs_struct, rax)] = v; }
#endif

    std::string prefix(const char *name)
    {
        char p[128];
        snprintf(p, sizeof p, "[42 prog] [%lx %lx] %s(", PCV, RAV, name);
        return p;
    }

    strace_regs regs{}, ret{};
    int n = 0;
    char buf[4096];

    std::string entry(strace_ctx *ctx = nullptr, int size = sizeof(buf))
    {
        trace_reader rd = t.reader();
        n = arch_dec_syscall(ctx, 42, "prog", buf, size, &regs, &rd);
        return n < 0 ? std::string("<-1>") : std::string(buf);
    }
    std::string leave(unsigned long result, strace_ctx *ctx = nullptr)
    {
        set_result(result);
        trace_reader rd = t.reader();
        n = arch_dec_syscall_ret(ctx, 42, "prog", buf, sizeof buf, &regs, &ret, &rd);
        return n < 0 ? std::string("<-1>") : std::string(buf);
    }
};

TEST(Decode, WriteHiToStdout)
{
    call c;
    c.t.fds[1] = "/dev/pts/0";
    unsigned long a = c.t.put(0, "hi\n", 3);
    c.set(__NR_write, 1, a, 3);
    std::string head = c.prefix("write") + "1 /dev/pts/0, \"hi\\n\", 3)";
    EXPECT_EQ(c.entry(), head + "\n");
    EXPECT_EQ(c.n, static_cast<int>(head.size()) + 1);
    EXPECT_EQ(c.leave(3), head + " = 3\n");
}

TEST(Decode, LongWriteShowsThirtyTwoBytes)
{
    call c;
    std::string s;
    for (int i = 0; i < 100; i++)
        s += static_cast<char>('a' + i % 26);
    unsigned long a = c.t.put(0, s.data(), s.size());
    c.set(__NR_write, 5, a, 100);
    EXPECT_EQ(c.entry(), c.prefix("write") + "5, \"" + s.substr(0, 32) + "\", 100)\n");
}

TEST(Decode, OpenOfLongPathShowsThirtyTwoBytes)
{
    call c;
    std::string path = "/tmp/a-rather-long-directory-name/and-a-file-name.txt";
    unsigned long a = c.t.put_str(0, path);
    c.set(__NR_open, a, 0x241, 0644);
    EXPECT_EQ(c.entry(), c.prefix("open") + "\"" + path.substr(0, 32) + "\", 577, 420)\n");
    EXPECT_EQ(c.leave(static_cast<unsigned long>(-2)),
              c.prefix("open") + "\"" + path.substr(0, 32) + "\", 577, 420) = -2\n");
}

TEST(Decode, ReadShowsDataOnlyAfterSuccess)
{
    call c;
    c.t.fds[0] = "pipe:[9]";
    unsigned long a = c.t.put(100, "data!", 5);
    c.set(__NR_read, 0, a, 64);
    char hex[32];
    snprintf(hex, sizeof hex, "0x%lx", a);
    EXPECT_EQ(c.entry(), c.prefix("read") + "0 pipe:[9], " + hex + ", 64)\n");
    EXPECT_EQ(c.leave(5), c.prefix("read") + "0 pipe:[9], \"data!\", 64) = 5\n");
    EXPECT_EQ(c.leave(0), c.prefix("read") + "0 pipe:[9], " + hex + ", 64) = 0\n");
}

TEST(Decode, BrkAndMmapResultsInHex)
{
    call c;
    c.set(__NR_brk, 0);
    EXPECT_EQ(c.entry(), c.prefix("brk") + "0x0)\n");
    EXPECT_EQ(c.leave(0x5000), c.prefix("brk") + "0x0) = 0x5000\n");
#if defined(__mips__)
    const int nr_mmap = __NR_mmap2;
    const char *name = "mmap2";
#else
    const int nr_mmap = __NR_mmap;
    const char *name = "mmap";
#endif
    c.t.fds[3] = "/lib/libc.so.6";
    c.set(nr_mmap, 0, 8192, 3, 2, 3, 0);
    EXPECT_EQ(c.entry(), c.prefix(name) + "0x0, 8192, 0x3, 0x2, 3 /lib/libc.so.6, 0)\n");
    EXPECT_EQ(c.leave(0x77f00000), c.prefix(name) +
                                       "0x0, 8192, 0x3, 0x2, 3 /lib/libc.so.6, 0) = 0x77f00000\n");
}

TEST(Decode, NanosleepAndPoll)
{
    call c;
    c.t.put_word(c.t.base + 512, 1);
    c.t.put_word(c.t.base + 512 + sizeof(unsigned long), 500);
    c.set(__NR_nanosleep, c.t.base + 512, c.t.base + 512);
    EXPECT_EQ(c.entry(), c.prefix("nanosleep") + "{ 1, 500 }, { 1, 500 })\n");
    c.set(__NR_poll, 0x1234, 2, static_cast<unsigned long>(-1));
    EXPECT_EQ(c.entry(), c.prefix("poll") + "0x1234, 2, -1)\n");
}

TEST(Decode, SocketCallsAndDefault)
{
    call c;
    c.t.fds[4] = "socket:[5]";
    c.set(__NR_connect, 4, 0x2000, 16);
    EXPECT_EQ(c.entry(), c.prefix("connect") + "4 socket:[5], 0x2000, 16)\n");
    c.set(__NR_socket, 2, 1, 6);
    EXPECT_EQ(c.entry(), c.prefix("socket") + "2, 1, 6)\n");
    c.set(__NR_getppid, 1, 2, 3, 4, 5, 6);
    EXPECT_EQ(c.entry(), c.prefix("getppid") + "1, 2, 3, 4, 5, 6)\n");
    EXPECT_EQ(c.leave(77), c.prefix("getppid") + "1, 2, 3, 4, 5, 6) = 77\n");
    c.set(__NR_close, 4);
    EXPECT_EQ(c.entry(), c.prefix("close") + "4 socket:[5])\n");
    c.set(__NR_lseek, 4, 10, 0);
    EXPECT_EQ(c.entry(), c.prefix("lseek") + "4 socket:[5], 10, 0)\n");
    c.set(__NR_ioctl, 4, 0x5401, 0x10, 0, 0, 0);
    EXPECT_EQ(c.entry(), c.prefix("ioctl") + "4 socket:[5], 21505, 10, 0, 0, 0)\n");
    c.set(__NR_ptrace, 16, 99, 0, 0);
    EXPECT_EQ(c.entry(), c.prefix("ptrace") + "PTRACE_ATTACH, 99, 0x0, 0x0)\n");
    c.set(__NR_ptrace, 7, 99, 0, 5);
    EXPECT_EQ(c.entry(), c.prefix("ptrace") + "7, 99, 0x0, 0x5)\n");
}

TEST(Decode, ExitGroupGivesExitNotice)
{
    call c;
    exit_seen seen;
    strace_ctx ctx{};
    ctx.on_exit = record_exit;
    ctx.arg = &seen;
    char tb[256];
    ctx.buf = tb;
    ctx.bufsize = sizeof tb;
    c.set(__NR_exit_group, 2);
    EXPECT_EQ(c.entry(&ctx), c.prefix("exit_group") + "2)\n");
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.kind, 2);
    EXPECT_EQ(seen.code, 2);
    EXPECT_EQ(seen.pid, 42);
}

TEST(Decode, FailedRegisterReadGivesNothing)
{
    call c;
    c.set(__NR_write, 1, 0, 0);
    c.t.getregs_fails = true;
    EXPECT_EQ(c.entry(), "<-1>");
}

TEST(Decode, TextStaysWithinSize)
{
    call c;
    unsigned long a = c.t.put_str(0, std::string(60, 'x'));
    c.set(__NR_write, 1, a, 60);
    memset(c.buf, 'Z', sizeof c.buf);
    c.entry(nullptr, 40);
    EXPECT_EQ(c.buf[40], 'Z');
    EXPECT_EQ(strlen(c.buf), 39u);
}

#if defined(__mips__)
TEST(DecodeO32, NameTable)
{
    ASSERT_EQ(syscall_names_count, 932);
    EXPECT_EQ(syscall_names_base, 4000);
    EXPECT_STREQ(syscall_names[0], "syscall");
    EXPECT_STREQ(syscall_names[1], "exit");
    EXPECT_STREQ(syscall_names[2], "fork");
    EXPECT_STREQ(syscall_names[3], "read");
    EXPECT_STREQ(syscall_names[18], "unused18");
    EXPECT_STREQ(syscall_names[82], "reserved82");
    EXPECT_STREQ(syscall_names[102], "socketcall");
    EXPECT_STREQ(syscall_names[246], "exit_group");
    EXPECT_STREQ(syscall_names[279], "sys_setaltroot");
    EXPECT_STREQ(syscall_names[332], "perf_counter_open");
    const char *o32_end[] = {"Linux_syscalls", "O32_Linux", "O32_Linux_syscalls", "Linux"};
    for (int i = 0; i < 4; i++)
        EXPECT_STREQ(syscall_names[333 + i], o32_end[i]);
    EXPECT_STREQ(syscall_names[337], "read");
    EXPECT_STREQ(syscall_names[338], "write");
    EXPECT_STREQ(syscall_names[341], "stat");
    EXPECT_STREQ(syscall_names[337 + 291], "perf_counter_open");
    const char *n64_end[] = {"Linux_syscalls", "64_Linux", "64_Linux_syscalls", "Linux"};
    for (int i = 0; i < 4; i++)
        EXPECT_STREQ(syscall_names[629 + i], n64_end[i]);
    EXPECT_STREQ(syscall_names[633], "read");
    EXPECT_STREQ(syscall_names[633 + 295], "perf_counter_open");
    EXPECT_STREQ(syscall_names[929], "Linux_syscalls");
    EXPECT_STREQ(syscall_names[930], "N32_Linux");
    EXPECT_STREQ(syscall_names[931], "N32_Linux_syscalls");
}

TEST(DecodeO32, RegisterSnapshotAndStackArguments)
{
    call c;
    c.set(4300, 1, 2, 3, 4, 55, 66);
    EXPECT_EQ(c.entry(), c.prefix(syscall_names[300]) + "1, 2, 3, 4, 55, 66)\n");
    EXPECT_EQ(c.regs.w[2], 4300u);
    EXPECT_EQ(c.regs.w[4], 1u);
    EXPECT_EQ(c.regs.w[7], 4u);
    EXPECT_EQ(c.regs.w[29], c.sp);
    EXPECT_EQ(c.regs.w[31], call::RAV);
    EXPECT_EQ(c.regs.w[37], call::PCV);
    // At return the stack arguments are read again.
    c.t.put_word(c.sp + 16, 555);
    EXPECT_EQ(c.leave(9), c.prefix(syscall_names[300]) + "1, 2, 3, 4, 555, 66) = 9\n");
    EXPECT_EQ(c.ret.w[2], 9u);
}

TEST(DecodeO32, OneRegisterReadPerStop)
{
    call c;
    c.set(__NR_getpid);
    c.t.log.clear();
    c.entry();
    // Entry: the register block alone; arguments 5 and 6 in one bulk read.
    EXPECT_EQ(c.t.log, std::vector<std::string>{"getregs"});
    EXPECT_EQ(c.t.bulk_reads, 1);
    EXPECT_EQ(c.t.peeks, 0);
    // Return: the result register, and the stack arguments afresh.
    c.t.log.clear();
    c.leave(0);
    EXPECT_EQ(c.t.log, std::vector<std::string>{"user 2"});
    EXPECT_EQ(c.t.bulk_reads, 2);
    EXPECT_EQ(c.t.peeks, 0);
}

TEST(DecodeO32, StackArgumentsWordByWordWithoutBulkRead)
{
    // No bulk reader, or a stack the bulk read cannot cover: PEEKDATA per
    // word, a failed word reading as -1.
    call c;
    c.t.bulk = false;
    c.set(4300, 1, 2, 3, 4, 55, 66);
    EXPECT_EQ(c.entry(), c.prefix(syscall_names[300]) + "1, 2, 3, 4, 55, 66)\n");
    EXPECT_EQ(c.t.peeks, 2);

    call edge;
    edge.sp = edge.t.base + edge.t.mem.size() - 20;  // sp + 20 lies outside the memory
    edge.set(4300, 1, 2, 3, 4);
    edge.t.put_word(edge.sp + 16, 55);
    EXPECT_EQ(edge.entry(), edge.prefix(syscall_names[300]) + "1, 2, 3, 4, 55, 4294967295)\n");
    EXPECT_EQ(edge.t.bulk_reads, 1);
    EXPECT_EQ(edge.t.peeks, 2);
}

TEST(DecodeO32, SnapshotSlotsHoldWhatPeekuserGives)
{
    // Negative values too: the block's words are sign-extended.
    call c;
    c.set(__NR_write, static_cast<unsigned long>(-1), 0x80000000ul, 7, 0xfffffff0ul);
    c.entry();
    for (unsigned long k : {2ul, 4ul, 5ul, 6ul, 7ul, 29ul, 31ul})
        EXPECT_EQ(c.regs.w[k], static_cast<uint32_t>(c.t.user[k])) << "register " << k;
    EXPECT_EQ(c.regs.w[37], static_cast<uint32_t>(c.t.user[PC]));
}

TEST(DecodeO32, MarkerNumberAndRange)
{
    call c;
    c.set(4333, 1, 2, 3, 4, 5, 6);
    EXPECT_EQ(c.entry(), c.prefix("Linux_syscalls") + "1, 2, 3, 4, 5, 6)\n");
    c.set(4931);
    EXPECT_EQ(c.entry(), c.prefix("N32_Linux_syscalls") + "0, 0, 0, 0, 0, 0)\n");
    c.set(4932);
    EXPECT_EQ(c.entry(), "<-1>");
    c.set(3999);
    EXPECT_EQ(c.entry(), "<-1>");
    EXPECT_EQ(c.leave(0), "<-1>");
}

TEST(DecodeO32, ErrorShowsRawV0)
{
    call c;
    c.set(__NR_close, 9);
    c.entry();
    EXPECT_EQ(c.leave(9), c.prefix("close") + "9) = 9\n");
}

TEST(DecodeO32, SocketcallKeepsRegisterValues)
{
    call c;
    c.t.fds[3] = "socket:[1]";
    // connect via socketcall: the places hold the socketcall's own a1..a6.
    c.set(__NR_socketcall, 3, 0x7fff1000, 7, 8, 9, 10);
    EXPECT_EQ(c.entry(), c.prefix("connect") + "3 socket:[1], 0x7fff1000, 7)\n");
    EXPECT_EQ(c.t.preads, 6);
    c.set(__NR_socketcall, 1, 0x7fff1000, 7, 8, 9, 10);
    EXPECT_EQ(c.entry(), c.prefix("socket") + "1, 2147422208, 7)\n");
    c.set(__NR_socketcall, 20, 1, 2, 3, 4, 5);
    EXPECT_EQ(c.entry(), c.prefix("(null)") + "20, 1, 2, 3, 4, 5)\n");
}

TEST(DecodeO32, WaitpidTimeAccess)
{
    call c;
    c.set(__NR_waitpid, 12, 0x100, 1);
    EXPECT_EQ(c.entry(), c.prefix("waitpid") + "0x12, 0x100, 1)\n");
    c.set(__NR_time, 0x200);
    EXPECT_EQ(c.entry(), c.prefix("time") + "0x200)\n");
    unsigned long a = c.t.put_str(0, "/etc/passwd");
    c.set(__NR_access, a, 4);
    EXPECT_EQ(c.entry(), c.prefix("access") + "\"/etc/passwd\", 0x4)\n");
    c.set(__NR_gettimeofday, 0x10, 0);
    EXPECT_EQ(c.entry(), c.prefix("gettimeofday") + "0x10, 0x0)\n");
    c.set(__NR_stat, a, 0x300);
    EXPECT_EQ(c.entry(), c.prefix("stat") + "\"/etc/passwd\", 0x300)\n");
}

TEST(DecodeO32, WritebackHelper)
{
    fake_tracee t;
    trace_reader rd = t.reader();
    unsigned long block[SA_WORDS] = {0, 0, 4004, 1, 2, 3, 4, 5, 6, 77, 1};
    testing::internal::CaptureStdout();
    arch_writeback_sc(5, block, &rd);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "arch_writeback_sc\n");
    ASSERT_EQ(t.pokes.size(), 5u);
    EXPECT_EQ(t.pokes[0], std::make_pair(4ul, 1ul));
    EXPECT_EQ(t.pokes[3], std::make_pair(7ul, 4ul));
    EXPECT_EQ(t.pokes[4], std::make_pair(2ul, 77ul));
    EXPECT_EQ(block[SA_WB], 0u);
}
#endif

#if defined(__x86_64__)
TEST(DecodeX86_64, NameTable)
{
    EXPECT_EQ(syscall_names_base, 0);
    EXPECT_GT(syscall_names_count, __NR_openat);
    EXPECT_STREQ(syscall_names[__NR_read], "read");
    EXPECT_STREQ(syscall_names[__NR_exit_group], "exit_group");
    EXPECT_STREQ(syscall_names[__NR_getppid], "getppid");
    EXPECT_STREQ(syscall_names[__NR_openat], "openat");
    EXPECT_STREQ(syscall_names[400], "syscall_400");
}

TEST(DecodeX86_64, Openat)
{
    call c;
    unsigned long a = c.t.put_str(0, "/etc/hosts");
    c.set(__NR_openat, static_cast<unsigned long>(-100), a, 0, 0);
    EXPECT_EQ(c.entry(), c.prefix("openat") + "AT_FDCWD, \"/etc/hosts\", 0, 0)\n");
    c.t.fds[5] = "/etc";
    c.set(__NR_openat, 5, a, 0, 0);
    EXPECT_EQ(c.entry(), c.prefix("openat") + "5 /etc, \"/etc/hosts\", 0, 0)\n");
}

TEST(DecodeX86_64, RangeAndResult)
{
    call c;
    c.set(static_cast<unsigned long>(syscall_names_count));
    EXPECT_EQ(c.entry(), "<-1>");
    c.set(static_cast<unsigned long>(-1));
    EXPECT_EQ(c.entry(), "<-1>");
    c.set(__NR_close, 9);
    c.entry();
    EXPECT_EQ(c.leave(static_cast<unsigned long>(-9)), c.prefix("close") + "9) = -9\n");
}
#endif

} // namespace
