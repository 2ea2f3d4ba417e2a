/* Binding table: keys and buckets, learning with its limits, binding on ACK,
 * deletion, queries, and the MAC users that share the node pool. */
#include <cstring>
#include <tuple>

#include "binding_helpers.h"
#include "daemon_fixture.h"

namespace {
const Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const Mac kMacB = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
} // namespace

class UserTest : public BindingFixture {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        startWithPorts(16);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    }

    /* A request for `key` from `mac` on port `ifp` in VLAN 10. */
    int learn(const DhcpsnoopUserKey &key, DhcpsnoopIf *ifp, const Mac &mac, uint32_t t = 1000)
    {
        DhcpsnoopPktInfo info = client_request(ifp, ifp->ifIndex, 10, mac, t);
        return dhcpsnoop_user_add(&key, dhcpsnoop_user_lookup(&key), &info);
    }
};

TEST_F(UserTest, CollidingBucketsKeepBothKeys)
{
    DhcpsnoopUserKey a = v4key(10, 0, 0, 1), b = v4key(1, 0, 0, 10);
    ASSERT_EQ(dhcpsnoop_user_hash_key(&a), dhcpsnoop_user_hash_key(&b));
    DhcpsnoopUser *ua = dhcpsnoop_user_table_add(&a);
    DhcpsnoopUser *ub = dhcpsnoop_user_table_add(&b);
    EXPECT_EQ(dhcpsnoop_user_lookup(&a), ua);
    EXPECT_EQ(dhcpsnoop_user_lookup(&b), ub);
    dhcpsnoop_user_delete(ub);
    EXPECT_EQ(dhcpsnoop_user_lookup(&a), ua);
    EXPECT_EQ(dhcpsnoop_user_lookup(&b), nullptr);
    EXPECT_EQ(dhcpsnoop_user_lookup(nullptr), nullptr);
    EXPECT_EQ(dhcpsnoop_user_table_add(nullptr), nullptr);

    /* the bucket is the byte sum of 4 (IPv4) or 16 address bytes, modulo 63 */
    struct Case {
        DhcpsnoopUserKey key;
        uint32_t bucket;
    } cases[] = {
        {v4key(10, 0, 0, 1), 11},
        {v4key(255, 255, 255, 255), 1020 % 63},
        {v6key({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 63}), 0},
        {v6key({0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), (0xFE + 0x80 + 1) % 63},
    };
    for (auto &c : cases)
        EXPECT_EQ(dhcpsnoop_user_hash_key(&c.key), c.bucket);
}

TEST_F(UserTest, KeysCompareByFamily)
{
    DhcpsnoopUserKey v4 = v4key(10, 1, 2, 3);
    DhcpsnoopUserKey v6 = v6key({10, 1, 2, 3});
    DhcpsnoopUserKey v6tail = v6key({10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9});
    DhcpsnoopUser *u4 = dhcpsnoop_user_table_add(&v4);
    DhcpsnoopUser *u6 = dhcpsnoop_user_table_add(&v6);
    struct Case {
        DhcpsnoopUserKey key;
        DhcpsnoopUser *expect;
    } cases[] = {{v4, u4}, {v6, u6}, {v6tail, nullptr}};
    for (auto &c : cases)
        EXPECT_EQ(dhcpsnoop_user_lookup(&c.key), c.expect);
    /* an IPv4 key is its first four bytes; whatever follows is not looked at */
    DhcpsnoopUserKey junk = v4;
    junk.ipAddr[9] = 0x77;
    EXPECT_EQ(dhcpsnoop_user_hash_key(&junk), dhcpsnoop_user_hash_key(&v4));
    EXPECT_EQ(dhcpsnoop_user_lookup(&junk), u4);
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
    EXPECT_EQ(port3->curUser, 1);
    EXPECT_EQ(vlan10->curUser, 1);
    ASSERT_EQ(model().logLines.size(), 1u);
    EXPECT_EQ(model().logLines[0],
              "[DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.7, mac 00:11:22:33:44:55, "
              "interface GigabitEthernet 1/0/3, vlan 10, leasetime 60.\r\n");
    EXPECT_EQ(model().debugCount("User information: interface 3, vid 10, mac 00:11:22:33:44:55, "
                                 "ip 10.0.0.7."),
              1u);
    /* a request is not bound yet: nothing reaches the hardware, platform or peer */
    EXPECT_TRUE(model().hwUserCalls.empty());
    EXPECT_TRUE(model().netlinkSends.empty());
}

TEST_F(UserTest, PortAndVlanComeFromTheReceivingInterface)
{
    /* on a VLAN interface: the frame's port, the interface's VLAN; port 9 has
     * no entry, so only the VLAN is counted and checked */
    DhcpsnoopUserKey key = v4key(10, 0, 0, 8);
    DhcpsnoopPktInfo info = client_request(vlan10, 9, 77, kMacA);
    ASSERT_EQ(dhcpsnoop_user_add(&key, nullptr, &info), 0);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&key);
    EXPECT_EQ(u->ifIndex, 9u);
    EXPECT_EQ(u->vid, 10);
    EXPECT_EQ(vlan10->curUser, 1);

    /* a trusted port records nothing, whatever its VLAN's trust */
    port4->flags |= ifflag::TRUSTED;
    DhcpsnoopUserKey k2 = v4key(10, 0, 0, 9);
    EXPECT_EQ(learn(k2, port4, kMacB), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2), nullptr);
    EXPECT_EQ(model().debugCount("Boot-Request message on trust port"), 1u);
    DhcpsnoopPktInfo viaVlan = client_request(vlan10, 4, 10, kMacB);
    EXPECT_EQ(dhcpsnoop_user_add(&k2, nullptr, &viaVlan), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2), nullptr);
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
    EXPECT_EQ(u1->leaseStart, 2000u);
    EXPECT_EQ(u1->leaseTime, 3600u);
    EXPECT_EQ(u1->bindState, DHCPSNOOP_BIND_BOUND);
    EXPECT_EQ(port3->curUser, 2);

    /* moving to a full port fails after the old entry is gone */
    port4->maxUser = 0;
    EXPECT_EQ(learn(k1, port4, m1), -1);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k1), nullptr);
    EXPECT_EQ(port3->curUser, 1);
    EXPECT_EQ(model().debugCount("User information is changed, delete it!"), 1u);

    /* a known client moving to another port frees its old place first */
    port4->maxUser = 10;
    ASSERT_EQ(learn(k1, port3, m1), 0);
    EXPECT_EQ(port3->curUser, 2);
    vlan10->maxUser = 2;
    EXPECT_EQ(learn(k2, port4, m2), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2)->ifIndex, 4u);
    EXPECT_EQ(port3->curUser, 1);
    EXPECT_EQ(port4->curUser, 1);
    EXPECT_EQ(vlan10->curUser, 2);
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
        EXPECT_EQ(dhcpsnoop_user_lookup(&key), s);
        EXPECT_EQ(s->ifIndex, 4u);
        EXPECT_EQ(memcmp(s->mac, kMacA.data(), 6), 0);

        DhcpsnoopPktInfo ack = client_request(port3, 3, 10, kMacB);
        memcpy(ack.clientIp, key.ipAddr, 4);
        ack.leaseTime = 100;
        ack.router = 0x0100000A;
        EXPECT_EQ(dhcpsnoop_user_update(&ack, nullptr, nullptr), nullptr);
        EXPECT_EQ(s->leaseTime, 3600u);
        EXPECT_EQ(s->gateway, 0u);
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
    DhcpsnoopInstallRec rec;
    memcpy(&rec, call.record.data(), sizeof rec);
    EXPECT_EQ(rec.clientIp, 0xC0A80114u);
    EXPECT_EQ(rec.vendorTag, 0x11223344u);
    EXPECT_EQ(memcmp(rec.mac, kMacA.data(), 6), 0);
    EXPECT_EQ(rec.one, 1);
    EXPECT_EQ(rec.add, 1);

    /* every bind on a Master goes to the standby */
    auto bufs = sync_buffers();
    ASSERT_EQ(bufs.size(), 2u);
    EXPECT_EQ(bufs[1].size(), 60u);
    EXPECT_EQ(bufs[1][1], 1);
    EXPECT_EQ(bufs[1][42], DHCPSNOOP_BIND_BOUND);
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
    ASSERT_EQ(port3->curUser, 2);
    model().logLines.clear();

    dhcpsnoop_user_delete(s);
    EXPECT_EQ(port3->curUser, 2);
    EXPECT_EQ(vlan10->curUser, 2);
    EXPECT_EQ(gDhcpsnoop.userFreeList.next, &s->link); /* next node to be taken */

    dhcpsnoop_user_delete(dhcpsnoop_user_lookup(&k6));
    EXPECT_EQ(port3->curUser, 1);
    EXPECT_TRUE(model().netlinkSends.empty());

    dhcpsnoop_user_delete(d);
    EXPECT_EQ(port3->curUser, 0);
    EXPECT_EQ(vlan10->curUser, 0);
    EXPECT_EQ(model().logLines,
              (std::vector<std::string>{"[DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.2\r\n",
                                        "[DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 2001:db8::1\r\n",
                                        "[DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.1\r\n"}));
    ASSERT_EQ(model().netlinkSends.size(), 1u);
    uint16_t event;
    memcpy(&event, model().netlinkSends[0].record.data() + 12, 2);
    EXPECT_EQ(event, 189);
    ASSERT_EQ(model().deftinstallCalls.size(), 1u);
    DhcpsnoopInstallRec rec;
    memcpy(&rec, model().deftinstallCalls[0].record.data(), sizeof rec);
    EXPECT_EQ(rec.add, 0);
    EXPECT_EQ(memcmp(rec.mac, kMacA.data(), 6), 0);
    EXPECT_EQ(rec.clientIp, 0u);
    EXPECT_EQ(model().deftinstallCalls[0].a, nullptr);

    /* three deletions reach the standby, each carrying its key */
    auto bufs = sync_buffers();
    ASSERT_EQ(bufs.size(), 3u);
    for (auto &b : bufs)
        EXPECT_EQ(b[1], 0);
    EXPECT_EQ(memcmp(bufs[2].data() + 4, &kd, 20), 0);

    /* counts never go below zero */
    DhcpsnoopUser *stray = make_user(kd, DHCPSNOOP_USER_DYNAMIC, 3, 10);
    dhcpsnoop_user_delete(stray);
    EXPECT_EQ(port3->curUser, 0);
    EXPECT_EQ(user_count(), 0u);
    dhcpsnoop_user_delete(nullptr);
}

