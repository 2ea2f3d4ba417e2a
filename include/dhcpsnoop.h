/*
 * dhcpsnoop: the shared records, constants and entry points of the daemon.
 *
 * All state lives in the one record gDhcpsnoop.  Every table entry begins with
 * the two link words of a circular doubly linked list with a sentinel head, so
 * an entry moves between its free list and its table by relinking alone.
 *
 * IPv4 addresses are held in one of two forms, named beside each field:
 * "host order" is a u32 number whose most significant byte is the address's
 * first (as frames are read, byte by byte); "network order" is the address
 * bytes as they lie in a frame.  IPv6 addresses are always bytes.
 */
#ifndef DHCPSNOOP_H
#define DHCPSNOOP_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "dhcpsnoop_platform.h"

/* ------------------------------------------------------------------------ */
/* Constants                                                                 */
/* ------------------------------------------------------------------------ */

constexpr uint8_t DHCPSNOOP_DEBUG_INFO = 0x01;
constexpr uint8_t DHCPSNOOP_DEBUG_DUMP = 0x02;

constexpr int DHCPSNOOP_HASH_SIZE = 63;
constexpr uint32_t DHCPSNOOP_FRAME_MAX = 2048;
constexpr uint32_t DHCPSNOOP_CMD_BUF_SIZE = 1520;
constexpr uint32_t DHCPSNOOP_TEXT_MAX = 128;

constexpr uint16_t DHCPSNOOP_DEFAULT_IF_MAX = 20;
constexpr uint16_t DHCPSNOOP_DEFAULT_USER_MAX = 256;
constexpr uint16_t DHCPSNOOP_DEFAULT_SERVER_MAX = 256;

#ifndef DHCPSNOOP_ENTERPRISE_NUMBER
/* The private enterprise number carried in option 125, sub-option 9 and
 * DHCPv6 option 37; fixed at build time. */
#define DHCPSNOOP_ENTERPRISE_NUMBER 32473u
#endif

constexpr const char *DHCPSNOOP_CMD_SOCKET_PATH = "/tmp/dhcpsnoop.socket";

/* Management result codes. */
enum DhcpsnoopResult : int32_t {
    DHCPSNOOP_OK = 0,
    DHCPSNOOP_E_NO_ENTRY = 0x3E80002,
    DHCPSNOOP_E_EXISTS = 0x3E80003,
    DHCPSNOOP_E_HW = 0x3E80004,
    DHCPSNOOP_E_BOUND = 0x3E8000C,
    DHCPSNOOP_E_LENGTH = 0x3E8000D,
    DHCPSNOOP_E_INVALID = 0x3E80010,
    DHCPSNOOP_E_NULL_KEY = 0x3E8001A,
};

/* Redundancy role. */
enum DhcpsnoopRole : uint8_t {
    DHCPSNOOP_ROLE_NONE = 0,
    DHCPSNOOP_ROLE_MASTER = 1,
    DHCPSNOOP_ROLE_SLAVE = 2,
};

/* Check-item byte and rule kinds of IP source guard / ARP inspection. */
constexpr uint8_t DHCPSNOOP_CHECK_IP = 0x80;
constexpr uint8_t DHCPSNOOP_CHECK_MAC = 0x40;
constexpr uint8_t DHCPSNOOP_CHECK_VLAN = 0x20;
constexpr uint8_t DHCPSNOOP_CHECK_PORT = 0x10;
constexpr uint8_t DHCPSNOOP_CHECK_ALL = 0xF0;
constexpr uint32_t DHCPSNOOP_RULE_IPSG = 1;
constexpr uint32_t DHCPSNOOP_RULE_DAI = 2;
/* Interface attributes (qorIfGetApi) where the hardware counts the frames
 * its IP-source-guard and ARP-inspection rules dropped on a port. */
constexpr uint32_t DHCPSNOOP_IF_ATTR_IPSG_DROPS = 5410;
constexpr uint32_t DHCPSNOOP_IF_ATTR_DAI_DROPS = 5411;

/* User types and bind states. */
constexpr uint8_t DHCPSNOOP_USER_DYNAMIC = 1;
constexpr uint8_t DHCPSNOOP_USER_STATIC = 2;
constexpr uint8_t DHCPSNOOP_USER_IPSG = 4;
constexpr uint8_t DHCPSNOOP_BIND_BOUND = 1;
constexpr uint8_t DHCPSNOOP_BIND_REQUESTED = 4;
constexpr uint8_t DHCPSNOOP_HW_IPSG = 0x80;
constexpr uint8_t DHCPSNOOP_HW_DAI = 0x40;
constexpr uint8_t DHCPSNOOP_MAC_MARK = 0x30;

