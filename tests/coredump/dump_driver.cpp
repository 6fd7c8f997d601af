// Test driver: one live core dump through dump_one (into a tar stream) or
// coredump (bare), with a given dumper, onto standard output.
//   dump_driver tar|raw DUMPER PID
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tar.h"
#include "coredump.h"

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    signal(SIGPIPE, SIG_IGN);
    static char *dumper[5] = {argv[2], const_cast<char *>("-c"),
                              const_cast<char *>("/dev/stdout"), nullptr, nullptr};
    dump_set_dumper(dumper);
    dump_init();
    int32_t pid = static_cast<int32_t>(atoi(argv[3]));
    if (strcmp(argv[1], "raw") == 0)
        return coredump(STDOUT_FILENO, pid);
    int32_t pids[1] = {pid};
    tar *t = tar_new(STDOUT_FILENO, nullptr);
    int r = dump_one(t, STDOUT_FILENO, pids, 0, 1);
    tar_close(t);
    return r;
}
