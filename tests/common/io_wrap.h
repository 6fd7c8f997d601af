// Test seam around read(2) and write(2) (linked with --wrap): records the
// calls made on one watched descriptor and injects failures into them.
#pragma once

#include <sys/types.h>

#include <vector>

struct io_call {
    size_t asked;
    ssize_t got;
    int err;
};

namespace iowrap {
void watch_read(int fd);
void watch_write(int fd);
void reset();
// After skip calls pass through, the next n calls on the watched descriptor
// fail with err without doing anything.
void fail_reads(int n, int err, int skip = 0);
void fail_writes(int n, int err, int skip = 0);
// Writes on the watched descriptor transfer at most this many bytes (0: no cap).
void cap_writes(size_t max);
std::vector<io_call> reads();
std::vector<io_call> writes();
} // namespace iowrap