constexpr uint8_t DHCPSNOOP_IPTYPE_V4 = 1;
constexpr uint8_t DHCPSNOOP_IPTYPE_V6 = 2;

constexpr uint32_t DHCPSNOOP_ETH_IP = 0x0800;
constexpr uint32_t DHCPSNOOP_ETH_IPV6 = 0x86DD;

/* ------------------------------------------------------------------------ */
/* Lists                                                                     */
/* ------------------------------------------------------------------------ */

struct DhcpsnoopList {
    DhcpsnoopList *next;
    DhcpsnoopList *prev;
};

inline void dhcpsnoop_list_init(DhcpsnoopList *head) { head->next = head->prev = head; }
inline bool dhcpsnoop_list_empty(const DhcpsnoopList *head) { return head->next == head; }
/* Link `e` directly after `pos`. */
inline void dhcpsnoop_list_insert_after(DhcpsnoopList *pos, DhcpsnoopList *e)
{
    e->next = pos->next;
    e->prev = pos;
    pos->next->prev = e;
    pos->next = e;
}
inline void dhcpsnoop_list_unlink(DhcpsnoopList *e)
{
    e->prev->next = e->next;
    e->next->prev = e->prev;
    e->next = e->prev = e;
}

/* Every entry record starts with `DhcpsnoopList link`; a list node converts
 * back to its entry because the link is the entry's first member. */
template <class T> inline T *dhcpsnoop_entry(DhcpsnoopList *n)
{
    static_assert(offsetof(T, link) == 0, "link must be the first member");
    return reinterpret_cast<T *>(n);
}

/* ------------------------------------------------------------------------ */
/* Interface entry                                                           */
/* ------------------------------------------------------------------------ */

struct DhcpsnoopIf {
    DhcpsnoopList link;
    uint32_t ifIndex;
    uint16_t maxUser;
    uint16_t curUser;
    uint16_t setting21;
    uint8_t mac[6];
    uint8_t circuitIdLen;
    uint8_t remoteIdLen;
    uint8_t subopt9Len;
    uint8_t isVlanIf;
    uint8_t interfaceIdType, interfaceIdLen;
    uint8_t remoteId6Type, remoteId6Len;
    uint8_t circuitId[DHCPSNOOP_TEXT_MAX];
    uint8_t remoteId[DHCPSNOOP_TEXT_MAX];
    uint8_t subopt9[DHCPSNOOP_TEXT_MAX];
    uint8_t interfaceId[DHCPSNOOP_TEXT_MAX];
    uint8_t remoteId6[DHCPSNOOP_TEXT_MAX];
    uint32_t flags;
    uint8_t interfaceIdFmt, remoteId6Fmt, circuitIdFmt, remoteIdFmt;
    uint8_t circuitIdType, remoteIdType;
    uint32_t counters[5];
    uint32_t relayAddr;   /* host order */
    uint32_t serverIp[3]; /* host order */
};

/* Bits of DhcpsnoopIf::flags. */
namespace ifflag {
constexpr uint32_t IN_USE = 1u << 31;
constexpr uint32_t TRUSTED = 1u << 29;
constexpr uint32_t OPTION82 = 1u << 28;
constexpr uint32_t SUBOPT9 = 1u << 27;  /* cmd 9 */
constexpr uint32_t OPTION18 = 1u << 26; /* cmd 11 */
constexpr uint32_t OPTION37 = 1u << 25; /* cmd 13 */
constexpr int VERSION_SHIFT = 23;
constexpr uint32_t VERSION_MASK = 3u << VERSION_SHIFT;
constexpr int POLICY_SHIFT = 21;
constexpr uint32_t POLICY_MASK = 3u << POLICY_SHIFT;
constexpr int MODE_SHIFT = 17;
constexpr uint32_t MODE_MASK = 15u << MODE_SHIFT;
constexpr uint32_t SRC_MAC_CHECK = 1u << 16; /* cmd 16 */
constexpr uint32_t USER_CHECK = 1u << 15;    /* cmd 17 */
constexpr uint32_t BIT14 = 1u << 14;         /* cmd 20 */
constexpr int VID_SHIFT = 2;
constexpr uint32_t VID_MASK = 0xFFFu << VID_SHIFT;
constexpr uint32_t ROUTER_MODE = 1u << 1;
} // namespace ifflag

