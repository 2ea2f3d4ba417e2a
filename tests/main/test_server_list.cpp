/* Relay server list: lookup by all three values, replacement of the newest
 * entry when full, and the Master's sync records. */
#include <cstring>

#include "binding_helpers.h"
#include "daemon_fixture.h"

namespace {
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

TEST_F(ServerListTest, FullListReplacesItsNewestEntryAndOnlyAMasterSends)
{
    startWith(2);
    for (DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_SLAVE, DHCPSNOOP_ROLE_MASTER}) {
        SCOPED_TRACE(role);
        for (DhcpsnoopServer *s : server_list())
            dhcpsnoop_server_delete(s);
        set_role(role);
        dhcpsnoop_server_add(0xA, 10, 1);
        dhcpsnoop_server_add(0xB, 20, 2);
        dhcpsnoop_server_add(0xC, 30, 3);
        EXPECT_EQ(server_ips(), (std::vector<uint32_t>{0xC, 0xA}));
    }
    /* the Master's sends only: each change, the replaced entry's deletion included */
    EXPECT_EQ(sync_buffers(), (std::vector<std::vector<uint8_t>>{
                                  server_record(0xA, 10, 1, 1), server_record(0xB, 20, 2, 1),
                                  server_record(0xB, 20, 2, 0), server_record(0xC, 30, 3, 1)}));
    for (auto &s : model().scalarSyncs)
        EXPECT_EQ(s.mode, 0x80000003u);
    DhcpsnoopServer *c = dhcpsnoop_server_lookup(0xC, 30, 3);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->ifIndex, 3u);
    EXPECT_EQ(c->vid, 30u);
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
