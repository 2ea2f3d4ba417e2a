/* DHCPv4 frame reception. */
#include "dhcpsnoop.h"

/* The parser and the client and server paths arrive with the DHCPv4 engine;
 * until then a received frame is announced and dropped. */
void dhcpsnoop_recv(DhcpsnoopRxPkt *)
{
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Receive a dhcp message, check and process it!\r\n");
}
