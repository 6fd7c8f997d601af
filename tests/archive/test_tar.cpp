#include "tar.h"
#include "io_wrap.h"

#include "common.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// The writer's record layout is part of its interface.
static_assert(offsetof(tar, prefix) < offsetof(tar, prefix_len));
static_assert(offsetof(tar, prefix_len) < offsetof(tar, fd));
static_assert(offsetof(tar, fd) < offsetof(tar, count));
static_assert(sizeof(tar::prefix_len) == 4 && sizeof(tar::count) == 4);

// Output of a writer: a temporary file, unlinked at once, read back whole.
struct Out {
    int fd = -1;
    Out()
    {
        char name[] = "/tmp/tn-tar-XXXXXX";
        fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        unlink(name);
    }
    ~Out()
    {
        if (fd >= 0)
            close(fd);
    }
    std::string bytes() const
    {
        std::string out;
        char buf[8192];
        off_t at = 0;
        ssize_t n;
        while ((n = pread(fd, buf, sizeof buf, at)) > 0) {
            out.append(buf, static_cast<size_t>(n));
            at += n;
        }
        return out;
    }
};

std::string pattern(size_t n, unsigned seed = 0)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = static_cast<char>((i * 31 + seed) & 0xff);
    return s;
}

std::string field(const std::string &hdr, size_t off, size_t width)
{
    return hdr.substr(off, width);
}

std::string zeros(size_t n)
{
    return std::string(n, '\0');
}

unsigned checksum_of(std::string hdr)
{
    for (size_t i = 148; i < 156; i++)
        hdr[i] = ' ';
    unsigned sum = 0;
    for (unsigned char c : hdr)
        sum += c;
    return sum;
}

// Checks every fixed field of a header and its checksum.
void expect_fixed_fields(const std::string &hdr, uint32_t size)
{
    ASSERT_EQ(hdr.size(), 512u);
    EXPECT_EQ(field(hdr, 100, 8), std::string("0000644\0", 8));
    EXPECT_EQ(field(hdr, 108, 8), std::string("0000100\0", 8));
    EXPECT_EQ(field(hdr, 116, 8), std::string("0000100\0", 8));
    char want[16];
    snprintf(want, sizeof want, "%011lo", static_cast<unsigned long>(size));
    EXPECT_EQ(field(hdr, 124, 12), std::string(want, 11) + '\0');
    EXPECT_EQ(hdr[147], '\0');  // end of mtime
    EXPECT_EQ(hdr[156], '0');
    EXPECT_EQ(field(hdr, 257, 6), std::string("ustar\0", 6));
    EXPECT_EQ(field(hdr, 263, 2), "  ");
    EXPECT_EQ(field(hdr, 265, 32), std::string("admin") + zeros(27));
    EXPECT_EQ(field(hdr, 297, 32), std::string("admin") + zeros(27));
    EXPECT_EQ(field(hdr, 329, 8), zeros(8));
    EXPECT_EQ(field(hdr, 337, 8), zeros(8));
    EXPECT_EQ(field(hdr, 345, 155), zeros(155));
    EXPECT_EQ(field(hdr, 500, 12), zeros(12));

    std::string ck = field(hdr, 148, 8);
    for (int i = 0; i < 6; i++)
        EXPECT_TRUE(ck[i] >= '0' && ck[i] <= '7') << "checksum byte " << i;
    EXPECT_EQ(ck[6], '\0');
    EXPECT_EQ(ck[7], ' ');
    EXPECT_EQ(strtoul(ck.substr(0, 6).c_str(), nullptr, 8), checksum_of(hdr));
}

class Tar : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        iowrap::reset();
    }
    void TearDown() override { iowrap::reset(); }
};

TEST_F(Tar, NewCopiesANonEmptyPrefix)
{
    char prefix[] = "debug/";
    tar *t = tar_new(7, prefix);
    ASSERT_NE(t, nullptr);
    ASSERT_NE(t->prefix, nullptr);
    EXPECT_NE(t->prefix, prefix);
    prefix[0] = 'X';
    EXPECT_STREQ(t->prefix, "debug/");
    EXPECT_EQ(t->prefix_len, 6u);
    EXPECT_EQ(t->fd, 7);
    EXPECT_EQ(t->count, 0u);
    tar_close(t);  // nothing declared: writes nothing, even to a bogus fd
}

TEST_F(Tar, NewWithoutOrWithEmptyPrefixKeepsNone)
{
    for (const char *p : {static_cast<const char *>(nullptr), ""}) {
        tar *t = tar_new(3, p);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->prefix, nullptr);
        EXPECT_EQ(t->prefix_len, 0u);
        EXPECT_EQ(t->count, 0u);
        tar_close(t);
    }
}

