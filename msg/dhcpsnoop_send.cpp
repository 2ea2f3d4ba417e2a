/* Frames out of one port, with the tag the port wants. */
#include "dhcpsnoop_send.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <string.h>

#include "dhcpsnoop_sys.h"

namespace {
constexpr uint32_t ATTR_TPID = 45;
constexpr uint32_t SYSIF_UNTAGGED = 258;
constexpr uint16_t DEFAULT_TPID = 0x8100;
} // namespace

uint16_t dhcpsnoop_port_tpid(uint32_t ifIndex)
{
    uint32_t value = 0;
    qorIfGetApi(ifIndex, ATTR_TPID, &value);
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] TPID of this interface is 0x%0x.\r\n", value);
    return value ? uint16_t(value) : DEFAULT_TPID;
}

bool dhcpsnoop_port_untagged(uint32_t ifIndex)
{
    uint8_t buffer[64] = {0};
    return sysIFGet(ifIndex, SYSIF_UNTAGGED, buffer) != 0;
}

uint32_t dhcpsnoop_egress_frame(const DhcpsnoopPktInfo *info, uint16_t tpid, bool untaggedPort,
                                uint16_t tag, bool replaceTci, uint8_t *out)
{
    const uint8_t *f = info->frame;
    uint32_t len = info->frameLen < DHCPSNOOP_FRAME_MAX ? info->frameLen : DHCPSNOOP_FRAME_MAX;
    bool tagged = f[12] == uint8_t(tpid >> 8) && f[13] == uint8_t(tpid);
    if (tagged && untaggedPort) {
        if (len < 16)
            len = 16;
        memcpy(out, f, 12);
        memcpy(out + 12, f + 16, len - 16);
        return len - 4;
    }
    if (tagged || untaggedPort) {
        memcpy(out, f, len);
        if (tagged && replaceTci && info->svlan != tag) {
            out[14] = uint8_t(tag >> 8);
            out[15] = uint8_t(tag);
        }
        return len;
    }
    if (len < 12)
        len = 12;
    memcpy(out, f, 12);
    out[12] = uint8_t(tpid >> 8);
    out[13] = uint8_t(tpid);
    out[14] = uint8_t(tag >> 8);
    out[15] = uint8_t(tag);
    memcpy(out + 16, f + 12, len - 12);
    return len + 4;
}

long dhcpsnoop_raw_send(const DhcpsnoopPktInfo *info, uint32_t ifIndex, const uint8_t *out,
                        uint32_t len)
{
    if (gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_DUMP)
        dhcpsnoop_dump(out, len);
    struct sockaddr_ll ll;
    memset(&ll, 0, sizeof ll);
    ll.sll_family = AF_PACKET;
    ll.sll_protocol = htons(uint16_t(info->ethType));
    ll.sll_ifindex = int(ifIndex);
    ll.sll_pkttype = 2;
    ll.sll_halen = 6;
    memcpy(ll.sll_addr, info->frame, 6);
    int fd = info->ethType == DHCPSNOOP_ETH_IPV6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock;
    return dhcpsnoop_sys->sendto(fd, out, len, 0, reinterpret_cast<struct sockaddr *>(&ll),
                                 sizeof ll);
}
