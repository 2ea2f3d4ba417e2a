/* DHCPv6: parser, options 18 and 37, and exchanges through the daemon. */
#include <linux/if_packet.h>

#include <cstring>

#include "daemon_fixture.h"
#include "dhcp6snoop.h"
#include "dhcpsnoop_user.h"
#include "frame6_helpers.h"

namespace {

/* A record pointing into `buf` as the IPv4 parser leaves it for IPv6. */
struct Parsed {
    DhcpsnoopRxPkt rx{};
    DhcpsnoopPktInfo info{};
    int rc = 0;
};

void parse6(Parsed &p, const std::vector<uint8_t> &frame, size_t l2 = 14, uint32_t full = 1,
            DhcpsnoopIf *ifp = nullptr)
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

Dhcp6Frame solicit()
{
    Dhcp6Frame f;
    f.type = 1;
    f.opt(1, {0, 1, 0, 1, 1, 2, 3, 4});
    return f;
}

} // namespace

using Dhcp6ParseTest = DaemonTest;

TEST_F(Dhcp6ParseTest, AcceptsAndRecordsTheOptionsItActsOn)
{
    Dhcp6Frame f = solicit();
    f.srcIp = ip6("fe80:1234::1");
    f.opt(13, {0, 2, 'x'}).opt(18, {1}).opt(18, {2, 2}).opt(37, {0, 0, 0, 9});
    f.options.insert(f.options.end(), 0, 0);
    auto ia = ia_na6(1, iaaddr6(ip6("2001:db8::5"), 100, 200));
    f.options.insert(f.options.end(), ia.begin(), ia.end());
    auto ta = ia_ta6(2, {});
    f.options.insert(f.options.end(), ta.begin(), ta.end());
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
    struct Case {
        const char *what;
        std::function<void(Dhcp6Frame &)> edit;
        int rc;
        const char *message;
    } cases[] = {
        {"hop-by-hop before UDP", [](Dhcp6Frame &f) { f.nextHeader = 0; f.ext = {17, 0, 0, 0, 0, 0, 0, 0}; }, -1, nullptr},
        {"fragment", [](Dhcp6Frame &f) { f.nextHeader = 44; f.ext = {17, 0, 0, 0, 0, 0, 0, 0}; }, -1, nullptr},
        {"not UDP", [](Dhcp6Frame &f) { f.nextHeader = 6; f.ext = {0, 0, 0, 0, 0, 0, 0, 0}; }, -1, nullptr},
        {"server to client ports", [](Dhcp6Frame &f) { f.sport = 547; f.dport = 546; }, 0, nullptr},
        {"source port 548", [](Dhcp6Frame &f) { f.sport = 548; f.dport = 547; }, -1, nullptr},
        {"trailing padding", [](Dhcp6Frame &f) { f.pad = 10; }, 0, nullptr},
        {"relay-forward", [](Dhcp6Frame &f) { f.type = 12; }, -1, "Relay-server message, stop process!"},
        {"relay-reply", [](Dhcp6Frame &f) { f.type = 13; }, -1, "Relay-server message, stop process!"},
        {"no options", [](Dhcp6Frame &f) { f.options.clear(); }, 0, nullptr},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        model().debugText.clear();
        Dhcp6Frame f = solicit();
        c.edit(f);
        std::vector<uint8_t> bytes = f.build();
        Parsed p;
        parse6(p, bytes);
        EXPECT_EQ(p.rc, c.rc);
        if (c.message) {
            EXPECT_EQ(model().debugCount(c.message), 1u);
        }
        if (c.rc == 0) {
            EXPECT_EQ(p.info.frameLen, bytes.size() - f.pad);
        }
    }

    /* one byte short of the payload length */
    std::vector<uint8_t> bytes = solicit().build();
    bytes.pop_back();
    Parsed p;
    parse6(p, bytes);
    EXPECT_EQ(p.rc, -1);
    EXPECT_EQ(model().debugCount("Packet validate: total length is error!"), 1u);

    /* a UDP length above the payload length */
    bytes = solicit().build();
    bytes[14 + 40 + 5] += 1;
    parse6(p, bytes);
    EXPECT_EQ(p.rc, -1);
    EXPECT_EQ(model().debugCount("Packet validate: udp length is error!"), 1u);

    /* without the full parse, only the port test */
    Dhcp6Frame relay = solicit();
    relay.type = 12;
    parse6(p, relay.build(), 14, 0);
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.info.dhcpMsg, nullptr);
}

