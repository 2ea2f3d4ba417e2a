/* DHCPv4 through the daemon: frames enter through the fake packet sockets and
 * the loop; the frames that leave are compared whole, with the bindings, the
 * hardware records and the counters they leave behind. */
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cstring>

#include "daemon_fixture.h"
#include "dhcpsnoop_user.h"
#include "frame_helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t CLIENT_PORT = 1, SERVER_PORT = 2, OTHER_PORT = 3;
constexpr uint16_t VLAN = 10;
constexpr uint32_t SERVER_IP = 0xC0000201;  /* 192.0.2.1 */
constexpr uint32_t CLIENT_IP = 0xC0000264;  /* 192.0.2.100 */
constexpr uint32_t GATEWAY_IP = 0xC00002FE; /* 192.0.2.254 */
const std::array<uint8_t, 6> CLIENT_MAC{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::array<uint8_t, 6> SERVER_MAC{0x02, 0xAA, 0xAA, 0xAA, 0xAA, 0x01};

struct Out {
    uint32_t ifIndex;
    Bytes bytes;
    bool operator==(const Out &o) const { return ifIndex == o.ifIndex && bytes == o.bytes; }
};

/* Option `code`'s data in a frame without tags (empty when absent). */
Bytes option(const Bytes &f, uint8_t code)
{
    for (auto &o : dhcp4_options(f.data(), f.size(), 14))
        if (o.code == code)
            return o.data;
    return {};
}

class PathTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        model().hwScalars[53] = 1; /* role None */
        model().hwScalars[54] = 1;
        start(0, 16);
        model().vlanMembers[VLAN] = {CLIENT_PORT, SERVER_PORT, OTHER_PORT};
        client = enablePort(CLIENT_PORT);
        server = enablePort(SERVER_PORT);
        server->flags |= ifflag::TRUSTED;
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        sys().selectAdvancesClock = false;
    }

    /* One frame in on a port, one loop pass; the frames that left. */
    std::vector<Out> inject(uint32_t port, const Dhcp4Frame &frame, uint16_t outerVid = VLAN)
    {
        FakeFrame f;
        f.bytes = frame.build();
        f.ingress = port;
        f.outerVid = outerVid;
        f.l2HdrLen = uint8_t(frame.l2Len());
        sys().frames4.push_back(f);
        sys().sent.clear();
        dhcpsnoop_main_pass();
        std::vector<Out> out;
        for (auto &s : sys().sent) {
            struct sockaddr_ll ll {};
            memcpy(&ll, s.addr.data(), std::min(s.addr.size(), sizeof ll));
            out.push_back({uint32_t(ll.sll_ifindex), s.bytes});
        }
        return out;
    }

    /* A client message; with `ciaddr` it names its address there, else in option 50. */
    Dhcp4Frame fromClient(uint8_t type, uint32_t ciaddr = 0, std::array<uint8_t, 6> mac = CLIENT_MAC,
                          uint32_t ip = CLIENT_IP)
    {
        Dhcp4Frame f;
        f.src = f.chaddr = mac;
        f.ciaddr = ciaddr;
        f.msgType(type);
        if (type == 3 && !ciaddr)
            f.opt(50, ipv4(ip)).opt(54, ipv4(SERVER_IP));
        return f.end();
    }

    /* A server reply, not yet ended: `extra` options (e.g. option 82) follow. */
    Dhcp4Frame fromServer(uint8_t type, uint32_t lease = 3600, uint32_t serverId = SERVER_IP)
    {
        Dhcp4Frame f;
        f.src = SERVER_MAC;
        f.dst = f.chaddr = CLIENT_MAC;
        f.op = 2;
        f.sport = 67;
        f.dport = 68;
        f.srcIp = SERVER_IP;
        f.dstIp = CLIENT_IP;
        if (type != 6)
            f.yiaddr = CLIENT_IP;
        f.msgType(type).opt(54, ipv4(serverId));
        if (type == 5 || type == 2)
            f.opt(51, ipv4(lease)).opt(3, ipv4(GATEWAY_IP));
        return f;
    }

    DhcpsnoopUser *binding(uint32_t ip = CLIENT_IP)
    {
        DhcpsnoopUserKey key{};
        key.ipType = DHCPSNOOP_IPTYPE_V4;
        memcpy(key.ipAddr, ipv4(ip).data(), 4);
        return dhcpsnoop_user_lookup(&key);
    }

    /* `f` with option 82 of `data` before its end option. */
    static Bytes with82(Dhcp4Frame f, const Bytes &data)
    {
        f.options.pop_back();
        return f.opt(82, data).end().build();
    }

    DhcpsnoopIf *client = nullptr, *server = nullptr;
};

} // namespace

