/* The management codec: the fixed layout, round trips and bounds. */
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "dhcpsnoop_adr.h"

namespace {

uint32_t word_at(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

/* The three header words and an index header. */
uint32_t encode_head(AdrBuf &a, uint32_t func, int32_t rc, uint32_t cmd, uint8_t count)
{
    EXPECT_EQ(adr_encodefunc(&a, func), 0);
    EXPECT_EQ(adr_encoderetcode(&a, rc), 0);
    EXPECT_EQ(adr_encodecmd(&a, cmd), 0);
    EXPECT_EQ(adr_encodeindexheader(&a, count), 0);
    return adr_count(&a);
}

} // namespace

TEST(AdrLayout, HeaderEndsAfterTheIndexCountAndTheResultSitsAtTwelve)
{
    uint8_t buf[64] = {};
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    EXPECT_EQ(encode_head(a, 7, 0x11223344, 9, 1), 26u);
    EXPECT_EQ(word_at(buf + 0), ADR_TAG_FUNC);
    EXPECT_EQ(word_at(buf + 4), 7u);
    EXPECT_EQ(word_at(buf + 8), ADR_TAG_RETCODE);
    EXPECT_EQ(word_at(buf + 12), 0x11223344u);
    EXPECT_EQ(word_at(buf + 16), ADR_TAG_CMD);
    EXPECT_EQ(word_at(buf + 20), 9u);
    EXPECT_EQ(buf[24], ADR_INDEX_HEADER);
    EXPECT_EQ(buf[25], 1);

    /* the result is overwritten in place */
    ASSERT_EQ(adr_pos(&a, 12), 0);
    ASSERT_EQ(adr_int32(&a, -5), 0);
    EXPECT_EQ(adr_count(&a), 16u);
    EXPECT_EQ(int32_t(word_at(buf + 12)), -5);
}

TEST(AdrRoundTrip, RequestDecodesToWhatWasEncoded)
{
    uint8_t buf[128] = {};
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    encode_head(a, 8, 0, 5, 3);
    const uint8_t type = 1, zero[3] = {}, addr[16] = {10, 0, 0, 9};
    ASSERT_EQ(adr_encodeindex(&a, 0, &type, 1), 0);
    ASSERT_EQ(adr_encodeindex(&a, 0, zero, 3), 0);
    ASSERT_EQ(adr_encodeindex(&a, 0, addr, 16), 0);
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(adr_encodedata(&a, 0, 6, mac), 0);
    const uint32_t len = adr_count(&a);
    EXPECT_EQ(len, 26u + 4 + 6 + 19 + 4 + 6);

    AdrBuf d;
    adr_start(&d, buf, len);
    uint32_t func = 0, cmd = 0;
    int32_t rc = -1;
    ASSERT_EQ(adr_decodefunc(&d, &func), 0);
    ASSERT_EQ(adr_decoderetcode(&d, &rc), 0);
    ASSERT_EQ(adr_decodecmd(&d, &cmd), 0);
    EXPECT_EQ(func, 8u);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(cmd, 5u);
    uint8_t hdr[2];
    ASSERT_NE(adr_getchar(&d, hdr, 2), nullptr);
    EXPECT_EQ(hdr[0], 1);
    EXPECT_EQ(hdr[1], 3);
    uint8_t key[20] = {};
    const uint32_t widths[3] = {1, 3, 16};
    uint8_t *dst = key;
    for (uint32_t w : widths) {
        ASSERT_EQ(adr_offset(&d, 3), 0);
        ASSERT_EQ(adr_getchar(&d, dst, w), dst);
        dst += w;
    }
    EXPECT_EQ(key[0], 1);
    EXPECT_EQ(0, memcmp(key + 4, addr, 16));
    uint8_t dh[2];
    uint16_t dlen = 0;
    ASSERT_NE(adr_getchar(&d, dh, 2), nullptr);
    ASSERT_EQ(adr_getushort(&d, &dlen), 0);
    EXPECT_EQ(dh[0], ADR_DATA_HEADER);
    EXPECT_EQ(dh[1], 0);
    EXPECT_EQ(dlen, 6);
    /* bytes left in place: the codec's own position as destination */
    uint8_t *here = buf + adr_count(&d);
    EXPECT_EQ(adr_getchar(&d, here, dlen), here);
    EXPECT_EQ(0, memcmp(here, mac, 6));
    EXPECT_EQ(adr_count(&d), len);
}

TEST(AdrRoundTrip, NumbersOfEveryWidth)
{
    uint8_t buf[32] = {};
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    ASSERT_EQ(adr_putushort(&a, 0xBEEF), 0);
    ASSERT_EQ(adr_putuint32(&a, 0xDEADBEEF), 0);
    ASSERT_EQ(adr_putuint32(&a, uint32_t(-7)), 0);
    ASSERT_EQ(adr_putchar(&a, "xyz", 3), 0);
    AdrBuf d;
    adr_start(&d, buf, adr_count(&a));
    uint16_t s = 0;
    uint32_t u = 0;
    int32_t i = 0;
    char text[3];
    ASSERT_EQ(adr_getushort(&d, &s), 0);
    ASSERT_EQ(adr_getuint32(&d, &u), 0);
    ASSERT_EQ(adr_getint32(&d, &i), 0);
    ASSERT_NE(adr_getchar(&d, reinterpret_cast<uint8_t *>(text), 3), nullptr);
    EXPECT_EQ(s, 0xBEEF);
    EXPECT_EQ(u, 0xDEADBEEFu);
    EXPECT_EQ(i, -7);
    EXPECT_EQ(0, memcmp(text, "xyz", 3));
    EXPECT_NE(adr_getushort(&d, &s), 0);
}

TEST(AdrDecode, WrongTagsFailAndKeepThePosition)
{
    uint8_t buf[32] = {};
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    adr_encodecmd(&a, 1); /* a cmd word where the func word belongs */
    AdrBuf d;
    adr_start(&d, buf, sizeof buf);
    uint32_t v = 0;
    int32_t rc = 0;
    EXPECT_NE(adr_decodefunc(&d, &v), 0);
    EXPECT_NE(adr_decoderetcode(&d, &rc), 0);
    EXPECT_EQ(adr_count(&d), 0u);
    EXPECT_EQ(adr_decodecmd(&d, &v), 0);
    EXPECT_EQ(v, 1u);
}

TEST(AdrEncode, DataItemMayBeAnsweredInPlace)
{
    uint8_t buf[16] = {};
    memcpy(buf + 4, "abcdef", 6);
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    ASSERT_EQ(adr_encodedata(&a, 0, 4, buf + 4), 0);
    EXPECT_EQ(buf[0], ADR_DATA_HEADER);
    EXPECT_EQ(buf[1], 0);
    uint16_t len;
    memcpy(&len, buf + 2, 2);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(0, memcmp(buf + 4, "abcdef", 6));
    EXPECT_EQ(adr_count(&a), 8u);

    /* a value lying just before the item is moved, not smeared */
    uint8_t b2[16] = {'p', 'q', 'r', 's', 't', 'u'};
    adr_start(&a, b2, sizeof b2);
    ASSERT_EQ(adr_encodedata(&a, 0, 6, b2), 0);
    EXPECT_EQ(0, memcmp(b2 + 4, "pqrstu", 6));
}

/* Every call that would pass the end fails and leaves everything as it was. */
TEST(AdrBounds, NothingPassesTheEnd)
{
    std::vector<uint8_t> guard(40, 0xAA);
    uint8_t *buf = guard.data() + 8; /* 8 usable bytes, guards around */
    AdrBuf a;
    adr_start(&a, buf, 8);
    ASSERT_EQ(adr_offset(&a, 6), 0);
    uint32_t u = 0x55;
    int32_t i = 0x55;
    uint16_t s = 0x55;
    uint8_t out[32];
    EXPECT_NE(adr_getuint32(&a, &u), 0);
    EXPECT_NE(adr_getint32(&a, &i), 0);
    EXPECT_EQ(adr_getchar(&a, out, 3), nullptr);
    EXPECT_EQ(adr_getchar(&a, nullptr, 0xFFFFFFFFu), nullptr);
    EXPECT_NE(adr_offset(&a, 3), 0);
    EXPECT_NE(adr_offset(&a, 0xFFFFFFFFu), 0);
    EXPECT_NE(adr_int32(&a, 1), 0);
    EXPECT_NE(adr_putuint32(&a, 1), 0);
    EXPECT_NE(adr_encodedata(&a, 2, 4, &u), 0);
    EXPECT_NE(adr_encodedata(&a, 0, 0, nullptr), 0); /* the header alone needs 4 */
    EXPECT_NE(adr_encodeindex(&a, 0, &u, 4), 0);
    uint32_t v;
    EXPECT_NE(adr_decodefunc(&a, &v), 0);
    EXPECT_EQ(adr_count(&a), 6u);
    EXPECT_EQ(u, 0x55u);
    EXPECT_EQ(i, 0x55);
    EXPECT_EQ(adr_getushort(&a, &s), 0); /* exactly the last two bytes */
    EXPECT_EQ(adr_count(&a), 8u);
    EXPECT_EQ(adr_getchar(&a, out, 0), out); /* an empty read at the end */
    EXPECT_NE(adr_pos(&a, 9), 0);
    EXPECT_EQ(adr_pos(&a, 8), 0);
    for (size_t k = 0; k < 8; k++) {
        EXPECT_EQ(guard[k], 0xAA);
        EXPECT_EQ(guard[16 + k], 0xAA);
    }
}

TEST(AdrBounds, NullBufferRefusesEverything)
{
    AdrBuf a;
    adr_start(&a, nullptr, 100);
    uint32_t v;
    EXPECT_NE(adr_decodefunc(&a, &v), 0);
    EXPECT_EQ(adr_getchar(&a, nullptr, 1), nullptr);
    EXPECT_NE(adr_int32(&a, 0), 0);
    EXPECT_NE(adr_pos(&a, 1), 0);
}
