/* Both families through the daemon: frames enter through the fake packet
 * sockets and the loop; the frames that leave are compared whole, with the
 * bindings, hardware records and counters they leave behind. */
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <tuple>

#include "daemon_fixture.h"
#include "dhcpsnoop_user.h"
#include "frame6_helpers.h"
#include "frame_helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Outs = std::vector<std::pair<uint32_t, Bytes>>; /* egress port, frame */
constexpr uint32_t CLIENT_PORT = 1, SERVER_PORT = 2, OTHER_PORT = 3;
constexpr uint16_t VLAN = 10;
constexpr uint32_t SERVER_IP = 0xC0000201;  /* 192.0.2.1 */
constexpr uint32_t CLIENT_IP = 0xC0000264;  /* 192.0.2.100 */
constexpr uint32_t GATEWAY_IP = 0xC00002FE; /* 192.0.2.254 */
const std::array<uint8_t, 6> CLIENT_MAC{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::array<uint8_t, 6> SERVER_MAC{0x02, 0xAA, 0xAA, 0xAA, 0xAA, 0x01};
const std::array<uint8_t, 6> ATTACKER{0x02, 0x66, 0, 0, 0, 0x66};

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
        model().hwScalars[53] = model().hwScalars[54] = 1; /* role None */
        start(0, 16);
        model().vlanMembers[VLAN] = {CLIENT_PORT, SERVER_PORT, OTHER_PORT};
        client = enablePort(CLIENT_PORT);
        server = enablePort(SERVER_PORT);
        server->flags |= ifflag::TRUSTED;
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        sys().selectAdvancesClock = false;
    }

    /* One frame in on a port, one loop pass; the frames that left. */
    Outs send(uint32_t port, const Bytes &bytes, bool v6, uint16_t vid, size_t l2)
    {
        FakeFrame f;
        f.bytes = bytes;
        f.ingress = port;
        f.sllIfindex = int(port);
        f.outerVid = vid;
        f.l2HdrLen = uint8_t(l2);
        (v6 ? sys().frames6 : sys().frames4).push_back(f);
        sys().sent.clear();
        dhcpsnoop_main_pass();
        Outs out;
        for (auto &s : sys().sent) {
            struct sockaddr_ll ll {};
            memcpy(&ll, s.addr.data(), std::min(s.addr.size(), sizeof ll));
            out.push_back({uint32_t(ll.sll_ifindex), s.bytes});
        }
        return out;
    }
    Outs inject(uint32_t port, const Dhcp4Frame &f, uint16_t vid = VLAN)
    {
        return send(port, f.build(), false, vid, f.l2Len());
    }
    Outs inject(uint32_t port, const Dhcp6Frame &f) { return send(port, f.build(), true, VLAN, 14); }

    /* A client message; with `ciaddr` it names its address there, else in option 50. */
    static Dhcp4Frame fromClient(uint8_t type, uint32_t ciaddr = 0, std::array<uint8_t, 6> mac = CLIENT_MAC,
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

    /* A server reply, not yet ended. */
    static Dhcp4Frame fromServer(uint8_t type, uint32_t lease = 3600, uint32_t serverId = SERVER_IP)
    {
        Dhcp4Frame f;
        f.src = SERVER_MAC;
        f.dst = f.chaddr = CLIENT_MAC;
        f.op = 2;
        f.sport = 67;
        f.dport = 68;
        f.srcIp = SERVER_IP;
        f.dstIp = CLIENT_IP;
        f.yiaddr = type != 6 ? CLIENT_IP : 0;
        f.msgType(type).opt(54, ipv4(serverId));
        if (type == 5 || type == 2)
            f.opt(51, ipv4(lease)).opt(3, ipv4(GATEWAY_IP));
        return f;
    }

    static Dhcp6Frame fromClient6(uint8_t type, const Bytes &options, std::array<uint8_t, 6> mac = CLIENT_MAC)
    {
        Dhcp6Frame f;
        f.src = mac;
        f.type = type;
        f.options = options;
        return f;
    }

    static Dhcp6Frame reply6(const Bytes &options, uint8_t type = 7)
    {
        Dhcp6Frame f = fromClient6(type, options, SERVER_MAC);
        f.sport = 547;
        f.dport = 546;
        f.dst = CLIENT_MAC;
        f.srcIp = ip6("fe80::5e");
        f.dstIp = ip6("fe80::c1");
        return f;
    }

    DhcpsnoopUser *binding(uint32_t ip = CLIENT_IP) { return lookup(DHCPSNOOP_IPTYPE_V4, ipv4(ip).data()); }
    DhcpsnoopUser *binding(const char *ip) { return lookup(DHCPSNOOP_IPTYPE_V6, ip6(ip).data()); }
    DhcpsnoopUser *lookup(uint8_t type, const uint8_t *addr, bool add = false)
    {
        DhcpsnoopUserKey key{};
        key.ipType = type;
        memcpy(key.ipAddr, addr, type == DHCPSNOOP_IPTYPE_V4 ? 4 : 16);
        return add ? dhcpsnoop_user_table_add(&key) : dhcpsnoop_user_lookup(&key);
    }

    /* A binding as one line: state, lease, port, VLAN and the MAC's bytes 1 and 5. */
    static std::string rec(const DhcpsnoopUser *u)
    {
        if (!u)
            return "none";
        char s[80];
        snprintf(s, sizeof s, "%s %u port %u vid %u mac %02x%02x",
                 u->bindState == DHCPSNOOP_BIND_BOUND ? "bound" : u->bindState == DHCPSNOOP_BIND_REQUESTED ? "requested" : "?",
                 u->leaseTime, u->ifIndex, u->vid, u->mac[1], u->mac[5]);
        return s;
    }

    /* `f` with option 82 of `data` before its end option. */
    static Bytes with82(Dhcp4Frame f, const Bytes &data)
    {
        f.options.pop_back();
        return f.opt(82, data).end().build();
    }

    DhcpsnoopIf *client = nullptr, *server = nullptr;
};

