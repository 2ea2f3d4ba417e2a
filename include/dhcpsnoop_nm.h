/*
 * Management entry points: the command server's request processing and the
 * get/set operations on global, VLAN, interface, binding and relay server-ip
 * settings.
 *
 * Values: a number is passed as a pointer to one host-order uint32_t (or two
 * for a pair); a text or byte string as a pointer to a QorTextPair whose `len`
 * is the text's length on Set and the room on Get (set to what was written).
 * A null value where one is needed gives DHCPSNOOP_E_INVALID.
 *
 * Every Set goes to the platform's synchronisation call first and changes the
 * daemon's state only when the platform accepts it.  A Set entry point and
 * its Sync twin share one worker: Set passes mode 3 (a local change), Sync
 * mode 1 (a change replayed from the peer unit).
 */
#ifndef DHCPSNOOP_NM_H
#define DHCPSNOOP_NM_H

#include "dhcpsnoop.h"

constexpr uint32_t DHCPSNOOP_MODE_SET = 3;
constexpr uint32_t DHCPSNOOP_MODE_SYNC = 1;
/* Set in the mode passed with a text value. */
constexpr uint32_t DHCPSNOOP_MODE_TEXT = 0x80000000u;

/* Platform synchronisation codes. */
constexpr uint32_t DHCPSNOOP_HW_GLOBAL_BASE = 0x40000;   /* + global cmd */
constexpr uint32_t DHCPSNOOP_HW_IF_BASE = 0x402C000;     /* + interface cmd */
constexpr uint32_t DHCPSNOOP_HW_USER_BASE = 0x8CE8000;   /* + user cmd */

/* Global commands. */
enum DhcpsnoopGlobalCmd : uint32_t {
    DHCPSNOOP_G_ENABLE = 1,
    DHCPSNOOP_G_ENTERPRISE = 2,
    DHCPSNOOP_G_USER_COUNT = 3,
    DHCPSNOOP_G_HW_NOTIFY = 4,
    DHCPSNOOP_G_SERVER_LEARN = 16,
    DHCPSNOOP_G_CLEAR_STATS = 17,
    DHCPSNOOP_G_SYNC_PKT = 19,
    DHCPSNOOP_G_DEBUG = 20,
    DHCPSNOOP_G_BINDING_GUARD = 21,
};

/* ---- command server (main/) ---- */
/* Decode one request body of `length` bytes held in `buffer` (which holds
 * at least DHCPSNOOP_CMD_BUF_SIZE bytes), call its entry point and rewrite
 * the buffer as the reply; returns the reply body's length, 0 when refused. */
uint32_t dhcpsnoop_cmd_process(uint8_t *buffer, uint32_t length);

/* ---- global and VLAN settings ---- */
int32_t _dhcpSnoopSetApi(void *source, uint32_t cmd, void *data, uint32_t mode);
int32_t dhcpSnoopSetApi(void *source, uint32_t cmd, void *data);
int32_t dhcpSnoopSyncApi(void *source, uint32_t cmd, void *data);
int32_t dhcpSnoopGetApi(void *source, uint32_t cmd, void *value);
/* op 1 sets the bits of mask in the debug flags, op 2 clears them. */
int32_t dhcpSnoop_debug_set(uint8_t mask, uint32_t op);
int32_t dhcpSnoopVlanGetFirst(uint32_t *vid);
int32_t dhcpSnoopVlanGetNext(uint32_t vid, uint32_t *next);
int32_t dhcpSnoopVlanSetApi(uint32_t vid, uint32_t cmd, void *data);
int32_t dhcpSnoopVlanGetApi(uint32_t vid, uint32_t cmd, void *data);

/* ---- interface settings ---- */
int32_t _dhcpSnoopIfSetApi(uint32_t ifindex, uint32_t cmd, void *value, uint32_t mode);
int32_t dhcpSnoopIfSetApi(uint32_t ifindex, uint32_t cmd, void *value);
int32_t dhcpSnoopIfSyncApi(uint32_t ifindex, uint32_t cmd, void *value);
int32_t dhcpSnoopIfGetApi(uint32_t ifindex, uint32_t cmd, void *value);
int32_t dhcpSnoopIfGetFirst(uint32_t *ifindex);
int32_t dhcpSnoopIfGetNext(uint32_t ifindex, uint32_t *next);

/* ---- bindings ---- */
constexpr uint32_t DHCPSNOOP_PAGE_HEAD = 8;    /* count and more */
constexpr uint32_t DHCPSNOOP_PAGE_RECORD = 48; /* one binding */
int32_t dhcpSnoopUserGetFirst(DhcpsnoopUserKey *key);
int32_t dhcpSnoopUserGetNext(const DhcpsnoopUserKey *key, DhcpsnoopUserKey *next);
int32_t _dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value,
                             uint32_t mode);
int32_t dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value);
int32_t dhcpSnoopUserSyncApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value);
int32_t dhcpSnoopUserGetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value);
/* One page of bindings in key order after `after` (from the first when
 * null), laid out in `page` as the codec header describes for func 22;
 * `more` is set when the page filled up before the table ended. */
int32_t dhcpSnoopUserGetPage(const DhcpsnoopUserKey *after, QorTextPair *page, bool *more);

/* ---- relay server-ips: pair = {interface index, IPv4 address in host order} ---- */
int32_t dhcpSnoopServerIpGetFirst(uint32_t *pair);
int32_t dhcpSnoopServerIpGetNext(const uint32_t *pair, uint32_t *next);
int32_t _dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, void *value, uint32_t mode);
int32_t dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, void *value);
int32_t dhcpSnoopServerIpSyncApi(const uint32_t *pair, uint32_t cmd, void *value);
int32_t dhcpSnoopServerIpGetApi(const uint32_t *pair, uint32_t cmd, void *value);

/* Print the learned DHCP server list on standard output. */
void dhcpsnoop_fake_server_show(void);

#endif
