// Configuration files in every form the reader accepts, read back entry by
// entry in file order.
#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kvconf.h"

namespace {

using Entries = std::vector<std::vector<std::string>>;

class Kvconf : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tn-kvconf-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/debugar.cgi";
    }
    void TearDown() override
    {
        unlink(path.c_str());
        rmdir((dir + "/sub").c_str());
        rmdir(dir.c_str());
    }

    void write_file(const std::string &text)
    {
        FILE *f = fopen(path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(fwrite(text.data(), 1, text.size(), f), text.size());
        ASSERT_EQ(fclose(f), 0);
    }

    // Every entry of the file as {section, key, value}.
    Entries read_file(const std::string &text)
    {
        write_file(text);
        Entries out;
        kvconf *cfg = kvconf_opencfg(path.c_str());
        EXPECT_NE(cfg, nullptr);
        if (!cfg)
            return out;
        while (const kvconf_entry *e = kvconf_getcfg(cfg))
            out.push_back({e->section, e->key, e->value});
        EXPECT_EQ(kvconf_getcfg(cfg), nullptr);
        kvconf_closecfg(cfg);
        return out;
    }

    std::string dir, path;
};

TEST_F(Kvconf, EntriesInFileOrderWithTheirSections)
{
    Entries got = read_file("top = 1\n"
                            "[CoreHandlerFtp]\n"
                            "TargetURL = ftp://10.0.0.2/\n"
                            "TargetPath = /upload\n"
                            "[main]\n"
                            "CoreHandler = FTP\n"
                            "[CoreHandlerFtp]\n"
                            "Timeout = 5\n");
    Entries want = {{"", "top", "1"},
                    {"CoreHandlerFtp", "TargetURL", "ftp://10.0.0.2/"},
                    {"CoreHandlerFtp", "TargetPath", "/upload"},
                    {"main", "CoreHandler", "FTP"},
                    {"CoreHandlerFtp", "Timeout", "5"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, EndStaysTheEnd)
{
    write_file("a = 1\n");
    kvconf *cfg = kvconf_opencfg(path.c_str());
    ASSERT_NE(cfg, nullptr);
    const kvconf_entry *e = kvconf_getcfg(cfg);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->key, "a");
    EXPECT_EQ(kvconf_getcfg(cfg), nullptr);
    EXPECT_EQ(kvconf_getcfg(cfg), nullptr);
    // The entry handed out stays readable until the close.
    EXPECT_STREQ(e->value, "1");
    kvconf_closecfg(cfg);
}

TEST_F(Kvconf, RepeatedKeysAreAllHandedOut)
{
    Entries got = read_file("[s]\nk = first\nk = second\n");
    Entries want = {{"s", "k", "first"}, {"s", "k", "second"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, EmptyFileHasNoEntries)
{
    EXPECT_TRUE(read_file("").empty());
    EXPECT_TRUE(read_file("; only a comment\n\n# and another\n").empty());
}

TEST_F(Kvconf, MissingFileCannotBeOpened)
{
    errno = 0;
    EXPECT_EQ(kvconf_opencfg((dir + "/nothing-here").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Kvconf, DirectoryCannotBeRead)
{
    ASSERT_EQ(mkdir((dir + "/sub").c_str(), 0755), 0);
    EXPECT_EQ(kvconf_opencfg((dir + "/sub").c_str()), nullptr);
}

TEST_F(Kvconf, CloseAcceptsNull)
{
    kvconf_closecfg(nullptr);
    EXPECT_EQ(kvconf_getcfg(nullptr), nullptr);
}

TEST_F(Kvconf, WhitespaceAndDelimiters)
{
    Entries got = read_file("  spaced   =   value with  inner  spaces   \n"
                            "colon: form\n"
                            "empty =\n"
                            "=no key\n"
                            "url = ftp://user:pw@host:21/dir\n");
    Entries want = {{"", "spaced", "value with  inner  spaces"},
                    {"", "colon", "form"},
                    {"", "empty", ""},
                    {"", "", "no key"},
                    {"", "url", "ftp://user:pw@host:21/dir"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, Comments)
{
    Entries got = read_file("; a comment\n"
                            "# another\n"
                            "a = 1 ; inline comment\n"
                            "b = x;y\n"
                            "c = 2 # not a comment here\n");
    Entries want = {{"", "a", "1"}, {"", "b", "x;y"}, {"", "c", "2 # not a comment here"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, SectionNamesAreVerbatim)
{
    Entries got = read_file("[ spaced ]\na = 1\n[CoreHandlerFtpExtra]\nb = 2\n");
    Entries want = {{" spaced ", "a", "1"}, {"CoreHandlerFtpExtra", "b", "2"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, ContinuationLineIsAnotherEntryOfTheSameKey)
{
    Entries got = read_file("[s]\nk = one\n  two\nnext = 3\n");
    Entries want = {{"s", "k", "one"}, {"s", "k", "two"}, {"s", "next", "3"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, UnreadableLinesAreSkippedAndTheRestKept)
{
    Entries got = read_file("[s]\na = 1\njust words\n[unterminated\nb = 2\n");
    // The broken section line leaves the section as it was.
    Entries want = {{"s", "a", "1"}, {"s", "b", "2"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, CarriageReturnsAndByteOrderMark)
{
    Entries got = read_file("\xef\xbb\xbf[s]\r\na = 1\r\nb = 2 \r\n");
    Entries want = {{"s", "a", "1"}, {"s", "b", "2"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, LongLinesAreCutAt199Characters)
{
    std::string value(300, 'x');
    Entries got = read_file("long = " + value + "\nafter = 1\n");
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0][2], value.substr(0, 199 - 7));
    EXPECT_EQ(got[1], (std::vector<std::string>{"", "after", "1"}));
}

TEST_F(Kvconf, LastLineWithoutNewline)
{
    Entries got = read_file("[s]\nk = v");
    Entries want = {{"s", "k", "v"}};
    EXPECT_EQ(got, want);
}

TEST_F(Kvconf, ManyEntries)
{
    std::string text = "[many]\n";
    for (int i = 0; i < 5000; i++)
        text += "key" + std::to_string(i) + " = " + std::to_string(i * 7) + "\n";
    Entries got = read_file(text);
    ASSERT_EQ(got.size(), 5000u);
    for (int i = 0; i < 5000; i++) {
        EXPECT_EQ(got[i][1], "key" + std::to_string(i));
        EXPECT_EQ(got[i][2], std::to_string(i * 7));
    }
}

TEST_F(Kvconf, TwoOpenFilesAreIndependent)
{
    write_file("a = 1\nb = 2\n");
    kvconf *one = kvconf_opencfg(path.c_str());
    kvconf *two = kvconf_opencfg(path.c_str());
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_STREQ(kvconf_getcfg(one)->key, "a");
    EXPECT_STREQ(kvconf_getcfg(one)->key, "b");
    EXPECT_STREQ(kvconf_getcfg(two)->key, "a");
    kvconf_closecfg(one);
    EXPECT_STREQ(kvconf_getcfg(two)->key, "b");
    kvconf_closecfg(two);
}

}  // namespace
