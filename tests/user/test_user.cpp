/* Binding table: keys, buckets and the index, learning with its limits,
 * binding on ACK, deletion, queries, MAC users, and the propagation of
 * bindings to the hardware, the platform and interface changes. */
#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>

#include "binding_helpers.h"
#include "daemon_fixture.h"

namespace {
const Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const Mac kMacB = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};

DhcpsnoopHwUserRecord record_of(const SimHwUserCall &c)
{
    DhcpsnoopHwUserRecord r;
    memcpy(&r, c.record.data(), sizeof r);
    return r;
}

template <class T> T head_of(const std::vector<uint8_t> &bytes, size_t at = 0)
{
    T v;
    memcpy(&v, bytes.data() + at, sizeof v);
    return v;
}

class UserTest : public BindingFixture {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        startWithPorts(16);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    }
    /* A request for `key` from `mac` on port `ifp` in VLAN 10. */
    int learn(const DhcpsnoopUserKey &key, DhcpsnoopIf *ifp, const Mac &mac, uint32_t t = 1000)
    {
        DhcpsnoopPktInfo info = client_request(ifp, ifp->ifIndex, 10, mac, t);
        return dhcpsnoop_user_add(&key, dhcpsnoop_user_lookup(&key), &info);
    }
    /* What the table says is installed: flags, then source and items of the
     * source guard and of ARP inspection. */
    using Hw = std::array<int, 5>;
    static Hw hw(const DhcpsnoopUser *x)
    {
        return {x->hwFlags, x->ipsgSource, x->ipsgCheckItems, x->daiSource, x->daiCheckItems};
    }
};
} // namespace

TEST_F(UserTest, BucketsAreTheAddressByteSumModulo63)
{
    const std::pair<DhcpsnoopUserKey, uint32_t> cases[] = {
        {v4key(10, 0, 0, 1), 11},
        {v4key(255, 255, 255, 255), 1020 % 63},
        {v6key({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 63}), 0},
        {v6key({0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), (0xFE + 0x80 + 1) % 63},
    };
    for (auto &[key, bucket] : cases)
        EXPECT_EQ(dhcpsnoop_user_hash_key(&key), bucket);
    /* an IPv4 key is its first four bytes; whatever follows is not looked at */
    DhcpsnoopUserKey v4 = v4key(10, 1, 2, 3), junk = v4;
    junk.ipAddr[9] = 0x77;
    DhcpsnoopUser *u4 = dhcpsnoop_user_table_add(&v4);
    EXPECT_EQ(dhcpsnoop_user_hash_key(&junk), dhcpsnoop_user_hash_key(&v4));
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
            DhcpsnoopUser *want = nullptr;
            for (DhcpsnoopUser *x : chain)
                if (!want && memcmp(dhcpsnoop_user_key(x), &key, sizeof key) == 0)
                    want = x;
            ASSERT_EQ(dhcpsnoop_user_lookup(&key), want) << "step " << step;
        }
        for (auto &mac : macs) {
            DhcpsnoopUser *want = nullptr;
            for (DhcpsnoopUser *x : chain)
                if (!want && x->userType == DHCPSNOOP_USER_DYNAMIC &&
                    !memcmp(x->mac, mac.data(), 6))
                    want = x;
            ASSERT_EQ(dhcpsnoop_user_lookup_by_mac(mac.data()), want) << "step " << step;
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

TEST_F(UserTest, LearningRecordsAProvisionalBindingAndLogsIt)
{
    model().ports[3].descr = "GigabitEthernet 1/0/3";
    DhcpsnoopUserKey key = v4key(10, 0, 0, 7);
    DhcpsnoopPktInfo info = client_request(port3, 3, 10, kMacA, 5000);
    info.opt60Sub1 = 0xABCD;
    info.serverId = 0x01020304;
    ASSERT_EQ(dhcpsnoop_user_add(&key, nullptr, &info), 0);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&key);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(memcmp(u->mac, kMacA.data(), 6), 0);
    EXPECT_EQ(std::tuple(u->vid, u->origVid, u->ifIndex, u->userType, u->leaseTime, u->leaseStart),
              std::tuple(10, 10, 3u, DHCPSNOOP_USER_DYNAMIC, 60u, 5000u));
    EXPECT_EQ(std::tuple(u->bindState, u->macMark, u->vendorTag, u->serverId, u->hwFlags),
              std::tuple(DHCPSNOOP_BIND_REQUESTED, 0x30, 0xABCDu, 0x01020304u, 0));
    EXPECT_EQ(port3->curUser + vlan10->curUser, 2);
    EXPECT_EQ(model().logLines,
              std::vector<std::string>{
                  "[DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.7, mac 00:11:22:33:44:55, "
                  "interface GigabitEthernet 1/0/3, vlan 10, leasetime 60.\r\n"});
    EXPECT_EQ(model().debugCount("User information: interface 3, vid 10, mac 00:11:22:33:44:55, "
                                 "ip 10.0.0.7."),
              1u);
    /* a request is not bound yet: nothing reaches the hardware, platform or peer */
    EXPECT_TRUE(model().hwUserCalls.empty());
    EXPECT_TRUE(model().netlinkSends.empty());

    /* a trusted port records nothing, whatever its VLAN's trust */
    port4->flags |= ifflag::TRUSTED;
    DhcpsnoopUserKey k3 = v4key(10, 0, 0, 9);
    EXPECT_EQ(learn(k3, port4, kMacB), 0);
    info = client_request(vlan10, 4, 10, kMacB);
    EXPECT_EQ(dhcpsnoop_user_add(&k3, nullptr, &info), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k3), nullptr);
    EXPECT_EQ(model().debugCount("Boot-Request message on trust port"), 2u);
}

