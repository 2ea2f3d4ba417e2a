/*
 * DHCPv4 end to end inside the daemon: frames enter through the fake packet
 * sockets and the loop, and the frames that leave, the bindings, the records
 * handed to hardware and the counters are observed.
 */
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cstring>

#include "daemon_fixture.h"
#include "dhcpsnoop_user.h"
#include "frame_helpers.h"

namespace {

constexpr uint32_t CLIENT_PORT = 1, SERVER_PORT = 2, OTHER_PORT = 3;
constexpr uint16_t VLAN = 10;
constexpr uint32_t SERVER_IP = 0xC0000201;  /* 192.0.2.1 */
constexpr uint32_t CLIENT_IP = 0xC0000264;  /* 192.0.2.100 */
constexpr uint32_t GATEWAY_IP = 0xC00002FE; /* 192.0.2.254 */
const std::array<uint8_t, 6> CLIENT_MAC{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::array<uint8_t, 6> SERVER_MAC{0x02, 0xAA, 0xAA, 0xAA, 0xAA, 0x01};

struct Out {
    uint32_t ifIndex;
    std::vector<uint8_t> bytes;
};

/* Offset of option `code` in a DHCPv4 frame (its code byte), or -1. */
long find_option(const std::vector<uint8_t> &f, size_t l2, uint8_t code)
{
    size_t ihl = (f[l2] & 0x0F) * 4;
    size_t pos = l2 + ihl + 8 + 240;
    while (pos < f.size()) {
        uint8_t c = f[pos];
        if (c == 255)
            return code == 255 ? long(pos) : -1;
        if (c == 0) {
            pos++;
            continue;
        }
        if (pos + 1 >= f.size())
            return -1;
        if (c == code)
            return long(pos);
        pos += 2 + f[pos + 1];
    }
    return -1;
}

uint32_t read_be32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
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

    /* One frame in on a port (untagged, or with the given tags), one loop
     * pass; the frames that left. */
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
            Out o{0, s.bytes};
            if (s.addr.size() >= sizeof(struct sockaddr_ll)) {
                struct sockaddr_ll ll;
                memcpy(&ll, s.addr.data(), sizeof ll);
                o.ifIndex = uint32_t(ll.sll_ifindex);
            }
            out.push_back(o);
        }
        return out;
    }

    Dhcp4Frame fromClient(uint8_t type)
    {
        Dhcp4Frame f;
        f.src = CLIENT_MAC;
        f.chaddr = CLIENT_MAC;
        f.msgType(type);
        if (type == 3)
            f.opt(50, ipv4(CLIENT_IP)).opt(54, ipv4(SERVER_IP));
        f.end();
        return f;
    }

    Dhcp4Frame fromServer(uint8_t type, uint32_t lease = 3600)
    {
        Dhcp4Frame f;
        f.src = SERVER_MAC;
        f.dst = CLIENT_MAC;
        f.op = 2;
        f.sport = 67;
        f.dport = 68;
        f.srcIp = SERVER_IP;
        f.dstIp = CLIENT_IP;
        f.chaddr = CLIENT_MAC;
        if (type != 6)
            f.yiaddr = CLIENT_IP;
        f.msgType(type).opt(54, ipv4(SERVER_IP));
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

    /* Client frames keep option 82 on the way back: echo it into the reply. */
    void echoOption82(Dhcp4Frame &reply, const std::vector<uint8_t> &request)
    {
        long at = find_option(request, 14, 82);
        ASSERT_GE(at, 0);
        std::vector<uint8_t> data(request.begin() + at + 2, request.begin() + at + 2 + request[at + 1]);
        reply.opt(82, data);
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

    /* DISCOVER: out of the trusted port only, with option 82 */
    auto out = inject(CLIENT_PORT, fromClient(1).end());
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, SERVER_PORT);
    long o82 = find_option(out[0].bytes, 14, 82);
    ASSERT_GE(o82, 0);
    EXPECT_TRUE(ipv4_checksum_ok(out[0].bytes.data(), 14));
    EXPECT_TRUE(udp4_checksum_ok(out[0].bytes.data(), 14));
    std::vector<uint8_t> discover = out[0].bytes;

    /* OFFER without a binding and without a relay: flooded to the client side */
    Dhcp4Frame offer = fromServer(2);
    echoOption82(offer, discover);
    offer.end();
    out = inject(SERVER_PORT, offer);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].ifIndex, CLIENT_PORT);
    EXPECT_EQ(out[1].ifIndex, OTHER_PORT);

    /* REQUEST: a provisional binding, forwarded to the server */
    out = inject(CLIENT_PORT, fromClient(3));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, SERVER_PORT);
    std::vector<uint8_t> request = out[0].bytes;
    DhcpsnoopUser *u = binding();
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_REQUESTED);
    EXPECT_EQ(u->leaseTime, 60u);
    EXPECT_EQ(u->ifIndex, CLIENT_PORT);
    EXPECT_EQ(u->vid, VLAN);
    EXPECT_EQ(memcmp(u->mac, CLIENT_MAC.data(), 6), 0);

    /* ACK: bound with the server's lease, installed, unicast without option 82 */
    Dhcp4Frame ack = fromServer(5, 7200);
    echoOption82(ack, request);
    ack.end();
    size_t hwBefore = model().hwUserCalls.size();
    out = inject(SERVER_PORT, ack);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, CLIENT_PORT);
    EXPECT_EQ(find_option(out[0].bytes, 14, 82), -1);
    EXPECT_GE(find_option(out[0].bytes, 14, 255), 0);
    EXPECT_TRUE(ipv4_checksum_ok(out[0].bytes.data(), 14));
    EXPECT_TRUE(udp4_checksum_ok(out[0].bytes.data(), 14));
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_BOUND);
    EXPECT_EQ(u->leaseTime, 7200u);
    /* the gateway as address bytes, in the event beside the client's and in its text */
    EXPECT_EQ(memcmp(&u->gateway, ipv4(GATEWAY_IP).data(), 4), 0);
    ASSERT_FALSE(model().netlinkSends.empty());
    const std::vector<uint8_t> &ev = model().netlinkSends.back().record;
    ASSERT_EQ(ev.size(), 72u);
    EXPECT_EQ(std::vector<uint8_t>(ev.begin() + 36, ev.begin() + 40), ipv4(CLIENT_IP));
    EXPECT_EQ(std::vector<uint8_t>(ev.begin() + 52, ev.begin() + 56), ipv4(GATEWAY_IP));
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
    for (uint8_t type : {2, 5, 6}) {
        auto out = inject(OTHER_PORT, fromServer(type).end());
        EXPECT_TRUE(out.empty()) << int(type);
    }
    EXPECT_EQ(rogue->counters[DHCPSNOOP_CNT_UNTRUSTED_REPLY], 3u);
    EXPECT_NE(dhcpsnoop_server_lookup(SERVER_IP, VLAN, OTHER_PORT), nullptr);
    EXPECT_EQ(binding(), nullptr);
    /* learning off: nothing learnt */
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

    auto out = inject(CLIENT_PORT, fromClient(1).end());
    EXPECT_TRUE(out.empty() || out.size() == 2u);
    std::vector<FakeSent> udp;
    for (auto &s : sys().sent)
        if (s.fd == gDhcpsnoop.udpSock)
            udp.push_back(s);
    ASSERT_EQ(udp.size(), 2u);
    uint32_t dests[2];
    for (int i = 0; i < 2; i++) {
        struct sockaddr_in to;
        ASSERT_GE(udp[i].addr.size(), sizeof to);
        memcpy(&to, udp[i].addr.data(), sizeof to);
        dests[i] = ntohl(to.sin_addr.s_addr);
        EXPECT_EQ(ntohs(to.sin_port), 67);
        ASSERT_GE(udp[i].bytes.size(), 240u);
        EXPECT_EQ(udp[i].bytes[0], 1);                        /* only the DHCP message */
        EXPECT_EQ(read_be32(udp[i].bytes.data() + 24), relay); /* giaddr */
        struct cmsghdr c;
        ASSERT_GE(udp[i].control.size(), CMSG_LEN(sizeof(struct in_pktinfo)));
        memcpy(&c, udp[i].control.data(), sizeof c);
        EXPECT_EQ(c.cmsg_level, IPPROTO_IP);
        EXPECT_EQ(c.cmsg_type, IP_PKTINFO);
        struct in_pktinfo pi;
        memcpy(&pi, udp[i].control.data() + CMSG_LEN(0), sizeof pi);
        EXPECT_EQ(ntohl(pi.ipi_spec_dst.s_addr), relay);
    }
    EXPECT_EQ(dests[0], SERVER_IP);
    EXPECT_EQ(dests[1], server2);
    EXPECT_NE(dhcpsnoop_mac_user_lookup(CLIENT_MAC.data()), nullptr);

    /* the server's OFFER comes back to the relay address */
    struct Case {
        uint16_t flags;
        uint32_t yiaddr;
        bool broadcast;
    } cases[] = {{0, CLIENT_IP, false}, {0x8000, CLIENT_IP, true}, {0, 0, true}};
    for (auto &c : cases) {
        Dhcp4Frame offer = fromServer(2);
        offer.giaddr = relay;
        offer.dstIp = relay;
        offer.dport = 67;
        offer.flags = c.flags;
        offer.yiaddr = c.yiaddr;
        offer.end();
        out = inject(SERVER_PORT, offer);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out[0].ifIndex, CLIENT_PORT);
        const uint8_t *f = out[0].bytes.data();
        EXPECT_EQ(read_be32(f + 14 + 12), relay);                      /* IP source */
        EXPECT_EQ(f[14 + 20 + 2] << 8 | f[14 + 20 + 3], 68);          /* UDP destination */
        if (c.broadcast) {
            EXPECT_EQ(read_be32(f + 14 + 16), 0xFFFFFFFFu);
            EXPECT_EQ(std::vector<uint8_t>(f, f + 6), std::vector<uint8_t>(6, 0xFF));
        } else {
            EXPECT_EQ(read_be32(f + 14 + 16), CLIENT_IP);
            EXPECT_EQ(memcmp(f, CLIENT_MAC.data(), 6), 0);
        }
        EXPECT_TRUE(ipv4_checksum_ok(f, 14));
        EXPECT_TRUE(udp4_checksum_ok(f, 14));
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
    Dhcp4Frame nak = fromServer(6);
    nak.options.clear();
    nak.msgType(6).opt(54, ipv4(0xC0000299)).end();
    auto out = inject(SERVER_PORT, nak);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, CLIENT_PORT);
    EXPECT_NE(binding(), nullptr);
    /* NAK from the server of the binding deletes it */
    out = inject(SERVER_PORT, fromServer(6).end());
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(binding(), nullptr);

    for (uint8_t type : {4, 7}) {
        inject(CLIENT_PORT, fromClient(3));
        ASSERT_NE(binding(), nullptr);
        Dhcp4Frame f = fromClient(type);
        f.options.clear();
        f.ciaddr = CLIENT_IP;
        f.msgType(type).end();
        out = inject(CLIENT_PORT, f);
        EXPECT_EQ(out.size(), 1u);
        EXPECT_EQ(binding(), nullptr) << int(type);
    }

    /* a static binding survives a RELEASE */
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    memcpy(key.ipAddr, ipv4(CLIENT_IP).data(), 4);
    dhcpsnoop_user_table_add(&key)->userType = DHCPSNOOP_USER_STATIC;
    Dhcp4Frame rel = fromClient(7);
    rel.options.clear();
    rel.ciaddr = CLIENT_IP;
    rel.msgType(7).end();
    client->flags |= ifflag::USER_CHECK;
    out = inject(CLIENT_PORT, rel);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_NE(binding(), nullptr);
}

