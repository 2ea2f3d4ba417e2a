/*
 * DHCPv6 frames: classification and parse, address types, the UDP checksum
 * over IPv6 and the option finder.
 *
 * Recorded option pointers point into the frame buffer (DHCPSNOOP_FRAME_MAX
 * bytes from info->frame); walks stop at the end of that buffer.
 */
#include <string.h>

#include "dhcp6snoop.h"

namespace {

constexpr uint32_t NH_HOP_BY_HOP = 0;
constexpr uint32_t NH_ROUTING = 43;
constexpr uint32_t NH_FRAGMENT = 44;
constexpr uint32_t NH_DEST_OPTS = 60;
constexpr uint32_t NH_UDP = 17;


} // namespace

uint32_t ipv6_addr_type(const uint8_t *addr)
{
    uint32_t w0 = dhcp6_be32(addr), w1 = dhcp6_be32(addr + 4), w2 = dhcp6_be32(addr + 8), w3 = dhcp6_be32(addr + 12);
    uint32_t top3 = w0 & 0xE0000000u;
    if (top3 != 0 && top3 != 0xE0000000u)
        return IPV6_ADDR_UNICAST;
    if ((w0 & 0xFF000000u) == 0xFF000000u) {
        switch ((w0 >> 16) & 0xFF) {
        case 0x01:
            return IPV6_ADDR_MULTICAST | IPV6_ADDR_LOOPBACK;
        case 0x02:
            return IPV6_ADDR_MULTICAST | IPV6_ADDR_LINKLOCAL;
        case 0x05:
            return IPV6_ADDR_MULTICAST | IPV6_ADDR_SITELOCAL;
        default:
            return IPV6_ADDR_MULTICAST;
        }
    }
    if ((w0 & 0xFFC00000u) == 0xFE800000u)
        return IPV6_ADDR_LINKLOCAL | IPV6_ADDR_UNICAST;
    if ((w0 & 0xFFC00000u) == 0xFEC00000u)
        return IPV6_ADDR_SITELOCAL | IPV6_ADDR_UNICAST;
    if (w0 | w1)
        return IPV6_ADDR_RESERVED;
    if (w2 == 0x0000FFFFu)
        return IPV6_ADDR_MAPPED;
    if (w2)
        return IPV6_ADDR_RESERVED;
    if (w3 == 0)
        return 0;
    if (w3 == 1)
        return IPV6_ADDR_LOOPBACK | IPV6_ADDR_UNICAST;
    return IPV6_ADDR_COMPATv4 | IPV6_ADDR_UNICAST;
}

const uint8_t *dhcp6snoop_frame_end(const DhcpsnoopPktInfo *info)
{
    return info->frame + DHCPSNOOP_FRAME_MAX;
}

uint8_t *dhcp6snoop_get_opt_in(uint8_t *area, uint32_t code, int64_t len, const uint8_t *end)
{
    if (!area || len <= 0 || area + 4 > end)
        return nullptr;
    if (dhcp6_be16(area) == code)
        return area;
    int64_t total = 0;
    uint8_t *p = area;
    for (;;) {
        total += int64_t(dhcp6_be16(p + 2)) + 4;
        if (total >= len)
            return nullptr;
        p = area + total;
        if (p + 4 > end)
            return nullptr;
        if (dhcp6_be16(p) == code)
            return p;
    }
}

uint8_t *dhcp6snoop_get_opt(uint8_t *area, uint32_t code, uint32_t len)
{
    /* the caller's area holds its length; an option header may reach three
     * bytes past it, as the walk reads each header before testing */
    return dhcp6snoop_get_opt_in(area, code, len, area ? area + len + 3 : nullptr);
}

uint16_t dhcp6snoop_get_udp_checksum(DhcpsnoopPktInfo *info)
{
    uint32_t udpLen = info->udpLen;
    if (udpLen + 36 >= DHCPSNOOP_FRAME_MAX + 1)
        return 0;
    /* Summed where it lies: both addresses, the next header and the UDP
     * length, then the datagram as far as the frame holds it. */
    const uint8_t *end = dhcp6snoop_frame_end(info);
    size_t avail = info->udpHdr < end ? size_t(end - info->udpHdr) : 0;
    uint32_t sum = dhcpsnoop_sum16(info->ipHdr + 8, 32) + 17 + udpLen +
                   dhcpsnoop_sum16(info->udpHdr, uint32_t(udpLen < avail ? udpLen : avail));
    return dhcpsnoop_sum_fold(sum);
}

