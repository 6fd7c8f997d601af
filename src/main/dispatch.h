// Applet dispatch: one executable, the applet chosen by the name it was
// started under (or the word after "toolnest").
#pragma once

#include <stddef.h>

struct applet {
    const char *name;
    int (*run)(int argc, char **argv);
};

// The toolbox's applets, in the order names are matched.
extern const applet applet_table[];
extern const size_t applet_count;

// Text after the last '/', or the whole string.
const char *applet_basename(const char *path);

// Picks the applet from argv[0] (unwrapping one "toolnest" word) in table and
// returns its result; unknown names print "NAME: unknown toolnest applet".
int applet_dispatch(int argc, char **argv, const applet *table, size_t count);

// Process entry: ignores SIGPIPE, then dispatches over applet_table.
int toolnest_main(int argc, char **argv);

// Crash-test applets.
int run_ctest(int argc, char **argv);
int run_forkbomb(int argc, char **argv);
int run_fdleak(int argc, char **argv);
int run_segfault(int argc, char **argv);
