#include "proc.h"

#include "common.h"
#include "tar.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

int32_t proc_extra_ignore_pid = 0;

namespace {

// Paths are formatted with "%ld" for the pid; a path that does not fit
// counts as a formatting failure.
bool fits(int n, size_t size)
{
    return n >= 0 && static_cast<size_t>(n) < size;
}

bool format_path(char *buf, size_t size, const char *fmt, const char *dir, long pid)
{
    return fits(snprintf(buf, size, fmt, dir, pid), size);
}

bool format_pid_path(char *buf, size_t size, const char *fmt, long pid)
{
    return fits(snprintf(buf, size, fmt, pid), size);
}

bool exists(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

// A descriptor that vanishes while proc_nr_fd2 reads the directory makes it
// start over; a process that keeps churning descriptors must not keep it
// there for ever, so after this many restarts a vanished entry is passed over.
constexpr int NR_FD_MAX_RESTARTS = 16;

} // namespace

int proc_read_file(const char *path, void *buf, size_t len)
{
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return -1;
    return static_cast<int>(read(fd.get(), buf, len));
}

int proc_parse_cmdline_name(char *buf, size_t size)
{
    if (size == 0)
        return 0;
    buf[size - 1] = '\0';
    // Only argv[0] counts; a first word without '/' is left to the stat name.
    char *slash = strrchr(buf, '/');
    if (!slash || slash[1] == '\0')
        return 0;
    memmove(buf, slash + 1, strlen(slash + 1) + 1);
    return 1;
}

int proc_parse_stat_name(char *buf, size_t size)
{
    if (size == 0)
        return 0;
    buf[size - 1] = '\0';
    // The name may itself hold parentheses: the last ')' followed by a blank
    // closes it.
    char *close = strrchr(buf, ')');
    if (!close || close[1] != ' ')
        return 0;
    *close = '\0';
    char *open = strrchr(buf, '(');
    if (!open || open[1] == '\0')
        return 0;
    memmove(buf, open + 1, strlen(open + 1) + 1);
    return 1;
}

int32_t proc_parse_stat_ppid(const char *text, size_t len)
{
    char buf[257];
    if (len > 256)
        len = 256;
    memcpy(buf, text, len);
    buf[len] = '\0';

    // A name holding white space shifts the count; callers live with that.
    int runs = 0;
    const char *p = buf;
    while (*p) {
        if (!isspace(static_cast<unsigned char>(*p))) {
            p++;
            continue;
        }
        while (isspace(static_cast<unsigned char>(*p)))
            p++;
        if (++runs == 3)
            return static_cast<int32_t>(strtoul(p, nullptr, 10));
    }
    return -1;
}

int proc_name_from_dir(const char *dir, int32_t pid, char *buf, size_t size)
{
    if (size == 0)
        return 0;
    char path[128];
    if (format_path(path, sizeof path, "%s/%ld/cmdline", dir, pid) && exists(path) &&
        proc_read_file(path, buf, size) > 0 && proc_parse_cmdline_name(buf, size))
        return 1;

    if (!format_path(path, sizeof path, "%s/%ld/stat", dir, pid))
        return 0;
    // Without a stat file the buffer is parsed as it stands.
    if (exists(path) && proc_read_file(path, buf, size) < 1)
        return 0;
    return proc_parse_stat_name(buf, size);
}

int proc_get_pidname(int32_t pid, char *buf, size_t size)
{
    return proc_name_from_dir("/proc", pid, buf, size);
}

int proc_list(int32_t *pids, int capacity, int32_t exclude)
{
    unique_dir dir(opendir("/proc/"));
    if (!dir)
        return 0;
    const pid_t self = getpid();
    const pid_t parent = getppid();
    int count = 0;
    // The directory is read to its end even when the array is full.
    while (const dirent *de = readdir(dir.get())) {
        unsigned long v = strtoul(de->d_name, nullptr, 10);
        if (v == 0 && de->d_name[0] != '0')
            continue;
        int32_t pid = static_cast<int32_t>(v);
        if (pid == 1 || pid == exclude || pid == proc_extra_ignore_pid || pid == self ||
            pid == parent || count >= capacity)
            continue;
        pids[count++] = pid;
    }
    return count;
}

void proc_plist_remove_pid(int32_t *pids, int first, int count, int32_t pid)
{
    // Slots before the array do not exist: a negative first index scans from 0.
    for (int i = first < 0 ? 0 : first; i < count; i++) {
        if (pids[i] == pid) {
            pids[i] = -1;
            return;
        }
    }
}

int proc_pid_exe(int32_t pid, char *buf, size_t size)
{
    char path[128];
    if (!format_pid_path(path, sizeof path, "/proc/%ld/exe", pid))
        return -1;
    size_t max = size ? size - 1 : 0;
    ssize_t n = readlink(path, buf, max);
    // A shorter text stays unterminated: callers go by the length.
    if (n >= 0 && static_cast<size_t>(n) == max && size > 0)
        buf[size - 1] = '\0';
    return static_cast<int>(n);
}

int proc_is_kernel_thread(int32_t pid)
{
    char buf[2];
    return proc_pid_exe(pid, buf, sizeof buf) == -1 ? 1 : 0;
}

int32_t proc_ppid(int32_t pid)
{
    char path[128];
    char buf[256];
    if (!format_pid_path(path, sizeof path, "/proc/%ld/stat", pid))
        return -1;
    int n = proc_read_file(path, buf, sizeof buf);
    if (n < 0)
        return -1;
    return proc_parse_stat_ppid(buf, static_cast<size_t>(n));
}

void proc_find_pid_by_name(const char *dir, const char *name, int32_t *pids, int *count,
                           int capacity)
{
    *count = 0;
    // A local handle: nothing is gained by sharing it between calls.
    unique_dir d(opendir(dir));
    if (!d)
        return;
    while (*count < capacity) {
        const dirent *de = readdir(d.get());
        if (!de)
            break;
        if (!isdigit(static_cast<unsigned char>(de->d_name[0])))
            continue;
        int32_t pid = static_cast<int32_t>(strtol(de->d_name, nullptr, 10));
        char pname[1024];
        if (proc_name_from_dir(dir, pid, pname, sizeof pname) && strcmp(pname, name) == 0)
            pids[(*count)++] = pid;
    }
}

int proc_name_index_build(const char *dir, proc_name_index *ix)
{
    *ix = {0, nullptr, nullptr};
    unique_dir d(opendir(dir));
    if (!d)
        return -1;
    int cap = 0;
    while (const dirent *de = readdir(d.get())) {
        if (!isdigit(static_cast<unsigned char>(de->d_name[0])))
            continue;
        if (ix->n == cap) {
            int grown = cap ? cap * 2 : 256;
            auto *p = static_cast<int32_t *>(realloc(ix->pids, sizeof(int32_t) * static_cast<size_t>(grown)));
            if (p)
                ix->pids = p;
            auto *nm = p ? static_cast<char(*)[64]>(realloc(ix->names, 64 * static_cast<size_t>(grown)))
                         : nullptr;
            if (!nm) {
                proc_name_index_free(ix);
                return -1;
            }
            ix->names = nm;
            cap = grown;
        }
        int32_t pid = static_cast<int32_t>(strtol(de->d_name, nullptr, 10));
        char pname[1024];
        if (!proc_name_from_dir(dir, pid, pname, sizeof pname))
            continue;
        size_t len = strnlen(pname, sizeof pname);
        ix->pids[ix->n] = pid;
        memcpy(ix->names[ix->n], pname, len < 64 ? len + 1 : 1);
        if (len >= 64)
            ix->names[ix->n][0] = 0;
        ix->n++;
    }
    return 0;
}

void proc_name_index_find(const proc_name_index *ix, const char *name, int32_t *pids, int *count,
                          int capacity)
{
    *count = 0;
    for (int i = 0; i < ix->n && *count < capacity; i++)
        if (ix->names[i][0] && strcmp(ix->names[i], name) == 0)
            pids[(*count)++] = ix->pids[i];
}

void proc_name_index_free(proc_name_index *ix)
{
    free(ix->pids);
    free(ix->names);
    *ix = {0, nullptr, nullptr};
}

int proc_fdlist(int32_t pid, int *fds, int capacity)
{
    char path[64];
    if (!format_pid_path(path, sizeof path, "/proc/%ld/fd", pid))
        return 0;
    unique_dir d(opendir(path));
    if (!d)
        return 0;
    int count = 0;
    while (const dirent *de = readdir(d.get())) {
        if (de->d_name[0] == '.')
            continue;
        if (count >= capacity)
            break;
        fds[count++] = static_cast<int>(strtol(de->d_name, nullptr, 10));
    }
    return count;
}

int proc_nr_fd2(int32_t pid, int *nr_sock, int *nr_pipe)
{
    char path[64];
    int total = 0, sockets = 0, pipes = 0;
    auto give_zero = [&] {
        if (nr_sock)
            *nr_sock = 0;
        if (nr_pipe)
            *nr_pipe = 0;
        return 0;
    };
    if (!format_pid_path(path, sizeof path, "/proc/%ld/fd", pid))
        return give_zero();
    unique_dir d(opendir(path));
    if (!d)
        return give_zero();

    int restarts = 0;
    while (const dirent *de = readdir(d.get())) {
        if (de->d_name[0] == '.')
            continue;
        total++;
        if (!nr_sock && !nr_pipe)
            continue;
        char link[128];
        ssize_t n = readlinkat(dirfd(d.get()), de->d_name, link, sizeof link - 1);
        if (n == 0)
            continue;
        if (n < 0) {
            if (restarts >= NR_FD_MAX_RESTARTS)
                continue;
            restarts++;
            // The descriptor closed meanwhile: read the directory again from
            // the start, keeping the counts (entries may be counted twice).
            d.reset(opendir(path));
            if (!d)
                return give_zero();
            continue;
        }
        link[n] = '\0';
        if (memcmp(link, "socket:[", 8) == 0)
            sockets++;
        else if (strcmp(link, "pipe:[") == 0)
            // Exact on purpose: real links carry the inode, so this stays 0;
            // the monitor's reports are built on that.
            pipes++;
    }
    if (nr_sock)
        *nr_sock = sockets;
    if (nr_pipe)
        *nr_pipe = pipes;
    return total;
}

int proc_mem_pread(int32_t pid, void *buf, unsigned len, int64_t offset)
{
    char path[128];
    if (!format_pid_path(path, sizeof path, "/proc/%ld/mem", pid))
        return -1;
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return -1;
    // An unmapped offset shows up as a failing read.
    (void)lseek64(fd.get(), static_cast<off64_t>(offset), SEEK_SET);
    return safe_read(fd.get(), buf, len);
}

void proc_append_fdmap(tar *t, const char *member, int32_t pid, int out_fd)
{
    char tmpl[] = "/tmp/.fdmapXXXXXX";
    unique_fd tmp(mkostemp(tmpl, O_CLOEXEC));
    if (!tmp.valid())
        return;
    // Lives only through the descriptor.
    unlink(tmpl);

    char dir[30];
    if (!format_pid_path(dir, sizeof dir, "/proc/%ld/fd", pid))
        return;
    char *const argv[] = {const_cast<char *>("/bin/ls"), const_cast<char *>("-l"), dir,
                          nullptr};
    (void)sys_run("/bin/ls", argv, STDIN_FILENO, tmp.get(), tmp.get(), 0);

    struct stat st;
    if (fstat(tmp.get(), &st) != 0)
        return;
    tar_addfile(t, member, static_cast<uint32_t>(st.st_size));
    lseek(tmp.get(), 0, SEEK_SET);
    int copied = safe_copyfd(tmp.get(), out_fd);
    // -1 means the reader went away; the archive is over then anyway.
    if (copied > 0)
        tar_fakewrite(t, static_cast<uint32_t>(copied));
}
