/* Sync records: their layout, full-copy sends with the buffer packing, and a
 * Slave applying what it receives, whatever the lengths say. */
#include <cstring>

#include "binding_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_nm.h"

namespace {
using Bytes = std::vector<uint8_t>;

/* A value's bytes in host order, as records carry them. */
template <class T> Bytes bytes_of(T v) { return Bytes((uint8_t *)&v, (uint8_t *)&v + sizeof v); }

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes user_record(const DhcpsnoopUser *u, uint32_t add)
{
    Bytes out(60);
    EXPECT_EQ(dhcpsnoop_sync_user_pkt_build(u, add, out.data()), 60u);
    return out;
}

/* Hand a buffer over as the peer's does, through management, exactly as large
 * as its bytes, so a read past it shows. */
void receive(const Bytes &bytes)
{
    Bytes copy(bytes);
    QorTextPair d{copy.empty() ? nullptr : copy.data(), uint32_t(copy.size())};
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_SYNC_PKT, &d), 0);
}
} // namespace

class SyncTest : public BindingFixture {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        startWithPorts(40);
    }
    void addUsers(int n, uint8_t net = 1)
    {
        for (int i = 0; i < n; i++)
            ASSERT_NE(make_user(v4key(10, net, 0, uint8_t(i)), DHCPSNOOP_USER_DYNAMIC, 3, 10),
                      nullptr);
    }
    void clearTables()
    {
        for (auto &head : gDhcpsnoop.userHash)
            while (!dhcpsnoop_list_empty(&head))
                dhcpsnoop_user_delete(dhcpsnoop_entry<DhcpsnoopUser>(head.next));
        for (DhcpsnoopServer *srv : server_list())
            dhcpsnoop_server_delete(srv);
    }
    /* A dynamic binding of 10.0.0.1 outside the table, to build records from. */
    DhcpsnoopUser tmpl{};
    DhcpsnoopUserKey k = v4key(10, 0, 0, 1);
};

TEST_F(SyncTest, RecordLayouts)
{
    DhcpsnoopUserKey key = v6key({0x20, 0x01, 0x0d, 0xb8, 9});
    DhcpsnoopUser *u = make_user(key, DHCPSNOOP_USER_STATIC, 0x01020304, 0x0ABC,
                                 {1, 2, 3, 4, 5, 6});
    u->origVid = 0x0DEF;
    u->leaseTime = 0x11111111;
    u->leaseStart = 0x22222222;
    u->hwFlags = 0xC0;
    u->userAttr = 0x3344;
    u->ipsgHwId = 0x55555555;
    u->daiHwId = 0x66666666;
    u->gateway = 0x77777777;
    const uint8_t *kb = reinterpret_cast<const uint8_t *>(&key);
    EXPECT_EQ(user_record(u, 1),
              cat({{1, 1}, bytes_of<uint16_t>(56), {kb, kb + 20}, bytes_of<uint16_t>(0x0ABC),
                   bytes_of<uint16_t>(0x0DEF), bytes_of<uint32_t>(0x01020304),
                   bytes_of<uint32_t>(0x11111111), bytes_of<uint32_t>(0x22222222),
                   {0xC0, DHCPSNOOP_USER_STATIC, DHCPSNOOP_BIND_BOUND, 0x30},
                   bytes_of<uint16_t>(0x3344), {1, 2, 3, 4, 5, 6}, bytes_of<uint32_t>(0x55555555),
                   bytes_of<uint32_t>(0x66666666)}));
    /* a deletion carries the key only */
    EXPECT_EQ(user_record(u, 0), cat({{1, 0}, bytes_of<uint16_t>(56), {kb, kb + 20}, Bytes(36, 0)}));
    /* the VLAN value travels in 16 bits */
    EXPECT_EQ(server_record(0xC0A80001, 0x12345, 7, 1),
              cat({{2, 1}, bytes_of<uint16_t>(12), bytes_of<uint32_t>(0xC0A80001),
                   bytes_of<uint32_t>(7), bytes_of<uint16_t>(0x2345), {0, 0}}));
}

