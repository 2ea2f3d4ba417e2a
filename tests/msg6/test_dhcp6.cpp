/* DHCPv6: parser bounds and odd cases, address types, options 18 and 37; the
 * receive path itself is driven whole by the path tests. */
#include <cstring>

#include "daemon_fixture.h"
#include "dhcp6snoop.h"
#include "dhcpsnoop_user.h"
#include "frame6_helpers.h"
#include "frame_helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;

Dhcp6Frame solicit() { return Dhcp6Frame().opt(1, {0, 1, 0, 1, 1, 2, 3, 4}); }

} // namespace

using Dhcp6ParseTest = DaemonTest;

TEST_F(Dhcp6ParseTest, RecordsTheOptionsItActsOnAndRefusesOddFrames)
{
    Dhcp6Frame f = solicit();
    f.srcIp = ip6("fe80:1234::1");
    f.opt(18, {1}).opt(18, {2, 2}).opt(37, {0, 0, 0, 9});
    f.options = cat({f.options, ia_na6(1, {}), ia_ta6(2, {})});
    ParsedFrame p;
    ASSERT_EQ(parse_frame(p, f.build(), nullptr), 0);
    /* the embedded scope index is cleared in the frame itself */
    EXPECT_EQ(memcmp(p.info.ipHdr + 8, ip6("fe80::1").data(), 16), 0);
    EXPECT_EQ(p.info.interfaceIdOpt[3], 2); /* the last occurrence */
    EXPECT_NE(p.info.remoteIdOpt, nullptr);
    ASSERT_EQ(p.info.iaCount, 2u);
    EXPECT_EQ(p.info.iaOpts[1][1], 4);

    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    const char *relayMsg = "Relay-server message, stop process!";
    struct Case {
        const char *what;
        std::function<void(Dhcp6Frame &)> edit;
        int rc;
        const char *message = nullptr;
        std::function<void(Bytes &)> spoil = {}; /* of the built frame */
    } cases[] = {
        {"hop-by-hop before UDP", [](Dhcp6Frame &f) { f.nextHeader = 0, f.ext = {17, 0, 0, 0, 0, 0, 0, 0}; }, -1},
        {"fragment", [](Dhcp6Frame &f) { f.nextHeader = 44, f.ext = {17, 0, 0, 0, 0, 0, 0, 0}; }, -1},
        {"not UDP", [](Dhcp6Frame &f) { f.nextHeader = 6, f.ext = {0, 0, 0, 0, 0, 0, 0, 0}; }, -1},
        {"source port 548", [](Dhcp6Frame &f) { f.sport = 548, f.dport = 547; }, -1},
        {"trailing padding", [](Dhcp6Frame &f) { f.pad = 10; }, 0},
        {"relay-forward", [](Dhcp6Frame &f) { f.type = 12; }, -1, relayMsg},
        {"relay-reply", [](Dhcp6Frame &f) { f.type = 13; }, -1, relayMsg},
        {"one byte short of the payload length", [](Dhcp6Frame &) {}, -1,
         "Packet validate: total length is error!", [](Bytes &b) { b.pop_back(); }},
        {"UDP length above the payload length", [](Dhcp6Frame &) {}, -1,
         "Packet validate: udp length is error!", [](Bytes &b) { b[14 + 40 + 5]++; }},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        model().debugText.clear();
        Dhcp6Frame f = solicit();
        c.edit(f);
        Bytes bytes = f.build();
        if (c.spoil)
            c.spoil(bytes);
        EXPECT_EQ(parse_frame(p, bytes, nullptr), c.rc);
        if (c.message) {
            EXPECT_EQ(model().debugCount(c.message), 1u);
        }
        if (c.rc == 0) {
            EXPECT_EQ(p.info.frameLen, bytes.size() - f.pad);
        }
    }
    /* without the full parse, only the port test */
    f = solicit();
    f.type = 12;
    fill_rxpkt(p.rx, f.build(), nullptr, 0, 0, 0, 14);
    EXPECT_EQ(dhcpsnoop_packet_parse(&p.rx, &p.info, 0), 0);
    EXPECT_EQ(p.info.dhcpMsg, nullptr);
}

TEST_F(Dhcp6ParseTest, AtMostSixtyFourIaOptionsAndWalksStayInTheBuffer)
{
    Dhcp6Frame f = solicit();
    for (uint32_t i = 0; i < 65; i++)
        f.options = cat({f.options, ia_ta6(i, {})});
    ParsedFrame p;
    ASSERT_EQ(parse_frame(p, f.build(), nullptr), 0);
    EXPECT_EQ(p.info.iaCount, 64u);
    EXPECT_EQ(p.info.iaOpts[63][7], 63);

    /* an option whose length runs past everything */
    f.options = {0, 3, 0xFF, 0xFF, 1, 2};
    EXPECT_EQ(parse_frame(p, f.build(), nullptr), 0);
    EXPECT_EQ(p.info.iaCount, 1u);

    /* headers that would lie past the frame buffer */
    fill_rxpkt(p.rx, solicit().build(), nullptr, 0, 0, 0, 2030);
    p.rx.data[2030] = 0x60;
    EXPECT_EQ(dhcpsnoop_packet_parse(&p.rx, &p.info, 1), -1);
    Dhcp6Frame h = solicit();
    h.nextHeader = 60;
    h.ext = {60, 255, 0, 0, 0, 0, 0, 0};
    Bytes bytes = h.build();
    bytes.resize(2048, 60);
    EXPECT_EQ(parse_frame(p, bytes, nullptr), -1);
}

