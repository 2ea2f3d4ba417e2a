/*
 * DHCPv6 client and server paths: bindings learnt from the addresses of IA
 * options, relay information added towards servers and used to find the
 * client's port on the way back, sent with the DHCPv4 engine's senders.
 */
#include <arpa/inet.h>
#include <string.h>

#include "dhcp6snoop.h"
#include "dhcpsnoop_user.h"

namespace {

constexpr uint32_t IAADDR_FIXED = 24;

/* A Status Code option with a code, in an area; -1 when there is none. */
int64_t status_in(uint8_t *area, int64_t len, const uint8_t *end)
{
    uint8_t *s = dhcp6snoop_get_opt_in(area, DHCP6_OPT_STATUS_CODE, len, end);
    if (!s || dhcp6_be16(s + 2) < 2 || s + 6 > end)
        return -1;
    return dhcp6_be16(s + 4);
}

} // namespace

int dhcp6snoop_process_each_ia_opt(DhcpsnoopPktInfo *info, uint32_t fromClient)
{
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Process each IA option, total num %d.\r\n", int(info->iaCount));
    if (info->iaCount == 0)
        return 0;
    int guarded = 0;
    const DhcpsnoopIf *ifp = info->ifp;
    uint32_t inport = ifp && ifp->isVlanIf ? info->ifIndex : ifp ? ifp->ifIndex : info->ifIndex;
    const uint8_t *end = dhcp6snoop_frame_end(info);
    /* a failure status seen once applies to every later address */
    uint32_t status = 0;
    uint32_t count = info->iaCount < DHCPSNOOP_IA_MAX ? info->iaCount : DHCPSNOOP_IA_MAX;

    for (uint32_t i = 0; i < count; i++) {
        uint8_t *ia = info->iaOpts[i];
        if (!ia || ia + 4 > end)
            continue;
        uint32_t code = dhcp6_be16(ia), len = dhcp6_be16(ia + 2);
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] IA option type %d, len %d.\r\n", int(code), int(len));
        uint32_t fixed = code == DHCP6_OPT_IA_NA ? 12 : 4;
        uint8_t *inner = ia + 4 + fixed;
        int64_t innerLen = int64_t(len) - fixed;

        int64_t iaStatus = status_in(inner, innerLen, end);
        if (iaStatus > 0) {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Status code of IA option is not OK!\r\n");
            continue;
        }
        uint8_t *addr = dhcp6snoop_get_opt_in(inner, DHCP6_OPT_IAADDR, innerLen, end);
        if (!addr) {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] IA_ADDR option doesn't exist!\r\n");
            continue;
        }
        while (addr) {
            uint32_t alen = dhcp6_be16(addr + 2);
            uint8_t *next = addr + 4 + alen;
            int64_t nextLen = innerLen - 4 - alen;
            if (alen >= IAADDR_FIXED && addr + 4 + IAADDR_FIXED <= end) {
                const uint8_t *ip = addr + 4;
                uint32_t valid = dhcp6_be32(addr + 4 + 20);
                char text[INET6_ADDRSTRLEN];
                inet_ntop(AF_INET6, ip, text, sizeof text);
                DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Get ip address %s in IA_ADDR option, valid_time %d.\r\n",
                                  text, int(valid));
                static const uint8_t unspecified[16] = {0};
                if (memcmp(ip, unspecified, 16) != 0) {
                    DhcpsnoopUserKey key;
                    memset(&key, 0, sizeof key);
                    key.ipType = DHCPSNOOP_IPTYPE_V6;
                    memcpy(key.ipAddr, ip, 16);
                    DhcpsnoopUser *entry = dhcpsnoop_user_lookup(&key);
                    if (fromClient && dhcpsnoop_user_guarded(entry, inport, info->chaddr, info->ifp)) {
                        guarded = -1;
                        addr = dhcp6snoop_get_opt_in(next, DHCP6_OPT_IAADDR, nextLen, end);
                        continue;
                    }
                    int64_t sub = status_in(addr + 4 + IAADDR_FIXED, int64_t(alen) - IAADDR_FIXED, end);
                    if (sub >= 0)
                        status = uint32_t(sub);

                    if (valid != 0 && status == 0 && info->msgType != DHCP6_RELEASE &&
                        info->msgType != DHCP6_DECLINE) {
                        if (fromClient &&
                            (info->msgType == DHCP6_SOLICIT || info->msgType == DHCP6_REQUEST)) {
                            /* a full interface ends learning for the message */
                            if (dhcpsnoop_user_add(&key, entry, info) == -1)
                                return guarded;
                        } else if (entry && entry->userType == DHCPSNOOP_USER_DYNAMIC) {
                            entry->leaseTime = valid;
                            entry->leaseStart = info->rxTime;
                            entry->bindState = DHCPSNOOP_BIND_BOUND;
                            dhcpsnoop_user_update_hw(entry, 1);
                            if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
                                dhcpsnoop_sync_user_send(entry, 1);
                        }
                    } else {
                        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Delete user: ip is %s.\r\n", text);
                        if (entry && entry->userType == DHCPSNOOP_USER_DYNAMIC)
                            dhcpsnoop_user_delete(entry);
                    }
                }
            }
            addr = dhcp6snoop_get_opt_in(next, DHCP6_OPT_IAADDR, nextLen, end);
        }
    }
    return guarded;
}

