#include "dispatch.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> seen_argv;
std::string seen_applet;

template <int N> int recorder(int argc, char **argv)
{
    static const char *names[] = {"alpha", "beta", "alpha-dup"};
    seen_applet = names[N];
    seen_argv.assign(argv, argv + argc);
    return 40 + N;
}

const applet fake_table[] = {
    {"alpha", recorder<0>},
    {"beta", recorder<1>},
    {"alpha", recorder<2>},
};

struct Outcome {
    int rc;
    std::string out;
};

// Dispatches over the fake table with stdout captured.
Outcome run(std::vector<std::string> args)
{
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    seen_argv.clear();
    seen_applet.clear();

    char name[] = "/tmp/tn-dispatch-XXXXXX";
    int fd = mkstemp(name);
    unlink(name);
    fflush(stdout);
    int saved = dup(1);
    dup2(fd, 1);
    int rc = applet_dispatch(static_cast<int>(args.size()), argv.data(), fake_table, 3);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string out(4096, '\0');
    ssize_t n = pread(fd, out.data(), out.size(), 0);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    close(fd);
    return {rc, out};
}

TEST(Dispatch, BasenameRule)
{
    EXPECT_STREQ(applet_basename("/usr/bin/tstrace"), "tstrace");
    EXPECT_STREQ(applet_basename("tstrace"), "tstrace");
    EXPECT_STREQ(applet_basename("./x/y/"), "");
    EXPECT_STREQ(applet_basename(nullptr), "");
}

TEST(Dispatch, PlainAndPathNamesReachTheAppletWithArgvUnchanged)
{
    Outcome r = run({"/usr/bin/beta", "-p", "1"});
    EXPECT_EQ(r.rc, 41);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(seen_applet, "beta");
    EXPECT_EQ(seen_argv, (std::vector<std::string>{"/usr/bin/beta", "-p", "1"}));

    r = run({"beta", "-p", "1"});
    EXPECT_EQ(r.rc, 41);
    EXPECT_EQ(seen_argv, (std::vector<std::string>{"beta", "-p", "1"}));
}

TEST(Dispatch, ToolnestWordIsDroppedAndItsArgumentKeptWhole)
{
    Outcome r = run({"toolnest", "/some/dir/beta", "-i", "eth0"});
    EXPECT_EQ(r.rc, 41);
    EXPECT_EQ(seen_argv, (std::vector<std::string>{"/some/dir/beta", "-i", "eth0"}));

    r = run({"/opt/bin/toolnest", "alpha"});
    EXPECT_EQ(r.rc, 40);
    EXPECT_EQ(seen_argv, (std::vector<std::string>{"alpha"}));
}

TEST(Dispatch, FirstMatchInTableOrderWins)
{
    EXPECT_EQ(run({"alpha"}).rc, 40);
    EXPECT_EQ(seen_applet, "alpha");
}

TEST(Dispatch, ToolnestAloneExitsOneSilently)
{
    Outcome r = run({"toolnest"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "");
    r = run({"/usr/bin/toolnest"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "");
}

TEST(Dispatch, UnknownNamesAreReported)
{
    Outcome r = run({"gamma", "x"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "gamma: unknown toolnest applet\n");
    EXPECT_TRUE(seen_argv.empty());

    r = run({"/bin/alphabet"});
    EXPECT_EQ(r.out, "alphabet: unknown toolnest applet\n");
    r = run({"ALPHA"});
    EXPECT_EQ(r.out, "ALPHA: unknown toolnest applet\n");
    r = run({"toolnest", "/x/alph"});
    EXPECT_EQ(r.out, "alph: unknown toolnest applet\n");
}

TEST(Dispatch, OnlyOneToolnestWordIsUnwrapped)
{
    Outcome r = run({"toolnest", "toolnest", "alpha"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "toolnest: unknown toolnest applet\n");
}

TEST(Dispatch, TheRealTableHoldsEveryAppletInOrder)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < applet_count; i++)
        names.push_back(applet_table[i].name);
    EXPECT_EQ(names, (std::vector<std::string>{"tstrace", "stopper", "pcapdump",
                                               "coredump-handler", "debugar.cgi", "mon",
                                               "ctest", "oopslog", "forkbomb", "fdleak",
                                               "segfault"}));
    for (size_t i = 0; i < applet_count; i++)
        EXPECT_NE(applet_table[i].run, nullptr);
}

} // namespace