/* Both families snooped on all three ports. */
class Path6Test : public PathTest {
protected:
    void SetUp() override
    {
        PathTest::SetUp();
        other = enablePort(OTHER_PORT);
        for (DhcpsnoopIf *e : {client, server, other})
            dhcpsnoop_if_version_set(e, 3);
        server->flags |= ifflag::TRUSTED;
    }
    DhcpsnoopIf *other = nullptr;
};

} // namespace

TEST_F(PathTest, DoraBindsTheClientAndOnlyTheTrustedServerIsHeard)
{
    client->flags |= ifflag::OPTION82;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    model().ipsg[CLIENT_PORT] = {0, 1, DHCPSNOOP_CHECK_IP | DHCPSNOOP_CHECK_MAC};
    DhcpsnoopIf *rogue = enablePort(OTHER_PORT); /* untrusted: never gets client frames */

    /* DISCOVER: out of the trusted port only, option 82 added */
    auto out = inject(CLIENT_PORT, fromClient(1));
    ASSERT_EQ(out.size(), 1u);
    Bytes o82 = option(out[0].second, 82);
    ASSERT_FALSE(o82.empty());
    EXPECT_EQ(out, (Outs{{SERVER_PORT, with82(fromClient(1), o82)}}));

    /* OFFER without a binding and without a relay: flooded to the client side as it came */
    Bytes offer = fromServer(2).opt(82, o82).end().build();
    EXPECT_EQ(inject(SERVER_PORT, fromServer(2).opt(82, o82).end()), (Outs{{CLIENT_PORT, offer}, {OTHER_PORT, offer}}));

    /* REQUEST: a provisional binding, forwarded to the server */
    EXPECT_EQ(inject(CLIENT_PORT, fromClient(3)), (Outs{{SERVER_PORT, with82(fromClient(3), o82)}}));
    EXPECT_EQ(rec(binding()), "requested 60 port 1 vid 10 mac 1155");
    DhcpsnoopUser *u = binding();

    /* ACK: bound with the server's lease, installed, unicast without option 82 */
    size_t hwBefore = model().hwUserCalls.size();
    out = inject(SERVER_PORT, fromServer(5, 7200).opt(82, o82).end());
    EXPECT_EQ(out, (Outs{{CLIENT_PORT, fromServer(5, 7200).end().build()}}));
    EXPECT_EQ(rec(u), "bound 7200 port 1 vid 10 mac 1155");
    ASSERT_EQ(model().hwUserCalls.size(), hwBefore + 1);
    const SimHwUserCall &hw = model().hwUserCalls.back();
    EXPECT_EQ(std::tuple(hw.ifIndex, hw.op, hw.record[37]), std::tuple(CLIENT_PORT, 0x3E800DFu, 0x80)); /* IP source guard */
    EXPECT_EQ(model().logCount("[DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 192.0.2.100"), 1u);

    /* the lease runs out: the first scan at or after its end removes it */
    sys().now += 7200;
    dhcpsnoop_main_pass();
    EXPECT_EQ(binding(), nullptr);
    EXPECT_EQ(model().hwUserCalls.back().op, 0x3E800E0u);

    /* a rogue server on the untrusted port: dropped, counted, learnt, binds nothing */
    gDhcpsnoop.serverLearn = 1;
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
    const Bytes frame = relayed.build(), message(frame.begin() + 42, frame.end()); /* the DHCP message */
    Outs udp;
    for (auto &s : sys().sent) {
        struct sockaddr_in to {};
        struct cmsghdr c {};
        struct in_pktinfo pi {};
        if (s.fd != gDhcpsnoop.udpSock || s.control.size() < CMSG_LEN(sizeof pi))
            continue;
        memcpy(&to, s.addr.data(), std::min(s.addr.size(), sizeof to));
        memcpy(&c, s.control.data(), sizeof c);
        memcpy(&pi, s.control.data() + CMSG_LEN(0), sizeof pi);
        /* to port 67, from the relay address */
        EXPECT_EQ(std::tuple(ntohs(to.sin_port), c.cmsg_level, c.cmsg_type, ntohl(pi.ipi_spec_dst.s_addr)),
                  std::tuple(67, IPPROTO_IP, IP_PKTINFO, relay));
        udp.push_back({ntohl(to.sin_addr.s_addr), s.bytes});
    }
    EXPECT_EQ(udp, (Outs{{SERVER_IP, message}, {server2, message}}));
    EXPECT_NE(dhcpsnoop_mac_user_lookup(CLIENT_MAC.data()), nullptr);

    /* the OFFER comes back to the relay address: from it, to port 68 of the client's
     * address, or broadcast when asked for or when there is no address */
    for (auto [flags, yiaddr, broadcast] : {std::tuple{0, CLIENT_IP, false}, {0x8000, CLIENT_IP, true}, {0, 0u, true}}) {
        Dhcp4Frame offer = fromServer(2).end();
        offer.giaddr = offer.dstIp = relay;
        offer.dport = 67;
        offer.flags = uint16_t(flags);
        offer.yiaddr = yiaddr;
        Dhcp4Frame want = offer;
        want.srcIp = relay;
        want.dport = 68;
        want.dstIp = broadcast ? 0xFFFFFFFF : CLIENT_IP;
        if (broadcast)
            want.dst.fill(0xFF);
        EXPECT_EQ(inject(SERVER_PORT, offer), (Outs{{CLIENT_PORT, want.build()}}));
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
    Dhcp4Frame nak = fromServer(6, 0, 0xC0000299).end();
    EXPECT_EQ(inject(SERVER_PORT, nak), (Outs{{CLIENT_PORT, nak.build()}}));
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
    lookup(DHCPSNOOP_IPTYPE_V4, ipv4(CLIENT_IP).data(), true)->userType = DHCPSNOOP_USER_STATIC;
    client->flags |= ifflag::USER_CHECK;
    EXPECT_EQ(inject(CLIENT_PORT, fromClient(7, CLIENT_IP)).size(), 1u);
    EXPECT_NE(binding(), nullptr);
}

TEST_F(PathTest, ClientChecksDropAndCount)
{
    client->flags |= ifflag::SRC_MAC_CHECK | ifflag::USER_CHECK;
    Dhcp4Frame spoof = fromClient(1);
    spoof.src = ATTACKER;
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

/* (the shared pool's own exhaustion is the user tests') */
TEST_F(PathTest, LimitsStopTheRequest)
{
    /* a REQUEST that names no address goes on but binds nothing */
    Dhcp4Frame bare;
    bare.src = bare.chaddr = CLIENT_MAC;
    EXPECT_EQ(inject(CLIENT_PORT, bare.msgType(3).end()).size(), 1u);
    EXPECT_EQ(binding(0u), nullptr);
    EXPECT_EQ(client->curUser, 0);

    client->maxUser = 1;
    inject(CLIENT_PORT, fromClient(3));
    ASSERT_NE(binding(), nullptr);
    EXPECT_EQ(client->curUser, 1);
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(3, 0, ATTACKER, CLIENT_IP + 1)).empty());
    EXPECT_EQ(binding(CLIENT_IP + 1), nullptr);
    EXPECT_EQ(client->counters[DHCPSNOOP_CNT_TABLE_FULL], 1u);
    /* the platform's share of the pool is a port's limit from the start */
    model().addPort(OTHER_PORT, "swp3").maxUsers = 2;
    EXPECT_EQ(enablePort(OTHER_PORT)->maxUser, 2);
}

