// The debug-info daemon, started as "debugar.cgi".
#pragma once

// Settings from the command line, process-wide.
struct dbgcgi_settings {
    int dump_mode;           // -d: one archive to stdout, then exit
    int gzip;                // -t clears it
    int foreground;          // -n
    const char *cgi_socket;  // -c
    const char *segf_socket; // -s
    const char *dumper;      // -p
    const char *dump_dir;    // -k
};
extern dbgcgi_settings dbgcgi;

int run_dbg_cgi(int argc, char **argv);
