/*
 * Management: user bindings (static bindings are created, bound, unbound and
 * deleted here), the relay server addresses of each interface, and the
 * listing of the learned DHCP servers.
 */
#include <arpa/inet.h>
#include <stdio.h>

#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_nm_value.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoop_user.h"

namespace {

constexpr int32_t NO_FREE_ENTRY = 12;
constexpr uint32_t LEASE_FOREVER = 0xFFFFFFFFu;
constexpr uint32_t SERVER_SLOTS = 3;

enum NmUserCmd : uint32_t {
    U_VLAN = 1,
    U_IFINDEX = 2,
    U_ATTR = 4,
    U_MAC = 5,
    U_LEASE = 6,
    U_ELAPSED = 7,
    U_TYPE = 8,
    U_BIND = 9,
};

uint32_t nm_now() { return uint32_t(dhcpsnoop_sys->time(nullptr)); }

const DhcpsnoopUserKey *nm_key(const DhcpsnoopUser *u)
{
    return dhcpsnoop_user_key(const_cast<DhcpsnoopUser *>(u));
}

/* Smallest listed key, strictly above `after` when given. */
int32_t nm_user_walk(const DhcpsnoopUserKey *after, DhcpsnoopUserKey *out)
{
    if (!out)
        return -1;
    dhcpsnoop_lock();
    const DhcpsnoopUser *best = dhcpsnoop_user_next(after);
    if (best)
        memcpy(out, nm_key(best), sizeof *out);
    dhcpsnoop_unlock();
    return best ? 0 : -1;
}

const char *nm_type_word(uint8_t type)
{
    switch (type) {
    case DHCPSNOOP_USER_STATIC:
        return "static";
    case DHCPSNOOP_USER_DYNAMIC:
        return "dynamic";
    default:
        return "other";
    }
}

void nm_user_bind(DhcpsnoopUser *u)
{
    u->ipsgCheckItems |= DHCPSNOOP_CHECK_ALL;
    u->daiCheckItems |= DHCPSNOOP_CHECK_ALL;
    if (dhcpsnoop_user_state_notify(u, 1, &u->ipsgCheckItems, DHCPSNOOP_RULE_IPSG) != 0)
        u->ipsgCheckItems &= uint8_t(~DHCPSNOOP_CHECK_ALL);
    else
        u->hwFlags |= DHCPSNOOP_HW_IPSG;
    if (dhcpsnoop_user_state_notify(u, 1, &u->daiCheckItems, DHCPSNOOP_RULE_DAI) != 0)
        u->daiCheckItems &= uint8_t(~DHCPSNOOP_CHECK_ALL);
    else
        u->hwFlags |= DHCPSNOOP_HW_DAI;
    u->leaseStart = nm_now();
    u->bindState = DHCPSNOOP_BIND_BOUND;

    char addr[INET6_ADDRSTRLEN] = "";
    inet_ntop(u->ipType == DHCPSNOOP_IPTYPE_V4 ? AF_INET : AF_INET6, u->ipAddr, addr, sizeof addr);
    char descr[64] = "";
    nmGetIfPartDescr(u->ifIndex, descr, sizeof descr);
    descr[sizeof descr - 1] = 0;
    zlog_dispatch_logging(7, 1,
                          "[DHCPSNOOP] Add %s dhcpsnoop entry: ip %s, mac "
                          "%02x:%02x:%02x:%02x:%02x:%02x, interface %s, vlan %d.\r\n",
                          nm_type_word(u->userType), addr, u->mac[0], u->mac[1], u->mac[2],
                          u->mac[3], u->mac[4], u->mac[5], descr, int(u->vid));
}

void nm_count_down(DhcpsnoopIf *e)
{
    if (e && e->curUser)
        e->curUser--;
}

int32_t nm_user_unbind(DhcpsnoopUser *u, uint32_t state)
{
    if (u->hwFlags & DHCPSNOOP_HW_IPSG) {
        if (int rc = dhcpsnoop_user_state_notify(u, 0, &u->ipsgCheckItems, DHCPSNOOP_RULE_IPSG))
            return rc;
        u->hwFlags &= uint8_t(~DHCPSNOOP_HW_IPSG);
    }
    if (u->hwFlags & DHCPSNOOP_HW_DAI) {
        if (int rc = dhcpsnoop_user_state_notify(u, 0, &u->daiCheckItems, DHCPSNOOP_RULE_DAI))
            return rc;
        u->hwFlags &= uint8_t(~DHCPSNOOP_HW_DAI);
    }
    /* A static binding is not counted against the port's and VLAN's limit. */
    if (u->userType == DHCPSNOOP_USER_DYNAMIC) {
        nm_count_down(dhcpsnoop_if_lookup(u->ifIndex));
        nm_count_down(dhcpsnoop_if_lookup_by_vid(u->vid));
    }
    u->userType = DHCPSNOOP_USER_STATIC;
    u->leaseTime = LEASE_FOREVER;
    u->leaseStart = nm_now();
    u->bindState = uint8_t(state);
    return DHCPSNOOP_OK;
}

int32_t nm_user_action(const DhcpsnoopUserKey *key, DhcpsnoopUser *u, uint32_t action)
{
    if (u && u->userType == DHCPSNOOP_USER_IPSG) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop user setapi: this is a IPSG binding entry with "
                        "the same ip!\r\n");
        return DHCPSNOOP_E_EXISTS;
    }
    switch (action) {
    case 1:
        if (!u)
            return DHCPSNOOP_E_NO_ENTRY;
        nm_user_bind(u);
        return DHCPSNOOP_OK;
    case 2:
    case 3:
        return u ? nm_user_unbind(u, action) : DHCPSNOOP_E_NO_ENTRY;
    case 4:
    case 5:
        if (u)
            return DHCPSNOOP_E_EXISTS;
        if (!(u = dhcpsnoop_user_table_add(key)))
            return NO_FREE_ENTRY;
        u->userType = DHCPSNOOP_USER_STATIC;
        u->leaseTime = LEASE_FOREVER;
        u->bindState = 3;
        return DHCPSNOOP_OK;
    case 6:
        if (!u)
            return DHCPSNOOP_E_NO_ENTRY;
        dhcpsnoop_user_delete(u);
        return DHCPSNOOP_OK;
    default:
        return u ? DHCPSNOOP_E_INVALID : DHCPSNOOP_E_NO_ENTRY;
    }
}

