/*
 * Server path: replies from servers (BOOTP op 2) are accepted on trusted
 * ports only, bind or release the client's binding, lose the option 82 this
 * switch added, gain the boot options, and go to the client's port or are
 * flooded in its VLAN.
 */
#include <string.h>

#include "dhcpsnoop_send.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"

namespace {

constexpr uint32_t DHCP_ACK = 5;
constexpr uint32_t DHCP_NAK = 6;
constexpr uint32_t SYSIF_EXCLUDED = 255;
constexpr uint32_t ATTR_VLAN_MEMBERS = 5410;

DhcpsnoopIf *enabled_if(uint32_t ifIndex)
{
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(ifIndex);
    return e && (e->flags & ifflag::IN_USE) ? e : nullptr;
}

void put_be32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

/* The reply was relayed by this switch: address it to the client again. */
void undo_relay(DhcpsnoopPktInfo *info, const DhcpsnoopIf *egress)
{
    if (egress->relayAddr != info->giaddr)
        return;
    bool ours = false;
    for (uint32_t server : egress->serverIp)
        ours = ours || (server != 0 && server == info->serverId);
    if (!ours)
        return;
    put_be32(info->ipHdr + 12, egress->relayAddr);
    info->udpHdr[2] = 0;
    info->udpHdr[3] = 68;
    bool broadcastFlag = info->dhcpMsg[10] & 0x80;
    bool noClient = memcmp(info->clientIp, "\0\0\0\0", 4) == 0;
    if (info->msgType == DHCP_NAK || broadcastFlag || noClient) {
        memset(info->ipHdr + 16, 0xFF, 4);
        memset(info->frame, 0xFF, 6);
    } else {
        memcpy(info->ipHdr + 16, info->clientIp, 4);
        memcpy(info->frame, info->chaddr, 6);
    }
    dhcpsnoop_update_checksum(info, 0, 0);
}

void send_failed(const DhcpsnoopPktInfo *info, const char *v4, const char *v6)
{
    DHCPSNOOP_DEBUG_I("%s", info->ethType == DHCPSNOOP_ETH_IPV6 ? v6 : v4);
}

} // namespace

void dhcpsnoop_server_packet_recv(DhcpsnoopPktInfo *info)
{
    DhcpsnoopIf *ifp = info->ifp;
    if (ifp->isVlanIf) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Vlan interface do not process the DHCP Reply message!\r\n");
        return;
    }

    /* learnt before the trust test: a server behind an untrusted port is
     * worth knowing about too */
    if (gDhcpsnoop.serverLearn == 1 && info->serverId &&
        !dhcpsnoop_server_lookup(info->serverId, info->svlan, info->ifIndex))
        dhcpsnoop_server_add(info->serverId, info->svlan, info->ifIndex);

    if (!(ifp->flags & ifflag::TRUSTED)) {
        ifp->counters[DHCPSNOOP_CNT_UNTRUSTED_REPLY]++;
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Port is untrust,stop process!\r\n");
        return;
    }

    DhcpsnoopIf *egress = nullptr;
    uint32_t vid = info->svlan;
    DhcpsnoopOptBuf opt125, bootFile;
    memset(&opt125, 0, sizeof opt125);
    memset(&bootFile, 0, sizeof bootFile);
    opt125.len = sizeof opt125.data;
    bootFile.len = sizeof bootFile.data;

    bool ack = info->msgType == DHCP_ACK, nak = info->msgType == DHCP_NAK;
    DhcpsnoopUser *bound = nullptr;
    if (ack) {
        bound = dhcpsnoop_user_update(info, &opt125, &bootFile);
        if (bound) {
            vid = bound->vid;
            egress = enabled_if(bound->ifIndex);
        }
    } else if (nak) {
        if (DhcpsnoopUser *u = dhcpsnoop_user_lookup_by_mac(info->chaddr)) {
            vid = u->vid;
            uint32_t port = u->ifIndex;
            if (u->serverId == info->serverId)
                dhcpsnoop_user_delete(u);
            egress = enabled_if(port);
        }
    }

    if (((ack && !bound) || (!ack && !nak)) && info->giaddr != 0) {
        if (DhcpsnoopMacUser *m = dhcpsnoop_mac_user_lookup(info->chaddr)) {
            egress = enabled_if(m->ifIndex);
            vid = m->vid;
        }
    }

    if (!egress) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Broadcast packet to client,inport %d,vid %d,len %d.\r\n",
                          int(ifp->ifIndex), int(vid), int(info->frameLen));
        if (dhcpsnoop_if_lookup_by_vid(vid))
            dhcpsnoop_npt_send_to_client(info, vid);
        else
            dhcpsnoop_broadcast_forwarding(info, vid);
        return;
    }

    if (info->giaddr != 0)
        undo_relay(info, egress);

    /* the egress port's remote-id mode, else the global remote-id mode */
    uint32_t mode = dhcpsnoop_if_mode(egress);
    if (mode == 0)
        mode = gDhcpsnoop.remoteIdFmt.mode;
    if ((egress->flags & ifflag::OPTION82) && (mode == 3 || mode == 4) && info->remoteId &&
        dhcpsnoop_remote_id_cmp(info, info->remoteId, egress, mode) == 0)
        dhcpsnoop_strip_option(info);

    if (ack) {
        if (bootFile.len != 0)
            dhcpsnoop_insert_opt67(info, bootFile.data, bootFile.len);
        if (opt125.len != 0)
            dhcpsnoop_insert_opt125(info, opt125.data, opt125.len);
    }

    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Unicast packet to client,outport %d,vid %d,len %d.\r\n",
                      int(egress->ifIndex), int(vid), int(info->frameLen));
    dhcpsnoop_send_to_client(info, egress, vid);
}

