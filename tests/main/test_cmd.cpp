/* The command server: request decoding, reply forms and the connection. */
#include <cstring>
#include <tuple>

#include "binding_helpers.h"
#include "cmd_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_nm.h"

namespace {

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

Bytes with(Bytes b, size_t pos, uint8_t v)
{
    b.at(pos) = v;
    return b;
}

} // namespace

TEST_F(CmdTest, EveryDecodingFailureIsAnsweredWithNothing)
{
    const Bytes good = global_req(2, 1, 2, u32_bytes(0));
    Bytes intTruncated = index_req(7, 5, 2, 2, u32_bytes(0));
    intTruncated.resize(30); /* the index value runs past the body */
    Bytes textPastEnd = index_req(5, 5, 5, 0, text_bytes("abcd"));
    textPastEnd.resize(textPastEnd.size() - 1);
    const struct {
        const char *what;
        Bytes body;
        const char *message;
    } cases[] = {
        {"25 bytes", Bytes(good.begin(), good.begin() + 25), "lenRx 25 err"},
        {"func tag", with(good, 0, 0), "decode func word failed"},
        {"ret code tag", with(good, 8, 0), "decode ret code word failed"},
        {"cmd tag", with(good, 16, 0), "decode command word failed"},
        {"index header", with(good, 24, 2), "decode index header failed"},
        {"indexNum", with(good, 25, 1), "func 2 indexNum 1 err"},
        {"user key count", cmd_body({8, 0, {u32_bytes(1)}, 0, {}}), "func 8 indexNum 1 err"},
        {"index past end", intTruncated, ""},
        {"data header", with(good, DATA_POS_GLOBAL, 4), "decode data charVal 4 err"},
        {"u32 of 3 bytes", global_req(2, 1, 2, Bytes(3)), "shortVal 3 err, type = 2"},
        {"pair of 4 bytes", global_req(2, 1, 4, Bytes(4)), "shortVal 4 err, type = 4"},
        {"text past end", textPastEnd, ""},
    };
    for (const auto &c : cases) {
        model().debugText.clear();
        EXPECT_TRUE(cmd_run(c.body).empty()) << c.what;
        EXPECT_NE(model().debugText.find(c.message), std::string::npos) << c.what;
    }
    EXPECT_TRUE(model().ifSyncs.empty());
}

TEST_F(CmdTest, OddRequestsKeepTheirAnswers)
{
    /* an empty request is answered with 22 bytes */
    Bytes buf(DHCPSNOOP_CMD_BUF_SIZE);
    EXPECT_EQ(dhcpsnoop_cmd_process(buf.data(), 0), 22u);
    EXPECT_EQ(dhcpsnoop_cmd_process(nullptr, 40), 22u);

    /* func 23 comes back unchanged, result word untouched */
    Bytes f23 = cmd_body({23, 1, {}, 2, u32_bytes(9)}); /* no index for it */
    memset(f23.data() + 12, 0x5A, 4);
    EXPECT_EQ(cmd_run(f23), f23);
    EXPECT_NE(model().debugText.find("error func 23 in encode data"), std::string::npos);
}

