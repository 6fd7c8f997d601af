#include "dbgcgi.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "archive.h"
#include "common.h"
#include "coredump.h"
#include "handoff.h"
#include "monitor.h"
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

// Control messages, reused for every request (at most 4095 bytes and a NUL).
char request_buf[4096];

// Forwards one core dump stored in the dump directory to the push listener.
// Once the directory has been seen empty (*drained), it is not looked at
// again until the daemon restarts.
void check_dumps(int *drained)
{
    if (*drained)
        return;
    if (!dbgcgi.dump_dir) {
        syslog(LOG_ERR, "Invalid dump directory");
        return;
    }
    unique_fd dfd(open(dbgcgi.dump_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dfd.valid())
        return;
    unique_dir d(fdopendir(dfd.get()));
    if (!d) {
        perror("check_dumps");
        return;
    }
    dfd.release();  // the directory stream owns it now
    const dirent *de;
    int fd = -1;
    // Only regular files are dumps.  Anything else is passed over: a FIFO
    // would hold the daemon in open (hence O_NONBLOCK) or read, and a
    // directory would be pushed as an empty download for ever.
    while ((de = readdir(d.get()))) {
        if (strcmp(de->d_name, ".") == 0 || strcmp(de->d_name, "..") == 0)
            continue;
        fd = openat(dirfd(d.get()), de->d_name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd == -1) {
            perror("check_dumps");
            return;
        }
        struct stat st;
        if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
            break;
        close(fd);
        fd = -1;
    }
    if (de) {
        if (handle_request_push(fd, de->d_name) != 0) {
            syslog(LOG_ERR, "Failed to send dump: %s", de->d_name);
            return;
        }
        if (unlinkat(dirfd(d.get()), de->d_name, 0) == -1) {
            perror("check_dumps");
            return;
        }
    }
    // Whatever the next entry is ("." and ".." included), the directory is
    // not yet seen empty.
    if (!readdir(d.get()))
        *drained = 1;
    if (closedir(d.release()) != 0)
        perror("check_dumps");
}

// The crash socket: a local stream socket at path (stale file removed).
// The descriptor, or -1.
int crash_socket(const char *path)
{
    unlink(path);
    unique_fd s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!s.valid())
        return -1;
    sockaddr_un sa;
    memset(&sa, 0, sizeof sa);
    sa.sun_family = AF_UNIX;
    size_t len = strlen(path);
    memcpy(sa.sun_path, path, len < sizeof sa.sun_path ? len : sizeof sa.sun_path);
    if (bind(s.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) == -1 ||
        listen(s.get(), 2) == -1) {
        syslog(LOG_ERR, "Could not open %s: %m", path);
        return -1;
    }
    return s.release();
}

}  // namespace

int debug_info_daemon(int cgi_fd, int segf_fd)
{
    pthread_t monitor_thread;
    int err = pthread_create(&monitor_thread, nullptr, monitor_thread_run, nullptr);
    if (err != 0) {
        errno = err;
        perror("pthread_create");
        return 1;
    }
    int drained = 0;
    int maxfd = cgi_fd > segf_fd ? cgi_fd : segf_fd;
    for (;;) {
        fd_set rd;
        FD_ZERO(&rd);
        FD_SET(cgi_fd, &rd);
        FD_SET(segf_fd, &rd);
        int n = select(maxfd + 1, &rd, nullptr, nullptr, nullptr);
        if (n == -1) {
            perror("select");
            continue;
        }
        if (n == 0)
            continue;
        if (FD_ISSET(cgi_fd, &rd)) {
            int client = -1;
            int len = handoff_recv(cgi_fd, request_buf, sizeof request_buf - 1, &client);
            if (len < 1)
                continue;
            request_buf[len] = '\0';
            // A connection handed over non-blocking would turn every wait
            // for the browser into a busy loop: the service writes blocking,
            // each wait bounded by the stall limit.
            int fl = client >= 0 ? fcntl(client, F_GETFL) : -1;
            if (fl != -1 && (fl & O_NONBLOCK))
                fcntl(client, F_SETFL, fl & ~O_NONBLOCK);
            pre_process_request(client, request_buf, len);
        }
        if (FD_ISSET(segf_fd, &rd)) {
            int conn = accept4(segf_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (conn != -1)
                handle_request_push(conn, "core");
            continue;
        }
        check_dumps(&drained);
    }
}

dbgcgi_settings dbgcgi = {
    0,
    1,
    0,
    "/var/run/dbg-cgi/ctrl-cgi-socket",
    "/var/run/dbg-cgi/ctrl-segf-socket",
    "/usr/bin/memsnap",
    "/var/spool/storage/SD_DISK/dumps",
};

namespace {

// The command line into dbgcgi.  False (after printing the usage) for an
// unknown option.
bool parse_options(int argc, char **argv)
{
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
            return false;
        }
    }
    return true;
}

// Detaches, opens both control sockets and serves until killed.  The exit
// status.
int serve()
{
    if (!dbgcgi.foreground && daemon(0, 0) == -1) {
        perror("daemon\n");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGALRM, SIG_IGN);
    // Months of short request threads: one allocation arena, and large
    // buffers (traces, runtime-trace reads) mapped and unmapped each time
    // rather than kept in arenas, so that memory returns after every burst.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);

    unlink(dbgcgi.cgi_socket);
    int cgi_fd = handoff_server_socket(dbgcgi.cgi_socket, 0666);
    if (cgi_fd < 0) {
        errno = -cgi_fd;
        syslog(LOG_ERR, "Could not open %s: %m", dbgcgi.cgi_socket);
        exit(1);
    }
    unique_fd cgi(cgi_fd);
    // Declared after cgi, so closed before it.
    unique_fd segf(crash_socket(dbgcgi.segf_socket));
    if (!segf.valid())
        return 1;
    return debug_info_daemon(cgi.get(), segf.get());
}

}  // namespace

int run_dbg_cgi(int argc, char **argv)
{
    openlog("dbg-cgi", LOG_PID, LOG_DAEMON);
    if (!parse_options(argc, argv))
        return 1;

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
        // The archive keeps standard output's file on a descriptor of its
        // own, and descriptor 1 becomes standard error: a warning printed on
        // the way (the tracer's) must not land inside the archive.
        unique_fd out(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
        if (!out.valid() || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
            perror("dup");
            return 1;
        }
        if (dbgcgi.gzip)
            stream_tgz(out.get());
        else
            stream_tar(out.get());
        return 0;
    }
    return serve();
}