TEST_F(PathTest, BindingGuardKeepsABoundEntryFromOtherPortsAndClients)
{
    DhcpsnoopIf *other = enablePort(OTHER_PORT);
    const struct {
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
        gDhcpsnoop.bindingGuard = c.guard;
        auto out = inject(c.port, fromClient(c.type, c.type == 3 ? 0 : CLIENT_IP, c.attackerMac ? ATTACKER : CLIENT_MAC));
        DhcpsnoopIf *in = c.port == CLIENT_PORT ? client : other;
        EXPECT_EQ(rec(binding()) == "bound 3600 port 1 vid 10 mac 1155", c.kept);
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
    EXPECT_EQ(out[0].second, with82(fromClient(1), option(out[0].second, 82)));

    /* a 2048-byte frame is forwarded as it is: no room for option 82 */
    Dhcp4Frame full = fromClient(1);
    full.options.pop_back();
    for (int i = 0; i < 6; i++)
        full.opt(43, Bytes(250, uint8_t(i)));
    full.opt(43, Bytes(DHCPSNOOP_FRAME_MAX - full.build().size() - 3, 7)).end();
    ASSERT_EQ(full.build().size(), size_t(DHCPSNOOP_FRAME_MAX));
    EXPECT_EQ(inject(CLIENT_PORT, full), (Outs{{SERVER_PORT, full.build()}}));
}

TEST_F(PathTest, TagsFollowTheEgressPort)
{
    const struct {
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
        Dhcp4Frame f = fromClient(1), want = f;
        f.vlans = c.inTags;
        want.vlans = c.outTags;
        Bytes w = want.build();
        if (c.tpid)
            w[12] = uint8_t(c.tpid >> 8), w[13] = uint8_t(c.tpid);
        EXPECT_EQ(inject(CLIENT_PORT, f), (Outs{{SERVER_PORT, w}}));
    }
    /* a reply to a bound client keeps the tag it came with */
    inject(CLIENT_PORT, fromClient(3));
    Dhcp4Frame ack = fromServer(5).end();
    ack.vlans = {20};
    model().ports[CLIENT_PORT].untagged = 0;
    EXPECT_EQ(inject(SERVER_PORT, ack, 20), (Outs{{CLIENT_PORT, ack.build()}}));

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
    EXPECT_EQ(inject(memberPort, fromClient(3), vid), (Outs{{SERVER_PORT, fromClient(3).build()}}));
    EXPECT_EQ(rec(binding()), "requested 60 port 7 vid 100 mac 1155");

    /* the ACK's binding port has no entry: flooded to the VLAN's members,
     * but never back to the server's port */
    auto out = inject(SERVER_PORT, fromServer(5).end(), vid);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].first, memberPort);
    EXPECT_EQ(rec(binding()), "bound 3600 port 7 vid 100 mac 1155");

    /* once the member port snoops by itself its frames are the port's */
    enablePort(memberPort);
    out = inject(memberPort, fromClient(1), vid);
    EXPECT_EQ(out.size() == 1 ? out[0].first : 0u, SERVER_PORT);
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
    model().debugText.clear();
    send(CLIENT_PORT, Bytes(60, 0), false, VLAN, 14);
    EXPECT_EQ(model().debugCount("Parse packet error, stop process!"), 1u);

    /* IP version 6 behind the IPv4 EtherType has no BOOTP message to act on */
    Bytes v6 = Dhcp6Frame().build();
    v6[12] = 0x08, v6[13] = 0x00;
    EXPECT_TRUE(send(CLIENT_PORT, v6, false, VLAN, 14).empty());
}

