#include "dbgcgi.h"

#include "common.h"

int run_dbg_cgi(int, char **)
{
    return applet_unbuilt("debugar.cgi");
}
