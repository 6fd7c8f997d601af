// Writes a sample archive to standard output with every way the writer is
// used: data through tar_write, data written directly and declared with
// tar_fakewrite, filled-up promised lengths, block-boundary sizes, a
// duplicate name and a name of exactly 100 bytes.  check_tar.py knows the
// same member list and reads the result with independent readers.
//
// Usage: tar_sample [PREFIX]      (no argument: no prefix at all)

#include "tar.h"

#include "common.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

std::string pattern(size_t n, unsigned seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = static_cast<char>((i * 31 + seed) & 0xff);
    return s;
}

void member(tar *t, const char *name, const std::string &data)
{
    tar_addfile(t, name, static_cast<uint32_t>(data.size()));
    tar_write(t, data.data(), static_cast<uint32_t>(data.size()));
}

} // namespace

int main(int argc, char **argv)
{
    const char *prefix = argc > 1 ? argv[1] : nullptr;
    const int out = 1;
    tar *t = tar_new(out, prefix);
    if (!t)
        return 1;

    tar_addfile(t, "empty", 0);
    member(t, "one", "x");
    member(t, "b511", pattern(511, 1));
    member(t, "b512", pattern(512, 2));
    member(t, "b513", pattern(513, 3));

    // Data poured in by the caller itself, then declared.
    std::string copied = pattern(3000, 4);
    int p[2];
    if (pipe(p) != 0 || safe_write(p[1], copied.data(), 3000) != 3000)
        return 1;
    close(p[1]);
    tar_addfile(t, "copied", 3000);
    int n = safe_copyfd(p[0], out);
    close(p[0]);
    if (n != 3000)
        return 1;
    tar_fakewrite(t, 3000);

    // A promised length filled up with blank lines, and one with zero bytes.
    const char text[] = "trace line one\ntrace line two\n";
    tar_addfile(t, "promised.txt", 1024);
    tar_write(t, text, 30);
    pad_ascii(out, 1024 - 30);
    tar_fakewrite(t, 1024 - 30);
    tar_addfile(t, "zeros", 700);
    if (stream_pad(out, 700) != 0)
        return 1;
    tar_fakewrite(t, 700);

    member(t, "dup", "first\n");
    member(t, "dup", "second\n");

    size_t plen = prefix ? strlen(prefix) : 0;
    std::string longname(100 - plen, 'n');
    longname.back() = 'E';
    member(t, longname.c_str(), "long\n");

    member(t, "tail", pattern(1000, 5));
    tar_close(t);
    return 0;
}