TEST_F(PathTest, DoraBindsTheClientAndKeepsRepliesOnItsPort)
{
    client->flags |= ifflag::OPTION82;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    model().ipsg[CLIENT_PORT] = {0, 1, DHCPSNOOP_CHECK_IP | DHCPSNOOP_CHECK_MAC};
    enablePort(OTHER_PORT); /* untrusted: never gets client frames */

    /* DISCOVER: out of the trusted port only, option 82 added */
    auto out = inject(CLIENT_PORT, fromClient(1));
    ASSERT_EQ(out.size(), 1u);
    Bytes o82 = option(out[0].bytes, 82);
    ASSERT_FALSE(o82.empty());
    EXPECT_EQ(out[0], (Out{SERVER_PORT, with82(fromClient(1), o82)}));

    /* OFFER without a binding and without a relay: flooded to the client side as it came */
    Dhcp4Frame offer = fromServer(2).opt(82, o82).end();
    out = inject(SERVER_PORT, offer);
    EXPECT_EQ(out, (std::vector<Out>{{CLIENT_PORT, offer.build()}, {OTHER_PORT, offer.build()}}));

    /* REQUEST: a provisional binding, forwarded to the server */
    out = inject(CLIENT_PORT, fromClient(3));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0], (Out{SERVER_PORT, with82(fromClient(3), o82)}));
    DhcpsnoopUser *u = binding();
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_REQUESTED);
    EXPECT_EQ(u->leaseTime, 60u);
    EXPECT_EQ(u->ifIndex, CLIENT_PORT);
    EXPECT_EQ(u->vid, VLAN);
    EXPECT_EQ(memcmp(u->mac, CLIENT_MAC.data(), 6), 0);

    /* ACK: bound with the server's lease, installed, unicast without option 82 */
    size_t hwBefore = model().hwUserCalls.size();
    out = inject(SERVER_PORT, fromServer(5, 7200).opt(82, o82).end());
    EXPECT_EQ(out, (std::vector<Out>{{CLIENT_PORT, fromServer(5, 7200).end().build()}}));
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_BOUND);
    EXPECT_EQ(u->leaseTime, 7200u);
    /* the gateway as address bytes, in the event beside the client's and in its text */
    EXPECT_EQ(memcmp(&u->gateway, ipv4(GATEWAY_IP).data(), 4), 0);
    ASSERT_FALSE(model().netlinkSends.empty());
    const Bytes &ev = model().netlinkSends.back().record;
    ASSERT_EQ(ev.size(), 72u);
    EXPECT_EQ(Bytes(ev.begin() + 36, ev.begin() + 40), ipv4(CLIENT_IP));
    EXPECT_EQ(Bytes(ev.begin() + 52, ev.begin() + 56), ipv4(GATEWAY_IP));
    EXPECT_EQ(model().debugCount("ip 192.0.2.100, gateway 192.0.2.254.\r\n"), 1u);
    ASSERT_EQ(model().hwUserCalls.size(), hwBefore + 1);
    const SimHwUserCall &hw = model().hwUserCalls.back();
    EXPECT_EQ(hw.ifIndex, CLIENT_PORT);
    EXPECT_EQ(hw.op, 0x3E800DFu);
    EXPECT_EQ(memcmp(hw.record.data(), CLIENT_MAC.data(), 6), 0);
    EXPECT_EQ(memcmp(hw.record.data() + 16, ipv4(CLIENT_IP).data(), 4), 0);
    EXPECT_EQ(hw.record[37], 0x80); /* IP source guard rule */
    EXPECT_EQ(u->hwFlags & DHCPSNOOP_HW_IPSG, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(model().logCount("[DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 192.0.2.100"), 1u);

    /* the lease runs out: the first scan at or after its end removes it */
    sys().now += 7200;
    dhcpsnoop_main_pass();
    EXPECT_EQ(binding(), nullptr);
    EXPECT_EQ(model().hwUserCalls.back().op, 0x3E800E0u);
}

