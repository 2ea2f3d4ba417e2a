/*
 * The management message codec (layout in dhcpsnoop_adr.h).
 *
 * Words are copied with memcpy in the host's byte order, so a body may sit at
 * any alignment.  Every operation first checks that its bytes lie inside
 * [0, size) and otherwise fails without moving the position, so a truncated
 * or lying body can never make the caller read or write past its buffer.
 */
#include "dhcpsnoop_adr.h"

#include <string.h>

namespace {

/* Room for n more bytes at the current position (no overflow on huge n). */
bool adr_room(const AdrBuf *a, uint32_t n)
{
    return a && a->buf && a->pos <= a->size && n <= a->size - a->pos;
}

int adr_read(AdrBuf *a, void *dst, uint32_t n)
{
    if (!adr_room(a, n))
        return -1;
    memmove(dst, a->buf + a->pos, n);
    a->pos += n;
    return 0;
}

int adr_write(AdrBuf *a, const void *src, uint32_t n)
{
    if (!adr_room(a, n) || (n && !src))
        return -1;
    if (n)
        memmove(a->buf + a->pos, src, n);
    a->pos += n;
    return 0;
}

/* A header word: its tag, then its value. */
int adr_decodeword(AdrBuf *a, uint32_t tag, void *value)
{
    if (!value || !adr_room(a, 8))
        return -1;
    uint32_t got;
    memcpy(&got, a->buf + a->pos, 4);
    if (got != tag)
        return -1;
    memcpy(value, a->buf + a->pos + 4, 4);
    a->pos += 8;
    return 0;
}

int adr_encodeword(AdrBuf *a, uint32_t tag, const void *value)
{
    if (!adr_room(a, 8))
        return -1;
    memcpy(a->buf + a->pos, &tag, 4);
    memcpy(a->buf + a->pos + 4, value, 4);
    a->pos += 8;
    return 0;
}

} // namespace

extern "C" {

void adr_start(AdrBuf *a, uint8_t *buf, uint32_t size)
{
    if (!a)
        return;
    a->buf = buf;
    a->size = buf ? size : 0;
    a->pos = 0;
}

int adr_decodefunc(AdrBuf *a, uint32_t *func) { return adr_decodeword(a, ADR_TAG_FUNC, func); }
int adr_decoderetcode(AdrBuf *a, int32_t *rc) { return adr_decodeword(a, ADR_TAG_RETCODE, rc); }
int adr_decodecmd(AdrBuf *a, uint32_t *cmd) { return adr_decodeword(a, ADR_TAG_CMD, cmd); }

uint8_t *adr_getchar(AdrBuf *a, uint8_t *dst, uint32_t n)
{
    if (!adr_room(a, n))
        return nullptr;
    uint8_t *src = a->buf + a->pos;
    if (!dst)
        dst = src;
    if (dst != src && n)
        memmove(dst, src, n);
    a->pos += n;
    return dst;
}

int adr_getushort(AdrBuf *a, uint16_t *v) { return v ? adr_read(a, v, 2) : -1; }
int adr_getint32(AdrBuf *a, int32_t *v) { return v ? adr_read(a, v, 4) : -1; }
int adr_getuint32(AdrBuf *a, uint32_t *v) { return v ? adr_read(a, v, 4) : -1; }

int adr_offset(AdrBuf *a, uint32_t n)
{
    if (!adr_room(a, n))
        return -1;
    a->pos += n;
    return 0;
}

uint32_t adr_count(const AdrBuf *a) { return a ? a->pos : 0; }

int adr_pos(AdrBuf *a, uint32_t pos)
{
    if (!a || pos > a->size)
        return -1;
    a->pos = pos;
    return 0;
}

int adr_int32(AdrBuf *a, int32_t v) { return adr_write(a, &v, 4); }

int adr_encodedata(AdrBuf *a, uint8_t type, uint16_t len, const void *value)
{
    if (!adr_room(a, 4u + len) || (len && !value))
        return -1;
    uint8_t hdr[4] = {ADR_DATA_HEADER, type, 0, 0};
    memcpy(hdr + 2, &len, 2);
    /* The value may already lie where it is written (a text answered in
     * place): move it first, then put the header in front of it. */
    if (len)
        memmove(a->buf + a->pos + 4, value, len);
    memcpy(a->buf + a->pos, hdr, 4);
    a->pos += 4u + len;
    return 0;
}

int adr_encodefunc(AdrBuf *a, uint32_t func) { return adr_encodeword(a, ADR_TAG_FUNC, &func); }
int adr_encoderetcode(AdrBuf *a, int32_t rc) { return adr_encodeword(a, ADR_TAG_RETCODE, &rc); }
int adr_encodecmd(AdrBuf *a, uint32_t cmd) { return adr_encodeword(a, ADR_TAG_CMD, &cmd); }

int adr_putchar(AdrBuf *a, const void *bytes, uint32_t n) { return adr_write(a, bytes, n); }
int adr_putushort(AdrBuf *a, uint16_t v) { return adr_write(a, &v, 2); }
int adr_putuint32(AdrBuf *a, uint32_t v) { return adr_write(a, &v, 4); }

int adr_encodeindexheader(AdrBuf *a, uint8_t count)
{
    const uint8_t hdr[2] = {ADR_INDEX_HEADER, count};
    return adr_write(a, hdr, 2);
}

int adr_encodeindex(AdrBuf *a, uint8_t type, const void *value, uint8_t width)
{
    if (!adr_room(a, 3u + width) || (width && !value))
        return -1;
    const uint8_t hdr[3] = {ADR_ITEM_INDEX, type, width};
    memcpy(a->buf + a->pos, hdr, 3);
    if (width)
        memmove(a->buf + a->pos + 3, value, width);
    a->pos += 3u + width;
    return 0;
}

} // extern "C"
