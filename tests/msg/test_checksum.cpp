/* Checksums: the Internet sum, the UDP pseudo-header sum and the update of
 * lengths and both checksums after an edit, checked against the test
 * helpers' own computation. */
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "dhcpsnoop_msg.h"
#include "frame_helpers.h"
#include "switch_model.h"

namespace {

struct SumCase {
    std::vector<uint8_t> bytes;
    uint16_t expected;
};

class ChecksumTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim_model().reset();
        pf = std::make_unique<ParsedFrame>();
    }
    /* A REQUEST with an odd-length option area. */
    void parse(size_t extraOptionBytes = 3)
    {
        Dhcp4Frame f;
        f.msgType(3).opt(12, std::vector<uint8_t>(extraOptionBytes, 'h')).end();
        ASSERT_EQ(parse_frame(*pf, f.build(), nullptr), 0);
    }
    uint8_t *frame() { return pf->rx.data; }
    std::unique_ptr<ParsedFrame> pf;
};

} // namespace

TEST(Checksum, InternetSumFoldsCarriesAndTakesAnOddByteAsHighByte)
{
    const SumCase cases[] = {
        {{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, 0x220d}, /* RFC 1071 example */
        {{0x01}, 0xFEFF},
        {{0xAB, 0xCD, 0x12}, uint16_t(~(0xABCD + 0x1200) & 0xFFFF)},
        {{0xFF, 0xFF, 0xFF, 0xFF}, 0x0000},
        {{}, 0xFFFF},
    };
    for (const auto &c : cases)
        EXPECT_EQ(checkdhcpsnoopsum(c.bytes.data(), int32_t(c.bytes.size())), c.expected);
}

TEST_F(ChecksumTest, UdpChecksumOfAScratchCopyMatchesTheBuiltFrame)
{
    parse();
    uint8_t *udp = pf->info.udpHdr;
    uint16_t onWire = uint16_t(udp[6] << 8 | udp[7]);
    std::vector<uint8_t> copy(udp, udp + pf->info.udpLen);
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(pf->info.ipHdr, copy.data()), onWire);
    EXPECT_EQ(copy[6], 0);
    EXPECT_EQ(copy[7], 0);
}

TEST_F(ChecksumTest, UdpLengthAbove2036GivesZeroWithoutTouchingTheField)
{
    std::vector<uint8_t> udp(8, 0xEE);
    for (uint32_t len : {2037u, 0xFFFFu}) {
        udp[4] = uint8_t(len >> 8);
        udp[5] = uint8_t(len);
        EXPECT_EQ(dhcpsnoop_get_udp_checksum(std::vector<uint8_t>(20, 1).data(), udp.data()), 0);
        EXPECT_EQ(udp[6], 0xEE);
    }
}

TEST_F(ChecksumTest, UpdateWithoutDeltaOnlyRecomputesFromTheRecord)
{
    parse();
    DhcpsnoopPktInfo before = pf->info;
    pf->info.dhcpMsg[4] ^= 0x5A; /* an equal-length rewrite, as the server path does */
    frame()[14 + 10] = 0xDE;     /* stale IP checksum */
    uint16_t sum = dhcpsnoop_update_checksum(&pf->info, 0, 0);
    EXPECT_EQ(pf->info.frameLen, before.frameLen);
    EXPECT_EQ(pf->info.udpLen, before.udpLen);
    EXPECT_EQ(sum, uint16_t(pf->info.udpHdr[6] << 8 | pf->info.udpHdr[7]));
    EXPECT_TRUE(ipv4_checksum_ok(frame(), 14));
    EXPECT_TRUE(udp4_checksum_ok(frame(), 14));
}

TEST_F(ChecksumTest, GrowAndShrinkMoveAllFourLengthsAndBothFields)
{
    for (uint32_t grow : {1u, 0u}) {
        parse(9);
        DhcpsnoopPktInfo before = pf->info;
        uint32_t delta = 5;
        uint8_t *end = pf->info.optEnd;
        if (grow == 1) {
            uint8_t add[] = {66, 3, 'a', 'b', 'c', 255};
            memcpy(end, add, sizeof add);
        } else {
            /* option 12 shrinks from 9 to 4 bytes of data */
            uint8_t *opt12 = end - 11;
            opt12[1] = 4;
            opt12[6] = 255;
        }
        dhcpsnoop_update_checksum(&pf->info, delta, grow);
        int32_t d = grow == 1 ? int32_t(delta) : -int32_t(delta);
        EXPECT_EQ(int32_t(pf->info.frameLen - before.frameLen), d);
        EXPECT_EQ(int32_t(pf->info.ipBodyLen - before.ipBodyLen), d);
        EXPECT_EQ(int32_t(pf->info.udpLen - before.udpLen), d);
        EXPECT_EQ(int32_t(pf->info.dhcpLen - before.dhcpLen), d);
        EXPECT_EQ(dhcp4_ip_total(frame(), 14), pf->info.ipHdrLen + pf->info.ipBodyLen);
        EXPECT_EQ(dhcp4_udp_len(frame(), 14), pf->info.udpLen);
        EXPECT_TRUE(ipv4_checksum_ok(frame(), 14)) << "grow " << grow;
        EXPECT_TRUE(udp4_checksum_ok(frame(), 14)) << "grow " << grow;
        EXPECT_EQ(dhcp4_options(frame(), pf->info.frameLen, 14).back().code, 255);
    }
}

TEST_F(ChecksumTest, AComputedZeroIsStoredAsZero)
{
    parse();
    /* Put the complement of the datagram's sum into the secs field, so that
     * the sum over the datagram becomes 0xFFFF and its checksum 0. */
    uint16_t c = dhcpsnoop_update_checksum(&pf->info, 0, 0);
    ASSERT_NE(c, 0);
    pf->info.dhcpMsg[8] = uint8_t(c >> 8);
    pf->info.dhcpMsg[9] = uint8_t(c);
    EXPECT_EQ(dhcpsnoop_update_checksum(&pf->info, 0, 0), 0);
    EXPECT_EQ(pf->info.udpHdr[6], 0);
    EXPECT_EQ(pf->info.udpHdr[7], 0);
}

TEST_F(ChecksumTest, ClaimedUdpLengthBeyondTheBufferIsBoundedAndLongOnesGetZero)
{
    parse();
    /* Lengths as a wrapped frame may claim them: the copy stops at the end
     * of the buffer (the sanitizer build would catch a read past it). */
    for (uint32_t udpLen : {2036u, 2037u, 4000u}) {
        pf->info.udpLen = udpLen;
        uint16_t sum = dhcpsnoop_update_checksum(&pf->info, 0, 0);
        EXPECT_EQ(dhcp4_udp_len(frame(), 14), udpLen & 0xFFFF);
        if (udpLen > 2036)
            EXPECT_EQ(sum, 0) << udpLen;
        else
            EXPECT_NE(sum, 0);
    }
}
