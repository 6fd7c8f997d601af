// The runtime trace sampler: periodic /proc snapshots, a disk usage table and
// the live output of helper programs, as binary records on one connection.
#include "monitor.h"

#include "common.h"

#include <dirent.h>
#include <fcntl.h>
#include <errno.h>
#include <mntent.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static_assert(sizeof(rtrace_apps) == 88, "the running-helpers record is 88 bytes");

namespace {

// The wait between rounds: the interval, but at least a second, so that 0
// does not run rounds back to back.
long long wait_ms(const rtrace_config *config)
{
    return (config->interval < 1 ? 1 : static_cast<long long>(config->interval)) * 1000;
}

// Waits one interval; true when the client went away meanwhile (its
// connection hung up), so a trace whose rounds write nothing still ends.
bool departed_during_wait(const rtrace_config *config)
{
    // A negative interval (an unparsable one) ends the trace after its first
    // round, as it does with helpers, instead of sleeping for ever.
    if (config->interval < 0)
        return true;
    long long deadline = monotonic_ms() + wait_ms(config);
    for (;;) {
        long long left = deadline - monotonic_ms();
        if (left <= 0)
            return false;
        pollfd p = {config->fd, POLLRDHUP, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno != EINTR)
            return false;
        if (r > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)))
            return true;
    }
}

struct helper_row {
    uint32_t item;
    uint32_t type;
    const char *argv[4];
    const char *envp[4];
    int interval_arg;          // index of the argument the interval replaces; 0: none
};

const helper_row HELPERS[] = {
    {RTRACE_IOSTAT, RTRACE_REC_IOSTAT, {"/usr/bin/iostat", "-xcdk", "20", nullptr}, {nullptr}, 2},
    {RTRACE_HEARTH,
     RTRACE_REC_HEARTH,
     {"/usr/bin/hearth", "-n", nullptr},
     {"PIPETAP_LOG_NAME=-", "PIPETAP_SHOW=gap", "LD_PRELOAD=/tmp/libpipetap.so", nullptr},
     0},
    {RTRACE_EVENT, RTRACE_REC_EVENT, {"/usr/bin/signalpost", "-s", "-r", nullptr}, {nullptr}, 0},
    {RTRACE_PIDSTAT, RTRACE_REC_PIDSTAT, {"/usr/bin/pidstat", "20", nullptr}, {nullptr}, 1},
};

bool write_all(int fd, const void *data, size_t len)
{
    return safe_write(fd, data, static_cast<unsigned>(len)) == static_cast<int>(len);
}

// rtrace_send_file with the caller's buffer of RTRACE_BUF_SIZE bytes.
int send_file(int fd, uint32_t type, const char *path, int32_t pid, char *buf)
{
    unique_file f(fopen(path, "rbe"));
    if (!f)
        return 1;
    bool sent = false;
    for (;;) {
        size_t n = fread(buf, 1, RTRACE_BUF_SIZE, f.get());
        if (n == 0)
            break;
        uint32_t len = static_cast<uint32_t>(pid >= 0 ? n + sizeof pid : n);
        if (rtrace_write_header(fd, type, len, 1) != 0)
            return 0;
        if (pid >= 0 && !write_all(fd, &pid, sizeof pid))
            return 0;
        if (!write_all(fd, buf, n))
            return 0;
        sent = true;
    }
    if (!sent)
        return 1;
    return rtrace_write_header(fd, type, 0, 0) == 0 ? 1 : 0;
}

bool all_digits(const char *s)
{
    if (!*s)
        return false;
    for (; *s; s++) {
        if (*s < '0' || *s > '9')
            return false;
    }
    return true;
}

bool network_mount(const mntent &m)
{
    if (strchr(m.mnt_fsname, ':'))
        return true;
    return strncmp(m.mnt_fsname, "//", 2) == 0 &&
           (strcmp(m.mnt_type, "smbfs") == 0 || strcmp(m.mnt_type, "cifs") == 0);
}

} // namespace

rtrace_config *rtrace_create(int fd, int interval, uint32_t items)
{
    rtrace_config *config = static_cast<rtrace_config *>(calloc(1, sizeof *config));
    if (!config)
        return nullptr;
    config->interval = interval;
    config->fd = fd;
    config->items = items;
    return config;
}

void rtrace_destroy(rtrace_config *config)
{
    free(config);
}

int rtrace_write_header(int fd, uint32_t type, uint32_t length, uint8_t flag)
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    int64_t ms = static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
    unsigned char h[RTRACE_HEADER_SIZE] = {};
    memcpy(h, &type, 4);
    memcpy(h + 4, &length, 4);
    memcpy(h + 8, &ms, 8);
    h[16] = flag;
    return safe_write(fd, h, sizeof h) == static_cast<int>(sizeof h) ? 0 : -1;
}

