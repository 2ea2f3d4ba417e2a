/* DHCPv6: parser, options 18 and 37, and exchanges through the daemon; edited
 * frames are compared whole with frames built independently. */
#include <linux/if_packet.h>

#include <cstring>

#include "daemon_fixture.h"
#include "dhcp6snoop.h"
#include "dhcpsnoop_user.h"
#include "frame6_helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;

/* A record pointing into its own buffer as the IPv4 parser leaves it for IPv6. */
struct Parsed {
    DhcpsnoopRxPkt rx{};
    DhcpsnoopPktInfo info{};
    int rc = 0;
    Bytes bytes() const { return Bytes(rx.data, rx.data + info.frameLen); }
};

void parse6(Parsed &p, const Bytes &frame, size_t l2 = 14, uint32_t full = 1, DhcpsnoopIf *ifp = nullptr)
{
    memset(&p.rx, 0, sizeof p.rx);
    memcpy(p.rx.data, frame.data(), std::min(frame.size(), sizeof p.rx.data));
    memset(&p.info, 0, sizeof p.info);
    p.info.ifp = ifp;
    p.info.frame = p.rx.data;
    p.info.frameLen = p.info.rxLen = uint32_t(frame.size());
    p.info.l2HdrLen = uint32_t(l2);
    p.info.ipHdr = p.rx.data + l2;
    p.info.ethType = 0x86DD;
    p.rc = dhcp6snoop_packet_parse(&p.info, full);
}

Dhcp6Frame solicit() { return Dhcp6Frame().opt(1, {0, 1, 0, 1, 1, 2, 3, 4}); }

Dhcp6Frame reply6(const Bytes &options)
{
    Dhcp6Frame f;
    f.type = 7;
    f.sport = 547;
    f.dport = 546;
    f.options = options;
    return f;
}

} // namespace

using Dhcp6ParseTest = DaemonTest;

TEST_F(Dhcp6ParseTest, AcceptsAndRecordsTheOptionsItActsOn)
{
    Dhcp6Frame f = solicit();
    f.srcIp = ip6("fe80:1234::1");
    f.opt(13, {0, 2, 'x'}).opt(18, {1}).opt(18, {2, 2}).opt(37, {0, 0, 0, 9});
    f.options = cat({f.options, ia_na6(1, iaaddr6(ip6("2001:db8::5"), 100, 200)), ia_ta6(2, {})});
    Parsed p;
    parse6(p, f.build());
    ASSERT_EQ(p.rc, 0);
    /* the embedded scope index is cleared in the frame itself */
    EXPECT_EQ(memcmp(p.info.ipHdr + 8, ip6("fe80::1").data(), 16), 0);
    EXPECT_EQ(p.info.msgType, 1u);
    EXPECT_EQ(p.info.statusCode, 2u);
    ASSERT_NE(p.info.interfaceIdOpt, nullptr);
    EXPECT_EQ(p.info.interfaceIdOpt[3], 2); /* the last occurrence */
    ASSERT_NE(p.info.remoteIdOpt, nullptr);
    EXPECT_EQ(p.info.iaCount, 2u);
    EXPECT_EQ(dhcp6_be16(p.info.iaOpts[0]), 3u);
    EXPECT_EQ(dhcp6_be16(p.info.iaOpts[1]), 4u);
    EXPECT_EQ(p.info.ipHdrLen, 40u);
    EXPECT_EQ(p.info.udpLen, p.info.ipBodyLen);
    EXPECT_EQ(p.info.dhcpLen, p.info.udpLen - 8);
    EXPECT_EQ(p.info.udpHdr, p.info.ipHdr + 40);
}

