// Test driver: two archives made one after the other by one process, each to
// a reader that keeps only the first header; prints the archive directories.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "archive.h"
#include "coredump.h"

int main()
{
    signal(SIGPIPE, SIG_IGN);
    static char *dumper[] = {const_cast<char *>("/bin/false"), nullptr, nullptr};
    dump_set_dumper(dumper);
    dump_init();
    for (int i = 0; i < 2; i++) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
            return 1;
        char header[512] = {};
        std::thread reader([&] {
            size_t got = 0;
            while (got < sizeof header) {
                ssize_t n = read(sv[1], header + got, sizeof header - got);
                if (n <= 0)
                    break;
                got += static_cast<size_t>(n);
            }
            // the client goes away after the first header
            close(sv[1]);
        });
        stream_tar(sv[0]);
        reader.join();
        close(sv[0]);
        const char *slash = strchr(header, '/');
        printf("%.*s\n", slash ? static_cast<int>(slash - header + 1) : 0, header);
    }
    return 0;
}