TEST_F(PathTest, RogueServerOnAnUntrustedPortIsDroppedCountedAndStillLearned)
{
    gDhcpsnoop.serverLearn = 1;
    DhcpsnoopIf *rogue = enablePort(OTHER_PORT);
    for (uint8_t type : {2, 5, 6})
        EXPECT_TRUE(inject(OTHER_PORT, fromServer(type).end()).empty()) << int(type);
    EXPECT_EQ(rogue->counters[DHCPSNOOP_CNT_UNTRUSTED_REPLY], 3u);
    EXPECT_NE(dhcpsnoop_server_lookup(SERVER_IP, VLAN, OTHER_PORT), nullptr);
    EXPECT_EQ(binding(), nullptr);
    gDhcpsnoop.serverLearn = 0;
    inject(OTHER_PORT, fromServer(2).end(), 20);
    EXPECT_EQ(dhcpsnoop_server_lookup(SERVER_IP, 20, OTHER_PORT), nullptr);
}

TEST_F(PathTest, RelayingInterfaceSendsUdpAndUndoesTheRelayOnTheReply)
{
    const uint32_t relay = 0xC0000A01, server2 = 0xC0000B01;
    client->relayAddr = relay;
    client->serverIp[0] = SERVER_IP;
    client->serverIp[2] = server2;

    inject(CLIENT_PORT, fromClient(1));
    Dhcp4Frame relayed = fromClient(1);
    relayed.giaddr = relay;
    const Bytes frame = relayed.build();
    const Bytes message(frame.begin() + 42, frame.end()); /* only the DHCP message */
    std::vector<std::pair<uint32_t, Bytes>> udp;
    for (auto &s : sys().sent) {
        if (s.fd != gDhcpsnoop.udpSock)
            continue;
        struct sockaddr_in to {};
        memcpy(&to, s.addr.data(), std::min(s.addr.size(), sizeof to));
        EXPECT_EQ(ntohs(to.sin_port), 67);
        udp.push_back({ntohl(to.sin_addr.s_addr), s.bytes});
        /* sent from the relay address */
        struct cmsghdr c;
        struct in_pktinfo pi;
        ASSERT_GE(s.control.size(), CMSG_LEN(sizeof pi));
        memcpy(&c, s.control.data(), sizeof c);
        memcpy(&pi, s.control.data() + CMSG_LEN(0), sizeof pi);
        EXPECT_EQ(c.cmsg_level, IPPROTO_IP);
        EXPECT_EQ(c.cmsg_type, IP_PKTINFO);
        EXPECT_EQ(ntohl(pi.ipi_spec_dst.s_addr), relay);
    }
    EXPECT_EQ(udp, (std::vector<std::pair<uint32_t, Bytes>>{{SERVER_IP, message}, {server2, message}}));
    EXPECT_NE(dhcpsnoop_mac_user_lookup(CLIENT_MAC.data()), nullptr);

    /* the server's OFFER comes back to the relay address: from it, to port 68 of the
     * client's address, or broadcast when asked for or when there is no address */
    struct Case {
        uint16_t flags;
        uint32_t yiaddr;
        bool broadcast;
    } cases[] = {{0, CLIENT_IP, false}, {0x8000, CLIENT_IP, true}, {0, 0, true}};
    for (auto &c : cases) {
        Dhcp4Frame offer = fromServer(2).end();
        offer.giaddr = offer.dstIp = relay;
        offer.dport = 67;
        offer.flags = c.flags;
        offer.yiaddr = c.yiaddr;
        Dhcp4Frame want = offer;
        want.srcIp = relay;
        want.dport = 68;
        if (c.broadcast) {
            want.dstIp = 0xFFFFFFFF;
            want.dst.fill(0xFF);
        } else {
            want.dstIp = CLIENT_IP;
        }
        EXPECT_EQ(inject(SERVER_PORT, offer), (std::vector<Out>{{CLIENT_PORT, want.build()}}));
    }

    /* the REQUEST turns the MAC user into a binding */
    inject(CLIENT_PORT, fromClient(3));
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(CLIENT_MAC.data()), nullptr);
    EXPECT_NE(binding(), nullptr);
}

