/* Bindings, relay server-ips and the learned server listing. */
#include <arpa/inet.h>

#include <cstring>

#include "binding_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_nm.h"

namespace {

class UserMgmtTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(8, 8);
        port = enablePort(3);
    }
    int32_t set(const DhcpsnoopUserKey &k, uint32_t cmd, uint32_t v)
    {
        return dhcpSnoopUserSetApi(&k, cmd, &v);
    }
    uint32_t get(const DhcpsnoopUserKey &k, uint32_t cmd)
    {
        uint32_t v = 0xDEAD;
        EXPECT_EQ(dhcpSnoopUserGetApi(&k, cmd, &v), 0) << cmd;
        return v;
    }
    int32_t setIp(uint32_t ifIndex, uint32_t ip, uint32_t op, uint32_t cmd = 1)
    {
        const uint32_t pair[2] = {ifIndex, ip};
        return dhcpSnoopServerIpSetApi(pair, cmd, &op);
    }
    DhcpsnoopIf *port = nullptr;
    const DhcpsnoopUserKey k1 = v4key(10, 0, 0, 1);
};

} // namespace

TEST_F(UserMgmtTest, KeysAreListedInByteOrderWithoutSourceGuardEntries)
{
    make_user(v6key({0x20, 0x01}), DHCPSNOOP_USER_STATIC, 3, 1);
    make_user(v4key(10, 0, 1, 0), DHCPSNOOP_USER_DYNAMIC, 3, 1);
    make_user(v4key(10, 0, 0, 200), DHCPSNOOP_USER_IPSG, 3, 1);
    make_user(v4key(9, 255, 0, 0), DHCPSNOOP_USER_STATIC, 3, 1);
    make_user(v4key(10, 0, 0, 9), DHCPSNOOP_USER_STATIC, 3, 1);
    const DhcpsnoopUserKey want[] = {v4key(9, 255, 0, 0), v4key(10, 0, 0, 9), v4key(10, 0, 1, 0),
                                     v6key({0x20, 0x01})};
    DhcpsnoopUserKey k{};
    ASSERT_EQ(dhcpSnoopUserGetFirst(&k), 0);
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(memcmp(&k, &want[i], sizeof k), 0) << i;
        DhcpsnoopUserKey next{};
        EXPECT_EQ(dhcpSnoopUserGetNext(&k, &next), i < 3 ? 0 : -1) << i;
        k = next;
    }
    EXPECT_EQ(dhcpSnoopUserGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopUserSetApi(nullptr, 1, &k), DHCPSNOOP_E_NULL_KEY);
    EXPECT_EQ(dhcpSnoopUserGetApi(nullptr, 1, &k), DHCPSNOOP_E_NULL_KEY);
}

TEST_F(UserMgmtTest, StaticBindingLifecycle)
{
    EXPECT_EQ(set(k1, 9, 1), DHCPSNOOP_E_NO_ENTRY);
    EXPECT_EQ(set(k1, 1, 5), DHCPSNOOP_E_NO_ENTRY);
    EXPECT_EQ(set(k1, 9, 4), 0);
    EXPECT_EQ(set(k1, 9, 5), DHCPSNOOP_E_EXISTS);
    EXPECT_EQ(get(k1, 8), DHCPSNOOP_USER_STATIC);
    EXPECT_EQ(get(k1, 9), 3u);
    EXPECT_EQ(get(k1, 6), 0xFFFFFFFFu);

    /* fill in the binding, then bind it */
    EXPECT_EQ(set(k1, 1, 0x10005), 0);
    EXPECT_EQ(set(k1, 2, 3), 0);
    EXPECT_EQ(set(k1, 4, 0x12345), 0);
    uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
    QorTextPair m{mac, 6};
    EXPECT_EQ(dhcpSnoopUserSetApi(&k1, 5, &m), 0);
    EXPECT_EQ(model().userSyncs.back().mode, DHCPSNOOP_MODE_SET | DHCPSNOOP_MODE_TEXT);
    EXPECT_EQ(get(k1, 1), 5u);
    EXPECT_EQ(get(k1, 4), 0x2345u);
    EXPECT_EQ(set(k1, 9, 1), 0);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k1);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI);
    EXPECT_EQ(u->ipsgCheckItems, DHCPSNOOP_CHECK_ALL);
    ASSERT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(model().hwUserCalls[0].ifIndex, 3u);
    EXPECT_EQ(model().logCount("[DHCPSNOOP] Add static dhcpsnoop entry: ip 10.0.0.1, mac "
                               "00:01:02:03:04:05, interface swp3, vlan 5.\r\n"),
              1u);

    /* bound: no changes until unbound */
    EXPECT_EQ(set(k1, 1, 6), DHCPSNOOP_E_BOUND);
    sys().now += 30;
    EXPECT_EQ(set(k1, 9, 2), 0);
    EXPECT_EQ(u->hwFlags, 0);
    EXPECT_EQ(model().hwUserCalls.back().op, 0x3E800E0u);
    EXPECT_EQ(u->leaseStart, uint32_t(sys().now));
    EXPECT_EQ(set(k1, 1, 6), 0);
    EXPECT_EQ(u->origVid, 6);

    EXPECT_EQ(set(k1, 9, 7), DHCPSNOOP_E_INVALID);
    EXPECT_EQ(set(k1, 9, 6), 0);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k1), nullptr);
    EXPECT_EQ(set(k1, 9, 6), DHCPSNOOP_E_NO_ENTRY);
}

