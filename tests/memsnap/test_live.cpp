// memsnap on live processes, run the way the toolbox runs it: standard output
// and standard error on two pipes, the report line read first, then exactly
// the promised length from standard output.  qemu-user has no ptrace: the
// tests that dump skip there and run on the emulated board.
#include "memsnap.h"

#include "report_reader.h"

#include "testutil.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using testutil::Pipe;
using testutil::state_of;
using testutil::status_field;
using testutil::tasks;
using testutil::wait_until;

// The build's memsnap, or the installed one on the board (which carries the
// test tree but not the build's programs).
const char *memsnap_bin()
{
    if (access(MEMSNAP_BIN, X_OK) == 0)
        return MEMSNAP_BIN;
    return "/usr/bin/memsnap";
}

double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// One line from fd (through the newline), waiting at most `seconds`.
std::string read_line(int fd, double seconds)
{
    std::string line;
    double end = now() + seconds;
    while (line.empty() || line.back() != '\n') {
        pollfd p = {fd, POLLIN, 0};
        int left = static_cast<int>((end - now()) * 1000);
        if (left <= 0 || poll(&p, 1, left) <= 0)
            break;
        char c;
        if (read(fd, &c, 1) != 1)
            break;
        line += c;
    }
    return line;
}

// The test program with known state, on two pipes.
struct Subject {
    pid_t pid = -1;
    int in = -1, out = -1;
    unsigned long marker_addr = 0, text_addr = 0;

    void start(const char *mode = nullptr)
    {
        Pipe i, o;
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            dup2(i.r, 0);
            dup2(o.w, 1);
            close_range(3, ~0u, 0);
            execl(SNAP_SUBJECT, "snap_subject", mode, static_cast<char *>(nullptr));
            _exit(127);
        }
        in = dup(i.w);
        out = dup(o.r);
        i.close_r();
        o.close_w();
        std::string ready = read_line(out, 60);
        int p = 0;
        ASSERT_EQ(sscanf(ready.c_str(), "ready %d %lx %lx", &p, &marker_addr, &text_addr), 3)
            << "subject said: " << ready;
        ASSERT_EQ(p, pid);
        if (mode)
            return;
        // "ready" comes just before the main thread blocks: wait until every
        // thread sleeps in its parking read.
        ASSERT_TRUE(testutil::wait_threads_parked(pid, 3, 30))
            << "the subject's threads do not all block";
    }
    // Releases the threads; the rest of the output and the exit status.
    std::string finish(int *status)
    {
        close(in);
        in = -1;
        std::string rest = testutil::read_all(out);
        waitpid(pid, status, 0);
        pid = -1;
        return rest;
    }
    ~Subject()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (in >= 0)
            close(in);
        if (out >= 0)
            close(out);
    }
};

// Every thread of pid is untraced and not held in a stop.
void expect_released(int pid, bool stopped_before = false)
{
    std::vector<int> ts = tasks(pid);
    ASSERT_FALSE(ts.empty());
    for (int tid : ts) {
        std::string tracer = status_field(pid, "TracerPid", tid);
        std::string state = status_field(pid, "State", tid);
        // A short-lived thread may have ended since the listing.
        if (tid != pid && (tracer.empty() || state.empty()))
            continue;
        EXPECT_EQ(tracer, "0") << "thread " << tid;
        ASSERT_FALSE(state.empty());
        if (stopped_before) {
            // Let go, a thread of a stopped process runs for a moment and
            // enters the group stop again.
            wait_until([&] { return (state = status_field(pid, "State", tid))[0] == 'T'; }, 30);
            EXPECT_EQ(state[0], 'T') << "thread " << tid << ": " << state;
        } else
            EXPECT_TRUE(state[0] != 't' && state[0] != 'T') << "thread " << tid << ": " << state;
    }
}

struct Dump {
    int status = -1;
    std::string report; // the first line on standard error
    std::string core;   // all of standard output
    std::string more;   // standard error after the report line
};