TEST_F(PathTest, NakReleaseAndDeclineRemoveBindings)
{
    /* NAK from another server keeps the binding but still reaches its port */
    inject(CLIENT_PORT, fromClient(3));
    ASSERT_NE(binding(), nullptr);
    auto out = inject(SERVER_PORT, fromServer(6, 0, 0xC0000299).end());
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, CLIENT_PORT);
    EXPECT_NE(binding(), nullptr);
    /* NAK from the server of the binding deletes it */
    EXPECT_EQ(inject(SERVER_PORT, fromServer(6).end()).size(), 1u);
    EXPECT_EQ(binding(), nullptr);

    for (uint8_t type : {4, 7}) {
        inject(CLIENT_PORT, fromClient(3));
        ASSERT_NE(binding(), nullptr);
        EXPECT_EQ(inject(CLIENT_PORT, fromClient(type, CLIENT_IP)).size(), 1u);
        EXPECT_EQ(binding(), nullptr) << int(type);
    }

    /* a static binding survives a RELEASE */
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    memcpy(key.ipAddr, ipv4(CLIENT_IP).data(), 4);
    dhcpsnoop_user_table_add(&key)->userType = DHCPSNOOP_USER_STATIC;
    client->flags |= ifflag::USER_CHECK;
    EXPECT_EQ(inject(CLIENT_PORT, fromClient(7, CLIENT_IP)).size(), 1u);
    EXPECT_NE(binding(), nullptr);
}

TEST_F(PathTest, ClientChecksDropAndCount)
{
    client->flags |= ifflag::SRC_MAC_CHECK | ifflag::USER_CHECK;
    Dhcp4Frame spoof = fromClient(1);
    spoof.src = {0x02, 0, 0, 0, 0, 0x99};
    EXPECT_TRUE(inject(CLIENT_PORT, spoof).empty());
    EXPECT_EQ(client->counters[DHCPSNOOP_CNT_SRC_MAC], 1u);

    inject(CLIENT_PORT, fromClient(3));
    ASSERT_NE(binding(), nullptr);
    /* a renewing REQUEST (ciaddr set) from another port does not pass */
    DhcpsnoopIf *other = enablePort(OTHER_PORT);
    other->flags |= ifflag::USER_CHECK;
    Dhcp4Frame renew = fromClient(3);
    renew.ciaddr = renew.srcIp = CLIENT_IP;
    EXPECT_TRUE(inject(OTHER_PORT, renew).empty());
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_USER_MISMATCH], 1u);
    EXPECT_EQ(binding()->ifIndex, CLIENT_PORT);
    /* from its own port it passes; without ciaddr no check is made */
    EXPECT_EQ(inject(CLIENT_PORT, renew).size(), 1u);
    EXPECT_EQ(inject(OTHER_PORT, fromClient(1)).size(), 1u);
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_USER_MISMATCH], 1u);

    /* with no trusted port client frames go nowhere */
    server->flags &= ~ifflag::TRUSTED;
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(1)).empty());
}

TEST_F(PathTest, LimitsAndPoolExhaustionStopTheRequest)
{
    /* a REQUEST that names no address goes on but binds nothing */
    Dhcp4Frame bare;
    bare.src = bare.chaddr = CLIENT_MAC;
    EXPECT_EQ(inject(CLIENT_PORT, bare.msgType(3).end()).size(), 1u);
    EXPECT_EQ(binding(0), nullptr);
    EXPECT_EQ(client->curUser, 0);

    client->maxUser = 1;
    inject(CLIENT_PORT, fromClient(3));
    ASSERT_NE(binding(), nullptr);
    EXPECT_EQ(client->curUser, 1);
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(3, 0, {2, 0, 0, 0, 0, 2}, CLIENT_IP + 1)).empty());
    EXPECT_EQ(binding(CLIENT_IP + 1), nullptr);
    EXPECT_EQ(client->counters[DHCPSNOOP_CNT_TABLE_FULL], 1u);
    /* the platform's share of the pool is a port's limit from the start */
    model().addPort(OTHER_PORT, "swp3").maxUsers = 2;
    EXPECT_EQ(enablePort(OTHER_PORT)->maxUser, 2);

    /* the pool holds 16 nodes in all */
    client->maxUser = 100;
    int forwarded = 0;
    for (uint8_t i = 0; i < 20; i++)
        forwarded += int(inject(CLIENT_PORT, fromClient(3, 0, {2, 0, 0, 0, 1, i}, CLIENT_IP + 10 + i)).size());
    EXPECT_EQ(forwarded, 15);
    EXPECT_EQ(client->counters[DHCPSNOOP_CNT_TABLE_FULL], 6u);
}