int32_t nm_user_set_locked(const DhcpsnoopUserKey *key, uint32_t cmd, void *value, uint32_t mode)
{
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(key);
    if (cmd == U_BIND) {
        if (!value)
            return DHCPSNOOP_E_INVALID;
        if (qorHwDhcpSnoopUserSync(key, DHCPSNOOP_HW_USER_BASE + cmd, value, mode) != 0)
            return DHCPSNOOP_E_HW;
        return nm_user_action(key, u, nm_value_u32(value));
    }
    if (!u)
        return DHCPSNOOP_E_NO_ENTRY;
    if (u->bindState == DHCPSNOOP_BIND_BOUND)
        return DHCPSNOOP_E_BOUND;
    if (cmd != U_VLAN && cmd != U_IFINDEX && cmd != U_ATTR && cmd != U_MAC)
        return DHCPSNOOP_E_INVALID;
    const QorTextPair *mac = cmd == U_MAC ? nm_value_text(value) : nullptr;
    if (cmd == U_MAC ? !mac : !value)
        return DHCPSNOOP_E_INVALID;
    if (qorHwDhcpSnoopUserSync(key, DHCPSNOOP_HW_USER_BASE + cmd, value,
                               cmd == U_MAC ? mode | DHCPSNOOP_MODE_TEXT : mode) != 0)
        return DHCPSNOOP_E_HW;
    switch (cmd) {
    case U_VLAN:
        u->vid = u->origVid = uint16_t(nm_value_u32(value));
        break;
    case U_IFINDEX:
        u->ifIndex = nm_value_u32(value);
        break;
    case U_ATTR:
        u->userAttr = uint16_t(nm_value_u32(value));
        break;
    default: /* U_MAC; the platform has been told already */
        if (mac->len < sizeof u->mac)
            return DHCPSNOOP_E_LENGTH;
        memcpy(u->mac, mac->buf, sizeof u->mac);
        dhcpsnoop_user_mac_changed(u);
        u->macMark = DHCPSNOOP_MAC_MARK;
        break;
    }
    return DHCPSNOOP_OK;
}

