/* Binding table: keys and the index, learning limits, binding on ACK,
 * deletion, queries, MAC users, and what reaches the hardware and platform. */
#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>

#include "binding_helpers.h"
#include "daemon_fixture.h"

namespace {
const Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const Mac kMacB = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};

class UserTest : public BindingFixture {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        startWithPorts(16);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    }
    /* A request for `key` from `mac` on port `ifp` in VLAN 10. */
    int learn(const DhcpsnoopUserKey &key, DhcpsnoopIf *ifp, const Mac &mac, uint32_t t = 1000)
    {
        DhcpsnoopPktInfo info = client_request(ifp, ifp->ifIndex, 10, mac, t);
        return dhcpsnoop_user_add(&key, dhcpsnoop_user_lookup(&key), &info);
    }
};
} // namespace

TEST_F(UserTest, BucketsAreTheAddressByteSumModulo63)
{
    const DhcpsnoopUserKey ones = v4key(255, 255, 255, 255);
    EXPECT_EQ(dhcpsnoop_user_hash_key(&ones), 1020u % 63);
    const DhcpsnoopUserKey k6 = v6key({0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    EXPECT_EQ(dhcpsnoop_user_hash_key(&k6), (0xFEu + 0x80 + 1) % 63);
    /* an IPv4 key is its first four bytes; whatever follows is not looked at */
    DhcpsnoopUserKey v4 = v4key(10, 1, 2, 3), junk = v4;
    junk.ipAddr[9] = 0x77;
    DhcpsnoopUser *u4 = dhcpsnoop_user_table_add(&v4);
    EXPECT_EQ(dhcpsnoop_user_lookup(&junk), u4);
    EXPECT_EQ(dhcpsnoop_user_lookup(nullptr), nullptr);
    EXPECT_EQ(dhcpsnoop_user_table_add(nullptr), nullptr);
}

/* The index against the bucket chains, which stay what decides: lookups by
 * key, by MAC (the first dynamic binding in bucket order) and the key-ordered
 * listing that skips source guard entries, over random changes. */
TEST_F(UserTest, IndexAgreesWithTheBucketChains)
{
    std::vector<DhcpsnoopUserKey> keys;
    for (uint8_t a = 0; a < 4; a++)
        for (uint8_t b = 0; b < 5; b++)
            keys.push_back(a == 3 ? v6key({10, 0, b}) : v4key(10, 0, a, b)); /* colliding sums */
    const Mac macs[] = {kMacA, kMacB, {2, 0, 0, 0, 0, 9}};
    const uint8_t types[] = {DHCPSNOOP_USER_DYNAMIC, DHCPSNOOP_USER_DYNAMIC, DHCPSNOOP_USER_STATIC,
                             DHCPSNOOP_USER_IPSG};
    std::mt19937 rng(7);
    for (int step = 0; step < 600; step++) {
        const DhcpsnoopUserKey &k = keys[rng() % keys.size()];
        DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k);
        const unsigned op = rng() % 4;
        if (!u && free_user_nodes())
            make_user(k, types[rng() % 4], 3, 10, macs[rng() % 3]);
        else if (u && op < 2)
            dhcpsnoop_user_delete(u);
        else if (u) {
            memcpy(u->mac, macs[rng() % 3].data(), 6);
            dhcpsnoop_user_mac_changed(u);
        }
        std::vector<DhcpsnoopUser *> chain; /* every entry in bucket order */
        for (auto &head : gDhcpsnoop.userHash)
            for (DhcpsnoopList *l = head.next; l != &head; l = l->next)
                chain.push_back(dhcpsnoop_entry<DhcpsnoopUser>(l));
        for (auto &key : keys) {
            auto it = std::find_if(chain.begin(), chain.end(), [&](DhcpsnoopUser *x) {
                return memcmp(dhcpsnoop_user_key(x), &key, sizeof key) == 0;
            });
            ASSERT_EQ(dhcpsnoop_user_lookup(&key), it == chain.end() ? nullptr : *it) << step;
        }
        for (auto &mac : macs) {
            auto it = std::find_if(chain.begin(), chain.end(), [&](DhcpsnoopUser *x) {
                return x->userType == DHCPSNOOP_USER_DYNAMIC && !memcmp(x->mac, mac.data(), 6);
            });
            ASSERT_EQ(dhcpsnoop_user_lookup_by_mac(mac.data()), it == chain.end() ? nullptr : *it)
                << step;
        }
        std::vector<const DhcpsnoopUser *> sorted, listed;
        for (DhcpsnoopUser *x : chain)
            if (x->userType != DHCPSNOOP_USER_IPSG)
                sorted.push_back(x);
        std::sort(sorted.begin(), sorted.end(), [](const DhcpsnoopUser *a, const DhcpsnoopUser *b) {
            return memcmp(&a->ipType, &b->ipType, sizeof(DhcpsnoopUserKey)) < 0;
        });
        for (const DhcpsnoopUser *x = dhcpsnoop_user_next(nullptr); x;
             x = dhcpsnoop_user_next(reinterpret_cast<const DhcpsnoopUserKey *>(&x->ipType)))
            listed.push_back(x);
        ASSERT_EQ(listed, sorted) << "step " << step;
    }
}

/* Port limits and pool exhaustion through frames are the receive-path tests'. */
TEST_F(UserTest, RelearningAndTheVlanLimit)
{
    const Mac m2 = {2, 0, 0, 0, 0, 2};
    DhcpsnoopUserKey k1 = v4key(10, 0, 0, 1), k2 = v4key(10, 0, 0, 2);
    port3->maxUser = 1;
    ASSERT_EQ(learn(k1, port3, kMacA), 0);
    /* a repeat refreshes the start only, even at the limit */
    DhcpsnoopUser *u1 = dhcpsnoop_user_lookup(&k1);
    u1->leaseTime = 3600;
    u1->bindState = DHCPSNOOP_BIND_BOUND;
    EXPECT_EQ(learn(k1, port3, kMacA, 2000), 0);
    EXPECT_EQ(std::tuple(dhcpsnoop_user_lookup(&k1), u1->leaseStart, u1->leaseTime, u1->bindState),
              std::tuple(u1, 2000u, 3600u, DHCPSNOOP_BIND_BOUND));
    /* moving to a full port fails after the old entry is gone */
    port4->maxUser = 0;
    EXPECT_EQ(learn(k1, port4, kMacA), -1);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k1), nullptr);
    /* the VLAN's limit holds for a port that has room; a move frees its old place first */
    port4->maxUser = 10;
    vlan10->maxUser = 1;
    ASSERT_EQ(learn(k1, port3, kMacA), 0);
    EXPECT_EQ(learn(k2, port4, m2), -1);
    EXPECT_EQ(learn(k1, port4, kMacA), 0);
    EXPECT_EQ((std::tuple<int, int, int>(port3->curUser, port4->curUser, vlan10->curUser)),
              std::tuple(0, 1, 1));
}