TEST_F(Dhcp6ParseTest, RejectionsAndAcceptedOddCases)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    const char *relayMsg = "Relay-server message, stop process!";
    struct Case {
        const char *what;
        std::function<void(Dhcp6Frame &)> edit;
        int rc;
        const char *message;
        std::function<void(Bytes &)> spoil; /* of the built frame */
    } cases[] = {
        {"hop-by-hop before UDP", [](Dhcp6Frame &f) { f.nextHeader = 0, f.ext = {17, 0, 0, 0, 0, 0, 0, 0}; }, -1},
        {"fragment", [](Dhcp6Frame &f) { f.nextHeader = 44, f.ext = {17, 0, 0, 0, 0, 0, 0, 0}; }, -1},
        {"not UDP", [](Dhcp6Frame &f) { f.nextHeader = 6, f.ext = {0, 0, 0, 0, 0, 0, 0, 0}; }, -1},
        {"server to client ports", [](Dhcp6Frame &f) { f.sport = 547, f.dport = 546; }, 0},
        {"source port 548", [](Dhcp6Frame &f) { f.sport = 548, f.dport = 547; }, -1},
        {"trailing padding", [](Dhcp6Frame &f) { f.pad = 10; }, 0},
        {"relay-forward", [](Dhcp6Frame &f) { f.type = 12; }, -1, relayMsg},
        {"relay-reply", [](Dhcp6Frame &f) { f.type = 13; }, -1, relayMsg},
        {"no options", [](Dhcp6Frame &f) { f.options.clear(); }, 0},
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
        Parsed p;
        parse6(p, bytes);
        EXPECT_EQ(p.rc, c.rc);
        if (c.message)
            EXPECT_EQ(model().debugCount(c.message), 1u);
        if (c.rc == 0)
            EXPECT_EQ(p.info.frameLen, bytes.size() - f.pad);
    }

    /* without the full parse, only the port test */
    Dhcp6Frame relay = solicit();
    relay.type = 12;
    Parsed p;
    parse6(p, relay.build(), 14, 0);
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.info.dhcpMsg, nullptr);
}

TEST_F(Dhcp6ParseTest, AtMostSixtyFourIaOptionsAndWalksStayInTheBuffer)
{
    Dhcp6Frame f = solicit();
    for (uint32_t i = 0; i < 65; i++)
        f.options = cat({f.options, ia_ta6(i, {})});
    Parsed p;
    parse6(p, f.build());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.info.iaCount, 64u);
    EXPECT_EQ(p.info.iaOpts[63][7], 63);

    /* an option whose length runs past everything */
    f.options = {0, 3, 0xFF, 0xFF, 1, 2};
    parse6(p, f.build());
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.info.iaCount, 1u);

    /* headers that would lie past the frame buffer */
    parse6(p, solicit().build(), 2030);
    EXPECT_EQ(p.rc, -1);
    Dhcp6Frame h = solicit();
    h.nextHeader = 60;
    h.ext = {60, 255, 0, 0, 0, 0, 0, 0};
    Bytes bytes = h.build();
    bytes.resize(2048, 60);
    parse6(p, bytes);
    EXPECT_EQ(p.rc, -1);
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
        parse6(p6, solicit().build(), 14, 1, port);
        p6.info.svlan = 0x0123;
    }
    Bytes opt18() { return Bytes(buf, buf + dhcp6snoop_construct_opt18(&p6.info, buf, sizeof buf)); }
    Bytes opt37() { return Bytes(buf, buf + dhcp6snoop_construct_opt37(&p6.info, buf, sizeof buf)); }

    DhcpsnoopIf *port = nullptr;
    Parsed p6;
    uint8_t buf[512];
};

/* typed VLAN and location, then the port's MAC */
const Bytes DEFAULT_ID = {1, 6, 0, 6, 0x01, 0x23, 1, 2, 7, 3, 2, 8, 0, 6, 0x02, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0};
const Bytes PEN = {0, 0, 0x7E, 0xD9};

