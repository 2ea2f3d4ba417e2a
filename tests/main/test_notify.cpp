/* Platform events: message walk, link and aggregation events, check-item
 * changes, ARP inspection start/stop, card, slot and subsystem events. */
#include <array>
#include <cstring>
#include <initializer_list>
#include <set>

#include "binding_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_notify.h"

namespace {
using Bytes = std::vector<uint8_t>;

void put32(Bytes &b, uint32_t v) { b.insert(b.end(), (uint8_t *)&v, (uint8_t *)&v + 4); }
void put16(Bytes &b, uint16_t v) { b.insert(b.end(), (uint8_t *)&v, (uint8_t *)&v + 2); }

/* One message; `len` overrides the length field. */
Bytes msg(uint16_t type, const Bytes &payload, uint32_t len = 0)
{
    Bytes b;
    put32(b, len ? len : uint32_t(16 + payload.size()));
    put16(b, type);
    put16(b, 0);
    put32(b, 7);
    put32(b, 0);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}
Bytes words(std::initializer_list<uint32_t> ws)
{
    Bytes b;
    for (uint32_t w : ws)
        put32(b, w);
    return b;
}
Bytes check_msg(uint16_t type, uint32_t ifIndex, uint8_t items)
{
    Bytes p = words({ifIndex});
    p.push_back(items);
    return msg(type, p);
}
/* A link attribute, padded to 4 unless `len` overrides its length field. */
Bytes attr(uint16_t type, const Bytes &value, uint16_t len = 0)
{
    Bytes b;
    put16(b, len ? len : uint16_t(4 + value.size()));
    put16(b, type);
    b.insert(b.end(), value.begin(), value.end());
    b.resize((b.size() + 3) & ~size_t(3));
    return b;
}
Bytes link_msg(uint16_t type, uint32_t ifIndex, const Bytes &attrs = {})
{
    Bytes p = words({0, ifIndex, 0, 0});
    p.insert(p.end(), attrs.begin(), attrs.end());
    return msg(type, p);
}
Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes b;
    for (auto &p : parts) {
        b.resize((b.size() + 3) & ~size_t(3));
        b.insert(b.end(), p.begin(), p.end());
    }
    return b;
}
/* Deliver from a buffer of exactly the datagram's size. */
void deliver(Bytes d) { EXPECT_EQ(dhcpsnoop_notify_recv(d.data(), int32_t(d.size())), 0); }

const Mac kMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
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
        return make_user(v4key(10, 0, 0, last), type, port, vid, kMac);
    }
    size_t hwCalls(uint32_t op, uint32_t port)
    {
        size_t n = 0;
        for (auto &c : model().hwUserCalls)
            n += c.op == op && c.ifIndex == port;
        return n;
    }
};

TEST_F(NotifyTest, MessagesOfOneDatagramAreHandledInOrder)
{
    enablePort(3);
    user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    model().ipsg[7] = {0, 1, 0x90};
    /* the trunk processing needs the aggregate's entry that the deletion
     * afterwards removes; the first message ends with an attribute of
     * length 5, so the next one starts after 3 bytes of padding */
    Bytes first = link_msg(16, 3, cat({attr(52, words({7})), attr(49, {1})}));
    const uint32_t unpadded = uint32_t(first.size() - 3);
    memcpy(first.data(), &unpadded, 4);
    deliver(cat({first, link_msg(17, 3), msg(200, {})}));
    EXPECT_EQ(hwCalls(DHCPSNOOP_HW_OP_ADD, 7), 1u);
    EXPECT_EQ(dhcpsnoop_if_lookup(3), nullptr);
    EXPECT_EQ(user_count(), 0u);
    const std::string &t = model().debugText;
    EXPECT_LT(t.find("IFLA_AGGADDPHY message: ifindex 7"), t.find("IFLA_SYNCCFG message: ifindex 3"));
    EXPECT_LT(t.find("IFLA_SYNCCFG"), t.find("RTM_DELLINK message: ifindex 3"));
    EXPECT_EQ(model().debugCount("Unknown rtm type 200!"), 1u);
}

