#include "capture.h"

#include "common.h"

int run_pcapdump(int, char **)
{
    return applet_unbuilt("pcapdump");
}

int run_oopslog(int, char **)
{
    return applet_unbuilt("oopslog");
}
