/* Relay server list: lookup by all three values, replacement of the newest
 * entry when full, and the Master's sync records. */
#include <cstring>

#include "binding_helpers.h"
#include "daemon_fixture.h"

namespace {
struct Rec {
    uint8_t add;
    uint32_t ip, third;
    uint16_t vlan;
    bool operator==(const Rec &o) const
    {
        return add == o.add && ip == o.ip && third == o.third && vlan == o.vlan;
    }
};
std::ostream &operator<<(std::ostream &os, const Rec &r)
{
    return os << int(r.add) << ":" << r.ip << "/" << r.third << "/" << r.vlan;
}

std::vector<Rec> server_syncs()
{
    std::vector<Rec> out;
    for (auto &b : sync_buffers()) {
        EXPECT_EQ(b.size(), 16u);
        EXPECT_EQ(b[0], 2);
        Rec r{b[1], 0, 0, 0};
        memcpy(&r.ip, b.data() + 4, 4);
        memcpy(&r.third, b.data() + 8, 4);
        memcpy(&r.vlan, b.data() + 12, 2);
        out.push_back(r);
    }
    return out;
}

std::vector<uint32_t> server_ips()
{
    std::vector<uint32_t> out;
    for (DhcpsnoopServer *s : server_list())
        out.push_back(s->serverIp);
    return out;
}
} // namespace

class ServerListTest : public DaemonTest {
protected:
    void startWith(uint16_t serverMax)
    {
        ASSERT_EQ(dhcpsnoop_init_ex(0, 0, serverMax, 3, nullptr, nullptr, nullptr), 0);
    }
};

TEST_F(ServerListTest, FullListReplacesItsNewestEntry)
{
    startWith(2);
    set_role(DHCPSNOOP_ROLE_MASTER);
    dhcpsnoop_server_add(0xA, 10, 1);
    dhcpsnoop_server_add(0xB, 20, 2);
    dhcpsnoop_server_add(0xC, 30, 3);
    EXPECT_EQ(server_ips(), (std::vector<uint32_t>{0xC, 0xA}));
    EXPECT_EQ(server_syncs(), (std::vector<Rec>{{1, 0xA, 1, 10},
                                                {1, 0xB, 2, 20},
                                                {0, 0xB, 2, 20},
                                                {1, 0xC, 3, 30}}));
    for (auto &s : model().scalarSyncs)
        EXPECT_EQ(s.mode, 0x80000003u);
    DhcpsnoopServer *c = dhcpsnoop_server_lookup(0xC, 30, 3);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->ifIndex, 3u);
    EXPECT_EQ(c->vid, 30u);
}

TEST_F(ServerListTest, OnlyAMasterSends)
{
    startWith(2);
    for (DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_SLAVE}) {
        set_role(role);
        dhcpsnoop_server_add(0xA, 10, 1);
        dhcpsnoop_server_add(0xB, 10, 1);
        dhcpsnoop_server_add(0xC, 10, 1);
        EXPECT_EQ(server_ips(), (std::vector<uint32_t>{0xC, 0xA}));
        for (DhcpsnoopServer *s : server_list())
            dhcpsnoop_server_delete(s);
    }
    EXPECT_TRUE(model().scalarSyncs.empty());
}

TEST_F(ServerListTest, LookupNeedsAllThreeValues)
{
    startWith(4);
    set_role(DHCPSNOOP_ROLE_NONE);
    dhcpsnoop_server_add(0xA, 10, 1);
    dhcpsnoop_server_add(0xA, 10, 1); /* the list itself does not refuse duplicates */
    EXPECT_EQ(server_list().size(), 2u);
    EXPECT_EQ(dhcpsnoop_server_lookup(0xA, 10, 1), server_list()[0]);
    EXPECT_EQ(dhcpsnoop_server_lookup(0xA, 11, 1), nullptr);
    EXPECT_EQ(dhcpsnoop_server_lookup(0xA, 10, 2), nullptr);
    EXPECT_EQ(dhcpsnoop_server_lookup(0xB, 10, 1), nullptr);
}

TEST_F(ServerListTest, DeletedEntriesAreTakenAgainFirst)
{
    startWith(1);
    set_role(DHCPSNOOP_ROLE_NONE);
    DhcpsnoopServer *a = dhcpsnoop_server_alloc();
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(dhcpsnoop_server_alloc(), nullptr); /* nothing free, nothing to replace */
    dhcpsnoop_list_insert_after(&gDhcpsnoop.serverFreeList, &a->link);
    dhcpsnoop_server_add(0xA, 10, 1);
    DhcpsnoopServer *s = server_list()[0];
    dhcpsnoop_server_delete(s);
    dhcpsnoop_server_delete(nullptr);
    EXPECT_TRUE(server_list().empty());
    EXPECT_EQ(gDhcpsnoop.serverFreeList.next, &s->link);
    EXPECT_EQ(s->serverIp, 0u);
    DhcpsnoopServer *again = dhcpsnoop_server_alloc();
    EXPECT_EQ(again, s);
    EXPECT_EQ(again->vid, 0u);
}
