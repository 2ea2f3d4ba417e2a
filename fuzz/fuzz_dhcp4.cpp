/*
 * Arbitrary bytes as a received DHCPv4 frame: parse it, and when the parse
 * succeeds run every option editor on the result.
 *
 * Input layout: 8 control bytes, then the frame.
 *   0     layer-2 header length (low byte)
 *   1     bit 7: byte 0 plus the low nibble as a 12-bit length (reaches past
 *         the buffer); bits 4-5: EtherType 0x0800, 0x86DD, 0x0800, 0x1234;
 *         bit 6: captured length = the whole 2048-byte buffer
 *   2     bits 0-2: ingress port (1-4 exist); bit 3: header-only parse;
 *         bits 4-5: debug flags
 *   3, 4  outer and inner VLAN id
 *   5     bits 0-2 circuit-id mode, 3-5 remote-id mode of the interface;
 *         bit 6 sub-option 9 on; bit 7 the switch has a host name
 *   6     bits 0-1 option-82 policy, 2-4 option-82 mode, 5-7 global modes
 *   7     two bits each: circuit-id, remote-id, sub-option 9 and global texts
 * fuzz/gen_corpus.py dhcp4 writes the seeds in this layout.
 */
#include <string>
#include <utility>

#include "dhcpsnoop_msg.h"
#include "fuzz_state.h"