TEST_F(PathTest, BindingGuardKeepsABoundEntryFromOtherPortsAndClients)
{
    const std::array<uint8_t, 6> ATTACKER{0x02, 0x66, 0, 0, 0, 0x66};
    DhcpsnoopIf *other = enablePort(OTHER_PORT);
    struct Case {
        const char *what;
        uint8_t guard;
        uint32_t port;
        bool attackerMac;
        uint8_t type;
        bool kept; /* the client's binding as it was */
    } cases[] = {
        {"REQUEST for its address from another port", 1, OTHER_PORT, true, 3, true},
        {"RELEASE of its address from another port", 1, OTHER_PORT, true, 7, true},
        {"DECLINE with its MAC from another port", 1, OTHER_PORT, false, 4, true},
        {"RELEASE from its port with another MAC", 1, CLIENT_PORT, true, 7, true},
        {"its own RELEASE", 1, CLIENT_PORT, false, 7, false},
        {"guard off: another port's REQUEST takes it", 0, OTHER_PORT, true, 3, false},
        {"guard off: another port's RELEASE removes it", 0, OTHER_PORT, true, 7, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (DhcpsnoopUser *old = binding())
            dhcpsnoop_user_delete(old);
        gDhcpsnoop.bindingGuard = 0;
        inject(CLIENT_PORT, fromClient(3));
        inject(SERVER_PORT, fromServer(5).end());
        ASSERT_NE(binding(), nullptr);
        ASSERT_EQ(binding()->bindState, DHCPSNOOP_BIND_BOUND);

        gDhcpsnoop.bindingGuard = c.guard;
        auto out = inject(c.port, fromClient(c.type, c.type == 3 ? 0 : CLIENT_IP,
                                             c.attackerMac ? ATTACKER : CLIENT_MAC));
        DhcpsnoopIf *in = c.port == CLIENT_PORT ? client : other;
        DhcpsnoopUser *u = binding();
        bool intact = u && u->ifIndex == CLIENT_PORT && u->bindState == DHCPSNOOP_BIND_BOUND &&
                      memcmp(u->mac, CLIENT_MAC.data(), 6) == 0;
        EXPECT_EQ(intact, c.kept);
        EXPECT_EQ(out.size(), c.kept ? 0u : 1u);
        EXPECT_EQ(in->counters[DHCPSNOOP_CNT_GUARD], c.kept ? 1u : 0u);
        in->counters[DHCPSNOOP_CNT_GUARD] = 0;
    }
}

TEST_F(PathTest, GrownFramesCarryNoStaleBytesAndAFullFrameNeverGrows)
{
    Dhcp4Frame big = fromClient(1);
    big.options.pop_back();
    big.opt(43, Bytes(250, 0xEE)).opt(43, Bytes(250, 0xEE)).end();
    ASSERT_EQ(inject(CLIENT_PORT, big).size(), 1u);
    client->flags |= ifflag::OPTION82;
    auto out = inject(CLIENT_PORT, fromClient(1));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].bytes, with82(fromClient(1), option(out[0].bytes, 82)));

    /* a 2048-byte frame is forwarded as it is: no room for option 82 */
    Dhcp4Frame full = fromClient(1);
    full.options.pop_back();
    for (int i = 0; i < 6; i++)
        full.opt(43, Bytes(250, uint8_t(i)));
    full.opt(43, Bytes(DHCPSNOOP_FRAME_MAX - full.build().size() - 3, 7)).end();
    ASSERT_EQ(full.build().size(), size_t(DHCPSNOOP_FRAME_MAX));
    EXPECT_EQ(inject(CLIENT_PORT, full), (std::vector<Out>{{SERVER_PORT, full.build()}}));
}