TEST_F(Path6Test, RequestAndReplyLearnAndBindAddresses)
{
    client->flags |= ifflag::OPTION18 | ifflag::OPTION37;
    const char *addrs[] = {"2001:db8::10", "2001:db8::11"};
    auto ia = ia_na6(7, cat({iaaddr6(ip6(addrs[0]), 100, 200), iaaddr6(ip6(addrs[1]), 100, 200)}));
    auto out = inject(CLIENT_PORT, fromClient6(3, ia));
    ASSERT_EQ(out.size(), 1u);
    /* options 18 and 37 (their layouts are the option tests') are added at the end */
    const Bytes &toServer = out[0].second;
    ASSERT_EQ(find_opts6(toServer, 14, 18).size(), 1u);
    const Bytes relayOpts(toServer.begin() + long(find_opts6(toServer, 14, 18)[0]), toServer.end());
    ASSERT_EQ(relayOpts.size(), 24u + 28u);
    EXPECT_EQ(relayOpts[25], 37);
    EXPECT_EQ(out, (Outs{{SERVER_PORT, fromClient6(3, cat({ia, relayOpts})).build()}}));
    for (const char *a : addrs)
        EXPECT_EQ(rec(binding(a)), "requested 60 port 1 vid 10 mac 1155") << a;

    /* the REPLY echoes options 18 and 37: it goes to the client's port only,
     * without them, and binds both addresses */
    auto replyIa = ia_na6(7, cat({iaaddr6(ip6(addrs[0]), 1800, 3600), iaaddr6(ip6(addrs[1]), 1800, 3600)}));
    out = inject(SERVER_PORT, reply6(cat({replyIa, relayOpts})));
    EXPECT_EQ(out, (Outs{{CLIENT_PORT, reply6(replyIa).build()}}));
    for (const char *a : addrs)
        EXPECT_EQ(rec(binding(a)), "bound 3600 port 1 vid 10 mac 1155") << a;
    /* IPv6 bindings never produce a user event */
    EXPECT_TRUE(model().netlinkSends.empty());

    /* with the binding guard, another port's REQUEST or RELEASE of a bound
     * address is dropped and counted, and the binding stays the client's */
    gDhcpsnoop.bindingGuard = 1;
    for (uint8_t type : {3, 8}) {
        EXPECT_TRUE(inject(OTHER_PORT, fromClient6(type, ia_na6(9, iaaddr6(ip6(addrs[1]), 0, 0)), ATTACKER)).empty());
        EXPECT_EQ(rec(binding(addrs[1])), "bound 3600 port 1 vid 10 mac 1155") << int(type);
    }
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_GUARD], 2u);

    /* a zero lifetime removes one; a RELEASE the other */
    inject(SERVER_PORT, reply6(ia_na6(7, iaaddr6(ip6(addrs[0]), 0, 0))));
    EXPECT_EQ(binding(addrs[0]), nullptr);
    inject(CLIENT_PORT, fromClient6(8, ia_na6(7, iaaddr6(ip6(addrs[1]), 0, 0))));
    EXPECT_EQ(binding(addrs[1]), nullptr);
}

