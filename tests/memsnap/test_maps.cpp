// The memory map: smaps parsing, the choice of what goes into a core, and
// reading an address space with holes.
#include "memsnap.h"

#include "testutil.h"

#include <gtest/gtest.h>

#include <elf.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace {

// qemu-user shows the emulated program's own map under /proc/self/maps but
// its own (the host's) under smaps and mem.
using testutil::emulated;

const char sample[] =
    "55d0a0000000-55d0a0001000 r--p 00000000 fe:01 1234                       /usr/bin/prog\n"
    "Size:                  4 kB\n"
    "Rss:                   4 kB\n"
    "Anonymous:             0 kB\n"
    "Swap:                  0 kB\n"
    "VmFlags: rd mr mw me dw sd\n"
    "55d0a0003000-55d0a0004000 rw-p 00003000 fe:01 1234                       /usr/bin/prog\n"
    "Rss:                   4 kB\n"
    "Anonymous:             4 kB\n"
    "VmFlags: rd wr mr mw me dw ac sd\n"
    "7f0000000000-7f0000021000 rw-p 00000000 00:00 0 \n"
    "Rss:                  12 kB\n"
    "Anonymous:            12 kB\n"
    "VmFlags: rd wr mr mw me ac sd\n"
    "7f0000100000-7f0000200000 rw-s 00000000 00:05 99                         /dev/shm/a name with spaces (deleted)\n"
    "VmFlags: rd wr sh mr mw me ms sd\n"
    "7ffc00000000-7ffc00002000 r--p 00000000 00:00 0                          [vvar]\n"
    "VmFlags: rd mr pf io de dd sd\n"
    "7ffc00002000-7ffc00004000 r-xp 00000000 00:00 0                          [vdso]\n"
    "VmFlags: rd ex mr mw me de sd\n"
    "7f0000300000-7f0000500000 rw-p 00000000 00:0f 77                         /anon_hugepage (deleted)\n"
    "VmFlags: rd wr mr mw me ac ht\n";

TEST(Smaps, ParsesAddressesPermissionsPathsAndFlags)
{
    int fd = testutil::temp_file(sample);
    snap_maps maps;
    ASSERT_EQ(snap_parse_smaps(&maps, fd), 0);
    close(fd);
    ASSERT_EQ(maps.v.n, 7);

    const snap_vma &text = maps.v[0];
    EXPECT_EQ(text.start, 0x55d0a0000000u);
    EXPECT_EQ(text.end, 0x55d0a0001000u);
    EXPECT_EQ(text.prot, static_cast<unsigned>(PF_R));
    EXPECT_FALSE(text.shared);
    EXPECT_EQ(text.offset, 0u);
    EXPECT_STREQ(maps.name(text), "/usr/bin/prog");
    EXPECT_EQ(text.rss_kb, 4u);
    EXPECT_EQ(text.anon_kb, 0u);

    const snap_vma &data = maps.v[1];
    EXPECT_EQ(data.prot, static_cast<unsigned>(PF_R | PF_W));
    EXPECT_EQ(data.offset, 0x3000u);
    EXPECT_EQ(data.anon_kb, 4u);

    EXPECT_STREQ(maps.name(maps.v[2]), "");
    EXPECT_EQ(maps.v[2].anon_kb, 12u);

    EXPECT_TRUE(maps.v[3].shared);
    EXPECT_STREQ(maps.name(maps.v[3]), "/dev/shm/a name with spaces (deleted)");

    EXPECT_EQ(maps.v[4].vmflags, static_cast<unsigned>(SNAP_VM_IO | SNAP_VM_DONTDUMP));
    EXPECT_STREQ(maps.name(maps.v[4]), "[vvar]");
    EXPECT_EQ(maps.v[5].prot, static_cast<unsigned>(PF_R | PF_X));
    EXPECT_EQ(maps.v[5].vmflags, 0u);
    EXPECT_EQ(maps.v[6].vmflags, static_cast<unsigned>(SNAP_VM_HUGETLB));
}