// memsnap -c /dev/stdout PID with both outputs on pipes, read as the toolbox
// reads them; close_out closes the core's pipe before reading anything.
Dump run_dump(int pid, bool close_out = false, bool as_nobody = false)
{
    Dump d;
    Pipe data, ctl;
    char pidtext[16];
    snprintf(pidtext, sizeof pidtext, "%d", pid);
    const char *bin = memsnap_bin();
    pid_t child = fork();
    if (child == 0) {
        dup2(data.w, 1);
        dup2(ctl.w, 2);
        close_range(3, ~0u, 0);
        if (as_nobody && (setgid(65534) || setuid(65534)))
            _exit(126);
        execl(bin, "memsnap", "-c", "/dev/stdout", pidtext, static_cast<char *>(nullptr));
        _exit(127);
    }
    data.close_w();
    ctl.close_w();
    if (close_out)
        data.close_r();
    d.report = read_line(ctl.r, 60);
    if (!close_out)
        d.core = testutil::read_all(data.r);
    d.more = testutil::read_all(ctl.r);
    waitpid(child, &d.status, 0);
    return d;
}

typedef ReportLine Report;

// The report line with its ids sorted.
Report parse_report(const std::string &line)
{
    Report r = read_report(line);
    std::sort(r.ids.begin(), r.ids.end());
    return r;
}

typedef ElfW(Ehdr) Ehdr;
typedef ElfW(Phdr) Phdr;
typedef ElfW(Nhdr) Nhdr;

// What the core says about itself; structure errors fail the test.
struct CoreView {
    std::vector<int> threads; // NT_PRSTATUS pids in order
    int psinfo = 0, auxv = 0, files = 0, fpregs = 0;
    std::vector<Phdr> loads;
    const std::string *core = nullptr;

    // The bytes at addr as the core holds them, or "" when it does not.
    std::string at(unsigned long addr, size_t len) const
    {
        for (const Phdr &p : loads)
            if (addr >= p.p_vaddr && addr + len <= p.p_vaddr + p.p_filesz)
                return core->substr(p.p_offset + (addr - p.p_vaddr), len);
        return "";
    }
};

void view_core(const std::string &core, CoreView *v)
{
    v->core = &core;
    ASSERT_GE(core.size(), sizeof(Ehdr));
    Ehdr eh;
    memcpy(&eh, core.data(), sizeof eh);
    ASSERT_EQ(memcmp(eh.e_ident, ELFMAG, SELFMAG), 0);
    EXPECT_EQ(eh.e_ident[EI_CLASS], snap_arch_class);
    EXPECT_EQ(eh.e_type, ET_CORE);
    EXPECT_EQ(eh.e_machine, snap_arch_machine);
    ASSERT_EQ(eh.e_phentsize, sizeof(Phdr));
    ASSERT_LE(eh.e_phoff + eh.e_phnum * sizeof(Phdr), core.size());
    uint64_t last_end = 0;
    for (int i = 0; i < eh.e_phnum; i++) {
        Phdr ph;
        memcpy(&ph, core.data() + eh.e_phoff + i * sizeof(Phdr), sizeof ph);
        ASSERT_LE(ph.p_offset + ph.p_filesz, core.size());
        if (i == 0) {
            ASSERT_EQ(ph.p_type, static_cast<unsigned>(PT_NOTE));
            size_t off = ph.p_offset, end = ph.p_offset + ph.p_filesz;
            while (off + sizeof(Nhdr) <= end) {
                Nhdr nh;
                memcpy(&nh, core.data() + off, sizeof nh);
                size_t name = off + sizeof nh;
                size_t desc = name + (nh.n_namesz + 3) / 4 * 4;
                ASSERT_LE(desc + nh.n_descsz, end);
                if (nh.n_type == NT_PRSTATUS && core.compare(name, 5, std::string("CORE\0", 5)) == 0) {
                    elf_prstatus st;
                    ASSERT_EQ(nh.n_descsz, sizeof st);
                    memcpy(&st, core.data() + desc, sizeof st);
                    v->threads.push_back(st.pr_pid);
                }
                v->psinfo += nh.n_type == NT_PRPSINFO;
                v->auxv += nh.n_type == NT_AUXV;
                v->files += nh.n_type == NT_FILE;
                v->fpregs += nh.n_type == NT_PRFPREG;
                off = desc + (nh.n_descsz + 3) / 4 * 4;
            }
            EXPECT_EQ(off, end);
            continue;
        }
        ASSERT_EQ(ph.p_type, static_cast<unsigned>(PT_LOAD));
        EXPECT_GE(ph.p_offset, last_end);
        EXPECT_LE(ph.p_filesz, ph.p_memsz);
        last_end = ph.p_offset + ph.p_filesz;
        v->loads.push_back(ph);
    }
    EXPECT_EQ(last_end, core.size()) << "the last mapping's data ends the core";
}