TEST_F(UserMgmtTest, RefusedOrShortChangesKeepTheBinding)
{
    ASSERT_EQ(set(k1, 9, 4), 0);
    model().failOn("qorHwDhcpSnoopUserSync", 0x8CE8001, 1, 1);
    EXPECT_EQ(set(k1, 1, 9), DHCPSNOOP_E_HW);
    EXPECT_EQ(get(k1, 1), 0u);
    model().failOn("qorHwDhcpSnoopUserSync", 0x8CE8009, 1, 1);
    EXPECT_EQ(set(k1, 9, 6), DHCPSNOOP_E_HW);
    EXPECT_NE(dhcpsnoop_user_lookup(&k1), nullptr);
    const DhcpsnoopUserKey k2 = v4key(10, 0, 0, 2);
    model().failOn("qorHwDhcpSnoopUserSync", 0x8CE8009, 1, 1);
    EXPECT_EQ(set(k2, 9, 4), DHCPSNOOP_E_HW);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2), nullptr);

    /* a MAC shorter than 6 bytes: the platform is told, the binding kept */
    uint8_t mac[5] = {9, 9, 9, 9, 9};
    QorTextPair m{mac, 5};
    const size_t calls = model().userSyncs.size();
    EXPECT_EQ(dhcpSnoopUserSetApi(&k1, 5, &m), DHCPSNOOP_E_LENGTH);
    EXPECT_EQ(model().userSyncs.size(), calls + 1);
    uint8_t out[8] = {};
    QorTextPair o{out, 5};
    EXPECT_EQ(dhcpSnoopUserGetApi(&k1, 5, &o), DHCPSNOOP_E_LENGTH);
    o.len = 8;
    EXPECT_EQ(dhcpSnoopUserGetApi(&k1, 5, &o), 0);
    EXPECT_EQ(o.len, 6u);
    EXPECT_EQ(out[0], 0);
}

TEST_F(UserMgmtTest, BindingWithARefusedSourceGuardRule)
{
    ASSERT_EQ(set(k1, 9, 4), 0);
    model().failOn("qorIfSetApi", 300, 1, 1);
    EXPECT_EQ(set(k1, 9, 1), 0);
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k1);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_DAI);
    EXPECT_EQ(u->ipsgCheckItems, 0);
    EXPECT_EQ(u->daiCheckItems, DHCPSNOOP_CHECK_ALL);
    /* a refused withdrawal leaves it bound and installed */
    model().failOn("qorIfSetApi", 300, 9, 1);
    EXPECT_EQ(set(k1, 9, 3), 9);
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_BOUND);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_DAI);
}

TEST_F(UserMgmtTest, UnbindingADynamicBindingReleasesItsCounts)
{
    model().addVlanIf(40, 4, "vlan4");
    ASSERT_EQ(dhcpsnoop_if_enable(40), 0u);
    DhcpsnoopUser *u = make_user(k1, DHCPSNOOP_USER_DYNAMIC, 3, 4);
    port->curUser = 1;
    dhcpsnoop_if_lookup(40)->curUser = 2;
    u->leaseTime = 60;
    u->leaseStart = uint32_t(sys().now) - 70;
    EXPECT_EQ(get(k1, 7), 60u);
    EXPECT_EQ(set(k1, 9, 3), 0);
    EXPECT_EQ(port->curUser, 0);
    EXPECT_EQ(dhcpsnoop_if_lookup(40)->curUser, 1);
    EXPECT_EQ(get(k1, 8), DHCPSNOOP_USER_STATIC);
    EXPECT_EQ(get(k1, 9), 3u);
    sys().now += 70;
    EXPECT_EQ(get(k1, 7), 70u);
}