TEST_F(UserTest, LimitsAndRelearningOrder)
{
    port3->maxUser = 2;
    const Mac m1 = {2, 0, 0, 0, 0, 1}, m2 = {2, 0, 0, 0, 0, 2}, m3 = {2, 0, 0, 0, 0, 3};
    DhcpsnoopUserKey k1 = v4key(10, 0, 0, 1), k2 = v4key(10, 0, 0, 2), k3 = v4key(10, 0, 0, 3);
    ASSERT_EQ(learn(k1, port3, m1), 0);
    ASSERT_EQ(learn(k2, port3, m2), 0);
    EXPECT_EQ(learn(k3, port3, m3), -1);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k3), nullptr);
    EXPECT_EQ(model().debugCount("Number of users on the interface exceeds the limit!"), 1u);

    /* a repeat refreshes the start only, even at the limit */
    DhcpsnoopUser *u1 = dhcpsnoop_user_lookup(&k1);
    u1->leaseTime = 3600;
    u1->bindState = DHCPSNOOP_BIND_BOUND;
    EXPECT_EQ(learn(k1, port3, m1, 2000), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k1), u1);
    EXPECT_EQ(std::tuple(u1->leaseStart, u1->leaseTime, u1->bindState, port3->curUser),
              std::tuple(2000u, 3600u, DHCPSNOOP_BIND_BOUND, uint16_t(2)));

    /* moving to a full port fails after the old entry is gone */
    port4->maxUser = 0;
    EXPECT_EQ(learn(k1, port4, m1), -1);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k1), nullptr);
    EXPECT_EQ(port3->curUser, 1);
    EXPECT_EQ(model().debugCount("User information is changed, delete it!"), 1u);

    /* a known client moving to another port frees its old place first */
    port4->maxUser = 10;
    ASSERT_EQ(learn(k1, port3, m1), 0);
    vlan10->maxUser = 2;
    EXPECT_EQ(learn(k2, port4, m2), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2)->ifIndex, 4u);
    EXPECT_EQ((std::tuple<int, int, int>(port3->curUser, port4->curUser, vlan10->curUser)),
              std::tuple(1, 1, 2));
    /* and the VLAN's limit holds for a port that has room */
    EXPECT_EQ(learn(k3, port4, m3), -1);
}