TEST_F(NotifyTest, FramingBoundsEndTheWalk)
{
    Bytes del = link_msg(17, 9);
    struct Case {
        const char *name;
        Bytes datagram;
        int32_t length; /* -2: the datagram's size */
        size_t handled;
    } cases[] = {
        {"two messages", cat({del, del}), -2, 2},
        {"length past the datagram", msg(17, Bytes(16, 0), 36), -2, 0},
        {"second longer than what is left", cat({del, msg(17, Bytes(16, 0), 40)}), -2, 1},
        {"length below a header", cat({msg(17, Bytes(16, 0), 12), del}), -2, 0},
        {"short datagram", Bytes(del.begin(), del.begin() + 15), -2, 0},
        {"recvfrom failed", del, -1, 0},
        {"trailing bytes", cat({del, Bytes(15, 0xff)}), -2, 1},
        {"unaligned last message", cat({del, msg(17, Bytes(17, 0))}), -2, 2},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        model().debugText.clear();
        int32_t len = c.length == -2 ? int32_t(c.datagram.size()) : c.length;
        EXPECT_EQ(dhcpsnoop_notify_recv(c.datagram.data(), len), 0);
        EXPECT_EQ(model().debugCount("Receive RTM_DELLINK message."), c.handled);
    }
}

TEST_F(NotifyTest, LinkAttributesAreBoundedByTheirMessage)
{
    enablePort(3);
    struct Case {
        const char *name;
        Bytes attrs;
        size_t synccfg;
    } cases[] = {
        {"unknown skipped", cat({attr(77, {1, 2}), attr(49, {}), attr(78, {})}), 1},
        {"shorter than a header", cat({attr(49, {}), attr(49, {}, 3), attr(49, {})}), 1},
        {"longer than the message", cat({attr(49, {}), attr(49, Bytes(4, 0), 12)}), 1},
        {"partial header at the end", cat({attr(49, {}), Bytes{8, 0}}), 1},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        size_t before = model().debugCount("IFLA_SYNCCFG");
        deliver(link_msg(16, 3, c.attrs));
        EXPECT_EQ(model().debugCount("IFLA_SYNCCFG") - before, c.synccfg);
    }
    EXPECT_EQ(model().debugCount("Unknown event 78!"), 1u);
    /* a member attribute without a member, and any event for an interface
     * without snooping, ask nothing */
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
    model().ipsg[7] = {0, 1, 0x90};
    model().ipsg[8] = {0, 1, 0x90};
    deliver(link_msg(16, 3, cat({attr(52, words({7})), attr(53, words({8}))})));
    /* joining: installed on the trunk already, nothing new for the port;
     * leaving: the trunk's rule goes from the port */
    EXPECT_EQ(hwCalls(DHCPSNOOP_HW_OP_ADD, 7), 0u);
    EXPECT_EQ(hwCalls(DHCPSNOOP_HW_OP_DEL, 8), 1u);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG);
    ASSERT_EQ(model().aggQueries.size(), 2u);
    EXPECT_EQ(model().aggQueries[0].ifIndex, 3u);
    EXPECT_EQ(model().aggQueries[0].attr, DHCPSNOOP_AGG_QUERY_ATTR);
    EXPECT_EQ(model().aggQueries[0].answerPreset, 2u);
    EXPECT_EQ(model().aggQueries[0].countPreset, 1u);

    struct {
        uint8_t count;
        bool fails, runs;
    } answers[] = {{2, false, false}, {0, false, true}, {5, true, true}};
    for (auto &a : answers) {
        model().debugText.clear();
        model().aggCounts[3] = a.count;
        if (a.fails)
            model().failOn("qorIfGetApi", DHCPSNOOP_IF_ATTR_AGG, -1);
        deliver(link_msg(16, 3, attr(53, words({8}))));
        EXPECT_EQ(model().debugCount("Process user on trunk interface 3, port 8, operate 0"),
                  a.runs ? 1u : 0u) << int(a.count);
    }
}

