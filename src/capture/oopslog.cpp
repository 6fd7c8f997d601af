// Reader of the flash partition where the kernel keeps its oops reports: one
// report per 4096-byte slot, used as a ring with a running sequence count.
#include "capture.h"

#include "common.h"

#include <ctype.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <mtd/mtd-user.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned slot_size = 4096;
constexpr unsigned text_at = 8;
constexpr unsigned text_max = 4092;  // counted from text_at: may pass the slot's end
constexpr uint32_t oops_magic = 0x5d005d00;
constexpr uint32_t erased = 0xffffffff;
constexpr uint32_t before_wrap = 0xfffffffe;  // 0 follows it: 0xffffffff is erased flash

// Slots are written by the device, in its little-endian order.
uint32_t le32(const unsigned char *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

struct oops_dev {
    int fd;
    bool mtd;
    // The slot plus spare bytes that read as erased flash, so a text that
    // fills its slot ends at the slot's end.
    unsigned char buf[slot_size + (text_at + text_max - slot_size)];
};

bool slot_bad(const oops_dev &d, long long i)
{
    if (!d.mtd)
        return false;
    __kernel_loff_t offs = i * slot_size;
    return ioctl(d.fd, MEMGETBADBLOCK, &offs) > 0;
}

// Reads slot i; on a read error the buffer keeps what it held.
void slot_read(oops_dev &d, long long i)
{
    if (pread(d.fd, d.buf, slot_size, static_cast<off_t>(i) * slot_size) < 0) {
    }
}

bool slot_holds_report(const oops_dev &d)
{
    return le32(d.buf) != erased && le32(d.buf + 4) == oops_magic;
}

int usage()
{
    puts("USAGE: oopslog [options] mtdblock-device\n");
    return 1;
}

// The partition's size in bytes: BLKGETSIZE for a block device, MEMGETINFO
// for an MTD character device.  False after reporting the failure.
bool device_size(const oops_dev &d, unsigned long long *size)
{
    if (!d.mtd) {
        unsigned long sectors = 0;
        if (ioctl(d.fd, BLKGETSIZE, &sectors) < 0) {
            perror("BLKGETSIZE");
            return false;
        }
        *size = static_cast<unsigned long long>(sectors) * 512;
        return true;
    }
    mtd_info_user info;
    memset(&info, 0, sizeof info);
    if (ioctl(d.fd, MEMGETINFO, &info) < 0) {
        perror("MEMGETINFO");
        return false;
    }
    *size = info.size;
    return true;
}

// The slot of the newest report by its sequence count; false when no slot
// holds one.
bool find_newest(oops_dev &d, long long slots, long long *newest, uint32_t *best)
{
    bool found = false;
    *best = erased;
    *newest = 0;
    for (long long i = 0; i < slots; i++) {
        if (slot_bad(d, i))
            continue;
        slot_read(d, i);
        if (!slot_holds_report(d))
            continue;
        uint32_t count = le32(d.buf);
        if (!found || (count != 0 && count > *best) || (count == 0 && *best == before_wrap)) {
            found = true;
            *best = count;
            *newest = i;
        }
    }
    return found;
}

// Prints every report in ring order (step 1) or the other way round (-1),
// starting one step past the newest, so that it comes last either way.
void print_reports(oops_dev &d, long long slots, long long newest, int step)
{
    long long i = newest;
    for (long long k = 0; k < slots; k++) {
        i += step;
        if (i < 0)
            i = slots - 1;
        else if (i >= slots)
            i = 0;
        if (slot_bad(d, i))
            continue;
        slot_read(d, i);
        if (!slot_holds_report(d))
            continue;
        printf("Log Entry %d (at position %d)\n", static_cast<int>(le32(d.buf)), static_cast<int>(i));
        for (unsigned j = 0; j < text_max; j++) {
            unsigned char c = d.buf[text_at + j];
            if (c == 0xff)
                break;
            putchar(isprint(c) || isspace(c) ? c : '.');
        }
    }
}

} // namespace

int run_oopslog(int argc, char **argv)
{
    if (argc < 2)
        return usage();
    const char *path;
    int step;
    if (strcmp(argv[1], "-r") == 0) {
        if (argc < 3)
            return usage();
        path = argv[2];
        step = -1;
    } else {
        path = argv[1];
        step = 1;
    }

    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        perror("open");
        return 1;
    }
    struct stat st;
    if (fstat(fd.get(), &st) < 0) {
        perror("stat");
        return 1;
    }

    oops_dev d;
    d.fd = fd.get();
    d.mtd = !S_ISBLK(st.st_mode);
    unsigned long long size;
    if (!device_size(d, &size))
        return 1;
    memset(d.buf, 0xff, sizeof d.buf);

    const long long slots = static_cast<long long>(size / slot_size);
    long long newest;
    uint32_t best;
    if (!find_newest(d, slots, &newest, &best)) {
        fputs("No logs present\n", stderr);
        return 0;
    }
    fprintf(stderr, "Last log is at position %d with count %d\n", static_cast<int>(newest),
            static_cast<int>(best));
    print_reports(d, slots, newest, step);
    return 0;
}
