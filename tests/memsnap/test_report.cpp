// The report line, read back the way the toolbox's dump reader reads it: the
// length from offset 8 in base 10, the thread ids from 21 characters after
// the end of the number, each separated by single spaces.
#include "memsnap.h"

#include "report_reader.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

namespace {

ReportLine parse(const char *line)
{
    return read_report(line);
}

TEST(ReportLine, LengthAtOffsetEightThenIdsAfterTwentyOneCharacters)
{
    char buf[SNAP_REPORT_MAX];
    int tids[] = {12, 13};
    int n = snap_report_line(buf, 954368, tids, 2);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "length: 954368 bytes, other tasks: 12 13\n");
    ReportLine p = parse(buf);
    EXPECT_EQ(p.length, 954368u);
    EXPECT_EQ(p.ids, (std::vector<int>{12, 13}));
}

TEST(ReportLine, ASingleThreadedProcessListsNoIds)
{
    char buf[SNAP_REPORT_MAX];
    int n = snap_report_line(buf, 4096, nullptr, 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "length: 4096 bytes, other tasks: \n");
    ReportLine p = parse(buf);
    EXPECT_EQ(p.length, 4096u);
    EXPECT_TRUE(p.ids.empty());
}

TEST(ReportLine, TooManyThreadsAreCutToFitBelow256Bytes)
{
    std::vector<int> tids;
    for (int i = 0; i < 200; i++)
        tids.push_back(4000000 + i);
    char buf[SNAP_REPORT_MAX];
    int n = snap_report_line(buf, UINT64_MAX, tids.data(), static_cast<int>(tids.size()));
    EXPECT_LT(n, SNAP_REPORT_MAX);
    EXPECT_EQ(buf[n - 1], '\n');
    EXPECT_EQ(buf[n], 0);
    EXPECT_EQ(static_cast<int>(strlen(buf)), n);
    ReportLine p = parse(buf);
    EXPECT_EQ(p.length, UINT64_MAX);
    // A prefix of the list, as long as fits: one id more would not.
    ASSERT_FALSE(p.ids.empty());
    ASSERT_LT(p.ids.size(), tids.size());
    for (size_t i = 0; i < p.ids.size(); i++)
        EXPECT_EQ(p.ids[i], tids[i]);
    EXPECT_GE(n + 8, SNAP_REPORT_MAX - 1);
}

TEST(ReportLine, EveryLengthOfListKeepsTheLayout)
{
    char buf[SNAP_REPORT_MAX];
    std::vector<int> tids;
    for (int k = 0; k < 80; k++) {
        int n = snap_report_line(buf, 123456789, tids.data(), static_cast<int>(tids.size()));
        ASSERT_LT(n, SNAP_REPORT_MAX);
        ASSERT_EQ(buf[n - 1], '\n');
        ASSERT_EQ(std::string(buf, 8), "length: ");
        ASSERT_EQ(std::string(buf + 17, 21), " bytes, other tasks: ");
        ReportLine p = parse(buf);
        ASSERT_EQ(p.length, 123456789u);
        ASSERT_LE(p.ids.size(), tids.size());
        for (size_t i = 0; i < p.ids.size(); i++)
            ASSERT_EQ(p.ids[i], tids[i]);
        tids.push_back(10000 + k);
    }
}

// A 128-signal mask (MIPS) with signal 65 and up blocked must not saturate
// the word: the note holds the low word, signals 1 to 32 (or 64).
TEST(SignalMask, AWideMaskKeepsItsLowWord)
{
    EXPECT_EQ(snap_sigmask_low("\t00000000000000010000000000000001\n"), 1ul);
    EXPECT_EQ(snap_sigmask_low("\tffffffffffffffff0000000000004002\n"), 0x4002ul);
    EXPECT_EQ(snap_sigmask_low("\t0000000000000100\n"), 0x100ul);
    EXPECT_EQ(snap_sigmask_low("\t00000000\n"), 0ul);
    EXPECT_EQ(snap_sigmask_low("\t\n"), 0ul);
}

} // namespace