TEST_F(NotifyTest, PortJoiningAnAggregateOrDeletedLosesSnooping)
{
    enablePort(3);
    enablePort(4);
    model().debugText.clear();
    /* joining twice, then leaving, for an entry that is gone after the first */
    deliver(link_msg(16, 3, cat({attr(38, {}), attr(38, {}), attr(53, words({8}))})));
    EXPECT_EQ(dhcpsnoop_if_lookup(3), nullptr);
    EXPECT_EQ(model().debugCount("Process user on trunk"), 0u);
    EXPECT_TRUE(model().traps.count({4, 23}));
    EXPECT_FALSE(model().traps.count({3, 23}));
    size_t deletes = 0;
    for (auto &c : model().trapCalls)
        deletes += c.ifIndex == 3 && c.cmd == 306;
    EXPECT_EQ(deletes, 1u) << "switched off once";

    size_t traps = model().trapCalls.size();
    deliver(link_msg(17, 5));
    EXPECT_EQ(model().trapCalls.size(), traps);
    EXPECT_EQ(model().debugCount("RTM_DELLINK message: ifindex"), 0u);
    deliver(link_msg(17, 4));
    EXPECT_EQ(dhcpsnoop_if_lookup(4), nullptr);
    EXPECT_TRUE(model().traps.empty());
}

/* Bindings of both rule kinds as the check-item changes find them. */
struct CheckCase {
    const char *name;
    uint32_t ifIndex; /* 3: the port, 100: the VLAN interface of VLAN 10 */
    uint8_t items;
    /* per binding after the event: source (0 = not installed), items */
    uint8_t portSrc, portItems, vlanSrc, vlanItems, freshSrc, otherPortSrc;
};

TEST_F(NotifyTest, CheckItemChangesFollowPortOverVlan)
{
    const CheckCase cases[] = {
        {"port withdraw only", 3, 0x00, 0, 0, 1, 0xA0, 0, 0},
        {"port new items", 3, 0xC0, 2, 0xC0, 2, 0xC0, 2, 0},
        {"vlan withdraw only", 100, 0x00, 2, 0x90, 0, 0, 0, 0},
        {"vlan new items", 100, 0x60, 2, 0x90, 1, 0x60, 1, 1},
    };
    for (uint16_t type : {198, 199}) {
        const bool dai = type == 199;
        const uint8_t bit = dai ? DHCPSNOOP_HW_DAI : DHCPSNOOP_HW_IPSG;
        auto src = dai ? &DhcpsnoopUser::daiSource : &DhcpsnoopUser::ipsgSource;
        auto its = dai ? &DhcpsnoopUser::daiCheckItems : &DhcpsnoopUser::ipsgCheckItems;
        for (const CheckCase &c : cases) {
            SCOPED_TRACE(std::string(c.name) + (dai ? " dai" : " ipsg"));
            for (auto &head : gDhcpsnoop.userHash)
                while (!dhcpsnoop_list_empty(&head))
                    dhcpsnoop_user_delete(dhcpsnoop_entry<DhcpsnoopUser>(head.next));
            auto installed = [&](DhcpsnoopUser *u, uint8_t s, uint8_t i) {
                u->hwFlags |= bit, u->*src = s, u->*its = i;
                return u;
            };
            DhcpsnoopUser *byPort = installed(user(1, 1, 3), 2, 0x90);
            DhcpsnoopUser *byVlan = installed(user(2, 1, 3), 1, 0xA0);
            DhcpsnoopUser *fresh = user(3, 1, 3);
            DhcpsnoopUser *otherPort = user(4, 1, 4);
            DhcpsnoopUser *statik = installed(user(5, 2, 3), 2, 0x90);
            DhcpsnoopUser *requested = user(6, 1, 3);
            requested->bindState = DHCPSNOOP_BIND_REQUESTED;
            deliver(check_msg(type, c.ifIndex, c.items));
            auto expect = [&](DhcpsnoopUser *u, uint8_t s, uint8_t i) {
                EXPECT_EQ(u->hwFlags & bit, s ? bit : 0) << int(u->ipAddr[3]);
                EXPECT_EQ(u->*src, s) << int(u->ipAddr[3]);
                EXPECT_EQ(u->*its, i) << int(u->ipAddr[3]);
            };
            expect(byPort, c.portSrc, c.portItems);
            expect(byVlan, c.vlanSrc, c.vlanItems);
            expect(fresh, c.freshSrc, c.freshSrc ? c.items : 0);
            expect(otherPort, c.otherPortSrc, c.otherPortSrc ? c.items : 0);
            expect(statik, 2, 0x90);
            expect(requested, 0, 0);
            /* rules are always addressed to the binding's port */
            for (auto &call : model().hwUserCalls)
                EXPECT_NE(call.ifIndex, 100u);
            model().hwUserCalls.clear();
        }
    }
    EXPECT_EQ(model().debugCount("RTM_ANTIARP_DAICHANGEDCHECKITEM p_param->item = 96\n\r"), 1u);
    EXPECT_EQ(model().debugCount("Check all user-bind entries on vlan 10."), 4u);
}

