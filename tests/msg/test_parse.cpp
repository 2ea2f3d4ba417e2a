/* DHCPv4 frame parser: every rejection, the record of a good frame, the
 * option walk and its odd cases, and the bounds of the frame buffer. */
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

#include "dhcpsnoop_msg.h"
#include "frame_helpers.h"
#include "switch_model.h"

namespace {

class ParseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim_model().reset();
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        pf = std::make_unique<ParsedFrame>();
    }
    void TearDown() override { gDhcpsnoop.debugFlags = 0; }

    int parse(const Dhcp4Frame &f) { return parse_frame(*pf, f.build(), nullptr, 10, 0, f.l2Len()); }
    /* Parse a frame whose option area is `opts` as given. */
    int parse_options(std::vector<uint8_t> opts)
    {
        Dhcp4Frame f;
        f.options = std::move(opts);
        return parse(f);
    }
    const DhcpsnoopPktInfo &info() const { return pf->info; }
    size_t at(const uint8_t *p) const { return size_t(p - pf->rx.data); }
    std::string debug() const { return sim_model().debugText; }

    std::unique_ptr<ParsedFrame> pf;
};

void put16(std::vector<uint8_t> &f, size_t at, uint32_t v)
{
    f[at] = uint8_t(v >> 8);
    f[at + 1] = uint8_t(v);
}

void put16(DhcpsnoopRxPkt &rx, size_t at, uint32_t v)
{
    rx.data[at] = uint8_t(v >> 8);
    rx.data[at + 1] = uint8_t(v);
}

struct Rejection {
    const char *name;
    std::function<void(DhcpsnoopRxPkt &)> spoil;
    const char *message;
};

} // namespace

TEST_F(ParseTest, EachFaultIsRejectedWithItsMessage)
{
    /* IP header at 14, UDP at 34, DHCP at 42; 294 bytes in all */
    const Rejection cases[] = {
        {"arp", [](auto &rx) { rx.etherType = 0x0806; },
         "This is not a IPv4 or IPv6 packet, stop process!"},
        {"ip version 5", [](auto &rx) { rx.data[14] = 0x55; }, "This is not a IPv4 packet!"},
        {"ihl 4", [](auto &rx) { rx.data[14] = 0x44; }, "IPv4 header len must be larger than 20!"},
        {"total below header", [](auto &rx) { put16(rx, 16, 19); },
         "Total len of ip must be larger than header len!"},
        {"truncated", [](auto &rx) { rx.len--; },
         "Len checking failed, ethernet header 14, ip header 20, total 294, received 293!"},
        {"tcp", [](auto &rx) { rx.data[23] = 6; }, "This is not a udp packet!"},
        {"ports",
         [](auto &rx) {
             put16(rx, 34, 1234);
             put16(rx, 36, 80);
         },
         "This is not a dhcp packet!"},
        {"udp over ip body", [](auto &rx) { put16(rx, 38, 261); },
         "Udp len 261 must not exceed ip body len 260!"},
        {"239-byte message", [](auto &rx) { put16(rx, 38, 247); },
         "Message (len 247) is too short, stop process!"},
        {"udp len below 8", [](auto &rx) { put16(rx, 38, 4); },
         "Message (len 4) is too short, stop process!"},
        {"l2 at buffer end", [](auto &rx) { rx.l2HdrLen = 2048; }, "Len checking failed"},
        {"l2 far out", [](auto &rx) { rx.l2HdrLen = 0xFFFF; }, "Len checking failed"},
        {"headers across the end",
         [](auto &rx) {
             rx.l2HdrLen = 2030;
             rx.data[2030] = 0x45;
         },
         "Len checking failed"},
    };
    Dhcp4Frame f;
    f.options = {53, 1, 1, 255, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<uint8_t> bytes = f.build();
    ASSERT_EQ(bytes.size(), 294u);
    for (const auto &c : cases) {
        sim_model().debugText.clear();
        fill_rxpkt(pf->rx, bytes, nullptr, 3, 10, 0, 14);
        ASSERT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), 0);
        c.spoil(pf->rx);
        EXPECT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), -1) << c.name;
        EXPECT_NE(debug().find(c.message), std::string::npos) << c.name << ": " << debug();
    }
}

