/* Binding propagation: hardware records, rule sources, user events, and the
 * group operations of interfaces and trunk members. */
#include <array>
#include <cstring>

#include "binding_helpers.h"
#include "daemon_fixture.h"

namespace {
const Mac kMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

DhcpsnoopHwUserRecord record_of(const SimHwUserCall &c)
{
    DhcpsnoopHwUserRecord r;
    memcpy(&r, c.record.data(), sizeof r);
    return r;
}

bool all_zero(const uint8_t *p, size_t n)
{
    for (size_t i = 0; i < n; i++)
        if (p[i])
            return false;
    return true;
}
} // namespace

class PropagationTest : public DaemonTest {
protected:
    DhcpsnoopUser *u = nullptr;

    void SetUp() override
    {
        DaemonTest::SetUp();
        start(8, 16);
        set_role(DHCPSNOOP_ROLE_NONE);
        model().addPort(3, "swp3");
        model().addVlanIf(100, 10, "vlan10");
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
        u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, kMac);
        u->userAttr = 0x1234;
    }
    using Hw = std::array<int, 5>;
    /* What the table says is installed: flags, then source and items of the
     * source guard and of ARP inspection. */
    static Hw hw(const DhcpsnoopUser *x)
    {
        return {x->hwFlags, x->ipsgSource, x->ipsgCheckItems, x->daiSource, x->daiCheckItems};
    }
};

TEST_F(PropagationTest, RecordCarriesWhatTheCheckItemsAsk)
{
    DhcpsnoopUser *v6 =
        make_user(v6key({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}),
                  DHCPSNOOP_USER_STATIC, 3, 10, kMac);
    struct Case {
        DhcpsnoopUser *user;
        uint8_t items;
        bool mac, vlan, port, addr;
    } cases[] = {
        {u, 0x90, false, false, true, true},
        {u, 0x60, true, true, false, false},
        {u, 0x00, false, false, false, false},
        {u, 0x10, false, false, true, false},
        {u, 0x80, false, false, false, true},
        {u, 0x40, true, false, false, false},
        {u, 0x20, false, true, false, false},
        {v6, 0xF0, true, true, true, true},
    };
    for (auto &c : cases) {
        model().hwUserCalls.clear();
        c.user->userAttr = 0x1234;
        uint8_t items = c.items;
        ASSERT_EQ(dhcpsnoop_user_state_notify(c.user, 0, &items, DHCPSNOOP_RULE_IPSG), 0);
        ASSERT_EQ(model().hwUserCalls.size(), 1u);
        const SimHwUserCall &call = model().hwUserCalls[0];
        DhcpsnoopHwUserRecord r = record_of(call);
        SCOPED_TRACE(int(c.items));
        EXPECT_EQ(call.ifIndex, 3u);
        EXPECT_EQ(call.op, DHCPSNOOP_HW_OP_DEL);
        EXPECT_EQ(r.macValid, c.mac ? 0x30 : 0);
        EXPECT_EQ(c.mac ? memcmp(r.mac, kMac.data(), 6) == 0 : all_zero(r.mac, 6), true);
        EXPECT_EQ(r.vid, c.vlan ? 10 : 0);
        EXPECT_EQ(r.origVid, c.vlan ? 10 : 0);
        EXPECT_EQ(r.ifIndex, c.port ? 3u : 0u);
        bool v4 = c.user->ipType == 1;
        EXPECT_EQ(r.addrKind, c.addr ? (v4 ? 0x20 : 0x80) : 0);
        EXPECT_EQ(c.addr ? memcmp(r.addr, c.user->ipAddr, 16) == 0 : all_zero(r.addr, 16), true);
        EXPECT_EQ(r.userAttr, 0x1234);
        EXPECT_EQ(r.ipType, c.user->ipType);
        EXPECT_EQ(r.ruleFlags, 0x80);
        EXPECT_EQ(r.daiHwId, 0u);
    }
}

