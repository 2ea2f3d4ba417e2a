/*
 * Redundancy: the running role, re-read from the platform on every query, and
 * the sync buffers by which a Master keeps its Slave's bindings and relay
 * servers in step.  Records are in host order: the peer is this daemon on
 * the same kind of unit.
 */
#include <stdio.h>
#include <string.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_user.h"

namespace {
const char *role_word(uint8_t role)
{
    switch (role) {
    case DHCPSNOOP_ROLE_MASTER:
        return "Master";
    case DHCPSNOOP_ROLE_SLAVE:
        return "Slave";
    default:
        return "None";
    }
}
} // namespace

uint8_t dhcpsnoop_running_role_get(void)
{
    uint8_t role;
    if (qorHwScalarGet(0, 53, nullptr) == 0)
        role = DHCPSNOOP_ROLE_MASTER;
    else
        role = qorHwScalarGet(0, 54, nullptr) != 0 ? DHCPSNOOP_ROLE_NONE : DHCPSNOOP_ROLE_SLAVE;
    if (role != gDhcpsnoop.runningRole) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] running role of the dhcpsnoop changed from %s to %s.\r\n",
                        role_word(gDhcpsnoop.runningRole), role_word(role));
        gDhcpsnoop.runningRole = role;
    }
    return role;
}

/* ---- sync records ------------------------------------------------------------ */

namespace {

constexpr uint32_t DEST_SINGLE = 3;
constexpr uint32_t DEST_FLAG = 0x80000000u;
constexpr uint32_t USER_BODY_LEN = DHCPSNOOP_SYNC_USER_LEN - DHCPSNOOP_SYNC_HDR_LEN;
constexpr uint32_t SERVER_BODY_LEN = DHCPSNOOP_SYNC_SERVER_LEN - DHCPSNOOP_SYNC_HDR_LEN;

void dump(const uint8_t *p, uint32_t len)
{
    if (!(gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_DUMP))
        return;
    for (uint32_t i = 0; i < len; i++) {
        if (i % 16 == 0)
            printf("\n\r");
        printf("%02x  ", p[i]);
    }
}

void put_header(uint8_t *out, uint8_t type, uint32_t add, uint16_t len)
{
    out[0] = type;
    out[1] = add ? 1 : 0;
    memcpy(out + 2, &len, 2);
}

uint16_t header_len(const uint8_t *record)
{
    uint16_t len;
    memcpy(&len, record + 2, 2);
    return len;
}

template <class T> void put(uint8_t *out, uint32_t offset, const T &v) { memcpy(out + offset, &v, sizeof v); }
template <class T> T get(const uint8_t *in, uint32_t offset)
{
    T v;
    memcpy(&v, in + offset, sizeof v);
    return v;
}

/* Dump a record's body as far as it lies inside the received buffer. */
void dump_body(const uint8_t *record, uint32_t room)
{
    uint32_t len = header_len(record);
    uint32_t avail = room - DHCPSNOOP_SYNC_HDR_LEN;
    dump(record + DHCPSNOOP_SYNC_HDR_LEN, len < avail ? len : avail);
}

} // namespace

void dhcpsnoop_sync_pkt_send(uint8_t *buffer, uint32_t length, uint32_t destination)
{
    if (!buffer || length == 0)
        return;
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Send dhcpsnoop sync packet: len %d.\r\n", int(length));
    dump(buffer, length);
    QorTextPair descriptor{buffer, length};
    if (qorHwScalarSync(nullptr, DHCPSNOOP_SYNC_CODE, &descriptor, destination | DEST_FLAG) != 0)
        DHCPSNOOP_DEBUG("[DHCPSNOOP] Send dhcpsnoop sync packet ERROR!\r\n");
}

/* User record: header, the 20-byte key, then the binding's fields.  A delete
 * carries the key alone. */
uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *entry, uint32_t add, uint8_t *out)
{
    memset(out, 0, DHCPSNOOP_SYNC_USER_LEN);
    put_header(out, DHCPSNOOP_SYNC_USER, add, USER_BODY_LEN);
    memcpy(out + 4, &entry->ipType, sizeof(DhcpsnoopUserKey));
    if (!add)
        return DHCPSNOOP_SYNC_USER_LEN;
    put(out, 24, entry->vid);
    put(out, 26, entry->origVid);
    put(out, 28, entry->ifIndex);
    put(out, 32, entry->leaseTime);
    put(out, 36, entry->leaseStart);
    out[40] = entry->hwFlags;
    out[41] = entry->userType;
    out[42] = entry->bindState;
    out[43] = entry->macMark;
    put(out, 44, entry->userAttr);
    memcpy(out + 46, entry->mac, 6);
    put(out, 52, entry->ipsgHwId);
    put(out, 56, entry->daiHwId);
    return DHCPSNOOP_SYNC_USER_LEN;
}

uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *entry, uint32_t add, uint8_t *out)
{
    memset(out, 0, DHCPSNOOP_SYNC_SERVER_LEN);
    put_header(out, DHCPSNOOP_SYNC_SERVER, add, SERVER_BODY_LEN);
    put(out, 4, entry->serverIp);
    put(out, 8, entry->ifIndex);
    put(out, 12, uint16_t(entry->vid));
    return DHCPSNOOP_SYNC_SERVER_LEN;
}

void dhcpsnoop_sync_user_send(const DhcpsnoopUser *entry, uint32_t add)
{
    if (!entry)
        return;
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Send dhcpsnoop user sync packet, add flag %d.\r\n", int(add));
    uint8_t buf[256];
    memset(buf, 0, sizeof buf);
    uint32_t len = dhcpsnoop_sync_user_pkt_build(entry, add, buf);
    dhcpsnoop_sync_pkt_send(buf, len, DEST_SINGLE);
}

void dhcpsnoop_sync_server_send(const DhcpsnoopServer *entry, uint32_t add)
{
    if (!entry)
        return;
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Send dhcpsnoop server sync packet, add flag %d.\r\n", int(add));
    uint8_t buf[256];
    memset(buf, 0, sizeof buf);
    uint32_t len = dhcpsnoop_sync_server_pkt_build(entry, add, buf);
    dhcpsnoop_sync_pkt_send(buf, len, DEST_SINGLE);
}

/* A full copy of both tables, packed into as few buffers as fit: users first,
 * then servers in the same buffer. */
void dhcpsnoop_sync_all_send(uint32_t destination, uint32_t request)
{
    if (request != 1)
        return;
    uint8_t buf[DHCPSNOOP_SYNC_BUF_MAX];
    memset(buf, 0, sizeof buf);
    uint32_t used = 0;

    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
            const DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            if (u->userType == DHCPSNOOP_USER_IPSG)
                continue;
            if (used > DHCPSNOOP_SYNC_BUF_MAX - DHCPSNOOP_SYNC_USER_LEN) {
                dhcpsnoop_sync_pkt_send(buf, used, destination);
                memset(buf, 0, sizeof buf);
                used = 0;
            }
            used += dhcpsnoop_sync_user_pkt_build(u, 1, buf + used);
        }
    }

    DhcpsnoopList *head = &gDhcpsnoop.serverList;
    for (DhcpsnoopList *n = head->next; n != head; n = n->next) {
        if (used > DHCPSNOOP_SYNC_BUF_MAX - DHCPSNOOP_SYNC_SERVER_LEN) {
            dhcpsnoop_sync_pkt_send(buf, used, destination);
            memset(buf, 0, sizeof buf);
            used = 0;
        }
        used += dhcpsnoop_sync_server_pkt_build(dhcpsnoop_entry<DhcpsnoopServer>(n), 1, buf + used);
    }

    if (used)
        dhcpsnoop_sync_pkt_send(buf, used, destination);
}

/* Walk a buffer from the peer.  Lengths are taken as the peer wrote them;
 * no byte beyond the buffer is read, so a record that would run past its end
 * is not applied. */
