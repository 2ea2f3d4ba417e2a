/* The command server: request decoding, reply forms and the connection. */
#include <cstring>

#include "binding_helpers.h"
#include "cmd_helpers.h"
#include "dhcpsnoop_nm.h"

namespace {

Bytes req(uint32_t func, uint32_t index, uint32_t cmd, uint8_t type, const Bytes &data,
          int32_t rc = 0)
{
    return cmd_body({func, cmd, {u32_bytes(index)}, type, data, -1, rc});
}

Bytes with(Bytes b, size_t pos, uint8_t v)
{
    b.at(pos) = v;
    return b;
}

class CmdTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        start(4, 8);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    }
    /* Serve one connection whose client sends `input`. */
    FakeConn serve(const Bytes &input, int expectRc)
    {
        sys().finishedConns.clear();
        sys().pendingConns.push_back(FakeConn{input, 0, {}, false});
        EXPECT_EQ(dhcpsnoop_cmd_server(), expectRc);
        EXPECT_EQ(sys().finishedConns.size(), 1u);
        return sys().finishedConns.empty() ? FakeConn{} : sys().finishedConns.back();
    }
};

} // namespace

TEST_F(CmdTest, EveryDecodingFailureIsAnsweredWithNothing)
{
    const Bytes good = req(2, 0, 1, 2, u32_bytes(0));
    Bytes intTruncated = req(7, 5, 2, 2, u32_bytes(0));
    intTruncated.resize(30); /* the index value runs past the body */
    Bytes textPastEnd = req(5, 5, 5, 0, Bytes{'a', 'b', 'c', 'd'});
    textPastEnd.pop_back();
    const struct {
        Bytes body;
        const char *message;
    } cases[] = {
        {Bytes(good.begin(), good.begin() + 25), "lenRx 25 err"},
        {with(good, 0, 0), "decode func word failed"},
        {with(good, 8, 0), "decode ret code word failed"},
        {with(good, 16, 0), "decode command word failed"},
        {with(good, 24, 2), "decode index header failed"},
        {with(good, 25, 1), "func 2 indexNum 1 err"},
        {intTruncated, "decode index failed"},
        {with(good, DATA_POS_INDEX, 4), "decode data charVal 4 err"},
        {req(2, 0, 1, 2, Bytes(3)), "shortVal 3 err, type = 2"},
        {req(2, 0, 1, 4, Bytes(4)), "shortVal 4 err, type = 4"},
        {textPastEnd, ""},
    };
    for (const auto &c : cases) {
        model().debugText.clear();
        EXPECT_TRUE(cmd_run(c.body).empty()) << c.message;
        EXPECT_NE(model().debugText.find(c.message), std::string::npos) << c.message;
    }
    /* no buffer is answered as an empty request (22 bytes); func 23 comes back unchanged */
    EXPECT_EQ(dhcpsnoop_cmd_process(nullptr, 40), 22u);
    Bytes f23 = cmd_body({23, 1, {}, 2, u32_bytes(9), -1, 0x5A5A5A5A});
    EXPECT_EQ(cmd_run(f23), f23);
    EXPECT_NE(model().debugText.find("error func 23 in encode data"), std::string::npos);
}

/* Reads the front end never makes; a value of the wrong data type is refused
 * and the record left alone. */
TEST_F(CmdTest, RepliesAreTheRequestRewrittenByItsDataType)
{
    DhcpsnoopIf *e = enablePort(20);
    e->flags |= ifflag::OPTION82;
    const Bytes z = u32_bytes(0);
    const int32_t bad = DHCPSNOOP_E_INVALID;
    /* an unknown data type gets no value; interface GetFirst gives the index
     * only for data type 2 */
    EXPECT_EQ(cmd_run(req(2, 0, 1, 7, u32_bytes(77))), req(2, 0, 1, 7, u32_bytes(77), bad));
    EXPECT_EQ(cmd_run(req(3, 0, 0, 0, z)), req(3, 0, 0, 0, z));
    /* user GetFirst: the key as three type-0 items */
    DhcpsnoopUserKey key = v4key(10, 0, 0, 7), none{};
    make_user(key, DHCPSNOOP_USER_STATIC, 10, 1);
    const Bytes ufirst = cmd_body({8, 0, key_items(&none.ipType), 0, Bytes(28)});
    EXPECT_EQ(cmd_run(ufirst), answered(ufirst, 0, DATA_POS_USER, 0, key_items(&key.ipType)));
    /* a number where a text belongs, and a text where a number belongs */
    const Bytes big = u32_bytes(0x1000);
    EXPECT_EQ(cmd_run(req(5, 20, 5, 2, big)), req(5, 20, 5, 2, big, bad));
    EXPECT_EQ(cmd_run(req(7, 20, 18, 0, Bytes(4))), req(7, 20, 18, 0, Bytes(4), bad));
    EXPECT_EQ(cmd_run(req(0, 0, 19, 2, z)), req(0, 0, 19, 2, z, bad));
    EXPECT_EQ(e->circuitIdLen, 0);
}