/* What a bind and a deletion hand to the install hook, the event channel and
 * the standby, as whole records. */
TEST_F(UserTest, BindingAndDeletionReachThePlatformAndTheStandby)
{
    set_role(DHCPSNOOP_ROLE_MASTER);
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    DhcpsnoopUserKey key = v4key(192, 168, 1, 20);
    ASSERT_EQ(learn(key, port3, kMacA, 1000), 0);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&key);
    u->vendorTag = 0x11223344;

    DhcpsnoopPktInfo ack = client_request(port3, 3, 10, kMacA, 1500);
    DhcpsnoopOptBuf opt125{}, boot{};
    /* zero address and unknown clients create nothing */
    EXPECT_EQ(dhcpsnoop_user_update(&ack, &opt125, &boot), nullptr);
    memcpy(ack.clientIp, "\xC0\xA8\x01\x15", 4);
    EXPECT_EQ(dhcpsnoop_user_update(&ack, &opt125, &boot), nullptr);
    /* without option 51 the provisional lease stays */
    memcpy(ack.clientIp, key.ipAddr, 4);
    EXPECT_EQ(dhcpsnoop_user_update(&ack, &opt125, &boot), u);
    EXPECT_EQ(std::tuple(u->leaseTime, u->bindState), std::tuple(60u, DHCPSNOOP_BIND_REQUESTED));
    ack.leaseTime = 86400;
    ack.router = 0xC0A80101;
    EXPECT_EQ(dhcpsnoop_user_update(&ack, &opt125, &boot), u);
    EXPECT_EQ(std::tuple(u->leaseTime, u->leaseStart, u->bindState),
              std::tuple(86400u, 1500u, DHCPSNOOP_BIND_BOUND));
    ASSERT_EQ(model().deftinstallCalls.size(), 2u);
    const auto &call = model().deftinstallCalls[1];
    EXPECT_TRUE(call.a == &opt125 && call.b == &boot);
    DhcpsnoopInstallRec want{0xC0A80114u, {}, 0x11223344u, {}, 1, 1};
    memcpy(want.mac, kMacA.data(), 6);
    EXPECT_EQ(memcmp(call.record.data(), &want, sizeof want), 0);
    /* the user event: words 0, 51, 72, the event (188 added, 189 deleted), zeros, the body */
    std::vector<uint8_t> event(72, 0);
    const uint32_t head[3] = {0, 51, 72};
    const DhcpsnoopUserEvent body{{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 10, 3, {192, 168, 1, 20},
                                  {192, 168, 1, 1}, 0, 1, 0};
    auto set_event = [&event](uint16_t e) { memcpy(&event[12], &e, 2); }; /* host order */
    memcpy(event.data(), head, 12);
    set_event(188);
    memcpy(&event[24], &body, 48);
    ASSERT_EQ(model().netlinkSends.size(), 1u);
    EXPECT_EQ(model().netlinkSends[0].record, event);

    dhcpsnoop_user_delete(make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_STATIC, 3, 10));
    EXPECT_EQ(port3->curUser + vlan10->curUser, 2); /* a static entry was never counted */
    dhcpsnoop_user_delete(u);
    EXPECT_EQ(port3->curUser + vlan10->curUser, 0);
    set_event(189);
    EXPECT_EQ(model().netlinkSends.back().record, event);
    ASSERT_EQ(model().deftinstallCalls.size(), 3u);
    want = {0, {}, 0, {}, 0, 0};
    memcpy(want.mac, kMacA.data(), 6);
    EXPECT_EQ(memcmp(model().deftinstallCalls[2].record.data(), &want, sizeof want), 0);
    EXPECT_EQ(model().deftinstallCalls[2].a, nullptr);
    /* every bind and deletion on a Master goes to the standby alone, with its key */
    auto bufs = sync_buffers();
    ASSERT_EQ(bufs.size(), 4u);
    EXPECT_EQ(model().scalarSyncs.back().mode, 0x80000003u);
    EXPECT_EQ(std::tuple(bufs[1].size(), bufs[1][1], bufs[1][42]),
              std::tuple(60u, 1, DHCPSNOOP_BIND_BOUND));
    EXPECT_EQ(bufs[3][1], 0);
    EXPECT_EQ(memcmp(bufs[3].data() + 4, &key, 20), 0);

    /* counts never go below zero */
    dhcpsnoop_user_delete(make_user(key, DHCPSNOOP_USER_DYNAMIC, 3, 10));
    EXPECT_EQ(port3->curUser, 0);
    dhcpsnoop_user_delete(nullptr);
}

