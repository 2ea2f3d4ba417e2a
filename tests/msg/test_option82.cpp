/* Option 82 and boot options, edited frames compared whole with frames built
 * independently (so lengths and checksums are checked too). */
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "dhcpsnoop_msg.h"
#include "frame6_helpers.h"
#include "frame_helpers.h"
#include "switch_model.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t SVLAN = 0x0123;
const Bytes ENT = {0x00, 0x00, 0x7E, 0xD9}; /* 32473 */
const Bytes MAC = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
/* VLAN, then the low bytes of location words 0, 1, 6 and 2 */
const Bytes GENERATED = {0x01, 0x23, 0x11, 0x22, 0x77, 0x33};

Bytes str(const std::string &s) { return Bytes(s.begin(), s.end()); }

void set_text(uint8_t *dst, uint8_t &len, const std::string &s)
{
    memset(dst, 0, DHCPSNOOP_TEXT_MAX);
    memcpy(dst, s.data(), s.size());
    len = uint8_t(s.size());
}

void set_global(DhcpsnoopOptFmt &fmt, uint16_t mode, const std::string &s)
{
    memset(&fmt, 0, sizeof fmt);
    fmt.mode = mode;
    fmt.len = uint16_t(s.size());
    memcpy(fmt.text, s.data(), s.size());
}

/* A small frame of message type `type` with `opts` before its end option. */
Bytes frame(uint8_t type, const Bytes &opts = {})
{
    Dhcp4Frame f;
    f.msgType(type).options.insert(f.options.end(), opts.begin(), opts.end());
    return f.end().build();
}

/* A REQUEST of `total` bytes that ends in `tail` and its end option. */
Bytes padded(const Bytes &tail, size_t total = 2040)
{
    Dhcp4Frame f;
    f.options.assign(total - 282 - tail.size() - 1, 0);
    f.options[0] = 53, f.options[1] = 1, f.options[2] = 3;
    f.options.insert(f.options.end(), tail.begin(), tail.end());
    return f.end().build();
}

class Option82Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim_model().reset();
        sim_model().hostname = "sw1";
        sim_model().addPort(5, "ge-0/0/5").location = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
        gDhcpsnoop.enterpriseNum = 32473;
        set_global(gDhcpsnoop.circuitIdFmt, 3, "");
        set_global(gDhcpsnoop.remoteIdFmt, 3, "");
        memset(&ifp, 0, sizeof ifp);
        ifp.ifIndex = 5;
        memcpy(ifp.mac, MAC.data(), 6);
        ifp.flags = ifflag::IN_USE | ifflag::OPTION82;
        policy(2);
        ifp.circuitIdFmt = ifp.remoteIdFmt = 3;
        pf = std::make_unique<ParsedFrame>();
    }
    void TearDown() override { gDhcpsnoop.debugFlags = 0; }

    void policy(uint32_t p) { dhcpsnoop_if_set_field(&ifp, ifflag::POLICY_MASK, ifflag::POLICY_SHIFT, p); }
    void parse(const Bytes &f) { ASSERT_EQ(parse_frame(*pf, f, &ifp, SVLAN), 0); }
    bool said(const std::string &m) { return sim_model().debugText.find(m) != std::string::npos; }

    DhcpsnoopIf ifp;
    std::unique_ptr<ParsedFrame> pf;
};

} // namespace