TEST_F(Dhcp6ParseTest, AddressTypesAndOptionFinder)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"2001:db8::1", 0x1},  {"3fff::", 0x1},     {"c000::1", 0x1},   {"ff01::1", 0x12},
        {"ff02::1:2", 0x22},   {"ff05::1:3", 0x42}, {"ff0e::1", 0x2},   {"ff12::1", 0x2},
        {"fe80::1", 0x21},     {"febf::1", 0x21},   {"fec0::1", 0x41},  {"e000::1", 0x2000},
        {"::1:0:0:1", 0x2000}, {"::ffff:1.2.3.4", 0x1000}, {"::1:0:1:2", 0x2000},
        {"::", 0x0},           {"::1", 0x11},       {"::1.2.3.4", 0x81},
    };
    for (auto &[addr, type] : cases)
        EXPECT_EQ(ipv6_addr_type(ip6(addr).data()), type) << addr;

    Bytes area = cat({opt6(1, {1, 2, 3}), opt6(5, {9}), opt6(5, {8}), Bytes(8, 0)});
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 1, 2), area.data()); /* before any length test */
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 5, 20), area.data() + 7);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 5, 7), nullptr);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 9, 20), nullptr);
    EXPECT_EQ(dhcp6snoop_get_opt(nullptr, 1, 20), nullptr);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 1, 0), nullptr);
}

class Dhcp6OptionTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start();
        SimPort &p = model().addPort(4, "swp4");
        p.mac = {0x02, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0};
        p.location = {1, 2, 3, 0, 0, 0, 7};
        port = enablePort(4);
        parse_frame(p6, solicit().build(), port, 0x0123);
    }
    Bytes opt18() { return Bytes(buf, buf + dhcp6snoop_construct_opt18(&p6.info, buf, sizeof buf)); }
    Bytes opt37() { return Bytes(buf, buf + dhcp6snoop_construct_opt37(&p6.info, buf, sizeof buf)); }

    DhcpsnoopIf *port = nullptr;
    ParsedFrame p6;
    uint8_t buf[512];
};

/* typed VLAN and location, then the port's MAC */
const Bytes DEFAULT_ID = {1, 6, 0, 6, 0x01, 0x23, 1, 2, 7, 3, 2, 8, 0, 6, 0x02, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0};
const Bytes PEN = {0, 0, 0x7E, 0xD9};

TEST_F(Dhcp6OptionTest, LayoutsAndTheFrameLimit)
{
    EXPECT_EQ(opt18(), opt6(18, DEFAULT_ID));
    EXPECT_EQ(opt37(), opt6(37, cat({PEN, DEFAULT_ID})));
    /* a configured string is used as it stands */
    memcpy(port->interfaceId, "port-4", 6);
    port->interfaceIdLen = 6;
    EXPECT_EQ(opt18(), opt6(18, {'p', 'o', 'r', 't', '-', '4'}));
    /* at most 2048 bytes: 2038 + 10 fits, 2021 + 28 does not */
    p6.info.frameLen = 2038;
    EXPECT_EQ(opt18().size(), 10u);
    p6.info.frameLen = 2039;
    EXPECT_EQ(opt18(), Bytes{});
    p6.info.frameLen = 2021;
    EXPECT_EQ(opt37(), Bytes{});
    /* a template that renders nothing: no option 18, a bare option 37 */
    p6.info.frameLen = 100;
    port->interfaceIdFmt = port->remoteId6Fmt = 5;
    port->interfaceIdLen = port->remoteId6Len = 0;
    EXPECT_EQ(opt18(), Bytes{});
    EXPECT_EQ(opt37(), opt6(37, PEN));
}

TEST_F(Dhcp6OptionTest, AClientsOwnOption37StaysAndATwiceCarriedOption18IsStrippedWhole)
{
    port->flags |= ifflag::OPTION18 | ifflag::OPTION37;
    Dhcp6Frame f = solicit().opt(37, {0, 0, 0, 1, 'r'});
    ParsedFrame p;
    parse_frame(p, f.build(), port, 0x0123);
    dhcp6snoop_construct_client_opt(&p.info);
    EXPECT_EQ(p.bytes(), f.opt(18, DEFAULT_ID).build());

    Dhcp6Frame r = solicit();
    r.options = cat({opt6(18, {1, 2, 3}), opt6(2, {9, 9}), opt6(18, {4}), status6(0)});
    parse_frame(p, r.build(), port);
    dhcp6snoop_strip_opt(&p.info, 18);
    r.options = cat({opt6(2, {9, 9}), status6(0)});
    EXPECT_EQ(p.bytes(), r.build());
}

TEST_F(Dhcp6OptionTest, OnlyTheCountedIaOptionsAreLearnt)
{
    Dhcp6Frame f = solicit();
    f.type = 3;
    f.options = cat({ia_na6(1, iaaddr6(ip6("2001:db8::1"), 1, 1)), ia_na6(2, iaaddr6(ip6("2001:db8::2"), 1, 1))});
    ParsedFrame p;
    parse_frame(p, f.build(), port);
    p.info.chaddr = p.rx.data + 6;
    p.info.iaCount = 1;
    dhcp6snoop_process_each_ia_opt(&p.info, 1);
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V6;
    memcpy(key.ipAddr, ip6("2001:db8::2").data(), 16);
    EXPECT_EQ(dhcpsnoop_user_lookup(&key), nullptr);
    memcpy(key.ipAddr, ip6("2001:db8::1").data(), 16);
    EXPECT_NE(dhcpsnoop_user_lookup(&key), nullptr);
}