TEST_F(ParseTest, RecordOfADoubleTaggedFramePointsIntoIt)
{
    Dhcp4Frame f;
    f.vlans = {100, 200};
    f.srcIp = 0x0A000002;
    f.giaddr = 0x0A000001;
    f.pad = 20;
    f.msgType(1).end();
    std::vector<uint8_t> bytes = f.build();
    DhcpsnoopIf ifp{};
    fill_rxpkt(pf->rx, bytes, &ifp, 7, 100, 200, 22);
    ASSERT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), 0);
    EXPECT_EQ(info().ifp, &ifp);
    EXPECT_EQ(info().ifIndex, 7u);
    EXPECT_EQ(info().svlan, 100);
    EXPECT_EQ(info().cvlan, 200);
    EXPECT_NE(debug().find("svlan 100, cvlan 200."), std::string::npos);
    EXPECT_EQ(info().rxLen, bytes.size());
    EXPECT_EQ(info().frameLen, bytes.size() - 20); /* padding dropped */
    EXPECT_EQ(at(info().srcMac), 6u);
    EXPECT_EQ(at(info().ipHdr), 22u);
    EXPECT_EQ(at(info().ipTotLen), 24u);
    EXPECT_EQ(at(info().udpHdr), 42u);
    EXPECT_EQ(at(info().udpLenField), 46u);
    EXPECT_EQ(at(info().dhcpMsg), 50u);
    EXPECT_EQ(at(info().chaddr), 78u);
    EXPECT_EQ(info().ipBodyLen, info().udpLen);
    EXPECT_EQ(info().dhcpLen, info().udpLen - 8);
    EXPECT_EQ(info().srcIp, 0x0A000002u);
    EXPECT_EQ(info().giaddr, 0x0A000001u);
    EXPECT_EQ(info().rxTime, 0u);
    EXPECT_EQ(info().msgType, 1u);
}

TEST_F(ParseTest, SingleTagIsReportedAsCustomerVlanAndLongerIpHeaderIsAccepted)
{
    Dhcp4Frame f;
    f.ihl = 6;
    f.end();
    ASSERT_EQ(parse(f), 0);
    EXPECT_NE(debug().find("svlan 4096, cvlan 10."), std::string::npos);
    EXPECT_EQ(info().svlan, 10);
    EXPECT_EQ(info().cvlan, 0);
    EXPECT_EQ(info().ipHdrLen, 24u);
    EXPECT_EQ(at(info().dhcpMsg), 14u + 24 + 8);
}

TEST_F(ParseTest, EitherDhcpPortSufficesAndAHeaderOnlyParseStopsAtUdp)
{
    const std::pair<uint16_t, uint16_t> ports[] = {{1234, 67}, {67, 1234}, {68, 9}, {9, 68}};
    for (auto [s, d] : ports) {
        Dhcp4Frame f;
        f.sport = s;
        f.dport = d;
        EXPECT_EQ(parse(f), 0) << s << "->" << d;
    }
    /* a message far too short still passes when only headers are asked for */
    Dhcp4Frame f;
    std::vector<uint8_t> bytes = f.build();
    put16(bytes, 38, 20);
    fill_rxpkt(pf->rx, bytes, nullptr, 1, 10, 0, 14);
    EXPECT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 0), 0);
    EXPECT_NE(info().udpHdr, nullptr);
    EXPECT_EQ(info().udpLenField, nullptr);
    EXPECT_EQ(info().dhcpMsg, nullptr);
}