int32_t nm_user_get_locked(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    const DhcpsnoopUser *u = dhcpsnoop_user_lookup(key);
    if (!u)
        return DHCPSNOOP_E_NO_ENTRY;
    if (cmd == U_MAC) {
        QorTextPair *t = nm_value_text(value);
        if (!t)
            return DHCPSNOOP_E_INVALID;
        if (t->len < sizeof u->mac)
            return DHCPSNOOP_E_LENGTH;
        memcpy(t->buf, u->mac, sizeof u->mac);
        t->len = sizeof u->mac;
        return DHCPSNOOP_OK;
    }
    uint32_t v;
    switch (cmd) {
    case U_VLAN: v = u->vid; break;
    case U_IFINDEX: v = u->ifIndex; break;
    case U_ATTR: v = u->userAttr; break;
    case U_LEASE: v = u->leaseTime; break;
    case U_ELAPSED:
        v = nm_now() - u->leaseStart;
        /* a dynamic lease never reads as older than it can be */
        if (u->userType == DHCPSNOOP_USER_DYNAMIC && v > u->leaseTime)
            v = u->leaseTime;
        break;
    case U_TYPE: v = u->userType; break;
    case U_BIND: v = u->bindState; break;
    default: return DHCPSNOOP_E_INVALID;
    }
    if (!value)
        return DHCPSNOOP_E_INVALID;
    nm_value_put_u32(value, v);
    return DHCPSNOOP_OK;
}

/* The relay server-ip walk: in-use interfaces in list order and their three
 * slots in order.  With `after` null the first nonzero slot is returned;
 * otherwise the first nonzero slot after the one matching `after`. */
int32_t nm_server_ip_walk(const uint32_t *after, uint32_t *out)
{
    if (!out)
        return -1;
    bool passed = after == nullptr;
    int32_t rc = -1;
    dhcpsnoop_lock();
    for (DhcpsnoopList *n = gDhcpsnoop.ifList.next; n != &gDhcpsnoop.ifList && rc; n = n->next) {
        const DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if (!(e->flags & ifflag::IN_USE))
            continue;
        for (uint32_t s = 0; s < SERVER_SLOTS; s++) {
            if (!e->serverIp[s])
                continue;
            if (passed) {
                out[0] = e->ifIndex;
                out[1] = e->serverIp[s];
                rc = 0;
                break;
            }
            if (e->ifIndex == after[0] && e->serverIp[s] == after[1])
                passed = true;
        }
    }
    dhcpsnoop_unlock();
    return rc;
}

int32_t nm_server_ip_set_locked(const uint32_t *pair, uint32_t cmd, void *value)
{
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(pair[0]);
    if (!e || cmd != 1)
        return DHCPSNOOP_E_NO_ENTRY;
    if (!value)
        return DHCPSNOOP_E_INVALID;
    const uint32_t ip = pair[1];
    switch (nm_value_u32(value)) {
    case 1:
    case 4:
    case 5:
        for (uint32_t s = 0; s < SERVER_SLOTS; s++)
            if (e->serverIp[s] == ip)
                return DHCPSNOOP_OK;
        for (uint32_t s = 0; s < SERVER_SLOTS; s++) {
            if (!e->serverIp[s]) {
                e->serverIp[s] = ip;
                return DHCPSNOOP_OK;
            }
        }
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Number of relay server-ip exceeds the max!\r\n");
        return DHCPSNOOP_E_INVALID;
    case 6:
        for (uint32_t s = 0; s < SERVER_SLOTS; s++)
            if (e->serverIp[s] == ip)
                e->serverIp[s] = 0;
        return DHCPSNOOP_OK;
    default:
        return DHCPSNOOP_E_INVALID;
    }
}

} // namespace