TEST_F(PropagationTest, HardwareIdsAndTheArpInspectionFlag)
{
    u->ipsgHwId = 7;
    u->daiHwId = 8;
    uint8_t items = 0x80;
    model().nextHwId = 500;
    ASSERT_EQ(dhcpsnoop_user_state_notify(u, 1, &items, DHCPSNOOP_RULE_IPSG), 0);
    EXPECT_EQ(record_of(model().hwUserCalls[0]).ipsgHwId, 500u); /* written back by the model */
    EXPECT_EQ(u->ipsgHwId, 500u);

    /* ARP inspection not started: the rule goes out without its flag or id */
    gDhcpsnoop.daiStarted = 0;
    ASSERT_EQ(dhcpsnoop_user_state_notify(u, 1, &items, DHCPSNOOP_RULE_DAI), 0);
    DhcpsnoopHwUserRecord r = record_of(model().hwUserCalls[1]);
    EXPECT_EQ(model().hwUserCalls[1].op, DHCPSNOOP_HW_OP_ADD);
    EXPECT_EQ(r.ruleFlags, 0);
    EXPECT_EQ(r.daiHwId, 0u);
    EXPECT_EQ(r.ipsgHwId, 0u);

    gDhcpsnoop.daiStarted = 1;
    u->daiHwId = 8;
    ASSERT_EQ(dhcpsnoop_user_state_notify(u, 0, &items, DHCPSNOOP_RULE_DAI), 0);
    r = record_of(model().hwUserCalls[2]);
    EXPECT_EQ(r.ruleFlags, 0x40);
    EXPECT_EQ(r.daiHwId, 8u);

    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
    model().failOn("qorIfSetApi", 300, 9, 1);
    EXPECT_EQ(dhcpsnoop_user_state_notify(u, 1, &items, DHCPSNOOP_RULE_IPSG), 9);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Add user in hwapi: port 3 ,vid 10 ,mac "
                                 "00:11:22:33:44:55 ,ip 10.0.0.1, checkitem 0x80.\r\n"),
              1u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Add user info in hwapi failed!\r\n"), 1u);
}

TEST_F(PropagationTest, PortSettingsFirstThenTheVlan)
{
    model().ipsg[100] = {0, 1, 0xA0};
    model().dai[3] = {0, 0, 0x80}; /* present but disabled on the port */
    model().dai[100] = {0, 1, 0x80};
    dhcpsnoop_user_update_hw(u, 1);
    const Hw fromVlan = {DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, 1, 0xA0, 1, 0x80};
    EXPECT_EQ(hw(u), fromVlan);
    ASSERT_EQ(model().hwUserCalls.size(), 2u);
    for (auto &c : model().hwUserCalls)
        EXPECT_EQ(c.ifIndex, 3u); /* VLAN-sourced rules still go to the port */
    EXPECT_EQ(record_of(model().hwUserCalls[0]).vid, 10);

    /* installed already: a second install neither calls nor refreshes */
    model().ipsg[3] = {0, 1, 0x90};
    dhcpsnoop_user_update_hw(u, 1);
    EXPECT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(hw(u), fromVlan);

    /* withdrawing uses the items in force; a refusal keeps the rule marked */
    model().failOn("qorIfSetApi", 300, 5, 1);
    dhcpsnoop_user_update_hw(u, 0);
    EXPECT_EQ(hw(u), (Hw{DHCPSNOOP_HW_IPSG, 1, 0xA0, 0, 0}));
    EXPECT_EQ(record_of(model().hwUserCalls[2]).vid, 10); /* 0xA0 asked for the VLAN */
    dhcpsnoop_user_update_hw(u, 0);
    EXPECT_EQ(u->hwFlags, 0);

    /* now the port is enabled: its items win, and a refused add stays clear */
    model().failOn("qorIfSetApi", 300, 5, 1);
    dhcpsnoop_user_update_hw(u, 1);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_DAI);
    dhcpsnoop_user_update_hw(u, 1);
    EXPECT_EQ(hw(u), (Hw{DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, 2, 0x90, 1, 0x80}));

    /* without hooks nothing is installed */
    DhcpsnoopUser *w = make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    gDhcpsnoop.ipsgIfGet = gDhcpsnoop.antiArpIfGet = nullptr;
    size_t calls = model().hwUserCalls.size();
    dhcpsnoop_user_update_hw(w, 1);
    EXPECT_EQ(w->hwFlags, 0);
    EXPECT_EQ(model().hwUserCalls.size(), calls);
}

