/*
 * Binding propagation: bindings become IP-source-guard and ARP-inspection
 * rules in the forwarding hardware, and user events for the rest of the
 * platform.  Groups of bindings follow their interface or trunk member.
 */
#include <string.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_user.h"

namespace {

struct RuleKind {
    uint32_t kind;
    uint8_t hwBit;
    DhcpsnoopIfHook hook;
    uint8_t DhcpsnoopUser::*source;
    uint8_t DhcpsnoopUser::*items;
};

RuleKind ipsg_kind()
{
    return {DHCPSNOOP_RULE_IPSG, DHCPSNOOP_HW_IPSG, gDhcpsnoop.ipsgIfGet,
            &DhcpsnoopUser::ipsgSource, &DhcpsnoopUser::ipsgCheckItems};
}

RuleKind dai_kind()
{
    return {DHCPSNOOP_RULE_DAI, DHCPSNOOP_HW_DAI, gDhcpsnoop.antiArpIfGet,
            &DhcpsnoopUser::daiSource, &DhcpsnoopUser::daiCheckItems};
}

constexpr uint8_t SOURCE_VLAN = 1;
constexpr uint8_t SOURCE_PORT = 2;

/* Is the feature on for this interface?  Its check items when it is. */
bool feature_enabled(DhcpsnoopIfHook hook, uint32_t ifIndex, uint8_t *items)
{
    uint32_t enabled = 0;
    if (hook(ifIndex, 1, &enabled) != 0 || enabled != 1)
        return false;
    *items = 0;
    hook(ifIndex, 2, items);
    return true;
}

/* Where the feature's settings for this binding come from: its port first,
 * then its VLAN's interface.  0 when the feature is off for both. */
uint8_t feature_source(DhcpsnoopIfHook hook, const DhcpsnoopUser *u, uint8_t *items)
{
    if (feature_enabled(hook, u->ifIndex, items))
        return SOURCE_PORT;
    const uint32_t words[7] = {1, 1, 1, 1, u->vid, 3, 0};
    uint32_t vlanIndex = 0;
    if (qorIndexTrans(words, 7, &vlanIndex) == 0 && feature_enabled(hook, vlanIndex, items))
        return SOURCE_VLAN;
    return 0;
}

void install_kind(DhcpsnoopUser *u, const RuleKind &k)
{
    if (!k.hook)
        return;
    uint8_t items = 0;
    uint8_t source = feature_source(k.hook, u, &items);
    if (!source || (u->hwFlags & k.hwBit))
        return;
    if (dhcpsnoop_user_state_notify(u, 1, &items, k.kind) == 0) {
        u->hwFlags |= k.hwBit;
        u->*k.source = source;
        u->*k.items = items;
    }
}

void withdraw_kind(DhcpsnoopUser *u, const RuleKind &k)
{
    if (!(u->hwFlags & k.hwBit))
        return;
    if (dhcpsnoop_user_state_notify(u, 0, &(u->*k.items), k.kind) == 0) {
        u->*k.items = 0;
        u->*k.source = 0;
        u->hwFlags &= uint8_t(~k.hwBit);
    }
}

} // namespace

void dhcpsnoop_user_notifier(DhcpsnoopUser *entry, uint32_t add)
{
    if (!entry || entry->userType != DHCPSNOOP_USER_DYNAMIC || !entry->gateway ||
        entry->ipType == DHCPSNOOP_IPTYPE_V6)
        return;
    DhcpsnoopUserEvent ev;
    memset(&ev, 0, sizeof ev);
    memcpy(ev.mac, entry->mac, sizeof ev.mac);
    ev.vid = entry->vid;
    ev.ifIndex = entry->ifIndex;
    memcpy(ev.addr, entry->ipAddr, 4);
    memcpy(ev.gateway, &entry->gateway, 4);
    ev.family = 1;
    uint8_t body[sizeof ev];
    memcpy(body, &ev, sizeof ev);
    dhcpsnoop_notify_send(body, add == 1 ? DHCPSNOOP_EVENT_USER_ADD : DHCPSNOOP_EVENT_USER_DEL);

    if (gDhcpsnoop.debugFlags & (DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP)) {
        char macText[DHCPSNOOP_MAC_TEXT], addrText[DHCPSNOOP_ADDR_TEXT],
            gwText[DHCPSNOOP_ADDR_TEXT];
        NM_DEBUG_OUTPUT("[DHCPSNOOP] Notify %s user: port %d ,vid %d ,mac %s ,ip %s, gateway "
                        "%s.\r\n",
                        add ? "add" : "delete", int(entry->ifIndex), int(entry->vid),
                        dhcpsnoop_mac_text(entry->mac, macText),
                        dhcpsnoop_addr_text(DHCPSNOOP_IPTYPE_V4, entry->ipAddr, addrText),
                        dhcpsnoop_addr_text(DHCPSNOOP_IPTYPE_V4, ev.gateway, gwText));
    }
}

