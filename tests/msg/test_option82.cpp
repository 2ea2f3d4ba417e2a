/* Option 82 and boot options: construction in modes 3, 4 and 5, the policy
 * for frames that already carry option 82, sub-option 9, stripping, options
 * 67 and 125, and the 2048-byte limit.  Every edited frame is parsed again
 * and its lengths and checksums are verified independently. */
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "dhcpsnoop_msg.h"
#include "frame_helpers.h"
#include "switch_model.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t SVLAN = 0x0123;
const Bytes ENT = {0x00, 0x00, 0x7E, 0xD9}; /* 32473 */
const Bytes MAC = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
/* VLAN, then the low bytes of location words 0, 1, 6 and 2 */
const Bytes GENERATED = {0x01, 0x23, 0x11, 0x22, 0x77, 0x33};

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
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
        again = std::make_unique<ParsedFrame>();
    }
    void TearDown() override { gDhcpsnoop.debugFlags = 0; }

    void policy(uint32_t p) { dhcpsnoop_if_set_field(&ifp, ifflag::POLICY_MASK, ifflag::POLICY_SHIFT, p); }
    void parse(const Bytes &frame) { ASSERT_EQ(parse_frame(*pf, frame, &ifp, SVLAN), 0); }
    /* The edited frame, parsed afresh with checksums and lengths verified. */
    const DhcpsnoopPktInfo &reparse()
    {
        Bytes now = pf->bytes();
        EXPECT_EQ(dhcp4_ip_total(now.data(), 14) + 14u, now.size());
        EXPECT_TRUE(ipv4_checksum_ok(now.data(), 14));
        EXPECT_TRUE(udp4_checksum_ok(now.data(), 14));
        EXPECT_EQ(parse_frame(*again, now, &ifp, SVLAN), 0);
        return again->info;
    }
    std::vector<Dhcp4Option> options() { return dhcp4_options(pf->rx.data, pf->info.frameLen, 14); }
    static Bytes discover() { return Dhcp4Frame().msgType(1).end().build(); }
    /* A 2040-byte REQUEST that ends in `tail` (and its end option). */
    static Bytes padded(const Bytes &tail, size_t total = 2040)
    {
        Dhcp4Frame f;
        f.options.assign(total - 282 - tail.size() - 1, 0);
        f.options[0] = 53, f.options[1] = 1, f.options[2] = 3;
        f.options.insert(f.options.end(), tail.begin(), tail.end());
        f.end();
        return f.build();
    }
    bool said(const std::string &m) { return sim_model().debugText.find(m) != std::string::npos; }

    DhcpsnoopIf ifp;
    std::unique_ptr<ParsedFrame> pf, again;
};

struct BuildCase {
    uint8_t ifMode;
    std::string ifText;
    uint16_t globalMode;
    std::string globalText;
    Bytes expected; /* the whole sub-option, or empty when none is built */
};

} // namespace

TEST_F(Option82Test, CircuitIdByModeTextAndFallback)
{
    const BuildCase cases[] = {
        {3, "", 3, "", cat({{1, 8, 0, 6}, GENERATED})},
        {4, "", 3, "", cat({{1, 6}, GENERATED})},
        {3, "port7", 3, "", cat({{1, 7, 1, 5}, str("port7")})},
        {4, "port7", 3, "", cat({{1, 5}, str("port7")})},
        {5, "%s/%c", 3, "", cat({{1, 5}, str("291/0")})},
        {5, std::string(1, '\0'), 3, "", {}},
        {0, "", 4, "GLOB", cat({{1, 6}, GENERATED})},
        /* the interface's own text length decides, the global text is used */
        {0, "abc", 3, "GLOB", cat({{1, 6, 1, 4}, str("GLOB")})},
        {0, "", 5, "%l", {1, 1, '0'}},
        {1, "port7", 3, "", {}},
        {0, "", 3, std::string(256, 'g'), cat({{1, 8, 0, 6}, GENERATED})},
        {0, "x", 3, std::string(256, 'g'), {}}, /* 258 bytes cannot be carried */
    };
    parse(discover());
    for (const auto &c : cases) {
        ifp.circuitIdFmt = c.ifMode;
        set_text(ifp.circuitId, ifp.circuitIdLen, c.ifText);
        set_global(gDhcpsnoop.circuitIdFmt, c.globalMode, c.globalText);
        uint8_t out[300];
        uint32_t n = dhcpsnoop_build_subopt_circid(&pf->info, out, sizeof out);
        EXPECT_EQ(Bytes(out, out + n), c.expected) << int(c.ifMode) << " '" << c.ifText << "'";
    }
}

