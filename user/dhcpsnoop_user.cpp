/*
 * Binding tables: user bindings keyed by IP address and the MAC users that
 * await a server's reply.  Both draw their nodes from the one user free list.
 */
#include <string.h>

#include "dhcpsnoop.h"

namespace {

/* Take the first free user node, cleared. */
DhcpsnoopList *take_user_node()
{
    if (dhcpsnoop_list_empty(&gDhcpsnoop.userFreeList))
        return nullptr;
    DhcpsnoopList *n = gDhcpsnoop.userFreeList.next;
    dhcpsnoop_list_unlink(n);
    memset(n, 0, sizeof(DhcpsnoopUser));
    return n;
}

void free_user_node(DhcpsnoopList *n)
{
    dhcpsnoop_list_unlink(n);
    dhcpsnoop_list_insert_after(&gDhcpsnoop.userFreeList, n);
}

uint32_t addr_len(uint8_t ipType) { return ipType == DHCPSNOOP_IPTYPE_V4 ? 4 : 16; }

} // namespace

/* ---- user bindings ------------------------------------------------------- */

uint32_t dhcpsnoop_user_hash_key(const DhcpsnoopUserKey *key)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < addr_len(key->ipType); i++)
        sum += key->ipAddr[i];
    return sum % DHCPSNOOP_HASH_SIZE;
}

DhcpsnoopUser *dhcpsnoop_user_lookup(const DhcpsnoopUserKey *key)
{
    if (!key)
        return nullptr;
    DhcpsnoopList *head = &gDhcpsnoop.userHash[dhcpsnoop_user_hash_key(key)];
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
        if (u->ipType == key->ipType && memcmp(u->ipAddr, key->ipAddr, addr_len(key->ipType)) == 0)
            return u;
    }
    return nullptr;
}

DhcpsnoopUser *dhcpsnoop_user_table_add(const DhcpsnoopUserKey *key)
{
    if (!key)
        return nullptr;
    DhcpsnoopList *n = take_user_node();
    if (!n) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Can't allocate memory for user entry!\r\n");
        return nullptr;
    }
    DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
    memcpy(dhcpsnoop_user_key(u), key, sizeof *key);
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] User do not exist, add it to user table.\r\n");
    dhcpsnoop_list_insert_after(&gDhcpsnoop.userHash[dhcpsnoop_user_hash_key(key)], n);
    return u;
}

/* Learning from client requests arrives with the DHCPv4 client path; until
 * then no request is recorded. */
int dhcpsnoop_user_add(const DhcpsnoopUserKey *, DhcpsnoopUser *, DhcpsnoopPktInfo *)
{
    return -1;
}

/* Removes the binding from the table.  Withdrawal from hardware, the user
 * event, the interface counts and the standby copy arrive with binding
 * propagation. */
void dhcpsnoop_user_delete(DhcpsnoopUser *entry)
{
    if (!entry)
        return;
    free_user_node(&entry->link);
}

/* Group install/withdraw arrives with binding propagation; until then
 * bindings are never in hardware, so there is nothing to install or
 * withdraw. */
void dhcpsnoop_user_process_on_interface(DhcpsnoopIf *, uint32_t, uint32_t, uint32_t) {}

/* ---- MAC users ------------------------------------------------------------ */

uint32_t dhcpsnoop_mac_user_hash(const uint8_t *mac)
{
    uint32_t sum = 0;
    for (int i = 0; i < 6; i++)
        sum += mac[i];
    return sum % DHCPSNOOP_HASH_SIZE;
}

DhcpsnoopMacUser *dhcpsnoop_mac_user_add(const DhcpsnoopPktInfo *info)
{
    if (!info)
        return nullptr;
    DhcpsnoopList *n = take_user_node();
    if (!n) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Can't allocate memory for mac user entry!\r\n");
        return nullptr;
    }
    DhcpsnoopMacUser *m = dhcpsnoop_entry<DhcpsnoopMacUser>(n);
    if (info->chaddr)
        memcpy(m->mac, info->chaddr, sizeof m->mac);
    dhcpsnoop_list_insert_after(&gDhcpsnoop.macUserHash[dhcpsnoop_mac_user_hash(m->mac)], n);
    const DhcpsnoopIf *ifp = info->ifp;
    if (ifp && ifp->isVlanIf) {
        m->ifIndex = info->ifIndex;
        m->vid = dhcpsnoop_if_vid(ifp);
    } else {
        m->ifIndex = ifp ? ifp->ifIndex : info->ifIndex;
        m->vid = info->svlan;
    }
    m->ageTime = 120;
    m->seenTime = info->rxTime;
    m->serverId = info->serverId;
    return m;
}

DhcpsnoopMacUser *dhcpsnoop_mac_user_lookup(const uint8_t *mac)
{
    if (!mac)
        return nullptr;
    DhcpsnoopList *head = &gDhcpsnoop.macUserHash[dhcpsnoop_mac_user_hash(mac)];
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        DhcpsnoopMacUser *m = dhcpsnoop_entry<DhcpsnoopMacUser>(n);
        if (memcmp(m->mac, mac, 6) == 0)
            return m;
    }
    return nullptr;
}

void dhcpsnoop_mac_user_delete(DhcpsnoopMacUser *entry)
{
    if (entry)
        free_user_node(&entry->link);
}

/* ---- waiting for binding propagation ---------------------------------------- */
/* Binding on server replies, hardware rules and user events arrive with the
 * DHCPv4 engine; until then nothing is bound or installed. */

#include "dhcpsnoop_user.h"

DhcpsnoopUser *dhcpsnoop_user_update(DhcpsnoopPktInfo *, DhcpsnoopOptBuf *, DhcpsnoopOptBuf *)
{
    return nullptr;
}

int dhcpsnoop_user_get(const DhcpsnoopUserQuery *) { return -1; }
void dhcpsnoop_user_notifier(DhcpsnoopUser *, uint32_t) {}
int dhcpsnoop_user_state_notify(DhcpsnoopUser *, uint32_t, uint8_t *, uint32_t) { return -1; }
void dhcpsnoop_user_update_hw(DhcpsnoopUser *, uint32_t) {}
void dhcpsnoop_user_process_on_trunk(uint32_t, uint32_t, uint32_t) {}