TEST_F(Tar, HeaderFieldsSitAtTheirOffsets)
{
    Out out;
    tar *t = tar_new(out.fd, "debug/");
    time_t before = time(nullptr);
    tar_addfile(t, "file.txt", 1234);
    time_t after = time(nullptr);
    EXPECT_EQ(t->count, 0u);
    tar_write(t, pattern(1234).data(), 1234);
    tar_close(t);

    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 512u + 1536u);
    std::string hdr = all.substr(0, 512);
    EXPECT_EQ(field(hdr, 0, 100), std::string("debug/file.txt") + zeros(86));
    EXPECT_EQ(field(hdr, 124, 12), std::string("00000002322\0", 12));
    expect_fixed_fields(hdr, 1234);
    EXPECT_EQ(field(hdr, 157, 100), zeros(100));  // linkname

    std::string mt = field(hdr, 136, 12);
    for (int i = 0; i < 11; i++)
        EXPECT_TRUE(mt[i] >= '0' && mt[i] <= '7');
    time_t mtime = static_cast<time_t>(strtoul(mt.c_str(), nullptr, 8));
    EXPECT_GE(mtime, before);
    EXPECT_LE(mtime, after);

    EXPECT_EQ(all.substr(512, 1234), pattern(1234));
    EXPECT_EQ(all.substr(512 + 1234), zeros(1536 - 1234));
}

TEST_F(Tar, ChecksumMatchesRecomputationForManyHeaders)
{
    Out out;
    tar *t = tar_new(out.fd, "dir/");
    const std::vector<std::pair<std::string, uint32_t>> members = {
        {"a", 0}, {"proc/1/cmdline", 7}, {"\x7f\x80\xff high bytes", 0}, {"big", 0xffffffffu},
        {std::string(96, 'z'), 0777777},
    };
    for (auto &m : members)
        tar_addfile(t, m.first.c_str(), m.second);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 512 * members.size());
    for (size_t i = 0; i < members.size(); i++) {
        SCOPED_TRACE(i);
        std::string hdr = all.substr(512 * i, 512);
        expect_fixed_fields(hdr, members[i].second);
        std::string name = "dir/" + members[i].first;
        EXPECT_EQ(hdr.substr(0, name.size()), name);
        EXPECT_EQ(hdr.substr(name.size(), 100 - name.size()), zeros(100 - name.size()));
    }
    EXPECT_EQ(field(all.substr(512 * 3, 512), 124, 12), std::string("37777777777\0", 12));
}

TEST_F(Tar, NoPrefixMeansTheBareName)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "bare", 0);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 512u);
    EXPECT_EQ(field(all, 0, 100), std::string("bare") + zeros(96));
    expect_fixed_fields(all, 0);
}

TEST_F(Tar, NoSeparatorIsAddedBetweenPrefixAndName)
{
    Out out;
    tar *t = tar_new(out.fd, "pre");
    tar_addfile(t, "fix", 0);
    tar_close(t);
    EXPECT_EQ(field(out.bytes(), 0, 7), std::string("prefix\0", 7));
}

TEST_F(Tar, ZeroSizeMemberIsAHeaderOnly)
{
    Out out;
    tar *t = tar_new(out.fd, "d/");
    iowrap::watch_write(out.fd);
    tar_addfile(t, "empty", 0);
    tar_addfile(t, "next", 0);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 1024u);
    EXPECT_EQ(field(all, 0, 8), std::string("d/empty\0", 8));
    EXPECT_EQ(field(all, 512, 6), "d/next");
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 2u);  // no padding writes at all
    EXPECT_EQ(log[0].asked, 512u);
    EXPECT_EQ(log[1].asked, 512u);
}

TEST_F(Tar, Member513IsFollowedBy511ZeroBytes)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    iowrap::watch_write(out.fd);
    tar_addfile(t, "odd", 513);
    tar_write(t, pattern(513, 5).data(), 513);
    EXPECT_EQ(t->count, 513u);
    tar_addfile(t, "after", 0);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 512u + 513u + 511u + 512u);
    EXPECT_EQ(all.substr(512, 513), pattern(513, 5));
    EXPECT_EQ(all.substr(1025, 511), zeros(511));
    EXPECT_EQ(field(all, 1536, 6), std::string("after\0", 6));
    expect_fixed_fields(all.substr(1536, 512), 0);
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].asked, 512u);  // header in one piece
    EXPECT_EQ(log[1].asked, 513u);
    EXPECT_EQ(log[2].asked, 511u);  // padding in one piece
    EXPECT_EQ(log[3].asked, 512u);
}