TEST_F(Dhcp6OptionTest, LayoutsForBothOptions)
{
    EXPECT_EQ(opt18(), opt6(18, DEFAULT_ID));
    EXPECT_EQ(opt37(), opt6(37, cat({PEN, DEFAULT_ID})));
    /* a configured string is used as it stands */
    memcpy(port->interfaceId, "port-4", 6);
    port->interfaceIdLen = 6;
    EXPECT_EQ(opt18(), opt6(18, {'p', 'o', 'r', 't', '-', '4'}));
    /* a template that renders nothing: no option 18, a bare option 37 */
    port->interfaceIdFmt = port->remoteId6Fmt = 5;
    port->interfaceIdLen = port->remoteId6Len = 0;
    EXPECT_EQ(opt18(), Bytes{});
    EXPECT_EQ(opt37(), opt6(37, PEN));
}

TEST_F(Dhcp6OptionTest, NoOptionWouldPassTheFrameLimit)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    p6.info.frameLen = 2030; /* 2030 + 4 + 20 = 2054 */
    EXPECT_EQ(opt18(), Bytes{});
    EXPECT_EQ(model().debugCount("don't insert option18."), 1u);
    p6.info.frameLen = 2024; /* exactly 2048 */
    EXPECT_EQ(opt18().size(), 24u);
    p6.info.frameLen = 2021;
    EXPECT_EQ(opt37(), Bytes{});
    EXPECT_EQ(model().debugCount("don't insert option37."), 1u);
}

TEST_F(Dhcp6OptionTest, InsertAndStripKeepLengthsAndChecksumTrue)
{
    port->flags |= ifflag::OPTION18 | ifflag::OPTION37;
    Dhcp6Frame f = solicit().opt(37, {0, 0, 0, 1, 'r'}); /* the client's own option 37 stays */
    Parsed p;
    parse6(p, f.build(), 14, 1, port);
    ASSERT_EQ(p.rc, 0);
    p.info.svlan = 0x0123;
    dhcp6snoop_construct_client_opt(&p.info);
    EXPECT_EQ(p.bytes(), f.opt(18, DEFAULT_ID).build());

    /* a reply carrying option 18 twice loses both */
    parse6(p, reply6(cat({opt6(18, {1, 2, 3}), opt6(2, {9, 9}), opt6(18, {4}), status6(0)})).build(), 14, 1, port);
    ASSERT_EQ(p.rc, 0);
    dhcp6snoop_strip_opt(&p.info, 18);
    EXPECT_EQ(p.bytes(), reply6(cat({opt6(2, {9, 9}), status6(0)})).build());
}

namespace {
constexpr uint32_t C_PORT = 1, S_PORT = 2, O_PORT = 3;
const std::array<uint8_t, 6> C_MAC{0x02, 0xC1, 0, 0, 0, 0x01};
} // namespace

class Dhcp6PathTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        model().hwScalars[53] = 1;
        model().hwScalars[54] = 1;
        start(0, 32);
        client = enablePort(C_PORT);
        server = enablePort(S_PORT);
        other = enablePort(O_PORT);
        for (DhcpsnoopIf *e : {client, server, other})
            dhcpsnoop_if_version_set(e, 3);
        server->flags |= ifflag::TRUSTED;
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        sys().selectAdvancesClock = false;
    }

    std::vector<std::pair<uint32_t, Bytes>> inject(uint32_t port, const Dhcp6Frame &f)
    {
        FakeFrame ff;
        ff.bytes = f.build();
        ff.ingress = port;
        ff.sllIfindex = int(port);
        ff.outerVid = 20;
        sys().frames6.push_back(ff);
        sys().sent.clear();
        dhcpsnoop_main_pass();
        std::vector<std::pair<uint32_t, Bytes>> out;
        for (auto &s : sys().sent) {
            struct sockaddr_ll ll;
            memcpy(&ll, s.addr.data(), sizeof ll);
            out.push_back({uint32_t(ll.sll_ifindex), s.bytes});
        }
        return out;
    }

    Dhcp6Frame fromClient(uint8_t type, const Bytes &options)
    {
        Dhcp6Frame f;
        f.src = C_MAC;
        f.type = type;
        f.options = options;
        return f;
    }

    Dhcp6Frame reply(const Bytes &options)
    {
        Dhcp6Frame f = reply6(options);
        f.src = {0x02, 0x5E, 0, 0, 0, 1};
        f.dst = C_MAC;
        f.srcIp = ip6("fe80::5e");
        f.dstIp = ip6("fe80::c1");
        return f;
    }

    DhcpsnoopUser *binding(const char *addr)
    {
        DhcpsnoopUserKey key{};
        key.ipType = DHCPSNOOP_IPTYPE_V6;
        memcpy(key.ipAddr, ip6(addr).data(), 16);
        return dhcpsnoop_user_lookup(&key);
    }

    DhcpsnoopIf *client = nullptr, *server = nullptr, *other = nullptr;
};

