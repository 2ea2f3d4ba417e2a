/*
 * Binding tables and their propagation, the relay server list, netlink
 * notifications and the master/slave sync records.
 */
#ifndef DHCPSNOOP_USER_H
#define DHCPSNOOP_USER_H

#include <arpa/inet.h>
#include <stdio.h>

#include "dhcpsnoop.h"

/* Texts of a binding for messages. */
constexpr size_t DHCPSNOOP_MAC_TEXT = 18;
constexpr size_t DHCPSNOOP_ADDR_TEXT = INET6_ADDRSTRLEN;

/* "aa:bb:cc:dd:ee:ff": written by hand, it is on every binding's log line. */
inline const char *dhcpsnoop_mac_text(const uint8_t *mac, char (&out)[DHCPSNOOP_MAC_TEXT])
{
    static constexpr char hex[] = "0123456789abcdef";
    for (int i = 0; i < 6; i++) {
        out[3 * i] = hex[mac[i] >> 4];
        out[3 * i + 1] = hex[mac[i] & 15];
        out[3 * i + 2] = i < 5 ? ':' : '\0';
    }
    return out;
}

/* The address of a key or entry: IPv4 for type 1, IPv6 for every other type. */
inline const char *dhcpsnoop_addr_text(uint8_t ipType, const uint8_t *addr,
                                       char (&out)[DHCPSNOOP_ADDR_TEXT])
{
    if (!inet_ntop(ipType == DHCPSNOOP_IPTYPE_V4 ? AF_INET : AF_INET6, addr, out, sizeof out))
        out[0] = '\0';
    return out;
}

/* A boot-file or option-125 buffer filled by the auto-provisioning hook:
 * `len` starts at 256 (the room) and holds the length to insert on return. */
struct DhcpsnoopOptBuf {
    uint8_t data[256];
    uint32_t len;
};

/* The record handed to the auto-provisioning hook. */
struct DhcpsnoopInstallRec {
    uint32_t clientIp; /* first address byte most significant */
    uint8_t unset[12];
    uint32_t vendorTag;
    uint8_t mac[6];
    uint8_t one;       /* always 1 */
    uint8_t add;       /* 1 on binding, 0 on deletion */
};
static_assert(sizeof(DhcpsnoopInstallRec) == 28, "install record layout");

/* Query of dhcpsnoop_user_get. */
struct DhcpsnoopUserQuery {
    uint8_t ipAddr[16]; /* network order, as in the key */
    uint32_t ifIndex;
    uint8_t mac[6];
    uint16_t vid;
    uint8_t ipType;
    uint8_t mask; /* 0x80 type+address, 0x40 MAC, 0x20 VLAN, 0x10 port */
};

/* The record the hardware layer reads to make or remove one IP-source-guard
 * or ARP-inspection rule (qorIfSetApi command 300).  Host byte order; every
 * field not asked for by the check items stays zero. */
struct DhcpsnoopHwUserRecord {
    uint8_t mac[6];     /* check item 0x40 */
    uint16_t vid;       /* check item 0x20 */
    uint32_t ifIndex;   /* check item 0x10 */
    uint32_t ipsgHwId;  /* rule kind 1; the hardware may write it back */
    uint8_t addr[16];   /* check item 0x80: 4 bytes IPv4, 16 IPv6; network order */
    uint16_t userAttr;  /* always */
    uint16_t origVid;   /* check item 0x20 */
    uint8_t ipType;     /* always */
    uint8_t ruleFlags;  /* 0x80 IP source guard, 0x40 ARP inspection */
    uint8_t macValid;   /* 0x30 when mac is given */
    uint8_t addrKind;   /* 0x20 IPv4, 0x80 IPv6, when addr is given */
    uint32_t daiHwId;   /* rule kind 2 with ruleFlags 0x40; written back */
};
static_assert(sizeof(DhcpsnoopHwUserRecord) == 44, "hardware user record is 44 bytes");
static_assert(offsetof(DhcpsnoopHwUserRecord, ifIndex) == 8 &&
                  offsetof(DhcpsnoopHwUserRecord, ipsgHwId) == 12 &&
                  offsetof(DhcpsnoopHwUserRecord, addr) == 16 &&
                  offsetof(DhcpsnoopHwUserRecord, userAttr) == 32 &&
                  offsetof(DhcpsnoopHwUserRecord, origVid) == 34 &&
                  offsetof(DhcpsnoopHwUserRecord, ipType) == 36 &&
                  offsetof(DhcpsnoopHwUserRecord, ruleFlags) == 37 &&
                  offsetof(DhcpsnoopHwUserRecord, macValid) == 38 &&
                  offsetof(DhcpsnoopHwUserRecord, addrKind) == 39 &&
                  offsetof(DhcpsnoopHwUserRecord, daiHwId) == 40,
              "hardware user record layout");

constexpr uint32_t DHCPSNOOP_HW_OP_ADD = 0x3E800DF;
constexpr uint32_t DHCPSNOOP_HW_OP_DEL = 0x3E800E0;
constexpr uint32_t DHCPSNOOP_HW_USER_CMD = 300;

