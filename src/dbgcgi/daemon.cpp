#include "dbgcgi.h"

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include "archive.h"
#include "common.h"
#include "coredump.h"
#include "proc.h"

namespace {

const char usage_text[] =
    "dbg-cgi 0.1\ndbg-cgi [options] [pids...]\n\n"
    "-d\tdump tar archive with core-files for pids to stdout.\n"
    "-t\tonly tar the archive.\n"
    "-i\tignore pid\n"
    "-p\tprogram to create coredumps [/usr/bin/memsnap]\n"
    "-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
    "-h\thelp";

}  // namespace

dbgcgi_settings dbgcgi = {
    0,
    1,
    0,
    "/var/run/dbg-cgi/ctrl-cgi-socket",
    "/var/run/dbg-cgi/ctrl-segf-socket",
    "/usr/bin/memsnap",
    "/var/spool/storage/SD_DISK/dumps",
};

int run_dbg_cgi(int argc, char **argv)
{
    openlog("dbg-cgi", LOG_PID, LOG_DAEMON);
    int c;
    while ((c = getopt(argc, argv, "di:np:s:c:k:ht")) != -1) {
        switch (c) {
        case 'd':
            dbgcgi.dump_mode = 1;
            break;
        case 'i':
            proc_extra_ignore_pid = static_cast<int32_t>(strtoul(optarg, nullptr, 0));
            break;
        case 'n':
            dbgcgi.foreground = 1;
            break;
        case 'p':
            dbgcgi.dumper = optarg;
            break;
        case 's':
            dbgcgi.segf_socket = optarg;
            break;
        case 'c':
            dbgcgi.cgi_socket = optarg;
            break;
        case 'k':
            dbgcgi.dump_dir = optarg;
            break;
        case 't':
            dbgcgi.gzip = 0;
            break;
        default:
            puts(usage_text);
            return 1;
        }
    }

    // Lives as long as the daemon; the first null slot takes each dump's pid.
    static char *dumper_argv[5];
    dumper_argv[0] = const_cast<char *>(dbgcgi.dumper);
    dumper_argv[1] = const_cast<char *>("-c");
    dumper_argv[2] = const_cast<char *>("/dev/stdout");
    dumper_argv[3] = nullptr;
    dumper_argv[4] = nullptr;
    dump_set_dumper(dumper_argv);
    dump_init();

    if (dbgcgi.dump_mode) {
        if (dbgcgi.gzip)
            stream_tgz(STDOUT_FILENO);
        else
            stream_tar(STDOUT_FILENO);
        return 0;
    }
    return applet_unbuilt("debugar.cgi");
}
