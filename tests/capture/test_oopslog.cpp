// oopslog: every layout case with exact stdout and stderr, forward and with
// -r, through a real loop block device (BLKGETSIZE) and through the MTD path
// (MEMGETINFO, MEMGETBADBLOCK), whose ioctls are answered here for a regular
// image file; argument and device errors.
#include "capture.h"
#include "common.h"
#include "testutil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

namespace mtd_fake {
bool on;
std::set<long long> bad;    // offsets MEMGETBADBLOCK reports bad
std::vector<long long> reads;  // offsets read
} // namespace mtd_fake

extern "C" {
int __real_ioctl(int fd, unsigned long req, ...);
ssize_t __real_pread(int fd, void *buf, size_t n, off_t off);
ssize_t __real_pread64(int fd, void *buf, size_t n, off64_t off);

// With mtd_fake::on a regular file poses as an MTD device of its own size.
int __wrap_ioctl(int fd, unsigned long req, ...)
{
    va_list ap;
    va_start(ap, req);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    struct stat st;
    if (mtd_fake::on && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        if (req == MEMGETINFO) {
            auto *info = static_cast<mtd_info_user *>(arg);
            memset(info, 0, sizeof *info);
            info->type = MTD_NORFLASH;
            info->size = static_cast<uint32_t>(st.st_size);
            info->erasesize = 4096;
            info->writesize = 1;
            return 0;
        }
        if (req == MEMGETBADBLOCK) {
            long long off = *static_cast<long long *>(arg);
            return mtd_fake::bad.count(off) ? 1 : 0;
        }
    }
    return __real_ioctl(fd, req, arg);
}

ssize_t __wrap_pread(int fd, void *buf, size_t n, off_t off)
{
    mtd_fake::reads.push_back(off);
    return __real_pread(fd, buf, n, off);
}

ssize_t __wrap_pread64(int fd, void *buf, size_t n, off64_t off)
{
    mtd_fake::reads.push_back(off);
    return __real_pread64(fd, buf, n, off);
}
}

