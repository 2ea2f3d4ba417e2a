/* The management codec: the fixed layout, round trips and bounds. */
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "dhcpsnoop_adr.h"

namespace {
template <class T> void put(std::vector<uint8_t> &b, T v)
{
    b.insert(b.end(), (uint8_t *)&v, (uint8_t *)&v + sizeof v);
}
/* Calls in a braced list run in order; all must succeed. */
bool ok(std::initializer_list<int> rcs)
{
    for (int rc : rcs)
        if (rc != 0)
            return false;
    return true;
}
} // namespace

TEST(Adr, LayoutRoundTripAndResultInPlace)
{
    uint8_t buf[64] = {};
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    ASSERT_TRUE(ok({adr_encodefunc(&a, 7), adr_encoderetcode(&a, 0x11223344), adr_encodecmd(&a, 9),
                    adr_encodeindexheader(&a, 1), adr_encodeindex(&a, 5, "ab", 2),
                    adr_putushort(&a, 0xBEEF), adr_putuint32(&a, uint32_t(-7)),
                    adr_putchar(&a, "xyz", 3)}));
    std::vector<uint8_t> want;
    for (uint32_t w : {ADR_TAG_FUNC, 7u, ADR_TAG_RETCODE, 0x11223344u, ADR_TAG_CMD, 9u})
        put(want, w);
    want.insert(want.end(), {ADR_INDEX_HEADER, 1, ADR_ITEM_INDEX, 5, 2, 'a', 'b'});
    put(want, uint16_t(0xBEEF));
    put(want, uint32_t(-7));
    want.insert(want.end(), {'x', 'y', 'z'});
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + adr_count(&a)), want);

    AdrBuf d;
    adr_start(&d, buf, adr_count(&a));
    uint32_t func = 0, cmd = 0;
    int32_t rc = 0, i = 0;
    uint16_t s = 0;
    uint8_t text[3];
    EXPECT_NE(adr_decoderetcode(&d, &rc), 0); /* the tag must match */
    ASSERT_TRUE(ok({adr_decodefunc(&d, &func), adr_decoderetcode(&d, &rc), adr_decodecmd(&d, &cmd),
                    adr_offset(&d, 7), adr_getushort(&d, &s), adr_getint32(&d, &i)}));
    ASSERT_EQ(adr_getchar(&d, text, 3), text);
    EXPECT_EQ(std::tuple(func, rc, cmd, s, i, memcmp(text, "xyz", 3)),
              std::tuple(7u, 0x11223344, 9u, uint16_t(0xBEEF), -7, 0));
    EXPECT_NE(adr_getushort(&d, &s), 0);

    ASSERT_TRUE(ok({adr_pos(&a, 12), adr_int32(&a, -5)}));
    EXPECT_EQ(adr_count(&a), 16u);
    int32_t back;
    memcpy(&back, buf + 12, 4); /* words are in host order */
    EXPECT_EQ(back, -5);
}

TEST(Adr, DataItemMayBeAnsweredInPlace)
{
    uint8_t buf[16] = {'p', 'q', 'r', 's', 't', 'u'};
    AdrBuf a;
    adr_start(&a, buf, sizeof buf);
    ASSERT_EQ(adr_encodedata(&a, 4, 6, buf), 0); /* moved, not smeared */
    std::vector<uint8_t> want = {ADR_DATA_HEADER, 4};
    put(want, uint16_t(6));
    want.insert(want.end(), {'p', 'q', 'r', 's', 't', 'u'});
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + adr_count(&a)), want);
}

/* Every call that would pass the end fails and leaves everything as it was. */
TEST(Adr, NothingPassesTheEnd)
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
    EXPECT_NE(adr_decodefunc(&a, &u), 0);
    EXPECT_EQ(std::tuple(adr_count(&a), u, i), std::tuple(6u, 0x55u, 0x55));
    EXPECT_EQ(adr_getushort(&a, &s), 0); /* exactly the last two bytes */
    EXPECT_EQ(adr_count(&a), 8u);
    EXPECT_EQ(adr_getchar(&a, out, 0), out); /* an empty read at the end */
    EXPECT_NE(adr_pos(&a, 9), 0);
    EXPECT_EQ(adr_pos(&a, 8), 0);
    EXPECT_EQ(std::vector<uint8_t>(guard.begin(), guard.begin() + 8), std::vector<uint8_t>(8, 0xAA));
    EXPECT_EQ(std::vector<uint8_t>(guard.begin() + 16, guard.end()), std::vector<uint8_t>(24, 0xAA));
}