TEST_F(UserMgmtTest, SourceGuardEntriesAreOutOfReach)
{
    make_user(k1, DHCPSNOOP_USER_IPSG, 3, 1)->bindState = 0;
    for (uint32_t action : {1u, 2u, 6u}) {
        model().debugText.clear();
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
        EXPECT_EQ(set(k1, 9, action), DHCPSNOOP_E_EXISTS) << action;
        EXPECT_EQ(model().debugCount("this is a IPSG binding entry with the same ip!"), 1u);
    }
    EXPECT_NE(dhcpsnoop_user_lookup(&k1), nullptr);
    DhcpsnoopUserKey k{};
    EXPECT_EQ(dhcpSnoopUserGetFirst(&k), -1);
    uint32_t n = 0;
    EXPECT_EQ(dhcpSnoopGetApi(nullptr, DHCPSNOOP_G_USER_COUNT, &n), 0);
    EXPECT_EQ(n, 0u);
}

TEST_F(UserMgmtTest, RelayServerIpsFillThreeSlots)
{
    EXPECT_EQ(setIp(3, 0x0A000001, 1), 0);
    EXPECT_EQ(setIp(3, 0x0A000001, 4), 0);
    EXPECT_EQ(setIp(3, 0x0A000002, 5), 0);
    EXPECT_EQ(setIp(3, 0x0A000003, 1), 0);
    EXPECT_EQ(setIp(3, 0x0A000004, 1), DHCPSNOOP_E_INVALID);
    EXPECT_EQ(setIp(3, 0x0A000002, 6), 0);
    EXPECT_EQ(setIp(3, 0x0A000009, 6), 0);
    EXPECT_EQ(setIp(3, 0x0A000004, 1), 0);
    EXPECT_EQ(port->serverIp[1], 0x0A000004u);
    EXPECT_EQ(setIp(3, 1, 2), DHCPSNOOP_E_INVALID);
    EXPECT_EQ(setIp(3, 1, 1, 2), DHCPSNOOP_E_NO_ENTRY);
    EXPECT_EQ(setIp(9, 1, 1), DHCPSNOOP_E_NO_ENTRY);

    const uint32_t here[2] = {3, 0x0A000004}, gone[2] = {3, 0x0A000002};
    EXPECT_EQ(dhcpSnoopServerIpGetApi(here, 1, nullptr), 0);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(gone, 1, nullptr), DHCPSNOOP_E_NO_ENTRY);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(here, 2, nullptr), DHCPSNOOP_E_INVALID);
    uint32_t add = 1;
    EXPECT_EQ(dhcpSnoopServerIpSetApi(nullptr, 1, &add), DHCPSNOOP_E_NULL_KEY);
}

TEST_F(UserMgmtTest, ServerIpsAreListedAcrossInterfacesAndSlots)
{
    enablePort(1);
    enablePort(5);
    port->serverIp[1] = 0x0B;
    port->serverIp[2] = 0x0C;
    dhcpsnoop_if_lookup(5)->serverIp[0] = 0x0D;
    uint32_t p[2] = {};
    ASSERT_EQ(dhcpSnoopServerIpGetFirst(p), 0);
    const uint32_t want[][2] = {{3, 0x0B}, {3, 0x0C}, {5, 0x0D}};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(p[0], want[i][0]);
        EXPECT_EQ(p[1], want[i][1]);
        uint32_t next[2] = {};
        EXPECT_EQ(dhcpSnoopServerIpGetNext(p, next), i < 2 ? 0 : -1);
        memcpy(p, next, sizeof p);
    }
    const uint32_t unknown[2] = {3, 0x0E};
    EXPECT_EQ(dhcpSnoopServerIpGetNext(unknown, p), -1);
}

TEST_F(UserMgmtTest, LearnedServersAreShown)
{
    testing::internal::CaptureStdout();
    dhcpsnoop_fake_server_show();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n\r");
    dhcpsnoop_server_add(0xC0A864C8, 12, 3); /* host order, as the server path learns it */
    testing::internal::CaptureStdout();
    dhcpsnoop_fake_server_show();
    char want[200];
    snprintf(want, sizeof want, "\n\r %-18s%-10s%-12s\n\r %-18s%-10ld%-12s\n\r", "IpAddr", "Vid",
             "Interface", "192.168.100.200", 12L, "swp3");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
}