TEST(Live, ACoreThroughPipesAsTheToolboxReadsIt)
{
    NEED_PTRACE();
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start());
    std::vector<int> before = tasks(s.pid);
    ASSERT_EQ(before.size(), 3u);

    Dump d = run_dump(s.pid);
    ASSERT_TRUE(WIFEXITED(d.status)) << d.status;
    EXPECT_EQ(WEXITSTATUS(d.status), 0) << d.report << d.more;
    EXPECT_EQ(d.more, "");
    ASSERT_EQ(d.report.back(), '\n');
    ASSERT_LT(d.report.size(), 256u);
    EXPECT_EQ(d.report.compare(0, 8, "length: "), 0) << d.report;

    Report r = parse_report(d.report);
    EXPECT_EQ(r.length, d.core.size());
    std::vector<int> others;
    for (int t : before)
        if (t != s.pid)
            others.push_back(t);
    EXPECT_EQ(r.ids, others);

    CoreView v;
    ASSERT_NO_FATAL_FAILURE(view_core(d.core, &v));
    ASSERT_EQ(v.threads.size(), 3u);
    EXPECT_EQ(v.threads[0], s.pid) << "the dumped thread comes first";
    std::vector<int> sorted = v.threads;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, before);
    EXPECT_EQ(v.psinfo, 1);
    EXPECT_EQ(v.auxv, 1);
    EXPECT_EQ(v.files, 1);
    EXPECT_EQ(v.fpregs, 3);

    unsigned long marker = 0x5eed1234UL;
    EXPECT_EQ(v.at(s.marker_addr, sizeof marker), std::string(reinterpret_cast<char *>(&marker), sizeof marker));
    EXPECT_EQ(v.at(s.text_addr, 17), std::string("held on the heap\0", 17));

    expect_released(s.pid);
    int status;
    EXPECT_EQ(s.finish(&status), "bye\n");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the subject's reads were disturbed: " << status;
}

