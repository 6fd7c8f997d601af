// filter_me: the exact classic BPF programs for IPv4, IPv6 and IPv4-mapped
// peers, and the cases that yield no filter.
#include "capture.h"
#include "netutil.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace {

struct conn {
    int listener = -1, client = -1, server = -1;
    ~conn()
    {
        for (int fd : {listener, client, server})
            if (fd >= 0)
                close(fd);
    }
};

using testutil::port_of;

// A TCP connection over loopback: listen on listen_family's address, connect
// from connect_family's.
void connect_pair(conn &c, int listen_family, int connect_family)
{
    c.listener = socket(listen_family, SOCK_STREAM, 0);
    ASSERT_GE(c.listener, 0);
    sockaddr_storage ss = {};
    socklen_t len;
    if (listen_family == AF_INET) {
        auto *a = reinterpret_cast<sockaddr_in *>(&ss);
        a->sin_family = AF_INET;
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        len = sizeof *a;
    } else {
        int off = 0;
        ASSERT_EQ(setsockopt(c.listener, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off), 0);
        auto *a = reinterpret_cast<sockaddr_in6 *>(&ss);
        a->sin6_family = AF_INET6;
        // The any address takes v4 peers too (dual stack).
        a->sin6_addr = connect_family == AF_INET ? in6addr_any : in6addr_loopback;
        len = sizeof *a;
    }
    ASSERT_EQ(bind(c.listener, reinterpret_cast<sockaddr *>(&ss), len), 0) << strerror(errno);
    ASSERT_EQ(listen(c.listener, 4), 0);
    socklen_t slen = sizeof ss;
    ASSERT_EQ(getsockname(c.listener, reinterpret_cast<sockaddr *>(&ss), &slen), 0);
    uint16_t port = listen_family == AF_INET ? reinterpret_cast<sockaddr_in *>(&ss)->sin_port
                                             : reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port;

    c.client = socket(connect_family, SOCK_STREAM, 0);
    ASSERT_GE(c.client, 0);
    sockaddr_storage to = {};
    if (connect_family == AF_INET) {
        auto *a = reinterpret_cast<sockaddr_in *>(&to);
        a->sin_family = AF_INET;
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a->sin_port = port;
        len = sizeof *a;
    } else {
        auto *a = reinterpret_cast<sockaddr_in6 *>(&to);
        a->sin6_family = AF_INET6;
        a->sin6_addr = in6addr_loopback;
        a->sin6_port = port;
        len = sizeof *a;
    }
    ASSERT_EQ(connect(c.client, reinterpret_cast<sockaddr *>(&to), len), 0) << strerror(errno);
    c.server = accept(c.listener, nullptr, nullptr);
    ASSERT_GE(c.server, 0);
}

struct ins {
    uint16_t code;
    uint8_t jt, jf;
    uint32_t k;
};

std::vector<ins> ipv4_table(uint32_t l, uint32_t p)
{
    return {
        {0x28, 0, 0, 12},          {0x15, 0, 5, 0x0800},    {0xb1, 0, 0, 14},
        {0x40, 0, 0, 14},          {0x15, 1, 0, l << 16 | p}, {0x15, 0, 1, p << 16 | l},
        {0x06, 0, 0, 0},           {0x06, 0, 0, 0xffffffff},
    };
}

std::vector<ins> ipv6_table(uint32_t l, uint32_t p)
{
    return {
        {0x28, 0, 0, 12},          {0x15, 0, 6, 0x86dd},      {0x30, 0, 0, 20},
        {0x15, 0, 4, 6},           {0x20, 0, 0, 54},          {0x15, 1, 0, l << 16 | p},
        {0x15, 0, 1, p << 16 | l}, {0x06, 0, 0, 0},           {0x06, 0, 0, 0xffffffff},
    };
}

