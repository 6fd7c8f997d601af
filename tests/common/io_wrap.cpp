#include "io_wrap.h"

#include <errno.h>
#include <unistd.h>

#include <mutex>

extern "C" ssize_t __real_read(int fd, void *buf, size_t len);
extern "C" ssize_t __real_write(int fd, const void *buf, size_t len);

namespace {
std::mutex mu;
int read_fd = -1;
int write_fd = -1;
int read_failures = 0;
int read_skip = 0;
int read_errno = 0;
int write_failures = 0;
int write_skip = 0;
int write_errno = 0;
size_t write_cap = 0;
std::vector<io_call> read_log;
std::vector<io_call> write_log;
} // namespace

extern "C" ssize_t __wrap_read(int fd, void *buf, size_t len)
{
    {
        // The lock is never held across the real call: another thread may be
        // the one that has to make this read return.
        std::unique_lock<std::mutex> lock(mu);
        if (fd != read_fd || read_fd < 0) {
            lock.unlock();
            return __real_read(fd, buf, len);
        }
        if (read_failures > 0 && read_skip > 0) {
            read_skip--;
        } else if (read_failures > 0) {
            read_failures--;
            read_log.push_back({len, -1, read_errno});
            errno = read_errno;
            return -1;
        }
    }
    ssize_t n = __real_read(fd, buf, len);
    int e = errno;
    std::lock_guard<std::mutex> lock(mu);
    read_log.push_back({len, n, n < 0 ? e : 0});
    errno = e;
    return n;
}

extern "C" ssize_t __wrap_write(int fd, const void *buf, size_t len)
{
    size_t todo = len;
    {
        std::unique_lock<std::mutex> lock(mu);
        if (fd != write_fd || write_fd < 0) {
            lock.unlock();
            return __real_write(fd, buf, len);
        }
        if (write_failures > 0 && write_skip > 0) {
            write_skip--;
        } else if (write_failures > 0) {
            write_failures--;
            write_log.push_back({len, -1, write_errno});
            errno = write_errno;
            return -1;
        }
        if (write_cap && todo > write_cap)
            todo = write_cap;
    }
    ssize_t n = __real_write(fd, buf, todo);
    int e = errno;
    std::lock_guard<std::mutex> lock(mu);
    write_log.push_back({len, n, n < 0 ? e : 0});
    errno = e;
    return n;
}

namespace iowrap {
void watch_read(int fd)
{
    std::lock_guard<std::mutex> lock(mu);
    read_fd = fd;
}
void watch_write(int fd)
{
    std::lock_guard<std::mutex> lock(mu);
    write_fd = fd;
}
void reset()
{
    std::lock_guard<std::mutex> lock(mu);
    read_fd = write_fd = -1;
    read_failures = write_failures = 0;
    read_skip = write_skip = 0;
    write_cap = 0;
    read_log.clear();
    write_log.clear();
}
void fail_reads(int n, int err, int skip)
{
    std::lock_guard<std::mutex> lock(mu);
    read_failures = n;
    read_skip = skip;
    read_errno = err;
}
void fail_writes(int n, int err, int skip)
{
    std::lock_guard<std::mutex> lock(mu);
    write_failures = n;
    write_skip = skip;
    write_errno = err;
}
void cap_writes(size_t max)
{
    std::lock_guard<std::mutex> lock(mu);
    write_cap = max;
}
std::vector<io_call> reads()
{
    std::lock_guard<std::mutex> lock(mu);
    return read_log;
}
std::vector<io_call> writes()
{
    std::lock_guard<std::mutex> lock(mu);
    return write_log;
}
} // namespace iowrap