TEST_F(Path6Test, FailureStatusesAndIaTa)
{
    /* a failed IA is skipped entirely */
    inject(CLIENT_PORT, fromClient6(3, ia_na6(1, cat({status6(2), iaaddr6(ip6("2001:db8::20"), 1, 1)}))));
    EXPECT_EQ(binding("2001:db8::20"), nullptr);
    /* a failure status inside one address also holds for the later ones */
    inject(CLIENT_PORT, fromClient6(3, cat({ia_na6(1, iaaddr6(ip6("2001:db8::21"), 1, 1, status6(3))),
                                            ia_na6(2, iaaddr6(ip6("2001:db8::22"), 1, 1))})));
    EXPECT_EQ(binding("2001:db8::21"), nullptr);
    EXPECT_EQ(binding("2001:db8::22"), nullptr);
    /* IA_TA addresses are learnt as well */
    inject(CLIENT_PORT, fromClient6(1, ia_ta6(3, iaaddr6(ip6("2001:db8::23"), 1, 1))));
    EXPECT_NE(binding("2001:db8::23"), nullptr);
    /* RENEW is forwarded without IA processing */
    EXPECT_EQ(inject(CLIENT_PORT, fromClient6(5, ia_na6(4, iaaddr6(ip6("2001:db8::24"), 1, 1)))).size(), 1u);
    EXPECT_EQ(binding("2001:db8::24"), nullptr);
    /* a RELEASE leaves a static entry alone */
    lookup(DHCPSNOOP_IPTYPE_V6, ip6("2001:db8::25").data(), true)->userType = DHCPSNOOP_USER_STATIC;
    inject(CLIENT_PORT, fromClient6(8, ia_na6(5, iaaddr6(ip6("2001:db8::25"), 1, 1))));
    EXPECT_NE(binding("2001:db8::25"), nullptr);
}

