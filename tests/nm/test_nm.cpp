/* Management: switch-wide, VLAN and interface settings, bindings, relay
 * server-ips and the learned server listing. */
#include <cstring>
#include <string>

#include "binding_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_nm.h"

namespace {

const DhcpsnoopUserKey k1 = v4key(10, 0, 0, 1);
constexpr int32_t NOENT = DHCPSNOOP_E_NO_ENTRY, EXISTS = DHCPSNOOP_E_EXISTS, HW = DHCPSNOOP_E_HW,
                  BOUND = DHCPSNOOP_E_BOUND, INVAL = DHCPSNOOP_E_INVALID;
const std::string kLength = "rc " + std::to_string(DHCPSNOOP_E_LENGTH);

/* One request and its answer: a set passes `value`, a get that succeeds must
 * answer `value`; `fail` has the platform refuse the change once with it. */
enum Api { GSET, GGET, ISET, IGET, USET, UGET };
struct Req {
    Api api;
    uint32_t cmd, value;
    int32_t rc = 0;
    int fail = 0;
};
using Call = int32_t (*)(uint32_t ifIndex, uint32_t cmd, uint32_t *v);
const Call kCalls[] = {
    [](uint32_t, uint32_t c, uint32_t *v) { return dhcpSnoopSetApi(nullptr, c, v); },
    [](uint32_t, uint32_t c, uint32_t *v) { return dhcpSnoopGetApi(nullptr, c, v); },
    [](uint32_t i, uint32_t c, uint32_t *v) { return dhcpSnoopIfSetApi(i, c, v); },
    [](uint32_t i, uint32_t c, uint32_t *v) { return dhcpSnoopIfGetApi(i, c, v); },
    [](uint32_t, uint32_t c, uint32_t *v) { return dhcpSnoopUserSetApi(&k1, c, v); },
    [](uint32_t, uint32_t c, uint32_t *v) { return dhcpSnoopUserGetApi(&k1, c, v); },
};

class NmTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(8, 16);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
        port = enablePort(3);
        model().ifSyncs.clear();
    }
    /* Requests on the switch, on interface `ifIndex` and on binding k1. */
    void run(std::initializer_list<Req> reqs, uint32_t ifIndex = 3)
    {
        static const char *const sync[] = {"qorHwScalarSync", "qorHwIfSync",
                                           "qorHwDhcpSnoopUserSync"};
        static const uint32_t code[] = {0x40000, 0x402C000, 0x8CE8000};
        int i = 0;
        for (const Req &r : reqs) {
            if (r.fail)
                model().failOn(sync[r.api / 2], code[r.api / 2] + r.cmd, r.fail, 1);
            uint32_t v = r.api % 2 ? 0xDEAD : r.value;
            EXPECT_EQ(kCalls[r.api](ifIndex, r.cmd, &v), r.rc) << "request " << i;
            if (r.api % 2 && r.rc == 0)
                EXPECT_EQ(v, r.value) << "request " << i;
            i++;
        }
    }
    int32_t setText(uint32_t cmd, const std::string &s)
    {
        QorTextPair t{const_cast<char *>(s.data()), uint32_t(s.size())};
        return dhcpSnoopIfSetApi(3, cmd, &t);
    }
    /* The text answer with `room` bytes, or the error code as text. */
    std::string getText(uint32_t cmd, uint32_t room)
    {
        char buf[300] = {};
        QorTextPair t{buf, room};
        int32_t rc = dhcpSnoopIfGetApi(3, cmd, &t);
        return rc ? "rc " + std::to_string(rc) : std::string(buf, t.len);
    }
    DhcpsnoopIf *port = nullptr;
};

} // namespace

