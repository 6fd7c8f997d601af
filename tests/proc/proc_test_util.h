// Helpers of the /proc tests: child processes with known argv and
// descriptors, and scratch directory trees.
#pragma once

#include "testutil.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace proctest {

using testutil::emulated;

// A child that is killed and reaped when the test ends.
struct Child {
    pid_t pid = -1;
    Child() = default;
    explicit Child(pid_t p) : pid(p) {}
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    Child(Child &&o) noexcept : pid(o.pid) { o.pid = -1; }
    Child &operator=(Child &&o) noexcept
    {
        std::swap(pid, o.pid);
        return *this;
    }
    ~Child()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// Starts path with argv; stdin/stdout/stderr are /dev/null (or out_fd for
// stdout when given) and keep[i] becomes descriptor 3 + i; nothing else is
// inherited.  Returns once the program has started and sleeps (or the exec
// failed: pid -1).
inline Child spawn(const char *path, const std::vector<std::string> &args,
                   const std::vector<int> &keep = {}, int out_fd = -1)
{
    int sync[2];
    if (pipe2(sync, O_CLOEXEC) != 0)
        return Child();
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_RDWR);
        std::vector<int> high;
        for (int fd : keep)
            high.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 200));
        int out_high = out_fd >= 0 ? fcntl(out_fd, F_DUPFD_CLOEXEC, 200) : -1;
        dup2(null_fd, 0);
        dup2(out_high >= 0 ? out_high : null_fd, 1);
        dup2(null_fd, 2);
        for (size_t i = 0; i < high.size(); i++)
            dup2(high[i], 3 + static_cast<int>(i));
        for (int fd = 3 + static_cast<int>(keep.size()); fd < 1024; fd++)
            if (fd != sync[1])
                fcntl(fd, F_SETFD, FD_CLOEXEC);
        execv(path, argv.data());
        int e = errno;
        (void)!write(sync[1], &e, sizeof e);
        _exit(127);
    }
    close(sync[1]);
    int e = 0;
    ssize_t n = read(sync[0], &e, sizeof e);
    close(sync[0]);
    if (pid < 0)
        return Child();
    if (n > 0) {
        waitpid(pid, nullptr, 0);
        return Child();
    }
    testutil::wait_sleeping(pid);
    return Child(pid);
}

// Whether listing "/proc" shows this process.  qemu-user started with -L
// resolves absolute paths inside the sysroot first, and the sysroot has an
// empty /proc of its own, so listings of "/proc" itself come out empty there
// (paths below it, /proc/PID/..., fall through to the real one).
inline bool proc_root_listable()
{
    DIR *d = opendir("/proc/");
    if (!d)
        return false;
    std::string self = std::to_string(getpid());
    bool seen = false;
    while (const dirent *de = readdir(d))
        if (self == de->d_name)
            seen = true;
    closedir(d);
    return seen;
}

#define SKIP_UNLESS_PROC_ROOT_LISTABLE()                                                      \
    do {                                                                                       \
        if (!proctest::proc_root_listable())                                                   \
            GTEST_SKIP() << "[qemu-user] \"/proc\" lists no processes here (qemu-user -L shadows it with " \
                            "the sysroot's empty /proc)";                                      \
    } while (0)

// A pid that no process holds right now: a reaped child's.
inline pid_t vanished_pid()
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

// A scratch directory removed with its contents at the end.
struct TempDir {
    std::string path;
    TempDir()
    {
        char tmpl[] = "/tmp/tn-proc-XXXXXX";
        const char *p = mkdtemp(tmpl);
        path = p ? p : "";
    }
    ~TempDir()
    {
        if (!path.empty()) {
            std::string cmd = "rm -rf '" + path + "'";
            (void)!system(cmd.c_str());
        }
    }
    // Writes data (which may hold NULs) to the relative path, making its directory.
    void write(const std::string &rel, const std::string &data) const
    {
        std::string full = path + "/" + rel;
        std::string dir = full.substr(0, full.rfind('/'));
        mkdir(dir.c_str(), 0755);
        FILE *f = fopen(full.c_str(), "w");
        ASSERT_NE(f, nullptr) << full;
        fwrite(data.data(), 1, data.size(), f);
        fclose(f);
    }
};

inline std::string read_file(const std::string &path)
{
    std::string out;
    FILE *f = fopen(path.c_str(), "r");
    if (!f)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    fclose(f);
    return out;
}

inline std::string readlink_str(const std::string &path)
{
    char buf[4096];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

} // namespace proctest