int dhcpsnoop_user_state_notify(DhcpsnoopUser *entry, uint32_t add, uint8_t *items, uint32_t kind)
{
    /* the standby unit keeps its bindings marked as installed, like the
     * master's, without programming anything */
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_SLAVE)
        return 0;
    if (!entry)
        return -1;
    const uint8_t check = items ? *items : 0;

    DhcpsnoopHwUserRecord rec;
    memset(&rec, 0, sizeof rec);
    if (check & DHCPSNOOP_CHECK_MAC) {
        memcpy(rec.mac, entry->mac, sizeof rec.mac);
        rec.macValid = DHCPSNOOP_MAC_MARK;
    }
    if (check & DHCPSNOOP_CHECK_VLAN) {
        rec.vid = entry->vid;
        rec.origVid = entry->origVid;
    }
    if (check & DHCPSNOOP_CHECK_PORT)
        rec.ifIndex = entry->ifIndex;
    if (check & DHCPSNOOP_CHECK_IP) {
        bool v4 = entry->ipType == DHCPSNOOP_IPTYPE_V4;
        memcpy(rec.addr, entry->ipAddr, v4 ? 4 : 16);
        rec.addrKind = v4 ? 0x20 : 0x80;
    }
    rec.userAttr = entry->userAttr;
    rec.ipType = entry->ipType;
    if (kind == DHCPSNOOP_RULE_IPSG) {
        rec.ruleFlags = 0x80;
        rec.ipsgHwId = entry->ipsgHwId;
    } else if (kind == DHCPSNOOP_RULE_DAI && gDhcpsnoop.daiStarted == 1) {
        rec.ruleFlags = 0x40;
        rec.daiHwId = entry->daiHwId;
    }

    QorHwUserRequest req;
    memset(&req, 0, sizeof req);
    req.op = add == 1 ? DHCPSNOOP_HW_OP_ADD : DHCPSNOOP_HW_OP_DEL;
    req.record = &rec;
    int rc = qorIfSetApi(entry->ifIndex, DHCPSNOOP_HW_USER_CMD, &req);

    if (add == 1) {
        if (kind == DHCPSNOOP_RULE_IPSG)
            entry->ipsgHwId = rec.ipsgHwId;
        else if (kind == DHCPSNOOP_RULE_DAI)
            entry->daiHwId = rec.daiHwId;
    }

    if (gDhcpsnoop.debugFlags & (DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP)) {
        const char *verb = add ? "Add" : "Delete";
        char macText[DHCPSNOOP_MAC_TEXT], addrText[DHCPSNOOP_ADDR_TEXT];
        NM_DEBUG_OUTPUT("[DHCPSNOOP] %s user in hwapi: port %d ,vid %d ,mac %s ,ip %s, checkitem "
                        "0x%0x.\r\n",
                        verb, int(entry->ifIndex), int(entry->vid),
                        dhcpsnoop_mac_text(entry->mac, macText),
                        dhcpsnoop_addr_text(entry->ipType, entry->ipAddr, addrText),
                        unsigned(rec.ruleFlags));
        if (rc != 0)
            NM_DEBUG_OUTPUT("[DHCPSNOOP] %s user info in hwapi failed!\r\n", verb);
    }
    return rc;
}

void dhcpsnoop_user_update_hw(DhcpsnoopUser *entry, uint32_t add)
{
    if (!entry)
        return;
    if (add) {
        install_kind(entry, ipsg_kind());
        install_kind(entry, dai_kind());
    } else {
        withdraw_kind(entry, ipsg_kind());
        withdraw_kind(entry, dai_kind());
    }
}

void dhcpsnoop_user_process_on_interface(DhcpsnoopIf *entry, uint32_t ipTypes,
                                         uint32_t userTypes, uint32_t operate)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Process user on interface %d, inet type %d, user type = %d, "
                    "operate %d.\r\n",
                    entry ? int(entry->ifIndex) : 0, int(ipTypes), int(userTypes), int(operate));
    const bool byVlan = entry && entry->isVlanIf;
    const uint16_t vid = entry ? dhcpsnoop_if_vid(entry) : 0;
    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        for (DhcpsnoopList *n = head->next, *next; n != head; n = next) {
            next = n->next;
            DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            if (entry && (byVlan ? u->vid != vid : u->ifIndex != entry->ifIndex))
                continue;
            if (!(ipTypes & u->ipType) || !(userTypes & u->userType))
                continue;
            dhcpsnoop_user_update_hw(u, operate & 1);
            if (operate & 2)
                dhcpsnoop_user_delete(u);
        }
    }
}

/* A trunk member gets (or loses) the rules of the trunk's bindings.  The
 * work is done on a copy addressed to the member, so the table's entry keeps
 * describing the trunk. */
void dhcpsnoop_user_process_on_trunk(uint32_t trunk, uint32_t port, uint32_t operate)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Process user on trunk interface %d, port %d, operate %d.\r\n",
                    int(trunk), int(port), int(operate));
    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        for (DhcpsnoopList *n = head->next, *next; n != head; n = next) {
            next = n->next;
            DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            if (trunk != 0 && u->ifIndex != trunk)
                continue;
            DhcpsnoopUser copy = *u;
            dhcpsnoop_list_init(&copy.link);
            copy.ifIndex = port;
            dhcpsnoop_user_update_hw(&copy, operate & 1);
            if (operate & 2)
                dhcpsnoop_user_delete(u);
        }
    }
}
