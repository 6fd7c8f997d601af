// Query decoding: names and values percent-decoded, '+' a blank, the first
// of several equal names, bare names, state replaced by the next query.
#include "querykit.h"

#include <gtest/gtest.h>

#include <string.h>

namespace {

class Query : public ::testing::Test {
protected:
    void TearDown() override { CGI_cleanup(); }
    int decode(const char *q)
    {
        CGI_set_query(q);
        return CGI_save_env();
    }
};

TEST_F(Query, PlainPairs)
{
    EXPECT_EQ(decode("cmd=ps&pid=12"), 2);
    EXPECT_STREQ(CGI_get_value("cmd"), "ps");
    EXPECT_STREQ(CGI_get_value("pid"), "12");
    EXPECT_EQ(CGI_get_value("duration"), nullptr);
    EXPECT_EQ(CGI_get_value("CMD"), nullptr);
}

TEST_F(Query, PercentAndPlus)
{
    EXPECT_EQ(decode("trace=meminfo,%20iostat&pid=1%2Csshd&x=a+b&%63md=%70s"), 4);
    EXPECT_STREQ(CGI_get_value("trace"), "meminfo, iostat");
    EXPECT_STREQ(CGI_get_value("pid"), "1,sshd");
    EXPECT_STREQ(CGI_get_value("x"), "a b");
    EXPECT_STREQ(CGI_get_value("cmd"), "ps");
    // Broken escapes stay as they are.
    EXPECT_EQ(decode("a=%zz%4&b=100%"), 2);
    EXPECT_STREQ(CGI_get_value("a"), "%zz%4");
    EXPECT_STREQ(CGI_get_value("b"), "100%");
    // An escaped '&' or '=' is data.
    EXPECT_EQ(decode("a=x%26cmd%3Dps"), 1);
    EXPECT_STREQ(CGI_get_value("a"), "x&cmd=ps");
    EXPECT_EQ(CGI_get_value("cmd"), nullptr);
}

TEST_F(Query, BareNamesEmptyPiecesAndDuplicates)
{
    EXPECT_EQ(decode("listen&&cmd=&=v&pid=1&pid=2&"), 5);
    EXPECT_STREQ(CGI_get_value("listen"), "");
    EXPECT_STREQ(CGI_get_value("cmd"), "");
    EXPECT_STREQ(CGI_get_value(""), "v");
    EXPECT_STREQ(CGI_get_value("pid"), "1");
    EXPECT_EQ(decode(""), 0);
    EXPECT_EQ(CGI_get_value("listen"), nullptr);
}

TEST_F(Query, ValuesMayBeEditedInPlace)
{
    decode("pid=%20%20sshd%20");
    char *v = CGI_get_value("pid");
    ASSERT_NE(v, nullptr);
    v[6] = '\0';
    EXPECT_STREQ(CGI_get_value("pid"), "  sshd");
}

TEST_F(Query, NothingBeforeSaveAndAfterCleanup)
{
    CGI_set_query("cmd=ps");
    EXPECT_EQ(CGI_get_value("cmd"), nullptr);
    EXPECT_EQ(CGI_save_env(), 1);
    EXPECT_STREQ(CGI_get_value("cmd"), "ps");
    CGI_cleanup();
    EXPECT_EQ(CGI_get_value("cmd"), nullptr);
    CGI_cleanup();  // twice is harmless
    EXPECT_EQ(CGI_save_env(), -1);
}

TEST_F(Query, NextQueryReplacesWithoutCleanup)
{
    decode("cmd=bogus");
    decode("pid=3");
    EXPECT_EQ(CGI_get_value("cmd"), nullptr);
    EXPECT_STREQ(CGI_get_value("pid"), "3");
    CGI_set_query(nullptr);
    EXPECT_EQ(CGI_save_env(), 0);
}

TEST_F(Query, NulInAValueEndsIt)
{
    decode("a=x%00y&b=2");
    EXPECT_STREQ(CGI_get_value("a"), "x");
    EXPECT_STREQ(CGI_get_value("b"), "2");
}

}  // namespace
