/* Platform events from the netlink socket, and the binding events sent back. */
#include <string.h>

#include "dhcpsnoop.h"

#include "dhcpsnoop_notify.h"
#include "dhcpsnoop_user.h"

namespace {

/* Offsets inside a message. */
constexpr uint32_t OFF_TYPE = 4;
constexpr uint32_t OFF_LINK_INDEX = 20;
constexpr uint32_t OFF_LINK_ATTRS = DHCPSNOOP_NLMSG_HDRLEN + DHCPSNOOP_IFINFO_LEN;
constexpr uint32_t OFF_PAYLOAD = DHCPSNOOP_NLMSG_HDRLEN;
constexpr uint32_t OFF_ITEMS = 20;
/* Smallest messages that carry what their type needs. */
constexpr uint32_t CHECK_ITEM_MSG_LEN = OFF_ITEMS + 1;
constexpr uint32_t VLAN_MSG_LEN = OFF_PAYLOAD + 4;
constexpr uint32_t CHASSIS_WORDS = 4;
constexpr uint32_t CHASSIS_MSG_LEN = OFF_PAYLOAD + CHASSIS_WORDS * 4;

/* Words of the location record of a port (qorIndexTrans kind 6). */
constexpr int LOC_SYSTEM = 0;
constexpr int LOC_SLOT = 1;
constexpr int LOC_CARD = 6;
constexpr int LOC_WORDS = 7;

constexpr uint8_t SOURCE_VLAN = 1;
constexpr uint8_t SOURCE_PORT = 2;

/* Destination words of a full copy: bit 0 a card or slot, bit 1 a subsystem. */
constexpr uint32_t DEST_CHASSIS = 1;
constexpr uint32_t DEST_SUBSYSTEM = 2;

/* Platform scalars that say whether bindings on a card are kept in hardware. */
constexpr uint32_t SCALAR_REDUNDANT = 53;
constexpr uint32_t SCALAR_STANDBY = 54;
constexpr uint32_t SCALAR_CARD_STATE = 45;

constexpr uint32_t align4(uint32_t n) { return (n + 3u) & ~3u; }

uint32_t get32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint16_t get16(const uint8_t *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

/* Run `fn` on every binding; the next link is kept first, so `fn` may delete
 * the binding it is given. */
template <class Fn> void for_each_user(Fn fn)
{
    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        for (DhcpsnoopList *n = head->next, *next; n != head; n = next) {
            next = n->next;
            fn(dhcpsnoop_entry<DhcpsnoopUser>(n));
        }
    }
}

/* The two rule kinds whose check items the platform may change. */
struct CheckRule {
    uint32_t kind;
    uint8_t hwBit;
    uint8_t DhcpsnoopUser::*source;
    uint8_t DhcpsnoopUser::*items;
};

constexpr CheckRule IPSG_RULE = {DHCPSNOOP_RULE_IPSG, DHCPSNOOP_HW_IPSG,
                                 &DhcpsnoopUser::ipsgSource, &DhcpsnoopUser::ipsgCheckItems};
constexpr CheckRule DAI_RULE = {DHCPSNOOP_RULE_DAI, DHCPSNOOP_HW_DAI, &DhcpsnoopUser::daiSource,
                                &DhcpsnoopUser::daiCheckItems};

/* The feature's check items changed on a port or on a VLAN interface.  The
 * scope is the VLAN when the platform knows a VLAN for the interface.  Port
 * settings take precedence over VLAN settings, so a VLAN change never touches
 * what was installed from a port's settings, while a port change replaces
 * what came from the VLAN. */
void change_check_items(const uint8_t *message, uint32_t length, const CheckRule &rule)
{
    if (!message || length < CHECK_ITEM_MSG_LEN)
        return;
    const uint32_t ifIndex = get32(message + OFF_PAYLOAD);
    const uint8_t items = message[OFF_ITEMS];
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Interface index is %d, check item is 0x%0x.\r\n", int(ifIndex),
                    unsigned(items));

