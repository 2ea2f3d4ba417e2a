/*
 * Management: per-interface snooping settings.
 *
 * Every change is offered to the platform first (qorHwIfSync) and made to
 * the interface entry only when the platform accepts it.
 */
#include <algorithm>

#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_nm_value.h"

namespace {

constexpr int32_t FMT_INVALID = 22;
constexpr uint32_t FMT_LIMIT = 7;
constexpr uint32_t ATTR_IS_VLAN_IF = 417; /* answered for every interface the platform knows */

/* One of the four option texts of an interface entry. */
struct NmText {
    uint8_t *text;
    uint8_t *len;
    uint8_t *type; /* null: the value has no type byte */
    uint8_t *fmt;  /* format mode; null: always plain */
    const char *name;
};

NmText nm_text_of(DhcpsnoopIf *e, uint32_t cmd)
{
    switch (cmd) {
    case 5:
        return {e->circuitId, &e->circuitIdLen, &e->circuitIdType, &e->circuitIdFmt, "circuit-id"};
    case 6:
        return {e->remoteId, &e->remoteIdLen, &e->remoteIdType, &e->remoteIdFmt, "remote-id"};
    case 7:
        return {e->subopt9, &e->subopt9Len, nullptr, nullptr, "sub-option9"};
    case 12:
        return {e->interfaceId, &e->interfaceIdLen, &e->interfaceIdType, &e->interfaceIdFmt,
                "option18"};
    default: /* 14 */
        return {e->remoteId6, &e->remoteId6Len, &e->remoteId6Type, &e->remoteId6Fmt, "option37"};
    }
}

/* Format modes 3 and 4 keep the value as type byte, length byte, text. */
bool nm_typed(const NmText &t) { return t.fmt && (*t.fmt == 3 || *t.fmt == 4); }

void nm_text_clear(uint8_t *text, uint8_t *len)
{
    memset(text, 0, DHCPSNOOP_TEXT_MAX);
    *len = 0;
}

/* Store a text value (cmds 5, 6, 7, 12, 14). */
int32_t nm_text_store(const NmText &t, const QorTextPair *v)
{
    const uint8_t *src = static_cast<const uint8_t *>(v->buf);
    uint32_t n = v->len;
    if (nm_typed(t)) {
        if (n < 2) {
            DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop if setapi: wrong length for %s!\r\n", t.name);
            return DHCPSNOOP_E_LENGTH;
        }
        if (src[1] > n - 2) {
            DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop if setapi: length is invalid, option len %ld, "
                            "total len %ld!\r\n",
                            long(src[1]), long(n));
            return DHCPSNOOP_E_LENGTH;
        }
        *t.type = src[0];
        n = std::min<uint32_t>(src[1], DHCPSNOOP_TEXT_MAX);
        src += 2;
    } else {
        n = std::min<uint32_t>(n, DHCPSNOOP_TEXT_MAX);
    }
    memset(t.text, 0, DHCPSNOOP_TEXT_MAX);
    if (n)
        memcpy(t.text, src, n);
    *t.len = uint8_t(n);
    return DHCPSNOOP_OK;
}

/* Answer a text value into the caller's record; its len is the room. */
int32_t nm_text_answer(const NmText &t, QorTextPair *v, uint32_t checkLen)
{
    const uint32_t n = std::min<uint32_t>(*t.len, DHCPSNOOP_TEXT_MAX);
    const bool typed = nm_typed(t);
    const uint32_t need = n + (typed ? 2 : 0);
    /* checkLen is what the room is compared with; it differs from `need`
     * only for the typed remote-id, which is measured against the circuit-id
     * (kept as the front end knows it).  The copy must still fit. */
    if (v->len < checkLen || v->len < need)
        return DHCPSNOOP_E_LENGTH;
    uint8_t *dst = static_cast<uint8_t *>(v->buf);
    if (typed) {
        dst[0] = *t.type;
        dst[1] = uint8_t(n);
        dst += 2;
    }
    if (n)
        memcpy(dst, t.text, n);
    v->len = need;
    return DHCPSNOOP_OK;
}

bool nm_flag(const DhcpsnoopIf *e, uint32_t bit) { return (e->flags & bit) != 0; }

void nm_flag_set(DhcpsnoopIf *e, uint32_t bit, bool on)
{
    if (on)
        e->flags |= bit;
    else
        e->flags &= ~bit;
}

/* The precondition of a cmd: the flag that must be on and the message
 * printed when it is off. */
struct NmNeed {
    uint32_t bit;
    const char *msg;
};

constexpr const char *MSG_OPT82_OFF = "[DHCPSNOOP] dhcpsnoop if setapi: the option82 is disabled!\n\r";
constexpr const char *MSG_SUBOPT9_OFF =
    "[DHCPSNOOP] dhcpsnoop if setapi: the option82 sub-option9 is disabled!\n\r";
