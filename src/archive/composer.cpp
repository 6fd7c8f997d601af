// The debug archive: one ustar stream of configuration, /proc snapshots, a
// short trace and capture, command outputs, kcore and a core of every process.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "archive.h"
#include "capture.h"
#include "common.h"
#include "coredump.h"
#include "proc.h"
#include "trace.h"

const char *stream_kcore_path = "/proc/kcore";

namespace {

enum {
    MAX_PIDS = 1024,
    FILE_BUFSIZE = 102400,
    STRACE_BUDGET = 204800,
    PCAP_SIZE = 512000,
    PCAP_RECLEN = 1536,
    KCORE_MAX = 10485760,
};

// Not locked: the service makes one archive at a time.
int archive_seq;

const char *const proc_skip[] = {"kcore", "vmcore", "kmem", "kmsg", nullptr};

const char *const proc_dirs[] = {
    "/proc/sys/",           "/proc/sys/fs/",          "/proc/sys/kernel/",
    "/proc/sys/kernel/random/", "/proc/sys/net/bridge/", "/proc/sys/net/core/",
    "/proc/sys/net/ipv4/",  "/proc/sys/net/ipv4/conf/", "/proc/sys/net/ipv4/neigh/",
    "/proc/sys/net/ipv4/route/", "/proc/sys/net/ipv6/", "/proc/sys/net/ipv6/conf/",
    "/proc/sys/net/ipv6/icmp/", "/proc/sys/net/ipv6/neigh/", "/proc/sys/net/ipv6/route/",
    "/proc/sys/net/unix/",  "/proc/sys/vm/",          "/proc/driver/",
    "/proc/net/",           "/proc/net/dev_snmp6/",   "/proc/net/ip6t_hashlimit/",
    "/proc/net/ipt_hashlimit/", "/proc/net/netfilter/", "/proc/net/rpc/",
    "/proc/net/stat/",      "/proc/net/vlan/",
};

void local_stamp(char *buf, size_t size, const char *fmt, int seq)
{
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    snprintf(buf, size, fmt, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
             tm.tm_min, tm.tm_sec, seq);
}

// Runs a program into an unlinked temporary file and stores its output as
// one member.
int stream_command(tar *t, int fd, const char *member, const char *tmpl, char *const argv[])
{
    char name[64];
    snprintf(name, sizeof name, "%s", tmpl);
    unique_fd tmp(mkostemp(name, O_CLOEXEC));
    if (!tmp.valid())
        return 0;
    unlink(name);
    sys_run(argv[0], argv, STDIN_FILENO, tmp.get(), tmp.get(), 0);
    struct stat st;
    if (fstat(tmp.get(), &st) == -1)
        return 0;
    tar_addfile(t, member, static_cast<uint32_t>(st.st_size));
    lseek(tmp.get(), 0, SEEK_SET);
    int copied = safe_copyfd(tmp.get(), fd);
    if (copied < 0)
        return 1;
    tar_fakewrite(t, static_cast<uint32_t>(copied));
    return 0;
}

}  // namespace

int strlist_lookup(const char *s, const char *const *list)
{
    if (!list)
        return -1;
    for (int i = 0; list[i]; i++)
        if (strcmp(s, list[i]) == 0)
            return i;
    return -1;
}

int stream_file_unknownsize(tar *t, int fd, const char *member, const char *path, int bufsize)
{
    (void)fd;
    if (bufsize == 0)
        bufsize = FILE_BUFSIZE;
    unique_heap<char[]> buf = heap_buffer(static_cast<size_t>(bufsize));
    if (!buf)
        return 1;
    unique_fd in(open(path, O_RDONLY | O_CLOEXEC));
    int n = in.valid() ? safe_read(in.get(), buf.get(), static_cast<unsigned>(bufsize)) : -1;
    if (n > 0) {
        tar_addfile(t, member, static_cast<uint32_t>(n));
        tar_write(t, buf.get(), static_cast<uint32_t>(n));
    } else if (n < 0 && errno != EISDIR) {
        perror(path);
    }
    return 0;
}

int stream_dir_unknownsize(tar *t, int fd, const char *member_dir, const char *dir_path,
                           const char *const *skip_list)
{
    unique_dir dir(opendir(dir_path));
    if (!dir)
        return 1;
    const char *prefix = member_dir ? member_dir : "";
    while (dirent *e = readdir(dir.get())) {
        if (strlist_lookup(e->d_name, skip_list) >= 0)
            continue;
        char *member = nullptr, *path = nullptr;
        if (asprintf(&member, "%s%s", prefix, e->d_name) >= 0 &&
            asprintf(&path, "%s%s", dir_path, e->d_name) >= 0)
            stream_file_unknownsize(t, fd, member, path, 0);
        free(member);
        free(path);
    }
    return 0;
}