DhcpsnoopIf *dhcp6snoop_get_if_from_opt(DhcpsnoopPktInfo *info, uint32_t code)
{
    uint8_t *opt = code == DHCP6_OPT_INTERFACE_ID ? info->interfaceIdOpt : info->remoteIdOpt;
    if (!opt)
        return nullptr;
    const uint8_t *end = dhcp6snoop_frame_end(info);
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        DhcpsnoopPktInfo scratch;
        memset(&scratch, 0, sizeof scratch);
        scratch.ifp = e;
        scratch.svlan = info->svlan;
        uint8_t buffer[256];
        memset(buffer, 0, sizeof buffer);
        uint32_t len = code == DHCP6_OPT_INTERFACE_ID
                           ? dhcp6snoop_construct_opt18(&scratch, buffer, sizeof buffer)
                           : dhcp6snoop_construct_opt37(&scratch, buffer, sizeof buffer);
        if (len && opt + len <= end && memcmp(opt, buffer, len) == 0)
            return e;
    }
    return nullptr;
}

void dhcp6snoop_client_packet_recv(DhcpsnoopPktInfo *info)
{
    DhcpsnoopIf *ifp = info->ifp;
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Process client packet.\r\n");
    if (ifp->isVlanIf && dhcpsnoop_if_lookup(info->ifIndex)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] MuxTk discords process the received packet!\r\n");
        return;
    }
    /* a DHCPv6 client is known by its Ethernet source address */
    info->chaddr = info->srcMac;
    uint32_t t = info->msgType;
    if ((t == DHCP6_SOLICIT || t == DHCP6_REQUEST || t == DHCP6_RELEASE || t == DHCP6_DECLINE) &&
        dhcp6snoop_process_each_ia_opt(info, 1) != 0)
        return;
    if (ifp->flags & (ifflag::OPTION18 | ifflag::OPTION37))
        dhcp6snoop_construct_client_opt(info);
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Send packet to server.\r\n");
    if (ifp->isVlanIf)
        dhcpsnoop_npt_send_to_server(info);
    else
        dhcpsnoop_send_to_server(info);
}

void dhcp6snoop_server_packet_recv(DhcpsnoopPktInfo *info)
{
    if (!info)
        return;
    DhcpsnoopIf *ifp = info->ifp;
    if (ifp->isVlanIf) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] MuxTk discords process the received packet!\r\n");
        return;
    }
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Process server packet!\r\n");
    if (!(ifp->flags & ifflag::TRUSTED)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Port state is untrust, stop process!\r\n");
        return;
    }

    DhcpsnoopIf *by18 = dhcp6snoop_get_if_from_opt(info, DHCP6_OPT_INTERFACE_ID);
    if (by18 && (by18->flags & ifflag::OPTION18)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Strip interface id option, client port %d.\r\n",
                          int(by18->ifIndex));
        dhcp6snoop_strip_opt(info, DHCP6_OPT_INTERFACE_ID);
    }
    DhcpsnoopIf *by37 = dhcp6snoop_get_if_from_opt(info, DHCP6_OPT_REMOTE_ID);
    if (by37 && (by37->flags & ifflag::OPTION37)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Strip remote id option, client port %d.\r\n",
                          int(by37->ifIndex));
        dhcp6snoop_strip_opt(info, DHCP6_OPT_REMOTE_ID);
    }
    DhcpsnoopIf *clientIf = by18 ? by18 : by37;

    if (info->msgType == DHCP6_REPLY)
        dhcp6snoop_process_each_ia_opt(info, 0);

    if (clientIf) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Unicast packet to client port.\r\n");
        if (clientIf->flags & ifflag::ROUTER_MODE)
            dhcpsnoop_npt_send_to_client(info, info->svlan);
        else
            dhcpsnoop_send_to_client(info, clientIf, info->svlan);
        return;
    }
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Broadcast packet to client.\r\n");
    if (!dhcpsnoop_if_lookup_by_vid(info->svlan)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Vlan %d is disable!\r\n", int(info->svlan));
        dhcpsnoop_broadcast_forwarding(info, info->svlan);
    } else {
        dhcpsnoop_npt_send_to_client(info, info->svlan);
    }
}