TEST_F(NotifyTest, RefusedHardwareLeavesCheckItemStateForTheNextEvent)
{
    DhcpsnoopUser *byPort = user(1, 1, 3);
    byPort->hwFlags = DHCPSNOOP_HW_IPSG, byPort->ipsgSource = 2, byPort->ipsgCheckItems = 0x90;
    DhcpsnoopUser *fresh = user(2, 1, 3);
    model().failOn("qorIfSetApi", DHCPSNOOP_HW_USER_CMD, -7);
    deliver(check_msg(198, 3, 0xC0));
    EXPECT_EQ(byPort->ipsgCheckItems, 0x90);
    EXPECT_EQ(byPort->ipsgSource, 2);
    EXPECT_EQ(fresh->hwFlags, 0);
    EXPECT_EQ(fresh->ipsgSource, 0);
}

TEST_F(NotifyTest, ArpInspectionStartAndStop)
{
    DhcpsnoopUser *dyn = user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    DhcpsnoopUser *statik = user(2, DHCPSNOOP_USER_STATIC, 3);
    statik->daiCheckItems = 0x50;
    DhcpsnoopUser *done = user(3, DHCPSNOOP_USER_DYNAMIC, 3);
    done->hwFlags = DHCPSNOOP_HW_DAI, done->daiCheckItems = 0x80, done->daiSource = 1;
    DhcpsnoopUser *ipsgOnly = user(4, DHCPSNOOP_USER_IPSG, 3);
    DhcpsnoopUser *elsewhere = user(5, DHCPSNOOP_USER_DYNAMIC, 4);

    deliver(check_msg(123, 3, 0x90));
    EXPECT_EQ(gDhcpsnoop.daiStarted, 1);
    EXPECT_EQ(model().hwUserCalls.size(), 2u);
    for (auto &c : model().hwUserCalls)
        EXPECT_EQ(c.record[37], 0x40) << "marked as ARP inspection's once started";
    EXPECT_EQ(dyn->hwFlags, DHCPSNOOP_HW_DAI);
    EXPECT_EQ(dyn->daiCheckItems, 0x90);
    EXPECT_EQ(dyn->daiSource, 2);
    EXPECT_EQ(statik->hwFlags, DHCPSNOOP_HW_DAI);
    EXPECT_EQ(statik->daiCheckItems, 0x50);
    EXPECT_EQ(statik->daiSource, 0);
    /* in bucket order: the dynamic binding's items ask the address, the
     * static one's the MAC and port */
    EXPECT_EQ(model().hwUserCalls[0].record[39], 0x20);
    EXPECT_EQ(model().hwUserCalls[1].record[38], 0x30);
    EXPECT_EQ(model().hwUserCalls[1].record[39], 0);
    EXPECT_EQ(ipsgOnly->hwFlags | elsewhere->hwFlags, 0);

    model().hwUserCalls.clear();
    model().failOn("qorIfSetApi", DHCPSNOOP_HW_USER_CMD, -7, 1);
    deliver(msg(124, {}));
    EXPECT_EQ(gDhcpsnoop.daiStarted, 0);
    ASSERT_EQ(model().hwUserCalls.size(), 3u);
    int stillInstalled = 0;
    for (DhcpsnoopUser *u : {dyn, statik, done}) {
        stillInstalled += u->hwFlags == DHCPSNOOP_HW_DAI;
        if (!u->hwFlags) {
            EXPECT_EQ(u->daiCheckItems | u->daiSource, 0);
        }
    }
    EXPECT_EQ(stillInstalled, 1);
    for (auto &c : model().hwUserCalls)
        EXPECT_EQ(c.record[37], 0x40);
}

