/* Per-interface settings. */
#include <string>

#include "daemon_fixture.h"
#include "dhcpsnoop_nm.h"

namespace {

class IfSetTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(8, 8);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        e = enablePort(7);
        model().ifSyncs.clear();
    }
    int32_t set(uint32_t cmd, uint32_t v) { return dhcpSnoopIfSetApi(7, cmd, &v); }
    int32_t setText(uint32_t cmd, const std::string &s)
    {
        QorTextPair t{const_cast<char *>(s.data()), uint32_t(s.size())};
        return dhcpSnoopIfSetApi(7, cmd, &t);
    }
    uint32_t get(uint32_t cmd)
    {
        uint32_t v = 0xDEAD;
        EXPECT_EQ(dhcpSnoopIfGetApi(7, cmd, &v), 0) << cmd;
        return v;
    }
    /* The text answer with `room` bytes, or the error code as text. */
    std::string getText(uint32_t cmd, uint32_t room)
    {
        char buf[300] = {};
        QorTextPair t{buf, room};
        int32_t rc = dhcpSnoopIfGetApi(7, cmd, &t);
        return rc ? "rc " + std::to_string(rc) : std::string(buf, t.len);
    }
    DhcpsnoopIf *e = nullptr;
};

} // namespace

TEST_F(IfSetTest, OnlyEnablingServesAnInterfaceWithoutEntry)
{
    uint32_t v = 1;
    EXPECT_EQ(dhcpSnoopIfSetApi(9, 3, &v), DHCPSNOOP_E_NO_ENTRY);
    EXPECT_EQ(dhcpSnoopIfGetApi(9, 1, &v), DHCPSNOOP_E_NO_ENTRY);
    /* not a port of the switch: no entry, no drop rule */
    const size_t traps = model().trapCalls.size();
    EXPECT_EQ(dhcpSnoopIfSetApi(9, 1, &v), DHCPSNOOP_E_NO_ENTRY);
    EXPECT_EQ(model().trapCalls.size(), traps);
    EXPECT_TRUE(model().ifSyncs.empty());
    model().addPort(9, "swp9");
    EXPECT_EQ(dhcpSnoopIfSetApi(9, 1, &v), 0);
    EXPECT_EQ(model().ifSyncs.back().code, 0x402C001u);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SET);
    uint32_t first = 0, next = 0;
    EXPECT_EQ(dhcpSnoopIfGetFirst(&first), 0);
    EXPECT_EQ(dhcpSnoopIfGetNext(first, &next), 0);
    EXPECT_EQ(first, 7u);
    EXPECT_EQ(next, 9u);
    EXPECT_EQ(dhcpSnoopIfGetNext(9, &next), -1);
    v = 0;
    EXPECT_EQ(dhcpSnoopIfSyncApi(9, 1, &v), 0);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SYNC);
    EXPECT_EQ(dhcpsnoop_if_lookup(9), nullptr);
}

TEST_F(IfSetTest, RefusedChangesLeaveTheEntryAsItWas)
{
    ASSERT_EQ(set(4, 1), 0);
    ASSERT_EQ(set(11, 1), 0);
    model().failOn("qorHwIfSync", 0x402C005, 1, 1);
    EXPECT_EQ(setText(5, "\x01\x01" "a"), DHCPSNOOP_E_HW);
    EXPECT_EQ(e->circuitIdLen, 0);
    const struct {
        uint32_t cmd, value;
    } cases[] = {{2, 3}, {3, 1}, {8, 1}, {9, 1},  {10, 9}, {11, 0}, {13, 1},
                 {16, 1}, {17, 1}, {18, 5}, {20, 1}, {21, 9}, {30, 5}, {4, 0}};
    for (const auto &c : cases) {
        const DhcpsnoopIf before = *e;
        model().failOn("qorHwIfSync", 0x402C000 + c.cmd, 1, 1);
        EXPECT_EQ(set(c.cmd, c.value), DHCPSNOOP_E_HW) << c.cmd;
        EXPECT_EQ(memcmp(&before, e, sizeof before), 0) << c.cmd;
        EXPECT_EQ(set(c.cmd, c.value), 0) << c.cmd;
        EXPECT_EQ(get(c.cmd), c.value) << c.cmd;
    }
}

TEST_F(IfSetTest, UnchangedValuesMakeNoPlatformCall)
{
    for (uint32_t cmd : {2u, 3u, 4u, 11u, 13u}) {
        const uint32_t v = get(cmd);
        EXPECT_EQ(set(cmd, v), 0);
    }
    EXPECT_TRUE(model().ifSyncs.empty());
    for (uint32_t cmd : {0u, 15u, 19u, 22u, 27u, 29u, 35u})
        EXPECT_EQ(set(cmd, 1), DHCPSNOOP_E_INVALID) << cmd;
    for (uint32_t cmd : {0u, 15u, 28u, 29u, 35u})
        EXPECT_EQ(dhcpSnoopIfGetApi(7, cmd, nullptr), DHCPSNOOP_E_INVALID) << cmd;
    EXPECT_EQ(dhcpSnoopIfGetApi(7, 25, nullptr), 0);
}