    uint32_t vid = 0;
    const bool byVlan = qorIfGetApi(ifIndex, DHCPSNOOP_IF_ATTR_VLAN, &vid) == 0;
    if (byVlan)
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Check all user-bind entries on vlan %d.\r\n", int(vid));
    else
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Check all user-bind entries on interface %d.\r\n",
                        int(ifIndex));
    if (rule.kind == DHCPSNOOP_RULE_IPSG)
        DHCPSNOOP_DEBUG("[DHCPSNOOP] RTM_IPSG_CHANGEDCHECKITEM p_param->item = %d\n\r", int(items));
    else
        DHCPSNOOP_DEBUG("[DHCPSNOOP] RTM_ANTIARP_DAICHANGEDCHECKITEM p_param->item = %d\n\r",
                        int(items));

    /* no check left: take the bindings out of the hardware, put none in */
    const bool withdrawOnly = (items & DHCPSNOOP_CHECK_ALL) == 0;
    if (withdrawOnly)
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Delete user-bind entries on hardware.\r\n");
    const uint8_t newSource = byVlan ? SOURCE_VLAN : SOURCE_PORT;

    for_each_user([&](DhcpsnoopUser *u) {
        if (u->userType != DHCPSNOOP_USER_DYNAMIC || u->bindState != DHCPSNOOP_BIND_BOUND)
            return;
        if (byVlan ? uint32_t(u->vid) != vid : u->ifIndex != ifIndex)
            return;
        if (u->hwFlags & rule.hwBit) {
            const uint8_t src = u->*rule.source;
            const bool withdraw =
                byVlan ? src == SOURCE_VLAN
                       : src == SOURCE_PORT || (src == SOURCE_VLAN && !withdrawOnly);
            if (withdraw && dhcpsnoop_user_state_notify(u, 0, &(u->*rule.items), rule.kind) == 0) {
                u->*rule.items = 0;
                u->*rule.source = 0;
                u->hwFlags &= uint8_t(~rule.hwBit);
            }
        }
        if (withdrawOnly || (u->hwFlags & rule.hwBit) || u->*rule.source != 0)
            return;
        uint8_t newItems = items;
        if (dhcpsnoop_user_state_notify(u, 1, &newItems, rule.kind) == 0) {
            u->*rule.items = items;
            u->*rule.source = newSource;
            u->hwFlags |= rule.hwBit;
        }
    });
}

/* May the bindings of `aggregate` follow a member that joins or leaves it?
 * Not when the platform reports more than one answer for the aggregate. */
bool aggregate_follows(uint32_t aggregate)
{
    uint32_t answer = 2;
    QorAggQuery q;
    memset(&q, 0, sizeof q);
    q.attr = DHCPSNOOP_AGG_QUERY_ATTR;
    q.answer = &answer;
    q.count = 1;
    if (qorIfGetApi(aggregate, DHCPSNOOP_IF_ATTR_AGG, &q) != 0)
        return true;
    return q.count <= 1;
}

/* Does the binding's port lie on this system and slot (and card, when one is
 * given)?  A port the platform cannot place lies nowhere. */
bool user_located(const DhcpsnoopUser *u, uint32_t system, uint32_t slot, const uint32_t *card)
{
    uint32_t record[LOC_WORDS];
    memset(record, 0, sizeof record);
    const uint32_t ifIndex = u->ifIndex;
    if (qorIndexTrans(&ifIndex, 6, record) != 0)
        return false;
    return record[LOC_SYSTEM] == system && record[LOC_SLOT] == slot &&
           (!card || record[LOC_CARD] == *card);
}

/* Are bindings on cards and slots kept in hardware by this unit? */
bool chassis_rules_kept()
{
    return qorHwScalarGet(0, SCALAR_STANDBY, nullptr) != 0 ||
           qorHwScalarGet(0, SCALAR_CARD_STATE, nullptr) != 0;
}

/* Static bindings on the place get their rules again. */
void reinstall_static(uint32_t system, uint32_t slot, const uint32_t *card)
{
    for_each_user([&](DhcpsnoopUser *u) {
        if (u->userType == DHCPSNOOP_USER_STATIC &&
            (u->hwFlags & (DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI)) &&
            user_located(u, system, slot, card))
            dhcpsnoop_user_update_hw(u, 1);
    });
}

/* Dynamic bindings on the place are forgotten. */
void delete_dynamic(uint32_t system, uint32_t slot, const uint32_t *card)
{
    for_each_user([&](DhcpsnoopUser *u) {
        if (u->userType == DHCPSNOOP_USER_DYNAMIC && user_located(u, system, slot, card))
            dhcpsnoop_user_delete(u);
    });
}

