// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <string>

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

} // namespace testutil
