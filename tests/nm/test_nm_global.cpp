/* Switch-wide and per-VLAN settings. */
#include "binding_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_nm.h"

namespace {

class GlobalTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(8, 16);
    }
    int32_t set(uint32_t cmd, uint32_t v) { return dhcpSnoopSetApi(nullptr, cmd, &v); }
    uint32_t get(uint32_t cmd)
    {
        uint32_t v = 0xDEAD;
        EXPECT_EQ(dhcpSnoopGetApi(nullptr, cmd, &v), 0) << cmd;
        return v;
    }
    void addVlanIf(uint32_t ifIndex, uint16_t vid)
    {
        model().addVlanIf(ifIndex, vid, "vlan" + std::to_string(vid));
        ASSERT_EQ(dhcpsnoop_if_enable(ifIndex), 0u);
    }
};

} // namespace

TEST_F(GlobalTest, SettingsStoreOnlyWhatThePlatformAccepts)
{
    const struct {
        uint32_t cmd, value;
    } cases[] = {{DHCPSNOOP_G_ENABLE, 1}, {DHCPSNOOP_G_ENTERPRISE, 9999},
                 {DHCPSNOOP_G_HW_NOTIFY, 1}, {DHCPSNOOP_G_SERVER_LEARN, 1},
                 {DHCPSNOOP_G_BINDING_GUARD, 1}};
    for (const auto &c : cases) {
        const uint32_t before = get(c.cmd);
        model().failOn("qorHwScalarSync", 0x40000 + c.cmd, 5, 1);
        EXPECT_EQ(set(c.cmd, c.value), DHCPSNOOP_E_HW) << c.cmd;
        EXPECT_EQ(get(c.cmd), before) << c.cmd;
        EXPECT_EQ(set(c.cmd, c.value), 0) << c.cmd;
        EXPECT_EQ(get(c.cmd), c.value) << c.cmd;
        EXPECT_EQ(model().scalarSyncs.back().code, 0x40000 + c.cmd);
        EXPECT_EQ(model().scalarSyncs.back().mode, DHCPSNOOP_MODE_SET);
    }
    /* the same enable value again: no platform call */
    const size_t calls = model().scalarSyncs.size();
    EXPECT_EQ(set(DHCPSNOOP_G_ENABLE, 1), 0);
    EXPECT_EQ(model().scalarSyncs.size(), calls);
    /* the debug flags and the sync twin */
    EXPECT_EQ(set(DHCPSNOOP_G_DEBUG, 0x102), 0);
    EXPECT_EQ(get(DHCPSNOOP_G_DEBUG), 2u);
    uint32_t num = 7;
    EXPECT_EQ(dhcpSnoopSyncApi(nullptr, DHCPSNOOP_G_ENTERPRISE, &num), 0);
    EXPECT_EQ(model().scalarSyncs.back().mode, DHCPSNOOP_MODE_SYNC);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 7u);
}

TEST_F(GlobalTest, UnknownAndOneWayCommandsAreRefused)
{
    uint32_t v = 1;
    for (uint32_t cmd : {0u, 3u, 5u, 18u, 22u})
        EXPECT_EQ(dhcpSnoopSetApi(nullptr, cmd, &v), DHCPSNOOP_E_INVALID) << cmd;
    v = 2; /* the binding guard is on or off */
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_BINDING_GUARD, &v), DHCPSNOOP_E_INVALID);
    for (uint32_t cmd : {0u, 17u, 19u, 22u})
        EXPECT_EQ(dhcpSnoopGetApi(nullptr, cmd, &v), DHCPSNOOP_E_INVALID) << cmd;
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_ENABLE, nullptr), DHCPSNOOP_E_INVALID);
    EXPECT_TRUE(model().scalarSyncs.empty());
}