void dispatch(const uint8_t *datagram, int32_t datagramLen, const uint8_t *message,
              uint32_t length)
{
    const uint16_t type = get16(message + OFF_TYPE);
    switch (type) {
    case DHCPSNOOP_RTM_NEWLINK:
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive RTM_NEWLINK message.\r\n");
        dhcpsnoop_newlink_process(message, length);
        break;
    case DHCPSNOOP_RTM_DELLINK:
        dhcpsnoop_dellink_process(message, length);
        break;
    case DHCPSNOOP_RTM_CARD_UP:
    case DHCPSNOOP_RTM_CARD_DOWN:
        dhcpsnoop_card_event_process(message, length, type);
        break;
    case DHCPSNOOP_RTM_SLOT_UP:
    case DHCPSNOOP_RTM_SLOT_DOWN:
        dhcpsnoop_slot_event_process(message, length, type);
        break;
    case DHCPSNOOP_RTM_SUBSYSTEM_UP:
        dhcpsnoop_subsystem_up_process(datagram, datagramLen);
        break;
    case DHCPSNOOP_RTM_SYSTEM_DAISTART:
        dhcpsnoop_dai_start_process(message, length);
        break;
    case DHCPSNOOP_RTM_SYSTEM_DAISTOP:
        dhcpsnoop_dai_stop_process();
        break;
    case DHCPSNOOP_RTM_UPDATEDHCPSNOOPUSER:
        dhcpsnoop_user_resend_process(message, length);
        break;
    case DHCPSNOOP_RTM_IPSG_CHANGEDCHECKITEM:
        dhcpsnoop_ipsgchangeitem_process(message, length);
        break;
    case DHCPSNOOP_RTM_ANTIARP_DAICHANGEDCHECKITEM:
        dhcpsnoop_daichangeitem_process(message, length);
        break;
    default:
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Unknown rtm type %d!\r\n", int(type));
        break;
    }
}

} // namespace

/* Walk the messages of one datagram in order.  A message whose length field
 * does not fit what is left of the datagram ends the walk: nothing after it
 * can be framed. */
int dhcpsnoop_notify_recv(uint8_t *buffer, int32_t length)
{
    if (!buffer || length < int32_t(DHCPSNOOP_NLMSG_HDRLEN))
        return 0;
    const uint8_t *message = buffer;
    uint32_t left = uint32_t(length);
    while (left >= DHCPSNOOP_NLMSG_HDRLEN) {
        const uint32_t msgLen = get32(message);
        if (msgLen < DHCPSNOOP_NLMSG_HDRLEN || msgLen > left)
            return 0;
        dispatch(buffer, length, message, msgLen);
        const uint32_t step = align4(msgLen);
        if (step >= left)
            break;
        message += step;
        left -= step;
    }
    return 0;
}

void dhcpsnoop_newlink_process(const uint8_t *message, uint32_t length)
{
    if (!message || length < OFF_LINK_ATTRS)
        return;
    const uint32_t ifIndex = get32(message + OFF_LINK_INDEX);
    if (!dhcpsnoop_if_lookup(ifIndex))
        return;

    const uint8_t *attr = message + OFF_LINK_ATTRS;
    uint32_t left = length - OFF_LINK_ATTRS;
    while (left >= DHCPSNOOP_RTA_HDRLEN) {
        const uint16_t attrLen = get16(attr);
        const uint16_t attrType = get16(attr + 2);
        if (attrLen < DHCPSNOOP_RTA_HDRLEN || attrLen > left)
            break;
        switch (attrType) {
        case DHCPSNOOP_IFLA_AGGADDPHY:
        case DHCPSNOOP_IFLA_AGGREMOVEPHY: {
            /* the member's index is the value; without one there is no port */
            if (attrLen < DHCPSNOOP_RTA_HDRLEN + 4)
                break;
            const uint32_t member = get32(attr + DHCPSNOOP_RTA_HDRLEN);
            const bool add = attrType == DHCPSNOOP_IFLA_AGGADDPHY;
            if (add)
                DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive IFLA_AGGADDPHY message: ifindex %d.\r\n",
                                int(member));
            else
                DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive IFLA_AGGREMOVEPHY message: ifindex %d.\r\n",
                                int(member));
            if (!aggregate_follows(ifIndex))
                break;
            if (add)
                dhcpsnoop_user_process_on_trunk(ifIndex, member, 1);
            else if (dhcpsnoop_if_lookup(ifIndex))
                dhcpsnoop_user_process_on_trunk(ifIndex, member, 0);
            break;
        }
        case DHCPSNOOP_IFLA_PHYJOINAGG: {
            /* a port inside an aggregate is snooped as the aggregate; an
             * earlier attribute may already have switched it off */
            DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive IFLA_PHYJOINAGG message: ifindex %d.\r\n",
                            int(ifIndex));
            DhcpsnoopIf *entry = dhcpsnoop_if_lookup(ifIndex);
            if (entry)
                dhcpsnoop_if_disable(entry);
            break;
        }
        case DHCPSNOOP_IFLA_SYNCCFG:
            DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive IFLA_SYNCCFG message: ifindex %d.\r\n",
                            int(ifIndex));
            break;
        default:
            DHCPSNOOP_DEBUG("[DHCPSNOOP] Unknown event %d!\r\n", int(attrType));
            break;
        }
        const uint32_t step = align4(attrLen);
        if (step >= left)
            break;
        attr += step;
        left -= step;
    }
}

