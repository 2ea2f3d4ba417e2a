/*
 * Option 82 and boot options: every edit the daemon makes to the option area
 * of a DHCPv4 message.
 *
 * Client frames get the relay agent information option (circuit-id,
 * remote-id, vendor sub-option 9) or, when they already carry one, the
 * interface's policy for it; server replies lose the option this switch added
 * and may gain options 67 and 125.  Every edit works in place on the frame
 * through the parsed record and ends with the length and checksum update.
 *
 * No edit writes outside the DHCPSNOOP_FRAME_MAX bytes of the frame buffer:
 * an edit that would leave it is refused, and the moves are cut at its end.
 */
#include <cstring>

#include "dhcpsnoop_msg.h"

namespace {


/* How a relay-agent value is built. */
enum ValueMode : uint32_t {
    MODE_TYPED = 3,    /* type byte and length byte ahead of the value */
    MODE_RAW = 4,      /* the value alone */
    MODE_TEMPLATE = 5, /* a template expanded for the frame */
};

/* Type byte of a typed value. */
constexpr uint8_t VALUE_GENERATED = 0;
constexpr uint8_t VALUE_CONFIGURED = 1;

/* Inner codes of the vendor blocks. */
constexpr uint8_t VENDOR_HOSTNAME = 1;
constexpr uint8_t VENDOR_BOOT_DATA = 4;

constexpr uint32_t OPT82_BUILD_ROOM = 768;
constexpr uint32_t OPTION_DATA_MAX = 255;
constexpr uint32_t VENDOR_BLOCK_HDR = 7; /* enterprise number, data length, code, length */
constexpr uint32_t SUBOPT9_MAX = 2 + VENDOR_BLOCK_HDR + DHCPSNOOP_TEXT_MAX;
constexpr uint32_t TAIL_SAVE_MAX = 256;
constexpr uint32_t GLOBAL_TEXT_MAX = sizeof(DhcpsnoopOptFmt::text);

constexpr uint32_t INDEX_TRANS_LOCATION = 6;

/* Bytes of the frame buffer at and after `p`; 0 when `p` is not inside it. */
uint32_t room_after(const DhcpsnoopPktInfo *info, const uint8_t *p)
{
    if (!info->frame || !p || p < info->frame || p >= info->frame + DHCPSNOOP_FRAME_MAX)
        return 0;
    return uint32_t(info->frame + DHCPSNOOP_FRAME_MAX - p);
}

/* Offset from the frame start just past the DHCP message's last byte.  Only
 * a frame whose total length wrapped can put it beyond the buffer. */
size_t message_end(const DhcpsnoopPktInfo *info)
{
    return size_t(info->dhcpMsg - info->frame) + info->dhcpLen;
}

void put32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

/* The value source of one relay-agent sub-option: the interface's own mode
 * and text when its mode is set, else the global record's. */
struct ValueSource {
    uint32_t mode;
    const uint8_t *text;
    uint32_t len;
    uint32_t ownLen; /* the interface's own text length decides "no text" */
};

ValueSource pick_source(uint8_t ifMode, const uint8_t *ifText, uint8_t ifLen,
                        const DhcpsnoopOptFmt &global)
{
    uint32_t ownLen = ifLen < DHCPSNOOP_TEXT_MAX ? ifLen : DHCPSNOOP_TEXT_MAX;
    if (ifMode != 0)
        return {ifMode, ifText, ownLen, ownLen};
    uint32_t len = global.len < GLOBAL_TEXT_MAX ? global.len : GLOBAL_TEXT_MAX;
    return {global.mode, global.text, len, ownLen};
}

/*
 * Build one sub-option (code, length, value) into `buffer`.  `generated` is
 * the value used in modes 3 and 4 when the interface has no text of its own.
 * Returns the bytes written, 0 when the value is empty, cannot be carried in
 * one length byte or does not fit in `room`.
 */
uint32_t build_subopt(DhcpsnoopPktInfo *info, uint8_t code, const ValueSource &src,
                      const uint8_t *generated, uint32_t genLen, uint8_t *buffer, uint32_t room)
{
    if (room < 2)
        return 0;
    /* Expansion happens in a 255-byte area of our own, so a template's
     * literal run that passes the room cannot reach past the caller's. */
    uint8_t value[OPTION_DATA_MAX];
    uint32_t n = 0;
    switch (src.mode) {
    case MODE_TYPED:
        if (src.ownLen == 0) {
            value[0] = VALUE_GENERATED;
            value[1] = uint8_t(genLen);
            memcpy(value + 2, generated, genLen);
            n = 2 + genLen;
        } else {
            if (src.len + 2 > OPTION_DATA_MAX)
                return 0;
            value[0] = VALUE_CONFIGURED;
            value[1] = uint8_t(src.len);
            memcpy(value + 2, src.text, src.len);
            n = 2 + src.len;
        }
        break;
    case MODE_RAW:
        if (src.ownLen == 0) {
            memcpy(value, generated, genLen);
            n = genLen;
        } else {
            if (src.len > OPTION_DATA_MAX)
                return 0;
            memcpy(value, src.text, src.len);
            n = src.len;
        }
        break;
    case MODE_TEMPLATE:
        n = dhcpsnoop_format_print(info, src.text, src.len, value, room - 2);
        break;
    default:
        return 0;
    }
    if (n == 0 || n > room - 2)
        return 0;
    buffer[0] = code;
    buffer[1] = uint8_t(n);
    memcpy(buffer + 2, value, n);
    return n + 2;
}

/* The vendor block of sub-option 9 and of the appended form: enterprise
 * number, data length, host-name code, text length, text. */
uint32_t put_vendor_block(uint8_t *p, const uint8_t *text, uint32_t len)
{
    put32(p, gDhcpsnoop.enterpriseNum);
    p[4] = uint8_t(2 + len);
    p[5] = VENDOR_HOSTNAME;
    p[6] = uint8_t(len);
    memcpy(p + VENDOR_BLOCK_HDR, text, len);
    return VENDOR_BLOCK_HDR + len;
}

/*
 * Insert a boot option (already built, `size` bytes) into a reply.  With
 * option 82 present the new option goes in front of it, so that option 82
 * stays last for a later strip or a relay further on; otherwise it takes the
 * end option's place and a new end option follows.
 */
void insert_boot_option(DhcpsnoopPktInfo *info, const uint8_t *opt, uint32_t size,
                        const char *notLastMsg, const char *exceedMsg)
{
    uint8_t *frame = info->frame;
    if (info->opt82) {
        size_t at = size_t(info->opt82 - frame);
        size_t end = message_end(info);
        size_t tail = end > at ? end - at : 0;
        if (tail > TAIL_SAVE_MAX) {
            DHCPSNOOP_DEBUG_I("%s", notLastMsg);
            return;
        }
        if (at + size + tail > DHCPSNOOP_FRAME_MAX) {
            DHCPSNOOP_DEBUG_I("%s", exceedMsg);
            return;
        }
        uint8_t saved[TAIL_SAVE_MAX];
        memcpy(saved, frame + at, tail);
        memcpy(frame + at, opt, size);
        memcpy(frame + at + size, saved, tail);
        info->opt82 += size;
    } else {
        if (room_after(info, info->optEnd) < size + 1) {
            DHCPSNOOP_DEBUG_I("%s", exceedMsg);
            return;
        }
        memcpy(info->optEnd, opt, size);
        info->optEnd[size] = OPT_END;
    }
    if (room_after(info, info->optEnd) > size)
        info->optEnd += size;
    dhcpsnoop_update_checksum(info, size, 1);
}

} // namespace

