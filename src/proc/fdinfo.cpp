#include "proc.h"

#include "common.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

const char *const tcp_states[] = {
    "DESTROYED",     "TCP_ESTABLISHED", "TCP_SYN_SENT",   "TCP_SYN_RECV",
    "TCP_FIN_WAIT1", "TCP_FIN_WAIT2",   "TCP_TIME_WAIT",  "TCP_CLOSE",
    "TCP_CLOSE_WAIT", "TCP_LAST_ACK",   "TCP_LISTEN",     "TCP_CLOSING",
};

// Columns of the kernel's fixed-width tcp and tcp6 tables.
struct tcp_columns {
    size_t local, local_port, remote, remote_port, state, inode;
};
constexpr tcp_columns tcp4_cols = {6, 15, 20, 29, 34, 91};
constexpr tcp_columns tcp6_cols = {6, 39, 44, 77, 82, 139};

// The fgets line size of the table readers.
constexpr int LINE = 256;

// One 8-digit group of a tcp6 address, parsed on its own.
uint32_t hex_group(const char *at)
{
    char group[9];
    memcpy(group, at, 8);
    group[8] = '\0';
    return static_cast<uint32_t>(strtoul(group, nullptr, 16));
}

// Appends with snprintf semantics at the running count; once the buffer is
// full the rest is only counted, so the total matches one big snprintf.
class appender {
public:
    appender(char *dst, size_t size) : dst_(dst), size_(size) {}
    template <typename... A> void put(const char *fmt, A... args)
    {
        int n;
        if (len_ < size_)
            n = snprintf(dst_ + len_, size_ - len_, fmt, args...);
        else
            n = snprintf(nullptr, 0, fmt, args...);
        if (n > 0)
            len_ += static_cast<size_t>(n);
    }
    int length() const { return static_cast<int>(len_); }

private:
    char *dst_;
    size_t size_;
    size_t len_ = 0;
};

void put_v6_address(appender &out, const uint32_t words[4])
{
    for (int i = 0; i < 4; i++) {
        uint32_t w = byteswap32(words[i]);
        out.put("%x:%x:", w >> 16, w & 0xffff);
    }
}

// Searches one table for inode; -1 when the table is missing or lacks it.
template <typename F> int search_table(const char *path, F line_fn)
{
    unique_file f(fopen(path, "re"));
    if (!f)
        return -1;
    char line[LINE];
    while (fgets(line, sizeof line, f.get())) {
        int n = line_fn(line);
        if (n >= 0)
            return n;
    }
    return -1;
}

} // namespace

uint32_t byteswap32(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xff00) | ((v << 8) & 0xff0000) | (v << 24);
}

const char *proc_tcp_state_name(unsigned long state)
{
    // The kernel prints only 1..11; anything else must not index past the table.
    if (state >= sizeof tcp_states / sizeof tcp_states[0])
        return "UNKNOWN";
    return tcp_states[state];
}

int proc_net_tcp_parse(const char *line, int ipv6, proc_tcp_sock *out)
{
    const tcp_columns &c = ipv6 ? tcp6_cols : tcp4_cols;
    // Every column lies before the inode's, so a line reaching it can be read
    // at all of them; shorter lines are not kernel lines.
    if (strnlen(line, c.inode + 1) <= c.inode)
        return 0;
    memset(out, 0, sizeof *out);
    if (ipv6) {
        for (int i = 0; i < 4; i++) {
            out->local[i] = hex_group(line + c.local + 8 * i);
            out->remote[i] = hex_group(line + c.remote + 8 * i);
        }
    } else {
        out->local[0] = static_cast<uint32_t>(strtoul(line + c.local, nullptr, 16));
        out->remote[0] = static_cast<uint32_t>(strtoul(line + c.remote, nullptr, 16));
    }
    out->local_port = strtoul(line + c.local_port, nullptr, 16);
    out->remote_port = strtoul(line + c.remote_port, nullptr, 16);
    out->state = strtoul(line + c.state, nullptr, 16);
    out->inode = strtoul(line + c.inode, nullptr, 10);
    return 1;
}

int proc_net_tcp_format(const proc_tcp_sock *s, int ipv6, char *dst, size_t size)
{
    const char *state = proc_tcp_state_name(s->state);
    const int lport = static_cast<int>(s->local_port);
    const int rport = static_cast<int>(s->remote_port);
    if (!ipv6) {
        // The kernel prints the address as its raw word; kept in memory in
        // the machine's order it reads as network order on little-endian.
        char local[16], remote[16];
        uint32_t l = s->local[0], r = s->remote[0];
        inet_ntop(AF_INET, &l, local, sizeof local);
        inet_ntop(AF_INET, &r, remote, sizeof remote);
        return snprintf(dst, size, "[%s:%d -> %s:%d][%s]", local, lport, remote, rport, state);
    }
    // Every group spelled out, and a colon before the port as well.
    appender out(dst, size);
    out.put("%s", "[");
    put_v6_address(out, s->local);
    out.put("%d -> ", lport);
    put_v6_address(out, s->remote);
    out.put("%d][%s]", rport, state);
    return out.length();
}