void dhcpsnoop_dellink_process(const uint8_t *message, uint32_t length)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive RTM_DELLINK message.\r\n");
    if (!message || length < OFF_LINK_ATTRS)
        return;
    const uint32_t ifIndex = get32(message + OFF_LINK_INDEX);
    DhcpsnoopIf *entry = dhcpsnoop_if_lookup(ifIndex);
    if (!entry)
        return;
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive RTM_DELLINK message: ifindex %d.\r\n", int(ifIndex));
    dhcpsnoop_if_disable(entry);
}

void dhcpsnoop_ipsgchangeitem_process(const uint8_t *message, uint32_t length)
{
    change_check_items(message, length, IPSG_RULE);
}

void dhcpsnoop_daichangeitem_process(const uint8_t *message, uint32_t length)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message.\r\n");
    change_check_items(message, length, DAI_RULE);
}

/* A card came (87) or went (88).  A card the platform reports as ready gets
 * a full copy of the tables; otherwise its static bindings are programmed
 * again (87) or its dynamic bindings are dropped (88). */
void dhcpsnoop_card_event_process(const uint8_t *message, uint32_t length, uint16_t type)
{
    if (!message || length < CHASSIS_MSG_LEN)
        return;
    uint32_t words[CHASSIS_WORDS];
    memcpy(words, message + OFF_PAYLOAD, sizeof words);
    const uint32_t system = words[0], slot = words[1], card = words[2];
    if (system != qorSelfSysIndex())
        return;
    uint32_t answer[16];
    memset(answer, 0, sizeof answer);
    if (qorHwCardGet(words, DHCPSNOOP_CARD_PRESENT, answer) != 0)
        return;
    const int state = qorHwCardGet(words, DHCPSNOOP_CARD_STATE, nullptr);
    if (type == DHCPSNOOP_RTM_CARD_UP) {
        if (state != 0)
            dhcpsnoop_sync_all_send((system << 16) | (slot << 11) | (card << 8) | DEST_CHASSIS, 1);
        else if (chassis_rules_kept())
            reinstall_static(system, slot, &card);
    } else if (type == DHCPSNOOP_RTM_CARD_DOWN) {
        if (state == 0 && chassis_rules_kept())
            delete_dynamic(system, slot, &card);
    }
}

/* The same for a slot; the platform's slot state reads the other way round. */
void dhcpsnoop_slot_event_process(const uint8_t *message, uint32_t length, uint16_t type)
{
    if (!message || length < CHASSIS_MSG_LEN)
        return;
    uint32_t words[CHASSIS_WORDS];
    memcpy(words, message + OFF_PAYLOAD, sizeof words);
    const uint32_t system = words[0], slot = words[1];
    if (system != qorSelfSysIndex())
        return;
    uint32_t answer[16];
    memset(answer, 0, sizeof answer);
    if (qorHwSlotGet(words, DHCPSNOOP_SLOT_PRESENT, answer) != 0)
        return;
    const int state = qorHwSlotGet(words, DHCPSNOOP_SLOT_STATE, nullptr);
    if (type == DHCPSNOOP_RTM_SLOT_UP) {
        if (state == 0)
            dhcpsnoop_sync_all_send((system << 16) | (slot << 11) | DEST_CHASSIS, 1);
        else if (chassis_rules_kept())
            reinstall_static(system, slot, nullptr);
    } else if (type == DHCPSNOOP_RTM_SLOT_DOWN) {
        if (state != 0 && chassis_rules_kept())
            delete_dynamic(system, slot, nullptr);
    }
}

/* Another subsystem came up: the redundant master sends it everything.  The
 * subsystem's number is the first word of the datagram as it was read. */
void dhcpsnoop_subsystem_up_process(const uint8_t *datagram, int32_t length)
{
    if (!datagram || length < 4)
        return;
    const uint32_t number = get32(datagram);
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive subsystem:%lu RTM_SUBSYSTEM_UP!\r\n",
                    static_cast<unsigned long>(number));
    if (number != qorSelfSysIndex() && qorHwScalarGet(0, SCALAR_REDUNDANT, nullptr) == 0)
        dhcpsnoop_sync_all_send((number << 16) | DEST_SUBSYSTEM, 1);
}

