/* The management codec: no call reads or writes past the end of its buffer. */
#include <gtest/gtest.h>

#include <vector>

#include "dhcpsnoop_adr.h"

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
    EXPECT_EQ(std::vector<uint8_t>(guard.begin(), guard.begin() + 8),
              std::vector<uint8_t>(8, 0xAA));
    EXPECT_EQ(std::vector<uint8_t>(guard.begin() + 16, guard.end()),
              std::vector<uint8_t>(24, 0xAA));
}
