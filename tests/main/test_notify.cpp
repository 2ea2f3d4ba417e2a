/* Platform events: message walk, link and aggregation events, check-item
 * changes, ARP inspection start/stop, card, slot and subsystem events. */
#include <array>
#include <cstring>
#include <set>

#include "binding_helpers.h"
#include "dhcpsnoop_notify.h"

namespace {
using Bytes = std::vector<uint8_t>;

Bytes words(std::initializer_list<uint32_t> ws)
{
    Bytes b(ws.size() * 4);
    memcpy(b.data(), ws.begin(), b.size());
    return b;
}
/* Netlink fields are in host order. */
void put(Bytes &b, uint16_t v)
{
    b.resize(b.size() + 2);
    memcpy(b.data() + b.size() - 2, &v, 2);
}
/* Parts laid end to end, each starting on a multiple of 4. */
Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes b;
    for (auto &p : parts) {
        b.resize((b.size() + 3) & ~size_t(3));
        b.insert(b.end(), p.begin(), p.end());
    }
    return b;
}
/* One message; `len` overrides its length field. */
Bytes msg(uint16_t type, const Bytes &payload, uint32_t len = 0)
{
    Bytes b = words({len ? len : uint32_t(16 + payload.size())});
    put(b, type);
    b.resize(16);
    return cat({b, payload});
}
/* A link attribute; `len` overrides its length field. */
Bytes attr(uint16_t type, const Bytes &value, uint16_t len = 0)
{
    Bytes b;
    put(b, uint16_t(len ? len : 4 + value.size()));
    put(b, type);
    return cat({b, value, {}});
}
Bytes link_msg(uint16_t type, uint32_t ifIndex, const Bytes &attrs = {})
{
    return msg(type, cat({words({0, ifIndex, 0, 0}), attrs}));
}
Bytes check_msg(uint16_t type, uint32_t ifIndex, uint8_t items)
{
    return msg(type, cat({words({ifIndex}), {items}}));
}
/* From a buffer exactly as long as the datagram. */
void deliver(Bytes d) { EXPECT_EQ(dhcpsnoop_notify_recv(d.data(), int32_t(d.size())), 0); }
} // namespace

class NotifyTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(8, 32);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        set_role(DHCPSNOOP_ROLE_NONE);
        model().addVlanIf(100, 10, "vlan10");
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    }
    DhcpsnoopUser *user(uint8_t last, uint8_t type, uint32_t port, uint16_t vid = 10)
    {
        DhcpsnoopUser *u = make_user(v4key(10, 0, 0, last), type, port, vid);
        u->leaseStart = uint32_t(sys().now); /* not expired by a loop pass */
        return u;
    }
    void clear_users()
    {
        for (auto &head : gDhcpsnoop.userHash)
            while (!dhcpsnoop_list_empty(&head))
                dhcpsnoop_user_delete(dhcpsnoop_entry<DhcpsnoopUser>(head.next));
    }
    std::multiset<uint32_t> hwPorts(uint32_t op)
    {
        std::multiset<uint32_t> ports;
        for (auto &c : model().hwUserCalls)
            if (c.op == op)
                ports.insert(c.ifIndex);
        return ports;
    }
};

TEST_F(NotifyTest, MessagesOfOneDatagramAreHandledInOrder)
{
    enablePort(3);
    enablePort(4);
    user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    model().ipsg[7] = {0, 1, 0x90};
    /* the member joins while the aggregate still has its entry; the second
     * join and the leave find it gone; the first message ends 3 bytes before
     * the next one starts */
    Bytes first = link_msg(16, 3, cat({attr(52, words({7})), attr(38, {}), attr(38, {}),
                                       attr(53, words({8})), attr(49, {1})}));
    const uint32_t unpadded = uint32_t(first.size() - 3);
    memcpy(first.data(), &unpadded, 4);
    deliver(cat({first, link_msg(17, 5), link_msg(17, 4), msg(200, {})}));
    EXPECT_EQ(hwPorts(DHCPSNOOP_HW_OP_ADD), std::multiset<uint32_t>{7});
    EXPECT_EQ(std::tuple(dhcpsnoop_if_lookup(3), dhcpsnoop_if_lookup(4), user_count()),
              std::tuple(nullptr, nullptr, 0u));
    EXPECT_TRUE(model().traps.empty());
    const std::string &t = model().debugText;
    EXPECT_LT(t.find("IFLA_AGGADDPHY message: ifindex 7"), t.find("IFLA_PHYJOINAGG message"));
    EXPECT_LT(t.find("IFLA_PHYJOINAGG"), t.find("IFLA_AGGREMOVEPHY message: ifindex 8"));
    EXPECT_LT(t.find("IFLA_AGGREMOVEPHY"), t.find("IFLA_SYNCCFG message: ifindex 3"));
    EXPECT_LT(t.find("IFLA_SYNCCFG"), t.find("RTM_DELLINK message: ifindex 4"));
    EXPECT_EQ(model().debugCount("RTM_DELLINK message: ifindex"), 1u); /* not port 5 */
    EXPECT_EQ(model().debugCount("Process user on trunk interface 3, port 8"), 0u);
    EXPECT_EQ(model().debugCount("Unknown rtm type 200!"), 1u);
}