TEST_F(PathTest, TagsFollowTheEgressPort)
{
    struct Case {
        const char *what;
        std::vector<uint16_t> inTags, outTags;
        uint32_t untagged;
        uint16_t tpid;
        bool router;
    } cases[] = {
        {"untagged to tagged port", {}, {VLAN}, 0, 0, false},
        {"untagged to tagged port with its own TPID", {}, {VLAN}, 0, 0x88A8, false},
        {"untagged to untagged port", {}, {}, 1, 0, false},
        {"tagged to untagged port", {VLAN}, {}, 1, 0, false},
        {"tagged to tagged port", {VLAN}, {VLAN}, 0, 0, false},
        {"tagged to a router port", {VLAN}, {}, 0, 0, true},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        model().ports[SERVER_PORT].untagged = c.untagged;
        model().ports[SERVER_PORT].tpid = c.tpid;
        server->flags = c.router ? server->flags | ifflag::ROUTER_MODE : server->flags & ~ifflag::ROUTER_MODE;
        Dhcp4Frame f = fromClient(1);
        f.vlans = c.inTags;
        Dhcp4Frame want = f;
        want.vlans = c.outTags;
        Bytes w = want.build();
        if (c.tpid)
            w[12] = uint8_t(c.tpid >> 8), w[13] = uint8_t(c.tpid);
        EXPECT_EQ(inject(CLIENT_PORT, f), (std::vector<Out>{{SERVER_PORT, w}}));
    }
    /* an excluded port receives nothing, unless it is a router port */
    model().ports[SERVER_PORT].excluded = 1;
    EXPECT_EQ(inject(CLIENT_PORT, fromClient(1)).size(), 1u);
    server->flags &= ~ifflag::ROUTER_MODE;
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(1)).empty());
}

TEST_F(PathTest, VlanInterfaceVariants)
{
    const uint32_t memberPort = 7, vlanIf = 50;
    const uint16_t vid = 100;
    model().addPort(memberPort, "swp7");
    model().addVlanIf(vlanIf, vid, "vlan100");
    model().vlanMembers[vid] = {memberPort, SERVER_PORT};
    ASSERT_EQ(dhcpsnoop_if_enable(vlanIf), 0u);

    /* a REQUEST on a member port without its own entry: learnt with the
     * member port and the VLAN interface's VLAN, sent out of trusted ports */
    auto out = inject(memberPort, fromClient(3), vid);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, SERVER_PORT);
    DhcpsnoopUser *u = binding();
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->ifIndex, memberPort);
    EXPECT_EQ(u->vid, vid);

    /* the ACK's binding port has no entry: flooded to the VLAN's members,
     * but never back to the server's port */
    out = inject(SERVER_PORT, fromServer(5).end(), vid);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, memberPort);
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_BOUND);

    /* once the member port snoops by itself its frames are the port's */
    enablePort(memberPort);
    out = inject(memberPort, fromClient(1), vid);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, SERVER_PORT);
}

TEST_F(PathTest, DispatchTraceAndFamilyCheck)
{
    const char *mismatch = "Interface version IPv6 and packet type IPv4 mismatch!";
    dhcpsnoop_if_version_set(client, 2);
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(1)).empty());
    EXPECT_EQ(model().debugCount(mismatch), 1u);
    dhcpsnoop_if_set_field(client, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, 0);
    inject(CLIENT_PORT, fromClient(1));
    EXPECT_EQ(model().debugCount(mismatch), 2u);
    dhcpsnoop_if_version_set(client, 1);

    /* op 3 is traced and dropped */
    Dhcp4Frame odd = fromClient(9);
    odd.op = 3;
    model().debugText.clear();
    EXPECT_TRUE(inject(CLIENT_PORT, odd).empty());
    EXPECT_EQ(model().debugCount("Dhcp reply packet, type value 9(unknow)."), 1u);
    EXPECT_EQ(model().debugCount("Process pkt end."), 1u);

    /* no option 53: type 0, still a client frame */
    Dhcp4Frame bare = fromClient(1);
    bare.options = {255};
    model().debugText.clear();
    EXPECT_EQ(inject(CLIENT_PORT, bare).size(), 1u);
    EXPECT_EQ(model().debugCount("Dhcp request packet, type value 0(unknow)."), 1u);

    /* a frame the parser refuses */
    FakeFrame f;
    f.bytes.assign(60, 0);
    f.ingress = CLIENT_PORT;
    sys().frames4.push_back(f);
    model().debugText.clear();
    dhcpsnoop_main_pass();
    EXPECT_EQ(model().debugCount("Parse packet error, stop process!"), 1u);
}
