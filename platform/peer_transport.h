/* Carrying a sync buffer to the peer unit's daemon. */
#ifndef DHCPSNOOP_PEER_TRANSPORT_H
#define DHCPSNOOP_PEER_TRANSPORT_H

#include <cstdint>

#include "dhcpsnoop_platform.h"

/* Send the buffer as a global Set with command 19 to the command socket at
 * `path` and wait (bounded, `timeoutMs`) for its reply.  Returns 0 when the
 * peer answered, -1 otherwise. */
int dhcpsnoop_peer_send(const char *path, const QorTextPair *buffer, int timeoutMs = 2000);

#endif
