/* Relay server list. */
#include "dhcpsnoop_user.h"

/* Server learning arrives with the DHCPv4 engine; until then the list stays
 * empty. */
DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t, uint32_t, uint32_t) { return nullptr; }
void dhcpsnoop_server_add(uint32_t, uint32_t, uint32_t) {}
DhcpsnoopServer *dhcpsnoop_server_alloc(void) { return nullptr; }
void dhcpsnoop_server_delete(DhcpsnoopServer *) {}