TEST_F(UserTest, StaticEntriesAreNeverDisplaced)
{
    DhcpsnoopUserKey key = v4key(10, 0, 0, 5);
    DhcpsnoopUser *s = make_user(key, DHCPSNOOP_USER_STATIC, 4, 20);
    for (uint8_t type : {DHCPSNOOP_USER_STATIC, DHCPSNOOP_USER_IPSG}) {
        s->userType = type;
        EXPECT_EQ(learn(key, port3, kMacB), 0);
        DhcpsnoopPktInfo ack = client_request(port3, 3, 10, kMacB);
        memcpy(ack.clientIp, key.ipAddr, 4);
        ack.leaseTime = 100;
        ack.router = 0x0100000A;
        EXPECT_EQ(dhcpsnoop_user_update(&ack, nullptr, nullptr), nullptr);
        EXPECT_EQ(dhcpsnoop_user_lookup(&key), s);
        EXPECT_EQ(std::tuple(s->ifIndex, s->leaseTime, s->gateway), std::tuple(4u, 3600u, 0u));
        EXPECT_EQ(memcmp(s->mac, kMacA.data(), 6), 0);
    }
    EXPECT_EQ(port3->curUser, 0);
    EXPECT_TRUE(model().logLines.empty());
}

TEST_F(UserTest, AcknowledgementBindsTheEntry)
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
    EXPECT_EQ(user_count(), 1u);

    /* without option 51 the provisional lease stays */
    memcpy(ack.clientIp, key.ipAddr, 4);
    EXPECT_EQ(dhcpsnoop_user_update(&ack, &opt125, &boot), u);
    EXPECT_EQ(std::tuple(u->leaseTime, u->leaseStart, u->bindState),
              std::tuple(60u, 1000u, DHCPSNOOP_BIND_REQUESTED));
    EXPECT_TRUE(model().netlinkSends.empty()); /* no gateway, no user event */

    ack.leaseTime = 86400;
    ack.router = 0xC0A80101; /* the parser's number */
    EXPECT_EQ(dhcpsnoop_user_update(&ack, &opt125, &boot), u);
    EXPECT_EQ(std::tuple(u->leaseTime, u->leaseStart, u->bindState, u->gateway),
              std::tuple(86400u, 1500u, DHCPSNOOP_BIND_BOUND, htonl(0xC0A80101)));
    ASSERT_EQ(model().netlinkSends.size(), 1u);
    ASSERT_EQ(model().deftinstallCalls.size(), 2u);
    const auto &call = model().deftinstallCalls[1];
    EXPECT_EQ(call.a, &opt125);
    EXPECT_EQ(call.b, &boot);
    DhcpsnoopInstallRec want{0xC0A80114u, {}, 0x11223344u, {}, 1, 1};
    memcpy(want.mac, kMacA.data(), 6);
    EXPECT_EQ(memcmp(call.record.data(), &want, sizeof want), 0);
    /* every bind on a Master goes to the standby */
    auto bufs = sync_buffers();
    ASSERT_EQ(bufs.size(), 2u);
    EXPECT_EQ(std::tuple(bufs[1].size(), bufs[1][1], bufs[1][42]),
              std::tuple(60u, 1, DHCPSNOOP_BIND_BOUND));
}

