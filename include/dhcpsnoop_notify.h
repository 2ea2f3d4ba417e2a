/*
 * Platform events: the netlink datagrams that the switch platform sends about
 * links, aggregation, cards, slots, subsystems and the check items of IP
 * source guard and ARP inspection.
 *
 * Byte layout of one message (all multi-byte fields in host order, read with
 * memcpy wherever they lie):
 *   0  u32 length of the message, header included
 *   4  u16 type
 *   6  u16 flags
 *   8  u32 sequence
 *   12 u32 port id
 *   16 payload, by type:
 *      RTM_NEWLINK / RTM_DELLINK   16-byte interface-information header
 *                                  (interface index at message offset 20);
 *                                  link attributes from offset 32
 *      card and slot events        u32 system, u32 slot, u32 card (unused
 *                                  for slots), u32 word for the platform
 *      RTM_SYSTEM_DAISTART and the two check-item changes
 *                                  u32 interface index, u8 check items
 *      RTM_DHCPSNOOP_UPDATEDHCPSNOOPUSER
 *                                  u32 VLAN id
 *      RTM_SUBSYSTEM_UP            none: the subsystem number is the first
 *                                  word of the datagram
 * Several messages may share one datagram; each starts at the previous one's
 * length raised to a multiple of 4.  Link attributes are u16 length, u16
 * type, value, also advanced by their length raised to a multiple of 4.
 *
 * A port's place in the chassis is the location record that
 * qorIndexTrans(ifIndex, 6, record) gives: word 0 the system, word 1 the
 * slot, word 6 the card (word 2 is the port's number on its card).
 *
 * Every handler gets the message and its length (its length field, already
 * known to lie inside the datagram); a message too short for what its type
 * carries is ignored.
 */
#ifndef DHCPSNOOP_NOTIFY_H
#define DHCPSNOOP_NOTIFY_H

#include "dhcpsnoop.h"

/* Message types handled. */
enum DhcpsnoopRtmType : uint16_t {
    DHCPSNOOP_RTM_NEWLINK = 16,
    DHCPSNOOP_RTM_DELLINK = 17,
    DHCPSNOOP_RTM_CARD_UP = 87,    /* card present: sync or re-install */
    DHCPSNOOP_RTM_CARD_DOWN = 88,  /* card gone: forget its dynamic bindings */
    DHCPSNOOP_RTM_SLOT_UP = 90,
    DHCPSNOOP_RTM_SLOT_DOWN = 91,
    DHCPSNOOP_RTM_SUBSYSTEM_UP = 93,
    DHCPSNOOP_RTM_SYSTEM_DAISTART = 123,
    DHCPSNOOP_RTM_SYSTEM_DAISTOP = 124,
    DHCPSNOOP_RTM_UPDATEDHCPSNOOPUSER = 190,
    DHCPSNOOP_RTM_IPSG_CHANGEDCHECKITEM = 198,
    DHCPSNOOP_RTM_ANTIARP_DAICHANGEDCHECKITEM = 199,
};

/* Link attributes handled inside RTM_NEWLINK. */
enum DhcpsnoopIflaType : uint16_t {
    DHCPSNOOP_IFLA_PHYJOINAGG = 38,
    DHCPSNOOP_IFLA_SYNCCFG = 49,
    DHCPSNOOP_IFLA_AGGADDPHY = 52,
    DHCPSNOOP_IFLA_AGGREMOVEPHY = 53,
};

constexpr uint32_t DHCPSNOOP_NLMSG_HDRLEN = 16;
constexpr uint32_t DHCPSNOOP_IFINFO_LEN = 16;
constexpr uint32_t DHCPSNOOP_RTA_HDRLEN = 4;

/* Platform questions asked while handling events. */
constexpr uint32_t DHCPSNOOP_IF_ATTR_VLAN = 5400;
constexpr uint32_t DHCPSNOOP_IF_ATTR_AGG = 65536285;
constexpr uint32_t DHCPSNOOP_AGG_QUERY_ATTR = 65536223;
constexpr uint32_t DHCPSNOOP_CARD_PRESENT = 49152043;
constexpr uint32_t DHCPSNOOP_CARD_STATE = 49152042;
constexpr uint32_t DHCPSNOOP_SLOT_PRESENT = 32768049;
constexpr uint32_t DHCPSNOOP_SLOT_STATE = 32768042;

/* The whole datagram as read from the netlink socket; always 0. */
int dhcpsnoop_notify_recv(uint8_t *buffer, int32_t length);

void dhcpsnoop_newlink_process(const uint8_t *message, uint32_t length);
void dhcpsnoop_dellink_process(const uint8_t *message, uint32_t length);
void dhcpsnoop_ipsgchangeitem_process(const uint8_t *message, uint32_t length);
void dhcpsnoop_daichangeitem_process(const uint8_t *message, uint32_t length);
/* type: 87 or 88 */
void dhcpsnoop_card_event_process(const uint8_t *message, uint32_t length, uint16_t type);
/* type: 90 or 91 */
void dhcpsnoop_slot_event_process(const uint8_t *message, uint32_t length, uint16_t type);
/* datagram: the start of the received buffer, which holds the subsystem's
 * number in its first word */
void dhcpsnoop_subsystem_up_process(const uint8_t *datagram, int32_t length);
void dhcpsnoop_dai_start_process(const uint8_t *message, uint32_t length);
void dhcpsnoop_dai_stop_process(void);
void dhcpsnoop_user_resend_process(const uint8_t *message, uint32_t length);

#endif