TEST_F(NotifyTest, FramingAndAttributeBoundsEndTheWalk)
{
    const Bytes del = link_msg(17, 9);
    struct Case {
        Bytes datagram;
        int32_t length; /* -2: the datagram's size */
        size_t handled;
    } cases[] = {
        {msg(17, Bytes(16, 0), 36), -2, 0},                 /* past the datagram */
        {cat({del, msg(17, Bytes(16, 0), 40)}), -2, 1},     /* past what is left */
        {cat({msg(17, Bytes(16, 0), 12), del}), -2, 0},     /* below a header */
        {Bytes(del.begin(), del.begin() + 15), -2, 0},
        {del, -1, 0},                                       /* recvfrom failed */
        {cat({del, Bytes(15, 0xff)}), -2, 1},
        {cat({del, msg(17, Bytes(17, 0))}), -2, 2},         /* unaligned last message */
    };
    for (auto &c : cases) {
        size_t before = model().debugCount("Receive RTM_DELLINK message.");
        EXPECT_EQ(dhcpsnoop_notify_recv(c.datagram.data(),
                                        c.length == -2 ? int32_t(c.datagram.size()) : c.length), 0);
        EXPECT_EQ(model().debugCount("Receive RTM_DELLINK message.") - before, c.handled)
            << &c - cases;
    }

    enablePort(3);
    const Bytes sync = attr(49, {});
    /* unknown ones skipped; one shorter than its header, one longer than
     * what is left, half a header: the walk ends */
    for (const Bytes &attrs :
         {cat({attr(77, {1, 2}), sync, attr(78, {})}), cat({sync, attr(49, {}, 3), sync}),
          cat({sync, attr(49, Bytes(4, 0), 12)}), cat({sync, Bytes{8, 0}})}) {
        size_t before = model().debugCount("IFLA_SYNCCFG");
        deliver(link_msg(16, 3, attrs));
        EXPECT_EQ(model().debugCount("IFLA_SYNCCFG") - before, 1u);
    }
    EXPECT_EQ(model().debugCount("Unknown event 78!"), 1u);
    /* no member, or no snooping on the aggregate: nothing is asked */
    deliver(link_msg(16, 3, attr(52, {})));
    deliver(link_msg(16, 4, attr(52, words({7}))));
    EXPECT_TRUE(model().aggQueries.empty());
}