TEST_F(UserTest, DeletionUndoesEverything)
{
    set_role(DHCPSNOOP_ROLE_MASTER);
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    DhcpsnoopUserKey kd = v4key(10, 0, 0, 1), ks = v4key(10, 0, 0, 2);
    DhcpsnoopUserKey k6 = v6key({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    ASSERT_EQ(learn(kd, port3, kMacA), 0);
    ASSERT_EQ(learn(k6, port3, kMacB), 0);
    DhcpsnoopUser *d = dhcpsnoop_user_lookup(&kd);
    d->gateway = 0x0100000A;
    DhcpsnoopUser *s = make_user(ks, DHCPSNOOP_USER_STATIC, 3, 10);
    model().logLines.clear();

    dhcpsnoop_user_delete(s);
    EXPECT_EQ(port3->curUser + vlan10->curUser, 4);
    EXPECT_EQ(gDhcpsnoop.userFreeList.next, &s->link); /* next node to be taken */
    dhcpsnoop_user_delete(dhcpsnoop_user_lookup(&k6));
    EXPECT_EQ(port3->curUser, 1);
    EXPECT_TRUE(model().netlinkSends.empty());
    dhcpsnoop_user_delete(d);
    EXPECT_EQ(port3->curUser + vlan10->curUser, 0);
    EXPECT_EQ(model().logLines,
              (std::vector<std::string>{"[DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.2\r\n",
                                        "[DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 2001:db8::1\r\n",
                                        "[DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.1\r\n"}));
    ASSERT_EQ(model().netlinkSends.size(), 1u);
    EXPECT_EQ(head_of<uint16_t>(model().netlinkSends[0].record, 12), 189);
    ASSERT_EQ(model().deftinstallCalls.size(), 1u);
    DhcpsnoopInstallRec want{0, {}, 0, {}, 0, 0};
    memcpy(want.mac, kMacA.data(), 6);
    EXPECT_EQ(memcmp(model().deftinstallCalls[0].record.data(), &want, sizeof want), 0);
    EXPECT_EQ(model().deftinstallCalls[0].a, nullptr);
    /* three deletions reach the standby, each carrying its key */
    auto bufs = sync_buffers();
    ASSERT_EQ(bufs.size(), 3u);
    for (auto &b : bufs)
        EXPECT_EQ(b[1], 0);
    EXPECT_EQ(memcmp(bufs[2].data() + 4, &kd, 20), 0);

    /* counts never go below zero */
    dhcpsnoop_user_delete(make_user(kd, DHCPSNOOP_USER_DYNAMIC, 3, 10));
    EXPECT_EQ(port3->curUser, 0);
    EXPECT_EQ(user_count(), 0u);
    dhcpsnoop_user_delete(nullptr);
}

TEST_F(UserTest, QueryMatchesEveryRequestedField)
{
    make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_STATIC, 3, 10, kMacA);
    DhcpsnoopUserQuery q{};
    EXPECT_EQ(dhcpsnoop_user_get(&q), 0); /* no mask: any entry */
    const struct {
        uint8_t mask;
        void (*change)(DhcpsnoopUserQuery &);
        int expect;
    } cases[] = {
        {0x80, [](DhcpsnoopUserQuery &) {}, 0},
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
    EXPECT_EQ(model().debugCount("Can't allocate memory for user entry!"), 1u);
    EXPECT_EQ(model().debugCount("Can't allocate memory for mac user entry!"), 1u);
    dhcpsnoop_mac_user_delete(mb);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(b.data()), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(a.data()), ma);
    EXPECT_EQ(learn(v4key(10, 2, 0, 0), port3, kMacA), 0);
}

TEST_F(UserTest, HardwareRecordCarriesWhatTheCheckItemsAsk)
{
    DhcpsnoopUser *u4 = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, kMacA);
    const DhcpsnoopUserKey k6 = v6key({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9});
    DhcpsnoopUser *u6 = make_user(k6, DHCPSNOOP_USER_STATIC, 3, 10, kMacA);
    u4->userAttr = u6->userAttr = 0x1234;
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
            if (mac)
                memcpy(want.mac, kMacA.data(), 6);
            if (addr)
                memcpy(want.addr, u->ipAddr, 16);
            EXPECT_EQ(memcmp(call.record.data(), &want, sizeof want), 0) << int(items);
        }
}

