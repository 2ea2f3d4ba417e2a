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
