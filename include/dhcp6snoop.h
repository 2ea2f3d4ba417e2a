/* DHCPv6 snooping: parser, options 18 and 37, client and server paths. */
#ifndef DHCP6SNOOP_H
#define DHCP6SNOOP_H

#include "dhcpsnoop_msg.h"

/* Address type bits, as the Linux kernel's IPV6_ADDR_* values. */
constexpr uint32_t IPV6_ADDR_UNICAST = 0x0001;
constexpr uint32_t IPV6_ADDR_MULTICAST = 0x0002;
constexpr uint32_t IPV6_ADDR_LOOPBACK = 0x0010;
constexpr uint32_t IPV6_ADDR_LINKLOCAL = 0x0020;
constexpr uint32_t IPV6_ADDR_SITELOCAL = 0x0040;
constexpr uint32_t IPV6_ADDR_COMPATv4 = 0x0080;
constexpr uint32_t IPV6_ADDR_MAPPED = 0x1000;
constexpr uint32_t IPV6_ADDR_RESERVED = 0x2000;

constexpr uint32_t DHCP6_OPT_IA_NA = 3;
constexpr uint32_t DHCP6_OPT_IA_TA = 4;
constexpr uint32_t DHCP6_OPT_IAADDR = 5;
constexpr uint32_t DHCP6_OPT_STATUS_CODE = 13;
constexpr uint32_t DHCP6_OPT_INTERFACE_ID = 18;
constexpr uint32_t DHCP6_OPT_REMOTE_ID = 37;

/* DHCPv6 message types the engine tells apart. */
constexpr uint32_t DHCP6_SOLICIT = 1;
constexpr uint32_t DHCP6_ADVERTISE = 2;
constexpr uint32_t DHCP6_REQUEST = 3;
constexpr uint32_t DHCP6_REPLY = 7;
constexpr uint32_t DHCP6_RELEASE = 8;
constexpr uint32_t DHCP6_DECLINE = 9;
constexpr uint32_t DHCP6_RECONFIGURE = 10;
constexpr uint32_t DHCP6_RELAY_FORW = 12;
constexpr uint32_t DHCP6_RELAY_REPL = 13;

inline uint32_t dhcp6_be16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }
inline uint32_t dhcp6_be32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint32_t ipv6_addr_type(const uint8_t *addr);
/* Record the top-level status, relay and IA options of the message again
 * (after the parse, and after an edit moved them). */
void dhcp6snoop_index_options(DhcpsnoopPktInfo *info);
uint16_t dhcp6snoop_get_udp_checksum(DhcpsnoopPktInfo *info);
/* The first option of `code` in an area of `len` bytes.  Option headers are
 * read up to three bytes past `len`; the caller's buffer must hold them. */
uint8_t *dhcp6snoop_get_opt(uint8_t *area, uint32_t code, uint32_t len);
/* The same, reading nothing at or beyond `end`. */
uint8_t *dhcp6snoop_get_opt_in(uint8_t *area, uint32_t code, int64_t len, const uint8_t *end);
/* One past the frame buffer that the record's pointers point into. */
const uint8_t *dhcp6snoop_frame_end(const DhcpsnoopPktInfo *info);

uint32_t dhcp6snoop_construct_opt18(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size);
uint32_t dhcp6snoop_construct_opt37(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size);
void dhcp6snoop_insert_opt(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t count);
uint16_t dhcp6snoop_strip_opt(DhcpsnoopPktInfo *info, uint32_t code);
void dhcp6snoop_construct_client_opt(DhcpsnoopPktInfo *info);

/* Returns -1 when a client frame named a bound client's address that the
 * binding guard keeps from it (the frame is then dropped), else 0. */
int dhcp6snoop_process_each_ia_opt(DhcpsnoopPktInfo *info, uint32_t fromClient);
DhcpsnoopIf *dhcp6snoop_get_if_from_opt(DhcpsnoopPktInfo *info, uint32_t code);

#endif