TEST_F(PathTest, ClientChecksDropAndCount)
{
    client->flags |= ifflag::SRC_MAC_CHECK | ifflag::USER_CHECK;
    Dhcp4Frame spoof = fromClient(1);
    spoof.src = {0x02, 0, 0, 0, 0, 0x99};
    EXPECT_TRUE(inject(CLIENT_PORT, spoof.end()).empty());
    EXPECT_EQ(client->counters[DHCPSNOOP_CNT_SRC_MAC], 1u);

    inject(CLIENT_PORT, fromClient(3));
    ASSERT_NE(binding(), nullptr);
    /* a renewing REQUEST (ciaddr set) from another port does not pass */
    DhcpsnoopIf *other = enablePort(OTHER_PORT);
    other->flags |= ifflag::USER_CHECK;
    Dhcp4Frame renew = fromClient(3);
    renew.ciaddr = CLIENT_IP;
    renew.srcIp = CLIENT_IP;
    EXPECT_TRUE(inject(OTHER_PORT, renew).empty());
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_USER_MISMATCH], 1u);
    EXPECT_EQ(binding()->ifIndex, CLIENT_PORT);
    /* from its own port it passes; without ciaddr no check is made */
    EXPECT_EQ(inject(CLIENT_PORT, renew).size(), 1u);
    EXPECT_EQ(inject(OTHER_PORT, fromClient(1).end()).size(), 1u);
    EXPECT_EQ(other->counters[DHCPSNOOP_CNT_USER_MISMATCH], 1u);
}

