#include "dispatch.h"

#include "capture.h"
#include "coredump.h"
#include "dbgcgi.h"
#include "monitor.h"
#include "trace.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>

const applet applet_table[] = {
    {"tstrace", run_tstrace},
    {"stopper", run_stopper},
    {"pcapdump", run_pcapdump},
    {"coredump-handler", run_coredump_handler},
    {"debugar.cgi", run_dbg_cgi},
    {"mon", run_mon},
    {"ctest", run_ctest},
    {"oopslog", run_oopslog},
    {"forkbomb", run_forkbomb},
    {"fdleak", run_fdleak},
    {"segfault", run_segfault},
};
const size_t applet_count = sizeof applet_table / sizeof applet_table[0];

const char *applet_basename(const char *path)
{
    if (!path)
        return "";
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int applet_dispatch(int argc, char **argv, const applet *table, size_t count)
{
    const char *name = applet_basename(argc > 0 ? argv[0] : nullptr);

    if (strcmp(name, "toolnest") == 0) {
        if (argc < 2)
            return 1;
        // Only one level is unwrapped: "toolnest toolnest x" names "toolnest".
        name = applet_basename(argv[1]);
        argc -= 1;
        argv += 1;
    }

    for (size_t i = 0; i < count; i++) {
        if (strcmp(name, table[i].name) == 0)
            return table[i].run(argc, argv);
    }
    printf("%s: unknown toolnest applet\n", name);
    return 1;
}

int toolnest_main(int argc, char **argv)
{
    // Writes to a vanished reader must fail with EPIPE rather than kill us.
    signal(SIGPIPE, SIG_IGN);
    return applet_dispatch(argc, argv, applet_table, applet_count);
}
