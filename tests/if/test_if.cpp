/* Interface table: order, capacity, enable/disable, versions and traps. */
#include <cstring>

#include "daemon_fixture.h"

namespace {

std::vector<uint32_t> list_order()
{
    std::vector<uint32_t> out;
    for (DhcpsnoopList *n = gDhcpsnoop.ifList.next; n != &gDhcpsnoop.ifList; n = n->next)
        out.push_back(dhcpsnoop_entry<DhcpsnoopIf>(n)->ifIndex);
    return out;
}

size_t free_count()
{
    size_t n = 0;
    for (DhcpsnoopList *e = gDhcpsnoop.ifFreeList.next; e != &gDhcpsnoop.ifFreeList; e = e->next)
        n++;
    return n;
}

struct Trap {
    uint32_t cmd, word;
    bool operator==(const Trap &o) const { return cmd == o.cmd && word == o.word; }
};

std::ostream &operator<<(std::ostream &os, const Trap &t) { return os << t.cmd << "/" << t.word; }

std::vector<Trap> traps_of(uint32_t ifIndex)
{
    std::vector<Trap> out;
    for (auto &c : sim_model().trapCalls)
        if (c.ifIndex == ifIndex)
            out.push_back({c.cmd, c.word});
    return out;
}

} // namespace

class IfTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(4);
    }
};

TEST_F(IfTest, ListStaysInAscendingIndexOrder)
{
    for (uint32_t idx : {30u, 10u, 20u})
        enablePort(idx);
    EXPECT_EQ(list_order(), (std::vector<uint32_t>{10, 20, 30}));
    dhcpsnoop_if_disable(dhcpsnoop_if_lookup(20));
    enablePort(25);
    EXPECT_EQ(list_order(), (std::vector<uint32_t>{10, 25, 30}));
    EXPECT_EQ(dhcpsnoop_if_lookup(20), nullptr);
    EXPECT_EQ(dhcpsnoop_if_lookup(25)->ifIndex, 25u);
}

TEST_F(IfTest, EqualIndexesKeepTheirOrderOfInsertion)
{
    DhcpsnoopIf *a = dhcpsnoop_if_add(7);
    DhcpsnoopIf *b = dhcpsnoop_if_add(7);
    DhcpsnoopIf *c = dhcpsnoop_if_add(3);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(gDhcpsnoop.ifList.next, &c->link);
    EXPECT_EQ(c->link.next, &a->link);
    EXPECT_EQ(a->link.next, &b->link);
    EXPECT_EQ(dhcpsnoop_if_lookup(7), a);
}

TEST_F(IfTest, ExhaustedTableRefusesWithTwelveAndChangesNothing)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    for (uint32_t idx = 1; idx <= 4; idx++)
        enablePort(idx);
    model().addPort(9, "swp9");
    size_t traps = model().trapCalls.size();
    EXPECT_EQ(dhcpsnoop_if_enable(9), 12u);
    EXPECT_EQ(list_order(), (std::vector<uint32_t>{1, 2, 3, 4}));
    EXPECT_EQ(model().trapCalls.size(), traps);
    EXPECT_EQ(model().debugCount("Failed to allocate memory for interface 9."), 1u);
}

