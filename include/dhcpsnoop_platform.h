/*
 * The switch platform's interfaces, as the daemon calls them.
 *
 * Everything here has C linkage so that a switch vendor's C platform library
 * can be linked in place of ours (platform/).  Arguments are plain C types;
 * records exchanged through these calls are in the host's byte order.
 */
#ifndef DHCPSNOOP_PLATFORM_H
#define DHCPSNOOP_PLATFORM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A text or byte buffer handed to the platform: on entry `len` is the room,
 * on return the number of bytes the platform wrote. */
typedef struct QorTextPair {
    void *buf;
    uint32_t len;
} QorTextPair;

/* --- OS abstraction ------------------------------------------------------ */
uint32_t OsixCreateMSem(uint32_t initial);
int OsixDeleteSem(uint32_t semId);
int errnoGet(void);

/* --- crash reporter ------------------------------------------------------ */
void qorCatchSegFault(int argc, char **argv);

/* --- interface layer ----------------------------------------------------- */
/* Attributes used by the daemon (value form in brackets):
 *   3 port name [QorTextPair]        5 port number [u32]
 *   33 MAC address [QorTextPair, 6]   45 TPID [u32]
 *   193 work mode, 1 = router [u32]   417 is a VLAN interface [u32]
 *   5400 VLAN of a VLAN interface [u32]; fails for other interfaces
 *   5420 default user limit of a port [u32]; fails (or 0) when the platform
 *        sets none
 *   65536285 aggregate query [QorAggQuery] */
int qorIfGetApi(uint32_t ifIndex, uint32_t attr, void *value);
/* Commands: 300 hardware user record [QorHwUserRequest],
 *           305/306 add/delete protocol trap [u32: 23 DHCP, 24 DHCPv6]. */
int qorIfSetApi(uint32_t ifIndex, uint32_t cmd, void *value);
int qorIfUnit2Name(uint32_t ifIndex, char *name, uint32_t size);
/* kind 6: in = one word (ifIndex), out = seven-word location record;
 * kind 7: in = seven-word request (word 4 VLAN id, word 5 = 3),
 *         out = one word (the VLAN interface's ifIndex). */
int qorIndexTrans(const uint32_t *in, uint32_t kind, uint32_t *out);
/* 5410: member ports of a VLAN [QorTextPair of u32 indexes]. */
int qorVlanGetApi(uint32_t vid, uint32_t attr, void *value);
/* 66, 74: switch-wide texts [QorTextPair]. */
int qorScalarGetApi(uint32_t unit, uint32_t attr, void *value);
uint32_t qorSelfSysIndex(void);
/* 255: non-zero excludes the port; 258: non-zero makes frames leave untagged. */
int sysIFGet(uint32_t ifIndex, uint32_t attr, void *buffer);
int nmGetIfPartDescr(uint32_t ifIndex, char *buf, uint32_t size);
/* The switch's host name, or null when it has none. */
const char *nmGetHostname(void);

/* Aggregate query of attribute 65536285. */
typedef struct QorAggQuery {
    uint32_t attr;     /* 65536223 */
    uint32_t *answer;  /* one-word answer buffer, preset to 2 */
    uint8_t count;     /* preset to 1; the number of answers on return */
} QorAggQuery;

/* Request of qorIfSetApi(..., 300, ...): op code, record, 0, 0. */
typedef struct QorHwUserRequest {
    uint32_t op;       /* 0x3E800DF add, 0x3E800E0 delete */
    void *record;      /* the 44-byte hardware user record */
    uint32_t reserved1;
    uint32_t reserved2;
} QorHwUserRequest;

/* --- hardware and peer synchronisation ----------------------------------- */
/* Returns the scalar's value (53 and 54: redundancy state, 45: card state). */
int32_t qorHwScalarGet(uint32_t unit, uint32_t attr, void *value);
int qorHwScalarSync(void *source, uint32_t code, void *data, uint32_t mode);
int qorHwIfSync(uint32_t ifIndex, uint32_t code, void *value, uint32_t mode);
int qorHwDhcpSnoopUserSync(const void *key, uint32_t code, void *value, uint32_t mode);
int qorHwCardGet(const uint32_t *words, uint32_t property, void *answer);
int qorHwSlotGet(const uint32_t *words, uint32_t property, void *answer);

/* --- system log, netlink sender, debug output ---------------------------- */
void zlog_dispatch_logging(int level, int facility, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int qorNetlinkSend(uint32_t type, uint32_t flags, const void *record, uint32_t len);
void NM_DEBUG_OUTPUT(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* --- feature hooks (installed at start-up when asked for) ---------------- */
/* cmd 1: *reply = u32 enabled word; cmd 2: *reply = u8 check items. */
int ipsgIfGetApi(uint32_t ifIndex, uint32_t cmd, void *reply);
int arpAntiAttackIfGetApi(uint32_t ifIndex, uint32_t cmd, void *reply);
/* record: the install record; a, b: the caller's two values (or null). */
int deftinstall_client_entry_callback(void *record, void *a, void *b);

#ifdef __cplusplus
}
#endif

#endif
