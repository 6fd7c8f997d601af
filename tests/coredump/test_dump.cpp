// Live core dumps through a scripted stand-in dumper whose report line and
// core are exactly what each case needs.  The archive is read back header by
// header at the offsets the ustar format fixes.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tar.h"
#include "coredump.h"
#include "testutil.h"

namespace {

using testutil::file_content;
using testutil::tar_members;
using testutil::temp_file;

class Dump : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        char tmpl[] = "/tmp/tn-dump-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        static bool initialised = false;
        if (!initialised) {
            ASSERT_GE(dump_init(), 0);
            initialised = true;
        }
    }
    void TearDown() override
    {
        for (pid_t p : children_) {
            kill(-p, SIGKILL);
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
        std::string cmd = "rm -rf " + dir_;
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    // A stand-in dumper: a shell script with this body, run as
    // "DUMPER -c /dev/stdout PID" with an empty environment.
    void dumper(const std::string &body)
    {
        path_ = dir_ + "/dumper";
        std::string text = "#!/bin/sh\n" + body + "\n";
        int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0755);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
        argv_[0] = path_.data();
        argv_[1] = const_cast<char *>("-c");
        argv_[2] = const_cast<char *>("/dev/stdout");
        argv_[3] = nullptr;
        argv_[4] = nullptr;
        dump_set_dumper(argv_);
    }

    // A report line: 8-character label, length, 21-character label, ids.
    static std::string report(const std::string &len, const std::string &ids = "")
    {
        return "printf 'corelen:" + len + " and the threads are:" + ids + "\\n' >&2";
    }

    // A shell started as argv[0] "/usr/bin/prog" with "-x" among its
    // arguments, waiting in a sleep of its own.
    pid_t process() { return process({"/usr/bin/prog", "-c", "sleep 60; :", "-x"}); }

    // A process of /bin/sh started as argv (argv[0] need not be its path).
    pid_t process(std::vector<std::string> args)
    {
        pid_t p = fork();
        if (p == 0) {
            // its own group, so that the sleep it starts dies with it, and no
            // descriptor of the test runner held open
            setpgid(0, 0);
            int null = open("/dev/null", O_RDWR);
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
            std::vector<char *> v;
            for (auto &a : args)
                v.push_back(a.data());
            v.push_back(nullptr);
            execv("/bin/sh", v.data());
            _exit(127);
        }
        children_.push_back(p);
        if (!testutil::wait_exec(p, args[0]))
            ADD_FAILURE() << "process did not start";
        return p;
    }

    // A zombie: its command line reads empty, like a kernel thread's.
    pid_t zombie()
    {
        pid_t p = fork();
        if (p == 0)
            _exit(0);
        children_.push_back(p);
        siginfo_t si;
        EXPECT_EQ(waitid(P_PID, p, &si, WEXITED | WNOWAIT), 0);
        return p;
    }

    // Runs f with standard error going to a file; returns what it printed.
    template <class F> std::string capture_stderr(F f)
    {
        fflush(stderr);
        int saved = dup(2);
        int tmp = temp_file();
        dup2(tmp, 2);
        f();
        fflush(stderr);
        dup2(saved, 2);
        close(saved);
        std::string s = file_content(tmp);
        close(tmp);
        return s;
    }

    // dump_one of pids[index] into a fresh archive; the stream and stderr.
    int dump(std::vector<int32_t> &pids, int index, std::string &out, std::string &err)
    {
        int fd = temp_file();
        tar *t = tar_new(fd, nullptr);
        int r = 0;
        err = capture_stderr(
            [&] { r = dump_one(t, fd, pids.data(), index, static_cast<int>(pids.size())); });
        tar_close(t);
        out = file_content(fd);
        close(fd);
        return r;
    }

    std::string dir_, path_;
    char *argv_[5] = {};
    std::vector<pid_t> children_;
};

std::string ids(pid_t p)
{
    return std::to_string(p);
}

