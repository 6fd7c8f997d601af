#include "trace.h"

#include "common.h"

int run_tstrace(int, char **)
{
    return applet_unbuilt("tstrace");
}

int run_stopper(int, char **)
{
    return applet_unbuilt("stopper");
}
