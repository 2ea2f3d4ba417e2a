/* Management: switch-wide, VLAN and interface settings, bindings and relay server-ips. */
#include <cstring>
#include <string>

#include "binding_helpers.h"
#include "cmd_helpers.h"
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
            if (r.api % 2 && r.rc == 0) {
                EXPECT_EQ(v, r.value) << "request " << i;
            }
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

/* What the front-end tests do not reach: refusals by the platform, unchanged
 * values, and the bounds of texts, pages and slots. */
TEST_F(NmTest, GlobalSettingsStoreOnlyWhatThePlatformAccepts)
{
    run({{GSET, 2, 99, HW, 5}, {GGET, 2, 32473}, {GSET, 1, 1}, {GSET, 2, 99}, {GGET, 2, 99},
         {GSET, 21, 1}, {GSET, 21, 2, INVAL}, {GSET, 20, 0x102}, {GGET, 20, 2}});
    EXPECT_EQ(model().scalarSyncs.back().code, 0x40015u);
    EXPECT_EQ(model().scalarSyncs.back().mode, DHCPSNOOP_MODE_SET);
    const size_t calls = model().scalarSyncs.size();
    /* unchanged, unknown and one-way commands, no value: no platform call */
    run({{GSET, 1, 1}, {GSET, 0, 1, INVAL}, {GSET, 3, 1, INVAL}, {GSET, 18, 1, INVAL},
         {GSET, 22, 1, INVAL}, {GGET, 17, 0, INVAL}, {GGET, 22, 0, INVAL}});
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
    run({{GSET, 17, 0}}); /* clearing statistics keeps the interfaces */
    EXPECT_EQ(port->counters[0], 0u);

    run({{GSET, 1, 0}, {GGET, 3, 0}});
    EXPECT_EQ(user_count(), 1u);
    const DhcpsnoopUserKey kept = v4key(10, 0, 0, 3);
    EXPECT_NE(dhcpsnoop_user_lookup(&kept), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(mac.data()), nullptr);
    EXPECT_TRUE(dhcpsnoop_list_empty(&gDhcpsnoop.ifList));
    EXPECT_TRUE(server_list().empty());
    EXPECT_TRUE(model().traps.empty());
}

TEST_F(NmTest, VlansAreListedInInterfaceOrder)
{
    for (auto [ifIndex, vid] : {std::pair{100u, 30}, {200u, 10}}) {
        model().addVlanIf(ifIndex, uint16_t(vid), "vlan" + std::to_string(vid));
        ASSERT_EQ(dhcpsnoop_if_enable(ifIndex), 0u);
    }
    uint32_t v = 0, next = 0;
    EXPECT_EQ(dhcpSnoopVlanGetFirst(&v), 0);
    EXPECT_EQ(std::tuple(v, dhcpSnoopVlanGetNext(25, &next), next), std::tuple(30u, 0, 30u));
    EXPECT_EQ(dhcpSnoopVlanGetNext(30, &v), -1);
    EXPECT_EQ(dhcpSnoopVlanSetApi(0, 1, &v), 22);
    EXPECT_EQ(dhcpSnoopVlanGetApi(4095, 1, &v), 22);
}

TEST_F(NmTest, InterfaceChangesRefusedOrUnchanged)
{
    /* not a port of the switch: no entry, no platform call */
    run({{ISET, 3, 1, NOENT}, {IGET, 1, 0, NOENT}, {ISET, 1, 1, NOENT}}, 9);
    run({{ISET, 2, 1}, {ISET, 4, 0}, {ISET, 0, 1, INVAL}, {ISET, 15, 1, INVAL},
         {ISET, 19, 1, INVAL}, {ISET, 22, 1, INVAL}, {ISET, 29, 1, INVAL}, {ISET, 35, 1, INVAL}});
    EXPECT_TRUE(model().ifSyncs.empty());
    for (uint32_t cmd : {0u, 15u, 28u, 35u})
        EXPECT_EQ(dhcpSnoopIfGetApi(3, cmd, nullptr), INVAL) << cmd;

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
    uint32_t v = 0;
    EXPECT_EQ(dhcpSnoopIfSyncApi(3, 1, &v), 0);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SYNC);
}

