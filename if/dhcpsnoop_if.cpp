/*
 * Interface table: the snooping-enabled interfaces, kept in ascending
 * interface-index order, and the hardware traps that bring DHCP to the CPU.
 */
#include <stdio.h>
#include <string.h>

#include <initializer_list>

#include "dhcpsnoop.h"

namespace {

constexpr uint32_t TRAP_ADD = 305;
constexpr uint32_t TRAP_DELETE = 306;
constexpr uint32_t TRAP_DHCP = 23;
constexpr uint32_t TRAP_DHCPV6 = 24;

constexpr uint32_t ATTR_MAC = 33;
constexpr uint32_t ATTR_WORK_MODE = 193;
constexpr uint32_t ATTR_IS_VLAN_IF = 417;
constexpr uint32_t ATTR_VLAN_OF_IF = 5400;
constexpr uint32_t ATTR_MAX_USERS = 5420;

int trap(uint32_t ifIndex, uint32_t cmd, uint32_t word)
{
    return qorIfSetApi(ifIndex, cmd, &word);
}

} // namespace

DhcpsnoopIf *dhcpsnoop_if_lookup(uint32_t ifIndex)
{
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if (e->ifIndex == ifIndex)
            return e;
    }
    return nullptr;
}

DhcpsnoopIf *dhcpsnoop_if_lookup_by_vid(uint32_t vid)
{
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if (e->isVlanIf == 1 && dhcpsnoop_if_vid(e) == (vid & 0xFFFF))
            return e;
    }
    return nullptr;
}

DhcpsnoopIf *dhcpsnoop_if_add(uint32_t ifIndex)
{
    if (dhcpsnoop_list_empty(&gDhcpsnoop.ifFreeList)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Failed to allocate memory for interface %ld.\r\n",
                          long(ifIndex));
        return nullptr;
    }
    DhcpsnoopList *n = gDhcpsnoop.ifFreeList.next;
    dhcpsnoop_list_unlink(n);
    DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
    memset(e, 0, sizeof *e);

    /* after the last entry whose index is not greater: equal indexes keep
     * their order of insertion */
    DhcpsnoopList *head = &gDhcpsnoop.ifList;
    DhcpsnoopList *pos = head;
    for (DhcpsnoopList *m = head->next; m != head; m = m->next) {
        if (dhcpsnoop_entry<DhcpsnoopIf>(m)->ifIndex > ifIndex)
            break;
        pos = m;
    }
    dhcpsnoop_list_insert_after(pos, &e->link);
    e->ifIndex = ifIndex;
    return e;
}

void dhcpsnoop_if_delete(DhcpsnoopIf *entry)
{
    if (!entry)
        return;
    dhcpsnoop_list_unlink(&entry->link);
    dhcpsnoop_list_insert_after(&gDhcpsnoop.ifFreeList, &entry->link);
}

uint32_t dhcpsnoop_if_enable(uint32_t ifIndex)
{
    DhcpsnoopIf *e = dhcpsnoop_if_add(ifIndex);
    if (!e)
        return 12;
    if (int rc = dhcpsnoop_if_state_notify(ifIndex, 1, 1)) {
        dhcpsnoop_if_disable(e);
        return uint32_t(rc);
    }
    e->flags |= ifflag::IN_USE;
    dhcpsnoop_if_set_field(e, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, 1);
    dhcpsnoop_if_set_field(e, ifflag::POLICY_MASK, ifflag::POLICY_SHIFT, 2);
    e->setting21 = 100;
    e->maxUser = 32768;
    /* the platform may hold each port to a share of the binding pool */
    uint32_t limit = 0;
    if (qorIfGetApi(ifIndex, ATTR_MAX_USERS, &limit) == 0 && limit != 0)
        e->maxUser = uint16_t(limit < 0xFFFF ? limit : 0xFFFF);

    uint8_t mac[6] = {0};
    QorTextPair pair = {mac, sizeof mac};
    if (qorIfGetApi(ifIndex, ATTR_MAC, &pair) == 0)
        memcpy(e->mac, mac, sizeof mac);

    uint32_t word = 0;
    qorIfGetApi(ifIndex, ATTR_WORK_MODE, &word);
    if (word & 1)
        e->flags |= ifflag::ROUTER_MODE;
    else
        e->flags &= ~ifflag::ROUTER_MODE;
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Dhcpsnoop interface work mode %s.\r\n",
                      word ? "router" : "bridge");

    word = 0;
    if (qorIfGetApi(ifIndex, ATTR_IS_VLAN_IF, &word) == 0 && word != 0) {
        e->isVlanIf = 1;
        uint32_t vid = 0;
        qorIfGetApi(ifIndex, ATTR_VLAN_OF_IF, &vid);
        dhcpsnoop_if_set_field(e, ifflag::VID_MASK, ifflag::VID_SHIFT, vid & 0xFFF);
    } else {
        e->isVlanIf = 0;
    }

    dhcpsnoop_user_process_on_interface(e, dhcpsnoop_if_version(e), DHCPSNOOP_USER_STATIC, 1);
    return 0;
}