TEST_F(Option82Test, RemoteIdByMode)
{
    const BuildCase cases[] = {
        {3, "", 3, "", cat({{2, 8, 0, 6}, MAC})},
        {4, "", 3, "", cat({{2, 6}, MAC})},
        {4, "abc", 3, "", cat({{2, 3}, str("abc")})},
        {0, "", 5, "%d", cat({{2, 6}, MAC})},
    };
    parse(discover());
    for (const auto &c : cases) {
        ifp.remoteIdFmt = c.ifMode;
        set_text(ifp.remoteId, ifp.remoteIdLen, c.ifText);
        set_global(gDhcpsnoop.remoteIdFmt, c.globalMode, c.globalText);
        uint8_t out[300];
        uint32_t n = dhcpsnoop_build_subopt_remoteid(&pf->info, out, sizeof out);
        EXPECT_EQ(Bytes(out, out + n), c.expected) << int(c.ifMode);
    }
    /* a sub-option that does not fit the room is not built */
    uint8_t out[7];
    EXPECT_EQ(dhcpsnoop_build_subopt_remoteid(&pf->info, out, sizeof out), 0u);
}

TEST_F(Option82Test, SubOption9CarriesTextOrHostName)
{
    uint8_t out[137];
    EXPECT_EQ(dhcpsnoop_build_subopt9(out, &ifp, 1), 0u) << "switched off";
    ifp.flags |= ifflag::SUBOPT9;
    EXPECT_EQ(dhcpsnoop_build_subopt9(out, nullptr, 1), 0u);

    uint32_t n = dhcpsnoop_build_subopt9(out, &ifp, 1);
    EXPECT_EQ(Bytes(out, out + n), cat({{9, 10}, ENT, {5, 1, 3}, str("sw1")}));
    set_text(ifp.subopt9, ifp.subopt9Len, "abcd");
    n = dhcpsnoop_build_subopt9(out, &ifp, 0);
    EXPECT_EQ(Bytes(out, out + n), cat({ENT, {6, 1, 4}, str("abcd")}));

    set_text(ifp.subopt9, ifp.subopt9Len, "");
    sim_model().hostname = std::string(200, 'h');
    n = dhcpsnoop_build_subopt9(out, &ifp, 1);
    ASSERT_EQ(n, 137u);
    EXPECT_EQ(out[1], 135);
    EXPECT_EQ(out[8], 128);
    sim_model().hasHostname = false;
    EXPECT_EQ(dhcpsnoop_build_subopt9(out, &ifp, 1), 0u);
}

TEST_F(Option82Test, InsertedInEachModeThenStrippedBackToTheOriginal)
{
    struct Case {
        const char *name;
        uint8_t mode;
        std::string circuit, remote;
        uint16_t globalMode;
        bool subopt9;
        Bytes expected; /* option 82's data */
    } cases[] = {
        {"typed generated", 3, "", "", 3, false,
         cat({{1, 8, 0, 6}, GENERATED, {2, 8, 0, 6}, MAC})},
        {"typed texts", 3, "port7", "abc", 3, false,
         cat({{1, 7, 1, 5}, str("port7"), {2, 5, 1, 3}, str("abc")})},
        {"raw generated", 4, "", "", 3, false, cat({{1, 6}, GENERATED, {2, 6}, MAC})},
        {"raw texts with host name", 4, "port7", "abc", 3, true,
         cat({{1, 5}, str("port7"), {2, 3}, str("abc"), {9, 10}, ENT, {5, 1, 3}, str("sw1")})},
        {"global templates", 0, "", "", 5, false,
         cat({{1, 21}, str("291.0."), MAC, str(":ge-0/0/5"), {2, 6}, MAC})},
        {"interface templates", 5, "%N", "%s", 3, false,
         cat({{1, 8}, str("ge-0/0/5"), {2, 3}, str("291")})},
    };
    const Bytes original = discover();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ifp.circuitIdFmt = ifp.remoteIdFmt = c.mode;
        set_text(ifp.circuitId, ifp.circuitIdLen, c.circuit);
        set_text(ifp.remoteId, ifp.remoteIdLen, c.remote);
        set_global(gDhcpsnoop.circuitIdFmt, c.globalMode, "%s.%c.%d:%N");
        set_global(gDhcpsnoop.remoteIdFmt, c.globalMode, "%d");
        if (c.subopt9)
            ifp.flags |= ifflag::SUBOPT9;
        parse(original);
        ASSERT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
        EXPECT_EQ(pf->info.frameLen, original.size() + 2 + c.expected.size());
        auto opts = options();
        ASSERT_EQ(opts.size(), 3u);
        EXPECT_EQ(opts[1], (Dhcp4Option{82, c.expected}));
        EXPECT_EQ(opts[2].code, 255);

        const DhcpsnoopPktInfo &re = reparse();
        ASSERT_NE(re.opt82, nullptr);
        ASSERT_EQ(re.circuitId, re.opt82 + 2);
        EXPECT_EQ(re.remoteId, re.circuitId + 2 + re.circuitId[1]);
        EXPECT_EQ(re.subopt9 != nullptr, c.subopt9);
        dhcpsnoop_strip_option(&again->info);
        EXPECT_EQ(again->info.opt82, nullptr);
        EXPECT_EQ(again->bytes(), original) << "strip undoes the insertion exactly";
        ifp.flags &= ~ifflag::SUBOPT9;
    }
}