TEST_F(ParseTest, IpVersionSixBehindIpv4EtherTypeGoesToTheIpv6Parser)
{
    Dhcp4Frame f;
    std::vector<uint8_t> bytes = f.build();
    bytes[14] = 0x60;
    fill_rxpkt(pf->rx, bytes, nullptr, 1, 10, 0, 14);
    dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1);
    EXPECT_EQ(debug().find("not a IPv4"), std::string::npos);
    EXPECT_EQ(info().ipHdrLen, 0u);
}

TEST_F(ParseTest, MinimalMessageHasNoOptions)
{
    ASSERT_EQ(parse_options({}), 0);
    EXPECT_EQ(info().dhcpLen, 240u);
    EXPECT_EQ(info().msgType, 0u);
    EXPECT_EQ(info().optEnd, nullptr);
    EXPECT_EQ(info().opt82, nullptr);
    EXPECT_EQ(info().opt60, nullptr);
}

TEST_F(ParseTest, OptionIsRecordedOnlyWhenTheAreaGoesOnBehindIt)
{
    ASSERT_EQ(parse_options({53, 1, 5, 255}), 0);
    EXPECT_EQ(info().msgType, 5u);
    EXPECT_EQ(at(info().optEnd), 282u + 3);

    ASSERT_EQ(parse_options({53, 1, 5}), 0);
    EXPECT_EQ(info().msgType, 0u);
    EXPECT_EQ(info().optEnd, nullptr);

    ASSERT_EQ(parse_options({0, 0, 53, 1, 2, 53, 1, 7, 0}), 0);
    EXPECT_EQ(info().msgType, 7u) << "the last occurrence wins";
}

TEST_F(ParseTest, LengthFaultsAreReportedAndSkipped)
{
    ASSERT_EQ(parse_options({54, 5, 10, 0, 0, 1, 9, 53, 2, 5, 5, 3, 3, 1, 1, 1, 60, 0, 255}), 0);
    EXPECT_EQ(info().serverId, 0u);
    EXPECT_EQ(info().msgType, 0u);
    EXPECT_EQ(info().router, 0u);
    EXPECT_EQ(info().opt60, nullptr);
    EXPECT_NE(info().optEnd, nullptr);
    for (const char *m : {"Option length must be 4 octets.", "Option length must be 1 octets.",
                          "Option length must always be a multiple of 4.",
                          "option60 length must be larger than 1 octets."})
        EXPECT_NE(debug().find(m), std::string::npos) << m;
}

TEST_F(ParseTest, ValuesOfTheOptionsSnoopingActsOn)
{
    /* option 3 of length 0 takes the four bytes that follow it */
    ASSERT_EQ(parse_options({3, 0, 54, 4, 10, 0, 0, 1, 51, 4, 0, 0, 0x0E, 0x10, 3, 8, 1, 2, 3, 4,
                             5, 6, 7, 8, 67, 1, 'f', 125, 1, 0, 60, 9, 2, 1, 9, 1, 4, 0xC0, 0xA8,
                             0, 1, 82, 2, 7, 0, 255}),
              0);
    EXPECT_EQ(info().serverId, 0x0A000001u);
    EXPECT_EQ(info().leaseTime, 3600u);
    EXPECT_EQ(info().router, 0x01020304u);
    EXPECT_EQ(at(info().opt67), 282u + 24);
    EXPECT_EQ(at(info().opt125), 282u + 27);
    EXPECT_EQ(at(info().opt60), 282u + 30);
    EXPECT_EQ(info().opt60Sub1, 0xC0A80001u) << "the inner walk skips code 2";
    EXPECT_EQ(at(info().opt82), 282u + 41);

    ASSERT_EQ(parse_options({3, 0, 54, 4, 10, 0, 0, 1, 255}), 0);
    EXPECT_EQ(info().router, 0x36040A00u);

    ASSERT_EQ(parse_options({60, 6, 1, 3, 1, 2, 3, 0, 255}), 0);
    EXPECT_NE(info().opt60, nullptr);
    EXPECT_EQ(info().opt60Sub1, 0u) << "a code-1 item of length 3 ends the inner walk";
}