/* The body of the user-added (188) and user-deleted (189) events. */
struct DhcpsnoopUserEvent {
    uint8_t mac[6];
    uint16_t vid;
    uint32_t ifIndex;
    uint8_t addr[16];    /* IPv4 in the first 4 bytes, network order */
    uint8_t gateway[16]; /* IPv4 in the first 4 bytes, network order */
    uint16_t zero;
    uint8_t family;      /* 1: IPv4 */
    uint8_t pad;
};
static_assert(sizeof(DhcpsnoopUserEvent) == 48, "user event body is 48 bytes");
static_assert(offsetof(DhcpsnoopUserEvent, addr) == 12 &&
                  offsetof(DhcpsnoopUserEvent, gateway) == 28 &&
                  offsetof(DhcpsnoopUserEvent, family) == 46,
              "user event body layout");

constexpr uint32_t DHCPSNOOP_EVENT_USER_ADD = 188;
constexpr uint32_t DHCPSNOOP_EVENT_USER_DEL = 189;

/* ---- user bindings (user/) ---- */
/* With the binding guard on: `entry` is a bound client's and a client frame
 * from `port` with `mac` may not replace or remove it.  Counted on `ifp`. */
bool dhcpsnoop_user_guarded(const DhcpsnoopUser *entry, uint32_t port, const uint8_t *mac,
                            DhcpsnoopIf *ifp);
DhcpsnoopUser *dhcpsnoop_user_update(DhcpsnoopPktInfo *info, DhcpsnoopOptBuf *opt125,
                                     DhcpsnoopOptBuf *bootFile);
int dhcpsnoop_user_get(const DhcpsnoopUserQuery *query);

/* ---- the binding index (user/): made at start-up from the pool size ---- */
int32_t dhcpsnoop_user_index_init(uint32_t count); /* after the user pool; -1 if no memory */
void dhcpsnoop_user_index_release(void);
void dhcpsnoop_user_index_add(DhcpsnoopUser *entry);    /* key set, MAC to follow */
void dhcpsnoop_user_index_remove(DhcpsnoopUser *entry);
DhcpsnoopUser *dhcpsnoop_user_index_find(const DhcpsnoopUserKey *key);
/* Whoever rewrites the MAC of an existing binding says so. */
void dhcpsnoop_user_mac_changed(DhcpsnoopUser *entry);
/* The first dynamic binding of a MAC in bucket order, or null. */
DhcpsnoopUser *dhcpsnoop_user_lookup_by_mac(const uint8_t *mac);
/* The binding with the smallest key above `after` (the first with null),
 * IP-source-guard bindings left out; keys ordered by their 20 bytes. */
const DhcpsnoopUser *dhcpsnoop_user_next(const DhcpsnoopUserKey *after);
void dhcpsnoop_mac_user_index_add(DhcpsnoopMacUser *entry);
void dhcpsnoop_mac_user_index_remove(DhcpsnoopMacUser *entry);
DhcpsnoopMacUser *dhcpsnoop_mac_user_index_find(const uint8_t *mac);

/* ---- binding propagation (user/) ---- */
void dhcpsnoop_user_notifier(DhcpsnoopUser *entry, uint32_t add);
int dhcpsnoop_user_state_notify(DhcpsnoopUser *entry, uint32_t add, uint8_t *items, uint32_t kind);
void dhcpsnoop_user_update_hw(DhcpsnoopUser *entry, uint32_t add);
void dhcpsnoop_user_process_on_trunk(uint32_t trunk, uint32_t port, uint32_t operate);

/* ---- relay server list (main/); serverIp in host order ---- */
DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t serverIp, uint32_t vid, uint32_t ifIndex);
void dhcpsnoop_server_add(uint32_t serverIp, uint32_t vid, uint32_t ifIndex);
DhcpsnoopServer *dhcpsnoop_server_alloc(void);
void dhcpsnoop_server_delete(DhcpsnoopServer *entry);

/* ---- netlink notification (main/) ---- */
int dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event);

/* ---- sync records (sync/) ---- */
/* Record types and sizes of a sync buffer (header included). */
constexpr uint8_t DHCPSNOOP_SYNC_USER = 1;
constexpr uint8_t DHCPSNOOP_SYNC_SERVER = 2;
constexpr uint32_t DHCPSNOOP_SYNC_HDR_LEN = 4;
constexpr uint32_t DHCPSNOOP_SYNC_USER_LEN = 60;
constexpr uint32_t DHCPSNOOP_SYNC_SERVER_LEN = 16;
constexpr uint32_t DHCPSNOOP_SYNC_BUF_MAX = 1400;
constexpr uint32_t DHCPSNOOP_SYNC_CODE = 0x40013;

void dhcpsnoop_sync_pkt_send(uint8_t *buffer, uint32_t length, uint32_t destination);
uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *entry, uint32_t add, uint8_t *out);
uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *entry, uint32_t add, uint8_t *out);
void dhcpsnoop_sync_user_send(const DhcpsnoopUser *entry, uint32_t add);
void dhcpsnoop_sync_server_send(const DhcpsnoopServer *entry, uint32_t add);
void dhcpsnoop_sync_all_send(uint32_t destination, uint32_t request);
/* desc: the buffer and its length as received */
void dhcpsnoop_sync_pkt_recv(const QorTextPair *desc);
/* One record as it lies in a received buffer; `room` is the number of bytes
 * from the record's first byte to the end of that buffer.  A record whose
 * fields would lie beyond the room is not applied. */
void dhcpsnoop_sync_user_recv(const uint8_t *record, uint32_t room);
void dhcpsnoop_sync_server_recv(const uint8_t *record, uint32_t room);

#endif
