/*
 * Arbitrary bytes as one datagram from the netlink socket.  Every input starts
 * from the same small daemon state: three snooped interfaces (a port, a
 * second port and an aggregate) beside a VLAN interface, and a handful of
 * bindings of every kind, some already in hardware.  Whatever the bytes say,
 * no read may leave the datagram and the tables must stay whole.
 *
 * fuzz/gen_corpus_netlink.py writes the seeds (one valid datagram of each
 * kind, in little-endian host order).
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dhcpsnoop.h"
#include "dhcpsnoop_notify.h"
#include "dhcpsnoop_user.h"
#include "fuzz_state.h"
#include "switch_model.h"

namespace {

constexpr uint16_t IF_MAX = 6;
constexpr uint16_t USER_MAX = 12;
constexpr uint16_t SERVER_MAX = 2;

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
}

void fresh_state()
{
    fuzz_fresh_state(IF_MAX, USER_MAX, SERVER_MAX);
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;

    SwitchModel &m = sim_model();
    m.reset();
    m.hwScalars[53] = 0; /* Master: hardware is programmed and copies are sent */
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

    snooped(3);
    snooped(4);
    snooped(5);
    DhcpsnoopIf *vlan = snooped(100);
    vlan->isVlanIf = 1;
    dhcpsnoop_if_set_field(vlan, ifflag::VID_MASK, ifflag::VID_SHIFT, 10);

    binding(1, DHCPSNOOP_USER_DYNAMIC, 3, 10, DHCPSNOOP_HW_IPSG, 0x0100000a);
    binding(2, DHCPSNOOP_USER_DYNAMIC, 3, 10, 0, 0);
    binding(3, DHCPSNOOP_USER_STATIC, 4, 10, DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, 0);
    binding(4, DHCPSNOOP_USER_DYNAMIC, 5, 20, DHCPSNOOP_HW_DAI, 0x0100000a);
    binding(5, DHCPSNOOP_USER_IPSG, 3, 10, 0, 0);
    binding(99, DHCPSNOOP_USER_DYNAMIC, 4, 10, 0, 0);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fresh_state();
    /* the loop reads at most one frame buffer's worth; the copy is exactly
     * as long as the datagram, so any read past it is caught */
    if (size > DHCPSNOOP_FRAME_MAX)
        size = DHCPSNOOP_FRAME_MAX;
    uint8_t *datagram = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (!datagram)
        abort();
    if (size)
        memcpy(datagram, data, size);
    dhcpsnoop_notify_recv(datagram, int32_t(size));
    free(datagram);

    /* every entry is in its table or free, nothing twice */
    size_t users = 0;
    for (auto &h : gDhcpsnoop.userHash)
        users += fuzz_chain_length(&h);
    if (users + fuzz_chain_length(&gDhcpsnoop.userFreeList) != USER_MAX)
        abort();
    if (fuzz_chain_length(&gDhcpsnoop.ifList) + fuzz_chain_length(&gDhcpsnoop.ifFreeList) != IF_MAX)
        abort();
    for (auto &h : gDhcpsnoop.userHash)
        for (DhcpsnoopList *n = h.next; n != &h; n = n->next) {
            const DhcpsnoopUser *u = dhcpsnoop_entry<DhcpsnoopUser>(n);
            /* an installed kind always knows where its items came from */
            if ((u->hwFlags & ~(DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI)) != 0 ||
                (u->userType == DHCPSNOOP_USER_DYNAMIC && u->bindState == DHCPSNOOP_BIND_BOUND &&
                 (u->hwFlags & DHCPSNOOP_HW_IPSG) && u->ipsgSource == 0))
                abort();
        }
    if (gDhcpsnoop.daiStarted > 1)
        abort();
    return 0;
}
