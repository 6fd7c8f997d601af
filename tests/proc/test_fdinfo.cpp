#include "proc.h"

#include "proc_test_util.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace proctest;

namespace {

// Lines as the kernel formats them (net/ipv4/tcp_ipv4.c, net/ipv6/tcp_ipv6.c,
// net/unix/af_unix.c); address words are printed as raw 32-bit values.
std::string tcp4_line(int sl, uint32_t laddr, unsigned lport, uint32_t raddr, unsigned rport,
                      unsigned state, unsigned long inode)
{
    char buf[256];
    int n = snprintf(buf, sizeof buf,
                     "%4d: %08X:%04X %08X:%04X %02X %08X:%08X %02X:%08lX %08X %5u %8d %lu %d "
                     "%p %lu %lu %u %u %d",
                     sl, laddr, lport, raddr, rport, state, 0u, 0u, 0, 0ul, 0u, 1000u, 0, inode,
                     1, reinterpret_cast<void *>(0x12345678), 20ul, 4ul, 30u, 10u, -1);
    std::string line(buf, static_cast<size_t>(n));
    line.resize(149, ' ');
    return line + "\n";
}

std::string tcp6_line(int sl, const uint32_t l[4], unsigned lport, const uint32_t r[4],
                      unsigned rport, unsigned state, unsigned long inode)
{
    char buf[256];
    snprintf(buf, sizeof buf,
             "%4d: %08X%08X%08X%08X:%04X %08X%08X%08X%08X:%04X %02X %08X:%08X %02X:%08lX "
             "%08X %5u %8d %lu %d %p %lu %lu %u %u %d\n",
             sl, l[0], l[1], l[2], l[3], lport, r[0], r[1], r[2], r[3], rport, state, 0u, 0u, 0,
             0ul, 0u, 0u, 0, inode, 1, reinterpret_cast<void *>(0x12345678), 20ul, 4ul, 30u,
             10u, -1);
    return buf;
}

std::string unix_line(unsigned long inode, const char *path)
{
    char buf[256];
    snprintf(buf, sizeof buf, "%016lx: %08X %08X %08X %04X %02X %5lu%s%s\n", 0xdeadbeeful, 2u,
             0u, 0x10000u, 1u, 1u, inode, path ? " " : "", path ? path : "");
    return buf;
}

// The raw word the kernel prints for an address in network order, as read
// on this (little-endian) machine.
uint32_t word_of(const char *dotted)
{
    in_addr a;
    inet_pton(AF_INET, dotted, &a);
    return a.s_addr;
}

const char tcp4_header[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
    "timeout inode                                                     \n";

std::string tcp_line_desc(const std::string &line, int ipv6, unsigned long inode)
{
    char buf[256];
    int n = proc_net_tcp_line(line.c_str(), ipv6, inode, buf, sizeof buf);
    if (n < 0)
        return "<no match>";
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    return buf;
}

std::string unix_line_desc(const std::string &line, unsigned long inode)
{
    char buf[256];
    memset(buf, 'Z', sizeof buf);
    int n = proc_net_unix_line(line.c_str(), inode, buf, sizeof buf);
    if (n < 0)
        return "<no match>";
    if (n == 0) {
        EXPECT_EQ(buf[0], 'Z');  // nothing written
        return "";
    }
    return buf;
}

unsigned long inode_of(int fd)
{
    struct stat st;
    EXPECT_EQ(fstat(fd, &st), 0);
    return st.st_ino;
}

std::string describe(int fd, size_t size = 512)
{
    std::vector<char> buf(size, 'Z');
    int n = proc_fdinfo_lookup(getpid(), fd, buf.data(), size);
    if (n < 0)
        return "<error>";
    EXPECT_EQ(n, static_cast<int>(strlen(buf.data())));
    return buf.data();
}

std::string sock_prefix(int fd)
{
    return "socket:[" + std::to_string(inode_of(fd)) + "]";
}

std::string v4_endpoint(const sockaddr_in &a)
{
    char host[16];
    inet_ntop(AF_INET, &a.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(a.sin_port));
}

// Every group spelled out, colon-separated, then ':' and the port.
std::string v6_endpoint(const sockaddr_in6 &a)
{
    std::string out;
    for (int i = 0; i < 16; i += 2) {
        char g[8];
        snprintf(g, sizeof g, "%x:", (a.sin6_addr.s6_addr[i] << 8) | a.sin6_addr.s6_addr[i + 1]);
        out += g;
    }
    return out + std::to_string(ntohs(a.sin6_port));
}

struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

} // namespace

TEST(Byteswap32, ReversesBytes)
{
    EXPECT_EQ(byteswap32(0x01020304u), 0x04030201u);
    EXPECT_EQ(byteswap32(0x01000000u), 0x00000001u);
    EXPECT_EQ(byteswap32(0u), 0u);
    EXPECT_EQ(byteswap32(0xff00a0b0u), 0xb0a000ffu);
}

TEST(TcpStateName, Table)
{
    const char *want[] = {"DESTROYED",     "TCP_ESTABLISHED", "TCP_SYN_SENT", "TCP_SYN_RECV",
                          "TCP_FIN_WAIT1", "TCP_FIN_WAIT2",   "TCP_TIME_WAIT", "TCP_CLOSE",
                          "TCP_CLOSE_WAIT", "TCP_LAST_ACK",   "TCP_LISTEN",   "TCP_CLOSING"};
    for (unsigned long i = 0; i < 12; i++)
        EXPECT_STREQ(proc_tcp_state_name(i), want[i]) << i;
    EXPECT_STREQ(proc_tcp_state_name(12), "UNKNOWN");
    EXPECT_STREQ(proc_tcp_state_name(0xff), "UNKNOWN");
    EXPECT_STREQ(proc_tcp_state_name(~0ul), "UNKNOWN");
}

// ---- synthetic table lines ----

TEST(ProcNetTcpLine, EstablishedExample)
{
    std::string line =
        tcp4_line(3, word_of("127.0.0.1"), 80, word_of("10.0.0.2"), 51000, 1, 1234);
    ASSERT_EQ(line.substr(0, 34), "   3: 0100007F:0050 0200000A:C738 ");
    EXPECT_EQ(tcp_line_desc(line, 0, 1234), "[127.0.0.1:80 -> 10.0.0.2:51000][TCP_ESTABLISHED]");
    EXPECT_EQ(tcp_line_desc(line, 0, 1235), "<no match>");
}

TEST(ProcNetTcpLine, ListenerAndParsedFields)
{
    std::string line = tcp4_line(0, 0, 2024, 0, 0, 0x0A, 1471);
    proc_tcp_sock s;
    ASSERT_EQ(proc_net_tcp_parse(line.c_str(), 0, &s), 1);
    EXPECT_EQ(s.local[0], 0u);
    EXPECT_EQ(s.local_port, 2024ul);
    EXPECT_EQ(s.state, 10ul);
    EXPECT_EQ(s.inode, 1471ul);
    EXPECT_EQ(tcp_line_desc(line, 0, 1471), "[0.0.0.0:2024 -> 0.0.0.0:0][TCP_LISTEN]");
}

TEST(ProcNetTcpLine, RealKernelLine)
{
    const char line[] =
        "   1: 020200C0:864C 507100CB:0050 06 00000000:00000000 03:000004EF 00000000     0  "
        "      0 0 3 00000000dcca4b74                                      \n";
    EXPECT_EQ(tcp_line_desc(line, 0, 0), "[192.0.2.2:34380 -> 203.0.113.80:80][TCP_TIME_WAIT]");
}

TEST(ProcNetTcpLine, HeaderAndShortLines)
{
    EXPECT_EQ(tcp_line_desc(tcp4_header, 0, 1234), "<no match>");
    proc_tcp_sock s;
    EXPECT_EQ(proc_net_tcp_parse("", 0, &s), 0);
    EXPECT_EQ(proc_net_tcp_parse("   0: 0100007F:0050", 0, &s), 0);
    std::string line = tcp4_line(0, 1, 2, 3, 4, 1, 99);
    // The inode column must be there: a line cut just before it is refused.
    EXPECT_EQ(proc_net_tcp_parse(line.substr(0, 91).c_str(), 0, &s), 0);
    EXPECT_EQ(proc_net_tcp_parse(line.substr(0, 92).c_str(), 0, &s), 1);
    EXPECT_EQ(s.inode, 9ul);
    EXPECT_EQ(proc_net_tcp_parse(line.substr(0, 139).c_str(), 1, &s), 0);
}

TEST(ProcNetTcpLine, StateOutsideTheTable)
{
    std::string line = tcp4_line(0, word_of("1.2.3.4"), 1, word_of("5.6.7.8"), 2, 0xEE, 7);
    EXPECT_EQ(tcp_line_desc(line, 0, 7), "[1.2.3.4:1 -> 5.6.7.8:2][UNKNOWN]");
}

TEST(ProcNetTcp6Line, LoopbackConnection)
{
    const uint32_t lo[4] = {0, 0, 0, 0x01000000};  // ::1 as the kernel prints it
    std::string line = tcp6_line(2, lo, 0xCD8A, lo, 0x8B69, 1, 46310);
    ASSERT_EQ(line.substr(0, 43), "   2: 00000000000000000000000001000000:CD8A");
    EXPECT_EQ(tcp_line_desc(line, 1, 46310),
              "[0:0:0:0:0:0:0:1:52618 -> 0:0:0:0:0:0:0:1:35689][TCP_ESTABLISHED]");
}

TEST(ProcNetTcp6Line, ListenerExample)
{
    const uint32_t any[4] = {0, 0, 0, 0};
    std::string line = tcp6_line(0, any, 22, any, 0, 0x0A, 5555);
    EXPECT_EQ(tcp_line_desc(line, 1, 5555),
              "[0:0:0:0:0:0:0:0:22 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
}

TEST(ProcNetTcp6Line, GroupsAreByteswappedWords)
{
    // fe80::1:2 and 2001:db8::ff00:42 as raw words of a little-endian kernel.
    const uint32_t l[4] = {0x000080FE, 0, 0, 0x02000100};
    const uint32_t r[4] = {0xB80D0120, 0, 0, 0x420000FF};
    std::string line = tcp6_line(0, l, 443, r, 60000, 8, 77);
    EXPECT_EQ(tcp_line_desc(line, 1, 77),
              "[fe80:0:0:0:0:0:1:2:443 -> 2001:db8:0:0:0:0:ff00:42:60000][TCP_CLOSE_WAIT]");
}

TEST(ProcNetTcpFormat, SnprintfSemanticsWhenCut)
{
    const uint32_t lo[4] = {0, 0, 0, 0x01000000};
    std::string line = tcp6_line(0, lo, 1, lo, 2, 1, 9);
    proc_tcp_sock s;
    ASSERT_EQ(proc_net_tcp_parse(line.c_str(), 1, &s), 1);
    char full[256];
    int want = proc_net_tcp_format(&s, 1, full, sizeof full);
    ASSERT_GT(want, 0);
    const size_t w = static_cast<size_t>(want);
    for (size_t size : std::vector<size_t>{0, 1, 2, 9, 17, 40, w, w + 1}) {
        std::vector<char> buf(size + 1, 'Z');
        EXPECT_EQ(proc_net_tcp_format(&s, 1, size ? buf.data() : nullptr, size), want) << size;
        EXPECT_EQ(buf[size], 'Z') << size;
        if (size > 0) {
            size_t kept = std::min(size - 1, static_cast<size_t>(want));
            EXPECT_EQ(std::string(buf.data()), std::string(full, kept)) << size;
        }
    }
    std::string v4 = tcp4_line(0, word_of("127.0.0.1"), 80, word_of("10.0.0.2"), 51000, 1, 1);
    ASSERT_EQ(proc_net_tcp_parse(v4.c_str(), 0, &s), 1);
    char small[8];
    EXPECT_EQ(proc_net_tcp_format(&s, 0, small, sizeof small), 49);
    EXPECT_STREQ(small, "[127.0.");
}

TEST(ProcNetUnixLine, BoundPathAndPathless)
{
    EXPECT_EQ(unix_line_desc(unix_line(5678, "/var/run/x.sock"), 5678), "[/var/run/x.sock]");
    EXPECT_EQ(unix_line_desc(unix_line(5678, nullptr), 5678), "");
    EXPECT_EQ(unix_line_desc(unix_line(5678, nullptr), 5679), "<no match>");
    EXPECT_EQ(unix_line_desc(unix_line(46314, "/tmp/x y.sock"), 46314), "[/tmp/x y.sock]");
    EXPECT_EQ(unix_line_desc(unix_line(9, "@abstract@name"), 9), "[@abstract@name]");
}

TEST(ProcNetUnixLine, RealKernelLines)
{
    EXPECT_EQ(unix_line_desc("00000000303ff484: 00000003 00000000 00000000 0001 03  1468\n", 1468),
              "");
    EXPECT_EQ(unix_line_desc("00000000ed9d029c: 00000002 00000000 00000000 0001 01 46314 "
                             "/tmp/x y.sock\n",
                             46314),
              "[/tmp/x y.sock]");
    EXPECT_EQ(unix_line_desc("Num       RefCount Protocol Flags    Type St Inode Path\n", 1468),
              "<no match>");
}

TEST(ProcNetUnixLine, ShortAndCutLines)
{
    unsigned long ino = 1;
    const char *path = "x";
    size_t len = 9;
    // Fewer than seven fields: not a socket line.
    EXPECT_EQ(proc_net_unix_parse("a b c d e f\n", &ino, &path, &len), 0);
    EXPECT_EQ(proc_net_unix_parse("a b c d e f", &ino, &path, &len), 0);
    EXPECT_EQ(proc_net_unix_parse("", &ino, &path, &len), 0);
    EXPECT_EQ(unix_line_desc("a b c d e f ", 0), "<no match>");
    // Cut right behind the inode (no newline): no path.
    EXPECT_EQ(unix_line_desc("a b c d e f 77", 77), "");
    // A path running to the end of a cut line.
    EXPECT_EQ(unix_line_desc("a b c d e f 77 /tmp/lo", 77), "[/tmp/lo]");
    // One separator only: a path starting with a blank keeps it.
    EXPECT_EQ(unix_line_desc("a b c d e f 77  lead\n", 77), "[ lead]");
    ASSERT_EQ(proc_net_unix_parse("a b c d e f 77 p\n", &ino, &path, &len), 1);
    EXPECT_EQ(ino, 77ul);
    EXPECT_EQ(std::string(path, len), "p");
}

TEST(ProcNetUnixLine, CutDescription)
{
    char buf[6];
    EXPECT_EQ(proc_net_unix_line(unix_line(3, "/var/run/x.sock").c_str(), 3, buf, sizeof buf), 17);
    EXPECT_STREQ(buf, "[/var");
}

// ---- the three tables together ----

TEST(ProcSkinfoLookupAt, OrderAndMissingTables)
{
    TempDir d;
    std::string t4 = std::string(tcp4_header) +
                     tcp4_line(0, word_of("127.0.0.1"), 80, word_of("10.0.0.2"), 51000, 1, 1234);
    const uint32_t any[4] = {0, 0, 0, 0};
    std::string t6 = tcp6_line(0, any, 22, any, 0, 0x0A, 1234) + tcp6_line(1, any, 23, any, 0, 0x0A, 42);
    std::string ux = "Num       RefCount Protocol Flags    Type St Inode Path\n" +
                     unix_line(42, "/in/unix") + unix_line(5678, "/var/run/x.sock") +
                     unix_line(91, nullptr);
    d.write("tcp", t4);
    d.write("tcp6", t6);
    d.write("unix", ux);
    char buf[256];
    auto look = [&](unsigned long ino) {
        memset(buf, 0, sizeof buf);
        int n = proc_skinfo_lookup_at(d.path.c_str(), ino, buf, sizeof buf);
        EXPECT_EQ(n, static_cast<int>(strlen(buf)));
        return std::string(buf);
    };
    // tcp before tcp6 before unix; the first match ends the search.
    EXPECT_EQ(look(1234), "[127.0.0.1:80 -> 10.0.0.2:51000][TCP_ESTABLISHED]");
    EXPECT_EQ(look(42), "[0:0:0:0:0:0:0:0:23 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
    EXPECT_EQ(look(5678), "[/var/run/x.sock]");
    EXPECT_EQ(look(91), "");
    EXPECT_EQ(look(31337), "");

    // A table that cannot be opened is skipped.
    unlink((d.path + "/tcp").c_str());
    EXPECT_EQ(look(1234), "[0:0:0:0:0:0:0:0:22 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
    unlink((d.path + "/tcp6").c_str());
    EXPECT_EQ(look(42), "[/in/unix]");
    EXPECT_EQ(proc_skinfo_lookup_at((d.path + "/none").c_str(), 42, buf, sizeof buf), 0);
}

// ---- descriptions of real kernel objects ----

TEST(ProcFdinfoLookup, RegularFile)
{
    TempDir d;
    d.write("messages", "x");
    std::string path = d.path + "/messages";
    Fd f(open(path.c_str(), O_RDONLY));
    ASSERT_GE(f.fd, 0);
    EXPECT_EQ(describe(f.fd), path);

    // Cut to size - 1 bytes and terminated.
    char buf[6];
    EXPECT_EQ(proc_fdinfo_lookup(getpid(), f.fd, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, path.substr(0, 5).c_str());
}

TEST(ProcFdinfoLookup, Pipe)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    Fd r(p[0]), w(p[1]);
    EXPECT_EQ(describe(r.fd), "pipe:[" + std::to_string(inode_of(r.fd)) + "]");
}

TEST(ProcFdinfoLookup, ClosedDescriptor)
{
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    close(fd);
    char buf[64];
    EXPECT_EQ(proc_fdinfo_lookup(getpid(), fd, buf, sizeof buf), -1);
}

TEST(ProcFdinfoLookup, TcpLoopbackConnectionAndListener)
{
    Fd srv(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(srv.fd, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(srv.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(srv.fd, 4), 0);
    socklen_t len = sizeof a;
    ASSERT_EQ(getsockname(srv.fd, reinterpret_cast<sockaddr *>(&a), &len), 0);

    Fd cli(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(cli.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    Fd acc(accept(srv.fd, nullptr, nullptr));
    ASSERT_GE(acc.fd, 0);

    sockaddr_in local{}, peer{};
    len = sizeof local;
    getsockname(cli.fd, reinterpret_cast<sockaddr *>(&local), &len);
    len = sizeof peer;
    getpeername(cli.fd, reinterpret_cast<sockaddr *>(&peer), &len);

    EXPECT_EQ(describe(cli.fd), sock_prefix(cli.fd) + "[" + v4_endpoint(local) + " -> " +
                                    v4_endpoint(peer) + "][TCP_ESTABLISHED]");
    EXPECT_EQ(describe(acc.fd), sock_prefix(acc.fd) + "[" + v4_endpoint(peer) + " -> " +
                                    v4_endpoint(local) + "][TCP_ESTABLISHED]");
    EXPECT_EQ(describe(srv.fd), sock_prefix(srv.fd) + "[127.0.0.1:" +
                                    std::to_string(ntohs(a.sin_port)) +
                                    " -> 0.0.0.0:0][TCP_LISTEN]");

    // The lookup on its own, with the pid not mattering.
    char buf[128];
    std::string want = "[" + v4_endpoint(local) + " -> " + v4_endpoint(peer) + "][TCP_ESTABLISHED]";
    EXPECT_EQ(proc_skinfo_lookup(1, inode_of(cli.fd), buf, sizeof buf),
              static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);
}

TEST(ProcFdinfoLookup, TcpListenerOnAnyAddress)
{
    Fd srv(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    ASSERT_EQ(bind(srv.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(srv.fd, 1), 0);
    socklen_t len = sizeof a;
    getsockname(srv.fd, reinterpret_cast<sockaddr *>(&a), &len);
    EXPECT_EQ(describe(srv.fd), sock_prefix(srv.fd) + "[0.0.0.0:" +
                                    std::to_string(ntohs(a.sin_port)) +
                                    " -> 0.0.0.0:0][TCP_LISTEN]");
}

TEST(ProcFdinfoLookup, TcpOverIpv6Loopback)
{
    Fd srv(socket(AF_INET6, SOCK_STREAM, 0));
    if (srv.fd < 0)
        GTEST_SKIP() << "[ipv6] no IPv6 sockets here";
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    if (bind(srv.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        GTEST_SKIP() << "[ipv6] cannot bind ::1: " << strerror(errno);
    ASSERT_EQ(listen(srv.fd, 4), 0);
    socklen_t len = sizeof a;
    getsockname(srv.fd, reinterpret_cast<sockaddr *>(&a), &len);
    Fd cli(socket(AF_INET6, SOCK_STREAM, 0));
    ASSERT_EQ(connect(cli.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    Fd acc(accept(srv.fd, nullptr, nullptr));
    ASSERT_GE(acc.fd, 0);

    sockaddr_in6 local{}, peer{};
    len = sizeof local;
    getsockname(cli.fd, reinterpret_cast<sockaddr *>(&local), &len);
    len = sizeof peer;
    getpeername(cli.fd, reinterpret_cast<sockaddr *>(&peer), &len);
    std::string l = v6_endpoint(local), p = v6_endpoint(peer);
    ASSERT_EQ(l.rfind("0:0:0:0:0:0:0:1:", 0), 0u);

    EXPECT_EQ(describe(cli.fd), sock_prefix(cli.fd) + "[" + l + " -> " + p + "][TCP_ESTABLISHED]");
    EXPECT_EQ(describe(srv.fd), sock_prefix(srv.fd) + "[" + p +
                                    " -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
}

TEST(ProcFdinfoLookup, UnixSocketBoundToPath)
{
    TempDir d;
    std::string path = d.path + "/x.sock";
    Fd s(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(s.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    EXPECT_EQ(describe(s.fd), sock_prefix(s.fd) + "[" + path + "]");
}

TEST(ProcFdinfoLookup, AbstractUnixSocket)
{
    Fd s(socket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::string name = "tn-abstract-" + std::to_string(getpid());
    memcpy(a.sun_path + 1, name.data(), name.size());
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(bind(s.fd, reinterpret_cast<sockaddr *>(&a), len), 0);
    EXPECT_EQ(describe(s.fd), sock_prefix(s.fd) + "[@" + name + "]");
}

TEST(ProcFdinfoLookup, UnnamedSocketpair)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Fd a(sv[0]), b(sv[1]);
    EXPECT_EQ(describe(a.fd), sock_prefix(a.fd));
    EXPECT_EQ(describe(b.fd), sock_prefix(b.fd));
}

TEST(ProcFdinfoLookup, UdpSocketIsNotLookedUp)
{
    Fd s(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(s.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    EXPECT_EQ(describe(s.fd), sock_prefix(s.fd));
}

TEST(ProcFdinfoLookup, DescriptorOfAnotherProcess)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    unsigned long ino = inode_of(p[0]);
    Child c = spawn("/bin/sleep", {"sleep", "1000"}, {p[0]});
    close(p[0]);
    close(p[1]);
    ASSERT_GT(c.pid, 0);
    char buf[64];
    int n = proc_fdinfo_lookup(c.pid, 3, buf, sizeof buf);
    std::string want = "pipe:[" + std::to_string(ino) + "]";
    EXPECT_EQ(n, static_cast<int>(want.size()));
    EXPECT_EQ(std::string(buf), want);
    EXPECT_EQ(proc_fdinfo_lookup(c.pid, 4, buf, sizeof buf), -1);
}
