/* Interface table: order, capacity, enable/disable, versions and traps. */
#include <cstring>

#include "daemon_fixture.h"

namespace {

std::vector<uint32_t> list_order(DhcpsnoopList &head)
{
    std::vector<uint32_t> out;
    for (DhcpsnoopList *n = head.next; n != &head; n = n->next)
        out.push_back(dhcpsnoop_entry<DhcpsnoopIf>(n)->ifIndex);
    return out;
}

/* Trap calls on an interface as command * 100 + word. */
std::vector<uint32_t> traps_of(uint32_t ifIndex)
{
    std::vector<uint32_t> out;
    for (auto &c : sim_model().trapCalls)
        if (c.ifIndex == ifIndex)
            out.push_back(c.cmd * 100 + c.word);
    return out;
}

class IfTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(4);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    }
};

} // namespace

TEST_F(IfTest, ListOrderCapacityAndReuse)
{
    for (uint32_t idx : {30u, 10u, 20u})
        enablePort(idx);
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(20);
    dhcpsnoop_if_disable(e);
    EXPECT_EQ(enablePort(25), e); /* the freed entry is the next one taken */
    EXPECT_EQ(list_order(gDhcpsnoop.ifList), (std::vector<uint32_t>{10, 25, 30}));
    EXPECT_EQ(dhcpsnoop_if_lookup(20), nullptr);
    /* equal indexes keep their order of insertion */
    DhcpsnoopIf *a = dhcpsnoop_if_add(10);
    EXPECT_EQ(dhcpsnoop_if_lookup(10)->link.next, &a->link);
    /* exhausted: 12, nothing changed, no trap */
    model().addPort(9, "swp9");
    const size_t traps = model().trapCalls.size();
    EXPECT_EQ(dhcpsnoop_if_enable(9), 12u);
    EXPECT_EQ(list_order(gDhcpsnoop.ifList), (std::vector<uint32_t>{10, 10, 25, 30}));
    EXPECT_EQ(model().trapCalls.size(), traps);
    EXPECT_EQ(model().debugCount("Failed to allocate memory for interface 9."), 1u);
    EXPECT_EQ(dhcpsnoop_if_disable(nullptr), 0u);
}

TEST_F(IfTest, EnableSetsDefaultsAndAsksThePlatform)
{
    SimPort &p = model().addPort(11, "swp11");
    p.mac = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
    p.routerMode = true;
    ASSERT_EQ(dhcpsnoop_if_enable(11), 0u);
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(11);
    EXPECT_EQ(e->flags, ifflag::IN_USE | 1u << ifflag::VERSION_SHIFT | 2u << ifflag::POLICY_SHIFT |
                            ifflag::ROUTER_MODE);
    EXPECT_EQ(std::tuple(e->setting21, e->maxUser, e->curUser, e->isVlanIf),
              std::tuple(100, 32768, 0, 0));
    EXPECT_EQ(memcmp(e->mac, p.mac.data(), 6), 0);
    EXPECT_EQ(traps_of(11), (std::vector<uint32_t>{30523}));
    EXPECT_EQ(model().debugCount("work mode router."), 1u);

    model().addVlanIf(40, 4000, "vlan4000");
    ASSERT_EQ(dhcpsnoop_if_enable(40), 0u);
    DhcpsnoopIf *v = dhcpsnoop_if_lookup(40);
    EXPECT_EQ(v->isVlanIf, 1);
    EXPECT_EQ(dhcpsnoop_if_vid(v), 4000);
    EXPECT_FALSE(v->flags & ifflag::ROUTER_MODE);
    EXPECT_EQ(model().debugCount("work mode bridge."), 1u);

    /* failing platform answers leave the defaults */
    model().addPort(12, "swp12").routerMode = true;
    for (uint32_t cmd : {33u, 193u, 417u})
        model().failOn("qorIfGetApi", cmd, -1);
    ASSERT_EQ(dhcpsnoop_if_enable(12), 0u);
    e = dhcpsnoop_if_lookup(12);
    const uint8_t zero[6] = {0};
    EXPECT_EQ(memcmp(e->mac, zero, 6), 0);
    EXPECT_EQ(e->flags & ifflag::ROUTER_MODE, 0u);
    EXPECT_EQ(e->isVlanIf, 0);
}