uint32_t dhcpsnoop_build_subopt_circid(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room)
{
    const DhcpsnoopIf *ifp = info ? info->ifp : nullptr;
    if (!ifp)
        return 0;
    ValueSource src = pick_source(ifp->circuitIdFmt, ifp->circuitId, ifp->circuitIdLen,
                                  gDhcpsnoop.circuitIdFmt);
    /* Generated value: the outer VLAN and four location bytes of the port
     * the frame came in on. */
    uint8_t generated[6] = {uint8_t(info->svlan >> 8), uint8_t(info->svlan), 0, 0, 0, 0};
    if ((src.mode == MODE_TYPED || src.mode == MODE_RAW) && src.ownLen == 0) {
        uint32_t location[7];
        memset(location, 0, sizeof location);
        uint32_t ifIndex = info->ifIndex;
        qorIndexTrans(&ifIndex, INDEX_TRANS_LOCATION, location);
        generated[2] = uint8_t(location[0]);
        generated[3] = uint8_t(location[1]);
        generated[4] = uint8_t(location[6]);
        generated[5] = uint8_t(location[2]);
    }
    return build_subopt(info, SUBOPT_CIRCUIT_ID, src, generated, sizeof generated, buffer, room);
}

uint32_t dhcpsnoop_build_subopt_remoteid(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room)
{
    const DhcpsnoopIf *ifp = info ? info->ifp : nullptr;
    if (!ifp)
        return 0;
    ValueSource src = pick_source(ifp->remoteIdFmt, ifp->remoteId, ifp->remoteIdLen,
                                  gDhcpsnoop.remoteIdFmt);
    return build_subopt(info, SUBOPT_REMOTE_ID, src, ifp->mac, sizeof ifp->mac, buffer, room);
}