TEST_F(Path6Test, UntrustedRepliesAreDroppedAndUnknownClientsFlooded)
{
    inject(CLIENT_PORT, fromClient6(3, ia_na6(1, iaaddr6(ip6("2001:db8::30"), 1, 1))));
    const Bytes r = reply6(ia_na6(1, iaaddr6(ip6("2001:db8::30"), 1, 900))).build();
    /* on an untrusted port nothing is sent or bound */
    EXPECT_TRUE(send(OTHER_PORT, r, true, VLAN, 14).empty());
    EXPECT_EQ(rec(binding("2001:db8::30")), "requested 60 port 1 vid 10 mac 1155");
    /* without relay information the reply floods the VLAN */
    EXPECT_EQ(send(SERVER_PORT, r, true, VLAN, 14), (Outs{{CLIENT_PORT, r}, {OTHER_PORT, r}}));
    EXPECT_EQ(rec(binding("2001:db8::30")), "bound 900 port 1 vid 10 mac 1155");
    /* an option 18 that matches no interface: flooded too, option kept */
    const Bytes unknown = reply6(opt6(18, {9, 9, 9})).build();
    EXPECT_EQ(send(SERVER_PORT, unknown, true, VLAN, 14), (Outs{{CLIENT_PORT, unknown}, {OTHER_PORT, unknown}}));

    /* ADVERTISE and RECONFIGURE take the server path */
    for (uint8_t type : {2, 10}) {
        model().debugText.clear();
        inject(OTHER_PORT, reply6({}, type));
        EXPECT_EQ(model().debugCount("Port state is untrust, stop process!"), 1u) << int(type);
    }
}
