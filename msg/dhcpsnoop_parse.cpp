/*
 * DHCPv4 frame parser.
 *
 * Turns one captured frame into a DhcpsnoopPktInfo: pointers into the frame
 * for every header that later stages rewrite, the lengths that the checksum
 * code keeps consistent, and the few options that snooping acts on.  The
 * frame is validated layer by layer and refused at the first fault; option
 * faults are only reported.
 *
 * Reads never leave the DHCPSNOOP_FRAME_MAX bytes of the frame buffer.  The
 * lengths a frame claims are trusted only as far as that buffer goes: a walk
 * stops where the next code or length byte would lie beyond it, and a value
 * that would straddle its end reads the missing bytes as zero.  Every
 * recorded option pointer has its code and length byte inside the buffer.
 */
#include <cstring>

#include "dhcpsnoop_msg.h"

namespace {

constexpr uint32_t BOOTP_FIXED_LEN = 236;
constexpr uint32_t DHCP_OPTIONS_AT = BOOTP_FIXED_LEN + 4; /* after the magic cookie */
constexpr uint32_t UDP_HDR_LEN = 8;
constexpr uint32_t IP_HDR_MIN = 20;
constexpr uint8_t IPPROTO_UDP_NUM = 17;


/* Byte access by offset from the start of the frame buffer; offsets at or
 * beyond its end read as zero. */
struct FrameView {
    const uint8_t *base;

    uint8_t u8(size_t at) const { return at < DHCPSNOOP_FRAME_MAX ? base[at] : 0; }
    uint32_t u16(size_t at) const { return uint32_t(u8(at)) << 8 | u8(at + 1); }
    uint32_t u32(size_t at) const { return u16(at) << 16 | u16(at + 2); }
    bool has(size_t at, size_t n) const { return at + n <= DHCPSNOOP_FRAME_MAX; }
};

bool is_dhcp_port(uint32_t port) { return port == 67 || port == 68; }

/* Record one option of the main walk.  `at` is its code byte, `len` its
 * length byte. */
void take_option(DhcpsnoopPktInfo *info, const FrameView &fv, size_t at, uint32_t len,
                 uint8_t candidate[4], bool &haveCandidate)
{
    uint8_t *frame = info->frame;
    size_t data = at + 2;
    switch (frame[at]) {
    case OPT_ROUTER:
        /* A zero length passes the test and still takes the four bytes
         * that follow. */
        if (len % 4 == 0)
            info->router = fv.u32(data);
        else
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Option length must always be a multiple of 4.\r\n");
        break;
    case OPT_REQUESTED_IP:
        if (len == 4) {
            if (fv.u32(data) != 0) {
                for (int i = 0; i < 4; i++)
                    candidate[i] = fv.u8(data + i);
                haveCandidate = true;
            }
        } else {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Option length must be 4 octets.\r\n");
        }
        break;
    case OPT_LEASE_TIME:
        if (len == 4)
            info->leaseTime = fv.u32(data);
        else
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Option length must be 4 octets.\r\n");
        break;
    case OPT_MSG_TYPE:
        if (len == 1)
            info->msgType = fv.u8(data);
        else
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Option length must be 1 octets.\r\n");
        break;
    case OPT_SERVER_ID:
        if (len == 4)
            info->serverId = fv.u32(data);
        else
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Option length must be 4 octets.\r\n");
        break;
    case OPT_VENDOR_CLASS:
        if (len != 0)
            info->opt60 = frame + at;
        else
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] option60 length must be larger than 1 octets.\r\n");
        break;
    case OPT_BOOT_FILE:
        info->opt67 = frame + at;
        break;
    case OPT_RELAY_AGENT:
        info->opt82 = frame + at;
        break;
    case OPT_VIVSO:
        info->opt125 = frame + at;
        break;
    default:
        break;
    }
}

/*
 * The option area: `n` bytes from `start`.  A count of consumed bytes decides
 * where the walk ends; an option is recorded only when at least one byte of
 * the area follows it.
 */