TEST_F(IfSetTest, PreconditionsAndTheirMessages)
{
    const std::string off82 = "the option82 is disabled!\n\r";
    const struct {
        uint32_t cmd;
        std::string message;
    } cases[] = {{5, off82},  {6, off82},  {7, off82}, {8, off82},
                 {9, off82},  {30, off82}, {31, off82}, {12, off82},
                 {14, "the option37 is disabled!\n\r"}, {33, "the option37 is disabled!\n\r"},
                 {32, "the option18 is disabled!\n\r"}};
    for (const auto &c : cases) {
        model().debugText.clear();
        const int32_t rc = c.cmd == 5 || c.cmd == 6 || c.cmd == 7 || c.cmd == 12 || c.cmd == 14
                               ? setText(c.cmd, "x")
                               : set(c.cmd, 1);
        EXPECT_EQ(rc, DHCPSNOOP_E_INVALID) << c.cmd;
        EXPECT_NE(model().debugText.find(c.message), std::string::npos) << c.cmd;
    }
    ASSERT_EQ(set(4, 1), 0);
    EXPECT_EQ(setText(7, "x"), DHCPSNOOP_E_INVALID);
    EXPECT_NE(model().debugText.find("the option82 sub-option9 is disabled!\n\r"),
              std::string::npos);
    EXPECT_EQ(model().ifSyncs.size(), 1u);
}

TEST_F(IfSetTest, OptionSwitchesResetTheirTexts)
{
    ASSERT_EQ(set(4, 1), 0);
    ASSERT_EQ(set(9, 1), 0);
    ASSERT_EQ(setText(5, std::string("\x01\x02" "ab", 4)), 0);
    ASSERT_EQ(setText(7, "nine"), 0);
    ASSERT_EQ(set(8, 1), 0);
    ASSERT_EQ(set(4, 0), 0);
    EXPECT_EQ(e->circuitIdLen + e->subopt9Len, 0);
    EXPECT_EQ(get(9), 0u);
    ASSERT_EQ(set(4, 1), 0);
    EXPECT_EQ(get(8), 2u);
    EXPECT_EQ(get(30), 3u);
    EXPECT_EQ(get(31), 3u);
    EXPECT_EQ(getText(5, 10).size(), 2u); /* typed again, and empty */
    EXPECT_EQ(e->circuitIdLen, 0);

    ASSERT_EQ(set(13, 1), 0);
    ASSERT_EQ(setText(14, std::string("\x05\x01z", 3)), 0);
    EXPECT_EQ(e->remoteId6Type, 5);
    ASSERT_EQ(set(13, 0), 0);
    EXPECT_EQ(e->remoteId6Type + e->remoteId6Len + e->remoteId6Fmt, 0);
}

TEST_F(IfSetTest, TypedAndPlainTexts)
{
    ASSERT_EQ(set(4, 1), 0);
    /* typed (mode 3): type byte, length byte, text */
    EXPECT_EQ(setText(5, "\x01\x04" "abc"), DHCPSNOOP_E_LENGTH);
    EXPECT_NE(model().debugText.find("option len 4, total len 5!"), std::string::npos);
    EXPECT_EQ(setText(5, "\x01"), DHCPSNOOP_E_LENGTH);
    EXPECT_NE(model().debugText.find("wrong length for circuit-id!\r\n"), std::string::npos);
    EXPECT_EQ(setText(5, "\x01\x02" "abXYZ"), 0);
    EXPECT_EQ(model().ifSyncs.back().mode, DHCPSNOOP_MODE_SET | DHCPSNOOP_MODE_TEXT);
    EXPECT_EQ(getText(5, 4), "\x01\x02" "ab");
    EXPECT_EQ(getText(5, 3), "rc " + std::to_string(DHCPSNOOP_E_LENGTH));

    /* a format change clears the text; a mode of 7 or more is refused after
     * the platform was told */
    EXPECT_EQ(set(30, 9), 22);
    EXPECT_EQ(model().ifSyncs.back().code, 0x402C01Eu);
    EXPECT_EQ(e->circuitIdLen, 2);
    EXPECT_EQ(set(30, 5), 0);
    EXPECT_EQ(getText(5, 0), "");

    /* plain: capped at 128 bytes */
    EXPECT_EQ(setText(5, std::string(200, 'c')), 0);
    EXPECT_EQ(getText(5, 300), std::string(128, 'c'));
    EXPECT_EQ(getText(5, 127), "rc " + std::to_string(DHCPSNOOP_E_LENGTH));
}

TEST_F(IfSetTest, TypedRemoteIdRoomIsMeasuredByTheCircuitId)
{
    ASSERT_EQ(set(4, 1), 0);
    ASSERT_EQ(setText(5, "\x01\x06" "circid"), 0);
    ASSERT_EQ(setText(6, "\x02\x02" "ri"), 0);
    /* room for the remote-id but not the circuit-id */
    EXPECT_EQ(getText(6, 4), "rc " + std::to_string(DHCPSNOOP_E_LENGTH));
    EXPECT_EQ(getText(6, 8), "\x02\x02" "ri");
    /* room for the circuit-id but not the remote-id: still refused */
    ASSERT_EQ(setText(6, "\x02\x0A" "0123456789"), 0);
    EXPECT_EQ(getText(6, 9), "rc " + std::to_string(DHCPSNOOP_E_LENGTH));
}

TEST_F(IfSetTest, CountersAndPlainValues)
{
    e->counters[0] = 11;
    e->counters[1] = 22;
    e->counters[2] = 33;
    EXPECT_EQ(get(24), 11u);
    EXPECT_EQ(get(22), 22u);
    EXPECT_EQ(get(23), 33u);
    e->relayAddr = 1;
    EXPECT_EQ(set(28, 0), 0);
    EXPECT_EQ(get(22) + get(23) + get(24), 0u);
    EXPECT_EQ(e->relayAddr, 1u);
    EXPECT_EQ(set(34, 0x0A000001), 0);
    EXPECT_EQ(get(34), 0x0A000001u);
    EXPECT_TRUE(model().ifSyncs.empty());
    EXPECT_EQ(get(1), 1u);
    EXPECT_EQ(get(19), 0u);
}