/* ARP inspection started on an interface: its bindings get ARP rules, the
 * dynamic ones with the message's check items, the static ones with their
 * own. */
void dhcpsnoop_dai_start_process(const uint8_t *message, uint32_t length)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive RTM_SYSTEM_DAISTART message.\r\n");
    if (!message || length < CHECK_ITEM_MSG_LEN)
        return;
    const uint32_t ifIndex = get32(message + OFF_PAYLOAD);
    const uint8_t items = message[OFF_ITEMS];
    gDhcpsnoop.daiStarted = 1;
    for_each_user([&](DhcpsnoopUser *u) {
        if (u->ifIndex != ifIndex || (u->hwFlags & DHCPSNOOP_HW_DAI))
            return;
        if (u->userType == DHCPSNOOP_USER_DYNAMIC) {
            uint8_t newItems = items;
            if (dhcpsnoop_user_state_notify(u, 1, &newItems, DHCPSNOOP_RULE_DAI) == 0) {
                u->hwFlags |= DHCPSNOOP_HW_DAI;
                u->daiCheckItems = items;
                u->daiSource = SOURCE_PORT;
            }
        } else if (u->userType == DHCPSNOOP_USER_STATIC) {
            if (dhcpsnoop_user_state_notify(u, 1, &u->daiCheckItems, DHCPSNOOP_RULE_DAI) == 0)
                u->hwFlags |= DHCPSNOOP_HW_DAI;
        }
    });
}

/* ARP inspection stopped on the system: every ARP rule is withdrawn while the
 * rules are still marked as ARP inspection's. */
void dhcpsnoop_dai_stop_process(void)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive RTM_SYSTEM_DAISTOP message.\r\n");
    for_each_user([](DhcpsnoopUser *u) {
        if (!(u->hwFlags & DHCPSNOOP_HW_DAI))
            return;
        if (dhcpsnoop_user_state_notify(u, 0, &u->daiCheckItems, DHCPSNOOP_RULE_DAI) == 0) {
            u->hwFlags &= uint8_t(~DHCPSNOOP_HW_DAI);
            u->daiCheckItems = 0;
            u->daiSource = 0;
        }
    });
    gDhcpsnoop.daiStarted = 0;
}

/* The platform asks for the user events of a VLAN again. */
void dhcpsnoop_user_resend_process(const uint8_t *message, uint32_t length)
{
    if (!message || length < VLAN_MSG_LEN)
        return;
    const uint32_t vid = get32(message + OFF_PAYLOAD);
    DHCPSNOOP_DEBUG(
        "[DHCPSNOOP] Receive RTM_DHCPSNOOP_UPDATEDHCPSNOOPUSER message. Vlan is %d.\r\n",
        int(vid));
    for_each_user([&](DhcpsnoopUser *u) {
        if (u->userType == DHCPSNOOP_USER_DYNAMIC && u->ipType == DHCPSNOOP_IPTYPE_V4 &&
            uint32_t(u->vid) == vid && u->gateway != 0)
            dhcpsnoop_user_notifier(u, 1);
    });
}

#include "dhcpsnoop_user.h"

namespace {
constexpr uint32_t NOTIFY_RECORD_LEN = 72;
constexpr uint32_t NOTIFY_BODY_LEN = 48;
constexpr uint32_t NOTIFY_BODY_OFFSET = 24;
constexpr uint32_t NOTIFY_KIND = 51;
constexpr uint32_t NOTIFY_NETLINK_TYPE = 16;
static_assert(NOTIFY_BODY_OFFSET + NOTIFY_BODY_LEN == NOTIFY_RECORD_LEN);
} // namespace

/* Frame a 48-byte event body for the platform's netlink sender. */
int dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event)
{
    uint8_t record[256];
    memset(record, 0, sizeof record);
    const uint32_t kind = NOTIFY_KIND, len = NOTIFY_RECORD_LEN;
    const uint16_t ev = uint16_t(event);
    memcpy(record + 4, &kind, 4);
    memcpy(record + 8, &len, 4);
    memcpy(record + 12, &ev, 2);
    if (body48)
        memcpy(record + NOTIFY_BODY_OFFSET, body48, NOTIFY_BODY_LEN);
    DHCPSNOOP_DEBUG("[DHCPSNOOP]  Send notify: event %d\r\n", int(event));
    return qorNetlinkSend(NOTIFY_NETLINK_TYPE, 0, record, NOTIFY_RECORD_LEN);
}
