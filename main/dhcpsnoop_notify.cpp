/* Platform events from the netlink socket. */
#include "dhcpsnoop.h"

/* Event handling arrives with the platform-events work; until then every
 * datagram is read and ignored. */
int dhcpsnoop_notify_recv(uint8_t *, int32_t) { return 0; }

#include "dhcpsnoop_user.h"

/* Binding notifications arrive with binding propagation. */
int dhcpsnoop_notify_send(const uint8_t *, uint32_t) { return -1; }