TEST_F(PathTest, LimitsAndPoolExhaustionStopTheRequest)
{
    /* a REQUEST that names no address goes on but binds nothing */
    Dhcp4Frame bare = fromClient(3);
    bare.options.clear();
    bare.msgType(3).end();
    EXPECT_EQ(inject(CLIENT_PORT, bare).size(), 1u);
    EXPECT_EQ(binding(0), nullptr);
    EXPECT_EQ(client->curUser, 0);

    client->maxUser = 1;
    inject(CLIENT_PORT, fromClient(3));
    ASSERT_NE(binding(), nullptr);
    EXPECT_EQ(client->curUser, 1);
    Dhcp4Frame second = fromClient(3);
    second.chaddr = second.src = {0x02, 0, 0, 0, 0, 0x02};
    second.options.clear();
    second.msgType(3).opt(50, ipv4(CLIENT_IP + 1)).end();
    EXPECT_TRUE(inject(CLIENT_PORT, second).empty());
    EXPECT_EQ(binding(CLIENT_IP + 1), nullptr);
    EXPECT_EQ(client->counters[DHCPSNOOP_CNT_TABLE_FULL], 1u);
    /* the platform's share of the pool is a port's limit from the start */
    model().addPort(OTHER_PORT, "swp3").maxUsers = 2;
    EXPECT_EQ(enablePort(OTHER_PORT)->maxUser, 2);

    /* the pool holds 16 nodes in all */
    client->maxUser = 100;
    int forwarded = 0;
    for (int i = 0; i < 20; i++) {
        Dhcp4Frame f = fromClient(3);
        f.chaddr = f.src = {0x02, 0, 0, 0, 1, uint8_t(i)};
        f.options.clear();
        f.msgType(3).opt(50, ipv4(CLIENT_IP + 10 + uint32_t(i))).end();
        forwarded += int(inject(CLIENT_PORT, f).size());
    }
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
        Dhcp4Frame f = fromClient(c.type);
        if (c.attackerMac)
            f.src = f.chaddr = ATTACKER;
        if (c.type != 3) {
            f.options.clear();
            f.ciaddr = CLIENT_IP;
            f.msgType(c.type).end();
        }
        auto out = inject(c.port, f);
        DhcpsnoopIf *in = c.port == CLIENT_PORT ? client : other;
        if (c.kept) {
            EXPECT_TRUE(out.empty());
            EXPECT_EQ(in->counters[DHCPSNOOP_CNT_GUARD], 1u);
            ASSERT_NE(binding(), nullptr);
            EXPECT_EQ(binding()->ifIndex, CLIENT_PORT);
            EXPECT_EQ(memcmp(binding()->mac, CLIENT_MAC.data(), 6), 0);
            EXPECT_EQ(binding()->bindState, DHCPSNOOP_BIND_BOUND);
            in->counters[DHCPSNOOP_CNT_GUARD] = 0;
        } else {
            EXPECT_EQ(out.size(), 1u);
            DhcpsnoopUser *u = binding();
            EXPECT_TRUE(!u || u->ifIndex != CLIENT_PORT || u->bindState != DHCPSNOOP_BIND_BOUND);
        }
    }
}