TEST_F(Option82Test, EmptyOrOversizedOptionIsNotInserted)
{
    const Bytes original = discover();
    ifp.circuitIdFmt = ifp.remoteIdFmt = 0;
    set_global(gDhcpsnoop.circuitIdFmt, 0, "");
    set_global(gDhcpsnoop.remoteIdFmt, 0, "");
    parse(original);
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
    EXPECT_TRUE(said("option82 len (0) is zero or exceeds the max."));
    EXPECT_EQ(pf->bytes(), original);

    ifp.circuitIdFmt = ifp.remoteIdFmt = 3;
    set_text(ifp.circuitId, ifp.circuitIdLen, std::string(128, 'c'));
    set_text(ifp.remoteId, ifp.remoteIdLen, std::string(128, 'r'));
    parse(original);
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
    EXPECT_TRUE(said("option82 len (264) is zero or exceeds the max."));
    EXPECT_EQ(pf->bytes(), original);
}

TEST_F(Option82Test, FrameNeverGrowsBeyond2048)
{
    ifp.circuitIdFmt = 4;
    ifp.remoteIdFmt = 1; /* no remote-id */
    for (size_t textLen : {4u, 5u}) {
        set_text(ifp.circuitId, ifp.circuitIdLen, std::string(textLen, 'p'));
        sim_model().debugText.clear();
        const Bytes original = padded({});
        parse(original);
        EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
        if (textLen == 4) {
            EXPECT_EQ(pf->info.frameLen, 2048u);
            reparse();
        } else {
            EXPECT_TRUE(said("Packet len exceeds the max, don't insert option82."));
            EXPECT_EQ(pf->bytes(), original);
        }
    }
}

TEST_F(Option82Test, PolicyForFramesThatAlreadyCarryOption82)
{
    ifp.flags |= ifflag::SUBOPT9;
    const Bytes relayed = cat({{82, 14, 1, 2, 'c', '1', 9, 8}, ENT, {3, 1, 1, 'x'}});
    const Bytes original = Dhcp4Frame().msgType(3).opt(82, Bytes(relayed.begin() + 2, relayed.end())).end().build();
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
        if (!c.appended) {
            EXPECT_EQ(pf->bytes(), original);
            continue;
        }
        /* the vendor block joins the existing sub-option 9 */
        Bytes grown = relayed;
        grown[1] += 10;
        grown[7] += 10;
        grown = cat({grown, ENT, {5, 1, 3}, str("sw1")});
        EXPECT_EQ(options()[1], (Dhcp4Option{82, Bytes(grown.begin() + 2, grown.end())}));
        EXPECT_NE(reparse().optEnd, nullptr);
    }
}

TEST_F(Option82Test, AppendNeedsSubOption9AndAnEndOptionAndRoom)
{
    ifp.flags |= ifflag::SUBOPT9;
    policy(3);
    const Bytes noSub9 = Dhcp4Frame().msgType(3).opt(82, {1, 1, 'c'}).end().build();
    parse(noSub9);
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), 0);
    EXPECT_EQ(pf->bytes(), noSub9);

    Dhcp4Frame open;
    open.msgType(3).opt(82, {9, 0}).options.push_back(0);
    parse(open.build());
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), -1) << "no end option";

    EXPECT_EQ(dhcpsnoop_process_option82(nullptr), -1);
    pf->info.ifp = nullptr;
    EXPECT_EQ(dhcpsnoop_process_option82(&pf->info), -1);

    /* at the limit the block is written behind sub-option 9 but the frame
     * keeps its length */
    const Bytes full = padded({82, 2, 9, 0}, 2040);
    parse(full);
    EXPECT_EQ(dhcpsnoop_append_subopt9(&pf->info), 0);
    EXPECT_EQ(pf->info.frameLen, 2040u);
    EXPECT_EQ(dhcp4_ip_total(pf->rx.data, 14), 2040u - 14);
    EXPECT_EQ(Bytes(pf->rx.data + 2039, pf->rx.data + 2043), ENT);
}