int stream_proc(tar *t, int fd)
{
    char dir[128];
    local_stamp(dir, sizeof dir, "proc.%4.4d%2.2d%2.2d-%2.2d%2.2d%2.2d/", 0);
    int r = stream_dir_unknownsize(t, fd, dir, "/proc/", proc_skip);
    for (const char *path : proc_dirs)
        stream_dir_unknownsize(t, fd, path + 1, path, nullptr);
    return r;
}

int stream_strace_log(tar *t, int32_t *pids, int npids)
{
    cb_strace_ctx budget = {t->fd, STRACE_BUDGET, 0};
    tar_addfile(t, "strace.log", STRACE_BUDGET);
    strace_ctx ctx = {};
    ctx.out = cb_strace;
    ctx.arg = &budget;
    ctx.flags = -1;
    ctx.pids = pids;
    ctx.npids = npids;
    ctx.duration = 5;
    ctx.children = 0;
    do_strace(&ctx);
    if (budget.error)
        return 1;
    if (budget.budget > 0)
        pad_ascii(t->fd, budget.budget);
    tar_fakewrite(t, STRACE_BUDGET);
    return 0;
}

int stream_pcap_dump(tar *t, int fd, const char *ifname, int seconds, int size)
{
    int count = 0;
    unique_heap<sock_filter> filter(static_cast<sock_filter *>(filter_me(fd, &count)));
    sock_fprog prog = {static_cast<unsigned short>(count), filter.get()};
    if (t)
        tar_addfile(t, "netdump.cap", static_cast<uint32_t>(size));
    int n = pcap_dump(ifname, fd, size, PCAP_RECLEN, seconds, 1, filter ? &prog : nullptr);
    int r = 0;
    if (n < 0 || stream_pad(fd, size - n) != 0)
        r = 1;
    else if (t)
        tar_fakewrite(t, static_cast<uint32_t>(size));
    return r;
}

int stream_sysdigest(tar *t, int fd)
{
    char *const argv[] = {const_cast<char *>("/usr/sbin/gen_sysdigest.sh"), nullptr};
    return stream_command(t, fd, "sysdigest.txt", "/tmp/.sdigestXXXXXX", argv);
}

int stream_oopslog(tar *t, int fd)
{
    char *const argv[] = {const_cast<char *>("/usr/sbin/oopslog"), const_cast<char *>("-r"),
                          const_cast<char *>("/dev/part/oops"), nullptr};
    return stream_command(t, fd, "oopslog", "/tmp/.oopslogXXXXXX", argv);
}

int stream_kcore(tar *t, int fd)
{
    unique_fd in(open(stream_kcore_path, O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (!in.valid() || fstat(in.get(), &st) == -1 || st.st_size == 0 || st.st_size > KCORE_MAX)
        return 0;
    tar_addfile(t, "kcore", static_cast<uint32_t>(st.st_size));
    lseek(in.get(), 0, SEEK_SET);
    int copied = safe_copyfd(in.get(), fd);
    if (copied < 0)
        return 1;
    if (copied < st.st_size)
        stream_pad(fd, static_cast<int>(st.st_size - copied));
    // Only what was copied is counted, not the filler: the member's framing
    // then relies on the next header's padding.
    tar_fakewrite(t, static_cast<uint32_t>(copied));
    return 0;
}

void stream_coredumps(tar *t, int fd, int32_t *pids, int npids)
{
    for (int i = 0; i < npids; i++) {
        if (pids[i] == -1)
            continue;
        if (dump_one(t, fd, pids, i, npids) == EPIPE)
            break;
    }
}

int stream_pcap(int fd, int seconds, int size)
{
    return stream_pcap_dump(nullptr, fd, "eth0", seconds < 0 ? 5 : seconds,
                            size < 0 ? 5120000 : size);
}

void stream_ps(int fd)
{
    char *const argv[] = {const_cast<char *>("/bin/ps"), nullptr};
    sys_run(argv[0], argv, STDIN_FILENO, fd, fd, 0);
}

void stream_archive(int fd, int32_t exclude_pid)
{
    static int32_t pids[MAX_PIDS];
    int n = proc_list(pids, MAX_PIDS, exclude_pid);

    char dir[128];
    local_stamp(dir, sizeof dir, "debug-%4.4d%2.2d%2.2d-%2.2d%2.2d%2.2d-c%d/", archive_seq++);
    tar *t = tar_new(fd, dir);
    if (!t)
        return;

    // A stop leaves the stream truncated: no further members, no padding.
    if (stream_file_unknownsize(t, fd, "dbg-monitor.txt", "/var/run/dbg-cgi/dbg-monitor.txt", 0) ||
        stream_file_unknownsize(t, fd, "media.conf", "/etc/ws/onvif/media/media.conf", 0) ||
        stream_proc(t, fd) || stream_strace_log(t, pids, n) ||
        stream_pcap_dump(t, fd, "eth0", 5, PCAP_SIZE) || stream_sysdigest(t, fd) ||
        stream_oopslog(t, fd) || stream_kcore(t, fd) || stream_proc(t, fd)) {
        free(t->prefix);
        free(t);
        return;
    }
    stream_coredumps(t, fd, pids, n);
    tar_close(t);
}
