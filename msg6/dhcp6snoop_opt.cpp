/*
 * DHCPv6 relay information: the Interface-Id (18) and Remote-Id (37)
 * options added to client messages and stripped from server replies.
 */
#include <string.h>

#include "dhcp6snoop.h"

namespace {

bool template_mode(uint32_t mode) { return mode == 1 || mode == 2 || mode == 5; }

void put_be16(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

void put_be32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

/* The 20-byte default value.  Its second byte says 6 although 8 bytes of
 * circuit data follow; receivers of this switch's options rely on the
 * layout as it is. */
uint32_t default_data(const DhcpsnoopPktInfo *info, uint8_t *out)
{
    const DhcpsnoopIf *ifp = info->ifp;
    uint32_t record[7] = {0};
    uint32_t ifIndex = ifp->ifIndex;
    qorIndexTrans(&ifIndex, 6, record);
    out[0] = 1;
    out[1] = 6;
    out[2] = 0;
    out[3] = 6;
    put_be16(out + 4, info->svlan);
    out[6] = uint8_t(record[0]);
    out[7] = uint8_t(record[1]);
    out[8] = uint8_t(record[6]);
    out[9] = uint8_t(record[2]);
    out[10] = 2;
    out[11] = 8;
    out[12] = 0;
    out[13] = 6;
    memcpy(out + 14, ifp->mac, 6);
    return 20;
}

/* The option's data at `data` (room bytes there): the template, the
 * configured string or the default.  Returns the data length; `rendered`
 * tells a template result of 0 from a value. */
uint32_t option_data(DhcpsnoopPktInfo *info, uint32_t ifMode, const uint8_t *ifText,
                     uint32_t ifLen, const DhcpsnoopOptFmt &global, uint8_t *data, uint32_t room,
                     bool *emptyTemplate)
{
    *emptyTemplate = false;
    uint32_t mode = ifMode ? ifMode : global.mode;
    const uint8_t *tmpl = ifMode ? ifText : global.text;
    uint32_t tmplLen = ifMode ? ifLen : global.len;
    if (template_mode(mode)) {
        /* the renderer may touch 255 bytes whatever the room: give it its
         * own, then keep what fits */
        uint8_t rendered[256];
        memset(rendered, 0, sizeof rendered);
        uint32_t n = dhcpsnoop_format_print(info, tmpl, tmplLen, rendered, room < 255 ? room : 255);
        if (n > room)
            n = room;
        memcpy(data, rendered, n);
        *emptyTemplate = n == 0;
        return n;
    }
    /* the interface's own string, whichever mode was chosen */
    if (ifLen != 0) {
        uint32_t n = ifLen < DHCPSNOOP_TEXT_MAX ? ifLen : DHCPSNOOP_TEXT_MAX;
        if (n > room)
            return 0;
        memcpy(data, ifText, n);
        return n;
    }
    return room >= 20 ? default_data(info, data) : 0;
}

void write_lengths(DhcpsnoopPktInfo *info)
{
    put_be16(info->ipTotLen, info->ipBodyLen);
    put_be16(info->udpLenField, info->udpLen);
    info->udpHdr[6] = 0;
    info->udpHdr[7] = 0;
    put_be16(info->udpHdr + 6, dhcp6snoop_get_udp_checksum(info));
}

} // namespace

uint32_t dhcp6snoop_construct_opt18(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size)
{
    if (!info || !buffer || !info->ifp || size < 4)
        return 0;
    const DhcpsnoopIf *ifp = info->ifp;
    bool empty;
    uint32_t n = option_data(info, ifp->interfaceIdFmt, ifp->interfaceId, ifp->interfaceIdLen,
                             gDhcpsnoop.interfaceIdFmt, buffer + 4, size - 4, &empty);
    if (n == 0)
        return 0;
    if (info->frameLen + 4 + n >= DHCPSNOOP_FRAME_MAX + 1) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Packet len exceeds the max, don't insert option18.\r\n");
        return 0;
    }
    put_be16(buffer, DHCP6_OPT_INTERFACE_ID);
    put_be16(buffer + 2, n);
    return n + 4;
}