TEST_F(IfTest, EnableSetsDefaultsAndAsksThePlatform)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    SimPort &p = model().addPort(11, "swp11");
    p.mac = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
    p.routerMode = true;
    ASSERT_EQ(dhcpsnoop_if_enable(11), 0u);
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(11);
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(e->flags & ifflag::IN_USE);
    EXPECT_EQ(dhcpsnoop_if_version(e), 1u);
    EXPECT_EQ(dhcpsnoop_if_policy(e), 2u);
    EXPECT_EQ(e->setting21, 100);
    EXPECT_EQ(e->maxUser, 32768);
    EXPECT_EQ(e->curUser, 0);
    EXPECT_EQ(memcmp(e->mac, p.mac.data(), 6), 0);
    EXPECT_TRUE(e->flags & ifflag::ROUTER_MODE);
    EXPECT_EQ(e->isVlanIf, 0);
    EXPECT_FALSE(e->flags & ifflag::TRUSTED);
    EXPECT_EQ(traps_of(11), (std::vector<Trap>{{305, 23}}));
    EXPECT_EQ(model().debugCount("work mode router."), 1u);

    model().addVlanIf(40, 4000, "vlan4000");
    ASSERT_EQ(dhcpsnoop_if_enable(40), 0u);
    DhcpsnoopIf *v = dhcpsnoop_if_lookup(40);
    EXPECT_EQ(v->isVlanIf, 1);
    EXPECT_EQ(dhcpsnoop_if_vid(v), 4000);
    EXPECT_FALSE(v->flags & ifflag::ROUTER_MODE);
    EXPECT_EQ(model().debugCount("work mode bridge."), 1u);
}

TEST_F(IfTest, PlatformAnswersThatFailLeaveDefaults)
{
    model().addPort(12, "swp12").routerMode = true;
    model().failOn("qorIfGetApi", 33, -1);
    model().failOn("qorIfGetApi", 193, -1);
    model().failOn("qorIfGetApi", 417, -1);
    ASSERT_EQ(dhcpsnoop_if_enable(12), 0u);
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(12);
    const uint8_t zero[6] = {0};
    EXPECT_EQ(memcmp(e->mac, zero, 6), 0);
    EXPECT_FALSE(e->flags & ifflag::ROUTER_MODE);
    EXPECT_EQ(e->isVlanIf, 0);
}

TEST_F(IfTest, RefusedTrapUndoesTheEntry)
{
    model().addPort(13, "swp13");
    model().failOn("qorIfSetApi", 305, 77, 1);
    size_t before = free_count();
    EXPECT_EQ(dhcpsnoop_if_enable(13), 77u);
    EXPECT_EQ(dhcpsnoop_if_lookup(13), nullptr);
    EXPECT_EQ(free_count(), before);
    EXPECT_TRUE(model().traps.empty());
}

TEST_F(IfTest, DisableRemovesTrapsAndReturnsTheEntry)
{
    DhcpsnoopIf *e = enablePort(14);
    dhcpsnoop_if_version_set(e, 3);
    ASSERT_EQ(model().traps.size(), 2u);
    size_t before = free_count();
    EXPECT_EQ(dhcpsnoop_if_disable(e), 0u);
    EXPECT_TRUE(model().traps.empty());
    EXPECT_EQ(dhcpsnoop_if_lookup(14), nullptr);
    EXPECT_EQ(free_count(), before + 1);
    /* the freed entry is the next one taken, and comes back zeroed */
    EXPECT_EQ(gDhcpsnoop.ifFreeList.next, &e->link);
    DhcpsnoopIf *again = enablePort(15);
    EXPECT_EQ(again, e);
    EXPECT_EQ(dhcpsnoop_if_version(again), 1u);
    EXPECT_EQ(dhcpsnoop_if_disable(nullptr), 0u);

    /* a trap that cannot be removed does not keep the entry */
    model().failOn("qorIfSetApi", 306, 5);
    EXPECT_EQ(dhcpsnoop_if_disable(again), 0u);
    EXPECT_EQ(dhcpsnoop_if_lookup(15), nullptr);
}