/* ---- bindings --------------------------------------------------------------- */

int32_t dhcpSnoopUserGetFirst(DhcpsnoopUserKey *key) { return nm_user_walk(nullptr, key); }

int32_t dhcpSnoopUserGetNext(const DhcpsnoopUserKey *key, DhcpsnoopUserKey *next)
{
    if (!key)
        return -1;
    return nm_user_walk(key, next);
}

int32_t _dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value, uint32_t mode)
{
    if (!key)
        return DHCPSNOOP_E_NULL_KEY;
    dhcpsnoop_lock();
    int32_t rc = nm_user_set_locked(key, cmd, value, mode);
    dhcpsnoop_unlock();
    return rc;
}

int32_t dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    return _dhcpSnoopUserSetApi(key, cmd, value, DHCPSNOOP_MODE_SET);
}

int32_t dhcpSnoopUserSyncApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    return _dhcpSnoopUserSetApi(key, cmd, value, DHCPSNOOP_MODE_SYNC);
}

int32_t dhcpSnoopUserGetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    if (!key)
        return DHCPSNOOP_E_NULL_KEY;
    dhcpsnoop_lock();
    int32_t rc = nm_user_get_locked(key, cmd, value);
    dhcpsnoop_unlock();
    return rc;
}

/* Several bindings per request: as many records as fit the caller's room,
 * with the listing's order and filters applied here rather than by one
 * request per binding and attribute. */
int32_t dhcpSnoopUserGetPage(const DhcpsnoopUserKey *after, QorTextPair *page, bool *more)
{
    *more = false;
    if (!page || !page->buf || page->len < DHCPSNOOP_PAGE_HEAD)
        return DHCPSNOOP_E_LENGTH;
    uint8_t *p = static_cast<uint8_t *>(page->buf);
    uint32_t ifFilter, vidFilter;
    memcpy(&ifFilter, p, 4);
    memcpy(&vidFilter, p + 4, 4);
    memset(p, 0, page->len);
    const uint32_t room = (page->len - DHCPSNOOP_PAGE_HEAD) / DHCPSNOOP_PAGE_RECORD;
    const uint32_t now = nm_now();
    uint32_t n = 0;
    dhcpsnoop_lock();
    for (const DhcpsnoopUser *u = dhcpsnoop_user_next(after); u;
         u = dhcpsnoop_user_next(nm_key(u))) {
        if ((ifFilter && u->ifIndex != ifFilter) || (vidFilter && u->vid != vidFilter))
            continue;
        if (n == room) {
            *more = true;
            break;
        }
        uint32_t elapsed = now - u->leaseStart;
        if (u->userType == DHCPSNOOP_USER_DYNAMIC && elapsed > u->leaseTime)
            elapsed = u->leaseTime;
        uint8_t *r = p + DHCPSNOOP_PAGE_HEAD + n * DHCPSNOOP_PAGE_RECORD;
        memcpy(r, nm_key(u), sizeof(DhcpsnoopUserKey));
        memcpy(r + 20, &u->ifIndex, 4);
        memcpy(r + 24, &u->leaseTime, 4);
        memcpy(r + 28, &elapsed, 4);
        memcpy(r + 32, &u->vid, 2);
        memcpy(r + 34, &u->userAttr, 2);
        memcpy(r + 36, u->mac, 6);
        r[42] = u->userType;
        r[43] = u->bindState;
        memcpy(r + 44, &u->origVid, 2);
        r[46] = u->hwFlags;
        n++;
    }
    dhcpsnoop_unlock();
    memcpy(p, &n, 4);
    const uint32_t flag = *more;
    memcpy(p + 4, &flag, 4);
    return DHCPSNOOP_OK;
}