TEST(Live, ACoreIntoAFileHasTheReportedLength)
{
    NEED_PTRACE();
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start());
    char path[] = "/tmp/tn-memsnap-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    Pipe err;
    char pidtext[16];
    snprintf(pidtext, sizeof pidtext, "%d", s.pid);
    pid_t child = fork();
    if (child == 0) {
        dup2(err.w, 2);
        close_range(3, ~0u, 0);
        execl(memsnap_bin(), "memsnap", "-c", path, pidtext, static_cast<char *>(nullptr));
        _exit(127);
    }
    int status;
    waitpid(child, &status, 0);
    std::string text = err.finish();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    struct stat st;
    ASSERT_EQ(stat(path, &st), 0);
    unlink(path);
    EXPECT_EQ(parse_report(text).length, static_cast<unsigned long long>(st.st_size)) << text;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "cores may hold secrets";
    expect_released(s.pid);
    EXPECT_EQ(s.finish(&status), "bye\n");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Live, AClosedPipeFailsWithOneLineAndReleasesTheProcess)
{
    NEED_PTRACE();
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start());
    Dump d = run_dump(s.pid, true);
    ASSERT_TRUE(WIFEXITED(d.status)) << "killed by signal " << (WIFSIGNALED(d.status) ? WTERMSIG(d.status) : 0);
    EXPECT_NE(WEXITSTATUS(d.status), 0);
    EXPECT_EQ(d.report.compare(0, 8, "length: "), 0) << d.report;
    EXPECT_EQ(d.more, "memsnap: cannot write the core: Broken pipe\n");
    expect_released(s.pid);
    int status;
    EXPECT_EQ(s.finish(&status), "bye\n");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Live, WithoutPermissionItFailsWithOneLine)
{
    NEED_PTRACE();
    if (getuid() != 0)
        GTEST_SKIP() << "[root] needs root to drop to another user";
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start());
    Dump d = run_dump(s.pid, false, true);
    ASSERT_TRUE(WIFEXITED(d.status));
    EXPECT_EQ(WEXITSTATUS(d.status), 1);
    EXPECT_EQ(d.report, "memsnap: cannot attach to process " + std::to_string(s.pid) +
                            ": Operation not permitted\n");
    EXPECT_EQ(d.more, "");
    EXPECT_EQ(d.core, "");
    // The reader finds no length in such a line.
    EXPECT_EQ(parse_report(d.report).length, 0u);
    expect_released(s.pid);
    int status;
    EXPECT_EQ(s.finish(&status), "bye\n");
}

TEST(Live, AStoppedProcessStaysStopped)
{
    NEED_PTRACE();
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start());
    kill(s.pid, SIGSTOP);
    wait_until([&] { return state_of(s.pid) == 'T'; }, 30);  // the stop has taken hold
    Dump d = run_dump(s.pid);
    ASSERT_TRUE(WIFEXITED(d.status));
    EXPECT_EQ(WEXITSTATUS(d.status), 0) << d.report << d.more;
    EXPECT_EQ(parse_report(d.report).length, d.core.size());
    expect_released(s.pid, true);
    kill(s.pid, SIGCONT);
    int status;
    EXPECT_EQ(s.finish(&status), "bye\n");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Live, ThreadsComingAndGoingDuringTheDump)
{
    NEED_PTRACE();
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start("churn"));
    for (int round = 0; round < 5; round++) {
        Dump d = run_dump(s.pid);
        ASSERT_TRUE(WIFEXITED(d.status));
        ASSERT_EQ(WEXITSTATUS(d.status), 0) << d.report << d.more;
        Report r = parse_report(d.report);
        ASSERT_EQ(r.length, d.core.size());
        CoreView v;
        ASSERT_NO_FATAL_FAILURE(view_core(d.core, &v));
        // main, alpha, beta, the churner and whichever short-lived one was there
        EXPECT_GE(v.threads.size(), 4u);
        EXPECT_EQ(v.threads.size(), r.ids.size() + 1);
        EXPECT_EQ(v.threads[0], s.pid);
    }
    expect_released(s.pid);
    int status;
    std::string bye = s.finish(&status);
    EXPECT_EQ(bye.compare(0, 4, "bye "), 0) << bye;
    EXPECT_GT(atol(bye.c_str() + 4), 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Live, AThreadIdDumpsItsWholeProcessWithThatThreadFirst)
{
    NEED_PTRACE();
    Subject s;
    ASSERT_NO_FATAL_FAILURE(s.start());
    std::vector<int> all = tasks(s.pid);
    ASSERT_EQ(all.size(), 3u);
    int tid = all[0] == s.pid ? all[1] : all[0];
    Dump d = run_dump(tid);
    ASSERT_TRUE(WIFEXITED(d.status));
    EXPECT_EQ(WEXITSTATUS(d.status), 0) << d.report << d.more;
    Report r = parse_report(d.report);
    EXPECT_EQ(r.length, d.core.size());
    std::vector<int> others;
    for (int t : all)
        if (t != tid)
            others.push_back(t);
    EXPECT_EQ(r.ids, others) << "the leader and the third thread";
    CoreView v;
    ASSERT_NO_FATAL_FAILURE(view_core(d.core, &v));
    ASSERT_EQ(v.threads.size(), 3u);
    EXPECT_EQ(v.threads[0], tid);
    expect_released(s.pid);
    int status;
    EXPECT_EQ(s.finish(&status), "bye\n");
}