TEST_F(Option82Test, InsertedByModeTextAndFallbackThenStrippedBackToTheOriginal)
{
    const std::string TMPL = "%s.%c.%d:%N";
    struct Side {
        uint8_t mode; /* the interface's; 0: the global one */
        std::string text;
        uint16_t globalMode;
        std::string globalText;
    };
    const Side NONE{1, "", 3, ""};
    const struct {
        Side circuit, remote;
        const char *subopt9; /* null: off; "": the host name */
        Bytes expected;      /* option 82's data; empty: nothing inserted */
    } cases[] = {
        {{3, "", 3, ""}, {3, "", 3, ""}, nullptr,
         cat({{1, 8, 0, 6}, GENERATED, {2, 8, 0, 6}, MAC})},
        {{5, std::string(1, '\0'), 3, ""}, NONE, nullptr, {}},
        {{0, "", 4, "GLOB"}, NONE, nullptr, cat({{1, 6}, GENERATED})},
        /* the interface's own text length decides, the global text is used */
        {{0, "abc", 3, "GLOB"}, NONE, nullptr, cat({{1, 6, 1, 4}, str("GLOB")})},
        {{1, "port7", 3, ""}, NONE, nullptr, {}},
        {{0, "x", 3, std::string(256, 'g')}, NONE, nullptr, {}}, /* 258 bytes cannot be carried */
        {{3, "port7", 3, TMPL}, {3, "abc", 3, "%d"}, nullptr,
         cat({{1, 7, 1, 5}, str("port7"), {2, 5, 1, 3}, str("abc")})},
        {{4, "", 3, TMPL}, {4, "", 3, "%d"}, nullptr, cat({{1, 6}, GENERATED, {2, 6}, MAC})},
        {{4, "port7", 3, TMPL}, {4, "abc", 3, "%d"}, "",
         cat({{1, 5}, str("port7"), {2, 3}, str("abc"), {9, 10}, ENT, {5, 1, 3}, str("sw1")})},
        {NONE, NONE, "abcd", cat({{9, 11}, ENT, {6, 1, 4}, str("abcd")})},
        {{0, "", 5, TMPL}, {0, "", 5, "%d"}, nullptr, cat({{1, 21}, str("291.0."), MAC, str(":ge-0/0/5"), {2, 6}, MAC})},
        {{5, "%N", 3, TMPL}, {5, "%s", 3, "%d"}, nullptr, cat({{1, 8}, str("ge-0/0/5"), {2, 3}, str("291")})},
    };
    const Bytes original = frame(1);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.circuit.mode) << " '" << c.circuit.text << "' "
                                        << int(c.remote.mode) << " '" << c.remote.text << "'");
        ifp.circuitIdFmt = c.circuit.mode;
        ifp.remoteIdFmt = c.remote.mode;
        set_text(ifp.circuitId, ifp.circuitIdLen, c.circuit.text);
        set_text(ifp.remoteId, ifp.remoteIdLen, c.remote.text);
        set_global(gDhcpsnoop.circuitIdFmt, c.circuit.globalMode, c.circuit.globalText);
        set_global(gDhcpsnoop.remoteIdFmt, c.remote.globalMode, c.remote.globalText);
        ifp.flags = c.subopt9 ? ifp.flags | ifflag::SUBOPT9 : ifp.flags & ~ifflag::SUBOPT9;
        set_text(ifp.subopt9, ifp.subopt9Len, c.subopt9 ? c.subopt9 : "");
        parse(original);
        ASSERT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
        if (c.expected.empty()) {
            EXPECT_EQ(pf->bytes(), original);
            continue;
        }
        const Bytes inserted = frame(1, cat({{82, uint8_t(c.expected.size())}, c.expected}));
        EXPECT_EQ(pf->bytes(), inserted);
        parse(inserted);
        dhcpsnoop_strip_option(&pf->info);
        EXPECT_EQ(pf->info.opt82, nullptr);
        EXPECT_EQ(pf->bytes(), original) << "strip undoes the insertion exactly";
    }
}

TEST_F(Option82Test, SubOption9CutsTheHostNameTo128BytesAndNeedsOne)
{
    uint8_t out[137];
    EXPECT_EQ(dhcpsnoop_build_subopt9(out, &ifp, 1), 0u) << "switched off";
    ifp.flags |= ifflag::SUBOPT9;
    sim_model().hostname = std::string(200, 'h');
    uint32_t n = dhcpsnoop_build_subopt9(out, &ifp, 1);
    EXPECT_EQ(Bytes(out, out + n), cat({{9, 135}, ENT, {130, 1, 128}, Bytes(128, 'h')}));
    sim_model().hasHostname = false;
    EXPECT_EQ(dhcpsnoop_build_subopt9(out, &ifp, 1), 0u);
    parse(frame(1));
    pf->info.ifp = nullptr;
    EXPECT_EQ(dhcpsnoop_build_subopt_remoteid(&pf->info, out, sizeof out), 0u) << "no interface";
}