/* ---- relay server-ips ------------------------------------------------------- */

int32_t dhcpSnoopServerIpGetFirst(uint32_t *pair) { return nm_server_ip_walk(nullptr, pair); }

int32_t dhcpSnoopServerIpGetNext(const uint32_t *pair, uint32_t *next)
{
    if (!pair)
        return -1;
    return nm_server_ip_walk(pair, next);
}

int32_t _dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, void *value, uint32_t mode)
{
    if (!pair)
        return DHCPSNOOP_E_NULL_KEY;
    if (gDhcpsnoop.debugFlags & (DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP)) {
        char name[64] = "";
        qorIfUnit2Name(pair[0], name, sizeof name);
        name[sizeof name - 1] = 0;
        NM_DEBUG_OUTPUT("[DHCPSNOOP] Set server-ip: if %s, ip 0x%0x, cmd %d, flag 0x%0x.\r\n",
                        name, pair[1], int(cmd), mode);
    }
    dhcpsnoop_lock();
    int32_t rc = nm_server_ip_set_locked(pair, cmd, value);
    dhcpsnoop_unlock();
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Set relay server-ip end: rc %d.\r\n", int(rc));
    return rc;
}

int32_t dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, void *value)
{
    return _dhcpSnoopServerIpSetApi(pair, cmd, value, DHCPSNOOP_MODE_SET);
}

int32_t dhcpSnoopServerIpSyncApi(const uint32_t *pair, uint32_t cmd, void *value)
{
    return _dhcpSnoopServerIpSetApi(pair, cmd, value, DHCPSNOOP_MODE_SYNC);
}

int32_t dhcpSnoopServerIpGetApi(const uint32_t *pair, uint32_t cmd, void *)
{
    if (!pair)
        return DHCPSNOOP_E_NULL_KEY;
    int32_t rc = DHCPSNOOP_E_NO_ENTRY;
    dhcpsnoop_lock();
    const DhcpsnoopIf *e = dhcpsnoop_if_lookup(pair[0]);
    if (!e) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Interface is not exist!\r\n");
    } else if (cmd != 1) {
        rc = DHCPSNOOP_E_INVALID;
    } else {
        for (uint32_t s = 0; s < SERVER_SLOTS; s++)
            if (e->serverIp[s] == pair[1])
                rc = DHCPSNOOP_OK;
    }
    dhcpsnoop_unlock();
    return rc;
}

void dhcpsnoop_fake_server_show(void)
{
    dhcpsnoop_lock();
    if (dhcpsnoop_list_empty(&gDhcpsnoop.serverList)) {
        printf("\n\r");
        dhcpsnoop_unlock();
        return;
    }
    printf("\n\r %-18s%-10s%-12s", "IpAddr", "Vid", "Interface");
    for (DhcpsnoopList *n = gDhcpsnoop.serverList.next; n != &gDhcpsnoop.serverList; n = n->next) {
        const DhcpsnoopServer *s = dhcpsnoop_entry<DhcpsnoopServer>(n);
        char addr[INET_ADDRSTRLEN] = "";
        struct in_addr a;
        a.s_addr = htonl(s->serverIp);
        inet_ntop(AF_INET, &a, addr, sizeof addr);
        char descr[64] = "";
        nmGetIfPartDescr(s->ifIndex, descr, sizeof descr);
        descr[sizeof descr - 1] = 0;
        printf("\n\r %-18s%-10ld%-12s", addr, long(s->vid), descr);
    }
    printf("\n\r");
    dhcpsnoop_unlock();
}