TEST_F(CmdTest, ServerAnswersOneRequestPerConnection)
{
    const Bytes body = req(0, 0, DHCPSNOOP_G_DEBUG, 2, u32_bytes(3));
    EXPECT_EQ(serve(framed(body), 0).output, framed(body));
    EXPECT_EQ(gDhcpsnoop.debugFlags, 3); /* processed, not only echoed */
    const FakeSock *s = sys().sock(sys().closedFds.back());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->options.at({SOL_SOCKET, SO_RCVLOWAT}), 30);

    /* a body of the whole buffer is served */
    CmdReq whole{0, DHCPSNOOP_G_DEBUG, {u32_bytes(0)}, 0, {}};
    whole.data.resize(DHCPSNOOP_CMD_BUF_SIZE - DATA_POS_INDEX - 4);
    EXPECT_EQ(serve(framed(cmd_body(whole)), 0).output.size(), 4 + DHCPSNOOP_CMD_BUF_SIZE);
}

TEST_F(CmdTest, ServerFailuresCloseTheConnection)
{
    /* a rejected request: the length word alone; an empty one: 22 bytes */
    EXPECT_EQ(serve(framed(Bytes(25, 1)), 0).output, u32_bytes(0));
    EXPECT_EQ(serve(u32_bytes(0), 0).output.size(), 26u);
    /* short length word and short body: no reply */
    EXPECT_TRUE(serve(Bytes{1, 0}, -1).output.empty());
    const Bytes one = framed(req(2, 0, 1, 2, u32_bytes(0)));
    EXPECT_TRUE(serve(Bytes(one.begin(), one.end() - 1), -1).output.empty());
    /* longer than the buffer: closed unread */
    FakeConn c = serve(framed(Bytes(DHCPSNOOP_CMD_BUF_SIZE + 1, 0)), -1);
    EXPECT_TRUE(c.output.empty());
    EXPECT_EQ(c.readPos, 4u);
    sys().failCall("sendmsg", 1);
    EXPECT_TRUE(serve(one, -1).closed);
    /* setsockopt refused: nothing is read from a connection without its bounds
     * (a client that stops sending or reading may hold the loop a moment only) */
    for (int opt : {SO_RCVLOWAT, SO_RCVTIMEO, SO_SNDTIMEO}) {
        sys().failCall("setsockopt", 1, opt);
        c = serve(one, -1);
        EXPECT_TRUE(c.output.empty()) << opt;
        EXPECT_EQ(c.readPos, 0u) << opt;
    }
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1); /* nothing to accept */
}

/* The pages of one listing share one connection, which closes after the
 * last: a page that ends the table exactly is the last. */
TEST_F(CmdTest, BindingPagesShareOneConnection)
{
    for (uint8_t a = 1; a <= 4; a++)
        ASSERT_NE(make_user(v4key(10, 0, 0, a), DHCPSNOOP_USER_STATIC, 3, 10), nullptr);
    Bytes in;
    for (uint8_t after : {0, 2, 4}) {
        const DhcpsnoopUserKey k = after ? v4key(10, 0, 0, after) : DhcpsnoopUserKey{};
        Bytes b = framed(cmd_body({22, after ? 1u : 0u, key_items(&k.ipType), 0,
                                   Bytes(DHCPSNOOP_PAGE_HEAD + 2 * DHCPSNOOP_PAGE_RECORD)}));
        in.insert(in.end(), b.begin(), b.end());
    }
    FakeConn c = serve(in, 0);
    EXPECT_TRUE(c.closed);
    EXPECT_EQ(c.readPos, in.size() / 3 * 2); /* the third is never read */
    /* count and more of each reply */
    std::vector<uint32_t> got;
    for (size_t at = 0; at + 4 <= c.output.size(); at += 4 + word(c.output, at))
        for (size_t w : {0, 4})
            got.push_back(word(c.output, at + 4 + DATA_POS_USER + 4 + w));
    EXPECT_EQ(got, (std::vector<uint32_t>{2, 1, 2, 0}));
}