/* Sub-option 9 (or its bare vendor block): the interface's text, else the
 * switch's host name cut to 128 bytes.  `buffer` must hold 137 bytes. */
uint32_t dhcpsnoop_build_subopt9(uint8_t *buffer, const DhcpsnoopIf *ifp, uint32_t withHeader)
{
    if (!ifp || !(ifp->flags & ifflag::SUBOPT9))
        return 0;
    const uint8_t *text;
    uint32_t len;
    if (ifp->subopt9Len != 0) {
        text = ifp->subopt9;
        len = ifp->subopt9Len < DHCPSNOOP_TEXT_MAX ? ifp->subopt9Len : DHCPSNOOP_TEXT_MAX;
    } else {
        const char *host = nmGetHostname();
        if (!host || !*host)
            return 0;
        text = reinterpret_cast<const uint8_t *>(host);
        len = uint32_t(strnlen(host, DHCPSNOOP_TEXT_MAX));
    }
    if (withHeader != 1)
        return put_vendor_block(buffer, text, len);
    buffer[0] = SUBOPT_VENDOR;
    buffer[1] = uint8_t(VENDOR_BLOCK_HDR + len);
    return 2 + put_vendor_block(buffer + 2, text, len);
}

int dhcpsnoop_append_subopt9(DhcpsnoopPktInfo *info)
{
    if (!info || !info->optEnd)
        return -1;
    if (!info->opt82 || !info->subopt9 || room_after(info, info->subopt9) < 2)
        return 0;

    /* Sub-option 9 is taken to be the last thing before the end option: the
     * block goes straight behind its data, over whatever follows. */
    size_t at = size_t(info->subopt9 - info->frame) + 2 + info->subopt9[1];
    uint8_t block[SUBOPT9_MAX];
    uint32_t n = dhcpsnoop_build_subopt9(block, info->ifp, 0);
    if (at < DHCPSNOOP_FRAME_MAX)
        memcpy(info->frame + at, block,
               n < DHCPSNOOP_FRAME_MAX - at ? n : DHCPSNOOP_FRAME_MAX - at);

    if (n + info->frameLen >= DHCPSNOOP_FRAME_MAX + 1 || n == 0)
        return 0;
    if (at + n + 1 > DHCPSNOOP_FRAME_MAX)
        return 0; /* no room for the new end option inside the buffer */
    info->opt82[1] = uint8_t(info->opt82[1] + n);
    info->subopt9[1] = uint8_t(info->subopt9[1] + n);
    info->frame[at + n] = OPT_END;
    dhcpsnoop_update_checksum(info, n, 1);
    return 0;
}