constexpr const char *MSG_OPT37_OFF = "[DHCPSNOOP] dhcpsnoop if setapi: the option37 is disabled!\n\r";
constexpr const char *MSG_OPT18_OFF = "[DHCPSNOOP] dhcpsnoop if setapi: the option18 is disabled!\n\r";

NmNeed nm_need_of(uint32_t cmd)
{
    switch (cmd) {
    case 5: case 6: case 7: case 8: case 9: case 30: case 31:
        return {ifflag::OPTION82, MSG_OPT82_OFF};
    case 12: /* option 18's own switch, reported with option 82's message */
        return {ifflag::OPTION18, MSG_OPT82_OFF};
    case 14: case 33:
        return {ifflag::OPTION37, MSG_OPT37_OFF};
    case 32:
        return {ifflag::OPTION18, MSG_OPT18_OFF};
    default:
        return {0, nullptr};
    }
}

bool nm_is_text_cmd(uint32_t cmd)
{
    return cmd == 5 || cmd == 6 || cmd == 7 || cmd == 12 || cmd == 14;
}

/* The single-bit switches, by cmd. */
uint32_t nm_switch_bit(uint32_t cmd)
{
    switch (cmd) {
    case 3: return ifflag::TRUSTED;
    case 4: return ifflag::OPTION82;
    case 9: return ifflag::SUBOPT9;
    case 11: return ifflag::OPTION18;
    case 13: return ifflag::OPTION37;
    case 16: return ifflag::SRC_MAC_CHECK;
    case 17: return ifflag::USER_CHECK;
    case 20: return ifflag::BIT14;
    default: return 0;
    }
}

/* The format-mode byte of cmds 30 to 33. */
uint8_t *nm_fmt_of(DhcpsnoopIf *e, uint32_t cmd)
{
    switch (cmd) {
    case 30: return &e->circuitIdFmt;
    case 31: return &e->remoteIdFmt;
    case 32: return &e->interfaceIdFmt;
    default: return &e->remoteId6Fmt;
    }
}

/* The text whose format mode cmd 30 to 33 sets. */
uint32_t nm_fmt_text_cmd(uint32_t cmd)
{
    static constexpr uint32_t text[] = {5, 6, 12, 14};
    return text[cmd - 30];
}

bool nm_set_known(uint32_t cmd)
{
    return (cmd >= 1 && cmd <= 14) || (cmd >= 16 && cmd <= 18) || cmd == 20 || cmd == 21 ||
           cmd == 28 || (cmd >= 30 && cmd <= 34);
}

/* "value differs": a value equal to the stored one succeeds at once. */
bool nm_unchanged(const DhcpsnoopIf *e, uint32_t cmd, uint32_t v)
{
    switch (cmd) {
    case 2:
        return v == dhcpsnoop_if_version(e);
    case 3: case 4: case 9: case 11: case 13:
        return (v & 1) == (nm_flag(e, nm_switch_bit(cmd)) ? 1u : 0u);
    default:
        return false;
    }
}