TEST_F(UserTest, HardwareIdsAndTheArpInspectionFlag)
{
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, kMacA);
    u->ipsgHwId = 7;
    uint8_t items = 0x80;
    model().nextHwId = 500;
    ASSERT_EQ(dhcpsnoop_user_state_notify(u, 1, &items, DHCPSNOOP_RULE_IPSG), 0);
    EXPECT_EQ(record_of(model().hwUserCalls[0]).ipsgHwId, 500u); /* written back by the model */
    EXPECT_EQ(u->ipsgHwId, 500u);
    /* ARP inspection not started: the rule goes out without its flag or id */
    for (uint8_t started : {0, 1}) {
        gDhcpsnoop.daiStarted = started;
        u->daiHwId = 8;
        ASSERT_EQ(dhcpsnoop_user_state_notify(u, !started, &items, DHCPSNOOP_RULE_DAI), 0);
        EXPECT_EQ(model().hwUserCalls.back().op,
                  started ? DHCPSNOOP_HW_OP_DEL : DHCPSNOOP_HW_OP_ADD);
        DhcpsnoopHwUserRecord r = record_of(model().hwUserCalls.back());
        EXPECT_EQ(std::tuple(r.ruleFlags, r.daiHwId, r.ipsgHwId),
                  std::tuple(started ? 0x40 : 0, started ? 8u : 0u, 0u));
    }
    model().failOn("qorIfSetApi", 300, 9, 1);
    EXPECT_EQ(dhcpsnoop_user_state_notify(u, 1, &items, DHCPSNOOP_RULE_IPSG), 9);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Add user in hwapi: port 3 ,vid 10 ,mac "
                                 "00:11:22:33:44:55 ,ip 10.0.0.1, checkitem 0x80.\r\n"),
              2u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Add user info in hwapi failed!\r\n"), 1u);
}

TEST_F(UserTest, PortSettingsFirstThenTheVlan)
{
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, kMacA);
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

    /* a Slave marks but never programs */
    set_role(DHCPSNOOP_ROLE_SLAVE);
    model().hwUserCalls.clear();
    model().dai[3] = {0, 1, 0xC0};
    dhcpsnoop_user_update_hw(u, 0);
    EXPECT_EQ(hw(u), (Hw{0, 0, 0, 0, 0}));
    dhcpsnoop_user_update_hw(u, 1);
    EXPECT_EQ(hw(u), (Hw{DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, 2, 0x90, 2, 0xC0}));
    EXPECT_TRUE(model().hwUserCalls.empty());

    /* without hooks nothing is installed */
    DhcpsnoopUser *w = make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    gDhcpsnoop.ipsgIfGet = gDhcpsnoop.antiArpIfGet = nullptr;
    dhcpsnoop_user_update_hw(w, 1);
    EXPECT_EQ(w->hwFlags, 0);
}

TEST_F(UserTest, UserEventsOnlyForIpv4DynamicWithGateway)
{
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, kMacA);
    memcpy(&u->gateway, "\x0A\x00\x00\xFE", 4);
    dhcpsnoop_user_notifier(u, 1);
    dhcpsnoop_user_notifier(u, 0);
    dhcpsnoop_user_notifier(u, 2); /* sent as a deletion, printed as an addition */
    ASSERT_EQ(model().netlinkSends.size(), 3u);
    const auto &send = model().netlinkSends[0];
    EXPECT_EQ(std::pair(send.type, send.flags), std::pair(16u, 0u));
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
    for (int i : {1, 2})
        EXPECT_EQ(head_of<uint16_t>(model().netlinkSends[i].record, 12), 189);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Notify add user: port 3 ,vid 10 ,mac "
                                 "00:11:22:33:44:55 ,ip 10.0.0.1, gateway 10.0.0.254.\r\n"),
              2u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] Notify delete user:"), 1u);

    DhcpsnoopUser *v6 = make_user(v6key({0x20, 0x01}), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    DhcpsnoopUser *noGw = make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    DhcpsnoopUser *stat = make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_STATIC, 3, 10);
    v6->gateway = stat->gateway = u->gateway;
    for (DhcpsnoopUser *x : {v6, noGw, stat}) {
        dhcpsnoop_user_notifier(x, 1);
        dhcpsnoop_user_delete(x);
    }
    EXPECT_EQ(model().netlinkSends.size(), 3u);
}