TEST_F(PathTest, AGrownFrameCarriesNoBytesOfAnEarlierFrame)
{
    Dhcp4Frame big = fromClient(1);
    big.opt(43, std::vector<uint8_t>(250, 0xEE)).opt(43, std::vector<uint8_t>(250, 0xEE)).end();
    ASSERT_EQ(inject(CLIENT_PORT, big).size(), 1u);
    client->flags |= ifflag::OPTION82;
    auto out = inject(CLIENT_PORT, fromClient(1).end());
    ASSERT_EQ(out.size(), 1u);
    long end = find_option(out[0].bytes, 14, 255);
    ASSERT_GT(end, 0);
    ASSERT_GE(find_option(out[0].bytes, 14, 82), 0);
    EXPECT_EQ(std::vector<uint8_t>(out[0].bytes.begin() + end + 1, out[0].bytes.end()),
              std::vector<uint8_t>(out[0].bytes.size() - size_t(end) - 1, 0));
}

TEST_F(PathTest, NoTrustedPortMeansClientFramesGoNowhere)
{
    server->flags &= ~ifflag::TRUSTED;
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(1).end()).empty());
}

TEST_F(PathTest, TagsFollowTheEgressPort)
{
    struct Case {
        const char *what;
        std::vector<uint16_t> inTags;
        uint32_t untagged;
        uint16_t tpid;
        bool router;
        int expectTagDelta; /* bytes gained (+4) or lost (-4) */
        uint16_t expectTpid, expectVid;
    } cases[] = {
        {"untagged to tagged port", {}, 0, 0, false, 4, 0x8100, VLAN},
        {"untagged to tagged port with its own TPID", {}, 0, 0x88A8, false, 4, 0x88A8, VLAN},
        {"untagged to untagged port", {}, 1, 0, false, 0, 0, 0},
        {"tagged to untagged port", {VLAN}, 1, 0, false, -4, 0, 0},
        {"tagged to tagged port", {VLAN}, 0, 0, false, 0, 0x8100, VLAN},
        {"tagged to a router port", {VLAN}, 0, 0, true, -4, 0, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        model().ports[SERVER_PORT].untagged = c.untagged;
        model().ports[SERVER_PORT].tpid = c.tpid;
        if (c.router)
            server->flags |= ifflag::ROUTER_MODE;
        else
            server->flags &= ~ifflag::ROUTER_MODE;
        Dhcp4Frame f = fromClient(1);
        f.vlans = c.inTags;
        f.end();
        size_t inLen = f.build().size();
        auto out = inject(CLIENT_PORT, f);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(long(out[0].bytes.size()), long(inLen) + c.expectTagDelta);
        const uint8_t *b = out[0].bytes.data();
        if (c.expectTpid) {
            EXPECT_EQ(b[12] << 8 | b[13], c.expectTpid);
            EXPECT_EQ(b[14] << 8 | b[15], c.expectVid);
        } else {
            EXPECT_EQ(b[12] << 8 | b[13], 0x0800);
        }
    }
    /* an excluded port receives nothing, unless it is a router port */
    model().ports[SERVER_PORT].excluded = 1;
    EXPECT_EQ(inject(CLIENT_PORT, fromClient(1).end()).size(), 1u);
    server->flags &= ~ifflag::ROUTER_MODE;
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(1).end()).empty());
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
    out = inject(memberPort, fromClient(1).end(), vid);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].ifIndex, SERVER_PORT);
}