/* Counters, in array order: untrusted server replies, source-MAC mismatches,
 * binding mismatches, client frames dropped because a binding table or a
 * user limit was full, and client frames the binding guard kept from another
 * client's bound entry. */
constexpr int DHCPSNOOP_CNT_UNTRUSTED_REPLY = 0;
constexpr int DHCPSNOOP_CNT_SRC_MAC = 1;
constexpr int DHCPSNOOP_CNT_USER_MISMATCH = 2;
constexpr int DHCPSNOOP_CNT_TABLE_FULL = 3;
constexpr int DHCPSNOOP_CNT_GUARD = 4;

inline uint32_t dhcpsnoop_if_version(const DhcpsnoopIf *e)
{
    return (e->flags & ifflag::VERSION_MASK) >> ifflag::VERSION_SHIFT;
}
inline uint16_t dhcpsnoop_if_vid(const DhcpsnoopIf *e)
{
    return uint16_t((e->flags & ifflag::VID_MASK) >> ifflag::VID_SHIFT);
}
inline uint32_t dhcpsnoop_if_policy(const DhcpsnoopIf *e)
{
    return (e->flags & ifflag::POLICY_MASK) >> ifflag::POLICY_SHIFT;
}
inline uint32_t dhcpsnoop_if_mode(const DhcpsnoopIf *e)
{
    return (e->flags & ifflag::MODE_MASK) >> ifflag::MODE_SHIFT;
}
inline void dhcpsnoop_if_set_field(DhcpsnoopIf *e, uint32_t mask, int shift, uint32_t v)
{
    e->flags = (e->flags & ~mask) | ((v << shift) & mask);
}

/* ------------------------------------------------------------------------ */
/* Relay server entry                                                        */
/* ------------------------------------------------------------------------ */

struct DhcpsnoopServer {
    DhcpsnoopList link;
    uint32_t serverIp; /* host order */
    uint32_t ifIndex;
    uint32_t vid;
};

/* ------------------------------------------------------------------------ */
/* User bindings and MAC users                                               */
/* ------------------------------------------------------------------------ */

struct DhcpsnoopUserKey {
    uint8_t ipType;
    uint8_t reserved[3];
    uint8_t ipAddr[16]; /* network order; IPv4 in the first 4 bytes */
};
static_assert(sizeof(DhcpsnoopUserKey) == 20, "the user key is 20 bytes on the wire");

struct DhcpsnoopUser {
    DhcpsnoopList link;
    uint8_t ipType;
    uint8_t reserved[3];
    uint8_t ipAddr[16]; /* network order, as in the key */
    uint16_t vid;
    uint16_t origVid;
    uint32_t ifIndex;
    uint32_t leaseTime;
    uint32_t leaseStart;
    uint8_t hwFlags;
    uint8_t userType;
    uint8_t bindState;
    uint8_t macMark;
    uint16_t userAttr;
    uint8_t mac[6];
    uint32_t ipsgHwId;
    uint32_t daiHwId;
    uint32_t gateway;  /* network order: the address bytes, as events carry them */
    uint32_t vendorTag;
    uint8_t ipsgSource;
    uint8_t daiSource;
    uint8_t ipsgCheckItems;
    uint8_t daiCheckItems;
    uint32_t serverId; /* host order */
};
static_assert(offsetof(DhcpsnoopUser, ipAddr) - offsetof(DhcpsnoopUser, ipType) == 4,
              "the key is stored whole in the entry");

/* The user key stored inside an entry. */
inline DhcpsnoopUserKey *dhcpsnoop_user_key(DhcpsnoopUser *u)
{
    return reinterpret_cast<DhcpsnoopUserKey *>(&u->ipType);
}

/* A client awaiting a reply; lives in a user node. */
struct DhcpsnoopMacUser {
    DhcpsnoopList link;
    uint16_t vid;
    uint32_t ifIndex;
    uint32_t ageTime;
    uint32_t seenTime;
    uint8_t mac[6];
    uint32_t serverId; /* host order */
};
static_assert(sizeof(DhcpsnoopMacUser) <= sizeof(DhcpsnoopUser),
              "MAC users share the user nodes");

