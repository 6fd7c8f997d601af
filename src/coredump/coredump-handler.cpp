#include "coredump.h"

#include "common.h"

int run_coredump_handler(int, char **)
{
    return applet_unbuilt("coredump-handler");
}