TEST_F(UserTest, QueryMatchesEveryRequestedField)
{
    make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_STATIC, 3, 10, kMacA);
    const struct {
        uint8_t mask;
        void (*change)(DhcpsnoopUserQuery &);
        int expect;
    } cases[] = {
        {0x00, [](DhcpsnoopUserQuery &q) { q = {}; }, 0},
        {0x80, [](DhcpsnoopUserQuery &q) { q.ipType = 2; }, -1},
        {0x80, [](DhcpsnoopUserQuery &q) { q.ipAddr[15] = 1; }, -1},
        {0x40, [](DhcpsnoopUserQuery &q) { q.mac[5] = 0; }, -1},
        {0x20, [](DhcpsnoopUserQuery &q) { q.vid = 11; }, -1},
        {0x10, [](DhcpsnoopUserQuery &q) { q.ifIndex = 4; }, -1},
        {0x70, [](DhcpsnoopUserQuery &q) { q.ipType = 2; }, 0},
        {0xF0, [](DhcpsnoopUserQuery &) {}, 0},
    };
    for (auto &c : cases) {
        DhcpsnoopUserQuery q{{10, 0, 0, 1}, 3, {}, 10, 1, c.mask};
        memcpy(q.mac, kMacA.data(), 6);
        c.change(q);
        EXPECT_EQ(dhcpsnoop_user_get(&q), c.expect) << "mask " << int(c.mask);
    }
}

