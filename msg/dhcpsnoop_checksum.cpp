/*
 * Checksums of edited DHCPv4 frames.
 *
 * Every edit of the option area changes the DHCP message's length; afterwards
 * the IPv4 total length, the UDP length and both checksums are made true again
 * here before the frame leaves.  Multi-byte fields are written byte by byte in
 * network order so that nothing depends on host byte order or alignment.
 */
#include <cstring>

#include "dhcpsnoop_msg.h"

namespace {

constexpr uint32_t PSEUDO_HDR_LEN = 12;
constexpr uint32_t IP_HDR_MAX = 60; /* IHL is four bits of 32-bit words */
constexpr uint8_t IPPROTO_UDP_NUM = 17;

inline void put16(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

inline uint32_t get16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }

/* How many bytes of the frame buffer lie at and after `p` (0 when `p` is not
 * inside it). */
uint32_t room_after(const DhcpsnoopPktInfo *info, const uint8_t *p)
{
    if (!info->frame || !p || p < info->frame || p >= info->frame + DHCPSNOOP_FRAME_MAX)
        return 0;
    return uint32_t(info->frame + DHCPSNOOP_FRAME_MAX - p);
}

} // namespace

/* The plain integer sum of the big-endian 16-bit words of `buf`, a last odd
 * byte counting as a high byte.  Kept unfolded so that a sum taken in pieces
 * over bytes where they lie folds to exactly what one pass over a contiguous
 * copy would give; 2048 bytes of words stay far below 2^32. */
uint32_t dhcpsnoop_sum16(const uint8_t *buf, uint32_t len)
{
    uint32_t sum = 0;
    uint32_t i = 0;
    for (; i + 8 <= len; i += 8)
        sum += get16(buf + i) + get16(buf + i + 2) + get16(buf + i + 4) + get16(buf + i + 6);
    for (; i + 2 <= len; i += 2)
        sum += get16(buf + i);
    if (i < len)
        sum += uint32_t(buf[i]) << 8;
    return sum;
}

uint16_t dhcpsnoop_sum_fold(uint32_t sum)
{
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum += sum >> 16;
    return uint16_t(~sum & 0xFFFF);
}

uint16_t checkdhcpsnoopsum(const uint8_t *buf, int32_t len)
{
    return dhcpsnoop_sum_fold(len > 0 ? dhcpsnoop_sum16(buf, uint32_t(len)) : 0);
}

namespace {

/* The datagram's own words over its first `len` bytes, its checksum field
 * (bytes 6 and 7) counting as zero. */
uint32_t udp_words(const uint8_t *udp, uint32_t len)
{
    if (len <= 6)
        return dhcpsnoop_sum16(udp, len);
    return dhcpsnoop_sum16(udp, 6) + (len > 8 ? dhcpsnoop_sum16(udp + 8, len - 8) : 0);
}

/* The IPv4 pseudo-header: both addresses, the protocol and the UDP length. */
uint32_t pseudo_words(const uint8_t *src, const uint8_t *dst, uint32_t udpLen)
{
    return get16(src) + get16(src + 2) + get16(dst) + get16(dst + 2) + IPPROTO_UDP_NUM + udpLen;
}

} // namespace

/*
 * The UDP checksum over the IPv4 pseudo-header.  The caller's UDP buffer must
 * hold at least max(8, L) bytes, L being its own UDP length field: the
 * datagram is read that far, where it lies, and its checksum field is
 * cleared.  A datagram too long for a 2048-byte frame gets 0 (no checksum).
 */
uint16_t dhcpsnoop_get_udp_checksum(const uint8_t *ipHeader, uint8_t *udpHeader)
{
    uint32_t udpLen = get16(udpHeader + 4);
    if (udpLen + PSEUDO_HDR_LEN > DHCPSNOOP_FRAME_MAX)
        return 0;
    udpHeader[6] = 0;
    udpHeader[7] = 0;
    /* A sum of zero is stored as zero, so such a datagram reads on the wire
     * as one sent without a checksum. */
    return dhcpsnoop_sum_fold(pseudo_words(ipHeader + 12, ipHeader + 16, udpLen) +
                              dhcpsnoop_sum16(udpHeader, udpLen));
}

uint16_t dhcpsnoop_update_checksum(DhcpsnoopPktInfo *info, uint32_t delta, uint32_t grow)
{
    if (delta != 0) {
        if (grow == 1) {
            info->frameLen += delta;
            info->ipBodyLen += delta;
            info->udpLen += delta;
            info->dhcpLen += delta;
        } else {
            info->frameLen -= delta;
            info->ipBodyLen -= delta;
            info->udpLen -= delta;
            info->dhcpLen -= delta;
        }
    }

    /* The parser leaves every header inside the frame buffer; a record that
     * says otherwise is not touched. */
    if (room_after(info, info->ipTotLen) < 2 || room_after(info, info->udpLenField) < 2 ||
        room_after(info, info->udpHdr) < 8 || room_after(info, info->ipHdr) < 20)
        return 0;

    put16(info->ipTotLen, info->ipHdrLen + info->ipBodyLen);
    put16(info->udpLenField, info->udpLen);

    /* IPv4 header checksum over the header where it lies, its own field
     * counting as zero.  The header is read no further than the record's
     * header length, 60 bytes and the frame buffer allow; what its IHL claims
     * beyond that counts as zero. */
    uint8_t *ip = info->ipHdr;
    uint32_t ipLen = info->ipHdrLen;
    if (ipLen > IP_HDR_MAX)
        ipLen = IP_HDR_MAX;
    if (ipLen > room_after(info, ip))
        ipLen = room_after(info, ip);
    uint32_t ihlLen = ipLen ? (ip[0] & 0x0Fu) * 4 : 0;
    uint32_t n = ihlLen < ipLen ? ihlLen : ipLen;
    uint32_t ipWords = dhcpsnoop_sum16(ip, n);
    if (n > 10)
        ipWords -= uint32_t(ip[10]) << 8;
    if (n > 11)
        ipWords -= ip[11];
    put16(ip + 10, dhcpsnoop_sum_fold(ipWords));

    /* UDP checksum over the datagram where it lies (the frame keeps its old
     * checksum until the new one is stored).  Nothing is read past the frame
     * buffer; bytes a claimed length would take from beyond it count as zero,
     * and so do address bytes beyond the header length read above. */
    uint8_t addr[8];
    for (uint32_t i = 0; i < 8; i++)
        addr[i] = 12 + i < ipLen ? ip[12 + i] : 0;
    uint8_t *udp = info->udpHdr;
    uint32_t have = info->udpLen;
    if (have > room_after(info, udp))
        have = room_after(info, udp);
    uint32_t udpLen = (have > 4 ? uint32_t(udp[4]) << 8 : 0) | (have > 5 ? udp[5] : 0);
    uint16_t udpSum = 0;
    if (udpLen + PSEUDO_HDR_LEN <= DHCPSNOOP_FRAME_MAX)
        udpSum = dhcpsnoop_sum_fold(pseudo_words(addr, addr + 4, udpLen) +
                                    udp_words(udp, udpLen < have ? udpLen : have));
    put16(udp + 6, udpSum);
    return udpSum;
}
