/*
 * Binding tables: user bindings keyed by IP address and the MAC users that
 * await a server's reply.  Both draw their nodes from the one user free list.
 */
#include <string.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_user.h"

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
    if (!key)
        return 0;
    for (uint32_t i = 0; i < addr_len(key->ipType); i++)
        sum += key->ipAddr[i];
    return sum % DHCPSNOOP_HASH_SIZE;
}

/* Through the index: one short chain whatever the table size. */
DhcpsnoopUser *dhcpsnoop_user_lookup(const DhcpsnoopUserKey *key)
{
    return dhcpsnoop_user_index_find(key);
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
    dhcpsnoop_user_index_add(u);
    return u;
}

namespace {

const char *user_type_word(uint8_t userType)
{
    switch (userType) {
    case DHCPSNOOP_USER_DYNAMIC:
        return "dynamic";
    case DHCPSNOOP_USER_STATIC:
        return "static";
    default:
        return "other";
    }
}

void count_up(DhcpsnoopIf *e)
{
    if (e)
        e->curUser++;
}

void count_down(DhcpsnoopIf *e)
{
    if (e && e->curUser)
        e->curUser--;
}

bool at_limit(const DhcpsnoopIf *e) { return e && e->curUser >= e->maxUser; }

/* The auto-provisioning hook hears of a client being bound (add 1) or gone
 * (add 0); a departing client is known by its MAC alone. */
void tell_deftinstall(const DhcpsnoopUser *u, uint8_t add, void *a, void *b)
{
    if (!gDhcpsnoop.deftinstallCb)
        return;
    DhcpsnoopInstallRec rec;
    memset(&rec, 0, sizeof rec);
    memcpy(rec.mac, u->mac, sizeof rec.mac);
    rec.add = add;
    if (add) {
        rec.clientIp = uint32_t(u->ipAddr[0]) << 24 | uint32_t(u->ipAddr[1]) << 16 |
                       uint32_t(u->ipAddr[2]) << 8 | u->ipAddr[3];
        rec.vendorTag = u->vendorTag;
        rec.one = 1;
    }
    gDhcpsnoop.deftinstallCb(&rec, a, b);
}

} // namespace

/* A client asked for an address: record a provisional binding on its port and
 * VLAN, unless the port is trusted, the entry is static, or a limit is hit. */
int dhcpsnoop_user_add(const DhcpsnoopUserKey *key, DhcpsnoopUser *entry, DhcpsnoopPktInfo *info)
{
    if (!key || !info)
        return 0;
    /* at most one binding per key, whatever the caller found */
    if (!entry)
        entry = dhcpsnoop_user_lookup(key);

    DhcpsnoopIf *ifp = info->ifp;
    uint32_t port;
    uint16_t vid;
    DhcpsnoopIf *portIf;
    DhcpsnoopIf *vlanIf;
    if (ifp && ifp->isVlanIf) {
        port = info->ifIndex;
        vid = dhcpsnoop_if_vid(ifp);
        portIf = dhcpsnoop_if_lookup(port);
        vlanIf = ifp;
    } else {
        port = ifp ? ifp->ifIndex : info->ifIndex;
        vid = info->svlan;
        portIf = ifp ? ifp : dhcpsnoop_if_lookup(port);
        vlanIf = dhcpsnoop_if_lookup_by_vid(vid);
    }

    /* a request that names no address has nothing to bind */
    static const uint8_t unspecified[16] = {};
    if (memcmp(key->ipAddr, unspecified, addr_len(key->ipType)) == 0) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Client ip address is zero, no user entry!\r\n");
        return 0;
    }

    if (portIf && (portIf->flags & ifflag::TRUSTED)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Received Boot-Request message on trust port, don't record "
                          "user entry!\r\n");
        return 0;
    }

    static const uint8_t noMac[6] = {0, 0, 0, 0, 0, 0};
    const uint8_t *mac = info->chaddr ? info->chaddr : noMac;
    char macText[DHCPSNOOP_MAC_TEXT];
    char addrText[DHCPSNOOP_ADDR_TEXT];
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] User information: interface %d, vid %d, mac %s, ip %s.\r\n",
                      int(port), int(vid), dhcpsnoop_mac_text(mac, macText),
                      dhcpsnoop_addr_text(key->ipType, key->ipAddr, addrText));

    if (entry) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] User entry is already exist!\r\n");
        if (entry->userType != DHCPSNOOP_USER_DYNAMIC) {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Static user is already exist, return!\r\n");
            return 0;
        }
        if (memcmp(entry->mac, mac, 6) == 0 && entry->vid == vid && entry->ifIndex == port) {
            entry->leaseStart = info->rxTime;
            return 0;
        }
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] User information is changed, delete it!\r\n");
        dhcpsnoop_user_delete(entry);
    }

    if (at_limit(portIf) || at_limit(vlanIf)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Number of users on the interface exceeds the limit!\r\n");
        return -1;
    }

    DhcpsnoopUser *u = dhcpsnoop_user_table_add(key);
    if (!u)
        return -1;
    u->vid = vid;
    u->origVid = vid;
    u->ifIndex = port;
    memcpy(u->mac, mac, sizeof u->mac);
    u->userType = DHCPSNOOP_USER_DYNAMIC;
    u->leaseTime = 60; /* provisional; the server's acknowledgement sets the lease */
    u->leaseStart = info->rxTime;
    u->bindState = DHCPSNOOP_BIND_REQUESTED;
    u->macMark = DHCPSNOOP_MAC_MARK;
    u->vendorTag = info->opt60Sub1;
    u->serverId = info->serverId;

    count_up(portIf);
    count_up(vlanIf);

    char descr[64];
    descr[0] = '\0';
    nmGetIfPartDescr(port, descr, 63);
    descr[63] = '\0';
    zlog_dispatch_logging(7, 1,
                          "[DHCPSNOOP] Add %s dhcpsnoop entry: ip %s, mac %s, interface %s, vlan "
                          "%d, leasetime %d.\r\n",
                          user_type_word(u->userType),
                          dhcpsnoop_addr_text(key->ipType, key->ipAddr, addrText),
                          dhcpsnoop_mac_text(u->mac, macText), descr, int(vid), int(u->leaseTime));
    return 0;
}