TEST_F(NmTest, GlobalSettingsStoreOnlyWhatThePlatformAccepts)
{
    run({{GSET, 1, 1, HW, 5}, {GGET, 1, 0},     {GSET, 1, 1},  {GGET, 1, 1},
         {GSET, 2, 99, HW, 5}, {GGET, 2, 32473}, {GSET, 2, 99}, {GGET, 2, 99},
         {GSET, 4, 1, HW, 5},  {GGET, 4, 0},    {GSET, 4, 1},  {GGET, 4, 1},
         {GSET, 16, 1, HW, 5}, {GGET, 16, 0},   {GSET, 16, 1}, {GGET, 16, 1},
         {GSET, 21, 1, HW, 5}, {GGET, 21, 0},   {GSET, 21, 1}, {GGET, 21, 1},
         {GSET, 21, 2, INVAL}, {GSET, 20, 0x102}, {GGET, 20, 2}});
    EXPECT_EQ(model().scalarSyncs.back().code, 0x40015u);
    EXPECT_EQ(model().scalarSyncs.back().mode, DHCPSNOOP_MODE_SET);
    const size_t calls = model().scalarSyncs.size();
    /* unchanged, unknown and one-way commands, no value: no platform call */
    run({{GSET, 1, 1}, {GSET, 0, 1, INVAL}, {GSET, 3, 1, INVAL}, {GSET, 5, 1, INVAL},
         {GSET, 18, 1, INVAL}, {GSET, 22, 1, INVAL}, {GGET, 0, 0, INVAL}, {GGET, 17, 0, INVAL},
         {GGET, 19, 0, INVAL}, {GGET, 22, 0, INVAL}});
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_ENABLE, nullptr), INVAL);
    EXPECT_EQ(model().scalarSyncs.size(), calls);
    uint32_t v = 7;
    EXPECT_EQ(dhcpSnoopSyncApi(nullptr, DHCPSNOOP_G_ENTERPRISE, &v), 0);
    EXPECT_EQ(model().scalarSyncs.back().mode, DHCPSNOOP_MODE_SYNC);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 7u);
}

TEST_F(NmTest, DisablingFlushesAllButSourceGuardBindings)
{
    run({{GSET, 1, 1}});
    enablePort(4);
    port->counters[0] = 5;
    make_user(k1, DHCPSNOOP_USER_DYNAMIC, 3, 1);
    make_user(v4key(10, 0, 0, 2), DHCPSNOOP_USER_STATIC, 3, 1);
    make_user(v4key(10, 0, 0, 3), DHCPSNOOP_USER_IPSG, 3, 1);
    const Mac mac = {1, 2, 3, 4, 5, 6};
    DhcpsnoopPktInfo info = client_request(port, 3, 1, mac);
    ASSERT_NE(dhcpsnoop_mac_user_add(&info), nullptr);
    dhcpsnoop_server_add(0x01020304, 1, 3);
    run({{GGET, 3, 2}, {GSET, 1, 0, HW, 1}}); /* refused: nothing flushed */
    EXPECT_EQ(user_count(), 3u);
    EXPECT_EQ(server_list().size(), 1u);
    run({{GSET, 17, 0}}); /* clearing statistics keeps the interfaces */
    EXPECT_EQ(port->counters[0], 0u);

    run({{GSET, 1, 0}, {GGET, 3, 0}});
    EXPECT_EQ(gDhcpsnoop.globalEnable, 0);
    EXPECT_EQ(user_count(), 1u);
    const DhcpsnoopUserKey kept = v4key(10, 0, 0, 3);
    EXPECT_NE(dhcpsnoop_user_lookup(&kept), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(mac.data()), nullptr);
    EXPECT_TRUE(dhcpsnoop_list_empty(&gDhcpsnoop.ifList));
    EXPECT_TRUE(server_list().empty());
    EXPECT_TRUE(model().traps.empty());
}

TEST_F(NmTest, HardwareNotifyAndSyncPacket)
{
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    model().ipsg[3] = {0, 1, DHCPSNOOP_CHECK_ALL};
    DhcpsnoopUser *u = make_user(k1, DHCPSNOOP_USER_STATIC, 3, 1);
    run({{GSET, 4, 1}});
    ASSERT_EQ(model().hwUserCalls.size(), 1u);
    EXPECT_EQ(model().hwUserCalls[0].op, 0x3E800DFu);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG);
    run({{GSET, 4, 0}});
    EXPECT_EQ(model().hwUserCalls.back().op, 0x3E800E0u);
    EXPECT_EQ(u->hwFlags, 0);

    set_role(DHCPSNOOP_ROLE_SLAVE);
    model().scalarSyncs.clear();
    std::vector<uint8_t> rec = server_record(0x0A0B0C0D, 9, 3, 1);
    QorTextPair pkt{rec.data(), uint32_t(rec.size())};
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_SYNC_PKT, &pkt), 0);
    ASSERT_EQ(server_list().size(), 1u);
    EXPECT_EQ(server_list()[0]->serverIp, 0x0A0B0C0Du);
    EXPECT_TRUE(model().scalarSyncs.empty());
}

