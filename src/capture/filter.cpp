// Socket filter that hides one TCP connection from a capture, so a capture
// streamed over that connection does not record itself.
#include "capture.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <netinet/ip6.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

namespace {

constexpr size_t filter_block = 1024;
constexpr unsigned ethertype_at = 2 * ETH_ALEN;
constexpr unsigned ip6_next_header_at = ETH_HLEN + offsetof(ip6_hdr, ip6_nxt);
constexpr unsigned ip6_ports_at = ETH_HLEN + sizeof(ip6_hdr);

// Only the ports are compared: local -> peer carries LP in the first word of
// the TCP header, peer -> local PL.
int build_ipv4(sock_filter *f, uint32_t lp, uint32_t pl)
{
    const sock_filter prog[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, ethertype_at),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, ETH_HLEN),
        BPF_STMT(BPF_LD | BPF_W | BPF_IND, ETH_HLEN),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, lp, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, pl, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0),
        BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
    };
    memcpy(f, prog, sizeof prog);
    return sizeof prog / sizeof prog[0];
}

// Assumes the TCP header right after a 40-byte IPv6 header (no extension
// headers).
int build_ipv6(sock_filter *f, uint32_t lp, uint32_t pl)
{
    const sock_filter prog[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, ethertype_at),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 0, 6),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, ip6_next_header_at),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_TCP, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ip6_ports_at),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, lp, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, pl, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0),
        BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
    };
    memcpy(f, prog, sizeof prog);
    return sizeof prog / sizeof prog[0];
}

bool ipv4_mapped(const in6_addr &a)
{
    static const unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return memcmp(a.s6_addr, prefix, sizeof prefix) == 0;
}

} // namespace

void *filter_me(int sockfd, int *count)
{
    sockaddr_storage peer, local;
    memset(&peer, 0, sizeof peer);
    memset(&local, 0, sizeof local);
    socklen_t len = sizeof peer;
    if (getpeername(sockfd, reinterpret_cast<sockaddr *>(&peer), &len) < 0 ||
        getsockname(sockfd, reinterpret_cast<sockaddr *>(&local), &len) < 0)
        return nullptr;
    if (peer.ss_family != local.ss_family)
        return nullptr;

    uint32_t p, l;
    bool v6;
    if (peer.ss_family == AF_INET) {
        p = ntohs(reinterpret_cast<sockaddr_in *>(&peer)->sin_port);
        l = ntohs(reinterpret_cast<sockaddr_in *>(&local)->sin_port);
        v6 = false;
    } else if (peer.ss_family == AF_INET6) {
        auto *peer6 = reinterpret_cast<sockaddr_in6 *>(&peer);
        p = ntohs(peer6->sin6_port);
        l = ntohs(reinterpret_cast<sockaddr_in6 *>(&local)->sin6_port);
        // A v4 peer on a dual-stack socket travels as IPv4 on the wire.
        v6 = !ipv4_mapped(peer6->sin6_addr);
    } else {
        return nullptr;
    }

    char *block = static_cast<char *>(calloc(1, filter_block));
    if (!block)
        return nullptr;
    auto *ins = reinterpret_cast<sock_filter *>(block);
    const uint32_t lp = l << 16 | p;
    const uint32_t pl = p << 16 | l;
    int n = v6 ? build_ipv6(ins, lp, pl) : build_ipv4(ins, lp, pl);
    if (count)
        *count = n;
    return block;
}