TEST_F(Dump, MembersAreNamedAfterTheProgramsBaseName)
{
    pid_t p = process();
    dumper(report("10") + "\nprintf 0123456789");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    EXPECT_EQ(err, "");
    auto m = tar_members(out);
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0].name, "prog." + ids(p) + "/core");
    EXPECT_EQ(m[0].size, 10u);
    EXPECT_EQ(m[0].data, "0123456789");
    EXPECT_EQ(m[1].name, "prog." + ids(p) + "/fdmap");
    // the descriptor map is a listing of the process's descriptors
    EXPECT_NE(m[1].data.find(" 0 -> "), std::string::npos) << m[1].data;
}

TEST_F(Dump, TheDumperGetsItsFixedArgumentsAndThePid)
{
    pid_t p = process();
    std::string args = "-c /dev/stdout " + ids(p);
    dumper(report(std::to_string(args.size())) + "\nprintf '%s' \"$*\"");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    auto m = tar_members(out);
    ASSERT_GE(m.size(), 1u);
    EXPECT_EQ(m[0].data, args);
}

TEST_F(Dump, AnEmptyCommandLineGivesADirectoryOfThePidAlone)
{
    pid_t z = zombie();
    dumper(report("3") + "\nprintf abc");
    std::vector<int32_t> pids{z};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    auto m = tar_members(out);
    ASSERT_GE(m.size(), 1u);
    EXPECT_EQ(m[0].name, "." + ids(z) + "/core");
}

TEST_F(Dump, AnUnreadableCommandLineGivesUnknown)
{
    // above any pid the kernel hands out
    int32_t gone = 0x7ffffff0;
    dumper(report("3") + "\nprintf abc");
    std::vector<int32_t> pids{gone};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    auto m = tar_members(out);
    ASSERT_GE(m.size(), 1u);
    EXPECT_EQ(m[0].name, "unknown." + std::to_string(gone) + "/core");
}

TEST_F(Dump, ThreadsOfTheReportAreErasedOnceEachFromTheIndexOn)
{
    pid_t p = process();
    dumper(report("3", "12 13") + "\nprintf abc");
    std::vector<int32_t> pids{12, p, 12, 13, 12, 13, 99};
    std::string out, err;
    EXPECT_EQ(dump(pids, 1, out, err), 0);
    EXPECT_EQ(pids, (std::vector<int32_t>{12, p, -1, -1, 12, 13, 99}));
}

TEST_F(Dump, AFailingDumperKeepsTheCoreButGivesNoDescriptorMap)
{
    pid_t p = process();
    dumper(report("5") + "\nprintf hello\nexit 1");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    auto m = tar_members(out);
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].name, "prog." + ids(p) + "/core");
    EXPECT_EQ(m[0].data, "hello");
    EXPECT_EQ(err, "dump error for pid " + ids(p));
}

TEST_F(Dump, LengthZeroGivesNoMember)
{
    pid_t p = process();
    dumper(report("0") + "\nprintf ignored");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(Dump, AReportLineOf256BytesWithoutNewlineGivesNoMember)
{
    pid_t p = process();
    dumper("printf '%0256d' 5 >&2\nprintf hello");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "failed to read ctl line.\n");
}

TEST_F(Dump, AReportThatEndsWithoutNewlineGivesNoMember)
{
    pid_t p = process();
    dumper("printf 'corelen:5' >&2\nprintf hello");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    EXPECT_EQ(out, "");
}

TEST_F(Dump, AShortCoreWarnsAndThePromisedLengthIsCounted)
{
    pid_t p = process();
    dumper(report("1000") + "\nprintf 0123456789");
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    EXPECT_EQ(err, "WARNING: err=10 clen=1000 pid=" + ids(p) + "\n");
    // the next header follows 1000 declared bytes: 512 + 10 + (1024 - 1000)
    ASSERT_GE(out.size(), 546u + 512u);
    EXPECT_EQ(std::string(out.data() + 546), "prog." + ids(p) + "/fdmap");
}

