/*
 * DHCPv4 and DHCPv6 frame handling: parser, checksums, option 82 and boot
 * options, option text templates, the client and server paths and senders.
 *
 * Every pointer of a DhcpsnoopPktInfo points into the frame buffer of the
 * DhcpsnoopRxPkt it was parsed from: DHCPSNOOP_FRAME_MAX bytes starting at
 * info->frame.  Nothing reads or writes outside that buffer.
 *
 * After a good parse the IP and UDP headers and the fixed 240 bytes of the
 * DHCP message lie inside the buffer, and every option pointer has its code
 * and length byte inside it.  The lengths are the frame's own: in one case,
 * an IP total length near 64K whose sum with the layer-2 length wraps in 16
 * bits, udpLen and dhcpLen may claim more bytes than the buffer holds (while
 * frameLen is small).  Code that walks a message by those lengths bounds
 * itself by the buffer.
 */
#ifndef DHCPSNOOP_MSG_H
#define DHCPSNOOP_MSG_H

#include "dhcpsnoop.h"

/* The DHCPv4 options the engine acts on, and option 82's sub-options. */
enum DhcpOption : uint8_t {
    OPT_PAD = 0,
    OPT_ROUTER = 3,
    OPT_REQUESTED_IP = 50,
    OPT_LEASE_TIME = 51,
    OPT_MSG_TYPE = 53,
    OPT_SERVER_ID = 54,
    OPT_VENDOR_CLASS = 60,
    OPT_BOOT_FILE = 67,
    OPT_RELAY_AGENT = 82,
    OPT_VIVSO = 125,
    OPT_END = 255,
};

enum RelaySubOption : uint8_t {
    SUBOPT_CIRCUIT_ID = 1,
    SUBOPT_REMOTE_ID = 2,
    SUBOPT_VENDOR = 9,
};

/* Hex dump of frame bytes on standard output: "%02x  " each, a "\n\r"
 * before every sixteenth byte. */
void dhcpsnoop_dump(const uint8_t *bytes, uint32_t len);

/* ---- parser (msg/) ---- */
int dhcpsnoop_packet_parse(DhcpsnoopRxPkt *rxpkt, DhcpsnoopPktInfo *info, uint32_t fullParse);

/* ---- checksums (msg/) ---- */
uint16_t checkdhcpsnoopsum(const uint8_t *buf, int32_t len);
/* The Internet sum in two steps: the unfolded sum of big-endian words (an odd
 * last byte high) and its folded complement, so that pieces lying apart sum
 * to what one pass over them laid end to end would give. */
uint32_t dhcpsnoop_sum16(const uint8_t *buf, uint32_t len);
uint16_t dhcpsnoop_sum_fold(uint32_t sum);
/* Reads max(8, L) bytes at udpHeader, L being its UDP length field (0 is
 * returned without reading when L is above 2036), and clears its checksum
 * field. */
uint16_t dhcpsnoop_get_udp_checksum(const uint8_t *ipHeader, uint8_t *udpHeader);
uint16_t dhcpsnoop_update_checksum(DhcpsnoopPktInfo *info, uint32_t delta, uint32_t grow);

/* ---- option 82 and boot options (msg/) ---- */
uint32_t dhcpsnoop_build_subopt_circid(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room);
uint32_t dhcpsnoop_build_subopt_remoteid(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room);
/* buffer: room for 137 bytes (code, length, vendor block with 128 bytes of text). */
uint32_t dhcpsnoop_build_subopt9(uint8_t *buffer, const DhcpsnoopIf *ifp, uint32_t withHeader);
int dhcpsnoop_append_subopt9(DhcpsnoopPktInfo *info);
uint32_t dhcpsnoop_construct_opt82(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room);
int dhcpsnoop_insert_opt82(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t length);
int dhcpsnoop_process_option82(DhcpsnoopPktInfo *info);
/* info: the frame that subOption points into; the value compared may reach
 * past the sub-option, and the frame buffer bounds it. */
int dhcpsnoop_remote_id_cmp(const DhcpsnoopPktInfo *info, const uint8_t *subOption,
                            const DhcpsnoopIf *ifp, uint32_t mode);
void dhcpsnoop_strip_option(DhcpsnoopPktInfo *info);
void dhcpsnoop_insert_opt67(DhcpsnoopPktInfo *info, const uint8_t *data, uint32_t length);
void dhcpsnoop_insert_opt125(DhcpsnoopPktInfo *info, const uint8_t *data, uint32_t length);

/* ---- option text templates (format/) ---- */
/* out: the area behind it must hold 255 bytes whatever room says (a literal
 * run is measured against the 255-byte cap, not against room). */
uint32_t dhcpsnoop_format_print(DhcpsnoopPktInfo *info, const uint8_t *tmpl, uint32_t tmplLen,
                                uint8_t *out, uint32_t room);
int dhcpsnoop_format_check(const uint8_t *tmpl, uint32_t len);
int dhcpsnoop_delimiter_check(int c);

/* ---- client path and senders towards servers (msg/) ---- */
void dhcpsnoop_client_packet_recv(DhcpsnoopPktInfo *info);
int dhcpsnoop_send_to_server(DhcpsnoopPktInfo *info);
int dhcpsnoop_npt_send_to_server(DhcpsnoopPktInfo *info);
/* fromAddr, toAddr: IPv4 in host order */
void dhcpsnoop_udp_socket_send(DhcpsnoopPktInfo *info, uint32_t fromAddr, uint32_t toAddr);

/* ---- server path and senders towards clients (msg/) ---- */
void dhcpsnoop_server_packet_recv(DhcpsnoopPktInfo *info);
void dhcpsnoop_send_to_client(DhcpsnoopPktInfo *info, DhcpsnoopIf *egress, uint32_t vid);
void dhcpsnoop_broadcast_forwarding(DhcpsnoopPktInfo *info, uint32_t vid);
void dhcpsnoop_npt_send_to_client(DhcpsnoopPktInfo *info, uint32_t vid);

/* ---- DHCPv6 (msg6/) ---- */
int dhcp6snoop_packet_parse(DhcpsnoopPktInfo *info, uint32_t fullParse);
void dhcp6snoop_client_packet_recv(DhcpsnoopPktInfo *info);
void dhcp6snoop_server_packet_recv(DhcpsnoopPktInfo *info);

#endif
