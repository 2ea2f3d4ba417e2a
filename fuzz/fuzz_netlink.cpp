/*
 * On three snooped interfaces (two ports and an aggregate) and a VLAN
 * interface, input byte 0 chooses: 0, the rest is a netlink datagram to a
 * Master with bindings of every kind, some in hardware; else a sync buffer to
 * a Slave, which never programs hardware or sends.  No read may leave the
 * input; the tables stay whole.  Seeds: gen_corpus.py netlink (and sync-*).
 */
#include <algorithm>
#include <vector>

#include "dhcpsnoop_notify.h"
#include "fuzz_state.h"

namespace {

DhcpsnoopIf *snooped(uint32_t ifIndex)
{
    DhcpsnoopIf *e = dhcpsnoop_if_add(ifIndex);
    if (!e)
        abort();
    e->flags |= ifflag::IN_USE;
    dhcpsnoop_if_set_field(e, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, 1);
    return e;
}

void binding(uint8_t last, uint8_t type, uint32_t ifIndex, uint16_t vid, uint8_t hwFlags,
             uint32_t gateway)
{
    DhcpsnoopUserKey key;
    memset(&key, 0, sizeof key);
    key.ipType = last == 99 ? DHCPSNOOP_IPTYPE_V6 : DHCPSNOOP_IPTYPE_V4;
    key.ipAddr[0] = 10;
    key.ipAddr[3] = last;
    DhcpsnoopUser *u = dhcpsnoop_user_table_add(&key);
    if (!u)
        abort();
    u->userType = type;
    u->bindState = DHCPSNOOP_BIND_BOUND;
    u->ifIndex = ifIndex;
    u->vid = u->origVid = vid;
    u->mac[5] = last;
    u->macMark = DHCPSNOOP_MAC_MARK;
    u->gateway = gateway;
    u->hwFlags = hwFlags;
    if (hwFlags & DHCPSNOOP_HW_IPSG)
        u->ipsgSource = 2, u->ipsgCheckItems = 0x90;
    if (hwFlags & DHCPSNOOP_HW_DAI)
        u->daiSource = 1, u->daiCheckItems = 0xC0;
    if (type == DHCPSNOOP_USER_DYNAMIC) /* as learning counts it */
        for (DhcpsnoopIf *e : {dhcpsnoop_if_lookup(ifIndex), dhcpsnoop_if_lookup_by_vid(vid)})
            if (e)
                e->curUser++;
}

void fresh_state(bool slave)
{
    fuzz_restart(false);
    SwitchModel &m = sim_model();
    m.hwScalars[53] = slave; /* 0: Master, hardware is programmed and copies are sent */
    m.hwScalars[45] = 1;
    m.addPort(3, "p3").location = {1, 2, 3, 0, 0, 0, 5};
    m.addPort(4, "p4").location = {1, 2, 4, 0, 0, 0, 6};
    m.addPort(5, "agg5").location = {1, 3, 5, 0, 0, 0, 5};
    m.addVlanIf(100, 10, "vlan10");
    m.ipsg[3] = {0, 1, 0x90};
    m.ipsg[100] = {0, 1, 0xA0};
    m.dai[4] = {0, 1, 0xC0};
    m.dai[7] = {0, 1, 0x80};
    m.cardAnswers[DHCPSNOOP_CARD_STATE] = 0;
    m.slotAnswers[DHCPSNOOP_SLOT_STATE] = 1;
    if (dhcpsnoop_init_ex(6, 12, 2, 3, nullptr, ipsgIfGetApi, arpAntiAttackIfGetApi) != 0)
        abort();
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;

    snooped(3);
    snooped(4);
    snooped(5);
    DhcpsnoopIf *vlan = snooped(100);
    vlan->isVlanIf = 1;
    dhcpsnoop_if_set_field(vlan, ifflag::VID_MASK, ifflag::VID_SHIFT, 10);
    if (slave)
        return;
    binding(1, DHCPSNOOP_USER_DYNAMIC, 3, 10, DHCPSNOOP_HW_IPSG, 0x0100000a);
    binding(2, DHCPSNOOP_USER_DYNAMIC, 3, 10, 0, 0);
    binding(3, DHCPSNOOP_USER_STATIC, 4, 10, DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, 0);
    binding(4, DHCPSNOOP_USER_DYNAMIC, 5, 20, DHCPSNOOP_HW_DAI, 0x0100000a);
    binding(5, DHCPSNOOP_USER_IPSG, 3, 10, 0, 0);
    binding(99, DHCPSNOOP_USER_DYNAMIC, 4, 10, 0, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const bool slave = data[0] != 0;
    fresh_state(slave);
    data++, size--;
    if (slave) {
        SwitchModel &m = sim_model();
        m.hwUserCalls.clear();
        m.scalarSyncs.clear();
        QorTextPair d{const_cast<uint8_t *>(data), uint32_t(size)};
        dhcpsnoop_sync_pkt_recv(&d);
        fuzz_check_tables(false);
        if (!m.hwUserCalls.empty() || !m.scalarSyncs.empty())
            abort();
        return 0;
    }
    /* the loop reads at most one frame buffer's worth; the copy is exactly
     * as long as the datagram, so any read past it is caught */
    std::vector<uint8_t> datagram(data, data + std::min<size_t>(size, DHCPSNOOP_FRAME_MAX));
    dhcpsnoop_notify_recv(datagram.data(), int32_t(datagram.size()));
    fuzz_check_tables();
    return 0;
}