TEST_F(NmTest, VlansAreListedInInterfaceOrderAndSetThroughTheirInterface)
{
    for (auto [ifIndex, vid] : {std::pair{100u, 30}, {200u, 10}, {300u, 20}}) {
        model().addVlanIf(ifIndex, uint16_t(vid), "vlan" + std::to_string(vid));
        ASSERT_EQ(dhcpsnoop_if_enable(ifIndex), 0u);
    }
    uint32_t v = 0;
    EXPECT_EQ(dhcpSnoopVlanGetFirst(&v), 0);
    EXPECT_EQ(v, 30u);
    EXPECT_EQ(dhcpSnoopVlanGetFirst(nullptr), -1);
    for (auto [after, rc, next] :
         {std::tuple{0u, 0, 30u}, {10u, 0, 30u}, {25u, 0, 30u}, {30u, -1, 0u}}) {
        v = 0;
        EXPECT_EQ(dhcpSnoopVlanGetNext(after, &v), rc) << after;
        EXPECT_EQ(v, next) << after;
    }

    v = 1;
    EXPECT_EQ(dhcpSnoopVlanSetApi(0, 1, &v), 22);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4095, 1, &v), 22);
    EXPECT_EQ(dhcpSnoopVlanSetApi(4094, 3, &v), -1); /* in range, no interface */
    model().addVlanIf(400, 4094, "vlan4094");
    EXPECT_EQ(dhcpSnoopVlanSetApi(4094, 3, &v), 0); /* snooping on */
    v = 77;
    EXPECT_EQ(dhcpSnoopVlanSetApi(4094, 1, &v), 0);
    EXPECT_EQ(model().ifSyncs.back().code, 0x402C012u);
    v = 0;
    EXPECT_EQ(dhcpSnoopVlanGetApi(4094, 1, &v), 0);
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4094, 2, &v), INVAL);
    model().failOn("qorIndexTrans", 7, 1, 1);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4094, 1, &v), -1);
}

TEST_F(NmTest, OnlyEnablingServesAnInterfaceWithoutEntry)
{
    /* not a port of the switch: no entry, no drop rule */
    run({{ISET, 3, 1, NOENT}, {IGET, 1, 0, NOENT}, {ISET, 1, 1, NOENT}}, 9);
    EXPECT_TRUE(model().ifSyncs.empty());
    model().addPort(9, "swp9");
    run({{ISET, 1, 1}}, 9);
    EXPECT_EQ(model().ifSyncs.back().code, 0x402C001u);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SET);
    EXPECT_EQ(model().traps.size(), 2u);
    uint32_t first = 0, next = 0;
    EXPECT_EQ(dhcpSnoopIfGetFirst(&first), 0);
    EXPECT_EQ(dhcpSnoopIfGetNext(first, &next), 0);
    EXPECT_EQ(std::pair(first, next), std::pair(3u, 9u));
    EXPECT_EQ(dhcpSnoopIfGetNext(9, &next), -1);
    uint32_t v = 0;
    EXPECT_EQ(dhcpSnoopIfSyncApi(9, 1, &v), 0);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SYNC);
    EXPECT_EQ(dhcpsnoop_if_lookup(9), nullptr);
}

TEST_F(NmTest, InterfaceChangesRefusedOrUnchanged)
{
    run({{ISET, 2, 1}, {ISET, 3, 2}, {ISET, 4, 0}, {ISET, 9, 0}, {ISET, 11, 0}, {ISET, 13, 0},
         {ISET, 0, 1, INVAL}, {ISET, 15, 1, INVAL}, {ISET, 19, 1, INVAL}, {ISET, 22, 1, INVAL},
         {ISET, 27, 1, INVAL}, {ISET, 29, 1, INVAL}, {ISET, 35, 1, INVAL}});
    EXPECT_TRUE(model().ifSyncs.empty());
    for (uint32_t cmd : {0u, 15u, 28u, 29u, 35u})
        EXPECT_EQ(dhcpSnoopIfGetApi(3, cmd, nullptr), INVAL) << cmd;
    EXPECT_EQ(dhcpSnoopIfGetApi(3, 25, nullptr), 0);

    run({{ISET, 4, 1}, {ISET, 11, 1}});
    model().failOn("qorHwIfSync", 0x402C005, 1, 1);
    EXPECT_EQ(setText(5, "\x01\x01" "a"), HW);
    EXPECT_EQ(port->circuitIdLen, 0);
    const struct {
        uint32_t cmd, value;
    } cases[] = {{2, 3},  {3, 1},  {8, 1},  {9, 1},  {10, 9}, {11, 0}, {13, 1},
                 {16, 1}, {17, 1}, {18, 5}, {20, 1}, {21, 9}, {30, 5}, {4, 0}};
    for (const auto &c : cases) {
        const DhcpsnoopIf before = *port;
        run({{ISET, c.cmd, c.value, HW, 1}});
        EXPECT_EQ(memcmp(&before, port, sizeof before), 0) << c.cmd;
        run({{ISET, c.cmd, c.value}, {IGET, c.cmd, c.value}});
    }
}