TEST_F(NotifyTest, AggregateMembersFollowTheTrunkUnlessSeveralAnswers)
{
    enablePort(3);
    DhcpsnoopUser *u = user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    u->hwFlags = DHCPSNOOP_HW_IPSG;
    u->ipsgCheckItems = 0x90;
    model().ipsg[7] = model().ipsg[8] = {0, 1, 0x90};
    deliver(link_msg(16, 3, cat({attr(52, words({7})), attr(53, words({8}))})));
    /* installed on the trunk: nothing new for the joining port, the trunk's
     * rule leaves with the leaving one; the table keeps the trunk's state */
    EXPECT_EQ(hwPorts(DHCPSNOOP_HW_OP_ADD).size(), 0u);
    EXPECT_EQ(hwPorts(DHCPSNOOP_HW_OP_DEL), std::multiset<uint32_t>{8});
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG);
    ASSERT_EQ(model().aggQueries.size(), 2u);
    const SimAggQuery &q = model().aggQueries[0];
    EXPECT_EQ(std::tuple(q.ifIndex, q.attr, q.answerPreset, q.countPreset),
              std::tuple(3u, DHCPSNOOP_AGG_QUERY_ATTR, 2u, uint8_t(1)));
    /* answers: several members, none, a refused query */
    for (auto [count, fails, runs] : {std::tuple{2, false, 0u}, {0, false, 1u}, {5, true, 1u}}) {
        model().aggCounts[3] = uint8_t(count);
        if (fails)
            model().failOn("qorIfGetApi", DHCPSNOOP_IF_ATTR_AGG, -1);
        const char *line = "Process user on trunk interface 3, port 8, operate 0";
        size_t before = model().debugCount(line);
        deliver(link_msg(16, 3, attr(53, words({8}))));
        EXPECT_EQ(model().debugCount(line) - before, runs) << count;
    }
}
TEST_F(NotifyTest, CheckItemChangesFollowPortOverVlan)
{
    /* after the event: source (0 = not installed) and items of the bindings
     * installed from the port and from the VLAN; sources of a binding not
     * installed on the port and of one on another port */
    struct Case {
        uint32_t ifIndex; /* 3: the port, 100: the VLAN interface of VLAN 10 */
        uint8_t items;
        bool failHw;
        uint8_t portSrc, portItems, vlanSrc, vlanItems, freshSrc, otherSrc;
    } cases[] = {
        {3, 0x00, false, 0, 0, 1, 0xA0, 0, 0},      {3, 0xC0, false, 2, 0xC0, 2, 0xC0, 2, 0},
        {3, 0xC0, true, 2, 0x90, 1, 0xA0, 0, 0},    {100, 0x00, false, 2, 0x90, 0, 0, 0, 0},
        {100, 0x60, false, 2, 0x90, 1, 0x60, 1, 1},
    };
    for (uint16_t type : {198, 199}) {
        const uint8_t bit = type == 199 ? DHCPSNOOP_HW_DAI : DHCPSNOOP_HW_IPSG;
        auto src = type == 199 ? &DhcpsnoopUser::daiSource : &DhcpsnoopUser::ipsgSource;
        auto its = type == 199 ? &DhcpsnoopUser::daiCheckItems : &DhcpsnoopUser::ipsgCheckItems;
        for (const Case &c : cases) {
            SCOPED_TRACE(std::to_string(type) + " case " + std::to_string(&c - cases));
            clear_users();
            model().failRules.clear();
            auto installed = [&](DhcpsnoopUser *u, uint8_t s, uint8_t i) {
                u->hwFlags |= bit, u->*src = s, u->*its = i;
                return u;
            };
            DhcpsnoopUser *byPort = installed(user(1, 1, 3), 2, 0x90);
            DhcpsnoopUser *byVlan = installed(user(2, 1, 3), 1, 0xA0);
            DhcpsnoopUser *fresh = user(3, 1, 3), *other = user(4, 1, 4);
            DhcpsnoopUser *statik = installed(user(5, 2, 3), 2, 0x90);
            DhcpsnoopUser *requested = user(6, 1, 3);
            requested->bindState = DHCPSNOOP_BIND_REQUESTED;
            model().hwUserCalls.clear();
            if (c.failHw)
                model().failOn("qorIfSetApi", DHCPSNOOP_HW_USER_CMD, -7);
            deliver(check_msg(type, c.ifIndex, c.items));
            auto expect = [&](DhcpsnoopUser *u, uint8_t s, uint8_t i) {
                EXPECT_EQ(std::tuple(u->hwFlags & bit, u->*src, u->*its),
                          std::tuple(s ? bit : 0, s, i)) << int(u->ipAddr[3]);
            };
            expect(byPort, c.portSrc, c.portItems);
            expect(byVlan, c.vlanSrc, c.vlanItems);
            expect(fresh, c.freshSrc, c.freshSrc ? c.items : 0);
            expect(other, c.otherSrc, c.otherSrc ? c.items : 0);
            expect(statik, 2, 0x90);
            expect(requested, 0, 0);
            EXPECT_EQ(hwPorts(DHCPSNOOP_HW_OP_ADD).count(100), 0u) << "rules go to the port";
        }
    }
    EXPECT_EQ(model().debugCount("RTM_ANTIARP_DAICHANGEDCHECKITEM p_param->item = 96\n\r"), 1u);
}