void walk_options(DhcpsnoopPktInfo *info, const FrameView &fv, size_t start, uint32_t n,
                  uint8_t candidate[4], bool &haveCandidate)
{
    if (n == 0 || start >= DHCPSNOOP_FRAME_MAX)
        return;
    if (fv.u8(start) == OPT_END) {
        info->optEnd = info->frame + start;
        return;
    }
    if (n < 2)
        return;

    size_t at = start;
    uint32_t consumed = 1;
    do {
        uint8_t code = fv.u8(at);
        if (code == OPT_PAD) {
            at += 1;
        } else {
            if (!fv.has(at, 2))
                return;
            uint32_t len = fv.u8(at + 1);
            consumed += 1 + len;
            if (consumed >= n)
                return;
            take_option(info, fv, at, len, candidate, haveCandidate);
            at += len + 2;
        }
        if (consumed >= n || at >= DHCPSNOOP_FRAME_MAX)
            return;
        consumed += 1;
        if (fv.u8(at) == OPT_END) {
            info->optEnd = info->frame + at;
            return;
        }
    } while (consumed < n);
}

/* Sub-options of option 82.  Items are walked by the option's length alone:
 * an item may run past the end of the option, but not past the buffer. */
void walk_relay_agent(DhcpsnoopPktInfo *info, const FrameView &fv)
{
    size_t opt = size_t(info->opt82 - info->frame);
    uint32_t total = fv.u8(opt + 1);
    for (uint32_t off = 0; off < total;) {
        size_t at = opt + 2 + off;
        if (!fv.has(at, 2))
            return;
        switch (fv.u8(at)) {
        case SUBOPT_CIRCUIT_ID:
            info->circuitId = info->frame + at;
            break;
        case SUBOPT_REMOTE_ID:
            info->remoteId = info->frame + at;
            break;
        case SUBOPT_VENDOR:
            info->subopt9 = info->frame + at;
            break;
        default:
            break;
        }
        off += fv.u8(at + 1) + 2;
    }
}

/* Option 60's inner items: the first one with code 1 ends the walk, and
 * gives its value when it is four bytes long. */
void walk_vendor_class(DhcpsnoopPktInfo *info, const FrameView &fv)
{
    size_t opt = size_t(info->opt60 - info->frame);
    uint32_t total = fv.u8(opt + 1);
    for (uint32_t off = 0; off < total;) {
        size_t at = opt + 2 + off;
        if (!fv.has(at, 2))
            return;
        uint32_t len = fv.u8(at + 1);
        if (fv.u8(at) == 1) {
            if (len == 4)
                info->opt60Sub1 = fv.u32(at + 2);
            return;
        }
        off += len + 2;
    }
}

void len_check_failed(uint32_t l2, uint32_t ipHdr, uint32_t needed, uint32_t received)
{
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Len checking failed, ethernet header %d, ip header %d, total %d, "
                      "received %d!\r\n",
                      int(l2), int(ipHdr), int(needed), int(received));
}

} // namespace

