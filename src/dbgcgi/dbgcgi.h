// The debug-info daemon, started as "debugar.cgi".
#pragma once

int run_dbg_cgi(int argc, char **argv);