TEST_F(NotifyTest, ArpInspectionStartAndStop)
{
    DhcpsnoopUser *dyn = user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    DhcpsnoopUser *statik = user(2, DHCPSNOOP_USER_STATIC, 3);
    statik->daiCheckItems = 0x50;
    DhcpsnoopUser *done = user(3, DHCPSNOOP_USER_DYNAMIC, 3);
    done->hwFlags = DHCPSNOOP_HW_DAI, done->daiCheckItems = 0x80, done->daiSource = 1;
    user(4, DHCPSNOOP_USER_IPSG, 3);
    user(5, DHCPSNOOP_USER_DYNAMIC, 4);

    deliver(check_msg(123, 3, 0x90));
    EXPECT_EQ(gDhcpsnoop.daiStarted, 1);
    EXPECT_EQ(std::tuple(dyn->hwFlags, dyn->daiCheckItems, dyn->daiSource),
              std::tuple(DHCPSNOOP_HW_DAI, uint8_t(0x90), uint8_t(2)));
    EXPECT_EQ(std::tuple(statik->hwFlags, statik->daiCheckItems, statik->daiSource),
              std::tuple(DHCPSNOOP_HW_DAI, uint8_t(0x50), uint8_t(0)));
    /* only those two, in bucket order: the dynamic binding's items ask the
     * address, the static one's the MAC; both ARP inspection's once started */
    ASSERT_EQ(model().hwUserCalls.size(), 2u);
    const auto &r0 = model().hwUserCalls[0].record, &r1 = model().hwUserCalls[1].record;
    EXPECT_EQ(std::tuple(r0[37], r0[38], r0[39], r1[37], r1[38], r1[39]),
              std::tuple(0x40, 0, 0x20, 0x40, 0x30, 0));

    model().hwUserCalls.clear();
    model().failOn("qorIfSetApi", DHCPSNOOP_HW_USER_CMD, -7, 1);
    deliver(msg(124, {}));
    EXPECT_EQ(gDhcpsnoop.daiStarted, 0);
    EXPECT_EQ(hwPorts(DHCPSNOOP_HW_OP_DEL), (std::multiset<uint32_t>{3, 3, 3}));
    EXPECT_EQ(model().hwUserCalls[2].record[37], 0x40);
    /* the refused one stays installed for the next event */
    EXPECT_EQ(std::tuple(dyn->hwFlags, dyn->daiCheckItems),
              std::tuple(DHCPSNOOP_HW_DAI, uint8_t(0x90)));
    for (DhcpsnoopUser *u : {statik, done})
        EXPECT_EQ(u->hwFlags | u->daiCheckItems | u->daiSource, 0);
}

