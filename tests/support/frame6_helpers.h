/* A DHCPv6 frame builder and an independent UDP checksum check for tests. */
#ifndef DHCPSNOOP_FRAME6_HELPERS_H
#define DHCPSNOOP_FRAME6_HELPERS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

using Ip6 = std::array<uint8_t, 16>;

Ip6 ip6(const char *text);

struct Dhcp6Frame {
    std::array<uint8_t, 6> dst{0x33, 0x33, 0, 1, 0, 2};
    std::array<uint8_t, 6> src{0x02, 0, 0, 0, 0, 0x01};
    std::vector<uint16_t> vlans;   /* 802.1Q tags, outer first */
    Ip6 srcIp = ip6("fe80::1");
    Ip6 dstIp = ip6("ff02::1:2");
    uint8_t nextHeader = 17;       /* set to an extension header type with `ext` */
    std::vector<uint8_t> ext;      /* extension header bytes placed before UDP */
    uint16_t sport = 546, dport = 547;
    uint8_t type = 1;
    uint32_t xid = 0x123456;
    std::vector<uint8_t> options;
    size_t pad = 0;                /* trailing bytes not counted in the payload length */

    Dhcp6Frame &opt(uint16_t code, const std::vector<uint8_t> &data);
    std::vector<uint8_t> build() const;
    size_t l2Len() const { return 14 + 4 * vlans.size(); }
};

std::vector<uint8_t> opt6(uint16_t code, const std::vector<uint8_t> &data);
std::vector<uint8_t> iaaddr6(const Ip6 &addr, uint32_t preferred, uint32_t valid,
                             const std::vector<uint8_t> &inner = {});
std::vector<uint8_t> ia_na6(uint32_t iaid, const std::vector<uint8_t> &inner);
std::vector<uint8_t> ia_ta6(uint32_t iaid, const std::vector<uint8_t> &inner);
std::vector<uint8_t> status6(uint16_t code);
std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts);

/* Recomputed from the frame alone. */
bool udp6_checksum_ok(const uint8_t *frame, size_t l2Len);
/* Offsets of the top-level options of `code` in a frame without extension headers. */
std::vector<size_t> find_opts6(const std::vector<uint8_t> &frame, size_t l2Len, uint16_t code);

#endif
