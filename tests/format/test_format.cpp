/* Option text templates: every conversion, literal runs, the 255-byte and
 * room limits, and the two template checks. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "dhcpsnoop_msg.h"
#include "switch_model.h"

namespace {

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim_model().reset();
        SimPort &rx = sim_model().addPort(7, "ge-0/0/7");
        rx.number = 77;
        rx.location = {1, 0xFFFFFFFF, 0x80000000, 4, 5, 6, 7}; /* numbers are signed words */
        sim_model().addPort(5, "vlan5").number = 55;
        sim_model().scalarTexts[66] = "site-a";
        sim_model().scalarTexts[74] = "rack-9";
        memset(&ifp, 0, sizeof ifp);
        memset(&info, 0, sizeof info);
        ifp.ifIndex = 5;
        memcpy(ifp.mac, "\x00\x11\x22\x33\x44\x55", 6);
        info.ifp = &ifp;
        info.ifIndex = 7;
        info.svlan = 10;
        info.cvlan = 20;
    }
    std::string expand(const std::string &tmpl, uint32_t room = 255)
    {
        memset(out, 0xEE, sizeof out);
        uint32_t n = dhcpsnoop_format_print(&info, reinterpret_cast<const uint8_t *>(tmpl.data()),
                                            uint32_t(tmpl.size()), out, room);
        EXPECT_LE(n, 255u);
        EXPECT_EQ(out[n], 0xEE) << "nothing is written after the count returned";
        return std::string(reinterpret_cast<char *>(out), n);
    }
    static std::string mac() { return std::string("\x00\x11\x22\x33\x44\x55", 6); }

    DhcpsnoopIf ifp;
    DhcpsnoopPktInfo info;
    uint8_t out[300];
};

} // namespace

TEST_F(FormatTest, EachConversionAndLiterals)
{
    const std::pair<std::string, std::string> cases[] = {
        {"%D", "site-a"}, {"%e", "rack-9"}, {"%N", "ge-0/0/7"}, {"%i", "55"}, {"%y", "77"},
        {"%S", "-1"},     {"%r", "-2147483648"}, {"%s", "10"},  {"%c", "20"}, {"%l", "0"},
        {"%d", mac()},    {"%Q", "0"},      {"%z", "0"},        {"%A", "0"},
        {"%s.%c.%d:%N", "10.20." + mac() + ":ge-0/0/7"},
        {"%", "%"},
        {"100%", "100%"},
        {"%%s", "%10"}, /* an empty literal run, then a conversion */
        {"a%1-b%s", "a%1-b10"},
        {std::string("%1\0%s", 4), std::string("%1\0%s", 4)}, /* a NUL ends the search for the next '%' */
        {std::string("ab\0cd", 5), "ab"},
        {"", ""},
    };
    for (const auto &[tmpl, expected] : cases)
        EXPECT_EQ(expand(tmpl), expected) << tmpl;
    /* the template's length cuts it: a '%' cut from its letter is a literal */
    const uint8_t cut[] = "%s.%c";
    EXPECT_EQ(dhcpsnoop_format_print(&info, cut, 3, out, 255), 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 3), "10.");
    EXPECT_EQ(dhcpsnoop_format_print(&info, cut, 1, out, 255), 1u);
    EXPECT_EQ(out[0], '%');
}

TEST_F(FormatTest, UnansweredPlatformCallsLeaveZeroedValues)
{
    sim_model().scalarTexts.clear();
    EXPECT_EQ(expand("%D"), std::string(128, '\0'));
    sim_model().failOn("qorIndexTrans", 6, -1, 3);
    EXPECT_EQ(expand("%l%S%r"), "000");
    EXPECT_EQ(sim_model().failRules[0].remaining, 0) << "every letter translates the port";
    info.ifIndex = 99;
    EXPECT_EQ(expand("%y"), "0");
}

TEST_F(FormatTest, CapacityIsCheckedWholeForConversionsAndAgainstTheCapForRuns)
{
    EXPECT_EQ(expand("%d", 3), "") << "six bytes do not fit in three";
    EXPECT_EQ(expand("%d", 6), mac());
    EXPECT_EQ(expand("abc%d", 8), "abc");
    EXPECT_EQ(expand("abcdef", 4), "abcd");
    EXPECT_EQ(expand(std::string(249, 'x') + "%d").size(), 255u);
    EXPECT_EQ(expand(std::string(250, 'x') + "%d").size(), 250u);
    EXPECT_EQ(expand(std::string(200, 'x') + "%-" + std::string(53, 'y')).size(), 255u);
    EXPECT_EQ(expand(std::string(200, 'x') + "%-" + std::string(54, 'y')).size(), 200u);
    /* a literal run is measured against the cap, not the room */
    EXPECT_EQ(expand("ab%-cdefgh", 5), "ab%-cdefgh");
    sim_model().ports[7].name = std::string(200, 'n');
    EXPECT_EQ(expand("%N").size(), 128u);
    EXPECT_EQ(expand("%N%N").size(), 128u) << "a conversion that does not fit ends the text";
}

TEST_F(FormatTest, TemplateCheck)
{
    const std::pair<std::string, int> cases[] = {
        {"", 0},       {"abc", 0},      {"%s", -1}, {std::string("%s\0", 3), 0}, {"%sx", -1},
        {"%s.%c", -1}, {"%1", -1},      {"%s-", -1}, {std::string("%s.%c\0", 6), 0}, {std::string("%1\0", 3), 0},
        {std::string("\0%s", 3), 0},    {"%\xC1.\0", 0},
        {"%s %c/%d:%N;%i[%y]{%S}<%r>(%l)", 0},
        {"%s %c/%d:%N;%i[%y]{%S}<%r>(%l", -1},
        {std::string("%s %c/%d:%N;%i[%y]{%S}<%r>(%l\0", 31), 0},
    };
    for (const auto &[tmpl, expected] : cases)
        EXPECT_EQ(dhcpsnoop_format_check(reinterpret_cast<const uint8_t *>(tmpl.data()),
                                         uint32_t(tmpl.size())),
                  expected)
            << tmpl;
}

TEST(DelimiterCheck, AcceptsTheDelimitersAndNulOnly)
{
    for (int c = 0; c < 256; c++) {
        bool delim = c == 0 || std::string(" ./:;[]{}<>()").find(char(c)) != std::string::npos;
        EXPECT_EQ(dhcpsnoop_delimiter_check(c), delim ? 0 : -1) << c;
    }
    EXPECT_EQ(dhcpsnoop_delimiter_check(0x100 + '.'), 0) << "taken as its low eight bits";
}