TEST_F(NmTest, InterfacePreconditionsAndTheirMessages)
{
    const char *o82 = "the option82 is disabled!\n\r", *o37 = "the option37 is disabled!\n\r";
    const struct {
        uint32_t cmd;
        bool text;
        const char *message;
    } cases[] = {{5, true, o82},  {6, true, o82},   {7, true, o82},   {8, false, o82},
                 {9, false, o82}, {30, false, o82}, {31, false, o82}, {12, true, o82},
                 {14, true, o37}, {33, false, o37}, {32, false, "the option18 is disabled!\n\r"}};
    for (const auto &c : cases) {
        model().debugText.clear();
        if (c.text)
            EXPECT_EQ(setText(c.cmd, "x"), INVAL) << c.cmd;
        else
            run({{ISET, c.cmd, 1, INVAL}});
        EXPECT_EQ(model().debugCount(c.message), 1u) << c.cmd;
    }
    run({{ISET, 4, 1}});
    EXPECT_EQ(setText(7, "x"), INVAL);
    EXPECT_EQ(model().debugCount("the option82 sub-option9 is disabled!\n\r"), 1u);
    EXPECT_EQ(model().ifSyncs.size(), 1u);
}

TEST_F(NmTest, OptionSwitchesResetTheirTexts)
{
    run({{ISET, 4, 1}, {ISET, 9, 1}});
    ASSERT_EQ(setText(5, std::string("\x01\x02" "ab", 4)), 0);
    ASSERT_EQ(setText(7, "nine"), 0);
    run({{ISET, 8, 1}, {ISET, 4, 0}, {IGET, 9, 0}});
    EXPECT_EQ(port->circuitIdLen + port->subopt9Len, 0);
    run({{ISET, 4, 1}, {IGET, 8, 2}, {IGET, 30, 3}, {IGET, 31, 3}});
    EXPECT_EQ(getText(5, 10).size(), 2u); /* typed again, and empty */
    EXPECT_EQ(port->circuitIdLen, 0);

    run({{ISET, 13, 1}});
    ASSERT_EQ(setText(14, std::string("\x05\x01z", 3)), 0);
    EXPECT_EQ(port->remoteId6Type, 5);
    run({{ISET, 13, 0}});
    EXPECT_EQ(port->remoteId6Type + port->remoteId6Len + port->remoteId6Fmt, 0);
}

TEST_F(NmTest, TypedAndPlainTexts)
{
    run({{ISET, 4, 1}});
    /* typed (mode 3): type byte, length byte, text */
    EXPECT_EQ(setText(5, "\x01\x04" "abc"), DHCPSNOOP_E_LENGTH);
    EXPECT_EQ(model().debugCount("option len 4, total len 5!"), 1u);
    EXPECT_EQ(setText(5, "\x01"), DHCPSNOOP_E_LENGTH);
    EXPECT_EQ(model().debugCount("wrong length for circuit-id!\r\n"), 1u);
    EXPECT_EQ(setText(5, "\x01\x02" "abXYZ"), 0);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SET | DHCPSNOOP_MODE_TEXT);
    EXPECT_EQ(getText(5, 4), "\x01\x02" "ab");
    EXPECT_EQ(getText(5, 3), kLength);

    /* the remote-id's room is measured by the circuit-id */
    ASSERT_EQ(setText(5, "\x01\x06" "circid"), 0);
    ASSERT_EQ(setText(6, "\x02\x02" "ri"), 0);
    EXPECT_EQ(getText(6, 4), kLength);
    EXPECT_EQ(getText(6, 8), "\x02\x02" "ri");
    ASSERT_EQ(setText(6, "\x02\x0A" "0123456789"), 0);
    EXPECT_EQ(getText(6, 9), kLength);

    /* a format change clears the text; a mode of 7 or more is refused after
     * the platform was told */
    run({{ISET, 30, 9, 22}});
    EXPECT_EQ(model().ifSyncs.back().code, 0x402C01Eu);
    EXPECT_EQ(port->circuitIdLen, 6);
    run({{ISET, 30, 5}});
    EXPECT_EQ(getText(5, 0), "");
    /* plain: capped at 128 bytes */
    EXPECT_EQ(setText(5, std::string(200, 'c')), 0);
    EXPECT_EQ(getText(5, 300), std::string(128, 'c'));
    EXPECT_EQ(getText(5, 127), kLength);
}