TEST_F(CmdTest, ReplyFormsFollowTheRequestsDataType)
{
    enablePort(20);
    enablePort(10);
    gDhcpsnoop.globalEnable = 1;

    /* a read answers over its data item, with the request's length */
    Bytes get = global_req(2, DHCPSNOOP_G_ENABLE, 2, u32_bytes(77));
    Bytes reply = cmd_run(get);
    ASSERT_EQ(reply.size(), get.size());
    EXPECT_EQ(reply_result(reply), 0);
    EXPECT_EQ(reply_item(reply, DATA_POS_GLOBAL).value, u32_bytes(1));

    /* an unknown data type: the result word and no data */
    Bytes odd = global_req(2, DHCPSNOOP_G_ENABLE, 7, u32_bytes(77));
    reply = cmd_run(odd);
    EXPECT_NE(reply_result(reply), 0);
    EXPECT_TRUE(std::equal(reply.begin() + 16, reply.end(), odd.begin() + 16));

    /* interface GetFirst: the index only for data type 2 */
    Bytes first = index_req(3, 0, 0, 0, u32_bytes(0));
    reply = cmd_run(first);
    EXPECT_EQ(reply_result(reply), 0);
    EXPECT_TRUE(std::equal(reply.begin() + 16, reply.end(), first.begin() + 16));
    reply = cmd_run(index_req(4, 10, 0, 2, u32_bytes(0)));
    EXPECT_EQ(reply_item(reply, DATA_POS_INDEX).value, u32_bytes(20));
    EXPECT_EQ(reply_result(cmd_run(index_req(4, 20, 0, 2, u32_bytes(0)))), -1);

    /* user GetFirst: the key as three type-0 items */
    make_user(v4key(10, 0, 0, 7), DHCPSNOOP_USER_STATIC, 10, 1);
    reply = cmd_run(user_req(8, DhcpsnoopUserKey{}, 0, 0, Bytes(28)));
    EXPECT_EQ(reply_result(reply), 0);
    EXPECT_EQ(reply_item(reply, DATA_POS_USER).value, Bytes{1});
    EXPECT_EQ(reply_item(reply, DATA_POS_USER + 5).value, Bytes(3));
    Bytes addr(16);
    addr[0] = 10, addr[3] = 7;
    EXPECT_EQ(reply_item(reply, DATA_POS_USER + 12).value, addr);

    /* server-ip GetFirst: always two type-2 words */
    dhcpsnoop_if_lookup(20)->serverIp[1] = 0x0A000001;
    reply = cmd_run(server_req(17, 0, 0, 1, 0, Bytes(12))); /* room for both items */
    EXPECT_EQ(reply_item(reply, DATA_POS_SERVER).type, 2);
    EXPECT_EQ(reply_item(reply, DATA_POS_SERVER).value, u32_bytes(20));
    EXPECT_EQ(reply_item(reply, DATA_POS_SERVER + 8).value, u32_bytes(0x0A000001));
}

TEST_F(CmdTest, TextsTravelInPlaceAndMismatchedValuesAreRefused)
{
    DhcpsnoopIf *e = enablePort(5);
    e->flags |= ifflag::OPTION82;
    e->circuitIdFmt = 0;
    EXPECT_EQ(reply_result(cmd_run(index_req(5, 5, 5, 0, text_bytes("port-5")))), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(e->circuitId), e->circuitIdLen), "port-5");

    Bytes reply = cmd_run(index_req(7, 5, 5, 0, Bytes(10, 'x')));
    EXPECT_EQ(reply_result(reply), 0);
    EXPECT_EQ(reply_item(reply, DATA_POS_INDEX).value, text_bytes("port-5"));

    /* a number where a text belongs, and a text where a number belongs */
    EXPECT_EQ(reply_result(cmd_run(index_req(5, 5, 5, 2, u32_bytes(0x1000)))),
              DHCPSNOOP_E_INVALID);
    EXPECT_EQ(reply_result(cmd_run(index_req(7, 5, 18, 0, Bytes(4)))), DHCPSNOOP_E_INVALID);
    EXPECT_EQ(reply_result(cmd_run(global_req(0, DHCPSNOOP_G_SYNC_PKT, 2, u32_bytes(1)))),
              DHCPSNOOP_E_INVALID);
    EXPECT_EQ(e->circuitIdLen, 6);
}