// The block as the kernel reads it: 8-byte entries from its start (code, jt,
// jf, k in host order), exactly count of them, compared byte for byte.
void expect_program(void *block, int count, const std::vector<ins> &want)
{
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(count, static_cast<int>(want.size()));
    sock_fprog fprog = {static_cast<unsigned short>(count), static_cast<sock_filter *>(block)};
    auto *prog = &fprog;
    auto *f = static_cast<char *>(block);
    std::vector<unsigned char> bytes(want.size() * 8);
    for (size_t i = 0; i < want.size(); i++) {
        memcpy(&bytes[i * 8], &want[i].code, 2);
        bytes[i * 8 + 2] = want[i].jt;
        bytes[i * 8 + 3] = want[i].jf;
        memcpy(&bytes[i * 8 + 4], &want[i].k, 4);
    }
    EXPECT_EQ(memcmp(f, bytes.data(), bytes.size()), 0);
    for (size_t i = 0; i < want.size(); i++) {
        EXPECT_EQ(prog->filter[i].code, want[i].code) << i;
        EXPECT_EQ(prog->filter[i].jt, want[i].jt) << i;
        EXPECT_EQ(prog->filter[i].jf, want[i].jf) << i;
        EXPECT_EQ(prog->filter[i].k, want[i].k) << i;
    }
}

// The kernel accepts the program, formed as the composer forms it, on a
// packet-less socket as well.
void expect_attachable(void *block, int count)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(s, 0);
    sock_fprog prog = {static_cast<unsigned short>(count), static_cast<sock_filter *>(block)};
    EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog), 0)
        << strerror(errno);
    close(s);
}

TEST(FilterMe, Ipv4ProgramExact)
{
    conn c;
    ASSERT_NO_FATAL_FAILURE(connect_pair(c, AF_INET, AF_INET));
    for (int fd : {c.client, c.server}) {
        int count = -1;
        void *block = filter_me(fd, &count);
        expect_program(block, count, ipv4_table(port_of(fd, false), port_of(fd, true)));
        expect_attachable(block, count);
        free(block);
    }
}

TEST(FilterMe, Ipv6ProgramExact)
{
    conn c;
    ASSERT_NO_FATAL_FAILURE(connect_pair(c, AF_INET6, AF_INET6));
    for (int fd : {c.client, c.server}) {
        int count = -1;
        void *block = filter_me(fd, &count);
        expect_program(block, count, ipv6_table(port_of(fd, false), port_of(fd, true)));
        expect_attachable(block, count);
        free(block);
    }
}

TEST(FilterMe, Ipv4MappedPeerUsesIpv4Program)
{
    conn c;
    ASSERT_NO_FATAL_FAILURE(connect_pair(c, AF_INET6, AF_INET));
    sockaddr_storage ss = {};
    socklen_t len = sizeof ss;
    ASSERT_EQ(getpeername(c.server, reinterpret_cast<sockaddr *>(&ss), &len), 0);
    ASSERT_EQ(ss.ss_family, AF_INET6);
    ASSERT_TRUE(IN6_IS_ADDR_V4MAPPED(&reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_addr));
    int count = -1;
    void *block = filter_me(c.server, &count);
    expect_program(block, count, ipv4_table(port_of(c.server, false), port_of(c.server, true)));
    free(block);
}

TEST(FilterMe, CountMayBeNull)
{
    conn c;
    ASSERT_NO_FATAL_FAILURE(connect_pair(c, AF_INET, AF_INET));
    void *block = filter_me(c.client, nullptr);
    ASSERT_NE(block, nullptr);
    // the first instruction loads the EtherType
    EXPECT_EQ(static_cast<sock_filter *>(block)[0].code, 0x28);
    EXPECT_EQ(static_cast<sock_filter *>(block)[0].k, 12u);
    free(block);
}

TEST(FilterMe, NullWithoutTcpPeer)
{
    int count = 77;
    int tcp = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(filter_me(tcp, &count), nullptr);  // not connected
    close(tcp);
    int udp = socket(AF_INET6, SOCK_DGRAM, 0);
    EXPECT_EQ(filter_me(udp, &count), nullptr);
    close(udp);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    EXPECT_EQ(filter_me(sv[0], &count), nullptr);  // neither IPv4 nor IPv6
    close(sv[0]);
    close(sv[1]);
    EXPECT_EQ(filter_me(-1, &count), nullptr);
    EXPECT_EQ(count, 77);
}

} // namespace