TEST_F(UserTest, DisableDeletesDynamicAndOnlyWithdrawsStatic)
{
    model().ipsg[3] = model().ipsg[4] = {0, 1, 0x90};
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10);
    DhcpsnoopUserKey ks = v4key(10, 0, 0, 2), kg = v4key(10, 0, 0, 3);
    DhcpsnoopUser *s = make_user(ks, DHCPSNOOP_USER_STATIC, 3, 10);
    DhcpsnoopUser *g = make_user(kg, DHCPSNOOP_USER_IPSG, 3, 10);
    DhcpsnoopUser *other = make_user(v4key(10, 0, 0, 4), DHCPSNOOP_USER_DYNAMIC, 4, 10);
    for (DhcpsnoopUser *x : {u, s, g, other})
        dhcpsnoop_user_update_hw(x, 1);
    model().hwUserCalls.clear();

    dhcpsnoop_if_disable(port3);
    EXPECT_EQ(dhcpsnoop_user_lookup(dhcpsnoop_user_key(u)), nullptr);
    EXPECT_EQ(dhcpsnoop_user_lookup(&ks), s);
    EXPECT_EQ(dhcpsnoop_user_lookup(&kg), g);
    /* masks 1 and 2 never reach type 4 */
    EXPECT_EQ(s->hwFlags, 0);
    EXPECT_EQ(g->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(other->hwFlags, DHCPSNOOP_HW_IPSG);
    ASSERT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(model().hwUserCalls[0].op + model().hwUserCalls[1].op, 2 * DHCPSNOOP_HW_OP_DEL);

    ASSERT_EQ(dhcpsnoop_if_enable(3), 0u);
    EXPECT_EQ(s->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(model().hwUserCalls.back().op, DHCPSNOOP_HW_OP_ADD);
    /* a VLAN interface takes the bindings of its VLAN, whatever their port */
    other->vid = 20;
    dhcpsnoop_user_process_on_interface(vlan10, 1, 3, 0);
    EXPECT_EQ(s->hwFlags, 0);
    EXPECT_EQ(other->hwFlags, DHCPSNOOP_HW_IPSG);
    /* no interface: every binding of the masks */
    dhcpsnoop_user_process_on_interface(nullptr, 1, 1, 0);
    EXPECT_EQ(other->hwFlags, 0);
    EXPECT_EQ(g->hwFlags, DHCPSNOOP_HW_IPSG);
}

TEST_F(UserTest, TrunkMembersWorkOnCopies)
{
    model().addPort(50, "trunk50");
    model().addPort(7, "swp7");
    model().ipsg[50] = {0, 1, 0x90};
    model().ipsg[7] = {0, 1, 0xF0};
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 50, 10);
    DhcpsnoopUser *fresh = make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 50, 10);
    DhcpsnoopUser *elsewhere = make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_DYNAMIC, 8, 10);
    dhcpsnoop_user_update_hw(u, 1);
    const uint32_t trunkId = u->ipsgHwId;
    model().hwUserCalls.clear();

    /* joining programs on the port only the binding not yet installed, as a
     * copy; leaving withdraws the trunk's rule with its id and items (0x90,
     * not the port's 0xF0) and the table keeps the trunk's state */
    for (uint32_t join : {1u, 0u}) {
        model().hwUserCalls.clear();
        dhcpsnoop_user_process_on_trunk(50, 7, join);
        ASSERT_EQ(model().hwUserCalls.size(), 1u);
        const DhcpsnoopHwUserRecord r = record_of(model().hwUserCalls[0]);
        EXPECT_EQ(std::tuple(model().hwUserCalls[0].ifIndex, r.ifIndex, r.macValid),
                  std::tuple(7u, 7u, uint8_t(join ? 0x30 : 0)));
    }
    EXPECT_EQ(record_of(model().hwUserCalls[0]).ipsgHwId, trunkId);
    EXPECT_EQ(std::tuple(fresh->hwFlags, fresh->ifIndex, fresh->ipsgHwId), std::tuple(0, 50u, 0u));
    EXPECT_EQ(std::tuple(u->hwFlags, u->ifIndex, u->ipsgCheckItems),
              std::tuple(DHCPSNOOP_HW_IPSG, 50u, 0x90));

    /* trunk 0 means every binding */
    model().hwUserCalls.clear();
    dhcpsnoop_user_process_on_trunk(0, 7, 1);
    EXPECT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(elsewhere->hwFlags, 0);
}