TEST_F(CmdTest, ServerAnswersOneRequestPerConnection)
{
    const Bytes body = global_req(0, DHCPSNOOP_G_DEBUG, 2, u32_bytes(3));
    FakeConn c = serve(framed(body), 0);
    EXPECT_TRUE(c.closed);
    EXPECT_EQ(gDhcpsnoop.debugFlags, 3);
    ASSERT_EQ(c.output.size(), 4 + body.size());
    EXPECT_EQ(Bytes(c.output.begin(), c.output.begin() + 4), u32_bytes(uint32_t(body.size())));
    EXPECT_EQ(reply_result(Bytes(c.output.begin() + 4, c.output.end())), 0);
    const FakeSock *s = sys().sock(sys().closedFds.back());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->options.at({SOL_SOCKET, SO_RCVLOWAT}), 30);
    /* a client that stops sending or reading holds the loop a moment only */
    EXPECT_EQ(s->options.count({SOL_SOCKET, SO_RCVTIMEO}), 1u);
    EXPECT_EQ(s->options.count({SOL_SOCKET, SO_SNDTIMEO}), 1u);
}

TEST_F(CmdTest, ServerFailuresCloseTheConnection)
{
    /* a rejected request: the length word alone */
    EXPECT_EQ(serve(framed(Bytes(25, 1)), 0).output, u32_bytes(0));
    /* an empty request: 22 bytes of the buffer */
    EXPECT_EQ(serve(u32_bytes(0), 0).output.size(), 26u);
    /* short length word and short body: no reply */
    EXPECT_TRUE(serve(Bytes{1, 0}, -1).output.empty());
    Bytes shortBody = framed(global_req(2, 1, 2, u32_bytes(0)));
    shortBody.pop_back();
    EXPECT_TRUE(serve(shortBody, -1).output.empty());
    /* longer than the buffer: closed unread */
    Bytes huge = framed(Bytes(DHCPSNOOP_CMD_BUF_SIZE + 1, 0));
    FakeConn c = serve(huge, -1);
    EXPECT_TRUE(c.output.empty());
    EXPECT_EQ(c.readPos, 4u);
    /* a refused send */
    sys().failCall("sendmsg", 1);
    c = serve(framed(global_req(2, 1, 2, u32_bytes(0))), -1);
    EXPECT_TRUE(c.closed);
    /* setsockopt refused: nothing is read from a connection without its bounds */
    for (int opt : {SO_RCVLOWAT, SO_RCVTIMEO, SO_SNDTIMEO}) {
        sys().failCall("setsockopt", 1, opt);
        c = serve(framed(global_req(2, 1, 2, u32_bytes(0))), -1);
        EXPECT_TRUE(c.output.empty()) << opt;
        EXPECT_EQ(c.readPos, 0u) << opt;
    }
    /* nothing to accept */
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
}

TEST_F(CmdTest, BodyOfTheWholeBufferIsServed)
{
    CmdReq r{0, DHCPSNOOP_G_DEBUG, {u32_bytes(0)}, 0, {}, 0};
    r.data.resize(DHCPSNOOP_CMD_BUF_SIZE - DATA_POS_GLOBAL - 4);
    const Bytes body = cmd_body(r);
    ASSERT_EQ(body.size(), DHCPSNOOP_CMD_BUF_SIZE);
    FakeConn c = serve(framed(body), 0);
    EXPECT_EQ(c.output.size(), 4 + body.size());
}

/* Func 22 answers pages of bindings in key order, source-guard bindings left
 * out, filtered by port and VLAN; the pages of one listing share one
 * connection, which closes after the last. */