int dhcpsnoop_packet_parse(DhcpsnoopRxPkt *rxpkt, DhcpsnoopPktInfo *info, uint32_t fullParse)
{
    memset(info, 0, sizeof *info);

    if (rxpkt->etherType != DHCPSNOOP_ETH_IPV6 && rxpkt->etherType != DHCPSNOOP_ETH_IP) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] This is not a IPv4 or IPv6 packet, stop process!\r\n");
        return -1;
    }
    info->ethType = rxpkt->etherType;
    info->ifp = rxpkt->inIf;
    info->ifIndex = rxpkt->ifIndex;

    /* A single tag is the customer VLAN; 4096 stands for "no service VLAN". */
    if (rxpkt->innerVid == 0)
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] svlan %d, cvlan %d.\r\n", 4096, int(rxpkt->outerVid));
    else
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] svlan %d, cvlan %d.\r\n", int(rxpkt->outerVid),
                          int(rxpkt->innerVid));
    info->svlan = rxpkt->outerVid;
    info->cvlan = rxpkt->innerVid;

    uint8_t *frame = rxpkt->data;
    const FrameView fv{frame};
    uint32_t captured = rxpkt->len;
    uint32_t l2 = rxpkt->l2HdrLen;
    info->frame = frame;
    info->frameLen = captured;
    info->rxLen = captured;
    info->dstMac = frame;
    info->srcMac = frame + 6;
    info->ethHdr = frame;
    info->l2HdrLen = l2;

    /* The receive path vouches for the layer-2 length; the buffer still
     * bounds it. */
    if (l2 >= DHCPSNOOP_FRAME_MAX) {
        len_check_failed(l2, 0, l2, captured);
        return -1;
    }
    uint8_t *ip = frame + l2;
    info->ipHdr = ip;

    /* The IP byte decides the family, whatever the EtherType said. */
    uint32_t version = ip[0] >> 4;
    if (version == 6)
        return dhcp6snoop_packet_parse(info, fullParse);
    if (version != 4) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] This is not a IPv4 packet!\r\n");
        return -1;
    }

    info->ipHdrLen = uint32_t(ip[0] & 0x0F) * 4;
    if (info->ipHdrLen < IP_HDR_MIN) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] IPv4 header len must be larger than 20!\r\n");
        return -1;
    }
    /* The IP and UDP headers are read before the lengths are compared with
     * the captured length, so they must at least lie inside the buffer. */
    if (!fv.has(l2, info->ipHdrLen + UDP_HDR_LEN)) {
        len_check_failed(l2, info->ipHdrLen, l2 + info->ipHdrLen + UDP_HDR_LEN, captured);
        return -1;
    }

    info->ipTotLen = ip + 2;
    uint32_t totLen = fv.u16(l2 + 2);
    if (totLen < info->ipHdrLen) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Total len of ip must be larger than header len!\r\n");
        return -1;
    }

    info->srcIp = fv.u32(l2 + 12);
    info->ipBodyLen = (totLen - info->ipHdrLen) & 0xFFFF;
    /* 16-bit arithmetic, as the header fields are: a total length near 64K
     * wraps the sum round to a small number. */
    uint32_t needed = (info->ipBodyLen + info->ipHdrLen + l2) & 0xFFFF;
    if (captured < needed || needed > DHCPSNOOP_FRAME_MAX) {
        len_check_failed(l2, info->ipHdrLen, needed, captured);
        return -1;
    }
    info->frameLen = needed; /* trailing Ethernet padding is dropped */

    if (ip[9] != IPPROTO_UDP_NUM) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] This is not a udp packet!\r\n");
        return -1;
    }

    size_t udp = l2 + info->ipHdrLen;
    info->udpHdr = frame + udp;
    uint32_t sport = fv.u16(udp);
    uint32_t dport = fv.u16(udp + 2);
    if (!is_dhcp_port(sport) && !is_dhcp_port(dport)) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] This is not a dhcp packet!\r\n");
        return -1;
    }
    if (fullParse != 1)
        return 0;

    info->udpLenField = frame + udp + 4;
    info->udpLen = fv.u16(udp + 4);
    if (info->udpLen > info->ipBodyLen) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Udp len %d must not exceed ip body len %d!\r\n",
                          int(info->udpLen), int(info->ipBodyLen));
        return -1;
    }

    size_t dhcp = udp + UDP_HDR_LEN;
    info->dhcpMsg = frame + dhcp;
    /* A UDP length below 8 leaves no message at all: too short as well. */
    if (info->udpLen < UDP_HDR_LEN + DHCP_OPTIONS_AT) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Message (len %d) is too short, stop process!\r\n",
                          int(info->udpLen));
        return -1;
    }
    info->dhcpLen = info->udpLen - UDP_HDR_LEN;
    /* Only a wrapped total length can claim a message that the buffer does
     * not hold; the fixed part must be there for anyone to read it. */
    if (!fv.has(dhcp, DHCP_OPTIONS_AT)) {
        len_check_failed(l2, info->ipHdrLen, uint32_t(dhcp + DHCP_OPTIONS_AT), captured);
        return -1;
    }

    info->chaddr = frame + dhcp + 28;
    uint8_t candidate[4] = {0, 0, 0, 0};
    bool haveCandidate = false;
    if (fv.u32(dhcp + 12) != 0) {
        memcpy(candidate, frame + dhcp + 12, 4);
        haveCandidate = true;
    }
    if (fv.u32(dhcp + 16) != 0) {
        memcpy(candidate, frame + dhcp + 16, 4);
        haveCandidate = true;
    }
    info->giaddr = fv.u32(dhcp + 24);

    /* The magic cookie is not checked. */
    walk_options(info, fv, dhcp + DHCP_OPTIONS_AT, info->udpLen - UDP_HDR_LEN - DHCP_OPTIONS_AT,
                 candidate, haveCandidate);

    if (info->opt82)
        walk_relay_agent(info, fv);
    if (info->opt60)
        walk_vendor_class(info, fv);
    if (haveCandidate)
        memcpy(info->clientIp, candidate, 4);
    return 0;
}
