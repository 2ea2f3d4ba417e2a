/*
 * Binding tables and their propagation, the relay server list, netlink
 * notifications and the master/slave sync records.
 */
#ifndef DHCPSNOOP_USER_H
#define DHCPSNOOP_USER_H

#include "dhcpsnoop.h"

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
    uint8_t ipAddr[16];
    uint32_t ifIndex;
    uint8_t mac[6];
    uint16_t vid;
    uint8_t ipType;
    uint8_t mask; /* 0x80 type+address, 0x40 MAC, 0x20 VLAN, 0x10 port */
};

/* ---- user bindings (user/) ---- */
DhcpsnoopUser *dhcpsnoop_user_update(DhcpsnoopPktInfo *info, DhcpsnoopOptBuf *opt125,
                                     DhcpsnoopOptBuf *bootFile);
int dhcpsnoop_user_get(const DhcpsnoopUserQuery *query);

/* ---- binding propagation (user/) ---- */
void dhcpsnoop_user_notifier(DhcpsnoopUser *entry, uint32_t add);
int dhcpsnoop_user_state_notify(DhcpsnoopUser *entry, uint32_t add, uint8_t *items, uint32_t kind);
void dhcpsnoop_user_update_hw(DhcpsnoopUser *entry, uint32_t add);
void dhcpsnoop_user_process_on_trunk(uint32_t trunk, uint32_t port, uint32_t operate);

/* ---- relay server list (main/) ---- */
DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t serverIp, uint32_t vid, uint32_t ifIndex);
void dhcpsnoop_server_add(uint32_t serverIp, uint32_t vid, uint32_t ifIndex);
DhcpsnoopServer *dhcpsnoop_server_alloc(void);
void dhcpsnoop_server_delete(DhcpsnoopServer *entry);

/* ---- netlink notification (main/) ---- */
int dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event);

/* ---- sync records (sync/) ---- */
void dhcpsnoop_sync_pkt_send(uint8_t *buffer, uint32_t length, uint32_t destination);
uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *entry, uint32_t add, uint8_t *out);
uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *entry, uint32_t add, uint8_t *out);
void dhcpsnoop_sync_user_send(const DhcpsnoopUser *entry, uint32_t add);
void dhcpsnoop_sync_server_send(const DhcpsnoopServer *entry, uint32_t add);
void dhcpsnoop_sync_all_send(uint32_t destination, uint32_t request);
/* desc: the buffer and its length as received */
void dhcpsnoop_sync_pkt_recv(const QorTextPair *desc);

#endif