namespace {

using testutil::emulated;

struct slot {
    int index;
    uint32_t count;
    std::string text;
    uint32_t magic = 0x5d005d00;
};

std::vector<unsigned char> make_image(size_t bytes, const std::vector<slot> &slots)
{
    std::vector<unsigned char> img(bytes, 0xff);
    for (const slot &s : slots) {
        size_t at = static_cast<size_t>(s.index) * 4096;
        for (int i = 0; i < 4; i++) {
            img[at + i] = static_cast<unsigned char>(s.count >> (8 * i));
            img[at + 4 + i] = static_cast<unsigned char>(s.magic >> (8 * i));
        }
        memcpy(&img[at + 8], s.text.data(), s.text.size());
    }
    return img;
}

struct image_file {
    std::string path;
    explicit image_file(const std::vector<unsigned char> &img)
    {
        char name[] = "/tmp/tn-oops-XXXXXX";
        int fd = mkstemp(name);
        path = name;
        if (fd >= 0) {
            if (write(fd, img.data(), img.size()) != static_cast<ssize_t>(img.size()))
                path.clear();
            close(fd);
        }
    }
    ~image_file() { unlink(path.c_str()); }
};

// A read-only loop block device over an image file, detached in any case.
struct loop_device {
    std::string dev;
    explicit loop_device(const std::string &image)
    {
        char name[] = "/tmp/tn-oops-loop-XXXXXX";
        int out = mkstemp(name);
        unlink(name);
        int null = open("/dev/null", O_RDWR);
        const char *argv[] = {"losetup", "--find", "--show", "--read-only", image.c_str(), nullptr};
        int rc = sys_run("/usr/sbin/losetup", const_cast<char *const *>(argv), null, out, 2, 0);
        char buf[128] = {};
        if (rc == 0 && pread(out, buf, sizeof buf - 1, 0) > 0) {
            dev = buf;
            while (!dev.empty() && dev.back() == '\n')
                dev.pop_back();
        }
        close(out);
        close(null);
    }
    ~loop_device()
    {
        if (dev.empty())
            return;
        int null = open("/dev/null", O_RDWR);
        const char *argv[] = {"losetup", "--detach", dev.c_str(), nullptr};
        sys_run("/usr/sbin/losetup", const_cast<char *const *>(argv), null, null, 2, 0);
        close(null);
    }
};

struct result {
    int rc;
    std::string out, err;
};

std::string slurp(int fd)
{
    std::string s;
    char buf[8192];
    ssize_t n;
    off_t at = 0;
    while ((n = pread(fd, buf, sizeof buf, at)) > 0) {
        s.append(buf, static_cast<size_t>(n));
        at += n;
    }
    return s;
}

// Runs the applet in this process with stdout and stderr caught in files.
result oopslog(std::vector<std::string> args)
{
    args.insert(args.begin(), "oopslog");
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    char on[] = "/tmp/tn-oops-out-XXXXXX", en[] = "/tmp/tn-oops-err-XXXXXX";
    int ofd = mkstemp(on), efd = mkstemp(en);
    unlink(on);
    unlink(en);
    fflush(stdout);
    fflush(stderr);
    int save_out = dup(1), save_err = dup(2);
    dup2(ofd, 1);
    dup2(efd, 2);
    int rc = run_oopslog(static_cast<int>(args.size()), argv.data());
    fflush(stdout);
    fflush(stderr);
    dup2(save_out, 1);
    dup2(save_err, 2);
    close(save_out);
    close(save_err);
    result r{rc, slurp(ofd), slurp(efd)};
    close(ofd);
    close(efd);
    return r;
}

struct oops_case {
    const char *name;
    size_t size;
    std::vector<slot> slots;
    std::string err;  // the same in both directions
    std::string out;
    std::string out_reverse;
    std::set<long long> bad = {};  // MTD only
};

std::string entry(int count, int pos, const std::string &text)
{
    return "Log Entry " + std::to_string(count) + " (at position " + std::to_string(pos) + ")\n" + text;
}

std::string last(int pos, int count)
{
    return "Last log is at position " + std::to_string(pos) + " with count " + std::to_string(count) + "\n";
}

const std::string full_text(4088, 'x');

std::vector<oops_case> cases()
{
    return {
        {"erased", 4 * 4096, {}, "No logs present\n", "", ""},
        {"ring_wrapped",
         3 * 4096,
         {{0, 6, "six\n"}, {1, 7, "seven\n"}, {2, 5, "five\n"}},
         last(1, 7),
         entry(5, 2, "five\n") + entry(6, 0, "six\n") + entry(7, 1, "seven\n"),
         entry(6, 0, "six\n") + entry(5, 2, "five\n") + entry(7, 1, "seven\n")},
        {"count_wraps_to_zero",
         4 * 4096,
         {{0, 0xfffffffd, "a\n"}, {1, 0xfffffffe, "b\n"}, {2, 0, "c\n"}},
         last(2, 0),
         entry(-3, 0, "a\n") + entry(-2, 1, "b\n") + entry(0, 2, "c\n"),
         entry(-2, 1, "b\n") + entry(-3, 0, "a\n") + entry(0, 2, "c\n")},
        // Only a 0 seen after 0xfffffffe counts as the wrap.
        {"zero_before_wrap_value",
         2 * 4096,
         {{0, 0, "z\n"}, {1, 0xfffffffe, "y\n"}},
         last(1, -2),
         entry(0, 0, "z\n") + entry(-2, 1, "y\n"),
         entry(0, 0, "z\n") + entry(-2, 1, "y\n")},
        {"non_printable_as_dot",
         2 * 4096,
         {{0, 1, std::string("x\x01y\tz\x7f\x80\r\n\x00!", 11)}},
         last(0, 1),
         entry(1, 0, "x.y\tz..\r\n.!"),
         entry(1, 0, "x.y\tz..\r\n.!")},
        {"bad_magic_and_erased_count_skipped",
         3 * 4096,
         {{0, 9, "no\n", 0x12345678}, {1, 0xffffffff, "no\n"}, {2, 3, "yes\n"}},
         last(2, 3),
         entry(3, 2, "yes\n"),
         entry(3, 2, "yes\n")},
        {"equal_counts_first_wins",
         2 * 4096,
         {{0, 4, "p\n"}, {1, 4, "q\n"}},
         last(0, 4),
         entry(4, 1, "q\n") + entry(4, 0, "p\n"),
         entry(4, 1, "q\n") + entry(4, 0, "p\n")},
        {"text_fills_slot", 4096, {{0, 2, full_text}}, last(0, 2), entry(2, 0, full_text),
         entry(2, 0, full_text)},
        {"smaller_than_a_slot", 2048, {}, "No logs present\n", "", ""},
        {"partial_last_slot_ignored",
         2 * 4096 + 2048,
         {{0, 1, "one\n"}},
         last(0, 1),
         entry(1, 0, "one\n"),
         entry(1, 0, "one\n")},
    };
}

std::vector<unsigned char> image_of(const oops_case &c)
{
    if (std::string(c.name) == "smaller_than_a_slot") {
        // A report-like start that must not be taken for a slot.
        std::vector<unsigned char> img = make_image(4096, {{0, 1, "tiny\n"}});
        img.resize(c.size);
        return img;
    }
    if (std::string(c.name) == "partial_last_slot_ignored") {
        std::vector<unsigned char> img = make_image(3 * 4096, {{0, 1, "one\n"}, {2, 5, "tail\n"}});
        img.resize(c.size);
        return img;
    }
    return make_image(c.size, c.slots);
}

void check_case(const oops_case &c, const std::string &dev)
{
    result f = oopslog({dev});
    EXPECT_EQ(f.rc, 0) << c.name;
    EXPECT_EQ(f.err, c.err) << c.name;
    EXPECT_EQ(f.out, c.out) << c.name;
    result r = oopslog({"-r", dev});
    EXPECT_EQ(r.rc, 0) << c.name;
    EXPECT_EQ(r.err, c.err) << c.name;
    EXPECT_EQ(r.out, c.out_reverse) << c.name;
}

TEST(Oopslog, BlockDevice)
{
    for (const oops_case &c : cases()) {
        image_file img(image_of(c));
        ASSERT_FALSE(img.path.empty());
        loop_device loop(img.path);
        ASSERT_FALSE(loop.dev.empty()) << "losetup failed for " << c.name;
        struct stat st;
        ASSERT_EQ(stat(loop.dev.c_str(), &st), 0);
        ASSERT_TRUE(S_ISBLK(st.st_mode));
        check_case(c, loop.dev);
    }
}

// A real MTD device (the emulated board's mtdram), named by TOOLNEST_TEST_MTD:
// each case is written to the flash with erase and write, then read back
// through the character device and through its mtdblock twin.
TEST(Oopslog, RealMtdDevice)
{
    const char *dev = getenv("TOOLNEST_TEST_MTD");
    if (!dev)
        GTEST_SKIP() << "[board] needs an MTD device the test may overwrite (TOOLNEST_TEST_MTD; "
                        "the emulated board provides mtdram)";
    int fd = open(dev, O_RDWR);
    ASSERT_GE(fd, 0) << dev;
    mtd_info_user info = {};
    ASSERT_EQ(ioctl(fd, MEMGETINFO, &info), 0);
    ASSERT_GE(info.size, 4u * 4096);
    ASSERT_GT(info.erasesize, 0u);
    std::string block = std::string("/dev/mtdblock") + (strrchr(dev, 'd') + 1);

    int tried = 0;
    for (const oops_case &c : cases()) {
        // The partition is the whole device: only whole-slot images that fit.
        if (c.size < 4096 || c.size % 4096 || c.size > info.size)
            continue;
        std::vector<unsigned char> img = image_of(c);
        img.resize(info.size, 0xff);
        for (uint32_t at = 0; at < info.size; at += info.erasesize) {
            erase_info_user e = {at, info.erasesize};
            ASSERT_EQ(ioctl(fd, MEMERASE, &e), 0) << c.name;
        }
        ASSERT_EQ(pwrite(fd, img.data(), img.size(), 0), static_cast<ssize_t>(img.size()))
            << c.name;
        check_case(c, dev);
        check_case(c, block);
        tried++;
    }
    EXPECT_GE(tried, 6);
    close(fd);
}

class MtdPath : public ::testing::Test {
protected:
    void SetUp() override
    {
        mtd_fake::on = true;
        mtd_fake::bad.clear();
        mtd_fake::reads.clear();
    }
    void TearDown() override { mtd_fake::on = false; }
};

TEST_F(MtdPath, SameOutputsAsTheBlockDevice)
{
    for (const oops_case &c : cases()) {
        image_file img(image_of(c));
        ASSERT_FALSE(img.path.empty());
        check_case(c, img.path);
    }
}

TEST_F(MtdPath, BadBlockIsNeverRead)
{
    image_file img(make_image(3 * 4096, {{0, 1, "a\n"}, {1, 9, "bad\n"}, {2, 2, "b\n"}}));
    mtd_fake::bad = {4096};
    mtd_fake::reads.clear();
    result f = oopslog({img.path});
    EXPECT_EQ(f.rc, 0);
    EXPECT_EQ(f.err, last(2, 2));
    EXPECT_EQ(f.out, entry(1, 0, "a\n") + entry(2, 2, "b\n"));
    result r = oopslog({"-r", img.path});
    EXPECT_EQ(r.err, last(2, 2));
    EXPECT_EQ(r.out, entry(1, 0, "a\n") + entry(2, 2, "b\n"));
    EXPECT_FALSE(mtd_fake::reads.empty());
    for (long long off : mtd_fake::reads)
        EXPECT_NE(off, 4096);
}

TEST(Oopslog, Usage)
{
    const std::string usage = "USAGE: oopslog [options] mtdblock-device\n\n";
    result a = oopslog({});
    EXPECT_EQ(a.rc, 1);
    EXPECT_EQ(a.out, usage);
    EXPECT_EQ(a.err, "");
    result b = oopslog({"-r"});
    EXPECT_EQ(b.rc, 1);
    EXPECT_EQ(b.out, usage);
}

TEST(Oopslog, OptionOnlyFirstAndAlone)
{
    // Anything else in front is taken as the device.
    result a = oopslog({"-x", "-r"});
    EXPECT_EQ(a.rc, 1);
    EXPECT_EQ(a.err, "open: No such file or directory\n");
    result b = oopslog({"-rv", "/dev/null"});
    EXPECT_EQ(b.err, "open: No such file or directory\n");
}

TEST(Oopslog, OpenError)
{
    result r = oopslog({"/nonexistent/oops"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "open: No such file or directory\n");
}

TEST(Oopslog, RegularFileTakesTheMtdPath)
{
    image_file img(make_image(4096, {{0, 1, "x\n"}}));
    result r = oopslog({img.path});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "");
    if (emulated() && r.err != "MEMGETINFO: Inappropriate ioctl for device\n") {
        // qemu-user answers ioctls it does not know itself.
        EXPECT_EQ(r.err, "MEMGETINFO: Function not implemented\n");
    } else {
        EXPECT_EQ(r.err, "MEMGETINFO: Inappropriate ioctl for device\n");
    }
}

} // namespace