TEST_F(Dhcp6ParseTest, AtMostSixtyFourIaOptionsAndWalksStayInTheBuffer)
{
    Dhcp6Frame f = solicit();
    for (uint32_t i = 0; i < 65; i++) {
        auto ia = ia_ta6(i, {});
        f.options.insert(f.options.end(), ia.begin(), ia.end());
    }
    Parsed p;
    parse6(p, f.build());
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.info.iaCount, 64u);
    EXPECT_EQ(p.info.iaOpts[63][7], 63);

    /* an option whose length runs past everything */
    Dhcp6Frame g = solicit();
    g.options = {0, 3, 0xFF, 0xFF, 1, 2};
    parse6(p, g.build());
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.info.iaCount, 1u);

    /* headers that would lie past the frame buffer */
    std::vector<uint8_t> bytes = solicit().build();
    parse6(p, bytes, 2030);
    EXPECT_EQ(p.rc, -1);
    Dhcp6Frame h = solicit();
    h.nextHeader = 60;
    h.ext = {60, 255, 0, 0, 0, 0, 0, 0};
    bytes = h.build();
    bytes.resize(2048, 60);
    parse6(p, bytes);
    EXPECT_EQ(p.rc, -1);
}

TEST_F(Dhcp6ParseTest, AddressTypes)
{
    struct Case {
        const char *addr;
        uint32_t type;
    } cases[] = {
        {"2001:db8::1", 0x1},  {"3fff::", 0x1},     {"c000::1", 0x1},   {"ff01::1", 0x12},
        {"ff02::1:2", 0x22},   {"ff05::1:3", 0x42}, {"ff0e::1", 0x2},   {"ff12::1", 0x2},
        {"fe80::1", 0x21},     {"febf::1", 0x21},   {"fec0::1", 0x41},  {"e000::1", 0x2000},
        {"::1:0:0:1", 0x2000}, {"::ffff:1.2.3.4", 0x1000}, {"::1:0:1:2", 0x2000},
        {"::", 0x0},           {"::1", 0x11},       {"::1.2.3.4", 0x81},
    };
    for (auto &c : cases)
        EXPECT_EQ(ipv6_addr_type(ip6(c.addr).data()), c.type) << c.addr;
}

TEST_F(Dhcp6ParseTest, OptionFinder)
{
    std::vector<uint8_t> area = cat({opt6(1, {1, 2, 3}), opt6(5, {9}), opt6(5, {8})});
    area.resize(area.size() + 8, 0);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 1, 2), area.data()); /* before any length test */
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 5, 20), area.data() + 7);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 5, 7), nullptr);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 9, 20), nullptr);
    EXPECT_EQ(dhcp6snoop_get_opt(nullptr, 1, 20), nullptr);
    EXPECT_EQ(dhcp6snoop_get_opt(area.data(), 1, 0), nullptr);
}

/* ---- options 18 and 37 ---------------------------------------------------- */

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
    }
    DhcpsnoopIf *port = nullptr;
};

TEST_F(Dhcp6OptionTest, DefaultLayoutsForBothOptions)
{
    Parsed p;
    Dhcp6Frame f = solicit();
    parse6(p, f.build(), 14, 1, port);
    p.info.svlan = 0x0123;
    uint8_t buf[512] = {0};
    ASSERT_EQ(dhcp6snoop_construct_opt18(&p.info, buf, sizeof buf), 24u);
    std::vector<uint8_t> want = {0, 18, 0, 20, 1, 6, 0, 6, 0x01, 0x23, 1, 2, 7, 3,
                                 2, 8,  0, 6, 0x02, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0};
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 24), want);

    memset(buf, 0, sizeof buf);
    ASSERT_EQ(dhcp6snoop_construct_opt37(&p.info, buf, sizeof buf), 28u);
    EXPECT_EQ(buf[1], 37);
    EXPECT_EQ(buf[3], 24);
    uint32_t pen = uint32_t(buf[4]) << 24 | buf[5] << 16 | buf[6] << 8 | buf[7];
    EXPECT_EQ(pen, DHCPSNOOP_ENTERPRISE_NUMBER);
    EXPECT_EQ(std::vector<uint8_t>(buf + 8, buf + 28), std::vector<uint8_t>(want.begin() + 4, want.end()));

    /* a configured string is used as it stands */
    memcpy(port->interfaceId, "port-4", 6);
    port->interfaceIdLen = 6;
    memset(buf, 0, sizeof buf);
    ASSERT_EQ(dhcp6snoop_construct_opt18(&p.info, buf, sizeof buf), 10u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf + 4), 6), "port-4");

    /* a template that renders nothing: no option 18, a bare option 37 */
    port->interfaceIdFmt = 5;
    port->interfaceIdLen = 0;
    port->remoteId6Fmt = 5;
    port->remoteId6Len = 0;
    EXPECT_EQ(dhcp6snoop_construct_opt18(&p.info, buf, sizeof buf), 0u);
    EXPECT_EQ(dhcp6snoop_construct_opt37(&p.info, buf, sizeof buf), 8u);
    EXPECT_EQ(buf[3], 4);
}

