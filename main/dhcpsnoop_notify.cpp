/* Platform events from the netlink socket. */
#include "dhcpsnoop.h"

/* Event handling arrives with the platform-events work; until then every
 * datagram is read and ignored. */
int dhcpsnoop_notify_recv(uint8_t *, int32_t) { return 0; }