TEST_F(UserTest, MacUsersShareThePoolWithBindings)
{
    const Mac a = {0, 0, 0, 0, 1, 2}, b = {0, 0, 0, 0, 2, 1};
    ASSERT_EQ(dhcpsnoop_mac_user_hash(a.data()), dhcpsnoop_mac_user_hash(b.data()));
    DhcpsnoopPktInfo ia = client_request(vlan10, 5, 99, a, 7000);
    ia.serverId = 42;
    DhcpsnoopMacUser *ma = dhcpsnoop_mac_user_add(&ia);
    DhcpsnoopPktInfo ib = client_request(port3, 3, 20, b);
    DhcpsnoopMacUser *mb = dhcpsnoop_mac_user_add(&ib);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(a.data()), ma);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(b.data()), mb);
    EXPECT_EQ(std::tuple(ma->ifIndex, ma->vid, ma->ageTime, ma->seenTime, ma->serverId),
              std::tuple(5u, 10, 120u, 7000u, 42u));
    EXPECT_EQ(std::tuple(mb->ifIndex, mb->vid), std::tuple(3u, 20));
    EXPECT_EQ(port3->curUser + vlan10->curUser, 0);

    /* bindings and MAC users together exhaust the 16 nodes */
    for (uint8_t i = 0; i < 13; i++)
        ASSERT_EQ(learn(v4key(10, 1, 0, i), port3, {2, 0, 0, 0, 1, i}), 0);
    const Mac c = {0, 0, 0, 0, 3, 3}; /* the request points at it */
    DhcpsnoopPktInfo ic = client_request(port3, 3, 10, c);
    EXPECT_NE(dhcpsnoop_mac_user_add(&ic), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_add(&ic), nullptr);
    EXPECT_EQ(learn(v4key(10, 2, 0, 0), port3, kMacA), -1);
    dhcpsnoop_mac_user_delete(mb);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(b.data()), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(a.data()), ma);
    EXPECT_EQ(learn(v4key(10, 2, 0, 0), port3, kMacA), 0);
}

/* A withdrawal's record as the check items ask; an install keeps the rule's
 * id the platform hands back. */
TEST_F(UserTest, HardwareRecordCarriesWhatTheCheckItemsAsk)
{
    DhcpsnoopUser *u4 = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, kMacA);
    const DhcpsnoopUserKey k6 = v6key({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9});
    DhcpsnoopUser *u6 = make_user(k6, DHCPSNOOP_USER_STATIC, 3, 10, kMacA);
    u4->userAttr = u6->userAttr = 0x1234;
    u4->ipsgHwId = u6->ipsgHwId = 7;
    for (DhcpsnoopUser *u : {u4, u6})
        for (uint8_t items : {0x00, 0x10, 0x20, 0x40, 0x80, 0xF0}) {
            model().hwUserCalls.clear();
            uint8_t in = items;
            ASSERT_EQ(dhcpsnoop_user_state_notify(u, 0, &in, DHCPSNOOP_RULE_IPSG), 0);
            const SimHwUserCall &call = model().hwUserCalls.at(0);
            EXPECT_EQ(std::pair(call.ifIndex, call.op), std::pair(3u, DHCPSNOOP_HW_OP_DEL));
            const bool mac = items & 0x40, vlan = items & 0x20, addr = items & 0x80;
            const uint8_t kind = !addr ? 0 : u == u4 ? 0x20 : 0x80;
            DhcpsnoopHwUserRecord want{{}, uint16_t(vlan ? 10 : 0), items & 0x10 ? 3u : 0u, 0, {},
                                       0x1234, uint16_t(vlan ? 10 : 0), u->ipType, 0x80,
                                       uint8_t(mac ? 0x30 : 0), kind, 0};
            want.ipsgHwId = 7;
            if (mac)
                memcpy(want.mac, kMacA.data(), 6);
            if (addr)
                memcpy(want.addr, u->ipAddr, 16);
            EXPECT_EQ(memcmp(call.record.data(), &want, sizeof want), 0) << int(items);
        }
    uint8_t items = 0x80;
    model().nextHwId = 500;
    ASSERT_EQ(dhcpsnoop_user_state_notify(u4, 1, &items, DHCPSNOOP_RULE_IPSG), 0);
    EXPECT_EQ(u4->ipsgHwId, 500u);
}
