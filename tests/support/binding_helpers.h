/* Helpers for the binding-table, propagation, server-list and sync tests. */
#ifndef DHCPSNOOP_BINDING_HELPERS_H
#define DHCPSNOOP_BINDING_HELPERS_H

#include <array>
#include <cstdint>
#include <vector>

#include "daemon_fixture.h"
#include "dhcpsnoop_user.h"

using Mac = std::array<uint8_t, 6>;

DhcpsnoopUserKey v4key(uint8_t a, uint8_t b, uint8_t c, uint8_t d);
DhcpsnoopUserKey v6key(std::initializer_list<uint8_t> bytes); /* leading bytes, rest zero */
/* A client's request as the client path hands it over. */
DhcpsnoopPktInfo client_request(DhcpsnoopIf *ifp, uint32_t ifIndex, uint16_t svlan,
                                const Mac &mac, uint32_t rxTime = 1000);
/* A bound table entry made directly, as management or the peer would. */
DhcpsnoopUser *make_user(const DhcpsnoopUserKey &key, uint8_t userType, uint32_t ifIndex,
                         uint16_t vid, const Mac &mac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
/* Platform scalars for a role: 53 == 0 Master; else 54 != 0 None, 0 Slave. */
void set_role(DhcpsnoopRole role);
size_t user_count();      /* entries in the binding table */
size_t free_user_nodes(); /* entries on the shared free list */
std::vector<DhcpsnoopServer *> server_list();
/* A server's sync record, as dhcpsnoop_sync_server_pkt_build writes it. */
std::vector<uint8_t> server_record(uint32_t ip, uint32_t vid, uint32_t ifIndex, uint32_t add);
/* The sync buffers handed to the platform, in order. */
std::vector<std::vector<uint8_t>> sync_buffers();

/* A started daemon (role None) with snooping on ports 3 and 4 and on the
 * VLAN interface of VLAN 10 (index 100). */
class BindingFixture : public DaemonTest {
protected:
    void startWithPorts(uint16_t userMax);
    DhcpsnoopIf *port3 = nullptr, *port4 = nullptr, *vlan10 = nullptr;
};

#endif