TEST_F(IfTest, RefusedTrapUndoesTheEntryAndDisableReturnsIt)
{
    model().addPort(13, "swp13");
    model().failOn("qorIfSetApi", 305, 77, 1);
    EXPECT_EQ(dhcpsnoop_if_enable(13), 77u);
    EXPECT_EQ(dhcpsnoop_if_lookup(13), nullptr);
    EXPECT_TRUE(model().traps.empty());
    DhcpsnoopIf *e = enablePort(14);
    dhcpsnoop_if_version_set(e, 3);
    ASSERT_EQ(model().traps.size(), 2u);
    EXPECT_EQ(dhcpsnoop_if_disable(e), 0u);
    EXPECT_TRUE(model().traps.empty());
    EXPECT_EQ(dhcpsnoop_if_lookup(14), nullptr);
    /* the entry comes back zeroed; a trap that cannot be removed does not keep it */
    DhcpsnoopIf *again = enablePort(15);
    EXPECT_EQ(dhcpsnoop_if_version(again), 1u);
    model().failOn("qorIfSetApi", 306, 5);
    EXPECT_EQ(dhcpsnoop_if_disable(again), 0u);
    EXPECT_EQ(dhcpsnoop_if_lookup(15), nullptr);
    EXPECT_EQ(list_order(gDhcpsnoop.ifFreeList).size(), 4u);
}

TEST_F(IfTest, VersionChangesMoveTrapsAndAlwaysClearTrust)
{
    const struct {
        uint32_t from, to;
        bool trusted;
        std::vector<uint32_t> traps;
    } cases[] = {
        {1, 3, true, {30524}},         {3, 1, false, {30624}},
        {1, 2, false, {30623, 30524}}, {2, 1, true, {30523, 30624}},
        {1, 1, true, {}},              {3, 0, false, {30623, 30624}},
        {1, 7, false, {30524}}, /* only the two version bits are kept */
    };
    for (auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.from << "->" << c.to);
        DhcpsnoopIf *e = enablePort(20);
        dhcpsnoop_if_set_field(e, ifflag::VERSION_MASK, ifflag::VERSION_SHIFT, c.from);
        e->flags |= c.trusted ? ifflag::TRUSTED : 0;
        model().trapCalls.clear();
        testing::internal::CaptureStdout();
        EXPECT_EQ(dhcpsnoop_if_version_set(e, c.to), 0u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  c.trusted ? "Interface trust state is changed!\n\r" : "");
        EXPECT_EQ(traps_of(20), c.traps);
        EXPECT_EQ(dhcpsnoop_if_version(e), c.to & 3);
        EXPECT_FALSE(e->flags & ifflag::TRUSTED);
        dhcpsnoop_if_disable(e);
    }
}

TEST_F(IfTest, StateNotifyResults)
{
    /* fails: the results of the calls in order (0 = accepted) */
    const struct {
        uint32_t version, state;
        std::vector<std::pair<uint32_t, int>> fails;
        int rc;
        std::vector<uint32_t> traps;
        const char *message;
    } cases[] = {
        {3, 1, {}, 0, {30523, 30524}, "verion"},
        {3, 1, {{305, 9}}, 9, {30523}, "Add dhcp acl failed!"},
        {3, 1, {{305, 0}, {305, 8}}, 8, {30523, 30524}, "Add dhcpv6 acl failed!"},
        {0, 1, {}, 0, {}, "verion"},
        {3, 0, {}, 0, {30623, 30624}, "verion"},
        {3, 0, {{306, 6}}, 0, {30623, 30624}, "Delete dhcp acl failed!"},
        {3, 2, {{306, 0}, {306, 4}}, 4, {30623, 30624}, "Notify interface state to hwapi failed!"},
        {1, 0, {{306, 3}}, 3, {30623}, "Notify interface state to hwapi failed!"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.message);
        model().failRules.clear();
        model().trapCalls.clear();
        model().debugText.clear();
        for (auto &[cmd, rc] : c.fails)
            model().failOn("qorIfSetApi", cmd, rc, 1);
        EXPECT_EQ(dhcpsnoop_if_state_notify(33, c.version, c.state), c.rc);
        EXPECT_EQ(traps_of(33), c.traps);
        EXPECT_EQ(model().debugCount(c.message), 1u);
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
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(0x10064), dhcpsnoop_if_lookup(60)); /* low 16 bits */
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(101), nullptr);
}