int rtrace_send_file(int fd, uint32_t type, const char *path, int32_t pid)
{
    unique_heap<char[]> buf = heap_buffer(RTRACE_BUF_SIZE);
    if (!buf.get())
        return 0;
    return send_file(fd, type, path, pid, buf.get());
}

int rtrace_send_per_pid(int fd, uint32_t type, const char *suffix)
{
    // One buffer for the whole walk.
    unique_heap<char[]> buf = heap_buffer(RTRACE_BUF_SIZE);
    if (!buf.get())
        return 0;
    unique_dir d(opendir("/proc"));
    if (!d)
        return 1;
    while (const dirent *de = readdir(d.get())) {
        if (de->d_type != DT_DIR || !all_digits(de->d_name))
            continue;
        char path[200];
        int n = snprintf(path, sizeof path, "/proc/%s%s", de->d_name, suffix);
        if (n < 0 || static_cast<size_t>(n) >= sizeof path)
            continue;
        int32_t pid = static_cast<int32_t>(strtol(de->d_name, nullptr, 10));
        if (!send_file(fd, type, path, pid, buf.get()))
            return 0;
    }
    return 1;
}

int rtrace_send_diskinfo(int fd)
{
    return rtrace_send_diskinfo_from(fd, "/proc/mounts");
}

int rtrace_send_diskinfo_from(int fd, const char *mount_table)
{
    unique_heap<char[]> text = heap_buffer(RTRACE_BUF_SIZE);
    if (!text.get())
        return 0;
    size_t len = static_cast<size_t>(
        snprintf(text.get(), RTRACE_BUF_SIZE, "%-20s\tUsed\tAvail\tMounted on\n", "Filesystem"));

    // The table is closed at the end of this block, before anything is sent.
    if (unique_with<FILE, endmntent> table(setmntent(mount_table, "r")); table) {
        mntent m;
        char strings[4096];
        while (len < RTRACE_BUF_SIZE && getmntent_r(table.get(), &m, strings, sizeof strings)) {
            if (network_mount(m))
                continue;
            struct statfs st;
            if (statfs(m.mnt_dir, &st) != 0)
                continue;
            // 32-bit products, as on the device: they wrap at 4 GiB.
            uint32_t used = static_cast<uint32_t>(st.f_blocks - st.f_bfree) * static_cast<uint32_t>(st.f_bsize);
            uint32_t avail = static_cast<uint32_t>(st.f_bsize) * static_cast<uint32_t>(st.f_bavail);
            size_t room = RTRACE_BUF_SIZE - len;
            int n = snprintf(text.get() + len, room, "%-20s\t%ld\t%ld\t%s\n", m.mnt_fsname,
                             static_cast<long>(used >> 10), static_cast<long>(avail >> 10), m.mnt_dir);
            if (n < 0)
                break;
            // A cut line fills the buffer (its terminator does not count).
            len += static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
            if (static_cast<size_t>(n) >= room)
                break;
        }
    }
    if (rtrace_write_header(fd, RTRACE_REC_DISKINFO, static_cast<uint32_t>(len), 0) != 0)
        return 0;
    return write_all(fd, text.get(), len) ? 1 : 0;
}

int rtrace_start_apps(rtrace_config *config, rtrace_apps **apps)
{
    int selected = 0;
    for (const helper_row &row : HELPERS) {
        if (config->items & row.item)
            selected++;
    }
    if (selected == 0)
        return 0;

    char interval[10];
    snprintf(interval, sizeof interval, "%d", config->interval);
    rtrace_apps *a = static_cast<rtrace_apps *>(calloc(1, sizeof *a));
    if (!a)
        return 0;
    *apps = a;

    for (const helper_row &row : HELPERS) {
        if (!(config->items & row.item))
            continue;
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0)
            continue;
        char *argv[4];
        for (int i = 0; i < 4; i++)
            argv[i] = const_cast<char *>(row.argv[i]);
        if (row.interval_arg)
            argv[row.interval_arg] = interval;
        pid_t pid = sys_run_envp_nowait(argv[0], argv, const_cast<char *const *>(row.envp),
                                        STDIN_FILENO, p[1], STDERR_FILENO, 0);
        int k = a->count;
        a->pipes[k][0] = p[0];
        a->pipes[k][1] = p[1];
        a->pids[k] = pid;
        a->types[k] = row.type;
        if (p[1] > a->maxfd)
            a->maxfd = p[1];
        a->count++;
    }
    return 0;
}

