// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace testutil {

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

} // namespace testutil