TEST_F(GlobalTest, DisablingFlushesAllButSourceGuardBindings)
{
    ASSERT_EQ(set(DHCPSNOOP_G_ENABLE, 1), 0);
    DhcpsnoopIf *port = enablePort(3);
    enablePort(4);
    port->counters[0] = 5;
    make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 1);
    make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_STATIC, 3, 1);
    make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_IPSG, 3, 1);
    const Mac mac = {1, 2, 3, 4, 5, 6};
    DhcpsnoopPktInfo info = client_request(port, 3, 1, mac);
    ASSERT_NE(dhcpsnoop_mac_user_add(&info), nullptr);
    dhcpsnoop_server_add(0x01020304, 1, 3);
    EXPECT_EQ(get(DHCPSNOOP_G_USER_COUNT), 2u);

    /* refused: nothing flushed */
    model().failOn("qorHwScalarSync", 0x40001, 1, 1);
    EXPECT_EQ(set(DHCPSNOOP_G_ENABLE, 0), DHCPSNOOP_E_HW);
    EXPECT_EQ(user_count(), 3u);
    EXPECT_EQ(server_list().size(), 1u);

    /* clearing statistics keeps the interfaces */
    EXPECT_EQ(set(DHCPSNOOP_G_CLEAR_STATS, 0), 0);
    EXPECT_EQ(port->counters[0], 0u);

    EXPECT_EQ(set(DHCPSNOOP_G_ENABLE, 0), 0);
    EXPECT_EQ(gDhcpsnoop.globalEnable, 0);
    EXPECT_EQ(user_count(), 1u);
    const DhcpsnoopUserKey kept = v4key(10, 0, 0, 3);
    EXPECT_NE(dhcpsnoop_user_lookup(&kept), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(info.chaddr), nullptr);
    EXPECT_TRUE(dhcpsnoop_list_empty(&gDhcpsnoop.ifList));
    EXPECT_TRUE(server_list().empty());
    EXPECT_TRUE(model().traps.empty());
    EXPECT_EQ(get(DHCPSNOOP_G_USER_COUNT), 0u);
}

TEST_F(GlobalTest, HardwareNotifyReinstallsEveryBinding)
{
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    model().ipsg[3] = {0, 1, DHCPSNOOP_CHECK_ALL};
    enablePort(3);
    DhcpsnoopUser *u = make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_STATIC, 3, 1);
    model().hwUserCalls.clear();
    EXPECT_EQ(set(DHCPSNOOP_G_HW_NOTIFY, 1), 0);
    ASSERT_EQ(model().hwUserCalls.size(), 1u);
    EXPECT_EQ(model().hwUserCalls[0].op, 0x3E800DFu);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(set(DHCPSNOOP_G_HW_NOTIFY, 0), 0);
    EXPECT_EQ(model().hwUserCalls.back().op, 0x3E800E0u);
    EXPECT_EQ(u->hwFlags, 0);
}

TEST_F(GlobalTest, SyncPacketIsHandedToTheReceiver)
{
    set_role(DHCPSNOOP_ROLE_SLAVE);
    DhcpsnoopServer s{};
    s.serverIp = 0x0A0B0C0D;
    s.ifIndex = 3;
    s.vid = 9;
    uint8_t buf[64] = {};
    QorTextPair pkt{buf, dhcpsnoop_sync_server_pkt_build(&s, 1, buf)};
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_SYNC_PKT, &pkt), 0);
    ASSERT_EQ(server_list().size(), 1u);
    EXPECT_EQ(server_list()[0]->serverIp, 0x0A0B0C0Du);
    EXPECT_TRUE(model().scalarSyncs.empty());
}

TEST_F(GlobalTest, VlansAreListedInInterfaceOrder)
{
    addVlanIf(100, 30);
    addVlanIf(200, 10);
    addVlanIf(300, 20);
    enablePort(50);
    uint32_t vid = 0;
    EXPECT_EQ(dhcpSnoopVlanGetFirst(&vid), 0);
    EXPECT_EQ(vid, 30u);
    const struct {
        uint32_t after;
        int32_t rc;
        uint32_t next;
    } cases[] = {{0, 0, 30}, {10, 0, 30}, {25, 0, 30}, {30, -1, 0}};
    for (const auto &c : cases) {
        uint32_t next = 0;
        EXPECT_EQ(dhcpSnoopVlanGetNext(c.after, &next), c.rc) << c.after;
        EXPECT_EQ(next, c.next) << c.after;
    }
    EXPECT_EQ(dhcpSnoopVlanGetFirst(nullptr), -1);
}

TEST_F(GlobalTest, VlanSettingsAreThoseOfTheVlanInterface)
{
    uint32_t v = 1;
    EXPECT_EQ(dhcpSnoopVlanSetApi(0, 1, &v), 22);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4095, 1, &v), 22);
    EXPECT_EQ(dhcpSnoopVlanSetApi(4094, 3, &v), -1); /* in range, no interface */
    model().addVlanIf(400, 4094, "vlan4094");
    EXPECT_EQ(dhcpSnoopVlanSetApi(4094, 3, &v), 0); /* snooping on */
    ASSERT_NE(dhcpsnoop_if_lookup(400), nullptr);
    v = 77;
    EXPECT_EQ(dhcpSnoopVlanSetApi(4094, 1, &v), 0);
    EXPECT_EQ(dhcpsnoop_if_lookup(400)->maxUser, 77);
    EXPECT_EQ(model().ifSyncs.back().code, 0x402C012u);
    v = 0;
    EXPECT_EQ(dhcpSnoopVlanGetApi(4094, 1, &v), 0);
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4094, 2, &v), DHCPSNOOP_E_INVALID);
    model().failOn("qorIndexTrans", 7, 1, 1);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4094, 1, &v), -1);
}
