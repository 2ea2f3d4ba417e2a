/*
 * Arbitrary frames into the DHCPv6 parser, then the option editors and the
 * IA processing on what it accepted.  The first bytes choose the layer-2
 * header length and the interface's settings.
 */
#include "dhcp6snoop.h"
#include "fuzz_state.h"

namespace {

DhcpsnoopIf *setup()
{
    static DhcpsnoopIf *port = nullptr;
    if (port)
        return port;
    fuzz_fresh_state(4, 32, 4);
    sim_model().hwScalars[53] = 1;
    sim_model().hwScalars[54] = 1;
    sim_model().addPort(1, "swp1");
    sim_model().addPort(2, "swp2");
    port = dhcpsnoop_if_add(1);
    port->flags = ifflag::IN_USE | ifflag::TRUSTED;
    port->maxUser = 8;
    DhcpsnoopIf *other = dhcpsnoop_if_add(2);
    other->flags = ifflag::IN_USE | ifflag::OPTION18 | ifflag::OPTION37;
    return port;
}

void clear_users()
{
    for (int b = 0; b < DHCPSNOOP_HASH_SIZE; b++) {
        DhcpsnoopList *head = &gDhcpsnoop.userHash[b];
        while (head->next != head) {
            DhcpsnoopList *n = head->next;
            dhcpsnoop_list_unlink(n);
            dhcpsnoop_list_insert_after(&gDhcpsnoop.userFreeList, n);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    DhcpsnoopIf *port = setup();
    if (size < 4)
        return 0;
    static const char *const templates[] = {"%s.%c.%d:%N", "%d", "%%%", "abc%"};
    uint8_t l2 = data[0];
    uint8_t knobs = data[1];
    uint8_t mode = data[2] % 7;
    uint8_t msgType = data[3];
    data += 4;
    size -= 4;

    DhcpsnoopRxPkt rx;
    memset(&rx, 0, sizeof rx);
    size_t n = size < sizeof rx.data ? size : sizeof rx.data;
    memcpy(rx.data, data, n);
    DhcpsnoopPktInfo info;
    memset(&info, 0, sizeof info);
    info.ifp = port;
    info.ifIndex = 1;
    info.frame = rx.data;
    info.frameLen = info.rxLen = uint32_t(n);
    info.l2HdrLen = (knobs & 0x80) ? l2 * 16u : l2;
    info.ipHdr = rx.data + (info.l2HdrLen < sizeof rx.data ? info.l2HdrLen : 0);
    info.ethType = 0x86DD;
    info.svlan = uint16_t(knobs & 0x0F);
    if (info.l2HdrLen >= sizeof rx.data)
        return 0;
    if (dhcp6snoop_packet_parse(&info, 1) != 0)
        return 0;

    port->flags = ifflag::IN_USE | ifflag::TRUSTED;
    if (knobs & 0x10)
        port->flags |= ifflag::OPTION18;
    if (knobs & 0x20)
        port->flags |= ifflag::OPTION37;
    port->interfaceIdFmt = mode;
    port->remoteId6Fmt = uint8_t((mode + 3) % 7);
    const char *t = templates[msgType % 4];
    port->interfaceIdLen = uint8_t(strlen(t));
    memcpy(port->interfaceId, t, port->interfaceIdLen);
    port->remoteId6Len = (knobs & 0x40) ? 0 : port->interfaceIdLen;
    memcpy(port->remoteId6, t, port->remoteId6Len);
    info.msgType = msgType % 12;

    dhcp6snoop_construct_client_opt(&info);
    dhcp6snoop_process_each_ia_opt(&info, knobs & 1);
    dhcp6snoop_get_if_from_opt(&info, 18);
    dhcp6snoop_get_if_from_opt(&info, 37);
    dhcp6snoop_strip_opt(&info, 18);
    dhcp6snoop_strip_opt(&info, 37);
    dhcp6snoop_process_each_ia_opt(&info, 0);
    dhcp6snoop_get_udp_checksum(&info);
    clear_users();
    return 0;
}