TEST_F(NotifyTest, CardAndSlotEventsChooseBetweenCopyAndRules)
{
    /* system 1 slot 2: port 3 on card 5, port 4 on card 6; port 6 in slot 3 */
    model().addPort(3, "p3").location = {1, 2, 3, 0, 0, 0, 5};
    model().addPort(4, "p4").location = {1, 2, 4, 0, 0, 0, 6};
    model().addPort(6, "p6").location = {1, 3, 6, 0, 0, 0, 5};
    model().hwScalars[53] = 0; /* a master programs hardware */
    struct Case {
        const char *name;
        uint16_t type;
        uint32_t system;
        int state, scalar54, scalar45;
        bool presentFails;
        uint32_t dest;                /* 0: no copy */
        std::multiset<uint32_t> reinstalled;
        std::set<uint32_t> deleted;
    } cases[] = {
        {"card ready", 87, 1, 1, 1, 1, false, (1 << 16) | (2 << 11) | (5 << 8) | 1, {}, {}},
        {"card rules", 87, 1, 0, 1, 0, false, 0, {3}, {}},
        {"card rules by 45", 87, 1, 0, 0, 1, false, 0, {3}, {}},
        {"card rules not kept", 87, 1, 0, 0, 0, false, 0, {}, {}},
        {"other system", 87, 2, 1, 1, 1, false, 0, {}, {}},
        {"card absent", 87, 1, 1, 1, 1, true, 0, {}, {}},
        {"card gone", 88, 1, 0, 0, 1, false, 0, {}, {3}},
        {"card gone, state set", 88, 1, 1, 1, 1, false, 0, {}, {}},
        {"card gone, not kept", 88, 1, 0, 0, 0, false, 0, {}, {}},
        {"slot ready", 90, 1, 0, 1, 1, false, (1 << 16) | (2 << 11) | 1, {}, {}},
        {"slot rules", 90, 1, 1, 1, 0, false, 0, {3, 4}, {}},
        {"slot gone", 91, 1, 1, 0, 1, false, 0, {}, {3, 4}},
        {"slot gone, state clear", 91, 1, 0, 1, 1, false, 0, {}, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        for (auto &head : gDhcpsnoop.userHash)
            while (!dhcpsnoop_list_empty(&head))
                dhcpsnoop_user_delete(dhcpsnoop_entry<DhcpsnoopUser>(head.next));
        for (uint32_t port : {3u, 4u, 6u}) {
            user(uint8_t(port), DHCPSNOOP_USER_DYNAMIC, port);
            user(uint8_t(port + 10), DHCPSNOOP_USER_STATIC, port)->hwFlags = DHCPSNOOP_HW_IPSG;
            user(uint8_t(port + 20), DHCPSNOOP_USER_STATIC, port); /* never installed */
            model().dai[port] = {0, 1, 0x80};
        }
        model().failRules.clear();
        model().hwUserCalls.clear();
        model().scalarSyncs.clear();
        model().chassisQueries.clear();
        const bool card = c.type < 90;
        (card ? model().cardAnswers : model().slotAnswers)[card ? 49152042 : 32768042] = c.state;
        model().hwScalars[54] = c.scalar54;
        model().hwScalars[45] = c.scalar45;
        if (c.presentFails)
            model().failOn(card ? "qorHwCardGet" : "qorHwSlotGet", -1, -1);
        deliver(msg(c.type, words({c.system, 2, 5, 9})));

        std::multiset<uint32_t> reinstalled;
        std::set<uint32_t> deleted;
        for (auto &call : model().hwUserCalls)
            if (call.op == DHCPSNOOP_HW_OP_ADD)
                reinstalled.insert(call.ifIndex);
        for (uint32_t port : {3u, 4u, 6u}) {
            DhcpsnoopUserKey k = v4key(10, 0, 0, uint8_t(port));
            if (!dhcpsnoop_user_lookup(&k))
                deleted.insert(port);
        }
        EXPECT_EQ(reinstalled, c.reinstalled);
        EXPECT_EQ(deleted, c.deleted);
        /* full copies, not the single deletions a master also sends */
        std::vector<uint32_t> copies;
        for (auto &sync : model().scalarSyncs)
            if (sync.mode != (3u | 0x80000000u))
                copies.push_back(sync.mode);
        EXPECT_EQ(copies, c.dest ? std::vector<uint32_t>{c.dest | 0x80000000u}
                                 : std::vector<uint32_t>{});
        if (c.system == 1) {
            ASSERT_GE(model().chassisQueries.size(), 1u);
            EXPECT_EQ(model().chassisQueries[0].words, (std::array<uint32_t, 4>{1, 2, 5, 9}));
            EXPECT_TRUE(model().chassisQueries[0].withAnswer);
        }
    }
}

TEST_F(NotifyTest, SubsystemUpTakesItsNumberFromTheDatagramStart)
{
    user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    set_role(DHCPSNOOP_ROLE_MASTER);
    /* the first word of the datagram is the first message's length: 20 */
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

TEST_F(NotifyTest, VlanUserEventsAreResent)
{
    DhcpsnoopUser *wanted = user(1, DHCPSNOOP_USER_DYNAMIC, 3);
    wanted->gateway = 0x0100000a;
    user(2, DHCPSNOOP_USER_DYNAMIC, 3);                    /* no gateway */
    user(3, DHCPSNOOP_USER_STATIC, 3)->gateway = 0x0100000a;
    user(4, DHCPSNOOP_USER_DYNAMIC, 3, 20)->gateway = 0x0100000a;
    deliver(msg(190, words({10})));
    deliver(msg(190, words({0x1000A}))); /* not VLAN 10 */
    deliver(msg(190, {}));                /* no VLAN */
    ASSERT_EQ(model().netlinkSends.size(), 1u);
    uint16_t event;
    memcpy(&event, model().netlinkSends[0].record.data() + 12, 2);
    EXPECT_EQ(event, DHCPSNOOP_EVENT_USER_ADD);
    EXPECT_EQ(model().netlinkSends[0].record[24 + 12 + 3], 1);
}

TEST_F(NotifyTest, LoopDeliversNetlinkDatagrams)
{
    enablePort(3);
    sys().netlink.push_back(link_msg(17, 3));
    dhcpsnoop_main_pass();
    EXPECT_TRUE(sys().netlink.empty());
    EXPECT_EQ(dhcpsnoop_if_lookup(3), nullptr);
}
