/* Building and sending a frame out of one port: shared by the senders
 * towards servers and towards clients. */
#ifndef DHCPSNOOP_SEND_H
#define DHCPSNOOP_SEND_H

#include "dhcpsnoop_msg.h"

/* Room for a frame that gains a tag. */
constexpr uint32_t DHCPSNOOP_EGRESS_MAX = DHCPSNOOP_FRAME_MAX + 4;

/* The port's TPID as the platform reports it (0 is read as 0x8100), with
 * the trace line every sender prints. */
uint16_t dhcpsnoop_port_tpid(uint32_t ifIndex);

/* True when the port sends frames untagged (sysIFGet 258 non-zero). */
bool dhcpsnoop_port_untagged(uint32_t ifIndex);

/* Copy the frame for a port into `out` and return its length:
 * - untaggedPort: a frame tagged with `tpid` loses its tag, others go as they are;
 * - otherwise a tagged frame keeps its tag (its tag control field replaced by
 *   `tag` when replaceTci is set and the frame's svlan differs from it) and
 *   an untagged frame gains `tpid` and `tag`. */
uint32_t dhcpsnoop_egress_frame(const DhcpsnoopPktInfo *info, uint16_t tpid, bool untaggedPort,
                                uint16_t tag, bool replaceTci, uint8_t *out);

/* sendto on the raw socket of the frame's family, to the port, addressed to
 * the frame's destination MAC; also dumps the bytes under the dump flag.
 * Returns sendto's result. */
long dhcpsnoop_raw_send(const DhcpsnoopPktInfo *info, uint32_t ifIndex, const uint8_t *out,
                        uint32_t len);

#endif