TEST(Smaps, OwnMapShowsAFileMappingAndTouchedMemory)
{
    if (emulated())
        GTEST_SKIP() << "[qemu-user] qemu-user's smaps is the emulator's; the emulated board runs this";
    size_t ps = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char path[] = "/tmp/tn memsnap map XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(2 * ps)), 0);
    void *file = mmap(nullptr, 2 * ps, PROT_READ, MAP_PRIVATE, fd, 0);
    ASSERT_NE(file, MAP_FAILED);
    close(fd);
    unlink(path);
    unsigned char *anon = static_cast<unsigned char *>(
        mmap(nullptr, 3 * ps, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(anon, MAP_FAILED);
    anon[ps] = 1;

    int smaps = open("/proc/self/smaps", O_RDONLY);
    ASSERT_GE(smaps, 0);
    snap_maps maps;
    ASSERT_EQ(snap_parse_smaps(&maps, smaps), 0);
    close(smaps);
    munmap(file, 2 * ps);
    munmap(anon, 3 * ps);

    const snap_vma *f = nullptr, *a = nullptr;
    uint64_t fa = reinterpret_cast<uintptr_t>(file), aa = reinterpret_cast<uintptr_t>(anon);
    for (int i = 0; i < maps.v.n; i++) {
        if (i) {
            EXPECT_LE(maps.v[i - 1].end, maps.v[i].start);
        }
        if (maps.v[i].start == fa)
            f = &maps.v[i];
        if (maps.v[i].start <= aa && maps.v[i].end >= aa + 3 * ps)
            a = &maps.v[i];
    }
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->end, fa + 2 * ps);
    EXPECT_EQ(f->prot, static_cast<unsigned>(PF_R));
    EXPECT_FALSE(f->shared);
    EXPECT_EQ(maps.name(*f), std::string(path) + " (deleted)");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->prot, static_cast<unsigned>(PF_R | PF_W));
    EXPECT_STREQ(maps.name(*a), "");
    EXPECT_GE(a->anon_kb, ps / 1024);
}

snap_vma vma(unsigned prot, bool shared, uint64_t anon_kb, uint64_t rss_kb = 0, unsigned flags = 0,
             uint64_t offset = 0)
{
    snap_vma m;
    memset(&m, 0, sizeof m);
    m.start = 0x10000;
    m.end = 0x20000;
    m.prot = prot;
    m.shared = shared;
    m.anon_kb = anon_kb;
    m.rss_kb = rss_kb;
    m.vmflags = flags;
    m.offset = offset;
    return m;
}

const unsigned RW = PF_R | PF_W;
const unsigned F = SNAP_FILTER_DEFAULT;

TEST(DumpKind, TouchedAnonymousMemoryGoesInWhole)
{
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8), "", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8), "[heap]", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8), "[stack]", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8), "[anon:arena]", F), SNAP_DUMP_WHOLE);
    // Swapped out counts as touched.
    snap_vma swapped = vma(RW, false, 0, 0);
    swapped.swap_kb = 4;
    EXPECT_EQ(snap_vma_dump_kind(swapped, "", F), SNAP_DUMP_WHOLE);
}

TEST(DumpKind, UntouchedAnonymousMemoryAndGuardPagesStayOut)
{
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 0, 0), "", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(0, false, 0, 0), "", F), SNAP_DUMP_NONE);
}

TEST(DumpKind, TheVdsoAlwaysGoesInOtherKernelMappingsNever)
{
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R | PF_X, false, 0, 8), "[vdso]", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R | PF_X, false, 0, 8), "[vdso]", 0), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 0, 8, SNAP_VM_IO | SNAP_VM_DONTDUMP), "[vvar]", F),
              SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 0, 0), "[vvar]", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_X, false, 0, 0), "[vsyscall]", F), SNAP_DUMP_NONE);
}

TEST(DumpKind, DontDumpAndDeviceMemoryStayOut)
{
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8, SNAP_VM_DONTDUMP), "", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8, SNAP_VM_IO), "/dev/mem", F), SNAP_DUMP_NONE);
}

TEST(DumpKind, FileMappingsGiveTheirWrittenPagesOrTheirElfHeader)
{
    // Data, bss and relocated pages of programs and libraries.
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 4, 8), "/usr/lib/libc.so.6", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 4, 8, 0, 0x1000), "/usr/lib/libc.so.6", F),
              SNAP_DUMP_WHOLE);
    // Unchanged: the file has it; only a first page (a possible ELF header).
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 0, 8), "/usr/lib/libc.so.6", F), SNAP_DUMP_ELF_HEADER);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R | PF_X, false, 0, 8, 0, 0x2000), "/usr/lib/libc.so.6", F),
              SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(0, false, 0, 0), "/usr/lib/libc.so.6", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 0, 8), "/usr/lib/libc.so.6", F & ~SNAP_FILTER_ELF_HEADERS),
              SNAP_DUMP_NONE);
    // coredump_filter asks for all of them.
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R | PF_X, false, 0, 8, 0, 0x2000), "/usr/lib/libc.so.6",
                                 F | SNAP_FILTER_MAPPED_PRIVATE),
              SNAP_DUMP_WHOLE);
}