TEST_F(UserTest, QueryMatchesEveryRequestedField)
{
    DhcpsnoopUserKey key = v4key(10, 0, 0, 1);
    make_user(key, DHCPSNOOP_USER_STATIC, 3, 10, kMacA);
    DhcpsnoopUserQuery q{};
    EXPECT_EQ(dhcpsnoop_user_get(&q), 0); /* no mask: any entry */
    struct Case {
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
        DhcpsnoopUserQuery q{};
        memcpy(q.ipAddr, key.ipAddr, 16);
        q.ipType = 1;
        memcpy(q.mac, kMacA.data(), 6);
        q.vid = 10;
        q.ifIndex = 3;
        q.mask = c.mask;
        c.change(q);
        EXPECT_EQ(dhcpsnoop_user_get(&q), c.expect) << "mask " << int(c.mask);
    }
}

TEST_F(UserTest, MacUsersShareBucketsAndThePool)
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
    Mac c = {0, 0, 0, 0, 3, 3};
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

/* The NAK path finds a client's dynamic binding by MAC: the first in bucket
 * order among several, never a static one, and under a MAC that was written
 * after the entry was made or rewritten later by management or the peer. */
TEST_F(UserTest, BindingsAreFoundByMacInBucketOrder)
{
    const Mac m = {2, 0, 0, 0, 0, 9};
    /* 10.0.0.1 and 1.0.0.10 share bucket 11; 10.0.0.3 lies in bucket 13 */
    DhcpsnoopUser *late = make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_DYNAMIC, 3, 10, m);
    DhcpsnoopUser *deep = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 10, m);
    DhcpsnoopUser *head = make_user(v4key(1, 0, 0, 10), DHCPSNOOP_USER_DYNAMIC, 3, 10, m);
    make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_STATIC, 3, 10, kMacB);
    struct Step {
        DhcpsnoopUser *gone; /* deleted before the lookup */
        const Mac &mac;
        DhcpsnoopUser *expect;
    } steps[] = {{nullptr, m, head}, {head, m, deep}, {deep, m, late}, {nullptr, kMacB, nullptr}};
    for (auto &s : steps) {
        dhcpsnoop_user_delete(s.gone);
        EXPECT_EQ(dhcpsnoop_user_lookup_by_mac(s.mac.data()), s.expect);
    }
    memcpy(late->mac, kMacA.data(), 6);
    dhcpsnoop_user_mac_changed(late);
    EXPECT_EQ(dhcpsnoop_user_lookup_by_mac(m.data()), nullptr);
    EXPECT_EQ(dhcpsnoop_user_lookup_by_mac(kMacA.data()), late);
}