TEST_F(NotifyTest, CardAndSlotEventsChooseBetweenCopyAndRules)
{
    /* system 1 slot 2: port 3 on card 5, port 4 on card 6; port 6 in slot 3 */
    model().addPort(3, "p3").location = {1, 2, 3, 0, 0, 0, 5};
    model().addPort(4, "p4").location = {1, 2, 4, 0, 0, 0, 6};
    model().addPort(6, "p6").location = {1, 3, 6, 0, 0, 0, 5};
    model().hwScalars[53] = 0; /* a master programs hardware */
    struct Case {
        uint16_t type; /* 87/88 card up/down, 90/91 slot up/down */
        uint32_t system;
        int state, scalar54, scalar45;
        bool absent;
        uint32_t dest; /* of the full copy, 0: none */
        std::multiset<uint32_t> reinstalled;
        std::set<uint32_t> deleted;
    } cases[] = {
        {87, 1, 1, 1, 1, false, (1 << 16) | (2 << 11) | (5 << 8) | 1, {}, {}},
        {87, 1, 0, 1, 0, false, 0, {3}, {}},
        {87, 2, 1, 1, 1, false, 0, {}, {}}, /* another system */
        {87, 1, 1, 1, 1, true, 0, {}, {}},
        {88, 1, 0, 0, 1, false, 0, {}, {3}},
        {88, 1, 1, 1, 1, false, 0, {}, {}},
        {88, 1, 0, 0, 0, false, 0, {}, {}},
        {90, 1, 0, 1, 1, false, (1 << 16) | (2 << 11) | 1, {}, {}},
        {90, 1, 1, 0, 1, false, 0, {3, 4}, {}},
        {91, 1, 1, 0, 1, false, 0, {}, {3, 4}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        clear_users();
        for (uint32_t port : {3u, 4u, 6u}) {
            user(uint8_t(port), DHCPSNOOP_USER_DYNAMIC, port);
            user(uint8_t(port + 10), DHCPSNOOP_USER_STATIC, port)->hwFlags = DHCPSNOOP_HW_IPSG;
            user(uint8_t(port + 20), DHCPSNOOP_USER_STATIC, port); /* not installed */
            model().dai[port] = {0, 1, 0x80};
        }
        model().hwUserCalls.clear();
        model().scalarSyncs.clear();
        model().chassisQueries.clear();
        const bool card = c.type < 90;
        (card ? model().cardAnswers : model().slotAnswers)[card ? 49152042 : 32768042] = c.state;
        model().hwScalars[54] = c.scalar54;
        model().hwScalars[45] = c.scalar45;
        model().failRules.clear();
        if (c.absent)
            model().failOn(card ? "qorHwCardGet" : "qorHwSlotGet", -1, -1);
        deliver(msg(c.type, words({c.system, 2, 5, 9})));

        EXPECT_EQ(hwPorts(DHCPSNOOP_HW_OP_ADD), c.reinstalled);
        std::set<uint32_t> deleted;
        for (uint32_t port : {3u, 4u, 6u}) {
            DhcpsnoopUserKey k = v4key(10, 0, 0, uint8_t(port));
            if (!dhcpsnoop_user_lookup(&k))
                deleted.insert(port);
        }
        EXPECT_EQ(deleted, c.deleted);
        /* full copies, not the single deletions a master also sends */
        std::vector<uint32_t> copies;
        for (auto &sync : model().scalarSyncs)
            if (sync.mode != (3u | 0x80000000u))
                copies.push_back(sync.mode);
        EXPECT_EQ(copies, c.dest ? std::vector<uint32_t>{c.dest | 0x80000000u}
                                 : std::vector<uint32_t>{});
        if (c.system == 1 && !model().chassisQueries.empty()) {
            EXPECT_EQ(model().chassisQueries[0].words, (std::array<uint32_t, 4>{1, 2, 5, 9}));
        }
    }
    model().cardAnswers[49152042] = 1;
    model().scalarSyncs.clear();
    deliver(msg(87, words({1, 2, 5}))); /* too short to name the card */
    EXPECT_TRUE(model().scalarSyncs.empty());
}

TEST_F(NotifyTest, SubsystemUpAndVlanUserEventsThroughTheLoop)
{
    user(1, DHCPSNOOP_USER_DYNAMIC, 3)->gateway = 0x0100000a;
    user(2, DHCPSNOOP_USER_DYNAMIC, 3);                     /* no gateway */
    user(3, DHCPSNOOP_USER_STATIC, 3)->gateway = 0x0100000a;
    user(4, DHCPSNOOP_USER_DYNAMIC, 3, 20)->gateway = 0x0100000a;
    enablePort(3);
    /* only VLAN 10's dynamic binding with a gateway is resent */
    sys().netlink.push_back(msg(190, words({10})));
    dhcpsnoop_main_pass();
    deliver(msg(190, words({0x1000A}))); /* not VLAN 10 */
    deliver(msg(190, {}));               /* no VLAN */
    ASSERT_EQ(model().netlinkSends.size(), 1u);
    uint16_t event;
    memcpy(&event, model().netlinkSends[0].record.data() + 12, 2);
    EXPECT_EQ(event, DHCPSNOOP_EVENT_USER_ADD);
    EXPECT_EQ(model().netlinkSends[0].record[24 + 12 + 3], 1);

    /* a subsystem's number is the first word of the datagram, here the
     * first message's length, 20; only a master sends, never to itself */
    set_role(DHCPSNOOP_ROLE_MASTER);
    deliver(cat({msg(150, words({0})), msg(93, words({77}))}));
    ASSERT_EQ(model().scalarSyncs.size(), 1u);
    EXPECT_EQ(model().scalarSyncs[0].mode, ((20u << 16) | 2) | 0x80000000u);
    EXPECT_EQ(model().debugCount("Receive subsystem:20 RTM_SUBSYSTEM_UP!"), 1u);
    model().selfSysIndex = 16;
    deliver(msg(93, {}));
    set_role(DHCPSNOOP_ROLE_NONE);
    model().selfSysIndex = 1;
    deliver(msg(93, {}));
    EXPECT_EQ(model().scalarSyncs.size(), 1u);
}