TEST_F(Dump, AClientThatGoesAwayDuringTheCopyGives32)
{
    pid_t p = process();
    dumper(report("4194304") + "\nexec /usr/bin/head -c 4194304 /dev/zero");
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    std::thread reader([&] {
        char buf[4096];
        size_t got = 0;
        while (got < 65536) {
            ssize_t n = read(sv[1], buf, sizeof buf);
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
        }
        close(sv[1]);
    });
    std::vector<int32_t> pids{p};
    tar *t = tar_new(sv[0], nullptr);
    int r = 0;
    std::string err = capture_stderr([&] { r = dump_one(t, sv[0], pids.data(), 0, 1); });
    reader.join();
    tar_close(t);
    close(sv[0]);
    EXPECT_EQ(r, 32);
    EXPECT_EQ(err.rfind("ABORT!\n", 0), 0u) << err;
}

TEST_F(Dump, AMissingDumperGivesNoMemberAndAnError)
{
    pid_t p = process();
    path_ = dir_ + "/absent";
    argv_[0] = path_.data();
    argv_[1] = const_cast<char *>("-c");
    argv_[2] = const_cast<char *>("/dev/stdout");
    argv_[3] = argv_[4] = nullptr;
    dump_set_dumper(argv_);
    std::vector<int32_t> pids{p};
    std::string out, err;
    EXPECT_EQ(dump(pids, 0, out, err), 0);
    EXPECT_EQ(out, "");
    // the child's execve failure, then ours
    EXPECT_NE(err.find("dump error for pid " + ids(p)), std::string::npos) << err;
}

TEST_F(Dump, CoredumpStreamsTheBareCore)
{
    pid_t p = process();
    dumper(report("5") + "\nprintf hello");
    int fd = temp_file();
    int r = -1;
    std::string err = capture_stderr([&] { r = coredump(fd, p); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(file_content(fd), "hello");
    EXPECT_EQ(err, "");
    close(fd);
}

TEST_F(Dump, CoredumpReportsAFailedDumperWithANewline)
{
    pid_t p = process();
    dumper(report("5") + "\nprintf hello\nexit 2");
    int fd = temp_file();
    int r = -1;
    std::string err = capture_stderr([&] { r = coredump(fd, p); });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(file_content(fd), "hello");
    EXPECT_EQ(err, "dump error for pid " + ids(p) + "\n");
    close(fd);
}

// ---- the report-line parser alone ----

int parse(std::string line, std::vector<int32_t> &pids, int index)
{
    std::vector<char> buf(line.begin(), line.end());
    buf.resize(line.size() + 1);
    return dump_parse_report(buf.data(), static_cast<int>(line.size()), pids.data(), index,
                             static_cast<int>(pids.size()));
}

TEST(DumpReport, LengthAtOffset8AndIdsAfter21Characters)
{
    std::vector<int32_t> pids{5, 6, 7, 8};
    EXPECT_EQ(parse("corelen:123456 and the threads are:6 8\n", pids, 0), 123456);
    EXPECT_EQ(pids, (std::vector<int32_t>{5, -1, 7, -1}));
}

TEST(DumpReport, DigitsInsideTheLabelAreNotIds)
{
    // the 21 characters after the length are skipped whatever they hold
    std::vector<int32_t> pids{1, 2, 3};
    EXPECT_EQ(parse("xxxxxxxx7 12345678901234567890 3\n", pids, 0), 7);
    EXPECT_EQ(pids, (std::vector<int32_t>{1, 2, -1}));
}

TEST(DumpReport, NoIdsLeavesTheListAlone)
{
    std::vector<int32_t> pids{5, 6};
    EXPECT_EQ(parse("corelen:42 and the threads are:\n", pids, 0), 42);
    EXPECT_EQ(pids, (std::vector<int32_t>{5, 6}));
}

TEST(DumpReport, IdsBeforeTheIndexStay)
{
    std::vector<int32_t> pids{6, 5, 6};
    parse("corelen:1 and the threads are:6\n", pids, 1);
    EXPECT_EQ(pids, (std::vector<int32_t>{6, 5, -1}));
}

}  // namespace
