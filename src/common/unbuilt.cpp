#include "common.h"

#include <stdio.h>

int applet_unbuilt(const char *name)
{
    fprintf(stderr, "%s: applet not built into this toolnest\n", name);
    return 1;
}