TEST_F(CmdTest, BindingPagesFollowKeyOrderOnOneConnection)
{
    const Mac mac = {2, 0, 0, 0, 0, 7};
    DhcpsnoopUserKey v6 = v6key({0x20, 0x01, 0x0d, 0xb8});
    for (auto [key, type, port, vid] :
         {std::tuple{v4key(10, 0, 0, 9), DHCPSNOOP_USER_STATIC, 3u, 10},
          {v6, DHCPSNOOP_USER_STATIC, 3u, 10}, {v4key(10, 0, 0, 2), DHCPSNOOP_USER_DYNAMIC, 3u, 10},
          {v4key(10, 0, 0, 5), DHCPSNOOP_USER_IPSG, 3u, 10},
          {v4key(192, 0, 2, 1), DHCPSNOOP_USER_DYNAMIC, 4u, 20},
          {v4key(10, 0, 0, 3), DHCPSNOOP_USER_DYNAMIC, 3u, 10}})
        ASSERT_NE(make_user(key, type, port, uint16_t(vid), mac), nullptr);
    auto page = [](const DhcpsnoopUserKey *after, uint32_t port, uint32_t vid) {
        Bytes room(DHCPSNOOP_PAGE_HEAD + 2 * DHCPSNOOP_PAGE_RECORD);
        memcpy(room.data(), &port, 4);
        memcpy(room.data() + 4, &vid, 4);
        return user_req(22, after ? *after : DhcpsnoopUserKey{}, after ? 1 : 0, 0, room);
    };
    /* the keys of a reply's records, and its more flag */
    auto keys = [](const Bytes &reply) {
        Bytes v = reply_item(reply, DATA_POS_USER).value;
        std::vector<Bytes> out;
        uint32_t n = 0, more = 0;
        memcpy(&n, v.data(), 4);
        memcpy(&more, v.data() + 4, 4);
        for (uint32_t i = 0; i < n; i++)
            out.emplace_back(v.begin() + 8 + 48 * i, v.begin() + 8 + 48 * i + 20);
        return std::pair{out, more};
    };
    auto key = [](const DhcpsnoopUserKey &k) { return Bytes(&k.ipType, &k.ipType + 20); };
    DhcpsnoopUserKey k3 = v4key(10, 0, 0, 3), k192 = v4key(192, 0, 2, 1);

    Bytes in = framed(page(nullptr, 0, 0));
    for (const Bytes &b : {framed(page(&k3, 0, 0)), framed(page(&k192, 0, 0))})
        in.insert(in.end(), b.begin(), b.end());
    const size_t used = in.size();
    Bytes next = framed(page(&v6, 0, 0)); /* never read: the listing ended */
    in.insert(in.end(), next.begin(), next.end());
    FakeConn c = serve(in, 0);
    EXPECT_TRUE(c.closed);
    EXPECT_EQ(c.readPos, used);
    std::vector<std::pair<std::vector<Bytes>, uint32_t>> got;
    for (size_t at = 0; at + 4 <= c.output.size();) {
        uint32_t len = 0;
        memcpy(&len, c.output.data() + at, 4);
        got.push_back(keys(Bytes(c.output.begin() + at + 4, c.output.begin() + at + 4 + len)));
        at += 4 + len;
    }
    using P = std::pair<std::vector<Bytes>, uint32_t>;
    EXPECT_EQ(got, (std::vector<P>{{{key(v4key(10, 0, 0, 2)), key(k3)}, 1},
                                   {{key(v4key(10, 0, 0, 9)), key(k192)}, 1},
                                   {{key(v6)}, 0}}));

    /* filters; a page that ends the table exactly is the last */
    EXPECT_EQ(keys(cmd_run(page(nullptr, 0, 20))), (P{{key(k192)}, 0}));
    EXPECT_EQ(keys(cmd_run(page(&k3, 3, 0))), (P{{key(v4key(10, 0, 0, 9)), key(v6)}, 0}));
    /* a record: key, port, lease, elapsed (a dynamic lease that ran out reads
     * as the lease), vid, attribute, MAC, type, state */
    Bytes r = reply_item(cmd_run(page(nullptr, 4, 0)), DATA_POS_USER).value;
    const Bytes rec(r.begin() + 8 + 20, r.begin() + 8 + 44);
    Bytes want = u32_bytes(4);
    const uint16_t vid = 20; /* host order, then a 16-bit attribute of 0 */
    uint8_t vb[2];
    memcpy(vb, &vid, 2);
    for (const Bytes &b : {u32_bytes(3600), u32_bytes(3600), Bytes{vb[0], vb[1], 0, 0},
                           Bytes(mac.begin(), mac.end()),
                           Bytes{DHCPSNOOP_USER_DYNAMIC, DHCPSNOOP_BIND_BOUND}})
        want.insert(want.end(), b.begin(), b.end());
    EXPECT_EQ(rec, want);
}
