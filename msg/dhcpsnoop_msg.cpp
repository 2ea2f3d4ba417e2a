/* DHCPv4/DHCPv6 frame reception: parse, family check, trace and dispatch. */
#include <stdio.h>

#include "dhcp6snoop.h"
#include "dhcpsnoop_sys.h"

namespace {

const char *msg_type_name(uint32_t type)
{
    static const char *const names[] = {"unknow", "discover", "offer",   "request", "decline",
                                        "ack",    "nak",      "release", "inform"};
    return type < sizeof names / sizeof names[0] ? names[type] : "unknow";
}


} // namespace

void dhcpsnoop_dump(const uint8_t *bytes, uint32_t len)
{
    if (len > DHCPSNOOP_FRAME_MAX + 4)
        len = DHCPSNOOP_FRAME_MAX + 4;
    for (uint32_t i = 0; i < len; i++) {
        if (i % 16 == 0)
            printf("\n\r");
        printf("%02x  ", bytes[i]);
    }
}

void dhcpsnoop_recv(DhcpsnoopRxPkt *rxpkt)
{
    DhcpsnoopPktInfo info;

    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Receive a dhcp message, check and process it!\r\n");
    if (dhcpsnoop_packet_parse(rxpkt, &info, 1) != 0) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Parse packet error, stop process!\r\n");
        return;
    }

    uint32_t version = dhcpsnoop_if_version(info.ifp);
    bool v6 = info.ethType == DHCPSNOOP_ETH_IPV6;
    if ((v6 && !(version & 2)) || (info.ethType == DHCPSNOOP_ETH_IP && !(version & 1))) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Interface version %s and packet type %s mismatch!\r\n",
                          (version & 1) && !(version & 2) ? "IPv4" : "IPv6", v6 ? "IPv6" : "IPv4");
        return;
    }

    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Receive a packet: interface %d,invlan %d,outvlan %d,received "
                      "len %d,msg len %d.\r\n",
                      int(info.ifp->ifIndex), info.cvlan, info.svlan, int(info.rxLen),
                      int(info.frameLen));
    if ((gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_DUMP) && info.rxLen != 0)
        dhcpsnoop_dump(info.frame, info.rxLen < DHCPSNOOP_FRAME_MAX ? info.rxLen : DHCPSNOOP_FRAME_MAX);

    info.rxTime = uint32_t(dhcpsnoop_sys->time(nullptr));

    if (!v6) {
        /* An IPv4-typed frame whose IP byte said 6 was parsed as DHCPv6: it
         * has no BOOTP message (no client hardware address) for either path
         * to work on, so it ends here like an unknown op. */
        uint8_t op = info.dhcpMsg && info.chaddr ? info.dhcpMsg[0] : 0;
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Dhcp %s packet, type value %d(%s).\r\n",
                          op == 1 ? "request" : "reply", int(info.msgType & 0xFF),
                          msg_type_name(info.msgType & 0xFF));
        if (op == 1)
            dhcpsnoop_client_packet_recv(&info);
        else if (op == 2)
            dhcpsnoop_server_packet_recv(&info);
        else {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Process pkt end.\r\n");
            return;
        }
    } else {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] dhcpv6 packet,type is %d.\r\n", int(info.msgType));
        if (info.msgType == DHCP6_ADVERTISE || info.msgType == DHCP6_REPLY ||
            info.msgType == DHCP6_RECONFIGURE)
            dhcp6snoop_server_packet_recv(&info);
        else
            dhcp6snoop_client_packet_recv(&info);
    }
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Process pkt end.\r\n");
}