// A kernel thread: no user memory, and ptrace refuses it.
int kernel_thread()
{
    DIR *d = opendir("/proc");
    if (!d)
        return -1;
    int found = -1;
    while (dirent *e = readdir(d)) {
        int pid = atoi(e->d_name);
        if (pid <= 1)
            continue;
        if (status_field(pid, "Kthread") == "1" ||
            (status_field(pid, "PPid") == "2" && status_field(pid, "VmSize").empty())) {
            found = pid;
            break;
        }
    }
    closedir(d);
    return found;
}

TEST(Live, AKernelThreadGivesOneLine)
{
    NEED_PTRACE();
    int pid = kernel_thread();
    if (pid < 0)
        GTEST_SKIP() << "[pid-namespace] no kernel thread visible in this pid namespace";
    Dump d = run_dump(pid);
    ASSERT_TRUE(WIFEXITED(d.status));
    EXPECT_EQ(WEXITSTATUS(d.status), 1);
    EXPECT_EQ(d.report, "memsnap: cannot attach to process " + std::to_string(pid) +
                            ": Operation not permitted\n");
    EXPECT_EQ(d.more, "");
    EXPECT_EQ(d.core, "");
}

// snap_main in a child process with stdout and stderr on pipes: runs under
// qemu-user as well (no ptrace is reached).
Dump run_main(std::vector<std::string> args)
{
    Dump d;
    Pipe out, err;
    pid_t child = fork();
    if (child == 0) {
        dup2(out.w, 1);
        dup2(err.w, 2);
        close_range(3, ~0u, 0);
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        _exit(snap_main(static_cast<int>(args.size()), argv.data()));
    }
    d.core = out.finish();
    d.report = err.finish();
    waitpid(child, &d.status, 0);
    return d;
}

TEST(Errors, AnUnknownPidGivesOneLine)
{
    // A pid that was just freed.
    pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    waitpid(gone, nullptr, 0);
    Dump d = run_main({"memsnap", "-c", "/dev/stdout", std::to_string(gone)});
    ASSERT_TRUE(WIFEXITED(d.status));
    EXPECT_EQ(WEXITSTATUS(d.status), 1);
    EXPECT_EQ(d.report, "memsnap: process " + std::to_string(gone) + ": No such process\n");
    EXPECT_EQ(d.core, "");
    EXPECT_EQ(parse_report(d.report).length, 0u);
}

TEST(Errors, AMissingOrBadArgumentGivesTheUsage)
{
    for (auto args : std::vector<std::vector<std::string>>{{"memsnap"},
                                                           {"memsnap", "-c", "/dev/stdout"},
                                                           {"memsnap", "-x", "/dev/stdout", "1"},
                                                           {"memsnap", "-c", "/dev/stdout", "12x"},
                                                           {"memsnap", "-c", "/dev/stdout", "0"},
                                                           {"memsnap", "-c", "/dev/stdout", "1", "2"}}) {
        Dump d = run_main(args);
        ASSERT_TRUE(WIFEXITED(d.status));
        EXPECT_EQ(WEXITSTATUS(d.status), 2);
        EXPECT_EQ(d.report, "usage: memsnap -c FILE PID\n");
        EXPECT_EQ(d.core, "");
    }
}

TEST(Errors, AnUnwritableFileGivesOneLine)
{
    Dump d = run_main({"memsnap", "-c", "/nonexistent/dir/core", "1"});
    ASSERT_TRUE(WIFEXITED(d.status));
    EXPECT_EQ(WEXITSTATUS(d.status), 1);
    EXPECT_EQ(d.report, "memsnap: cannot open /nonexistent/dir/core: No such file or directory\n");
}

} // namespace