int rtrace_end_apps(rtrace_config *config, rtrace_apps *apps)
{
    if (!config || !apps)
        return -1;
    for (int i = 0; i < apps->count; i++) {
        close(apps->pipes[i][0]);
        close(apps->pipes[i][1]);
    }
    for (int i = 0; i < apps->count; i++) {
        // A helper that could not be forked has no pid to signal.
        if (apps->pids[i] <= 0)
            continue;
        kill(apps->pids[i], SIGTERM);
        waitpid(apps->pids[i], nullptr, 0);
    }
    free(apps);
    return 0;
}

int rtrace_pump_apps(rtrace_config *config, rtrace_apps *apps)
{
    // A negative interval is no time to wait: the trace ends.
    if (config->interval < 0)
        return -1;
    unique_heap<char[]> buf = heap_buffer(RTRACE_BUF_SIZE, true);
    if (!buf.get())
        return 0;

    // The helpers' pipes and, last, the connection, watched for the
    // client's departure only: a client that leaves ends the trace at once,
    // whatever the interval or the helpers print.
    pollfd fds[RTRACE_MAX_APPS + 1];
    int n = apps->count;
    for (int i = 0; i < n; i++)
        fds[i] = {apps->pipes[i][0], POLLIN, 0};
    fds[n] = {config->fd, POLLRDHUP, 0};
    long long deadline = monotonic_ms() + wait_ms(config);
    for (;;) {
        long long left = deadline - monotonic_ms();
        if (left <= 0)
            return 0;
        int r = poll(fds, static_cast<nfds_t>(n + 1), static_cast<int>(left));
        if (r == -1) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (fds[n].revents & (POLLRDHUP | POLLHUP | POLLERR))
            return -1;
        for (int i = 0; i < n; i++) {
            if (!fds[i].revents)
                continue;
            ssize_t k = read(fds[i].fd, buf.get(), RTRACE_BUF_SIZE - 1);
            buf.get()[RTRACE_BUF_SIZE - 1] = '\0';
            if (k <= 0) {
                // A helper that ended is watched no more.
                fds[i].fd = -1;
                continue;
            }
            if (rtrace_write_header(config->fd, apps->types[i], static_cast<uint32_t>(k), 0) != 0 ||
                !write_all(config->fd, buf.get(), static_cast<size_t>(k)))
                return -1;
        }
    }
}

int rtrace_send_round(rtrace_config *config)
{
    const int fd = config->fd;
    const uint32_t items = config->items;
    const bool per_pid = items & (RTRACE_SMAPS | RTRACE_STATUS);

    if (per_pid && rtrace_write_header(fd, RTRACE_REC_PERPID, 0, 1) != 0)
        return 0;
    if ((items & RTRACE_SMAPS) && !rtrace_send_per_pid(fd, RTRACE_REC_SMAPS, "/smaps"))
        return 0;
    if ((items & RTRACE_STATUS) && !rtrace_send_per_pid(fd, RTRACE_REC_STATUS, "/status"))
        return 0;
    if (per_pid && rtrace_write_header(fd, RTRACE_REC_PERPID, 0, 0) != 0)
        return 0;
    if ((items & RTRACE_SMAPSTOT) && !rtrace_send_file(fd, RTRACE_REC_SMAPSTOT, "/proc/smapstot", -1))
        return 0;
    if ((items & RTRACE_FILENR) && !rtrace_send_file(fd, RTRACE_REC_FILENR, "/proc/sys/fs/file-nr", -1))
        return 0;
    if ((items & RTRACE_MEMINFO) && !rtrace_send_file(fd, RTRACE_REC_MEMINFO, "/proc/meminfo", -1))
        return 0;
    if ((items & RTRACE_DISKINFO) && !rtrace_send_diskinfo(fd))
        return 0;
    if ((items & RTRACE_PAGETYPEINFO) &&
        !rtrace_send_file(fd, RTRACE_REC_PAGETYPEINFO, "/proc/pagetypeinfo", -1))
        return 0;
    return 1;
}

int rtrace_run(rtrace_config *config)
{
    rtrace_apps *apps = nullptr;
    rtrace_start_apps(config, &apps);
    // There is no duration: the trace ends when the client has gone and a
    // write fails.
    for (;;) {
        if (!rtrace_send_round(config))
            break;
        if (apps) {
            if (rtrace_pump_apps(config, apps) != 0)
                break;
        } else if (departed_during_wait(config)) {
            break;
        }
    }
    rtrace_end_apps(config, apps);
    return 0;
}

int rtrace_follow_file(rtrace_config *config, const char *path)
{
    while (rtrace_send_file(config->fd, RTRACE_REC_FOLLOW, path, -1))
        sleep(static_cast<unsigned>(config->interval));
    return 0;
}