TEST_F(Tar, BlockSizedMembersNeedNoPadding)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "b512", 512);
    tar_write(t, pattern(512, 1).data(), 512);
    tar_addfile(t, "b1024", 1024);
    tar_write(t, pattern(1024, 2).data(), 1024);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 512u + 512u + 512u + 1024u);
    EXPECT_EQ(all.substr(512, 512), pattern(512, 1));
    EXPECT_EQ(field(all, 1024, 5), "b1024");
    EXPECT_EQ(all.substr(1536), pattern(1024, 2));
}

TEST_F(Tar, CloseRightAfterAHeaderWritesNothingMore)
{
    Out out;
    tar *t = tar_new(out.fd, "x/");
    tar_addfile(t, "promised", 4096);  // promise broken on purpose
    iowrap::watch_write(out.fd);
    tar_close(t);
    EXPECT_TRUE(iowrap::writes().empty());
    EXPECT_EQ(out.bytes().size(), 512u);
}

TEST_F(Tar, ArchiveEndsWithoutEndOfArchiveBlocks)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "one", 1);
    tar_write(t, "Q", 1);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 1024u);  // header + one padded data block, no more
    EXPECT_EQ(all[512], 'Q');
    EXPECT_EQ(all.substr(513), zeros(511));

    Out out2;
    t = tar_new(out2.fd, nullptr);
    tar_addfile(t, "full", 512);
    tar_write(t, pattern(512, 9).data(), 512);
    tar_close(t);
    all = out2.bytes();
    ASSERT_EQ(all.size(), 1024u);
    EXPECT_EQ(all.substr(512), pattern(512, 9));
}

TEST_F(Tar, DirectWritesDeclaredWithFakewriteKeepAlignment)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "direct", 700);
    std::string data = pattern(700, 3);
    ASSERT_EQ(safe_write(out.fd, data.data(), 700), 700);
    tar_fakewrite(t, 700);
    EXPECT_EQ(t->count, 700u);
    iowrap::watch_write(out.fd);
    tar_addfile(t, "next", 0);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 512u + 1024u + 512u);
    EXPECT_EQ(all.substr(512, 700), data);
    EXPECT_EQ(all.substr(1212, 324), zeros(324));
    EXPECT_EQ(field(all, 1536, 5), std::string("next\0", 5));
    auto log = iowrap::writes();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].asked, 324u);
}

TEST_F(Tar, FakewriteMismatchShiftsLaterHeaders)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "liar", 100);
    std::string data = pattern(100, 4);
    ASSERT_EQ(safe_write(out.fd, data.data(), 100), 100);
    tar_fakewrite(t, 90);  // ten bytes short
    tar_addfile(t, "shifted", 0);
    tar_addfile(t, "still", 0);
    tar_close(t);
    std::string all = out.bytes();
    // 512 header + 100 real bytes + 422 pad (for 90 declared) = 1034, off the grid.
    ASSERT_EQ(all.size(), 1034u + 512u + 512u);
    EXPECT_EQ(field(all, 1024, 10), zeros(10));
    EXPECT_EQ(field(all, 1034, 8), std::string("shifted\0", 8));
    EXPECT_EQ(field(all, 1546, 6), std::string("still\0", 6));
    expect_fixed_fields(all.substr(1034, 512), 0);
}

TEST_F(Tar, CountAddsWritesAndDeclarations)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "c", 30);
    tar_write(t, "0123456789", 10);
    tar_fakewrite(t, 5);
    EXPECT_EQ(t->count, 15u);
    ASSERT_EQ(write(out.fd, "abcde", 5), 5);
    tar_write(t, "ABCDEFGHIJKLMNO", 15);
    EXPECT_EQ(t->count, 30u);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 1024u);
    EXPECT_EQ(all.substr(512, 30), "0123456789abcdeABCDEFGHIJKLMNO");
}

TEST_F(Tar, FailedDataWriteStillAdvancesCount)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    iowrap::watch_write(out.fd);
    iowrap::fail_writes(1, EIO, 1);  // the header passes, the data write fails
    tar_addfile(t, "lost", 100);
    tar_write(t, pattern(100).data(), 100);
    EXPECT_EQ(t->count, 100u);
    tar_addfile(t, "next", 0);
    tar_close(t);
    std::string all = out.bytes();
    // The 100 bytes are missing, but the padding for them is written.
    ASSERT_EQ(all.size(), 512u + 412u + 512u);
    EXPECT_EQ(field(all, 924, 5), std::string("next\0", 5));
}