/* ------------------------------------------------------------------------ */
/* Received frame and parse result                                           */
/* ------------------------------------------------------------------------ */

struct DhcpsnoopRxPkt {
    uint16_t valid;
    uint16_t len;
    uint8_t data[DHCPSNOOP_FRAME_MAX];
    DhcpsnoopIf *inIf;
    uint32_t ifIndex;
    uint16_t innerVid;
    uint16_t outerVid;
    uint16_t l2HdrLen;
    uint16_t etherType;
};

constexpr int DHCPSNOOP_IA_MAX = 64;

struct DhcpsnoopPktInfo {
    DhcpsnoopIf *ifp;
    uint32_t ifIndex;
    uint32_t rxTime;
    uint16_t cvlan;
    uint16_t svlan;
    uint8_t *frame;
    uint32_t frameLen;
    uint32_t rxLen;
    uint32_t ethType;
    uint8_t *dstMac;
    uint8_t *srcMac;
    uint8_t *ethHdr;
    uint32_t l2HdrLen;
    uint8_t *ipHdr;
    uint32_t srcIp; /* host order */
    uint8_t *ipTotLen;
    uint32_t ipHdrLen;
    uint32_t ipBodyLen;
    uint8_t *udpHdr;
    uint8_t *udpLenField;
    uint32_t udpLen;
    uint8_t *dhcpMsg;
    uint8_t *chaddr;
    uint32_t dhcpLen;
    uint8_t clientIp[4]; /* network order */
    uint32_t giaddr;     /* host order */
    uint32_t router;     /* host order */
    uint32_t serverId;   /* host order */
    uint32_t leaseTime;
    uint32_t msgType;
    uint8_t *opt82;
    uint8_t *circuitId;
    uint8_t *remoteId;
    uint8_t *subopt9;
    uint8_t *optEnd;
    uint8_t *opt67;
    uint8_t *opt125;
    uint8_t *opt60;
    uint32_t opt60Sub1;
    /* IPv6 part */
    uint32_t statusCode;
    uint8_t *interfaceIdOpt;
    uint8_t *remoteIdOpt;
    uint32_t iaCount;
    uint8_t *iaOpts[DHCPSNOOP_IA_MAX];
};

/* ------------------------------------------------------------------------ */
/* Global state                                                              */
/* ------------------------------------------------------------------------ */

struct DhcpsnoopOptFmt {
    uint16_t mode;
    uint16_t len;
    uint8_t text[256];
};

typedef int (*DhcpsnoopIfHook)(uint32_t ifIndex, uint32_t cmd, void *reply);
typedef int (*DhcpsnoopDeftinstallHook)(void *record, void *a, void *b);

struct DhcpsnoopGlobal {
    DhcpsnoopList ifFreeList;
    void *ifPool;
    DhcpsnoopList userFreeList;
    void *userPool;
    DhcpsnoopList serverFreeList;
    void *serverPool;
    DhcpsnoopList userHash[DHCPSNOOP_HASH_SIZE];
    DhcpsnoopList macUserHash[DHCPSNOOP_HASH_SIZE];
    DhcpsnoopList ifList;
    DhcpsnoopList serverList;
    uint32_t semId;
    uint32_t enterpriseNum;
    DhcpsnoopOptFmt circuitIdFmt;
    DhcpsnoopOptFmt remoteIdFmt;
    DhcpsnoopOptFmt interfaceIdFmt;
    DhcpsnoopOptFmt remoteId6Fmt;
    int32_t dataSock;
    int32_t data6Sock;
    int32_t udpSock;
    int32_t cmdSock;
    int32_t rtSock;
    uint8_t debugFlags;
    uint8_t globalEnable;
    uint8_t hwNotifyEnable;
    uint8_t serverLearn;
    DhcpsnoopDeftinstallHook deftinstallCb;
    DhcpsnoopIfHook ipsgIfGet;
    DhcpsnoopIfHook antiArpIfGet;
    uint16_t ifMax;
    uint16_t userMax;
    uint16_t serverMax;
    uint8_t daiStarted;
    uint8_t runningRole;
    /* 1: a bound entry changes only through the server's ACK for its client
     * or that client's own RELEASE/DECLINE from its own port (off by default) */
    uint8_t bindingGuard;
};

extern DhcpsnoopGlobal gDhcpsnoop;

/* Debug output: a message called "debug" is shown when either flag is set,
 * the packet trace only under INFO, dumps only under DUMP. */