TEST_F(Dhcp6OptionTest, NoOptionWouldPassTheFrameLimit)
{
    Parsed p;
    parse6(p, solicit().build(), 14, 1, port);
    uint8_t buf[512];
    p.info.frameLen = 2030; /* 2030 + 4 + 20 = 2054 */
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    EXPECT_EQ(dhcp6snoop_construct_opt18(&p.info, buf, sizeof buf), 0u);
    EXPECT_EQ(model().debugCount("don't insert option18."), 1u);
    p.info.frameLen = 2024; /* exactly 2048 */
    EXPECT_EQ(dhcp6snoop_construct_opt18(&p.info, buf, sizeof buf), 24u);
    p.info.frameLen = 2021;
    EXPECT_EQ(dhcp6snoop_construct_opt37(&p.info, buf, sizeof buf), 0u);
    EXPECT_EQ(model().debugCount("don't insert option37."), 1u);
}

TEST_F(Dhcp6OptionTest, InsertAndStripKeepLengthsAndChecksumTrue)
{
    port->flags |= ifflag::OPTION18 | ifflag::OPTION37;
    Dhcp6Frame f = solicit();
    f.opt(37, {0, 0, 0, 1, 'r'}); /* the client's own option 37 stays */
    std::vector<uint8_t> in = f.build();
    Parsed p;
    parse6(p, in, 14, 1, port);
    ASSERT_EQ(p.rc, 0);
    dhcp6snoop_construct_client_opt(&p.info);
    std::vector<uint8_t> out(p.rx.data, p.rx.data + p.info.frameLen);
    EXPECT_EQ(out.size(), in.size() + 24);
    EXPECT_EQ(find_opts6(out, 14, 18).size(), 1u);
    EXPECT_EQ(find_opts6(out, 14, 37).size(), 1u);
    EXPECT_EQ(ip6_payload_len(out.data(), 14), out.size() - 54);
    EXPECT_EQ(udp6_len(out.data(), 14), out.size() - 54);
    EXPECT_TRUE(udp6_checksum_ok(out.data(), 14));

    /* a reply carrying option 18 twice loses both */
    Dhcp6Frame r;
    r.type = 7;
    r.sport = 547;
    r.dport = 546;
    r.opt(18, {1, 2, 3}).opt(2, {9, 9}).opt(18, {4}).opt(13, {0, 0});
    std::vector<uint8_t> reply = r.build();
    parse6(p, reply, 14, 1, port);
    ASSERT_EQ(p.rc, 0);
    dhcp6snoop_strip_opt(&p.info, 18);
    out.assign(p.rx.data, p.rx.data + p.info.frameLen);
    EXPECT_EQ(out.size(), reply.size() - 12);
    EXPECT_TRUE(find_opts6(out, 14, 18).empty());
    EXPECT_EQ(find_opts6(out, 14, 2).size(), 1u);
    EXPECT_EQ(find_opts6(out, 14, 13).size(), 1u);
    EXPECT_EQ(ip6_payload_len(out.data(), 14), out.size() - 54);
    EXPECT_EQ(udp6_len(out.data(), 14), out.size() - 54);
    EXPECT_TRUE(udp6_checksum_ok(out.data(), 14));
}

/* ---- exchanges through the daemon ------------------------------------------- */

namespace {
constexpr uint32_t C_PORT = 1, S_PORT = 2, O_PORT = 3;
constexpr uint16_t V6_VLAN = 20;
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

    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> inject(uint32_t port, const Dhcp6Frame &f)
    {
        FakeFrame ff;
        ff.bytes = f.build();
        ff.ingress = port;
        ff.sllIfindex = int(port);
        ff.outerVid = V6_VLAN;
        ff.l2HdrLen = uint8_t(f.l2Len());
        sys().frames6.push_back(ff);
        sys().sent.clear();
        dhcpsnoop_main_pass();
        std::vector<std::pair<uint32_t, std::vector<uint8_t>>> out;
        for (auto &s : sys().sent) {
            struct sockaddr_ll ll;
            memcpy(&ll, s.addr.data(), sizeof ll);
            out.push_back({uint32_t(ll.sll_ifindex), s.bytes});
        }
        return out;
    }

    Dhcp6Frame fromClient(uint8_t type, const std::vector<uint8_t> &options)
    {
        Dhcp6Frame f;
        f.src = C_MAC;
        f.type = type;
        f.options = options;
        return f;
    }

