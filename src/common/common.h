// Common services: descriptor I/O that survives interruptions, and the one
// way toolnest starts external programs.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

// Reads until len bytes arrived or end of input; EINTR/EAGAIN are retried at
// once.  Returns the bytes read (short only at end of input) or -1 (errno set).
int safe_read(int fd, void *buf, unsigned len);

// Writes all len bytes; EINTR/EAGAIN are retried at once.  Returns len or -1.
int safe_write(int fd, const void *buf, unsigned len);

// Copies in to out until end of input through a 16384-byte stack buffer.
// Returns the bytes written, or -1 when the reader of out went away (EPIPE).
int safe_copyfd(int in, int out);

// Milliseconds on the monotonic clock: for deadlines that a change of the
// wall clock must not move.
long long monotonic_ms();

// How long a peer may accept no byte of what we have for it before we give
// up on it: a browser, a listener or a dumper's reader that stops reading
// must never hold the device (its processes stopped or traced) for longer.
constexpr int stall_limit_ms = 30 * 1000;

// Writes all len bytes like safe_write, but gives up when the descriptor
// accepts no byte for limit_ms: -1 with errno ETIMEDOUT.  Any progress
// restarts the clock, so a slow but moving reader is never cut.  The
// descriptor's flags are left alone (its file may be shared with another
// process).  Returns len or -1 (errno set).
int safe_write_within(int fd, const void *buf, unsigned len, int limit_ms);

// Copies in to out until end of input like safe_copyfd, each write bounded
// by limit_ms as in safe_write_within.  Returns the bytes written, or -1
// when the reader of out went away (EPIPE) or took nothing for the limit
// (ETIMEDOUT), or the input failed.
int safe_copyfd_within(int in, int out, int limit_ms);

// Writes count bytes of blank text lines (79 spaces and a newline each).
void pad_ascii(int fd, int count);

// Starts path with argv (no PATH search) with stdin/stdout/stderr wired to the
// given descriptors; traceme makes the child stop at its execve for a tracer.
// envp may be null (empty environment).  Returns the child's pid or -1.
int sys_run_envp_nowait(const char *path, char *const argv[], char *const envp[],
                        int fd_in, int fd_out, int fd_err, int traceme);
// As above, always with an empty environment.
int sys_run_nowait(const char *path, char *const argv[], int fd_in, int fd_out,
                   int fd_err, int traceme);
// As sys_run_nowait, then waits: the child's exit code (0..255); a child killed
// by a signal yields 0.
int sys_run(const char *path, char *const argv[], int fd_in, int fd_out, int fd_err,
            int traceme);


// Owns a descriptor and closes it when it goes out of scope.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&o) noexcept : fd_(o.release()) {}
    unique_fd &operator=(unique_fd &&o) noexcept
    {
        if (this != &o)
            reset(o.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Owners of the other resources, released when they go out of scope; a null
// pointer is left alone.  release() hands a resource back to code that must
// close it at a given point, or see the result of closing it.
struct file_closer {
    void operator()(FILE *f) const { fclose(f); }
};
struct dir_closer {
    void operator()(DIR *d) const { closedir(d); }
};
struct heap_freer {
    void operator()(void *p) const { free(p); }
};
// A stdio stream (fopen, fdopen, setmntent).
using unique_file = std::unique_ptr<FILE, file_closer>;
// A directory stream (opendir, fdopendir).
using unique_dir = std::unique_ptr<DIR, dir_closer>;
// A block from malloc, calloc or asprintf: unique_heap<char[]> for a buffer,
// unique_heap<record> for one record.
template <typename T> using unique_heap = std::unique_ptr<T, heap_freer>;

// A buffer of size bytes (zero-filled when asked), null without memory.
inline unique_heap<char[]> heap_buffer(size_t size, bool zeroed = false)
{
    return unique_heap<char[]>(static_cast<char *>(zeroed ? calloc(1, size) : malloc(size)));
}

// A library's own handle, given back through its release function.
template <auto Release> struct release_with {
    template <typename T> void operator()(T *p) const { Release(p); }
};
template <typename T, auto Release> using unique_with = std::unique_ptr<T, release_with<Release>>;
