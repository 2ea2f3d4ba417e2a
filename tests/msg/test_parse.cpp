/* DHCPv4 frame parser: every rejection, the record of a good frame, the
 * option walk and its odd cases, and the bounds of the frame buffer. */
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <tuple>

#include "dhcpsnoop_msg.h"
#include "frame_helpers.h"
#include "switch_model.h"

namespace {

void put16(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

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
    int parse_bytes(const std::vector<uint8_t> &b, size_t l2 = 14, uint32_t full = 1)
    {
        fill_rxpkt(pf->rx, b, nullptr, 1, 10, 0, uint16_t(l2));
        return dhcpsnoop_packet_parse(&pf->rx, &pf->info, full);
    }
    long at(const uint8_t *p) const { return p ? long(p - pf->rx.data) : -1; }
    /* What the option walk recorded; offsets from the first option byte. */
    std::string options() const
    {
        const DhcpsnoopPktInfo &i = pf->info;
        auto off = [&](const uint8_t *p) { return p ? at(p) - 282 : -1; };
        char s[256];
        snprintf(s, sizeof s, "type %u server %08x lease %u router %08x sub1 %08x; end %ld 82 %ld %ld %ld %ld 67 %ld 125 %ld 60 %ld",
                 i.msgType, i.serverId, i.leaseTime, i.router, i.opt60Sub1, off(i.optEnd), off(i.opt82),
                 off(i.circuitId), off(i.remoteId), off(i.subopt9), off(i.opt67), off(i.opt125), off(i.opt60));
        return s;
    }
    bool said(const std::string &m) const { return sim_model().debugText.find(m) != std::string::npos; }

    std::unique_ptr<ParsedFrame> pf;
};

} // namespace

TEST_F(ParseTest, EachFaultIsRejectedWithItsMessage)
{
    /* IP header at 14, UDP at 34, DHCP at 42; 294 bytes in all */
    const struct {
        const char *name;
        std::function<void(DhcpsnoopRxPkt &)> spoil;
        const char *message;
    } cases[] = {
        {"arp", [](auto &rx) { rx.etherType = 0x0806; }, "This is not a IPv4 or IPv6 packet, stop process!"},
        {"ip version 5", [](auto &rx) { rx.data[14] = 0x55; }, "This is not a IPv4 packet!"},
        {"ihl 4", [](auto &rx) { rx.data[14] = 0x44; }, "IPv4 header len must be larger than 20!"},
        {"total below header", [](auto &rx) { put16(rx.data + 16, 19); },
         "Total len of ip must be larger than header len!"},
        {"truncated", [](auto &rx) { rx.len--; },
         "Len checking failed, ethernet header 14, ip header 20, total 294, received 293!"},
        {"tcp", [](auto &rx) { rx.data[23] = 6; }, "This is not a udp packet!"},
        {"ports", [](auto &rx) { put16(rx.data + 34, 1234), put16(rx.data + 36, 80); }, "This is not a dhcp packet!"},
        {"udp over ip body", [](auto &rx) { put16(rx.data + 38, 261); },
         "Udp len 261 must not exceed ip body len 260!"},
        {"239-byte message", [](auto &rx) { put16(rx.data + 38, 247); },
         "Message (len 247) is too short, stop process!"},
        {"l2 at buffer end", [](auto &rx) { rx.l2HdrLen = 2048; }, "Len checking failed"},
        {"headers across the end", [](auto &rx) { rx.l2HdrLen = 2030, rx.data[2030] = 0x45; }, "Len checking failed"},
    };
    Dhcp4Frame f;
    f.options = {53, 1, 1, 255, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<uint8_t> bytes = f.build();
    ASSERT_EQ(bytes.size(), 294u);
    for (const auto &c : cases) {
        sim_model().debugText.clear();
        ASSERT_EQ(parse_bytes(bytes), 0);
        c.spoil(pf->rx);
        EXPECT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), -1) << c.name;
        EXPECT_TRUE(said(c.message)) << c.name << ": " << sim_model().debugText;
    }
}