TEST_F(Dhcp6PathTest, RequestAndReplyLearnAndBindAddresses)
{
    client->flags |= ifflag::OPTION18 | ifflag::OPTION37;
    const char *addrs[] = {"2001:db8::10", "2001:db8::11"};
    auto ia = ia_na6(7, cat({iaaddr6(ip6(addrs[0]), 100, 200), iaaddr6(ip6(addrs[1]), 100, 200)}));
    auto out = inject(C_PORT, fromClient(3, ia));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].first, S_PORT);
    /* the client's port: the VLAN, no location, the port's MAC (the model's default) */
    const Bytes &toServer = out[0].second;
    ASSERT_EQ(find_opts6(toServer, 14, 18).size(), 1u);
    size_t o18 = find_opts6(toServer, 14, 18)[0];
    const Bytes relayOpts(toServer.begin() + long(o18), toServer.end());
    ASSERT_EQ(relayOpts.size(), 24u + 28u);
    EXPECT_EQ(toServer, fromClient(3, cat({ia, relayOpts})).build());
    EXPECT_EQ(Bytes(relayOpts.begin() + 24, relayOpts.begin() + 32), cat({{0, 37, 0, 24}, PEN}));
    for (const char *a : addrs) {
        DhcpsnoopUser *u = binding(a);
        ASSERT_NE(u, nullptr) << a;
        EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_REQUESTED);
        EXPECT_EQ(u->leaseTime, 60u);
        EXPECT_EQ(u->ifIndex, C_PORT);
        EXPECT_EQ(memcmp(u->mac, C_MAC.data(), 6), 0);
    }

    /* the REPLY echoes options 18 and 37: it goes to the client's port only,
     * without them, and binds both addresses */
    auto replyIa = ia_na6(7, cat({iaaddr6(ip6(addrs[0]), 1800, 3600), iaaddr6(ip6(addrs[1]), 1800, 3600)}));
    out = inject(S_PORT, reply(cat({replyIa, relayOpts})));
    EXPECT_EQ(out, (std::vector<std::pair<uint32_t, Bytes>>{{C_PORT, reply(replyIa).build()}}));
    for (const char *a : addrs) {
        DhcpsnoopUser *u = binding(a);
        ASSERT_NE(u, nullptr) << a;
        EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_BOUND);
        EXPECT_EQ(u->leaseTime, 3600u);
    }
    /* IPv6 bindings never produce a user event */
    EXPECT_TRUE(model().netlinkSends.empty());

    /* with the binding guard, another port's REQUEST or RELEASE of a bound
     * address is dropped and counted, and the binding stays the client's */
    gDhcpsnoop.bindingGuard = 1;
    for (uint8_t type : {3, 8}) {
        Dhcp6Frame spoof = fromClient(type, ia_na6(9, iaaddr6(ip6(addrs[1]), 0, 0)));
        spoof.src = {0x02, 0x66, 0, 0, 0, 0x66};
        EXPECT_TRUE(inject(O_PORT, spoof).empty()) << int(type);
        ASSERT_NE(binding(addrs[1]), nullptr) << int(type);
        EXPECT_EQ(binding(addrs[1])->ifIndex, C_PORT);
    }
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_GUARD], 2u);

    /* a zero lifetime removes one; a RELEASE the other */
    inject(S_PORT, reply(ia_na6(7, iaaddr6(ip6(addrs[0]), 0, 0))));
    EXPECT_EQ(binding(addrs[0]), nullptr);
    inject(C_PORT, fromClient(8, ia_na6(7, iaaddr6(ip6(addrs[1]), 0, 0))));
    EXPECT_EQ(binding(addrs[1]), nullptr);
}

