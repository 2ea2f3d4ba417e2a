/*
 * Option text templates.
 *
 * A template is operator text in which '%' and one letter stand for a
 * property of the frame, of the port it came in on or of the switch; every
 * other byte is copied.  The relay-agent options of both families use it for
 * their values in template mode.
 */
#include <cstdio>
#include <cstring>

#include "dhcpsnoop_msg.h"

namespace {

/* No expansion is longer than a one-byte option length can carry. */
constexpr uint32_t FORMAT_OUT_MAX = 255;
constexpr uint32_t TEXT_BUF = DHCPSNOOP_TEXT_MAX;
constexpr uint32_t LOCATION_WORDS = 7;
constexpr uint32_t INDEX_TRANS_LOCATION = 6;

constexpr uint32_t IF_ATTR_NAME = 3;
constexpr uint32_t IF_ATTR_NUMBER = 5;
constexpr uint32_t SCALAR_TEXT_D = 66;
constexpr uint32_t SCALAR_TEXT_E = 74;

bool is_letter(uint8_t c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

/* Numbers are platform words rendered as "%ld" on the 32-bit target, so a
 * word with its top bit set reads as negative there and here alike. */
uint32_t render_number(uint8_t *out, uint32_t value)
{
    char text[24];
    int n = snprintf(text, sizeof text, "%ld", long(int32_t(value)));
    memcpy(out, text, size_t(n));
    return uint32_t(n);
}

/* A text property: the platform answers into a 128-byte buffer whose room is
 * given in the pair.  An unanswered call leaves the zeroed buffer and its
 * full length, which is what is then copied. */
uint32_t render_text(uint8_t *out, int (*ask)(uint32_t, uint32_t, void *), uint32_t who,
                     uint32_t attr)
{
    uint8_t text[TEXT_BUF];
    memset(text, 0, sizeof text);
    QorTextPair pair{text, TEXT_BUF};
    ask(who, attr, &pair);
    uint32_t n = pair.len < TEXT_BUF ? pair.len : TEXT_BUF;
    memcpy(out, text, n);
    return n;
}

/* Render the conversion of `letter` into `out` (room for 128 bytes). */
uint32_t render_conversion(DhcpsnoopPktInfo *info, uint8_t letter, uint8_t *out)
{
    /* Every letter asks for the port's location, used or not. */
    uint32_t location[LOCATION_WORDS];
    memset(location, 0, sizeof location);
    uint32_t ifIndex = info->ifIndex;
    qorIndexTrans(&ifIndex, INDEX_TRANS_LOCATION, location);

    uint32_t word = 0;
    switch (letter) {
    case 'D':
        return render_text(out, qorScalarGetApi, 0, SCALAR_TEXT_D);
    case 'e':
        return render_text(out, qorScalarGetApi, 0, SCALAR_TEXT_E);
    case 'N':
        return render_text(out, qorIfGetApi, info->ifIndex, IF_ATTR_NAME);
    case 'i':
        qorIfGetApi(info->ifp ? info->ifp->ifIndex : 0, IF_ATTR_NUMBER, &word);
        return render_number(out, word);
    case 'y':
        qorIfGetApi(info->ifIndex, IF_ATTR_NUMBER, &word);
        return render_number(out, word);
    case 'S':
        return render_number(out, location[1]);
    case 'r':
        return render_number(out, location[2]);
    case 's':
        return render_number(out, info->svlan);
    case 'c':
        return render_number(out, info->cvlan);
    case 'l':
        return render_number(out, 0);
    case 'd':
        /* the interface MAC as six raw bytes */
        if (info->ifp)
            memcpy(out, info->ifp->mac, 6);
        else
            memset(out, 0, 6);
        return 6;
    default:
        out[0] = '0';
        return 1;
    }
}

/* Length of the literal run that starts at `from`: up to the next '%', found
 * as a string search would find it (a NUL ends the search unsuccessfully),
 * or else the rest of the template.  Never looks past the template length. */
uint32_t literal_run(const uint8_t *tmpl, uint32_t from, uint32_t tmplLen)
{
    for (uint32_t i = from; i < tmplLen; i++) {
        if (tmpl[i] == '%')
            return i - from;
        if (tmpl[i] == 0)
            break;
    }
    return from < tmplLen ? tmplLen - from : 0;
}

} // namespace

/*
 * Expand a template for one frame into `out`, at most `room` bytes and never
 * more than 255, nothing terminated; returns the count written.  A
 * conversion that does not fit is left out whole and ends the expansion.
 *
 * A literal run ('%' followed by a non-letter, up to the next '%') is
 * measured against the 255-byte cap only; `room` is compared with the count
 * before the run.  Such a run may therefore pass `room`, and the area behind
 * `out` must hold 255 bytes whatever `room` says.
 */
uint32_t dhcpsnoop_format_print(DhcpsnoopPktInfo *info, const uint8_t *tmpl, uint32_t tmplLen,
                                uint8_t *out, uint32_t room)
{
    if (tmplLen == 0)
        return 0;
    uint32_t written = 0;
    uint32_t pos = 0;
    while (pos < tmplLen) {
        uint8_t b = tmpl[pos];
        if (b != '%') {
            if (b == 0 || written >= FORMAT_OUT_MAX || written >= room)
                return written;
            out[written++] = b;
            pos++;
            continue;
        }
        if (written >= FORMAT_OUT_MAX || written >= room)
            return written;
        /* A '%' at the very end of the template has nothing after it. */
        uint8_t next = pos + 1 < tmplLen ? tmpl[pos + 1] : 0;
        if (!is_letter(next)) {
            uint32_t run = literal_run(tmpl, pos + 1, tmplLen);
            if (written + 1 + run >= FORMAT_OUT_MAX + 1 || room < written)
                return written;
            out[written] = '%';
            memcpy(out + written + 1, tmpl + pos + 1, run);
            written += 1 + run;
            pos += 1 + run;
            continue;
        }
        uint8_t text[TEXT_BUF];
        uint32_t len = render_conversion(info, next, text);
        if (written + len >= FORMAT_OUT_MAX + 1 || written + len > room)
            return written;
        memcpy(out + written, text, len);
        written += len;
        pos += 2;
    }
    return written;
}

int dhcpsnoop_delimiter_check(int c)
{
    switch (uint8_t(c)) {
    case 0:
    case ' ':
    case '.':
    case '/':
    case ':':
    case ';':
    case '[':
    case ']':
    case '{':
    case '}':
    case '<':
    case '>':
    case '(':
    case ')':
        return 0;
    default:
        return -1;
    }
}

/*
 * Vet a template before it is stored: every conversion must be followed by a
 * delimiter (or NUL) inside the given length, so a conversion at the very end
 * passes only when the length counts one more byte, such as the terminator.
 */
int dhcpsnoop_format_check(const uint8_t *tmpl, uint32_t len)
{
    uint32_t pos = 0;
    while (pos < len) {
        uint8_t b = tmpl[pos];
        if (b == 0)
            return 0;
        if (b != '%') {
            pos++;
            continue;
        }
        if (len < pos + 3)
            return -1;
        /* bytes of 128 and above are not letters */
        if (is_letter(tmpl[pos + 1])) {
            if (dhcpsnoop_delimiter_check(tmpl[pos + 2]) != 0)
                return -1;
            pos += 3;
        } else {
            pos++;
        }
    }
    return 0;
}