uint32_t dhcpsnoop_construct_opt82(DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room)
{
    if (!info || !info->ifp || room < 3)
        return 0;
    buffer[0] = OPT_RELAY_AGENT;
    buffer[1] = 0;
    /* room left for the sub-options, the code and length bytes and the new
     * end option set aside */
    uint32_t avail = room - 3;
    uint32_t circ = dhcpsnoop_build_subopt_circid(info, buffer + 2, avail);
    uint32_t remote = dhcpsnoop_build_subopt_remoteid(info, buffer + 2 + circ, avail - circ);
    uint8_t vendor[SUBOPT9_MAX];
    uint32_t sub9 = dhcpsnoop_build_subopt9(vendor, info->ifp, 1);
    if (sub9 > avail - circ - remote)
        sub9 = 0;
    memcpy(buffer + 2 + circ + remote, vendor, sub9);

    uint32_t n = circ + remote + sub9;
    if (n == 0 || n > OPTION_DATA_MAX) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] option82 len (%d) is zero or exceeds the max.\r\n", int(n));
        return 0;
    }
    if (info->frameLen + 2 + n >= DHCPSNOOP_FRAME_MAX + 1) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Packet len exceeds the max, don't insert option82.\r\n");
        return 0;
    }
    buffer[1] = uint8_t(n);
    buffer[2 + n] = OPT_END;
    return n + 2;
}

/* The built option and its trailing end option replace the frame's end
 * option; the record's option pointers are not moved. */
int dhcpsnoop_insert_opt82(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t length)
{
    if (!info || !option || !info->optEnd)
        return -1;
    if (length >= room_after(info, info->optEnd))
        return -1; /* the option and its end option would leave the buffer */
    memmove(info->optEnd, option, length + 1);
    dhcpsnoop_update_checksum(info, length, 1);
    return 0;
}

int dhcpsnoop_process_option82(DhcpsnoopPktInfo *info)
{
    DhcpsnoopIf *ifp = info ? info->ifp : nullptr;
    if (!ifp)
        return -1;
    uint32_t mode = dhcpsnoop_if_mode(ifp);
    if (mode == 0)
        mode = gDhcpsnoop.circuitIdFmt.mode;
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Process option82 in client packet, mode is %d.\r\n", int(mode));

    if (!info->opt82) {
        DHCPSNOOP_DEBUG_I(
            "[DHCPSNOOP] option82 isn't exist, construct and insert it to the pkt.\r\n");
        uint8_t option[OPT82_BUILD_ROOM];
        memset(option, 0, sizeof option);
        uint32_t len = dhcpsnoop_construct_opt82(info, option, sizeof option);
        if (len != 0)
            dhcpsnoop_insert_opt82(info, option, len);
        return 0;
    }

    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] option82 is already exist!\r\n");
    if (mode != MODE_TYPED && mode != MODE_RAW && mode != MODE_TEMPLATE)
        return 0;
    switch (dhcpsnoop_if_policy(ifp)) {
    case 1:
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Drop the pkt with option82!\r\n");
        return -1;
    case 3:
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Append hostname & ip addres to the pkt.\r\n");
        return dhcpsnoop_append_subopt9(info);
    default:
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Keep the pkt, send to server directly.\r\n");
        return 0;
    }
}

/*
 * Is the remote-id sub-option at `subOption` this interface's own?  The value
 * follows the code and length bytes, and in typed mode also its own type and
 * length.  Bytes the comparison would need from beyond the frame buffer do
 * not exist, so such a value is never equal.
 */