TEST(DumpKind, ReadableMappingsOfADeletedFileGoInWhole)
{
    // Its contents can no longer be found on disk.
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R | PF_X, false, 0, 8, 0, 0x2000), "/usr/bin/hearth (deleted)", F),
              SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 0, 8), "/usr/lib/libx.so (deleted)", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(0, false, 0, 0), "/usr/lib/libx.so (deleted)", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(PF_R, false, 0, 8), "/usr/lib/libx.so (deleted)",
                                 F & ~SNAP_FILTER_ANON_PRIVATE),
              SNAP_DUMP_ELF_HEADER);
}

TEST(DumpKind, SharedMemoryOfNoFileGoesInMappedFilesDoNot)
{
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/dev/zero (deleted)", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/SYSV00000000 (deleted)", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/memfd:ring (deleted)", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/var/db/table", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/var/db/table", F | SNAP_FILTER_MAPPED_SHARED),
              SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/dev/zero (deleted)", F & ~SNAP_FILTER_ANON_SHARED),
              SNAP_DUMP_NONE);
}

TEST(DumpKind, HugePagesFollowTheirFilterBits)
{
    snap_vma priv = vma(RW, false, 0, 0, SNAP_VM_HUGETLB);
    snap_vma shared = vma(RW, true, 0, 0, SNAP_VM_HUGETLB);
    EXPECT_EQ(snap_vma_dump_kind(priv, "/anon_hugepage (deleted)", F), SNAP_DUMP_WHOLE);
    EXPECT_EQ(snap_vma_dump_kind(shared, "/anon_hugepage (deleted)", F), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(shared, "/anon_hugepage (deleted)", F | SNAP_FILTER_HUGETLB_SHARED),
              SNAP_DUMP_WHOLE);
}

TEST(DumpKind, AFilterOfZeroKeepsOnlyTheVdso)
{
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8), "", 0), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, false, 8, 8), "/usr/lib/libc.so.6", 0), SNAP_DUMP_NONE);
    EXPECT_EQ(snap_vma_dump_kind(vma(RW, true, 0, 8), "/dev/zero (deleted)", 0), SNAP_DUMP_NONE);
}

TEST(ReadMem, PagesThatCannotBeReadComeOutAsZeros)
{
    if (emulated())
        GTEST_SKIP() << "[qemu-user] qemu-user has no faithful /proc/self/mem; the emulated board runs this";
    long page = sysconf(_SC_PAGESIZE);
    size_t ps = static_cast<size_t>(page);
    unsigned char *area = static_cast<unsigned char *>(
        mmap(nullptr, 4 * ps, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    memset(area, 0xa5, 3 * ps);
    memset(area + 3 * ps, 0x5a, ps);
    // The second page: a mapping of an empty file, beyond its end; nothing
    // reads it.  The last: written, then closed to the process itself.
    int fd = testutil::temp_file();
    ASSERT_NE(mmap(area + ps, ps, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), MAP_FAILED);
    close(fd);
    ASSERT_EQ(mprotect(area + 3 * ps, ps, PROT_NONE), 0);

    int mem = open("/proc/self/mem", O_RDONLY);
    ASSERT_GE(mem, 0);
    std::string buf(4 * ps, 'x');
    unsigned char *b = reinterpret_cast<unsigned char *>(buf.data());
    // Start and end inside pages, to cross every border.
    uint64_t addr = reinterpret_cast<uintptr_t>(area) + 100;
    size_t len = 4 * ps - 200;
    uint64_t zeroed = snap_read_mem(getpid(), mem, addr, b, len, static_cast<unsigned>(page));
    close(mem);
    EXPECT_EQ(zeroed, ps);
    uint64_t base = reinterpret_cast<uintptr_t>(area);
    for (size_t i = 0; i < len; i++) {
        uint64_t at = addr + i;
        unsigned char want = at < base + ps ? 0xa5 : at < base + 2 * ps ? 0 : at < base + 3 * ps ? 0xa5 : 0x5a;
        ASSERT_EQ(b[i], want) << "at offset " << i;
    }
    munmap(area, 4 * ps);
}

} // namespace