TEST_F(ParseTest, RecordOfATaggedFramePointsIntoIt)
{
    Dhcp4Frame f;
    f.vlans = {100, 200};
    f.pad = 20;
    f.msgType(1).end();
    std::vector<uint8_t> bytes = f.build();
    DhcpsnoopIf ifp{};
    fill_rxpkt(pf->rx, bytes, &ifp, 7, 100, 200, 22);
    ASSERT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), 0);
    const DhcpsnoopPktInfo &i = pf->info;
    EXPECT_EQ(std::tuple(i.ifp, i.ifIndex, i.svlan, i.cvlan, i.rxLen, i.frameLen),
              std::tuple(&ifp, 7u, 100, 200, uint32_t(bytes.size()), uint32_t(bytes.size() - 20)));
    EXPECT_EQ((std::vector<long>{at(i.srcMac), at(i.ipHdr), at(i.ipTotLen), at(i.udpHdr), at(i.udpLenField),
                                 at(i.dhcpMsg), at(i.chaddr)}),
              (std::vector<long>{6, 22, 24, 42, 46, 50, 78}));

    /* one tag is the customer VLAN; a longer IP header is accepted; either
     * DHCP port will do */
    Dhcp4Frame g;
    g.ihl = 6;
    ASSERT_EQ(parse(g.end()), 0);
    EXPECT_TRUE(said("svlan 4096, cvlan 10."));
    EXPECT_EQ(std::tuple(i.svlan, i.cvlan, i.ipHdrLen, at(i.dhcpMsg)), std::tuple(10, 0, 24u, 14L + 24 + 8));
    for (auto [sport, dport] : {std::pair{9, 67}, {67, 1234}, {68, 9}, {9, 68}}) {
        g.sport = uint16_t(sport), g.dport = uint16_t(dport);
        EXPECT_EQ(parse(g), 0) << sport << "->" << dport;
    }

    /* a message far too short still passes when only headers are asked for */
    bytes = Dhcp4Frame().build();
    put16(&bytes[38], 20);
    EXPECT_EQ(parse_bytes(bytes, 14, 0), 0);
    EXPECT_EQ(std::tuple(i.udpLenField, i.dhcpMsg), std::tuple(nullptr, nullptr));
}

TEST_F(ParseTest, OptionWalk)
{
    const struct {
        std::vector<uint8_t> opts;
        const char *expected;
    } cases[] = {
        {{}, "type 0 server 00000000 lease 0 router 00000000 sub1 00000000; end -1 82 -1 -1 -1 -1 67 -1 125 -1 60 -1"},
        {{53, 1, 5, 255}, "type 5 server 00000000 lease 0 router 00000000 sub1 00000000; end 3 82 -1 -1 -1 -1 67 -1 125 -1 60 -1"},
        /* an option counts only when the area goes on behind it */
        {{53, 1, 5}, "type 0 server 00000000 lease 0 router 00000000 sub1 00000000; end -1 82 -1 -1 -1 -1 67 -1 125 -1 60 -1"},
        /* the last occurrence wins */
        {{0, 0, 53, 1, 2, 53, 1, 7, 0}, "type 7 server 00000000 lease 0 router 00000000 sub1 00000000; end -1 82 -1 -1 -1 -1 67 -1 125 -1 60 -1"},
        /* wrong lengths are reported and skipped */
        {{54, 5, 10, 0, 0, 1, 9, 53, 2, 5, 5, 3, 3, 1, 1, 1, 60, 0, 255},
         "type 0 server 00000000 lease 0 router 00000000 sub1 00000000; end 18 82 -1 -1 -1 -1 67 -1 125 -1 60 -1"},
        /* option 3 of length 0 takes the four bytes that follow it; the inner walk of
         * option 60 skips code 2 */
        {{3, 0, 54, 4, 10, 0, 0, 1, 51, 4, 0, 0, 0x0E, 0x10, 3, 8, 1, 2, 3, 4, 5, 6, 7, 8, 67, 1, 'f', 125, 1, 0,
          60, 9, 2, 1, 9, 1, 4, 0xC0, 0xA8, 0, 1, 82, 2, 7, 0, 255},
         "type 0 server 0a000001 lease 3600 router 01020304 sub1 c0a80001; end 45 82 41 -1 -1 -1 67 24 125 27 60 30"},
        {{3, 0, 54, 4, 10, 0, 0, 1, 255}, "type 0 server 0a000001 lease 0 router 36040a00 sub1 00000000; end 8 82 -1 -1 -1 -1 67 -1 125 -1 60 -1"},
        /* a code-1 item of length 3 ends the inner walk */
        {{60, 6, 1, 3, 1, 2, 3, 0, 255}, "type 0 server 00000000 lease 0 router 00000000 sub1 00000000; end 8 82 -1 -1 -1 -1 67 -1 125 -1 60 0"},
        /* sub-options are walked by option 82's length alone: the third starts
         * inside it though its length byte is the next option's code */
        {{82, 9, 1, 1, 'c', 7, 0, 2, 1, 'r', 9, 53, 1, 5, 255},
         "type 5 server 00000000 lease 0 router 00000000 sub1 00000000; end 14 82 0 2 7 10 67 -1 125 -1 60 -1"},
    };
    for (const auto &c : cases) {
        Dhcp4Frame f;
        f.options = c.opts;
        ASSERT_EQ(parse(f), 0);
        EXPECT_EQ(options(), c.expected);
    }
    EXPECT_EQ(pf->info.dhcpLen, 240u + 15);
    for (const char *m : {"Option length must be 4 octets.", "Option length must be 1 octets.",
                          "Option length must always be a multiple of 4.",
                          "option60 length must be larger than 1 octets."})
        EXPECT_TRUE(said(m)) << m;
}