TEST_F(NmTest, CountersAndPlainValues)
{
    port->counters[0] = 11;
    port->counters[1] = 22;
    port->counters[2] = 33;
    port->relayAddr = 1;
    run({{IGET, 24, 11}, {IGET, 22, 22}, {IGET, 23, 33}, {ISET, 28, 0}, {IGET, 22, 0},
         {IGET, 23, 0}, {IGET, 24, 0}, {IGET, 1, 1}, {IGET, 19, 0}, {IGET, 34, 1}});
    run({{ISET, 34, 0x0A000001}, {IGET, 34, 0x0A000001}}); /* no platform call */
    EXPECT_TRUE(model().ifSyncs.empty());
}

TEST_F(NmTest, BindingKeysAreListedInByteOrderWithoutSourceGuardEntries)
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

TEST_F(NmTest, StaticBindingLifecycle)
{
    run({{USET, 9, 1, NOENT}, {USET, 1, 5, NOENT}, {USET, 9, 4}, {USET, 9, 5, EXISTS},
         {UGET, 8, DHCPSNOOP_USER_STATIC}, {UGET, 9, 3}, {UGET, 6, 0xFFFFFFFF},
         {USET, 1, 0x10005}, {USET, 2, 3}, {USET, 4, 0x12345}});
    uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
    QorTextPair m{mac, 6};
    EXPECT_EQ(dhcpSnoopUserSetApi(&k1, 5, &m), 0);
    EXPECT_EQ(model().userSyncs.back().mode, DHCPSNOOP_MODE_SET | DHCPSNOOP_MODE_TEXT);
    run({{UGET, 1, 5}, {UGET, 4, 0x2345}, {USET, 9, 1}}); /* bind */
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k1);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI);
    EXPECT_EQ(u->ipsgCheckItems, DHCPSNOOP_CHECK_ALL);
    ASSERT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(model().hwUserCalls[0].ifIndex, 3u);
    EXPECT_EQ(model().logCount("[DHCPSNOOP] Add static dhcpsnoop entry: ip 10.0.0.1, mac "
                               "00:01:02:03:04:05, interface swp3, vlan 5.\r\n"),
              1u);

    sys().now += 30;
    run({{USET, 1, 6, BOUND}, {USET, 9, 2}}); /* no changes until unbound */
    EXPECT_EQ(u->hwFlags, 0);
    EXPECT_EQ(model().hwUserCalls.back().op, 0x3E800E0u);
    EXPECT_EQ(u->leaseStart, uint32_t(sys().now));
    run({{USET, 1, 6}});
    EXPECT_EQ(u->origVid, 6);
    run({{USET, 9, 7, INVAL}, {USET, 9, 6}, {USET, 9, 6, NOENT}});
    EXPECT_EQ(dhcpsnoop_user_lookup(&k1), nullptr);
}

TEST_F(NmTest, RefusedOrShortBindingChangesKeepTheBinding)
{
    const DhcpsnoopUserKey k2 = v4key(10, 0, 0, 2);
    uint32_t v = 4;
    model().failOn("qorHwDhcpSnoopUserSync", 0x8CE8009, 1, 1);
    EXPECT_EQ(dhcpSnoopUserSetApi(&k2, 9, &v), HW);
    EXPECT_EQ(dhcpsnoop_user_lookup(&k2), nullptr);
    run({{USET, 9, 4}, {USET, 1, 9, HW, 1}, {UGET, 1, 0}, {USET, 9, 6, HW, 1}});
    EXPECT_NE(dhcpsnoop_user_lookup(&k1), nullptr);

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

    /* a refused source guard rule binds with ARP inspection only; a refused
     * withdrawal leaves it bound and installed */
    model().failOn("qorIfSetApi", 300, 1, 1);
    run({{USET, 9, 1}});
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k1);
    EXPECT_EQ(std::tuple(u->hwFlags, u->ipsgCheckItems, u->daiCheckItems),
              std::tuple(DHCPSNOOP_HW_DAI, 0, DHCPSNOOP_CHECK_ALL));
    model().failOn("qorIfSetApi", 300, 9, 1);
    run({{USET, 9, 3, 9}});
    EXPECT_EQ(u->bindState, DHCPSNOOP_BIND_BOUND);
    EXPECT_EQ(u->hwFlags, DHCPSNOOP_HW_DAI);
}

