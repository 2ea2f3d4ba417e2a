/*
 * Client path: frames from clients (BOOTP op 1) are vetted, recorded in the
 * binding tables, given option 82 and sent on towards the servers, either
 * relayed by UDP or out of every trusted port.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include "dhcpsnoop_send.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"

namespace {

constexpr uint32_t DHCP_REQUEST = 3;
constexpr uint32_t DHCP_DECLINE = 4;
constexpr uint32_t DHCP_RELEASE = 7;
constexpr uint32_t SYSIF_EXCLUDED = 255;

uint32_t be32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

/* Text for debug lines: called inside the debug macros' arguments, so the
 * text is made only when the line is shown. */
const char *ip_text(uint32_t hostOrder, char (&out)[DHCPSNOOP_ADDR_TEXT])
{
    const uint8_t addr[4] = {uint8_t(hostOrder >> 24), uint8_t(hostOrder >> 16),
                             uint8_t(hostOrder >> 8), uint8_t(hostOrder)};
    return dhcpsnoop_addr_text(DHCPSNOOP_IPTYPE_V4, addr, out);
}

bool port_excluded(uint32_t ifIndex)
{
    uint8_t buffer[64] = {0};
    return sysIFGet(ifIndex, SYSIF_EXCLUDED, buffer) != 0;
}

/* Out of every other enabled, trusted port.  A frame from a VLAN interface
 * (npt) skips its member port and goes out of ports only. */
int send_to_trusted_ports(DhcpsnoopPktInfo *info, bool npt)
{
    if (info->frameLen >= DHCPSNOOP_FRAME_MAX + 1 || dhcpsnoop_list_empty(&gDhcpsnoop.ifList))
        return 0;
    uint32_t skip = npt ? info->ifIndex : info->ifp->ifIndex;
    uint8_t out[DHCPSNOOP_EGRESS_MAX];
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if (e->ifIndex == skip)
            continue;
        if ((e->flags & (ifflag::IN_USE | ifflag::TRUSTED)) != (ifflag::IN_USE | ifflag::TRUSTED))
            continue;
        if (npt && e->isVlanIf)
            continue;
        bool router = !npt && (e->flags & ifflag::ROUTER_MODE);
        if (!router && port_excluded(e->ifIndex))
            continue;
        uint16_t tpid = dhcpsnoop_port_tpid(e->ifIndex);
        bool untagged = router || dhcpsnoop_port_untagged(e->ifIndex);
        uint32_t len = dhcpsnoop_egress_frame(info, tpid, untagged, info->svlan, false, out);
        DHCPSNOOP_DEBUG_I(npt ? "[DHCPSNOOP] Npt send message to server, len is %d buflen is %d.\r\n"
                              : "[DHCPSNOOP] Send message to server, len is %d buflen is %d.\r\n",
                          int(info->frameLen), int(len));
        if (dhcpsnoop_raw_send(info, e->ifIndex, out, len) < 0) {
            bool v6 = info->ethType == DHCPSNOOP_ETH_IPV6;
            if (npt)
                DHCPSNOOP_DEBUG_I(v6 ? "[DHCPSNOOP] Npt send v6 message to server failed!\r\n"
                                     : "[DHCPSNOOP] Npt send message to server failed!\r\n");
            else
                DHCPSNOOP_DEBUG_I(v6 ? "[DHCPSNOOP] Send v6 message to server failed!\r\n"
                                     : "[DHCPSNOOP] Send message to server failed!\r\n");
        }
    }
    return 0;
}

} // namespace

int dhcpsnoop_send_to_server(DhcpsnoopPktInfo *info) { return send_to_trusted_ports(info, false); }

int dhcpsnoop_npt_send_to_server(DhcpsnoopPktInfo *info)
{
    if (!info->ifp)
        return 0;
    return send_to_trusted_ports(info, true);
}

void dhcpsnoop_udp_socket_send(DhcpsnoopPktInfo *info, uint32_t fromAddr, uint32_t toAddr)
{
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(67);
    to.sin_addr.s_addr = htonl(toAddr);

    /* the DHCP message as it lies in the frame buffer, never past it */
    size_t offset = size_t(info->dhcpMsg - info->frame);
    size_t room = offset < DHCPSNOOP_FRAME_MAX ? DHCPSNOOP_FRAME_MAX - offset : 0;
    struct iovec iov;
    iov.iov_base = info->dhcpMsg;
    iov.iov_len = info->dhcpLen < room ? info->dhcpLen : room;

    alignas(struct cmsghdr) uint8_t control[CMSG_SPACE(sizeof(struct in_pktinfo))];
    memset(control, 0, sizeof control);
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(struct in_pktinfo));
    struct in_pktinfo pi;
    memset(&pi, 0, sizeof pi);
    pi.ipi_spec_dst.s_addr = htonl(fromAddr);
    memcpy(CMSG_DATA(c), &pi, sizeof pi);

    char from[DHCPSNOOP_ADDR_TEXT], dest[DHCPSNOOP_ADDR_TEXT];
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Send message from %s to %s, length %d.\r\n",
                      ip_text(fromAddr, from), ip_text(toAddr, dest), int(info->dhcpLen));
    if (dhcpsnoop_sys->sendmsg(gDhcpsnoop.udpSock, &msg, 0) < 0)
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Send message ERROR, no 0x%0x.\r\n", errnoGet());
}

