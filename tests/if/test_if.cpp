/* Interface table: order, capacity, enable/disable, versions and traps. */
#include <cstring>

#include "binding_helpers.h"

namespace {

std::vector<uint32_t> list_order(DhcpsnoopList &head)
{
    std::vector<uint32_t> out;
    for (DhcpsnoopList *n = head.next; n != &head; n = n->next)
        out.push_back(dhcpsnoop_entry<DhcpsnoopIf>(n)->ifIndex);
    return out;
}

using IfTest = DaemonTest;

} // namespace

TEST_F(IfTest, OrderCapacityAndRefusedTraps)
{
    start(4);
    for (uint32_t idx : {30u, 10u, 20u})
        enablePort(idx);
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(20);
    dhcpsnoop_if_version_set(e, 3);
    EXPECT_EQ(dhcpsnoop_if_disable(e), 0u);
    /* the freed entry is the next one taken, zeroed; equal indexes keep their order */
    EXPECT_EQ(enablePort(25), e);
    EXPECT_EQ(dhcpsnoop_if_version(e), 1u);
    DhcpsnoopIf *a = dhcpsnoop_if_add(10);
    EXPECT_EQ(dhcpsnoop_if_lookup(10)->link.next, &a->link);
    /* exhausted: 12, nothing changed, no trap */
    model().addPort(9, "swp9");
    const size_t traps = model().trapCalls.size();
    EXPECT_EQ(dhcpsnoop_if_enable(9), 12u);
    EXPECT_EQ(list_order(gDhcpsnoop.ifList), (std::vector<uint32_t>{10, 10, 25, 30}));
    EXPECT_EQ(model().trapCalls.size(), traps);

    /* a refused trap undoes the entry; one that cannot be removed does not keep it */
    model().failOn("qorIfSetApi", 306, 5);
    EXPECT_EQ(dhcpsnoop_if_disable(e), 0u);
    model().failRules.clear();
    model().failOn("qorIfSetApi", 305, 77, 1);
    EXPECT_EQ(dhcpsnoop_if_enable(9), 77u);
    EXPECT_EQ(dhcpsnoop_if_lookup(9), nullptr);
    EXPECT_EQ(list_order(gDhcpsnoop.ifFreeList).size(), 1u);

    /* disabling takes a static binding's rules out of the hardware and keeps the binding */
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    model().ipsg[30] = {0, 1, DHCPSNOOP_CHECK_IP};
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 9), DHCPSNOOP_USER_STATIC, 30, 1);
    dhcpsnoop_user_update_hw(u, 1);
    ASSERT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(dhcpsnoop_if_disable(dhcpsnoop_if_lookup(30)), 0u);
    EXPECT_EQ(std::tuple(u->hwFlags, dhcpsnoop_user_lookup(dhcpsnoop_user_key(u))),
              std::tuple(0, u));
}

TEST_F(IfTest, StateNotifyResults)
{
    /* fails: the results of the calls in order (0 = accepted); traps: the
     * calls as command * 100 + word */
    const struct {
        uint32_t version, state;
        std::vector<std::pair<uint32_t, int>> fails;
        int rc;
        std::vector<uint32_t> traps;
    } cases[] = {
        {3, 1, {}, 0, {30523, 30524}},
        {3, 1, {{305, 9}}, 9, {30523}},
        {3, 1, {{305, 0}, {305, 8}}, 8, {30523, 30524}},
        {0, 1, {}, 0, {}},
        {3, 0, {{306, 6}}, 0, {30623, 30624}},
        {3, 2, {{306, 0}, {306, 4}}, 4, {30623, 30624}},
        {1, 0, {{306, 3}}, 3, {30623}},
    };
    for (auto &c : cases) {
        model().failRules.clear();
        model().trapCalls.clear();
        for (auto &[cmd, rc] : c.fails)
            model().failOn("qorIfSetApi", cmd, rc, 1);
        EXPECT_EQ(dhcpsnoop_if_state_notify(33, c.version, c.state), c.rc);
        std::vector<uint32_t> traps;
        for (auto &t : model().trapCalls)
            traps.push_back(t.ifIndex == 33 ? t.cmd * 100 + t.word : 0);
        EXPECT_EQ(traps, c.traps);
    }
}
