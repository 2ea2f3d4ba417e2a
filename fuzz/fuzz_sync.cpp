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
#include "fuzz_state.h"
#include "switch_model.h"

namespace {

void fresh_tables()
{
    fuzz_fresh_state(4, 8, 4);
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

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet_stdout();
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
        users += fuzz_chain_length(&h);
    if (users + fuzz_chain_length(&gDhcpsnoop.userFreeList) != gDhcpsnoop.userMax)
        abort();
    if (fuzz_chain_length(&gDhcpsnoop.serverList) + fuzz_chain_length(&gDhcpsnoop.serverFreeList) !=
        gDhcpsnoop.serverMax)
        abort();
    /* a Slave never programs hardware or sends */
    if (!sim_model().hwUserCalls.empty() || !sim_model().scalarSyncs.empty())
        abort();
    return 0;
}
