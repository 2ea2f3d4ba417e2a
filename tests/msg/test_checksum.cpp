/* Checksums: the Internet sum, the UDP pseudo-header sum and the update of
 * lengths and both checksums after an edit, checked against the test
 * helpers' own computation. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "dhcp6snoop.h"
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

/* Both checksums of random frames, with random header offsets, IHLs, lengths
 * (odd, short, past the buffer) and stale fields, agree byte for byte with a
 * plain reference that sums zero-padded contiguous copies. */
TEST(Checksum, InPlaceSumsMatchAReferenceOverCopiesOnRandomFrames)
{
    auto ref = [](std::vector<uint8_t> pseudo, const uint8_t *p, size_t have, size_t len,
                  bool clearField) {
        size_t at = pseudo.size();
        pseudo.resize(at + len);
        memcpy(pseudo.data() + at, p, std::min(have, len));
        if (clearField && len >= 8)
            pseudo[at + 6] = pseudo[at + 7] = 0;
        return checkdhcpsnoopsum(pseudo.data(), int32_t(pseudo.size()));
    };
    srand(12);
    for (int round = 0; round < 400; round++) {
        std::vector<uint8_t> buf(DHCPSNOOP_FRAME_MAX);
        for (auto &b : buf)
            b = uint8_t(rand());
        DhcpsnoopPktInfo info{};
        info.frame = buf.data();
        info.ipHdr = buf.data() + 14 + rand() % 9;
        info.ipHdrLen = 20 + 4 * (rand() % 11);
        info.ipHdr[0] = uint8_t(0x40 | (info.ipHdrLen / 4));
        info.ipTotLen = info.ipHdr + 2;
        info.udpHdr = info.ipHdr + info.ipHdrLen;
        info.udpLenField = info.udpHdr + 4;
        info.udpLen = round % 5 == 0 ? 1900 + rand() % 300 : rand() % 1500;
        info.ipBodyLen = info.udpLen;
        std::vector<uint8_t> after = buf;
        uint16_t got = dhcpsnoop_update_checksum(&info, 0, 0);
        /* the reference: lengths first, then sums over the copies */
        size_t room = size_t(buf.data() + buf.size() - info.udpHdr);
        uint8_t *ip = after.data() + (info.ipHdr - buf.data()), *udp = ip + info.ipHdrLen;
        uint32_t total = info.ipHdrLen + info.ipBodyLen;
        ip[2] = uint8_t(total >> 8), ip[3] = uint8_t(total);
        udp[4] = uint8_t(info.udpLen >> 8), udp[5] = uint8_t(info.udpLen);
        ip[10] = ip[11] = 0;
        uint16_t ipSum = ref({}, ip, info.ipHdrLen, info.ipHdrLen, false);
        ip[10] = uint8_t(ipSum >> 8), ip[11] = uint8_t(ipSum);
        /* the length is read back from the copy, so a datagram shorter than
         * its length field sums as length 0 */
        std::vector<uint8_t> copy(udp, udp + std::min<size_t>(info.udpLen, room));
        copy.resize(std::max<size_t>(copy.size(), 8));
        uint32_t len = uint32_t(copy[4] << 8 | copy[5]);
        std::vector<uint8_t> pseudo(ip + 12, ip + 20);
        pseudo.insert(pseudo.end(), {0, 17, copy[4], copy[5]});
        uint16_t udpSum = len + 12 > DHCPSNOOP_FRAME_MAX
                              ? 0
                              : ref(pseudo, copy.data(), copy.size(), len, true);
        udp[6] = uint8_t(udpSum >> 8), udp[7] = uint8_t(udpSum);
        ASSERT_EQ(got, udpSum) << round;
        ASSERT_EQ(buf, after) << round;

        /* DHCPv6: the 36-byte pseudo-header of addresses, next header, length */
        info.udpLen = rand() % 2100;
        std::vector<uint8_t> p6(info.ipHdr + 8, info.ipHdr + 40);
        p6.insert(p6.end(), {0, 17, uint8_t(info.udpLen >> 8), uint8_t(info.udpLen)});
        uint16_t want6 = info.udpLen + 36 > DHCPSNOOP_FRAME_MAX
                             ? 0
                             : ref(p6, info.udpHdr, room, info.udpLen, false);
        ASSERT_EQ(dhcp6snoop_get_udp_checksum(&info), want6) << round;
    }
}
