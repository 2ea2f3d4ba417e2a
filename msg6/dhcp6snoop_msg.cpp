/* DHCPv6 frames. */
#include "dhcpsnoop_msg.h"

/* DHCPv6 snooping arrives with its own engine; until then every DHCPv6
 * frame is refused by the parser and no path runs. */
int dhcp6snoop_packet_parse(DhcpsnoopPktInfo *, uint32_t) { return -1; }
void dhcp6snoop_client_packet_recv(DhcpsnoopPktInfo *) {}
void dhcp6snoop_server_packet_recv(DhcpsnoopPktInfo *) {}