TEST_F(NmTest, OptionSettingsNeedTheirOptionOn)
{
    /* option 82: texts 5, 6, 7, 12 and values 8, 9, 30, 31; option 37: 14, 33; option 18: 32 */
    for (uint32_t cmd : {5u, 6u, 7u, 12u, 14u})
        EXPECT_EQ(setText(cmd, "x"), INVAL) << cmd;
    run({{ISET, 8, 1, INVAL}, {ISET, 9, 1, INVAL}, {ISET, 30, 1, INVAL}, {ISET, 31, 1, INVAL},
         {ISET, 33, 1, INVAL}, {ISET, 32, 1, INVAL}, {ISET, 4, 1}});
    EXPECT_EQ(setText(7, "x"), INVAL); /* sub-option 9 still off */
    EXPECT_EQ(model().ifSyncs.size(), 1u);
}

TEST_F(NmTest, TextLengthsAndCounters)
{
    run({{ISET, 4, 1}});
    /* typed (mode 3): type byte, length byte, text */
    EXPECT_EQ(setText(5, "\x01\x04" "abc"), DHCPSNOOP_E_LENGTH);
    EXPECT_EQ(setText(5, "\x01"), DHCPSNOOP_E_LENGTH);
    EXPECT_EQ(setText(5, "\x01\x02" "abXYZ"), 0);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SET | DHCPSNOOP_MODE_TEXT);
    EXPECT_EQ(getText(5, 4), "\x01\x02" "ab");
    EXPECT_EQ(getText(5, 3), kLength);
    /* the remote-id's room is measured by the circuit-id */
    ASSERT_EQ(setText(6, "\x02\x0A" "0123456789"), 0);
    EXPECT_EQ(getText(6, 11), kLength);
    EXPECT_EQ(getText(6, 12), "\x02\x0A" "0123456789");
    /* a format change clears the text; plain texts are capped at 128 bytes */
    run({{ISET, 30, 5}});
    EXPECT_EQ(getText(5, 0), "");
    EXPECT_EQ(setText(5, std::string(200, 'c')), 0);
    EXPECT_EQ(getText(5, 300), std::string(128, 'c'));
    EXPECT_EQ(getText(5, 127), kLength);

    port->counters[0] = port->counters[1] = port->counters[2] = 11;
    run({{IGET, 24, 11}, {ISET, 28, 0}, {IGET, 22, 0}, {IGET, 23, 0}, {IGET, 24, 0}});
}