uint32_t dhcp6snoop_construct_opt37(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size)
{
    if (!info || !buffer || !info->ifp || size < 8)
        return 0;
    const DhcpsnoopIf *ifp = info->ifp;
    bool empty;
    uint32_t n = option_data(info, ifp->remoteId6Fmt, ifp->remoteId6, ifp->remoteId6Len,
                             gDhcpsnoop.remoteId6Fmt, buffer + 8, size - 8, &empty);
    /* a template that renders to nothing still gives the enterprise number */
    if (n == 0 && !empty)
        return 0;
    if (info->frameLen + 4 + (4 + n) >= DHCPSNOOP_FRAME_MAX + 1) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Packet len exceeds the max, don't insert option37.\r\n");
        return 0;
    }
    put_be16(buffer, DHCP6_OPT_REMOTE_ID);
    put_be16(buffer + 2, 4 + n);
    put_be32(buffer + 4, gDhcpsnoop.enterpriseNum);
    return n + 8;
}

void dhcp6snoop_insert_opt(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t count)
{
    if (!option || info->frameLen + count > DHCPSNOOP_FRAME_MAX)
        return;
    memcpy(info->frame + info->frameLen, option, count);
    info->frameLen += count;
    info->ipBodyLen += count;
    info->udpLen += count;
    write_lengths(info);
}

uint16_t dhcp6snoop_strip_opt(DhcpsnoopPktInfo *info, uint32_t code)
{
    uint8_t *area = info->dhcpMsg + 4;
    int64_t areaLen = int64_t(info->udpLen) - 12;
    uint32_t prefix = uint32_t(area - info->frame);
    if (areaLen > 0 && prefix < DHCPSNOOP_FRAME_MAX) {
        uint8_t work[DHCPSNOOP_FRAME_MAX];
        memset(work, 0, sizeof work);
        memcpy(work, info->frame, prefix);
        uint32_t out = prefix, removed = 0;
        int64_t walked = 0;
        while (walked < areaLen) {
            uint32_t at = prefix + uint32_t(walked);
            if (at + 4 > DHCPSNOOP_FRAME_MAX)
                break;
            uint32_t optLen = dhcp6_be16(info->frame + at + 2) + 4;
            uint32_t avail = DHCPSNOOP_FRAME_MAX - at;
            uint32_t n = optLen < avail ? optLen : avail;
            if (dhcp6_be16(info->frame + at) == code) {
                removed += optLen;
            } else {
                memcpy(work + out, info->frame + at, n);
                out += n;
            }
            walked += optLen;
        }
        memcpy(info->frame, work, out);
        info->frameLen = out;
        info->ipBodyLen -= removed;
        info->udpLen -= removed;
        /* the options behind a removed one have moved */
        dhcp6snoop_index_options(info);
    }
    write_lengths(info);
    return uint16_t(dhcp6_be16(info->udpHdr + 6));
}

void dhcp6snoop_construct_client_opt(DhcpsnoopPktInfo *info)
{
    const DhcpsnoopIf *ifp = info->ifp;
    uint8_t buffer[512];
    if ((ifp->flags & ifflag::OPTION18) && !info->interfaceIdOpt) {
        memset(buffer, 0, sizeof buffer);
        uint32_t len = dhcp6snoop_construct_opt18(info, buffer, sizeof buffer);
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Construct option18, option len %d.\r\n", int(len));
        if (len) {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Insert option18 to packet.\r\n");
            /* the length travels as one byte */
            dhcp6snoop_insert_opt(info, buffer, len & 0xFF);
        }
    }
    if ((ifp->flags & ifflag::OPTION37) && !info->remoteIdOpt) {
        memset(buffer, 0, sizeof buffer);
        uint32_t len = dhcp6snoop_construct_opt37(info, buffer, sizeof buffer);
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Construct option37, option len %d.\r\n", int(len));
        if (len) {
            DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Insert option37 to packet.\r\n");
            dhcp6snoop_insert_opt(info, buffer, len & 0xFF);
        }
    }
}
