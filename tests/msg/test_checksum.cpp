/* Checksums: the Internet sum, and the in-place sums of both families checked
 * against a plain reference over contiguous copies. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "dhcp6snoop.h"
#include "dhcpsnoop_msg.h"
#include "frame_helpers.h"

TEST(Checksum, InternetSumAndTheSumOfAnUdpCopy)
{
    const std::pair<std::vector<uint8_t>, uint16_t> cases[] = {
        {{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, 0x220d}, /* RFC 1071 example */
        {{0xAB, 0xCD, 0x12}, uint16_t(~(0xABCD + 0x1200) & 0xFFFF)},
        {{}, 0xFFFF},
    };
    for (const auto &[bytes, expected] : cases)
        EXPECT_EQ(checkdhcpsnoopsum(bytes.data(), int32_t(bytes.size())), expected);

    /* a copy's field is cleared; a datagram too long for a frame gets zero */
    std::vector<uint8_t> frame = Dhcp4Frame().msgType(3).opt(12, {'h'}).end().build();
    frame.resize(DHCPSNOOP_FRAME_MAX);
    std::vector<uint8_t> udp(frame.begin() + 34, frame.end());
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(frame.data() + 14, udp.data()), frame[40] << 8 | frame[41]);
    EXPECT_EQ(udp[6] | udp[7], 0);
    udp[4] = 2037 >> 8, udp[5] = 2037 & 0xFF, udp[6] = 0xEE;
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(frame.data() + 14, udp.data()), 0);
    EXPECT_EQ(udp[6], 0xEE) << "the field is left alone";
}

/* Both checksums of random frames, with random header offsets, IHLs, lengths
 * (odd, short, past the buffer) and stale fields, agree byte for byte with a
 * plain reference that sums zero-padded contiguous copies. */
TEST(Checksum, InPlaceSumsMatchAReferenceOverCopiesOnRandomFrames)
{
    auto ref = [](std::vector<uint8_t> pseudo, const uint8_t *p, size_t have, size_t len, bool clearField) {
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
        info.udpLen = info.ipBodyLen = round % 5 == 0 ? 1900 + rand() % 300 : rand() % 1500;
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
        /* a datagram shorter than its length field sums as length 0 */
        std::vector<uint8_t> copy(udp, udp + std::min<size_t>(info.udpLen, room));
        copy.resize(std::max<size_t>(copy.size(), 8));
        uint32_t len = uint32_t(copy[4] << 8 | copy[5]);
        std::vector<uint8_t> pseudo(ip + 12, ip + 20);
        pseudo.insert(pseudo.end(), {0, 17, copy[4], copy[5]});
        uint16_t udpSum = len + 12 > DHCPSNOOP_FRAME_MAX ? 0 : ref(pseudo, copy.data(), copy.size(), len, true);
        udp[6] = uint8_t(udpSum >> 8), udp[7] = uint8_t(udpSum);
        ASSERT_EQ(got, udpSum) << round;
        ASSERT_EQ(buf, after) << round;

        /* DHCPv6: the 36-byte pseudo-header of addresses, next header, length */
        info.udpLen = rand() % 2100;
        std::vector<uint8_t> p6(info.ipHdr + 8, info.ipHdr + 40);
        p6.insert(p6.end(), {0, 17, uint8_t(info.udpLen >> 8), uint8_t(info.udpLen)});
        uint16_t want6 = info.udpLen + 36 > DHCPSNOOP_FRAME_MAX ? 0 : ref(p6, info.udpHdr, room, info.udpLen, false);
        ASSERT_EQ(dhcp6snoop_get_udp_checksum(&info), want6) << round;
    }
}