TEST_F(NmTest, UnbindingADynamicBindingReleasesItsCounts)
{
    model().addVlanIf(40, 4, "vlan4");
    ASSERT_EQ(dhcpsnoop_if_enable(40), 0u);
    DhcpsnoopUser *u = make_user(k1, DHCPSNOOP_USER_DYNAMIC, 3, 4);
    port->curUser = 1;
    dhcpsnoop_if_lookup(40)->curUser = 2;
    u->leaseTime = 60;
    u->leaseStart = uint32_t(sys().now) - 70;
    run({{UGET, 7, 60}, {USET, 9, 3}, {UGET, 8, DHCPSNOOP_USER_STATIC}, {UGET, 9, 3}});
    EXPECT_EQ(port->curUser + 10 * dhcpsnoop_if_lookup(40)->curUser, 10);
    sys().now += 70;
    run({{UGET, 7, 70}});

    /* source guard entries are out of reach */
    dhcpsnoop_user_delete(u);
    make_user(k1, DHCPSNOOP_USER_IPSG, 3, 1)->bindState = 0;
    run({{USET, 9, 1, EXISTS}, {USET, 9, 2, EXISTS}, {USET, 9, 6, EXISTS}, {GGET, 3, 0}});
    EXPECT_EQ(model().debugCount("this is a IPSG binding entry with the same ip!"), 3u);
    EXPECT_NE(dhcpsnoop_user_lookup(&k1), nullptr);
    DhcpsnoopUserKey k{};
    EXPECT_EQ(dhcpSnoopUserGetFirst(&k), -1);
}

TEST_F(NmTest, RelayServerIpsFillThreeSlotsAndAreListed)
{
    const uint32_t A = 0x0A000001, B = A + 1, C = A + 2, D = A + 3;
    const struct {
        uint32_t ifIndex, ip, op, cmd;
        int32_t rc;
    } steps[] = {{3, A, 1, 1, 0},  {3, A, 4, 1, 0},         {3, B, 5, 1, 0}, {3, C, 1, 1, 0},
                 {3, D, 1, 1, INVAL}, {3, B, 6, 1, 0},      {3, 9, 6, 1, 0}, {3, D, 1, 1, 0},
                 {3, 1, 2, 1, INVAL}, {3, 1, 1, 2, NOENT}, {9, 1, 1, 1, NOENT}};
    for (const auto &s : steps) {
        uint32_t pair[2] = {s.ifIndex, s.ip}, op = s.op;
        EXPECT_EQ(dhcpSnoopServerIpSetApi(pair, s.cmd, &op), s.rc) << s.ip << " " << op;
    }
    const uint32_t here[2] = {3, D}, gone[2] = {3, B};
    EXPECT_EQ(dhcpSnoopServerIpGetApi(here, 1, nullptr), 0);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(gone, 1, nullptr), NOENT);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(here, 2, nullptr), INVAL);
    uint32_t add = 1;
    EXPECT_EQ(dhcpSnoopServerIpSetApi(nullptr, 1, &add), DHCPSNOOP_E_NULL_KEY);

    /* listed across interfaces and slots: slots are A, D, C now */
    enablePort(1);
    enablePort(5);
    port->serverIp[0] = 0;
    dhcpsnoop_if_lookup(5)->serverIp[0] = 0x0D;
    uint32_t p[2] = {};
    ASSERT_EQ(dhcpSnoopServerIpGetFirst(p), 0);
    const uint32_t want[][2] = {{3, D}, {3, C}, {5, 0x0D}};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(std::pair(p[0], p[1]), std::pair(want[i][0], want[i][1]));
        uint32_t next[2] = {};
        EXPECT_EQ(dhcpSnoopServerIpGetNext(p, next), i < 2 ? 0 : -1);
        memcpy(p, next, sizeof p);
    }
    const uint32_t unknown[2] = {3, 0x0E};
    EXPECT_EQ(dhcpSnoopServerIpGetNext(unknown, p), -1);
}

TEST_F(NmTest, LearnedServersAreShown)
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