void dhcpsnoop_send_to_client(DhcpsnoopPktInfo *info, DhcpsnoopIf *egress, uint32_t vid)
{
    if (!egress || info->frameLen >= DHCPSNOOP_FRAME_MAX + 1)
        return;
    bool router = egress->flags & ifflag::ROUTER_MODE;
    if (!router) {
        uint8_t buffer[64] = {0};
        /* only -1 aborts here, unlike the flooding senders */
        if (sysIFGet(egress->ifIndex, SYSIF_EXCLUDED, buffer) == -1)
            return;
    }
    uint16_t tpid = dhcpsnoop_port_tpid(egress->ifIndex);
    bool untagged = router || dhcpsnoop_port_untagged(egress->ifIndex);
    uint8_t out[DHCPSNOOP_EGRESS_MAX];
    uint32_t len = dhcpsnoop_egress_frame(info, tpid, untagged, uint16_t(vid), false, out);
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Send message to client, len is %d buflen is %d.\r\n",
                      int(info->frameLen), int(len));
    if (dhcpsnoop_raw_send(info, egress->ifIndex, out, len) < 0)
        send_failed(info, "[DHCPSNOOP] Send message to client failed!\r\n",
                    "[DHCPSNOOP] Send v6 message to client failed!\r\n");
}

void dhcpsnoop_broadcast_forwarding(DhcpsnoopPktInfo *info, uint32_t vid)
{
    if (info->frameLen >= DHCPSNOOP_FRAME_MAX + 1 || dhcpsnoop_list_empty(&gDhcpsnoop.ifList))
        return;
    uint8_t out[DHCPSNOOP_EGRESS_MAX];
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if (e->ifIndex == info->ifp->ifIndex || e->isVlanIf)
            continue;
        if (!(e->flags & ifflag::ROUTER_MODE)) {
            uint8_t buffer[64] = {0};
            if (sysIFGet(e->ifIndex, SYSIF_EXCLUDED, buffer) != 0)
                continue;
        }
        if (!(e->flags & ifflag::IN_USE))
            continue;
        uint16_t tpid = dhcpsnoop_port_tpid(e->ifIndex);
        bool untagged = dhcpsnoop_port_untagged(e->ifIndex);
        uint32_t len = dhcpsnoop_egress_frame(info, tpid, untagged, uint16_t(vid), true, out);
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Send broadcast message, len is %d.\r\n", int(len));
        if (dhcpsnoop_raw_send(info, e->ifIndex, out, len) < 0)
            send_failed(info, "[DHCPSNOOP] Send broadcast message failed!\r\n",
                        "[DHCPSNOOP] Send v6 broadcast message failed!\r\n");
    }
}

void dhcpsnoop_npt_send_to_client(DhcpsnoopPktInfo *info, uint32_t vid)
{
    if (info->frameLen >= DHCPSNOOP_FRAME_MAX + 1)
        return;
    uint8_t members[256];
    memset(members, 0, sizeof members);
    QorTextPair list = {members, sizeof members};
    if (qorVlanGetApi(vid, ATTR_VLAN_MEMBERS, &list) != 0) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] No member in vlan %d.\r\n", int(vid));
        return;
    }
    uint32_t count = (list.len < sizeof members ? list.len : sizeof members) / 4;
    uint8_t out[DHCPSNOOP_EGRESS_MAX];
    for (uint32_t i = 0; i < count; i++) {
        uint32_t port;
        memcpy(&port, members + 4 * i, 4);
        if (port == info->ifIndex)
            continue; /* never back out of the port the reply came in on */
        uint16_t tpid = dhcpsnoop_port_tpid(port);
        bool untagged = dhcpsnoop_port_untagged(port);
        uint32_t len = dhcpsnoop_egress_frame(info, tpid, untagged, uint16_t(vid), true, out);
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Npt send message to client(port %d), len is %d buflen is %d.\r\n",
                          int(port), int(info->frameLen), int(len));
        if (dhcpsnoop_raw_send(info, port, out, len) < 0) {
            if (info->ethType == DHCPSNOOP_ETH_IPV6)
                DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Npt send v6 message to client failed, dest port = %d!\r\n",
                                  int(port));
            else
                DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Npt send message to client failed, dest port = %d!\r\n",
                                  int(port));
        }
    }
}