bool dhcpsnoop_user_guarded(const DhcpsnoopUser *entry, uint32_t port, const uint8_t *mac,
                            DhcpsnoopIf *ifp)
{
    if (!gDhcpsnoop.bindingGuard || !entry || !mac || entry->userType != DHCPSNOOP_USER_DYNAMIC ||
        entry->bindState != DHCPSNOOP_BIND_BOUND)
        return false;
    if (entry->ifIndex == port && memcmp(entry->mac, mac, sizeof entry->mac) == 0)
        return false;
    if (ifp)
        ifp->counters[DHCPSNOOP_CNT_GUARD]++;
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Bound user belongs to another client, stop process!\r\n");
    return true;
}

/* A server acknowledged a client: bind its provisional entry and push it to
 * hardware, the other features and the standby unit. */
DhcpsnoopUser *dhcpsnoop_user_update(DhcpsnoopPktInfo *info, DhcpsnoopOptBuf *opt125,
                                     DhcpsnoopOptBuf *bootFile)
{
    if (!info)
        return nullptr;
    static const uint8_t zero[4] = {0, 0, 0, 0};
    if (memcmp(info->clientIp, zero, 4) == 0) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Client ip address is zero,return!\r\n");
        return nullptr;
    }
    DhcpsnoopUserKey key;
    memset(&key, 0, sizeof key);
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    memcpy(key.ipAddr, info->clientIp, 4);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&key);
    if (!u) {
        char addrText[DHCPSNOOP_ADDR_TEXT];
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] User entry %s isn't exist!\r\n",
                          dhcpsnoop_addr_text(key.ipType, key.ipAddr, addrText));
        return nullptr;
    }
    if (u->userType != DHCPSNOOP_USER_DYNAMIC) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] There is a static entry with the same ip address!\r\n");
        return nullptr;
    }
    DHCPSNOOP_DEBUG_I(
        "[DHCPSNOOP] User entry is already exist, update the entry information.\r\n");
    if (info->leaseTime) {
        u->leaseTime = info->leaseTime;
        u->leaseStart = info->rxTime;
        u->bindState = DHCPSNOOP_BIND_BOUND;
    }
    if (info->router) {
        u->gateway = htonl(info->router); /* the parser's number, kept as address bytes */
        dhcpsnoop_user_notifier(u, 1);
    }
    tell_deftinstall(u, 1, opt125, bootFile);
    dhcpsnoop_user_update_hw(u, 1);
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_user_send(u, 1);
    return u;
}

/* Remove a binding with everything that hangs on it: its hardware rules, the
 * user event, the auto-provisioning client, the counts and the standby copy. */
void dhcpsnoop_user_delete(DhcpsnoopUser *entry)
{
    if (!entry)
        return;
    char addrText[DHCPSNOOP_ADDR_TEXT];
    dhcpsnoop_addr_text(entry->ipType, entry->ipAddr, addrText);
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Delete the user entry: ip is %s.\r\n", addrText);
    zlog_dispatch_logging(7, 1, "[DHCPSNOOP] Delete %s dhcpsnoop entry: ip %s\r\n",
                          user_type_word(entry->userType), addrText);

    if (entry->hwFlags)
        dhcpsnoop_user_update_hw(entry, 0);

    if (entry->userType == DHCPSNOOP_USER_DYNAMIC) {
        if (entry->ipType == DHCPSNOOP_IPTYPE_V4 && entry->gateway) {
            dhcpsnoop_user_notifier(entry, 0);
            tell_deftinstall(entry, 0, nullptr, nullptr);
        }
        count_down(dhcpsnoop_if_lookup(entry->ifIndex));
        count_down(dhcpsnoop_if_lookup_by_vid(entry->vid));
    }

    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_user_send(entry, 0);

    dhcpsnoop_user_index_remove(entry);
    free_user_node(&entry->link);
}

int dhcpsnoop_user_get(const DhcpsnoopUserQuery *query)
{
    if (!query)
        return -1;
    dhcpsnoop_lock();
    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
            const DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            if ((query->mask & DHCPSNOOP_CHECK_IP) &&
                (u->ipType != query->ipType || memcmp(u->ipAddr, query->ipAddr, 16) != 0))
                continue;
            if ((query->mask & DHCPSNOOP_CHECK_MAC) && memcmp(u->mac, query->mac, 6) != 0)
                continue;
            if ((query->mask & DHCPSNOOP_CHECK_VLAN) && u->vid != query->vid)
                continue;
            if ((query->mask & DHCPSNOOP_CHECK_PORT) && u->ifIndex != query->ifIndex)
                continue;
            dhcpsnoop_unlock();
            return 0;
        }
    }
    dhcpsnoop_unlock();
    return -1;
}

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
    dhcpsnoop_mac_user_index_add(m);
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

/* The newest MAC user of that MAC, as the bucket's head-first walk finds it. */
DhcpsnoopMacUser *dhcpsnoop_mac_user_lookup(const uint8_t *mac)
{
    return dhcpsnoop_mac_user_index_find(mac);
}

void dhcpsnoop_mac_user_delete(DhcpsnoopMacUser *entry)
{
    if (!entry)
        return;
    dhcpsnoop_mac_user_index_remove(entry);
    free_user_node(&entry->link);
}