namespace {

constexpr size_t CONTROL_LEN = 8;

const std::string kTexts[4] = {
    "",
    "%s.%c.%d:%N",
    "eth0/1 %D|%e|%i|%y|%S|%r|%l|%Q|%%x|% 100%|%",
    std::string(64, 'x') + "%N%N%N%N%N%N%N%N%d%d%d%d%d%d%d%d%D%e" + std::string(30, '%'),
};

DhcpsnoopRxPkt rxpkt;
DhcpsnoopIf port;

void set_text(uint8_t *dst, uint8_t &len, const std::string &s)
{
    size_t n = s.size() < DHCPSNOOP_TEXT_MAX ? s.size() : DHCPSNOOP_TEXT_MAX;
    memset(dst, 0, DHCPSNOOP_TEXT_MAX);
    memcpy(dst, s.data(), n);
    len = uint8_t(n);
}

void set_global(DhcpsnoopOptFmt &fmt, uint16_t mode, const std::string &s)
{
    memset(&fmt, 0, sizeof fmt);
    fmt.mode = mode;
    fmt.len = uint16_t(s.size() < sizeof fmt.text ? s.size() : sizeof fmt.text);
    memcpy(fmt.text, s.data(), fmt.len);
}

void setup_once()
{
    static bool done = false;
    if (std::exchange(done, true))
        return;
    fuzz_fresh_state(4, 8, 4);
    SwitchModel &m = sim_model();
    for (uint32_t i = 1; i <= 4; i++) {
        SimPort &p = m.addPort(i, "ge-0/0/" + std::to_string(i));
        p.location = {i, 2 * i, 3 * i, 0xFFFFFFFFu, 5, 6, 7};
    }
    m.ports[4].name = std::string(200, 'n'); /* longer than the text buffer */
    m.scalarTexts[66] = "site-a";
    m.scalarTexts[74] = std::string(128, 'e');

    dhcpsnoop_list_insert_after(&gDhcpsnoop.ifList, &port.link);
}

void configure(const uint8_t *c)
{
    DhcpsnoopList link = port.link;
    memset(&port, 0, sizeof port);
    port.link = link;
    port.ifIndex = c[2] & 7;
    port.flags = ifflag::IN_USE | ifflag::OPTION82 | (1u << ifflag::VERSION_SHIFT);
    port.circuitIdFmt = c[5] & 7;
    port.remoteIdFmt = (c[5] >> 3) & 7;
    if (c[5] & 0x40)
        port.flags |= ifflag::SUBOPT9;
    dhcpsnoop_if_set_field(&port, ifflag::POLICY_MASK, ifflag::POLICY_SHIFT, c[6] & 3);
    dhcpsnoop_if_set_field(&port, ifflag::MODE_MASK, ifflag::MODE_SHIFT, (c[6] >> 2) & 7);
    for (int i = 0; i < 6; i++)
        port.mac[i] = uint8_t(0x10 + i);
    set_text(port.circuitId, port.circuitIdLen, kTexts[c[7] & 3]);
    set_text(port.remoteId, port.remoteIdLen, kTexts[(c[7] >> 2) & 3]);
    set_text(port.subopt9, port.subopt9Len, kTexts[(c[7] >> 4) & 3]);

    uint16_t gmode = uint16_t((c[6] >> 5) & 7);
    const std::string &gtext = kTexts[(c[7] >> 6) & 3];
    std::string longText = gtext + gtext + gtext + gtext + gtext;
    set_global(gDhcpsnoop.circuitIdFmt, gmode, longText);
    set_global(gDhcpsnoop.remoteIdFmt, gmode, gtext);

    SwitchModel &m = sim_model();
    m.hasHostname = (c[5] & 0x80) != 0;
    m.hostname = (c[7] & 0x40) ? std::string(200, 'h') : "switch-1";
    m.debugText.clear();
    gDhcpsnoop.debugFlags = uint8_t((c[2] >> 4) & 3);
}

void run_editors(DhcpsnoopPktInfo &info)
{
    static const uint8_t bootFile[253] = {'b', 'o', 'o', 't'};
    static const uint8_t vendorData[246] = {1, 2, 3};
    DhcpsnoopPktInfo saved = info;

    dhcpsnoop_process_option82(&info);

    info = saved;
    uint8_t option[768] = {};
    uint32_t n = dhcpsnoop_construct_opt82(&info, option, sizeof option);
    if (n)
        dhcpsnoop_insert_opt82(&info, option, n);
    dhcpsnoop_append_subopt9(&info);
    dhcpsnoop_update_checksum(&info, 0, 0);

    uint32_t mode = dhcpsnoop_if_mode(&port);
    if (info.remoteId)
        (void)dhcpsnoop_remote_id_cmp(&info, info.remoteId, &port, mode ? mode : 3);
    size_t bootLen = 1 + (info.frameLen % 253);
    size_t vendLen = 1 + (info.udpLen % 246);
    dhcpsnoop_insert_opt67(&info, bootFile, uint32_t(bootLen));
    dhcpsnoop_insert_opt125(&info, vendorData, uint32_t(vendLen));
    dhcpsnoop_strip_option(&info);
    dhcpsnoop_insert_opt67(&info, bootFile, uint32_t(bootLen));
    dhcpsnoop_insert_opt125(&info, vendorData, uint32_t(vendLen));

    uint8_t out[255];
    dhcpsnoop_format_print(&info, gDhcpsnoop.circuitIdFmt.text, gDhcpsnoop.circuitIdFmt.len, out,
                           info.frameLen % 300);
    (void)dhcpsnoop_format_check(port.circuitId, port.circuitIdLen);
    (void)dhcpsnoop_format_check(gDhcpsnoop.circuitIdFmt.text, gDhcpsnoop.circuitIdFmt.len);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < CONTROL_LEN)
        return 0;
    setup_once();
    const uint8_t *c = data;
    configure(c);

    static const uint16_t ethTypes[4] = {0x0800, 0x86DD, 0x0800, 0x1234};
    size_t frameLen = size - CONTROL_LEN;
    if (frameLen > sizeof rxpkt.data)
        frameLen = sizeof rxpkt.data;
    memset(&rxpkt, 0, sizeof rxpkt);
    memcpy(rxpkt.data, data + CONTROL_LEN, frameLen);
    rxpkt.valid = 1;
    rxpkt.len = uint16_t((c[1] & 0x40) ? sizeof rxpkt.data : frameLen);
    rxpkt.inIf = &port;
    rxpkt.ifIndex = c[2] & 7;
    rxpkt.outerVid = c[3];
    rxpkt.innerVid = c[4];
    rxpkt.l2HdrLen = uint16_t((c[1] & 0x80) ? (c[0] | (c[1] & 0x0F) << 8) : c[0]);
    rxpkt.etherType = ethTypes[(c[1] >> 4) & 3];

    DhcpsnoopPktInfo info;
    if (dhcpsnoop_packet_parse(&rxpkt, &info, (c[2] & 8) ? 2 : 1) != 0)
        return 0;
    if (info.dhcpMsg)
        run_editors(info);
    else
        dhcpsnoop_update_checksum(&info, 0, 0);
    return 0;
}
