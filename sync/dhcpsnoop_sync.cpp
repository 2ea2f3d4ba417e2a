/* Redundancy: the running role, re-read from the platform on every query. */
#include "dhcpsnoop.h"

namespace {
const char *role_word(uint8_t role)
{
    switch (role) {
    case DHCPSNOOP_ROLE_MASTER:
        return "Master";
    case DHCPSNOOP_ROLE_SLAVE:
        return "Slave";
    default:
        return "None";
    }
}
} // namespace

uint8_t dhcpsnoop_running_role_get(void)
{
    uint8_t role;
    if (qorHwScalarGet(0, 53, nullptr) == 0)
        role = DHCPSNOOP_ROLE_MASTER;
    else
        role = qorHwScalarGet(0, 54, nullptr) != 0 ? DHCPSNOOP_ROLE_NONE : DHCPSNOOP_ROLE_SLAVE;
    if (role != gDhcpsnoop.runningRole) {
        DHCPSNOOP_DEBUG("[DHCPSNOOP] running role of the dhcpsnoop changed from %s to %s.\r\n",
                        role_word(gDhcpsnoop.runningRole), role_word(role));
        gDhcpsnoop.runningRole = role;
    }
    return role;
}

/* ---- sync records: arrive with redundancy; until then nothing is sent or
 * applied ---- */
#include "dhcpsnoop_user.h"

void dhcpsnoop_sync_pkt_send(uint8_t *, uint32_t, uint32_t) {}
uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *, uint32_t, uint8_t *) { return 0; }
uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *, uint32_t, uint8_t *) { return 0; }
void dhcpsnoop_sync_user_send(const DhcpsnoopUser *, uint32_t) {}
void dhcpsnoop_sync_server_send(const DhcpsnoopServer *, uint32_t) {}
void dhcpsnoop_sync_all_send(uint32_t, uint32_t) {}
void dhcpsnoop_sync_pkt_recv(const QorTextPair *) {}