void dhcp6snoop_index_options(DhcpsnoopPktInfo *info)
{
    info->statusCode = 0;
    info->interfaceIdOpt = nullptr;
    info->remoteIdOpt = nullptr;
    info->iaCount = 0;
    /* measured from the IPv6 payload length, not from the UDP length */
    int64_t dhcpOff = int64_t(info->udpHdr - info->frame) + 8;
    int64_t areaLen = int64_t(info->frameLen) - dhcpOff - 4;
    if (areaLen <= 0)
        return;
    uint8_t *area = info->frame + dhcpOff + 4;
    const uint8_t *end = dhcp6snoop_frame_end(info);
    int64_t used = 0;
    while (used < areaLen) {
        uint8_t *opt = area + used;
        if (opt + 4 > end)
            break;
        uint32_t code = dhcp6_be16(opt), len = dhcp6_be16(opt + 2);
        switch (code) {
        case DHCP6_OPT_STATUS_CODE:
            if (len >= 2 && opt + 6 <= end)
                info->statusCode = dhcp6_be16(opt + 4);
            break;
        case DHCP6_OPT_INTERFACE_ID:
            info->interfaceIdOpt = opt;
            break;
        case DHCP6_OPT_REMOTE_ID:
            info->remoteIdOpt = opt;
            break;
        case DHCP6_OPT_IA_NA:
        case DHCP6_OPT_IA_TA:
            if (info->iaCount < DHCPSNOOP_IA_MAX)
                info->iaOpts[info->iaCount++] = opt;
            break;
        default:
            break;
        }
        used += int64_t(len) + 4;
    }
}

int dhcp6snoop_packet_parse(DhcpsnoopPktInfo *info, uint32_t fullParse)
{
    uint8_t *frame = info->frame;
    uint8_t *ip = info->ipHdr;
    /* the fixed header must lie inside the frame buffer */
    if (info->l2HdrLen + 40 > DHCPSNOOP_FRAME_MAX)
        return -1;

    /* an embedded scope index never leaves the parser */
    uint32_t type = ipv6_addr_type(ip + 8);
    if ((type & IPV6_ADDR_LINKLOCAL) && (type & IPV6_ADDR_UNICAST)) {
        ip[10] = 0;
        ip[11] = 0;
    }

    uint32_t next = ip[6];
    uint32_t off = info->l2HdrLen + 40;
    for (;;) {
        if (next == NH_FRAGMENT)
            return -1;
        if (next != NH_HOP_BY_HOP && next != NH_ROUTING && next != NH_DEST_OPTS)
            break;
        if (off + 1 >= DHCPSNOOP_FRAME_MAX)
            return -1;
        off += (uint32_t(frame[off + 1]) + 1) * 8;
        if (off > info->frameLen || off >= DHCPSNOOP_FRAME_MAX)
            return -1;
        /* what follows is read from the first byte behind the skipped
         * header, not from its next-header field */
        next = frame[off];
    }
    if (next != NH_UDP)
        return -1;
    if (off + 8 > DHCPSNOOP_FRAME_MAX)
        return -1;
    uint8_t *udp = frame + off;
    uint32_t srcPort = dhcp6_be16(udp);
    if (srcPort != 546 && srcPort != 547)
        return -1;
    if (fullParse != 1)
        return 0;

    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Src_port %d, ip6_start %d, udp6_start %d, dh6_start %d.\r\n",
                      int(srcPort), int(info->l2HdrLen), int(off), int(off + 8));

    info->ipTotLen = ip + 4;
    info->ipBodyLen = dhcp6_be16(ip + 4);
    info->ipHdrLen = 40;
    uint32_t total = info->l2HdrLen + 40 + info->ipBodyLen;
    if (info->frameLen < total) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Packet validate: total length is error!\r\n");
        return -1;
    }
    info->frameLen = total;

    info->udpHdr = udp;
    info->udpLenField = udp + 4;
    info->udpLen = dhcp6_be16(udp + 4);
    if (info->ipBodyLen < info->udpLen) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Packet validate: udp length is error!\r\n");
        return -1;
    }

    if (off + 8 >= DHCPSNOOP_FRAME_MAX)
        return -1;
    info->dhcpMsg = udp + 8;
    info->msgType = info->dhcpMsg[0];
    if (info->msgType == DHCP6_RELAY_FORW || info->msgType == DHCP6_RELAY_REPL) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Relay-server message, stop process!\r\n");
        return -1;
    }
    info->dhcpLen = info->udpLen - 8;

    dhcp6snoop_index_options(info);
    return 0;
}