TEST_F(ParseTest, ClientAddressPrefersOption50ThenYiaddrThenCiaddr)
{
    struct Case {
        uint32_t ciaddr, yiaddr;
        std::vector<uint8_t> opt50;
        uint32_t expected;
    } cases[] = {
        {0x0A000001, 0, {}, 0x0A000001},
        {0x0A000001, 0x0A000002, {}, 0x0A000002},
        {0, 0x0A000002, {0, 0, 0, 0}, 0x0A000002},
        {0, 0x0A000002, {10, 1, 1, 5}, 0x0A010105},
        {0, 0, {}, 0},
    };
    for (const auto &c : cases) {
        Dhcp4Frame f;
        f.ciaddr = c.ciaddr;
        f.yiaddr = c.yiaddr;
        if (!c.opt50.empty())
            f.opt(50, c.opt50);
        f.end();
        ASSERT_EQ(parse(f), 0);
        EXPECT_EQ(std::vector<uint8_t>(info().clientIp, info().clientIp + 4), ipv4(c.expected));
    }
}

TEST_F(ParseTest, RelayAgentSubOptionsAreWalkedByTheOptionLengthAlone)
{
    /* the third item starts inside option 82 but its length byte is the
     * next option's code: it is still taken */
    ASSERT_EQ(parse_options({82, 9, 1, 1, 'c', 7, 0, 2, 1, 'r', 9, 53, 1, 5, 255}), 0);
    size_t opt82 = at(info().opt82);
    EXPECT_EQ(at(info().circuitId), opt82 + 2);
    EXPECT_EQ(at(info().remoteId), opt82 + 7);
    EXPECT_EQ(at(info().subopt9), opt82 + 10);
    EXPECT_EQ(info().msgType, 5u);
}

TEST_F(ParseTest, RouterOfLengthZeroAtTheBufferEndReadsZerosBeyondIt)
{
    /* a 2048-byte frame whose last three bytes are 3, 0, 0xAB */
    std::vector<uint8_t> opts(2048 - 282, 0);
    opts[0] = 53, opts[1] = 1, opts[2] = 1;
    opts[opts.size() - 3] = 3;
    opts[opts.size() - 1] = 0xAB;
    ASSERT_EQ(parse_options(opts), 0);
    EXPECT_EQ(info().frameLen, 2048u);
    EXPECT_EQ(info().router, 0xAB000000u);
}

TEST_F(ParseTest, WrappedTotalLengthIsAcceptedAndTheWalkStopsAtTheBuffer)
{
    /* 65530 + 14 wraps to 8: accepted with a frame length of 8, while the
     * UDP length claims far more than the buffer holds */
    Dhcp4Frame f;
    f.options.assign(2048 - 282, 0);
    f.options[0] = 53, f.options[1] = 1, f.options[2] = 3;
    f.options.back() = 82;
    std::vector<uint8_t> bytes = f.build();
    put16(bytes, 16, 65530);
    put16(bytes, 38, 4000);
    fill_rxpkt(pf->rx, bytes, nullptr, 1, 10, 0, 14);
    ASSERT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), 0);
    EXPECT_EQ(info().frameLen, 8u);
    EXPECT_EQ(info().udpLen, 4000u);
    EXPECT_EQ(info().msgType, 3u);
    EXPECT_EQ(info().opt82, nullptr) << "its length byte would lie beyond the buffer";

    /* the same with the DHCP message itself beyond the buffer is refused */
    sim_model().debugText.clear();
    fill_rxpkt(pf->rx, bytes, nullptr, 1, 10, 0, 1900);
    memcpy(pf->rx.data + 1900, bytes.data() + 14, 20);
    pf->rx.data[1900 + 20 + 1] = 67; /* source port */
    pf->rx.data[1900 + 20 + 4] = 1;  /* UDP length 256 */
    EXPECT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), -1);
    EXPECT_NE(debug().find("Len checking failed"), std::string::npos);
}
