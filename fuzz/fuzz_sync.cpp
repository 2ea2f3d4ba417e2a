/*
 * The Slave's reading of sync buffers: any bytes from the peer are applied or
 * skipped without a read outside the buffer, the tables hold together, and a
 * Slave never programs hardware or sends.
 */
#include "fuzz_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_restart(false);
    SwitchModel &m = sim_model();
    m.hwScalars[53] = 1; /* not Master */
    m.hwScalars[54] = 0; /* Slave */
    if (dhcpsnoop_init_ex(4, 8, 4, 3, nullptr, ipsgIfGetApi, arpAntiAttackIfGetApi) != 0)
        abort();
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    /* a port and a VLAN interface, so that received bindings are counted */
    dhcpsnoop_if_add(3);
    DhcpsnoopIf *vlan = dhcpsnoop_if_add(100);
    vlan->isVlanIf = 1;
    dhcpsnoop_if_set_field(vlan, ifflag::VID_MASK, ifflag::VID_SHIFT, 10);

    QorTextPair d{const_cast<uint8_t *>(data), uint32_t(size)};
    dhcpsnoop_sync_pkt_recv(&d);
    fuzz_check_tables(false);
    if (!sim_model().hwUserCalls.empty() || !sim_model().scalarSyncs.empty())
        abort();
    return 0;
}