TEST_F(SyncTest, FullCopyFillsBuffersToTheirLimit)
{
    struct Case {
        int users, servers;
        std::vector<size_t> sizes;
    } cases[] = {
        {24, 0, {1380, 60}}, {23, 2, {1396, 16}}, {22, 5, {1400}}, {0, 88, {1392, 16}}, {0, 0, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.users);
        clearTables();
        addUsers(c.users);
        make_user(v4key(10, 9, 9, 9), DHCPSNOOP_USER_IPSG, 3, 10); /* never copied */
        for (int i = 1; i <= c.servers; i++)
            dhcpsnoop_server_add(uint32_t(i), 10, 3);
        model().scalarSyncs.clear();
        dhcpsnoop_sync_all_send(0x20002, 0);
        EXPECT_TRUE(model().scalarSyncs.empty());
        dhcpsnoop_sync_all_send(0x20002, 1);
        auto bufs = sync_buffers();
        std::vector<size_t> sizes;
        for (auto &b : bufs)
            sizes.push_back(b.size());
        EXPECT_EQ(sizes, c.sizes);
        for (auto &s : model().scalarSyncs)
            EXPECT_EQ(s.mode, 0x80020002u);
        if (c.servers) { /* the newest server first, the oldest last */
            EXPECT_EQ(Bytes(bufs.back().end() - 12, bufs.back().end() - 8), bytes_of(1u));
        }
    }
}

TEST_F(SyncTest, SlaveTakesOverTheMastersTables)
{
    addUsers(30);
    DhcpsnoopUser *s = make_user(v6key({0x20, 0x01, 1}), DHCPSNOOP_USER_STATIC, 4, 10);
    s->userAttr = 9;
    s->hwFlags = DHCPSNOOP_HW_IPSG;
    s->ipsgHwId = 77;
    dhcpsnoop_server_add(0x0A000001, 10, 3);
    std::vector<DhcpsnoopUser> before;
    for (auto &head : gDhcpsnoop.userHash)
        for (DhcpsnoopList *n = head.next; n != &head; n = n->next)
            before.push_back(*dhcpsnoop_entry<DhcpsnoopUser>(n));
    dhcpsnoop_sync_all_send(7, 1);
    auto bufs = sync_buffers();
    ASSERT_EQ(bufs.size(), 2u);

    clearTables();
    for (DhcpsnoopRole role : {DHCPSNOOP_ROLE_MASTER, DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_SLAVE}) {
        set_role(role);
        model().scalarSyncs.clear();
        model().hwUserCalls.clear();
        for (auto &b : bufs)
            receive(b);
        /* only the Slave takes them */
        EXPECT_EQ(user_count(), role == DHCPSNOOP_ROLE_SLAVE ? before.size() : 0u);
        EXPECT_EQ(server_list().size(), role == DHCPSNOOP_ROLE_SLAVE ? 1u : 0u);
    }
    for (auto &want : before) {
        DhcpsnoopUser *got = dhcpsnoop_user_lookup(dhcpsnoop_user_key(&want));
        ASSERT_NE(got, nullptr);
        EXPECT_EQ(memcmp(&got->ipType, &want.ipType, offsetof(DhcpsnoopUser, gateway) -
                                                         offsetof(DhcpsnoopUser, ipType)),
                  0);
    }
    EXPECT_NE(dhcpsnoop_server_lookup(0x0A000001, 10, 3), nullptr);
    /* the Slave neither programs hardware nor sends back */
    EXPECT_TRUE(model().hwUserCalls.empty());
    EXPECT_TRUE(model().scalarSyncs.empty());
}