TEST_F(ParseTest, ClientAddressPrefersOption50ThenYiaddrThenCiaddr)
{
    const std::tuple<uint32_t, uint32_t, std::vector<uint8_t>, uint32_t> cases[] = {
        {0x0A000001, 0, {}, 0x0A000001},
        {0x0A000001, 0x0A000002, {}, 0x0A000002},
        {0, 0x0A000002, {0, 0, 0, 0}, 0x0A000002},
        {0, 0x0A000002, {10, 1, 1, 5}, 0x0A010105},
    };
    for (const auto &[ciaddr, yiaddr, opt50, expected] : cases) {
        Dhcp4Frame f;
        f.ciaddr = ciaddr;
        f.yiaddr = yiaddr;
        if (!opt50.empty())
            f.opt(50, opt50);
        ASSERT_EQ(parse(f.end()), 0);
        EXPECT_EQ(std::vector<uint8_t>(pf->info.clientIp, pf->info.clientIp + 4), ipv4(expected));
    }
}

TEST_F(ParseTest, WalksStopAtTheBufferEnd)
{
    /* a 2048-byte frame ending in 3, 0, 0xAB: option 3 of length 0 reads zeros beyond it */
    Dhcp4Frame f;
    f.options.assign(2048 - 282, 0);
    f.options[0] = 53, f.options[1] = 1, f.options[2] = 1;
    f.options[f.options.size() - 3] = 3;
    f.options.back() = 0xAB;
    ASSERT_EQ(parse(f), 0);
    EXPECT_EQ(pf->info.frameLen, 2048u);
    EXPECT_EQ(pf->info.router, 0xAB000000u);

    /* 65530 + 14 wraps to 8: accepted with a frame length of 8, while the
     * UDP length claims far more than the buffer holds */
    f.options.assign(2048 - 282, 0);
    f.options[0] = 53, f.options[1] = 1, f.options[2] = 3;
    f.options.back() = 82;
    std::vector<uint8_t> bytes = f.build();
    put16(&bytes[16], 65530);
    put16(&bytes[38], 4000);
    ASSERT_EQ(parse_bytes(bytes), 0);
    EXPECT_EQ(pf->info.frameLen, 8u);
    EXPECT_EQ(pf->info.udpLen, 4000u);
    EXPECT_EQ(pf->info.msgType, 3u);
    EXPECT_EQ(pf->info.opt82, nullptr) << "its length byte would lie beyond the buffer";

    /* the same with the DHCP message itself beyond the buffer is refused */
    sim_model().debugText.clear();
    fill_rxpkt(pf->rx, bytes, nullptr, 1, 10, 0, 1900);
    memcpy(pf->rx.data + 1900, bytes.data() + 14, 20);
    pf->rx.data[1900 + 20 + 1] = 67; /* source port */
    pf->rx.data[1900 + 20 + 4] = 1;  /* UDP length 256 */
    EXPECT_EQ(dhcpsnoop_packet_parse(&pf->rx, &pf->info, 1), -1);
    EXPECT_TRUE(said("Len checking failed"));
}