TEST_F(NmTest, StaticBindingLifecycle)
{
    uint32_t v = 1;
    EXPECT_EQ(dhcpSnoopUserSetApi(nullptr, 1, &v), DHCPSNOOP_E_NULL_KEY);
    EXPECT_EQ(dhcpSnoopUserGetApi(nullptr, 1, &v), DHCPSNOOP_E_NULL_KEY);
    run({{USET, 9, 1, NOENT}, {USET, 1, 5, NOENT}, {USET, 9, 4}, {UGET, 6, 0xFFFFFFFF},
         {USET, 1, 0x10005}, {USET, 2, 3}, {USET, 4, 0x12345}, {UGET, 1, 5}, {UGET, 4, 0x2345},
         {USET, 9, 1}});
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k1);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::tuple(u->hwFlags, u->ipsgCheckItems),
              std::tuple(DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI, DHCPSNOOP_CHECK_ALL));
    ASSERT_EQ(model().hwUserCalls.size(), 2u);
    EXPECT_EQ(model().hwUserCalls[0].ifIndex, 3u);

    sys().now += 30;
    run({{USET, 9, 2}, {USET, 1, 6}});
    EXPECT_EQ(std::tuple(u->hwFlags, u->leaseStart, u->origVid),
              std::tuple(0, uint32_t(sys().now), 6));
    run({{USET, 9, 7, INVAL}, {USET, 9, 6}, {USET, 9, 6, NOENT}});
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
    uint8_t mac[8] = {9, 9, 9, 9, 9};
    QorTextPair m{mac, 5};
    const size_t calls = model().userSyncs.size();
    EXPECT_EQ(dhcpSnoopUserSetApi(&k1, 5, &m), DHCPSNOOP_E_LENGTH);
    EXPECT_EQ(model().userSyncs.size(), calls + 1);
    EXPECT_EQ(dhcpSnoopUserGetApi(&k1, 5, &m), DHCPSNOOP_E_LENGTH);
    m.len = 8;
    EXPECT_EQ(dhcpSnoopUserGetApi(&k1, 5, &m), 0);
    EXPECT_EQ(m.len, 6u);

    /* a refused source guard rule binds with ARP inspection only; a refused
     * withdrawal leaves it bound and installed */
    model().failOn("qorIfSetApi", 300, 1, 1);
    run({{USET, 9, 1}});
    DhcpsnoopUser *u = dhcpsnoop_user_lookup(&k1);
    EXPECT_EQ(std::tuple(u->hwFlags, u->ipsgCheckItems, u->daiCheckItems),
              std::tuple(DHCPSNOOP_HW_DAI, 0, DHCPSNOOP_CHECK_ALL));
    model().failOn("qorIfSetApi", 300, 9, 1);
    run({{USET, 9, 3, 9}});
    EXPECT_EQ(std::tuple(u->bindState, u->hwFlags),
              std::tuple(DHCPSNOOP_BIND_BOUND, DHCPSNOOP_HW_DAI));
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
    EXPECT_NE(dhcpsnoop_user_lookup(&k1), nullptr);
}

TEST_F(NmTest, PagesAndServerSlotsStayInTheirRoom)
{
    /* room for one record of three: nothing written past the page */
    for (uint8_t i = 1; i <= 3; i++)
        make_user(v4key(10, 0, 0, i), DHCPSNOOP_USER_STATIC, 3, 1);
    std::vector<uint8_t> buf(120, 0xAA);
    QorTextPair page{buf.data(), DHCPSNOOP_PAGE_HEAD + DHCPSNOOP_PAGE_RECORD + 40};
    memset(buf.data(), 0, 8);
    bool more = false;
    ASSERT_EQ(dhcpSnoopUserGetPage(nullptr, &page, &more), 0);
    EXPECT_EQ(std::tuple(word(buf, 0), word(buf, 4), more), std::tuple(1u, 1u, true));
    EXPECT_EQ(std::vector<uint8_t>(buf.begin() + 96, buf.end()), std::vector<uint8_t>(24, 0xAA));

    /* three slots; a deletion empties any of them and the listing skips it */
    const uint32_t A = 0x0A000001, B = A + 1, C = A + 2;
    for (uint32_t ip : {A, B, C, A, B + 9}) {
        uint32_t pair[2] = {3, ip}, op = 1;
        EXPECT_EQ(dhcpSnoopServerIpSetApi(pair, 1, &op), ip == B + 9 ? INVAL : 0) << ip;
    }
    uint32_t first[2] = {3, A}, del = 6;
    EXPECT_EQ(dhcpSnoopServerIpSetApi(first, 1, &del), 0);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(first, 1, nullptr), NOENT);
    uint32_t bad[2] = {3, B}, op = 2;
    EXPECT_EQ(dhcpSnoopServerIpSetApi(bad, 1, &op), INVAL);
    EXPECT_EQ(dhcpSnoopServerIpSetApi(bad, 2, &op), NOENT);
    EXPECT_EQ(dhcpSnoopServerIpSetApi(nullptr, 1, &op), DHCPSNOOP_E_NULL_KEY);
    uint32_t p[2] = {}, next[2] = {};
    ASSERT_EQ(dhcpSnoopServerIpGetFirst(p), 0);
    EXPECT_EQ(dhcpSnoopServerIpGetNext(p, next), 0);
    EXPECT_EQ(std::tuple(p[1], next[1], dhcpSnoopServerIpGetNext(next, p)), std::tuple(B, C, -1));
}
