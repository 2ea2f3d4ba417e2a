/*
 * The management message codec, shared by the daemon and dhcpsnoopctl.
 *
 * A management connection carries one request and one reply, each framed as
 * a 4-byte body length (host order) followed by the body.  Body layout, all
 * integers in the host's byte order:
 *
 *   offset  size  item
 *   0       4     func word tag      ADR_TAG_FUNC
 *   4       4     func value
 *   8       4     ret code tag       ADR_TAG_RETCODE
 *   12      4     ret code value     (the reply's result is written here)
 *   16      4     cmd word tag       ADR_TAG_CMD
 *   20      4     cmd value
 *   24      1     index header       1
 *   25      1     indexNum
 *   26      ...   index items: 3-byte item header {ADR_ITEM_INDEX, type, width}
 *                 followed by the value (int32, uint32 or the 20-byte user key
 *                 as three items of 1, 3 and 16 bytes)
 *   ...     1     data header        3
 *           1     data type          0 bytes, 2 uint32, 4 two uint32
 *           2     data length
 *           n     data value
 *
 * So a body of 26 bytes ends exactly after the index count byte.
 *
 * Func 22, a page of bindings: the index is a user key (as funcs 8 to 12);
 * cmd 0 lists from the first key, cmd 1 from the first key above the one
 * given.  The data item is bytes (type 0) of length L >= 8, the room for the
 * answer: in the request its first two uint32 are filters, the interface
 * index and the VLAN id a binding must have (0: any).  The reply keeps L and
 * fills it with:
 *
 *   0       4     n, the records that follow
 *   4       4     more: 1 when the page filled up before the table ended
 *   8       48*n  records, in key order (20-byte key byte order), each:
 *                 0 key (20), 20 ifIndex (4), 24 leaseTime (4),
 *                 28 elapsed seconds (4), 32 vid (2), 34 userAttr (2),
 *                 36 mac (6), 42 userType (1), 43 bindState (1),
 *                 44 origVid (2), 46 hwFlags (1), 47 zero (1)
 *
 * IP-source-guard bindings are left out, as by funcs 8 and 9.  After a
 * reply with more = 1 the daemon reads the next request on the same
 * connection, so a whole listing takes one connection: the front end asks
 * again from the last record's key; every other request has a connection of
 * its own.
 *
 * Every read and write is checked against the buffer's size: a call that
 * would pass the end fails (non-zero, or null for adr_getchar) and leaves the
 * position where it was.
 */
#ifndef DHCPSNOOP_ADR_H
#define DHCPSNOOP_ADR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ADR_TAG_FUNC 0x46554E43u    /* "FUNC" */
#define ADR_TAG_RETCODE 0x52455443u /* "RETC" */
#define ADR_TAG_CMD 0x434D4420u     /* "CMD " */
#define ADR_INDEX_HEADER 1
#define ADR_ITEM_INDEX 2
#define ADR_DATA_HEADER 3

typedef struct AdrBuf {
    uint8_t *buf;
    uint32_t size; /* bytes that may be read or written */
    uint32_t pos;
} AdrBuf;

void adr_start(AdrBuf *a, uint8_t *buf, uint32_t size);

/* Decoding: 0 on success, non-zero when the tag is wrong or the bytes run out. */
int adr_decodefunc(AdrBuf *a, uint32_t *func);
int adr_decoderetcode(AdrBuf *a, int32_t *rc);
int adr_decodecmd(AdrBuf *a, uint32_t *cmd);
/* Read n bytes into dst (dst may be the codec's own current read position)
 * and return the address of the bytes, or null when they run out. */
uint8_t *adr_getchar(AdrBuf *a, uint8_t *dst, uint32_t n);
int adr_getushort(AdrBuf *a, uint16_t *v);
int adr_getint32(AdrBuf *a, int32_t *v);
int adr_getuint32(AdrBuf *a, uint32_t *v);
int adr_offset(AdrBuf *a, uint32_t n);
uint32_t adr_count(const AdrBuf *a);
int adr_pos(AdrBuf *a, uint32_t pos);

/* Writing at the current position. */
int adr_int32(AdrBuf *a, int32_t v);
int adr_encodedata(AdrBuf *a, uint8_t type, uint16_t len, const void *value);

/* Building a request (the front end). */
int adr_encodefunc(AdrBuf *a, uint32_t func);
int adr_encoderetcode(AdrBuf *a, int32_t rc);
int adr_encodecmd(AdrBuf *a, uint32_t cmd);
int adr_putchar(AdrBuf *a, const void *bytes, uint32_t n);
int adr_putushort(AdrBuf *a, uint16_t v);
int adr_putuint32(AdrBuf *a, uint32_t v);
/* An index header with its count, and one index item. */
int adr_encodeindexheader(AdrBuf *a, uint8_t count);
int adr_encodeindex(AdrBuf *a, uint8_t type, const void *value, uint8_t width);

#ifdef __cplusplus
}
#endif

#endif