TEST_F(Option82Test, RemoteIdComparisonSkipsTheTypedHeaderAndStaysInTheBuffer)
{
    parse(Dhcp4Frame().msgType(5).opt(82, cat({{2, 8, 0, 6}, MAC})).end().build());
    const uint8_t *rid = pf->info.remoteId;
    ASSERT_NE(rid, nullptr);
    EXPECT_EQ(dhcpsnoop_remote_id_cmp(&pf->info, rid, &ifp, 3), 0);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(&pf->info, rid, &ifp, 4), 0);

    parse(Dhcp4Frame().msgType(5).opt(82, cat({{2, 3}, str("abc")})).end().build());
    set_text(ifp.remoteId, ifp.remoteIdLen, "abc");
    EXPECT_EQ(dhcpsnoop_remote_id_cmp(&pf->info, pf->info.remoteId, &ifp, 4), 0);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(&pf->info, pf->info.remoteId, &ifp, 3), 0);

    /* a value that would reach past the buffer is never this switch's */
    memcpy(pf->rx.data + 2044, "\x02\x03" "ab", 4);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(&pf->info, pf->rx.data + 2044, &ifp, 4), 0);
}

TEST_F(Option82Test, StripTakesTheSizeInEightBits)
{
    Bytes long82(254, 0);
    long82[0] = 2, long82[1] = 252;
    const Bytes original = Dhcp4Frame().msgType(5).opt(82, long82).end().build();
    parse(original);
    dhcpsnoop_strip_option(&pf->info);
    EXPECT_EQ(pf->info.opt82, nullptr);
    EXPECT_EQ(pf->info.frameLen, original.size()) << "254 + 2 is 0 in eight bits";
}

TEST_F(Option82Test, BootOptionsGoBeforeOption82OrInPlaceOfTheEnd)
{
    const Bytes boot = str("boot.bin");
    const Bytes data = {1, 2, 3};
    const Dhcp4Option opt67{67, boot};
    const Dhcp4Option opt125{125, cat({ENT, {5, 4, 3}, data})};

    parse(Dhcp4Frame().msgType(5).end().build());
    dhcpsnoop_insert_opt67(&pf->info, boot.data(), uint32_t(boot.size()));
    dhcpsnoop_insert_opt125(&pf->info, data.data(), uint32_t(data.size()));
    EXPECT_EQ(options(), (std::vector<Dhcp4Option>{{53, {5}}, opt67, opt125, {255, {}}}));
    EXPECT_EQ(pf->info.optEnd, pf->rx.data + pf->info.frameLen - 1);
    reparse();

    const Dhcp4Option relay{82, cat({{2, 6}, MAC})};
    parse(Dhcp4Frame().msgType(5).opt(82, relay.data).end().build());
    dhcpsnoop_insert_opt125(&pf->info, data.data(), uint32_t(data.size()));
    dhcpsnoop_insert_opt67(&pf->info, boot.data(), uint32_t(boot.size()));
    EXPECT_EQ(options(), (std::vector<Dhcp4Option>{{53, {5}}, opt125, opt67, relay, {255, {}}}));
    EXPECT_EQ(pf->info.opt82[0], 82);
    EXPECT_EQ(pf->info.optEnd[0], 255);
    reparse();
    dhcpsnoop_strip_option(&pf->info);
    EXPECT_EQ(options(), (std::vector<Dhcp4Option>{{53, {5}}, opt125, opt67, {255, {}}}));
    reparse();
}

TEST_F(Option82Test, BootOptionRefusals)
{
    struct Case {
        bool is67;
        size_t len;
        Bytes tail; /* options before the end option, after message type */
        size_t total; /* 0: a small frame */
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
        Bytes original;
        if (c.total) {
            original = padded(c.tail, c.total);
        } else {
            Dhcp4Frame f;
            f.msgType(5).options.insert(f.options.end(), c.tail.begin(), c.tail.end());
            original = f.end().build();
        }
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
            reparse();
        }
    }
}