TEST_F(PathTest, DispatchTraceAndFamilyCheck)
{
    /* an IPv4 frame on an interface that snoops IPv6 only */
    dhcpsnoop_if_version_set(client, 2);
    EXPECT_TRUE(inject(CLIENT_PORT, fromClient(1).end()).empty());
    EXPECT_EQ(model().debugCount("Interface version IPv6 and packet type IPv4 mismatch!"), 1u);
    dhcpsnoop_if_set_field(client, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, 0);
    inject(CLIENT_PORT, fromClient(1).end());
    EXPECT_EQ(model().debugCount("Interface version IPv6 and packet type IPv4 mismatch!"), 2u);
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
    std::vector<uint8_t> junk(60, 0);
    FakeFrame f;
    f.bytes = junk;
    f.ingress = CLIENT_PORT;
    sys().frames4.push_back(f);
    model().debugText.clear();
    dhcpsnoop_main_pass();
    EXPECT_EQ(model().debugCount("Parse packet error, stop process!"), 1u);
}

TEST_F(PathTest, AFullSizeFrameIsForwardedButNeverGrows)
{
    Dhcp4Frame big = fromClient(1);
    for (int i = 0; i < 6; i++)
        big.opt(43, std::vector<uint8_t>(250, uint8_t(i)));
    size_t base = big.build().size() + 1;
    big.opt(43, std::vector<uint8_t>(DHCPSNOOP_FRAME_MAX - base - 2, 7)).end();
    ASSERT_EQ(big.build().size(), size_t(DHCPSNOOP_FRAME_MAX));
    auto out = inject(CLIENT_PORT, big);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].bytes.size(), size_t(DHCPSNOOP_FRAME_MAX));
    /* no room for option 82: it goes on without */
    client->flags |= ifflag::OPTION82;
    out = inject(CLIENT_PORT, big);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].bytes.size(), size_t(DHCPSNOOP_FRAME_MAX));
    EXPECT_EQ(find_option(out[0].bytes, 14, 82), -1);
}