TEST_F(PropagationTest, SlaveMarksButNeverPrograms)
{
    set_role(DHCPSNOOP_ROLE_SLAVE);
    model().ipsg[3] = {0, 1, 0xF0};
    model().dai[3] = {0, 1, 0xC0};
    dhcpsnoop_user_update_hw(u, 1);
    EXPECT_EQ(hw(u), (Hw{DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, 2, 0xF0, 2, 0xC0}));
    dhcpsnoop_user_update_hw(u, 0);
    EXPECT_EQ(hw(u), (Hw{0, 0, 0, 0, 0}));
    EXPECT_TRUE(model().hwUserCalls.empty());
}

TEST_F(PropagationTest, UserEventsOnlyForIpv4DynamicWithGateway)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    memcpy(&u->gateway, "\x0A\x00\x00\xFE", 4);
    dhcpsnoop_user_notifier(u, 1);
    dhcpsnoop_user_notifier(u, 0);
    dhcpsnoop_user_notifier(u, 2); /* sent as a deletion, printed as an addition */
    ASSERT_EQ(model().netlinkSends.size(), 3u);
    const auto &send = model().netlinkSends[0];
    EXPECT_EQ(send.type, 16u);
    EXPECT_EQ(send.flags, 0u);
    /* words 0, 51, 72, the event, zeros to 24, then the body */
    std::vector<uint8_t> want(72, 0);
    const uint32_t head[3] = {0, 51, 72};
    const uint16_t added = 188;
    const DhcpsnoopUserEvent body{{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 10, 3, {10, 0, 0, 1},
                                  {10, 0, 0, 254}, 0, 1, 0};
    memcpy(want.data(), head, 12);
    memcpy(&want[12], &added, 2);
    memcpy(&want[24], &body, 48);
    EXPECT_EQ(send.record, want);
    uint16_t ev;
    for (int i : {1, 2}) {
        memcpy(&ev, model().netlinkSends[i].record.data() + 12, 2);
        EXPECT_EQ(ev, 189);
    }
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Notify add user: port 3 ,vid 10 ,mac "
                                 "00:11:22:33:44:55 ,ip 10.0.0.1, gateway 10.0.0.254.\r\n"),
              2u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Notify delete user:"), 1u);

    DhcpsnoopUser *v6 = make_user(v6key({0x20, 0x01}), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    v6->gateway = u->gateway;
    DhcpsnoopUser *noGw = make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    DhcpsnoopUser *stat = make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_STATIC, 3, 10);
    stat->gateway = u->gateway;
    for (DhcpsnoopUser *x : {v6, noGw, stat}) {
        dhcpsnoop_user_notifier(x, 1);
        dhcpsnoop_user_delete(x);
    }
    EXPECT_EQ(model().netlinkSends.size(), 3u);
}