void dhcpsnoop_client_packet_recv(DhcpsnoopPktInfo *info)
{
    DhcpsnoopIf *ifp = info->ifp;
    uint32_t inport = ifp->isVlanIf ? info->ifIndex : ifp->ifIndex;
    uint16_t vid = ifp->isVlanIf ? dhcpsnoop_if_vid(ifp) : info->svlan;

    /* a port that snoops by itself is not also handled through its VLAN */
    if (ifp->isVlanIf && dhcpsnoop_if_lookup(inport)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Interface is enable, do not process the received packet!\r\n");
        return;
    }

    if ((ifp->flags & ifflag::SRC_MAC_CHECK) && memcmp(info->srcMac, info->chaddr, 6) != 0) {
        ifp->counters[DHCPSNOOP_CNT_SRC_MAC]++;
        char src[DHCPSNOOP_MAC_TEXT], client[DHCPSNOOP_MAC_TEXT];
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Source mac in pkt %s and client mac %s don't match,stop "
                          "process!\r\n",
                          dhcpsnoop_mac_text(info->srcMac, src),
                          dhcpsnoop_mac_text(info->chaddr, client));
        return;
    }

    DhcpsnoopUserKey key;
    memset(&key, 0, sizeof key);
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    memcpy(key.ipAddr, info->clientIp, 4);
    DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);

    bool ciaddrSet = be32(info->dhcpMsg + 12) != 0;
    if ((ifp->flags & ifflag::USER_CHECK) &&
        ((info->msgType == DHCP_REQUEST && ciaddrSet) || info->msgType == DHCP_RELEASE)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Check user bind entry.\r\n");
        if (user && user->userType == DHCPSNOOP_USER_DYNAMIC &&
            !(be32(info->clientIp) == info->srcIp && memcmp(user->mac, info->chaddr, 6) == 0 &&
              user->vid == vid && user->ifIndex == inport)) {
            ifp->counters[DHCPSNOOP_CNT_USER_MISMATCH]++;
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] User entry information mismatch, stop process!\r\n");
            return;
        }
    }

    /* a bound entry is its client's: a frame from elsewhere would replace
     * or remove it, so it goes no further */
    bool changesBinding = info->msgType == DHCP_REQUEST || info->msgType == DHCP_DECLINE ||
                          info->msgType == DHCP_RELEASE;
    if (changesBinding && dhcpsnoop_user_guarded(user, inport, info->chaddr, ifp))
        return;

    bool relaying = info->giaddr == 0 && ifp->relayAddr != 0;
    DhcpsnoopMacUser *macUser = nullptr;
    if (relaying) {
        macUser = dhcpsnoop_mac_user_lookup(info->chaddr);
        if (!macUser && !user) {
            macUser = dhcpsnoop_mac_user_add(info);
            if (!macUser) {
                ifp->counters[DHCPSNOOP_CNT_TABLE_FULL]++;
                DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Failed to add mac user entry, stop process!\r\n");
                return;
            }
        }
    }
    if (macUser) {
        if (info->msgType == DHCP_REQUEST) {
            dhcpsnoop_mac_user_delete(macUser);
            if (dhcpsnoop_user_add(&key, user, info) != 0) {
                ifp->counters[DHCPSNOOP_CNT_TABLE_FULL]++;
                return;
            }
        } else if (info->msgType == DHCP_DECLINE || info->msgType == DHCP_RELEASE) {
            if (user && user->userType == DHCPSNOOP_USER_DYNAMIC)
                dhcpsnoop_user_delete(user);
            dhcpsnoop_mac_user_delete(macUser);
        }
    } else if (info->msgType == DHCP_REQUEST) {
        if (dhcpsnoop_user_add(&key, user, info) != 0) {
            ifp->counters[DHCPSNOOP_CNT_TABLE_FULL]++;
            return;
        }
    } else if (info->msgType == DHCP_DECLINE || info->msgType == DHCP_RELEASE) {
        if (user && user->userType == DHCPSNOOP_USER_DYNAMIC)
            dhcpsnoop_user_delete(user);
    }

    if ((ifp->flags & ifflag::OPTION82) && dhcpsnoop_process_option82(info) != 0)
        return;

    if (relaying) {
        uint32_t relay = ifp->relayAddr;
        info->dhcpMsg[24] = uint8_t(relay >> 24);
        info->dhcpMsg[25] = uint8_t(relay >> 16);
        info->dhcpMsg[26] = uint8_t(relay >> 8);
        info->dhcpMsg[27] = uint8_t(relay);
        char text[DHCPSNOOP_ADDR_TEXT];
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Giaddr is zero, set giaddr to %s.\r\n", ip_text(relay, text));
        for (uint32_t server : ifp->serverIp)
            if (server)
                dhcpsnoop_udp_socket_send(info, relay, server);
        return;
    }

    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Send packet to server, inport %d, vid %d, len %d.\r\n",
                      int(inport), vid, int(info->frameLen));
    if (ifp->isVlanIf)
        dhcpsnoop_npt_send_to_server(info);
    else
        dhcpsnoop_send_to_server(info);
}
