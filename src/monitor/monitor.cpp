#include "monitor.h"

#include "common.h"

int run_mon(int, char **)
{
    return applet_unbuilt("mon");
}