int proc_net_tcp_line(const char *line, int ipv6, unsigned long inode, char *dst, size_t size)
{
    proc_tcp_sock s;
    if (!proc_net_tcp_parse(line, ipv6, &s) || s.inode != inode)
        return -1;
    return proc_net_tcp_format(&s, ipv6, dst, size);
}

int proc_net_unix_parse(const char *line, unsigned long *inode, const char **path,
                        size_t *pathlen)
{
    const char *p = line;
    int boundaries = 0;
    while (*p && boundaries < 6) {
        if (isspace(static_cast<unsigned char>(*p))) {
            while (isspace(static_cast<unsigned char>(*p)))
                p++;
            boundaries++;
        } else {
            p++;
        }
    }
    if (boundaries < 6 || *p == '\0')
        return 0;
    char *end;
    *inode = strtoul(p, &end, 10);
    *path = nullptr;
    *pathlen = 0;
    // The kernel ends a pathless line right behind the inode; a line cut
    // there by the reader has no path either.
    if (*end == '\n' || *end == '\0')
        return 1;
    const char *start = end + 1;
    *path = start;
    *pathlen = strcspn(start, "\n");
    return 1;
}

int proc_net_unix_line(const char *line, unsigned long inode, char *dst, size_t size)
{
    unsigned long ino;
    const char *path;
    size_t len;
    if (!proc_net_unix_parse(line, &ino, &path, &len) || ino != inode)
        return -1;
    if (!path)
        return 0;
    return snprintf(dst, size, "[%.*s]", static_cast<int>(len), path);
}

int proc_skinfo_lookup_at(const char *netdir, unsigned long inode, char *dst, size_t size)
{
    char path[128];
    int n;
    snprintf(path, sizeof path, "%s/tcp", netdir);
    n = search_table(path, [&](const char *l) { return proc_net_tcp_line(l, 0, inode, dst, size); });
    if (n >= 0)
        return n;
    snprintf(path, sizeof path, "%s/tcp6", netdir);
    n = search_table(path, [&](const char *l) { return proc_net_tcp_line(l, 1, inode, dst, size); });
    if (n >= 0)
        return n;
    snprintf(path, sizeof path, "%s/unix", netdir);
    n = search_table(path, [&](const char *l) { return proc_net_unix_line(l, inode, dst, size); });
    return n >= 0 ? n : 0;
}

int proc_skinfo_lookup(int32_t pid, unsigned long inode, char *dst, size_t size)
{
    // The tables are system-wide; the pid is part of the interface only.
    (void)pid;
    return proc_skinfo_lookup_at("/proc/net", inode, dst, size);
}

namespace {

// Decimal text of v ending at end; returns where it starts.
char *decimal(long v, char *end)
{
    unsigned long u = v < 0 ? 0ul - static_cast<unsigned long>(v) : static_cast<unsigned long>(v);
    do {
        *--end = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u);
    if (v < 0)
        *--end = '-';
    return end;
}

// The description from the link text readlink gave (n bytes in buf).
int describe_link(int32_t pid, ssize_t n, char *buf, size_t size)
{
    if (n < 1)
        return static_cast<int>(n);
    buf[n] = '\0';
    if (strncmp(buf, "socket:[", 8) != 0)
        return static_cast<int>(n);
    unsigned long inode = strtoul(buf + 8, nullptr, 10);
    size_t len = static_cast<size_t>(n);
    return static_cast<int>(n) + proc_skinfo_lookup(pid, inode, buf + len, size - len);
}

} // namespace

int proc_fdinfo_lookup(int32_t pid, int fd, char *buf, size_t size)
{
    // "/proc/%ld/fd/%d", made without a format string: the tracer asks at
    // every system call that has a descriptor argument.
    char path[64];
    char num[24];
    char *end = num + sizeof num;
    char *fdtext = decimal(fd, end);
    char *pidtext = decimal(pid, fdtext);
    size_t pidlen = static_cast<size_t>(fdtext - pidtext), fdlen = static_cast<size_t>(end - fdtext);
    memcpy(path, "/proc/", 6);
    memcpy(path + 6, pidtext, pidlen);
    memcpy(path + 6 + pidlen, "/fd/", 4);
    memcpy(path + 10 + pidlen, fdtext, fdlen);
    path[10 + pidlen + fdlen] = '\0';
    return describe_link(pid, readlink(path, buf, size ? size - 1 : 0), buf, size);
}

int proc_fdinfo_lookup_at(int dirfd, int32_t pid, int fd, char *buf, size_t size)
{
    char num[24];
    num[sizeof num - 1] = '\0';
    const char *name = decimal(fd, num + sizeof num - 1);
    return describe_link(pid, readlinkat(dirfd, name, buf, size ? size - 1 : 0), buf, size);
}