int dhcpsnoop_remote_id_cmp(const DhcpsnoopPktInfo *info, const uint8_t *subOption,
                            const DhcpsnoopIf *ifp, uint32_t mode)
{
    if (!info || !subOption || !ifp)
        return 1;
    uint32_t skip = mode == MODE_TYPED ? 4 : 2;
    if (ifp->remoteIdLen == 0) {
        if (room_after(info, subOption) < skip + sizeof ifp->mac)
            return 1;
        return memcmp(subOption + skip, ifp->mac, sizeof ifp->mac);
    }
    uint32_t len = ifp->remoteIdLen < DHCPSNOOP_TEXT_MAX ? ifp->remoteIdLen : DHCPSNOOP_TEXT_MAX;
    if (room_after(info, subOption) < skip + len)
        return 1;
    return memcmp(ifp->remoteId, subOption + skip, len);
}

void dhcpsnoop_strip_option(DhcpsnoopPktInfo *info)
{
    if (!info || !info->opt82 || room_after(info, info->opt82) < 2)
        return;
    /* The size is taken in eight bits, as the length byte is: an option of
     * length 254 or 255 is cut short by that much. */
    uint8_t n = uint8_t(info->opt82[1] + 2);
    size_t at = size_t(info->opt82 - info->frame);
    size_t end = message_end(info);
    if (end > DHCPSNOOP_FRAME_MAX)
        end = DHCPSNOOP_FRAME_MAX;
    if (at + n < end)
        memmove(info->frame + at, info->frame + at + n, end - at - n);
    info->opt82 = nullptr;
    if (info->optEnd && info->optEnd - info->frame >= n)
        info->optEnd -= n;
    dhcpsnoop_update_checksum(info, n, 0);
}

void dhcpsnoop_insert_opt67(DhcpsnoopPktInfo *info, const uint8_t *data, uint32_t length)
{
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Insert option67, len is %d.\r\n", int(length));
    if (!info || info->opt67 || !info->optEnd)
        return;
    if (length == 0 || length + 2 >= 256) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] option67 len is invalid!\r\n");
        return;
    }
    static const char exceed[] =
        "[DHCPSNOOP] Packet len exceeds the max, don't insert option67!\r\n";
    if (length + 2 + info->frameLen >= DHCPSNOOP_FRAME_MAX + 1) {
        DHCPSNOOP_DEBUG_I("%s", exceed);
        return;
    }
    uint8_t opt[2 + OPTION_DATA_MAX];
    opt[0] = OPT_BOOT_FILE;
    opt[1] = uint8_t(length);
    memcpy(opt + 2, data, length);
    insert_boot_option(
        info, opt, length + 2,
        "[DHCPSNOOP] option-82 is not the last option, don't insert option67!\r\n", exceed);
}

void dhcpsnoop_insert_opt125(DhcpsnoopPktInfo *info, const uint8_t *data, uint32_t length)
{
    DHCPSNOOP_DEBUG_I("[DHCPSNOOP] Insert option125, len is %d.\r\n", int(length));
    if (!info || info->opt125 || !info->optEnd)
        return;
    if (length == 0 || length + 9 >= 256) {
        DHCPSNOOP_DEBUG_I("[DHCPSNOOP] option125 len is invalid!\r\n");
        return;
    }
    static const char exceed[] =
        "[DHCPSNOOP] Packet len exceeds the max, don't insert option125!\r\n";
    if (length + 9 + info->frameLen >= DHCPSNOOP_FRAME_MAX + 1) {
        DHCPSNOOP_DEBUG_I("%s", exceed);
        return;
    }
    uint8_t opt[2 + OPTION_DATA_MAX];
    opt[0] = OPT_VIVSO;
    opt[1] = uint8_t(length + 7);
    put32(opt + 2, gDhcpsnoop.enterpriseNum);
    opt[6] = uint8_t(length + 2);
    opt[7] = VENDOR_BOOT_DATA;
    opt[8] = uint8_t(length);
    memcpy(opt + 9, data, length);
    insert_boot_option(
        info, opt, length + 9,
        "[DHCPSNOOP] option-82 is not the last option, don't insert option125!\r\n", exceed);
}