#define DHCPSNOOP_DEBUG(...)                                                    \
    do {                                                                        \
        if (gDhcpsnoop.debugFlags & (DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP)) \
            NM_DEBUG_OUTPUT(__VA_ARGS__);                                       \
    } while (0)
#define DHCPSNOOP_DEBUG_I(...)                                                  \
    do {                                                                        \
        if (gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_INFO)                       \
            NM_DEBUG_OUTPUT(__VA_ARGS__);                                       \
    } while (0)
#define DHCPSNOOP_DEBUG_D(...)                                                  \
    do {                                                                        \
        if (gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_DUMP)                       \
            NM_DEBUG_OUTPUT(__VA_ARGS__);                                       \
    } while (0)

/* ------------------------------------------------------------------------ */
/* Entry points                                                              */
/* ------------------------------------------------------------------------ */

/* main/ : global state, start-up, loop, timer */
int32_t dhcpsnoop_memlist_init(DhcpsnoopList *head, void **pool, uint32_t entrySize,
                               uint32_t count);
void dhcpsnoop_lock(void);
void dhcpsnoop_unlock(void);
int dhcpsnoop_start(int argc, char **argv);
int32_t dhcpsnoop_init_ex(uint16_t ifCount, uint16_t userCount, uint16_t serverCount,
                          uint32_t optionMode, DhcpsnoopDeftinstallHook deftinstallHook,
                          DhcpsnoopIfHook ipsgHook, DhcpsnoopIfHook antiArpHook);
int32_t dhcpsnoop_init(uint16_t ifCount, uint16_t userCount);
int dhcpsnoop_udp_socket_init(void);
void dhcpsnoop_shutdown(void);
uint32_t dhcpsnoop_is_started(void);
[[noreturn]] void dhcpsnoop_main(void);
void dhcpsnoop_main_setup(void);
void dhcpsnoop_main_pass(void);
/* The frame record that the loop reuses for every frame. */
const DhcpsnoopRxPkt *dhcpsnoop_main_rxpkt(void);
void dhcpsnoop_user_timer_check(void);
void dhcpsnoop_timer_reset(void);

/* if/ : interface table */
DhcpsnoopIf *dhcpsnoop_if_lookup(uint32_t ifIndex);
DhcpsnoopIf *dhcpsnoop_if_lookup_by_vid(uint32_t vid);
DhcpsnoopIf *dhcpsnoop_if_add(uint32_t ifIndex);
void dhcpsnoop_if_delete(DhcpsnoopIf *entry);
uint32_t dhcpsnoop_if_enable(uint32_t ifIndex);
uint32_t dhcpsnoop_if_disable(DhcpsnoopIf *entry);
uint32_t dhcpsnoop_if_version_set(DhcpsnoopIf *entry, uint32_t version);
int dhcpsnoop_if_state_notify(uint32_t ifIndex, uint32_t version, uint32_t state);

/* msg/ : frame reception */
void dhcpsnoop_recv(DhcpsnoopRxPkt *rxpkt);

/* main/ : command server and platform events */
int dhcpsnoop_cmd_server(void);
int dhcpsnoop_notify_recv(uint8_t *buffer, int32_t length);

/* user/ : bindings and MAC users */
uint32_t dhcpsnoop_user_hash_key(const DhcpsnoopUserKey *key);
DhcpsnoopUser *dhcpsnoop_user_lookup(const DhcpsnoopUserKey *key);
DhcpsnoopUser *dhcpsnoop_user_table_add(const DhcpsnoopUserKey *key);
int dhcpsnoop_user_add(const DhcpsnoopUserKey *key, DhcpsnoopUser *entry, DhcpsnoopPktInfo *info);
void dhcpsnoop_user_delete(DhcpsnoopUser *entry);
void dhcpsnoop_user_process_on_interface(DhcpsnoopIf *entry, uint32_t ipTypes,
                                         uint32_t userTypes, uint32_t operate);
uint32_t dhcpsnoop_mac_user_hash(const uint8_t *mac);
DhcpsnoopMacUser *dhcpsnoop_mac_user_add(const DhcpsnoopPktInfo *info);
DhcpsnoopMacUser *dhcpsnoop_mac_user_lookup(const uint8_t *mac);
void dhcpsnoop_mac_user_delete(DhcpsnoopMacUser *entry);

/* sync/ : redundancy */
uint8_t dhcpsnoop_running_role_get(void);

#endif