TEST_F(Option82Test, EmptyOversizedOrTooLongOptionIsNotInserted)
{
    struct Case {
        uint8_t mode, remoteMode;
        size_t textLen;
        Bytes original;
        const char *message;
    } cases[] = {
        {0, 0, 0, frame(1), "option82 len (0) is zero or exceeds the max."},
        {3, 3, 128, frame(1), "option82 len (264) is zero or exceeds the max."},
        /* 2049 bytes (no remote-id) */
        {4, 1, 5, padded({}), "Packet len exceeds the max, don't insert option82."},
    };
    set_global(gDhcpsnoop.circuitIdFmt, 0, "");
    set_global(gDhcpsnoop.remoteIdFmt, 0, "");
    for (const auto &c : cases) {
        ifp.circuitIdFmt = c.mode;
        ifp.remoteIdFmt = c.remoteMode;
        set_text(ifp.circuitId, ifp.circuitIdLen, std::string(c.textLen, 'c'));
        set_text(ifp.remoteId, ifp.remoteIdLen, std::string(c.textLen, 'r'));
        parse(c.original);
        EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
        EXPECT_TRUE(said(c.message)) << c.message;
        EXPECT_EQ(pf->bytes(), c.original);
    }
    /* one byte less reaches 2048 exactly */
    set_text(ifp.circuitId, ifp.circuitIdLen, "pppp");
    parse(padded({}));
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
    EXPECT_EQ(pf->info.frameLen, 2048u);
}

TEST_F(Option82Test, PolicyForFramesThatAlreadyCarryOption82)
{
    ifp.flags |= ifflag::SUBOPT9;
    const Bytes relayed = cat({{82, 14, 1, 2, 'c', '1', 9, 8}, ENT, {3, 1, 1, 'x'}});
    const Bytes original = frame(3, relayed);
    /* the vendor block joins the existing sub-option 9 */
    Bytes grown = relayed;
    grown[1] += 10;
    grown[7] += 10;
    const Bytes appended = frame(3, cat({grown, ENT, {5, 1, 3}, str("sw1")}));
    struct Case {
        uint32_t policy, ifMode;
        uint16_t globalMode;
        int result;
        bool appended;
    } cases[] = {
        {0, 3, 3, 0, false}, {1, 3, 3, -1, false}, {2, 4, 3, 0, false}, {3, 5, 3, 0, true},
        {3, 0, 4, 0, true},  {1, 0, 1, 0, false},  {3, 0, 7, 0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "policy " << c.policy << " mode " << c.ifMode);
        policy(c.policy);
        dhcpsnoop_if_set_field(&ifp, ifflag::MODE_MASK, ifflag::MODE_SHIFT, c.ifMode);
        gDhcpsnoop.circuitIdFmt.mode = c.globalMode;
        parse(original);
        EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), c.result);
        EXPECT_EQ(pf->bytes(), c.appended ? appended : original);
    }
}

TEST_F(Option82Test, AppendNeedsSubOption9AndAnEndOptionAndRoom)
{
    ifp.flags |= ifflag::SUBOPT9;
    policy(3);
    const Bytes noSub9 = frame(3, {82, 3, 1, 1, 'c'});
    parse(noSub9);
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
    EXPECT_EQ(pf->bytes(), noSub9);

    Dhcp4Frame open;
    open.msgType(3).opt(82, {9, 0}).options.push_back(0);
    parse(open.build());
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), -1) << "no end option";

    /* at the limit the block is written behind sub-option 9 but the frame
     * keeps its length */
    parse(padded({82, 2, 9, 0}, 2040));
    EXPECT_EQ(dhcpsnoop_append_subopt9(&pf->info), 0);
    EXPECT_EQ(pf->info.frameLen, 2040u);
    EXPECT_EQ(pf->rx.data[16] << 8 | pf->rx.data[17], 2040 - 14);
    EXPECT_EQ(Bytes(pf->rx.data + 2039, pf->rx.data + 2043), ENT);
}

TEST_F(Option82Test, RemoteIdComparisonSkipsTheTypedHeaderAndStaysInTheBuffer)
{
    parse(frame(5, cat({{82, 10, 2, 8, 0, 6}, MAC})));
    EXPECT_EQ(dhcpsnoop_remote_id_cmp(&pf->info, pf->info.remoteId, &ifp, 3), 0);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(&pf->info, pf->info.remoteId, &ifp, 4), 0);
    parse(frame(5, {82, 5, 2, 3, 'a', 'b', 'c'}));
    set_text(ifp.remoteId, ifp.remoteIdLen, "abc");
    EXPECT_EQ(dhcpsnoop_remote_id_cmp(&pf->info, pf->info.remoteId, &ifp, 4), 0);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(&pf->info, pf->info.remoteId, &ifp, 3), 0);

    /* a value that would reach past the buffer is never this switch's */
    memcpy(pf->rx.data + 2044, "\x02\x03" "ab", 4);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(&pf->info, pf->rx.data + 2044, &ifp, 4), 0);
}