TEST_F(SyncTest, SlaveAppliesChangesAsWritten)
{
    set_role(DHCPSNOOP_ROLE_SLAVE);
    memcpy(dhcpsnoop_user_key(&tmpl), &k, 20);
    tmpl.userType = DHCPSNOOP_USER_DYNAMIC;
    tmpl.ifIndex = 3;
    tmpl.vid = tmpl.origVid = 10;
    receive(user_record(&tmpl, 1));
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k);
    ASSERT_NE(u, nullptr);

    /* a replacement is written over the entry */
    tmpl.ifIndex = 4;
    tmpl.leaseTime = 200;
    receive(user_record(&tmpl, 1));
    EXPECT_EQ(dhcpsnoop_user_lookup(&k), u);
    EXPECT_EQ(std::tuple(u->ifIndex, u->leaseTime), std::tuple(4u, 200u));

    /* deleting an unknown key changes nothing; a known one is deleted */
    DhcpsnoopUser other = tmpl;
    DhcpsnoopUserKey k2 = v4key(10, 0, 0, 2);
    memcpy(dhcpsnoop_user_key(&other), &k2, 20);
    receive(user_record(&other, 0));
    EXPECT_EQ(user_count(), 1u);
    receive(cat({user_record(&tmpl, 0), server_record(1, 10, 3, 1), server_record(1, 10, 3, 1),
                 server_record(2, 20, 3, 1)}));
    EXPECT_EQ(user_count(), 0u);
    EXPECT_EQ(server_list().size(), 2u); /* an existing server is not added twice */
    receive(cat({server_record(1, 10, 3, 0), server_record(9, 10, 3, 0)}));
    ASSERT_EQ(server_list().size(), 1u);
    EXPECT_EQ(std::tuple(server_list()[0]->serverIp, server_list()[0]->vid), std::tuple(2u, 20u));
    EXPECT_EQ(model().logCount("[DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.1"), 1u);

    /* with no node free the record is dropped */
    addUsers(40, 5);
    ASSERT_EQ(free_user_nodes(), 0u);
    receive(user_record(&other, 1));
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2), nullptr);
}

TEST_F(SyncTest, LengthsNeverLeadPastTheBuffer)
{
    set_role(DHCPSNOOP_ROLE_SLAVE);
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    memcpy(dhcpsnoop_user_key(&tmpl), &k, 20);
    const Bytes user = user_record(&tmpl, 1), srv = server_record(0x0A, 10, 3, 1);
    auto with_len = [&](uint16_t len, size_t keep) {
        Bytes b = cat({{1, 1}, bytes_of(len), Bytes(user.begin() + 4, user.end())});
        return Bytes(b.begin(), b.begin() + keep);
    };
    const Bytes shortUser = with_len(8, 12); /* the next record starts at 12 */
    const Bytes longUser = with_len(1000, 60);
    Bytes unknown = srv;
    unknown[0] = 7;

    struct Case {
        const char *what;
        Bytes bytes;
        bool user, server;
    } cases[] = {
        {"cut inside a user record", Bytes(user.begin(), user.begin() + 40), false, false},
        {"cut inside a header", cat({srv, {2, 1}}), false, true},
        {"short length, applied from the bytes that follow", cat({shortUser, srv, Bytes(32, 0)}),
         true, true},
        {"short length, record runs past the end", cat({shortUser, srv}), false, true},
        {"long length, record whole", longUser, true, false},
        {"long length hides what follows", cat({longUser, srv}), true, false},
        {"unknown types are skipped by their length", cat({unknown, {9, 1, 0, 0}, srv}), false,
         true},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        receive(c.bytes);
        EXPECT_EQ(dhcpsnoop_user_lookup(&k) != nullptr, c.user);
        EXPECT_EQ(dhcpsnoop_server_lookup(0x0A, 10, 3) != nullptr, c.server);
        clearTables();
    }
    dhcpsnoop_sync_pkt_recv(nullptr);
    QorTextPair nothing{nullptr, 100};
    dhcpsnoop_sync_pkt_recv(&nothing);
}