int32_t nm_if_set_locked(uint32_t ifindex, uint32_t cmd, void *value, uint32_t mode)
{
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(ifindex);
    if (!e && cmd != 1)
        return DHCPSNOOP_E_NO_ENTRY;
    if (!nm_set_known(cmd))
        return DHCPSNOOP_E_INVALID;
    if (cmd == 28) {
        for (uint32_t &c : e->counters)
            c = 0;
        return DHCPSNOOP_OK;
    }
    const bool text = nm_is_text_cmd(cmd);
    const QorTextPair *tv = text ? nm_value_text(value) : nullptr;
    if (text ? !tv : !value)
        return DHCPSNOOP_E_INVALID;
    const uint32_t v = text ? 0 : nm_value_u32(value);

    if (cmd == 34) {
        e->relayAddr = v;
        return DHCPSNOOP_OK;
    }
    if (e && nm_unchanged(e, cmd, v))
        return DHCPSNOOP_OK;
    const NmNeed need = nm_need_of(cmd);
    if (need.bit && !nm_flag(e, need.bit)) {
        DHCPSNOOP_DEBUG("%s", need.msg);
        return DHCPSNOOP_E_INVALID;
    }
    if (cmd == 7 && !nm_flag(e, ifflag::SUBOPT9)) {
        DHCPSNOOP_DEBUG("%s", MSG_SUBOPT9_OFF);
        return DHCPSNOOP_E_INVALID;
    }
    if (cmd >= 30 && v == *nm_fmt_of(e, cmd))
        return DHCPSNOOP_OK;

    /* snooping goes only on an interface the platform knows: a drop rule on
     * anything else would keep DHCP from it with nobody to forward it */
    uint32_t isVlanIf = 0;
    if (cmd == 1 && v == 1 && !e && qorIfGetApi(ifindex, ATTR_IS_VLAN_IF, &isVlanIf) != 0)
        return DHCPSNOOP_E_NO_ENTRY;

    if (qorHwIfSync(ifindex, DHCPSNOOP_HW_IF_BASE + cmd, value,
                    text ? mode | DHCPSNOOP_MODE_TEXT : mode) != 0)
        return DHCPSNOOP_E_HW;

    switch (cmd) {
    case 1:
        if (v == 1)
            return e ? DHCPSNOOP_OK : int32_t(dhcpsnoop_if_enable(ifindex));
        if (e)
            dhcpsnoop_if_disable(e);
        return DHCPSNOOP_OK;
    case 2:
        dhcpsnoop_if_version_set(e, v);
        return DHCPSNOOP_OK;
    case 4:
        nm_flag_set(e, ifflag::OPTION82, v & 1);
        dhcpsnoop_if_set_field(e, ifflag::POLICY_MASK, ifflag::POLICY_SHIFT, 2);
        if (v & 1) {
            e->circuitIdFmt = e->remoteIdFmt = 3;
        } else {
            e->circuitIdFmt = e->remoteIdFmt = 0;
            nm_text_clear(e->circuitId, &e->circuitIdLen);
            nm_text_clear(e->remoteId, &e->remoteIdLen);
            nm_text_clear(e->subopt9, &e->subopt9Len);
            nm_flag_set(e, ifflag::SUBOPT9, false);
        }
        return DHCPSNOOP_OK;
    case 5: case 6: case 7: case 12: case 14:
        return nm_text_store(nm_text_of(e, cmd), tv);
    case 8:
        dhcpsnoop_if_set_field(e, ifflag::POLICY_MASK, ifflag::POLICY_SHIFT, v & 3);
        return DHCPSNOOP_OK;
    case 9:
        nm_flag_set(e, ifflag::SUBOPT9, v & 1);
        if (!(v & 1))
            nm_text_clear(e->subopt9, &e->subopt9Len);
        return DHCPSNOOP_OK;
    case 10:
        dhcpsnoop_if_set_field(e, ifflag::MODE_MASK, ifflag::MODE_SHIFT, v & 15);
        return DHCPSNOOP_OK;
    case 11:
    case 13: {
        const NmText t = nm_text_of(e, cmd + 1);
        nm_flag_set(e, nm_switch_bit(cmd), v & 1);
        if (v & 1) {
            *t.fmt = 3;
        } else {
            *t.fmt = 0;
            *t.type = 0;
            nm_text_clear(t.text, t.len);
        }
        return DHCPSNOOP_OK;
    }
    case 3: case 16: case 17: case 20:
        nm_flag_set(e, nm_switch_bit(cmd), v & 1);
        return DHCPSNOOP_OK;
    case 18:
        e->maxUser = uint16_t(v);
        return DHCPSNOOP_OK;
    case 21:
        e->setting21 = uint16_t(v);
        return DHCPSNOOP_OK;
    default: { /* 30 to 33; the platform has been told already */
        if (v >= FMT_LIMIT)
            return FMT_INVALID;
        const NmText t = nm_text_of(e, nm_fmt_text_cmd(cmd));
        nm_text_clear(t.text, t.len);
        *nm_fmt_of(e, cmd) = uint8_t(v);
        return DHCPSNOOP_OK;
    }
    }
}