TEST_F(Option82Test, StripTakesTheSizeInEightBits)
{
    Bytes long82(256, 0);
    long82[0] = 82, long82[1] = 254, long82[2] = 2, long82[3] = 252;
    const Bytes original = frame(5, long82);
    parse(original);
    dhcpsnoop_strip_option(&pf->info);
    EXPECT_EQ(pf->info.opt82, nullptr);
    EXPECT_EQ(pf->info.frameLen, original.size()) << "254 + 2 is 0 in eight bits";
}

TEST_F(Option82Test, BootOptionsGoBeforeOption82OrInPlaceOfTheEnd)
{
    const Bytes boot = str("boot.bin"), data = {1, 2, 3};
    const Bytes opt67 = cat({{67, 8}, boot}), opt125 = cat({{125, 10}, ENT, {5, 4, 3}, data});
    const Bytes relay = cat({{82, 8, 2, 6}, MAC});

    parse(frame(5));
    dhcpsnoop_insert_opt67(&pf->info, boot.data(), uint32_t(boot.size()));
    dhcpsnoop_insert_opt125(&pf->info, data.data(), uint32_t(data.size()));
    EXPECT_EQ(pf->bytes(), frame(5, cat({opt67, opt125})));
    EXPECT_EQ(pf->info.optEnd, pf->rx.data + pf->info.frameLen - 1);

    parse(frame(5, relay));
    dhcpsnoop_insert_opt125(&pf->info, data.data(), uint32_t(data.size()));
    dhcpsnoop_insert_opt67(&pf->info, boot.data(), uint32_t(boot.size()));
    EXPECT_EQ(pf->bytes(), frame(5, cat({opt125, opt67, relay})));
    EXPECT_EQ(pf->info.opt82[0], 82);
    EXPECT_EQ(pf->info.optEnd[0], 255);
    dhcpsnoop_strip_option(&pf->info);
    EXPECT_EQ(pf->bytes(), frame(5, cat({opt125, opt67})));
}

TEST_F(Option82Test, BootOptionRefusals)
{
    struct Case {
        bool is67;
        size_t len;
        Bytes tail;          /* options before the end option, after message type */
        size_t total;        /* 0: a small frame */
        const char *message; /* null: inserted */
    } cases[] = {
        {true, 0, {}, 0, "option67 len is invalid!"},
        {true, 254, {}, 0, "option67 len is invalid!"},
        {true, 253, {}, 0, nullptr},
        {false, 247, {}, 0, "option125 len is invalid!"},
        {false, 246, {}, 0, nullptr},
        {true, 8, {}, 2040, "Packet len exceeds the max, don't insert option67!"},
        {true, 6, {}, 2040, nullptr},
        {false, 1, {}, 2040, "Packet len exceeds the max, don't insert option125!"},
        /* option 82 to the end of the message: 257 bytes, then 256 */
        {true, 4, cat({{82, 2, 2, 0}, Bytes(252, 0)}), 0,
         "option-82 is not the last option, don't insert option67!"},
        {false, 4, cat({{82, 2, 2, 0}, Bytes(251, 0)}), 0, nullptr},
        {true, 4, {67, 1, 'x'}, 0, ""},
        {false, 4, {125, 1, 'x'}, 0, ""},
    };
    const Bytes payload(253, 'd');
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.is67 ? 67 : 125) << " len " << c.len);
        sim_model().debugText.clear();
        const Bytes original = c.total ? padded(c.tail, c.total) : frame(5, c.tail);
        parse(original);
        if (c.is67)
            dhcpsnoop_insert_opt67(&pf->info, payload.data(), uint32_t(c.len));
        else
            dhcpsnoop_insert_opt125(&pf->info, payload.data(), uint32_t(c.len));
        if (c.message) {
            EXPECT_EQ(pf->bytes(), original);
            EXPECT_TRUE(said(c.message)) << sim_model().debugText;
        } else {
            EXPECT_EQ(pf->info.frameLen, original.size() + c.len + (c.is67 ? 2 : 9));
        }
    }
}