TEST_F(IfTest, VersionChangesMoveTrapsAndAlwaysClearTrust)
{
    struct Case {
        uint32_t from, to;
        bool trusted;
        std::vector<Trap> traps;
    } cases[] = {
        {1, 3, true, {{305, 24}}},
        {1, 3, false, {{305, 24}}},
        {3, 1, true, {{306, 24}}},
        {1, 2, false, {{306, 23}, {305, 24}}},
        {2, 1, true, {{305, 23}, {306, 24}}},
        {1, 1, true, {}},
        {3, 0, false, {{306, 23}, {306, 24}}},
        {1, 7, false, {{305, 24}}}, /* only the two version bits are kept */
    };
    for (auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.from << "->" << c.to << (c.trusted ? " trusted" : ""));
        DhcpsnoopIf *e = enablePort(20);
        dhcpsnoop_if_set_field(e, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, c.from);
        if (c.trusted)
            e->flags |= ifflag::TRUSTED;
        model().trapCalls.clear();
        testing::internal::CaptureStdout();
        EXPECT_EQ(dhcpsnoop_if_version_set(e, c.to), 0u);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(traps_of(20), c.traps);
        EXPECT_EQ(dhcpsnoop_if_version(e), c.to & 3);
        EXPECT_FALSE(e->flags & ifflag::TRUSTED);
        EXPECT_EQ(out, c.trusted ? "Interface trust state is changed!\n\r" : "");
        dhcpsnoop_if_disable(e);
    }
}

TEST_F(IfTest, StateNotifyResults)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
    struct Case {
        const char *what;
        uint32_t version, state;
        int fail305_23, fail305_24, fail306_23, fail306_24;
        int rc;
        std::vector<Trap> traps;
        const char *message;
    } cases[] = {
        {"add both", 3, 1, 0, 0, 0, 0, 0, {{305, 23}, {305, 24}}, nullptr},
        {"add DHCP refused stops before DHCPv6", 3, 1, 9, 0, 0, 0, 9, {{305, 23}},
         "Add dhcp acl failed!"},
        {"add DHCPv6 refused", 3, 1, 0, 8, 0, 0, 8, {{305, 23}, {305, 24}},
         "Add dhcpv6 acl failed!"},
        {"add nothing", 0, 1, 0, 0, 0, 0, 0, {}, nullptr},
        {"delete both", 3, 0, 0, 0, 0, 0, 0, {{306, 23}, {306, 24}}, nullptr},
        {"DHCPv6 success forgets a DHCP failure", 3, 0, 0, 0, 6, 0, 0, {{306, 23}, {306, 24}},
         "Delete dhcp acl failed!"},
        {"DHCPv6 delete refused", 3, 2, 0, 0, 0, 4, 4, {{306, 23}, {306, 24}},
         "Notify interface state to hwapi failed!"},
        {"DHCP delete refused", 1, 0, 0, 0, 3, 0, 3, {{306, 23}},
         "Notify interface state to hwapi failed!"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        model().failRules.clear();
        model().trapCalls.clear();
        model().debugText.clear();
        /* the model matches failures on the command; tell 23 and 24 apart by order */
        auto rule = [&](uint32_t cmd, int first, int second) {
            if (first)
                model().failOn("qorIfSetApi", cmd, first, 1);
            else if (second)
                model().failOn("qorIfSetApi", cmd, 0, 1);
            if (second)
                model().failOn("qorIfSetApi", cmd, second, 1);
        };
        if (c.version & 1) {
            rule(305, c.fail305_23, c.fail305_24);
            rule(306, c.fail306_23, c.fail306_24);
        } else {
            rule(305, c.fail305_24, 0);
            rule(306, c.fail306_24, 0);
        }
        EXPECT_EQ(dhcpsnoop_if_state_notify(33, c.version, c.state), c.rc);
        EXPECT_EQ(traps_of(33), c.traps);
        if (c.message) {
            EXPECT_EQ(model().debugCount(c.message), 1u);
        }
        EXPECT_EQ(model().debugCount("Notify interface state to hwapi: unit 33, verion"), 1u);
    }
}

TEST_F(IfTest, LookupByVidFindsOnlyVlanInterfaces)
{
    DhcpsnoopIf *port = enablePort(5);
    dhcpsnoop_if_set_field(port, ifflag::VID_MASK, ifflag::VID_SHIFT, 100);
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(100), nullptr);
    model().addVlanIf(60, 100, "vlan100");
    ASSERT_EQ(dhcpsnoop_if_enable(60), 0u);
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(100), dhcpsnoop_if_lookup(60));
    /* only the low 16 bits of the argument count */
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(0x10064), dhcpsnoop_if_lookup(60));
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(101), nullptr);
}