TEST_F(PropagationTest, DisableDeletesDynamicAndOnlyWithdrawsStatic)
{
    model().ipsg[3] = {0, 1, 0x90};
    model().ipsg[4] = {0, 1, 0x90};
    ASSERT_EQ(dhcpsnoop_if_enable(3), 0u);
    DhcpsnoopUserKey ks = v4key(10, 0, 0, 2), kg = v4key(10, 0, 0, 3), ko = v4key(10, 0, 0, 4);
    DhcpsnoopUser *s = make_user(ks, DHCPSNOOP_USER_STATIC, 3, 10);
    DhcpsnoopUser *g = make_user(kg, DHCPSNOOP_USER_IPSG, 3, 10);
    DhcpsnoopUser *other = make_user(ko, DHCPSNOOP_USER_DYNAMIC, 4, 10);
    for (DhcpsnoopUser *x : {u, s, g, other})
        dhcpsnoop_user_update_hw(x, 1);
    model().hwUserCalls.clear();

    dhcpsnoop_if_disable(dhcpsnoop_if_lookup(3));
    EXPECT_EQ(dhcpsnoop_user_lookup(dhcpsnoop_user_key(u)), nullptr);
    ASSERT_EQ(dhcpsnoop_user_lookup(&ks), s);
    EXPECT_EQ(s->hwFlags, 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&kg), g);
    EXPECT_EQ(g->hwFlags, DHCPSNOOP_HW_IPSG); /* masks 1 and 2 never reach type 4 */
    EXPECT_EQ(other->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(model().hwUserCalls.size(), 2u);
    for (auto &c : model().hwUserCalls)
        EXPECT_EQ(c.op, DHCPSNOOP_HW_OP_DEL);

    ASSERT_EQ(dhcpsnoop_if_enable(3), 0u);
    EXPECT_EQ(s->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(model().hwUserCalls.back().op, DHCPSNOOP_HW_OP_ADD);

    /* a VLAN interface takes the bindings of its VLAN, whatever their port */
    other->vid = 20;
    ASSERT_EQ(dhcpsnoop_if_enable(100), 0u);
    dhcpsnoop_user_process_on_interface(dhcpsnoop_if_lookup(100), 1, 3, 0);
    EXPECT_EQ(s->hwFlags, 0);
    EXPECT_EQ(other->hwFlags, DHCPSNOOP_HW_IPSG);
    /* no interface: every binding of the masks */
    dhcpsnoop_user_process_on_interface(nullptr, 1, 1, 0);
    EXPECT_EQ(other->hwFlags, 0);
    EXPECT_EQ(g->hwFlags, DHCPSNOOP_HW_IPSG);
}

TEST_F(PropagationTest, TrunkMembersWorkOnCopies)
{
    model().addPort(50, "trunk50");
    model().addPort(7, "swp7");
    model().ipsg[50] = {0, 1, 0x90};
    model().ipsg[7] = {0, 1, 0xF0};
    u->ifIndex = 50;
    DhcpsnoopUser *fresh = make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 50, 10);
    DhcpsnoopUser *elsewhere = make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_DYNAMIC, 8, 10);
    dhcpsnoop_user_update_hw(u, 1);
    const uint32_t trunkId = u->ipsgHwId;
    model().hwUserCalls.clear();

    /* joining: only the binding not yet installed is programmed, on the port */
    dhcpsnoop_user_process_on_trunk(50, 7, 1);
    ASSERT_EQ(model().hwUserCalls.size(), 1u);
    EXPECT_EQ(model().hwUserCalls[0].ifIndex, 7u);
    EXPECT_EQ(record_of(model().hwUserCalls[0]).ifIndex, 7u);
    EXPECT_EQ(fresh->hwFlags, 0);
    EXPECT_EQ(fresh->ifIndex, 50u);
    EXPECT_EQ(fresh->ipsgHwId, 0u);

    /* leaving: the trunk's rule is withdrawn from the port with its items */
    model().hwUserCalls.clear();
    dhcpsnoop_user_process_on_trunk(50, 7, 0);
    ASSERT_EQ(model().hwUserCalls.size(), 1u);
    DhcpsnoopHwUserRecord r = record_of(model().hwUserCalls[0]);
    EXPECT_EQ(model().hwUserCalls[0].ifIndex, 7u);
    EXPECT_EQ(r.ipsgHwId, trunkId);
    EXPECT_TRUE(all_zero(r.mac, 6)); /* the trunk's 0x90, not the port's 0xF0 */
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(u->ifIndex, 50u);
    EXPECT_EQ(u->ipsgCheckItems, 0x90);

    /* trunk 0 means every binding */
    model().hwUserCalls.clear();
    dhcpsnoop_user_process_on_trunk(0, 7, 1);
    EXPECT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(elsewhere->hwFlags, 0);
}
