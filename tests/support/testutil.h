// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

// Skips a test that traces processes when the tests run under qemu-user,
// which has no ptrace; the emulated board runs it.
#define NEED_PTRACE()                                                                          \
    do {                                                                                       \
        if (testutil::emulated())                                                              \
            GTEST_SKIP() << "[qemu-user] qemu-user has no ptrace; the emulated board runs this"; \
    } while (0)

namespace testutil {

// Whether the tests run under qemu-user (the cross build's unit tests).
inline bool emulated()
{
    return getenv("TOOLNEST_TEST_EMULATED") != nullptr;
}

// A pipe whose ends close when it goes out of scope (or earlier, on request).
struct Pipe {
    int r = -1, w = -1;
    Pipe()
    {
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        r = p[0];
        w = p[1];
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe()
    {
        close_r();
        close_w();
    }
    void close_r()
    {
        if (r >= 0)
            close(r);
        r = -1;
    }
    void close_w()
    {
        if (w >= 0)
            close(w);
        w = -1;
    }
    // Closes the write end and returns everything that was written.
    std::string finish();
};

// Everything readable from fd until end of input.
inline std::string read_all(int fd)
{
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

inline std::string Pipe::finish()
{
    close_w();
    return read_all(r);
}

// A temporary file, already unlinked, holding content; positioned at its start.
inline int temp_file(const std::string &content = "")
{
    char name[] = "/tmp/tn-test-XXXXXX";
    int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    unlink(name);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    lseek(fd, 0, SEEK_SET);
    return fd;
}

// The whole content of a file descriptor, read from its start.
inline std::string file_content(int fd)
{
    lseek(fd, 0, SEEK_SET);
    return read_all(fd);
}

// Waits until cond() holds, checking every millisecond, for at most seconds:
// whether it came true.  Deadlines are generous; a loaded machine running
// sanitizers must never make a correct program miss one.
template <typename Cond> bool wait_until(Cond cond, int seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// waitpid(pid, status, 0) that gives up after seconds: pid, or 0 when the
// process has not changed state by then, or -1.
inline pid_t waitpid_deadline(pid_t pid, int *status, int seconds)
{
    pid_t w = 0;
    wait_until([&] { return (w = waitpid(pid, status, WNOHANG)) != 0; }, seconds);
    return w;
}

// A field of /proc/PID/status (of thread TID when given) without its name
// and blanks: "S (sleeping)" for "State"; "" once the process has gone.
inline std::string status_field(pid_t pid, const char *key, pid_t tid = 0)
{
    char path[96];
    if (tid)
        snprintf(path, sizeof path, "/proc/%d/task/%d/status", pid, tid);
    else
        snprintf(path, sizeof path, "/proc/%d/status", pid);
    FILE *f = fopen(path, "r");
    if (!f)
        return "";
    char line[256];
    std::string v;
    size_t k = strlen(key);
    while (fgets(line, sizeof line, f))
        if (strncmp(line, key, k) == 0 && line[k] == ':') {
            v = line + k + 1;
            v.erase(0, v.find_first_not_of(" \t"));
            v.erase(v.find_last_not_of(" \t\n") + 1);
            break;
        }
    fclose(f);
    return v;
}

// The state letter of a process ('S' sleeping, 't' traced, ...), '?' once
// it has gone.
inline char state_of(pid_t pid, pid_t tid = 0)
{
    std::string st = status_field(pid, "State", tid);
    return st.empty() ? '?' : st[0];
}

// The thread ids of pid, sorted.
inline std::vector<pid_t> tasks(pid_t pid)
{
    std::vector<pid_t> out;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task", pid);
    DIR *d = opendir(path);
    if (!d)
        return out;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            out.push_back(atoi(e->d_name));
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

// Waits until a forked child has exec'd the program it was started with:
// its command line begins with argv0.  The command line shows the new
// program's arguments only once the exec is through (its name and its
// executable change before).
inline bool wait_exec(pid_t pid, const std::string &argv0, int seconds = 60)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    return wait_until([&] {
        char buf[256] = {};
        FILE *f = fopen(path, "r");
        if (!f)
            return false;
        size_t n = fread(buf, 1, sizeof buf - 1, f);
        fclose(f);
        return n > 0 && argv0 == buf;
    }, seconds);
}

// Waits until the forked child pid runs another program than this one (its
// exe link changed), whatever program that is: a shell that execs in turn
// may be past its own name before a look at its command line.
inline bool wait_exec_away(pid_t pid, int seconds = 60)
{
    char self[256] = {}, link[64];
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0)
        return false;
    snprintf(link, sizeof link, "/proc/%d/exe", pid);
    return wait_until([&] {
        char exe[256] = {};
        return readlink(link, exe, sizeof exe - 1) > 0 && strcmp(exe, self) != 0;
    }, seconds);
}

// Waits until pid sleeps in a blocking call: an exec'd program is settled
// only once its loader has finished opening and closing libraries.  False
// when the process has gone or the deadline passed.
inline bool wait_sleeping(pid_t pid, int seconds = 60)
{
    char st = '?';
    wait_until([&] { return (st = state_of(pid)) == 'S' || st == '?'; }, seconds);
    return st == 'S';
}

// Waits until pid has count threads and every one sleeps (parked in a
// blocking call, so that what the test reads of them holds still).
inline bool wait_threads_parked(pid_t pid, size_t count, int seconds = 60)
{
    return wait_until([&] {
        std::vector<pid_t> ts = tasks(pid);
        if (ts.size() != count)
            return false;
        for (pid_t t : ts)
            if (state_of(pid, t) != 'S')
                return false;
        return true;
    }, seconds);
}

// A member of a stream written by the tar writer, read at the offsets the
// ustar format fixes.
struct TarMember {
    std::string name;
    size_t size = 0;
    size_t offset = 0;  // of the header
    std::string data;
};

// The members of a stream of headers whose data ends padded to 512 bytes;
// *end (when given) is where the last member's padding ends.
inline std::vector<TarMember> tar_members(const std::string &s, size_t *end = nullptr)
{
    std::vector<TarMember> out;
    size_t off = 0;
    while (off + 512 <= s.size()) {
        TarMember m;
        m.name.assign(s.data() + off, strnlen(s.data() + off, 100));
        m.size = strtoul(std::string(s.data() + off + 124, 12).c_str(), nullptr, 8);
        m.offset = off;
        m.data = s.substr(off + 512, m.size);
        out.push_back(m);
        off += 512 + (m.size + 511) / 512 * 512;
    }
    if (end)
        *end = off;
    return out;
}

} // namespace testutil
