// The compressed archive: a forked filter turns the tar stream coming through
// a pipe into a single-member gzip stream on the client's connection.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "archive.h"
#include "common.h"

namespace {

enum { GZ_BUFSIZE = 16384 };

void put_le32(unsigned char *p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

int write_out(z_stream &zs, unsigned char *out)
{
    unsigned have = GZ_BUFSIZE - zs.avail_out;
    if (have && safe_write_within(STDOUT_FILENO, out, have, stall_limit_ms) < 0)
        return -1;
    return 0;
}

// Header, deflated standard input and trailer onto standard output.  0, or
// -1 at the first failed write.
int compress_stdin(z_stream &zs)
{
    static const unsigned char header[10] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};
    unsigned char in[GZ_BUFSIZE], out[GZ_BUFSIZE];
    uLong crc = crc32(0, nullptr, 0);
    uint32_t total = 0;

    if (safe_write_within(STDOUT_FILENO, header, sizeof header, stall_limit_ms) < 0)
        return -1;
    for (;;) {
        int n = safe_read(STDIN_FILENO, in, sizeof in);
        if (n <= 0)
            break;
        total += static_cast<uint32_t>(n);
        crc = crc32(crc, in, static_cast<uInt>(n));
        zs.next_in = in;
        zs.avail_in = static_cast<uInt>(n);
        while (zs.avail_in) {
            zs.next_out = out;
            zs.avail_out = GZ_BUFSIZE;
            deflate(&zs, Z_NO_FLUSH);
            if (write_out(zs, out) < 0)
                return -1;
        }
    }
    for (;;) {
        zs.next_out = out;
        zs.avail_out = GZ_BUFSIZE;
        int r = deflate(&zs, Z_FINISH);
        if (write_out(zs, out) < 0)
            return -1;
        if (r == Z_STREAM_END)
            break;
    }
    unsigned char trailer[8];
    put_le32(trailer, static_cast<uint32_t>(crc));
    put_le32(trailer + 4, total);
    return safe_write_within(STDOUT_FILENO, trailer, sizeof trailer, stall_limit_ms) < 0 ? -1 : 0;
}

}  // namespace

int gzip_filter()
{
    z_stream zs;
    memset(&zs, 0, sizeof zs);
    // Raw deflate at the fastest level: the header and trailer are ours.
    if (deflateInit2_(&zs, 1, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY, ZLIB_VERSION,
                      static_cast<int>(sizeof(z_stream))) != Z_OK) {
        // No compressor (no memory): nothing is sent, and the composer stops
        // at its next write instead of feeding a filter that cannot work.
        close(STDIN_FILENO);
        return 1;
    }
    int failed = compress_stdin(zs) != 0;
    if (failed)
        // The composer's next write into the pipe then fails with EPIPE.
        close(STDIN_FILENO);
    deflateEnd(&zs);
    return failed;
}

void stream_tar(int fd)
{
    stream_archive(fd, -1);
}

void stream_tgz(int fd)
{
    int p[2];
    // Close-on-exec: a program another thread of the daemon starts meanwhile
    // must not hold the write end, or the filter would never see the end.
    if (pipe2(p, O_CLOEXEC) == -1) {
        perror("pipes");
        return;
    }
    unique_fd rd(p[0]);
    unique_fd wr(p[1]);  // closed first on the way out
    pid_t child = fork();
    if (child == -1) {
        perror("fork");
        return;
    }
    if (child == 0) {
        wr.reset();
        close(STDIN_FILENO);
        if (fd != STDOUT_FILENO) {
            close(STDOUT_FILENO);
            dup2(fd, STDOUT_FILENO);
        }
        dup2(rd.get(), STDIN_FILENO);
        // Nothing else of the parent stays open here (other clients'
        // connections above all), so that they end when the daemon closes them.
        close_range(3, ~0U, 0);
        gzip_filter();
        // _exit: the composer's stdio buffers are the parent's to flush.
        _exit(0);
    }
    rd.reset();
    stream_archive(wr.get(), child);
    // The filter sees the end of the stream only once the write end is shut.
    wr.reset();
    int status;
    waitpid(child, &status, 0);
}