uint32_t dhcpsnoop_if_disable(DhcpsnoopIf *entry)
{
    if (!entry)
        return 0;
    uint32_t version = dhcpsnoop_if_version(entry);
    dhcpsnoop_if_state_notify(entry->ifIndex, version, 0);
    dhcpsnoop_user_process_on_interface(entry, version, DHCPSNOOP_USER_DYNAMIC, 2);
    dhcpsnoop_user_process_on_interface(entry, version, DHCPSNOOP_USER_STATIC, 0);
    dhcpsnoop_if_delete(entry);
    return 0;
}

uint32_t dhcpsnoop_if_version_set(DhcpsnoopIf *entry, uint32_t version)
{
    uint32_t old = dhcpsnoop_if_version(entry);
    for (uint32_t bit : {1u, 2u}) {
        if ((old & bit) == (version & bit))
            continue;
        bool added = (version & bit) != 0;
        if (added) {
            dhcpsnoop_user_process_on_interface(entry, bit, DHCPSNOOP_USER_STATIC, 1);
        } else {
            dhcpsnoop_user_process_on_interface(entry, bit, DHCPSNOOP_USER_DYNAMIC, 2);
            dhcpsnoop_user_process_on_interface(entry, bit, DHCPSNOOP_USER_STATIC, 0);
        }
        dhcpsnoop_if_state_notify(entry->ifIndex, bit, added ? 1 : 0);
    }
    dhcpsnoop_if_set_field(entry, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, version & 3);
    /* A version change always leaves the interface untrusted. */
    if (entry->flags & ifflag::TRUSTED)
        printf("Interface trust state is changed!\n\r");
    entry->flags &= ~ifflag::TRUSTED;
    return 0;
}

int dhcpsnoop_if_state_notify(uint32_t ifIndex, uint32_t version, uint32_t state)
{
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Notify interface state to hwapi: unit %d, verion %d, state %d.\r\n",
                    int(ifIndex), int(version), int(state));
    if (state == 1) {
        if (version & 1) {
            if (int rc = trap(ifIndex, TRAP_ADD, TRAP_DHCP)) {
                DHCPSNOOP_DEBUG("[DHCPSNOOP] Add dhcp acl failed!\r\n");
                return rc;
            }
        }
        if (version & 2) {
            int rc = trap(ifIndex, TRAP_ADD, TRAP_DHCPV6);
            if (rc)
                DHCPSNOOP_DEBUG("[DHCPSNOOP] Add dhcpv6 acl failed!\r\n");
            return rc;
        }
        return 0;
    }

    int rc = 0;
    if (version & 1) {
        rc = trap(ifIndex, TRAP_DELETE, TRAP_DHCP);
        if (rc)
            DHCPSNOOP_DEBUG("[DHCPSNOOP] Delete dhcp acl failed!\r\n");
    }
    if (version & 2) {
        rc = trap(ifIndex, TRAP_DELETE, TRAP_DHCPV6);
        if (rc == 0)
            return 0;
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Delete dhcpv6 acl failed!\r\n");
    }
    if (rc)
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Notify interface state to hwapi failed!\r\n");
    return rc;
}