TEST_F(Tar, DuplicateNamesAreBothWritten)
{
    Out out;
    tar *t = tar_new(out.fd, "d/");
    tar_addfile(t, "same", 3);
    tar_write(t, "one", 3);
    tar_addfile(t, "same", 3);
    tar_write(t, "two", 3);
    tar_close(t);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 2048u);
    EXPECT_EQ(field(all, 0, 7), std::string("d/same\0", 7));
    EXPECT_EQ(field(all, 1024, 7), std::string("d/same\0", 7));
    EXPECT_EQ(field(all, 512, 3), "one");
    EXPECT_EQ(field(all, 1536, 3), "two");
}

TEST_F(Tar, HundredByteNameHasNoTerminator)
{
    Out out;
    tar *t = tar_new(out.fd, "debug/");
    std::string name(94, 'n');
    name.back() = 'E';
    tar_addfile(t, name.c_str(), 0);
    tar_close(t);
    std::string hdr = out.bytes();
    ASSERT_EQ(hdr.size(), 512u);
    EXPECT_EQ(field(hdr, 0, 100), "debug/" + name);
    EXPECT_EQ(hdr[99], 'E');
    expect_fixed_fields(hdr, 0);  // byte 100 is the mode's first digit
}

TEST_F(Tar, LongNameSpillsIntoLaterFieldsThatAreOverwritten)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    std::string name = pattern(150, 1);
    for (char &c : name)
        c = static_cast<char>('a' + static_cast<unsigned char>(c) % 26);
    tar_addfile(t, name.c_str(), 10);
    tar_close(t);
    std::string hdr = out.bytes();
    ASSERT_EQ(hdr.size(), 512u);
    EXPECT_EQ(field(hdr, 0, 100), name.substr(0, 100));
    expect_fixed_fields(hdr, 10);  // mode..typeflag overwrite the spilled bytes
    EXPECT_EQ(field(hdr, 157, 100), zeros(100));
}

TEST_F(Tar, NameSpillingPastTypeflagStaysInLinkname)
{
    Out out;
    tar *t = tar_new(out.fd, "p/");
    std::string name(198, 'L');
    tar_addfile(t, name.c_str(), 0);
    tar_close(t);
    std::string hdr = out.bytes();
    ASSERT_EQ(hdr.size(), 512u);
    EXPECT_EQ(field(hdr, 157, 43), std::string(43, 'L'));
    EXPECT_EQ(hdr[200], '\0');
    EXPECT_EQ(field(hdr, 201, 56), zeros(56));
    expect_fixed_fields(hdr, 0);
}

TEST_F(Tar, AbsurdNamesNeverRunPastTheHeader)
{
    std::string huge(5000, 'H');
    std::string long_prefix(600, 'P');
    struct Case {
        const char *prefix;
        const char *name;
    } cases[] = {
        {nullptr, huge.c_str()},
        {"debug/", huge.c_str()},
        {long_prefix.c_str(), "x"},
        {long_prefix.c_str(), huge.c_str()},
    };
    for (auto &c : cases) {
        Out out;
        tar *t = tar_new(out.fd, c.prefix);
        ASSERT_NE(t, nullptr);
        tar_addfile(t, c.name, 1);
        tar_write(t, "z", 1);
        tar_close(t);
        std::string all = out.bytes();
        ASSERT_EQ(all.size(), 1024u);
        std::string hdr = all.substr(0, 512);
        EXPECT_EQ(field(hdr, 100, 8), std::string("0000644\0", 8));
        EXPECT_EQ(field(hdr, 257, 8), std::string("ustar\0  ", 8));
        EXPECT_EQ(field(hdr, 265, 6), std::string("admin\0", 6));
        EXPECT_EQ(hdr[156], '0');
        EXPECT_EQ(strtoul(field(hdr, 148, 6).c_str(), nullptr, 8), checksum_of(hdr));
        EXPECT_EQ(all[512], 'z');
    }
}

TEST_F(Tar, CloseLeavesTheDescriptorOpen)
{
    Out out;
    tar *t = tar_new(out.fd, nullptr);
    tar_addfile(t, "f", 2);
    tar_write(t, "hi", 2);
    tar_close(t);
    EXPECT_EQ(write(out.fd, "after", 5), 5);
    std::string all = out.bytes();
    ASSERT_EQ(all.size(), 1029u);
    EXPECT_EQ(all.substr(1024), "after");
}

} // namespace