void dhcpsnoop_sync_pkt_recv(const QorTextPair *desc)
{
    if (!desc)
        return;
    if (dhcpsnoop_running_role_get() != DHCPSNOOP_ROLE_SLAVE)
        return;
    const uint8_t *buf = static_cast<const uint8_t *>(desc->buf);
    const uint32_t len = buf ? desc->len : 0;
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive dhcpsnoop sync packet: len %d.", int(len));
    if (len == 0)
        return;
    dump(buf, len);

    uint32_t offset = 0;
    while (offset < len) {
        const uint32_t room = len - offset;
        if (room < DHCPSNOOP_SYNC_HDR_LEN)
            break;
        const uint8_t *record = buf + offset;
        switch (record[0]) {
        case DHCPSNOOP_SYNC_USER:
            dhcpsnoop_sync_user_recv(record, room);
            break;
        case DHCPSNOOP_SYNC_SERVER:
            dhcpsnoop_sync_server_recv(record, room);
            break;
        default:
            break;
        }
        offset += uint32_t(header_len(record)) + DHCPSNOOP_SYNC_HDR_LEN;
    }
}

void dhcpsnoop_sync_user_recv(const uint8_t *record, uint32_t room)
{
    if (!record || room < DHCPSNOOP_SYNC_HDR_LEN)
        return;
    const uint32_t add = record[1];
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive dhcpsnoop user sync packet: add flag %d, len %d.\r\n",
                    int(add), int(header_len(record)));
    dump_body(record, room);
    if (room < DHCPSNOOP_SYNC_USER_LEN)
        return;

    DhcpsnoopUserKey key;
    memcpy(&key, record + 4, sizeof key);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&key);
    if (add != 1) {
        dhcpsnoop_user_delete(u);
        return;
    }
    const uint16_t vid = get<uint16_t>(record, 24);
    const uint32_t ifIndex = get<uint32_t>(record, 28);
    if (!u) {
        u = dhcpsnoop_user_table_add(&key);
        if (!u)
            return;
        /* counted whatever its type: the Master decided it belongs here */
        if (DhcpsnoopIf *p = dhcpsnoop_if_lookup(ifIndex))
            p->curUser++;
        if (DhcpsnoopIf *v = dhcpsnoop_if_lookup_by_vid(vid))
            v->curUser++;
    }
    u->vid = vid;
    u->origVid = get<uint16_t>(record, 26);
    u->ifIndex = ifIndex;
    u->leaseTime = get<uint32_t>(record, 32);
    u->leaseStart = get<uint32_t>(record, 36);
    u->hwFlags = record[40];
    u->userType = record[41];
    u->bindState = record[42];
    u->macMark = record[43];
    u->userAttr = get<uint16_t>(record, 44);
    memcpy(u->mac, record + 46, 6);
    dhcpsnoop_user_mac_changed(u);
    u->ipsgHwId = get<uint32_t>(record, 52);
    u->daiHwId = get<uint32_t>(record, 56);
}

void dhcpsnoop_sync_server_recv(const uint8_t *record, uint32_t room)
{
    if (!record || room < DHCPSNOOP_SYNC_HDR_LEN)
        return;
    const uint32_t add = record[1];
    DHCPSNOOP_DEBUG("[DHCPSNOOP] Receive dhcpsnoop server sync packet: add flag %d, len %d.\r\n",
                    int(add), int(header_len(record)));
    dump_body(record, room);
    if (room < DHCPSNOOP_SYNC_SERVER_LEN)
        return;

    const uint32_t ip = get<uint32_t>(record, 4);
    const uint32_t third = get<uint32_t>(record, 8);
    const uint32_t vlan = get<uint16_t>(record, 12);
    DhcpsnoopServer *s = dhcpsnoop_server_lookup(ip, vlan, third);
    if (add != 1)
        dhcpsnoop_server_delete(s);
    else if (!s)
        dhcpsnoop_server_add(ip, vlan, third);
}