TEST_F(Dhcp6PathTest, FailureStatusesAndIaTa)
{
    /* a failed IA is skipped entirely */
    inject(C_PORT, fromClient(3, ia_na6(1, cat({status6(2), iaaddr6(ip6("2001:db8::20"), 1, 1)}))));
    EXPECT_EQ(binding("2001:db8::20"), nullptr);
    /* a failure status inside one address also holds for the later ones */
    inject(C_PORT, fromClient(3, cat({ia_na6(1, iaaddr6(ip6("2001:db8::21"), 1, 1, status6(3))),
                                      ia_na6(2, iaaddr6(ip6("2001:db8::22"), 1, 1))})));
    EXPECT_EQ(binding("2001:db8::21"), nullptr);
    EXPECT_EQ(binding("2001:db8::22"), nullptr);
    /* IA_TA addresses are learnt as well */
    inject(C_PORT, fromClient(1, ia_ta6(3, iaaddr6(ip6("2001:db8::23"), 1, 1))));
    EXPECT_NE(binding("2001:db8::23"), nullptr);
    /* RENEW is forwarded without IA processing */
    EXPECT_EQ(inject(C_PORT, fromClient(5, ia_na6(4, iaaddr6(ip6("2001:db8::24"), 1, 1)))).size(), 1u);
    EXPECT_EQ(binding("2001:db8::24"), nullptr);
    /* a RELEASE leaves a static entry alone */
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V6;
    memcpy(key.ipAddr, ip6("2001:db8::25").data(), 16);
    dhcpsnoop_user_table_add(&key)->userType = DHCPSNOOP_USER_STATIC;
    inject(C_PORT, fromClient(8, ia_na6(5, iaaddr6(ip6("2001:db8::25"), 1, 1))));
    EXPECT_NE(binding("2001:db8::25"), nullptr);
}

TEST_F(Dhcp6PathTest, UntrustedRepliesAreDroppedAndUnknownClientsFlooded)
{
    inject(C_PORT, fromClient(3, ia_na6(1, iaaddr6(ip6("2001:db8::30"), 1, 1))));
    const Dhcp6Frame r = reply(ia_na6(1, iaaddr6(ip6("2001:db8::30"), 1, 900)));
    /* on an untrusted port nothing is sent or bound */
    EXPECT_TRUE(inject(O_PORT, r).empty());
    EXPECT_EQ(binding("2001:db8::30")->bindState, DHCPSNOOP_BIND_REQUESTED);
    /* without relay information the reply floods the VLAN */
    std::vector<std::pair<uint32_t, Bytes>> flood = {{C_PORT, r.build()}, {O_PORT, r.build()}};
    EXPECT_EQ(inject(S_PORT, r), flood);
    EXPECT_EQ(binding("2001:db8::30")->leaseTime, 900u);
    /* an option 18 that matches no interface: flooded too, option kept */
    const Dhcp6Frame unknown = reply(opt6(18, {9, 9, 9}));
    flood = {{C_PORT, unknown.build()}, {O_PORT, unknown.build()}};
    EXPECT_EQ(inject(S_PORT, unknown), flood);

    /* ADVERTISE and RECONFIGURE take the server path */
    for (uint8_t type : {2, 10}) {
        Dhcp6Frame adv = reply({});
        adv.type = type;
        model().debugText.clear();
        inject(O_PORT, adv);
        EXPECT_EQ(model().debugCount("Port state is untrust, stop process!"), 1u) << int(type);
    }
}
