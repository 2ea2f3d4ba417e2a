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

uint16_t checkdhcpsnoopsum(const uint8_t *buf, int32_t len)
{
    uint32_t sum = 0;
    int32_t i = 0;
    for (; len - i >= 2; i += 2)
        sum += get16(buf + i);
    if (len - i == 1)
        sum += uint32_t(buf[i]) << 8;
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum += sum >> 16;
    return uint16_t(~sum & 0xFFFF);
}

/*
 * The UDP checksum over the IPv4 pseudo-header.  The caller's UDP buffer must
 * hold at least max(8, L) bytes, L being its own UDP length field: the
 * datagram is read that far and its checksum field is cleared.  A datagram
 * too long for the 2048-byte working area gets 0 (no checksum).
 */
uint16_t dhcpsnoop_get_udp_checksum(const uint8_t *ipHeader, uint8_t *udpHeader)
{
    uint32_t udpLen = get16(udpHeader + 4);
    if (udpLen + PSEUDO_HDR_LEN > DHCPSNOOP_FRAME_MAX)
        return 0;

    uint8_t scratch[DHCPSNOOP_FRAME_MAX];
    memset(scratch, 0, sizeof scratch);
    memcpy(scratch, ipHeader + 12, 4);
    memcpy(scratch + 4, ipHeader + 16, 4);
    scratch[8] = 0;
    scratch[9] = IPPROTO_UDP_NUM;
    put16(scratch + 10, udpLen);

    udpHeader[6] = 0;
    udpHeader[7] = 0;
    memcpy(scratch + PSEUDO_HDR_LEN, udpHeader, udpLen);
    /* A sum of zero is stored as zero, so such a datagram reads on the wire
     * as one sent without a checksum. */
    return checkdhcpsnoopsum(scratch, int32_t(udpLen + PSEUDO_HDR_LEN));
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

    /* IPv4 header checksum, computed on a copy whose own field is zero. */
    uint8_t ipCopy[IP_HDR_MAX];
    memset(ipCopy, 0, sizeof ipCopy);
    uint32_t ipLen = info->ipHdrLen;
    if (ipLen > IP_HDR_MAX)
        ipLen = IP_HDR_MAX;
    if (ipLen > room_after(info, info->ipHdr))
        ipLen = room_after(info, info->ipHdr);
    memcpy(ipCopy, info->ipHdr, ipLen);
    ipCopy[10] = 0;
    ipCopy[11] = 0;
    uint16_t ipSum = checkdhcpsnoopsum(ipCopy, int32_t((ipCopy[0] & 0x0F) * 4));
    put16(info->ipHdr + 10, ipSum);

    /* UDP checksum over a zeroed copy of the datagram, so the frame keeps its
     * old checksum until the new one is stored.  The copy never reads past
     * the frame buffer; bytes a claimed length would take from beyond it
     * count as zero. */
    uint8_t udpCopy[DHCPSNOOP_FRAME_MAX];
    memset(udpCopy, 0, sizeof udpCopy);
    uint32_t udpLen = info->udpLen;
    if (udpLen > room_after(info, info->udpHdr))
        udpLen = room_after(info, info->udpHdr);
    memcpy(udpCopy, info->udpHdr, udpLen);
    uint16_t udpSum = dhcpsnoop_get_udp_checksum(ipCopy, udpCopy);
    put16(info->udpHdr + 6, udpSum);
    return udpSum;
}