int32_t nm_if_get_locked(uint32_t ifindex, uint32_t cmd, void *value)
{
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(ifindex);
    if (!e || !(e->flags & ifflag::IN_USE))
        return DHCPSNOOP_E_NO_ENTRY;
    if (cmd >= 25 && cmd <= 27)
        return DHCPSNOOP_OK;
    if (nm_is_text_cmd(cmd)) {
        QorTextPair *tv = nm_value_text(value);
        if (!tv)
            return DHCPSNOOP_E_INVALID;
        const NmText t = nm_text_of(e, cmd);
        uint32_t check = std::min<uint32_t>(*t.len, DHCPSNOOP_TEXT_MAX) + (nm_typed(t) ? 2 : 0);
        if (cmd == 6 && nm_typed(t))
            check = std::min<uint32_t>(e->circuitIdLen, DHCPSNOOP_TEXT_MAX) + 2;
        return nm_text_answer(t, tv, check);
    }
    uint32_t v;
    if (const uint32_t bit = nm_switch_bit(cmd)) {
        v = nm_flag(e, bit) ? 1 : 0;
    } else {
        switch (cmd) {
        case 1: v = 1; break;
        case 2: v = dhcpsnoop_if_version(e); break;
        case 8: v = dhcpsnoop_if_policy(e); break;
        case 10: v = dhcpsnoop_if_mode(e); break;
        case 18: v = e->maxUser; break;
        case 19: v = e->curUser; break;
        case 21: v = e->setting21; break;
        case 22: v = e->counters[DHCPSNOOP_CNT_SRC_MAC]; break;
        case 23: v = e->counters[DHCPSNOOP_CNT_USER_MISMATCH]; break;
        case 24: v = e->counters[DHCPSNOOP_CNT_UNTRUSTED_REPLY]; break;
        case 35: v = e->counters[DHCPSNOOP_CNT_TABLE_FULL]; break;
        case 36: v = e->counters[DHCPSNOOP_CNT_GUARD]; break;
        case 30: case 31: case 32: case 33: v = *nm_fmt_of(e, cmd); break;
        case 34: v = e->relayAddr; break;
        case 40: case 41: /* the hardware's own drops; none counted reads 0 */
            if (qorIfGetApi(ifindex, cmd == 40 ? DHCPSNOOP_IF_ATTR_IPSG_DROPS
                                               : DHCPSNOOP_IF_ATTR_DAI_DROPS, &v) != 0)
                v = 0;
            break;
        default: return DHCPSNOOP_E_INVALID;
        }
    }
    if (!value)
        return DHCPSNOOP_E_INVALID;
    nm_value_put_u32(value, v);
    return DHCPSNOOP_OK;
}

/* First in-use interface, in list (ascending index) order, above `after`. */
int32_t nm_if_walk(bool any, uint32_t after, uint32_t *out)
{
    if (!out)
        return -1;
    int32_t rc = -1;
    dhcpsnoop_lock();
    for (DhcpsnoopList *n = gDhcpsnoop.ifList.next; n != &gDhcpsnoop.ifList; n = n->next) {
        const DhcpsnoopIf *e = dhcpsnoop_entry<DhcpsnoopIf>(n);
        if ((e->flags & ifflag::IN_USE) && (any || e->ifIndex > after)) {
            *out = e->ifIndex;
            rc = 0;
            break;
        }
    }
    dhcpsnoop_unlock();
    return rc;
}

void nm_if_name(uint32_t ifindex, char (&name)[64])
{
    name[0] = 0;
    qorIfUnit2Name(ifindex, name, sizeof name);
    name[sizeof name - 1] = 0;
}

} // namespace

int32_t _dhcpSnoopIfSetApi(uint32_t ifindex, uint32_t cmd, void *value, uint32_t mode)
{
    if (gDhcpsnoop.debugFlags & (DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP)) {
        char name[64];
        nm_if_name(ifindex, name);
        NM_DEBUG_OUTPUT("[DHCPSNOOP] dhcpsnoop if setapi: interface %s, cmd %d.\r\n", name,
                        int(cmd));
    }
    dhcpsnoop_lock();
    int32_t rc = nm_if_set_locked(ifindex, cmd, value, mode);
    DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop if setapi: end, rc = %d.\r\n", int(rc));
    dhcpsnoop_unlock();
    return rc;
}

int32_t dhcpSnoopIfSetApi(uint32_t ifindex, uint32_t cmd, void *value)
{
    return _dhcpSnoopIfSetApi(ifindex, cmd, value, DHCPSNOOP_MODE_SET);
}

int32_t dhcpSnoopIfSyncApi(uint32_t ifindex, uint32_t cmd, void *value)
{
    return _dhcpSnoopIfSetApi(ifindex, cmd, value, DHCPSNOOP_MODE_SYNC);
}

int32_t dhcpSnoopIfGetApi(uint32_t ifindex, uint32_t cmd, void *value)
{
    if (gDhcpsnoop.debugFlags & (DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP)) {
        char name[64];
        nm_if_name(ifindex, name);
        NM_DEBUG_OUTPUT("[DHCPSNOOP] dhcpsnoop if getapi: interface %s, cmd = %d.\r\n", name,
                        int(cmd));
    }
    dhcpsnoop_lock();
    int32_t rc = nm_if_get_locked(ifindex, cmd, value);
    DHCPSNOOP_DEBUG("[DHCPSNOOP] dhcpsnoop if getapi: end, rc %d.\r\n", int(rc));
    dhcpsnoop_unlock();
    return rc;
}

int32_t dhcpSnoopIfGetFirst(uint32_t *ifindex) { return nm_if_walk(true, 0, ifindex); }

int32_t dhcpSnoopIfGetNext(uint32_t ifindex, uint32_t *next) { return nm_if_walk(false, ifindex, next); }