    Dhcp6Frame reply(const std::vector<uint8_t> &options)
    {
        Dhcp6Frame f;
        f.type = 7;
        f.sport = 547;
        f.dport = 546;
        f.src = {0x02, 0x5E, 0, 0, 0, 1};
        f.dst = C_MAC;
        f.srcIp = ip6("fe80::5e");
        f.dstIp = ip6("fe80::c1");
        f.options = options;
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
    auto ia = ia_na6(7, cat({iaaddr6(ip6("2001:db8::10"), 100, 200), iaaddr6(ip6("2001:db8::11"), 100, 200)}));
    auto out = inject(C_PORT, fromClient(3, ia));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].first, S_PORT);
    std::vector<uint8_t> toServer = out[0].second;
    EXPECT_EQ(find_opts6(toServer, 14, 18).size(), 1u);
    EXPECT_EQ(find_opts6(toServer, 14, 37).size(), 1u);
    EXPECT_TRUE(udp6_checksum_ok(toServer.data(), 14));
    for (const char *a : {"2001:db8::10", "2001:db8::11"}) {
        DhcpsnoopUser *u = binding(a);
        ASSERT_NE(u, nullptr) << a;
        EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_REQUESTED);
        EXPECT_EQ(u->leaseTime, 60u);
        EXPECT_EQ(u->ifIndex, C_PORT);
        EXPECT_EQ(memcmp(u->mac, C_MAC.data(), 6), 0);
    }

    /* the REPLY echoes options 18 and 37: it goes to the client's port only,
     * without them, and binds both addresses */
    size_t o18 = find_opts6(toServer, 14, 18)[0], o37 = find_opts6(toServer, 14, 37)[0];
    std::vector<uint8_t> opt18(toServer.begin() + long(o18), toServer.begin() + long(o18) + 24);
    std::vector<uint8_t> opt37(toServer.begin() + long(o37), toServer.begin() + long(o37) + 28);
    auto replyIa = ia_na6(7, cat({iaaddr6(ip6("2001:db8::10"), 1800, 3600),
                                  iaaddr6(ip6("2001:db8::11"), 1800, 3600)}));
    out = inject(S_PORT, reply(cat({replyIa, opt18, opt37})));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].first, C_PORT);
    EXPECT_TRUE(find_opts6(out[0].second, 14, 18).empty());
    EXPECT_TRUE(find_opts6(out[0].second, 14, 37).empty());
    EXPECT_TRUE(udp6_checksum_ok(out[0].second.data(), 14));
    for (const char *a : {"2001:db8::10", "2001:db8::11"}) {
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
        Dhcp6Frame spoof = fromClient(type, ia_na6(9, iaaddr6(ip6("2001:db8::11"), 0, 0)));
        spoof.src = {0x02, 0x66, 0, 0, 0, 0x66};
        EXPECT_TRUE(inject(O_PORT, spoof).empty()) << int(type);
        ASSERT_NE(binding("2001:db8::11"), nullptr) << int(type);
        EXPECT_EQ(binding("2001:db8::11")->ifIndex, C_PORT);
    }
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_GUARD], 2u);

    /* a zero lifetime removes one; a RELEASE the other */
    inject(S_PORT, reply(ia_na6(7, iaaddr6(ip6("2001:db8::10"), 0, 0))));
    EXPECT_EQ(binding("2001:db8::10"), nullptr);
    inject(C_PORT, fromClient(8, ia_na6(7, iaaddr6(ip6("2001:db8::11"), 0, 0))));
    EXPECT_EQ(binding("2001:db8::11"), nullptr);
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
    auto out = inject(C_PORT, fromClient(5, ia_na6(4, iaaddr6(ip6("2001:db8::24"), 1, 1))));
    EXPECT_EQ(out.size(), 1u);
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
    /* on an untrusted port nothing is sent or bound */
    auto out = inject(O_PORT, reply(ia_na6(1, iaaddr6(ip6("2001:db8::30"), 1, 900))));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(binding("2001:db8::30")->bindState, DHCPSNOOP_BIND_REQUESTED);
    /* without relay information the reply floods the VLAN */
    out = inject(S_PORT, reply(ia_na6(1, iaaddr6(ip6("2001:db8::30"), 1, 900))));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].first, C_PORT);
    EXPECT_EQ(out[1].first, O_PORT);
    EXPECT_EQ(binding("2001:db8::30")->leaseTime, 900u);
    /* an option 18 that matches no interface: flooded too, option kept */
    out = inject(S_PORT, reply(opt6(18, {9, 9, 9})));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(find_opts6(out[0].second, 14, 18).size(), 1u);
}

TEST_F(Dhcp6PathTest, ReconfigureAndAdvertiseGoToTheServerPath)
{
    Dhcp6Frame r = reply({});
    for (uint8_t type : {2, 10}) {
        r.type = type;
        model().debugText.clear();
        inject(O_PORT, r);
        EXPECT_EQ(model().debugCount("Port state is untrust, stop process!"), 1u) << int(type);
    }
}
