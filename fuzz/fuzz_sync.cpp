/*
 * Fuzzing the Slave's reading of sync buffers: any bytes from the peer must be
 * applied or skipped without a read outside the buffer, and leave the tables
 * consistent.  Each input starts from fresh tables on a unit that is Slave.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_user.h"
#include "switch_model.h"

namespace {

void release(void **pool)
{
    free(*pool);
    *pool = nullptr;
}

void fresh_tables()
{
    release(&gDhcpsnoop.ifPool);
    release(&gDhcpsnoop.userPool);
    release(&gDhcpsnoop.serverPool);
    memset(&gDhcpsnoop, 0, sizeof gDhcpsnoop);
    for (auto &h : gDhcpsnoop.userHash)
        dhcpsnoop_list_init(&h);
    for (auto &h : gDhcpsnoop.macUserHash)
        dhcpsnoop_list_init(&h);
    dhcpsnoop_list_init(&gDhcpsnoop.ifList);
    dhcpsnoop_list_init(&gDhcpsnoop.serverList);
    gDhcpsnoop.ifMax = 4;
    gDhcpsnoop.userMax = 8;
    gDhcpsnoop.serverMax = 4;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.ifFreeList, &gDhcpsnoop.ifPool, sizeof(DhcpsnoopIf),
                               gDhcpsnoop.ifMax) != 0 ||
        dhcpsnoop_memlist_init(&gDhcpsnoop.userFreeList, &gDhcpsnoop.userPool,
                               sizeof(DhcpsnoopUser), gDhcpsnoop.userMax) != 0 ||
        dhcpsnoop_memlist_init(&gDhcpsnoop.serverFreeList, &gDhcpsnoop.serverPool,
                               sizeof(DhcpsnoopServer), gDhcpsnoop.serverMax) != 0)
        abort();
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;

    /* a port and a VLAN interface, so that received bindings are counted */
    dhcpsnoop_if_add(3);
    DhcpsnoopIf *vlan = dhcpsnoop_if_add(100);
    vlan->isVlanIf = 1;
    dhcpsnoop_if_set_field(vlan, ifflag::VID_MASK, ifflag::VID_SHIFT, 10);

    SwitchModel &m = sim_model();
    m.reset();
    m.hwScalars[53] = 1; /* not Master */
    m.hwScalars[54] = 0; /* Slave */
}

size_t chain_length(const DhcpsnoopList *head)
{
    size_t n = 0;
    for (const DhcpsnoopList *e = head->next; e != head; e = e->next)
        n++;
    return n;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    /* the byte dumps go to standard output */
    if (!freopen("/dev/null", "w", stdout))
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fresh_tables();
    QorTextPair d{const_cast<uint8_t *>(data), uint32_t(size)};
    dhcpsnoop_sync_pkt_recv(&d);

    /* every node is either in a table or free */
    size_t users = 0;
    for (auto &h : gDhcpsnoop.userHash)
        users += chain_length(&h);
    if (users + chain_length(&gDhcpsnoop.userFreeList) != gDhcpsnoop.userMax)
        abort();
    if (chain_length(&gDhcpsnoop.serverList) + chain_length(&gDhcpsnoop.serverFreeList) !=
        gDhcpsnoop.serverMax)
        abort();
    /* a Slave never programs hardware or sends */
    if (!sim_model().hwUserCalls.empty() || !sim_model().scalarSyncs.empty())
        abort();
    return 0;
}
