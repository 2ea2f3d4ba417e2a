/*
 * dhcpsnoopctl: the requests it builds, how it reads replies and maps result
 * codes, its bounded socket exchange, its usage errors, and the front end
 * against the daemon's own command server.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_daemon_helpers.h"
#include "cmd_helpers.h"
#include "dhcpsnoop.h"
#include "dhcpsnoop_adr.h"
#include "dhcpsnoop_sys.h"
#include "dhcpsnoopctl.h"
#include "switch_model.h"

using namespace dhcpsnoopctl;

namespace {

/* A request taken apart by the documented layout. */
struct Decoded {
    uint32_t func = 0, cmd = 0;
    int32_t rc = 0;
    uint8_t indexNum = 0;
    std::vector<Bytes> index;
    uint32_t dataPos = 0;
    uint8_t dataType = 0xFF;
    Bytes data;
    uint32_t len = 0;

    uint32_t u32(size_t item) const
    {
        uint32_t v = 0;
        if (item < index.size() && index[item].size() == 4)
            memcpy(&v, index[item].data(), 4);
        return v;
    }
    uint32_t value() const
    {
        uint32_t v = 0;
        if (data.size() == 4)
            memcpy(&v, data.data(), 4);
        return v;
    }
    Bytes key() const
    {
        Bytes k;
        for (auto &i : index)
            k.insert(k.end(), i.begin(), i.end());
        return k;
    }
};

Decoded decode(const uint8_t *p, uint32_t len)
{
    Decoded d;
    Bytes copy(p, p + len);
    AdrBuf a;
    adr_start(&a, copy.data(), len);
    d.len = len;
    EXPECT_EQ(adr_decodefunc(&a, &d.func), 0);
    EXPECT_EQ(adr_decoderetcode(&a, &d.rc), 0);
    EXPECT_EQ(adr_decodecmd(&a, &d.cmd), 0);
    uint8_t hdr = 0;
    EXPECT_TRUE(adr_getchar(&a, &hdr, 1));
    EXPECT_EQ(hdr, ADR_INDEX_HEADER);
    EXPECT_TRUE(adr_getchar(&a, &d.indexNum, 1));
    /* Index items run until the data header. */
    while (adr_count(&a) < len && copy[adr_count(&a)] == ADR_ITEM_INDEX) {
        uint8_t ih[3];
        if (!adr_getchar(&a, ih, 3)) {
            ADD_FAILURE() << "truncated index item";
            return d;
        }
        Bytes v(ih[2]);
        if (ih[2] && !adr_getchar(&a, v.data(), ih[2])) {
            ADD_FAILURE() << "truncated index value";
            return d;
        }
        d.index.push_back(v);
    }
    d.dataPos = adr_count(&a);
    uint16_t dlen = 0;
    EXPECT_TRUE(adr_getchar(&a, &hdr, 1));
    EXPECT_EQ(hdr, ADR_DATA_HEADER);
    EXPECT_TRUE(adr_getchar(&a, &d.dataType, 1));
    EXPECT_EQ(adr_getushort(&a, &dlen), 0);
    d.data.resize(dlen);
    if (dlen) {
        EXPECT_TRUE(adr_getchar(&a, d.data.data(), dlen));
    }
    EXPECT_EQ(adr_count(&a), len) << "bytes after the data item";
    return d;
}

/* What the scripted daemon answers: a result and the data items written
 * where the request's data item was, as the daemon does. */
struct Answer {
    int32_t rc = 0;
    std::vector<std::pair<uint8_t, Bytes>> items;
};

Answer value(uint32_t v) { return Answer{0, {{DT_U32, u32_bytes(v)}}}; }
Answer fail(int32_t rc) { return Answer{rc, {}}; }

Bytes reply_for(const uint8_t *req, uint32_t len, const Answer &ans)
{
    Decoded d = decode(req, len);
    Bytes body(req, req + len);
    memcpy(body.data() + 12, &ans.rc, 4);
    AdrBuf a;
    adr_start(&a, body.data(), len);
    adr_pos(&a, d.dataPos);
    for (auto &[type, bytes] : ans.items)
        EXPECT_EQ(adr_encodedata(&a, type, uint16_t(bytes.size()), bytes.data()), 0)
            << "the request of func " << d.func << " left no room for its answer";
    return body;
}

/* A default answer: success, with a zero value of the form asked for. */
Answer plain_answer(const Decoded &d)
{
    switch (d.func) {
    case F_IF_FIRST: case F_IF_NEXT: case F_USER_FIRST: case F_USER_NEXT:
    case F_VLAN_FIRST: case F_VLAN_NEXT: case F_SERVER_FIRST: case F_SERVER_NEXT:
        return fail(-1);
    default:
        break;
    }
    if (d.func == F_USER_PAGE) /* an empty last page */
        return Answer{0, {{DT_BYTES, Bytes(d.data.size(), 0)}}};
    if (d.dataType == DT_BYTES && (d.func == F_IF_GET || d.func == F_USER_GET))
        return Answer{0, {{DT_BYTES, Bytes(d.func == F_USER_GET ? 6 : 0, 0)}}};
    if (d.dataType == DT_U32 && (d.func == F_GLOBAL_GET || d.func == F_IF_GET ||
                                 d.func == F_USER_GET || d.func == F_VLAN_GET))
        return value(0);
    return Answer{};
}

struct Result {
    int status;
    std::string out, err;
};

Result run_cli(std::vector<std::string> args)
{
    std::vector<std::string> words = {"dhcpsnoopctl"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    char *obuf = nullptr, *ebuf = nullptr;
    size_t olen = 0, elen = 0;
    FILE *out = open_memstream(&obuf, &olen);
    FILE *err = open_memstream(&ebuf, &elen);
    int st = dhcpsnoopctl_run(int(words.size()), argv.data(), out, err);
    fclose(out);
    fclose(err);
    Result r{st, obuf ? obuf : "", ebuf ? ebuf : ""};
    free(obuf);
    free(ebuf);
    return r;
}

bool has(const std::string &hay, const std::string &needle)
{
    return hay.find(needle) != std::string::npos;
}

/* The lines of `out`, each split into its whitespace-separated columns. */
std::vector<std::vector<std::string>> rows_of(const std::string &out)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream f(line);
        std::vector<std::string> cols;
        for (std::string c; f >> c;)
            cols.push_back(c);
        rows.push_back(cols);
    }
    return rows;
}

/* The front end with its socket replaced by a scripted daemon. */
class CliScripted : public ::testing::Test {
protected:
    std::vector<Decoded> requests;
    std::function<Answer(const Decoded &)> daemon = plain_answer;

    void SetUp() override
    {
        set_transport([this](const char *, int, const uint8_t *req, uint32_t len, Bytes &reply,
                             std::string &) {
            Decoded d = decode(req, len);
            requests.push_back(d);
            reply = reply_for(req, len, daemon(d));
            return Xfer::ok;
        });
    }
    void TearDown() override { set_transport(nullptr); }
};

/* The room of a page request, its first two words the port and VLAN filters. */
Bytes page_room(uint32_t ifIndex, uint32_t vid)
{
    Bytes r(1448, 0);
    memcpy(r.data(), &ifIndex, 4);
    memcpy(r.data() + 4, &vid, 4);
    return r;
}

Bytes ipv4_key(const char *ip)
{
    Bytes k(20, 0);
    k[0] = 1;
    inet_pton(AF_INET, ip, &k[4]);
    return k;
}

Bytes ipv6_key(const char *ip)
{
    Bytes k(20, 0);
    k[0] = 2;
    inet_pton(AF_INET6, ip, &k[4]);
    return k;
}

/* ------------------------------------------------------------------------ */
/* Requests                                                                  */
/* ------------------------------------------------------------------------ */

struct Expect {
    uint32_t func, cmd;
    Bytes index; /* the index values joined */
    uint8_t dataType;
    Bytes data;
};

Bytes pair(uint32_t a, uint32_t b)
{
    Bytes p = u32_bytes(a), q = u32_bytes(b);
    p.insert(p.end(), q.begin(), q.end());
    return p;
}

struct RequestCase {
    std::vector<std::string> args;
    std::vector<Expect> first; /* the first requests sent, in order */
};

class CliRequests : public CliScripted, public ::testing::WithParamInterface<RequestCase> {};

TEST_P(CliRequests, CarriesFuncCmdIndexAndData)
{
    const RequestCase &c = GetParam();
    Result r = run_cli(c.args);
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_GE(requests.size(), c.first.size());
    for (size_t i = 0; i < c.first.size(); i++) {
        const Expect &e = c.first[i];
        const Decoded &d = requests[i];
        SCOPED_TRACE("request " + std::to_string(i));
        EXPECT_EQ(d.func, e.func);
        EXPECT_EQ(d.cmd, e.cmd);
        EXPECT_EQ(d.rc, 0);
        EXPECT_EQ(d.key(), e.index);
        EXPECT_EQ(d.dataType, e.dataType);
        EXPECT_EQ(d.data, e.data);
        /* The index count the daemon checks: none for global requests, which
         * still carry one 32-bit value; three pieces for a user key. */
        if (e.func <= F_GLOBAL_GET) {
            EXPECT_EQ(d.indexNum, 0);
            EXPECT_EQ(d.index.size(), 1u);
        } else {
            EXPECT_EQ(d.indexNum, d.index.size());
        }
        if (e.func >= F_USER_FIRST && e.func <= F_USER_GET) {
            ASSERT_EQ(d.index.size(), 3u);
            EXPECT_EQ(d.index[0].size(), 1u);
            EXPECT_EQ(d.index[1].size(), 3u);
        }
        EXPECT_LE(d.len, REQUEST_MAX);
    }
}

const Bytes Z4 = u32_bytes(0), I7 = u32_bytes(7), K4 = ipv4_key("192.0.2.7"),
            SRV = pair(3, 0xC0000201);
const uint8_t T0 = DT_BYTES, T2 = DT_U32;

/* A request carrying a 32-bit value; `idx` is 0 for the global ones. */
Expect num(uint32_t func, uint32_t cmd, uint32_t v, const Bytes &idx = Z4)
{
    return {func, cmd, idx, T2, u32_bytes(v)};
}
RequestCase one(std::vector<std::string> args, Expect e) { return {std::move(args), {e}}; }

INSTANTIATE_TEST_SUITE_P(
    EveryFunc, CliRequests,
    ::testing::Values(
        one({"global", "hw-notify", "off"}, num(0, 4, 0)),
        one({"global", "enterprise-number", "0x1234"}, num(0, 2, 0x1234)),
        one({"global", "clear-statistics"}, num(0, 17, 1)),
        one({"--sync", "global", "debug", "info"}, num(1, 20, 1)),
        one({"global", "sync-packet", "01:02:ff"}, {0, 19, Z4, T0, {1, 2, 0xff}}),
        RequestCase{{"global", "show"},
                    {num(2, 1, 0), num(2, 2, 0), num(2, 3, 0), num(2, 4, 0), num(2, 16, 0),
                     num(2, 20, 0)}},
        one({"interface", "show"}, num(3, 0, 0)),
        one({"interface", "7", "enable", "off"}, num(5, 1, 0, I7)),
        one({"interface", "7", "version", "both"}, num(5, 2, 3, I7)),
        one({"--sync", "interface", "7", "max-users", "50"}, num(6, 18, 50, I7)),
        one({"interface", "7", "relay-address", "192.0.2.1"}, num(5, 34, 0xC0000201, I7)),
        one({"interface", "7", "option82", "off"}, num(5, 4, 0, I7)),
        one({"interface", "7", "option82", "policy", "drop"}, num(5, 8, 1, I7)),
        one({"interface", "7", "option82", "policy", "append"}, num(5, 8, 3, I7)),
        one({"interface", "7", "option82", "format", "2"}, num(5, 10, 2, I7)),
        one({"interface", "7", "option82", "circuit-id", "typed", "1", "rack7"},
            {5, 5, I7, T0, {1, 5, 'r', 'a', 'c', 'k', '7'}}),
        one({"interface", "7", "option82", "remote-id", "format", "4"}, num(5, 31, 4, I7)),
        one({"interface", "7", "option82", "subopt9", "on"}, num(5, 9, 1, I7)),
        one({"interface", "7", "option82", "subopt9", "text", "host-a"},
            {5, 7, I7, T0, text_bytes("host-a")}),
        one({"interface", "7", "option18", "on"}, num(5, 11, 1, I7)),
        one({"interface", "7", "option37", "typed", "0", ""}, {5, 14, I7, T0, {0, 0}}),
        one({"interface", "7", "clear-statistics"}, num(5, 28, 1, I7)),
        one({"interface", "7", "get", "19"}, num(7, 19, 0, I7)),
        RequestCase{{"interface", "7", "show"}, {num(7, 2, 0, I7), num(7, 3, 0, I7)}},
        one({"binding", "bind", "192.0.2.7"}, num(10, 9, 1, K4)),
        one({"--sync", "binding", "unbind", "2001:db8::1"}, num(11, 9, 2, ipv6_key("2001:db8::1"))),
        one({"binding", "delete", "192.0.2.7"}, num(10, 9, 6, K4)),
        one({"binding", "set", "192.0.2.7", "attribute", "9"}, num(10, 4, 9, K4)),
        one({"binding", "show"}, {22, 0, Bytes(20, 0), T0, Bytes(1448, 0)}),
        one({"binding", "show", "--vlan", "10", "--interface", "7", "--count"},
            {22, 0, Bytes(20, 0), T0, page_room(7, 10)}),
        RequestCase{{"binding", "show", "192.0.2.7"}, {{12, 5, K4, T0, Bytes(6, 0)}, num(12, 1, 0, K4)}},
        one({"vlan", "show"}, num(13, 0, 0)),
        one({"vlan", "4094", "enable", "on"}, num(15, 3, 1, u32_bytes(4094))),
        one({"vlan", "10", "show"}, num(16, 1, 0, u32_bytes(10))),
        one({"server-ip", "show"}, {17, 0, pair(0, 0), T0, Bytes(12, 0)}),
        one({"--sync", "server-ip", "delete", "3", "192.0.2.1"}, num(20, 1, 6, SRV)),
        one({"server-ip", "check", "3", "192.0.2.1"}, num(21, 1, 0, SRV))));

/* ------------------------------------------------------------------------ */
/* Listings                                                                  */
/* ------------------------------------------------------------------------ */

TEST_F(CliScripted, InterfaceListingFollowsGetNextAndReadsCounters)
{
    daemon = [](const Decoded &d) -> Answer {
        if (d.func == F_IF_FIRST)
            return value(5);
        if (d.func == F_IF_NEXT)
            return d.u32(0) == 5 ? value(9) : fail(-1);
        /* Each attribute reads as index * 100 + cmd. */
        return value(d.u32(0) * 100 + d.cmd);
    };
    Result r = run_cli({"-n", "interface", "show"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<uint32_t> walked;
    for (auto &d : requests)
        if (d.func == F_IF_NEXT)
            walked.push_back(d.u32(0));
    EXPECT_EQ(walked, (std::vector<uint32_t>{5, 9}));
    auto rows = rows_of(r.out);
    ASSERT_EQ(rows.size(), 3u) << r.out;
    EXPECT_TRUE(has(r.out, "DropSrv"));
    /* max users 518, users 519, relay 534 (0.0.2.22), drops 524 / 522 / 523. */
    EXPECT_EQ(rows[1], (std::vector<std::string>{"5", "5", "none", "on", "on", "518", "519",
                                                 "0.0.2.22", "524", "522", "523"}));
    EXPECT_EQ(rows[2][5], "918");
}

TEST_F(CliScripted, BindingListingDecodesKeysAndAttributes)
{
    const Bytes a = ipv4_key("192.0.2.7"), b = ipv6_key("2001:db8::9");
    /* one record of a page: key, port, lease, elapsed, vid, attribute, MAC,
     * type, state, then three bytes not shown */
    auto record = [](const Bytes &k, bool first) {
        Bytes r = k;
        for (uint32_t v : {first ? 3u : 4u, first ? 0xFFFFFFFFu : 600u, first ? 12u : 30u})
            for (uint8_t byte : u32_bytes(v))
                r.push_back(byte);
        /* the last word is the 16-bit vid (host order) and an attribute of 0 */
        const uint16_t vid = first ? 10 : 20;
        uint8_t vb[2];
        memcpy(vb, &vid, 2);
        r.insert(r.end(), {vb[0], vb[1], 0, 0, 0x02, 0, 0, 0, 0, uint8_t(first ? 7 : 9),
                           uint8_t(first ? 2 : 1), uint8_t(first ? 1 : 4), 0, 0, 0, 0});
        return r;
    };
    /* two pages: the second asked for after the first page's last key */
    daemon = [&](const Decoded &d) -> Answer {
        if (d.func != F_USER_PAGE)
            return fail(0x3E80010);
        bool first = d.cmd == 0;
        if (!first && d.key() != a)
            return fail(0x3E80010);
        Bytes page = u32_bytes(1);
        for (const Bytes &part : {u32_bytes(first ? 1 : 0), record(first ? a : b, first)})
            page.insert(page.end(), part.begin(), part.end());
        page.resize(d.data.size());
        return Answer{0, {{T0, page}}};
    };
    Result r = run_cli({"-n", "binding", "show"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "192.0.2.7    02:00:00:00:00:07  10    3          static   bound      infinite  12"))
        << r.out;
    EXPECT_TRUE(has(r.out, "2001:db8::9  02:00:00:00:00:09  20    4          dynamic  requested  600       30"))
        << r.out;

    requests.clear();
    r = run_cli({"-n", "--json", "binding", "show"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "{\"ip\":\"192.0.2.7\",\"mac\":\"02:00:00:00:00:07\",\"vlan\":10,"
                           "\"interface\":null,\"ifindex\":3,\"type\":\"static\",\"state\":"
                           "\"bound\",\"lease\":null,\"elapsed\":12"))
        << r.out;
}

TEST_F(CliScripted, ListingThatDoesNotAdvanceStops)
{
    daemon = [](const Decoded &d) -> Answer {
        if (d.func == F_VLAN_FIRST || d.func == F_VLAN_NEXT)
            return value(20); /* GetNext answering the same VLAN for ever */
        return value(0);
    };
    Result r = run_cli({"vlan", "show"});
    EXPECT_EQ(r.status, EXIT_COMM);
    EXPECT_TRUE(has(r.err, "does not advance")) << r.err;
    EXPECT_LE(requests.size(), 3u);
}

/* ------------------------------------------------------------------------ */
/* Multi-step commands                                                       */
/* ------------------------------------------------------------------------ */

struct TextCase {
    uint32_t format;
    Bytes sent;
};

TEST_F(CliScripted, TextFollowsTheInterfaceFormatMode)
{
    for (const TextCase &c : {TextCase{3, {1, 3, 'a', 'b', 'c'}}, TextCase{4, {1, 3, 'a', 'b', 'c'}},
                              TextCase{0, {'a', 'b', 'c'}}, TextCase{5, {'a', 'b', 'c'}}}) {
        requests.clear();
        daemon = [&](const Decoded &d) { return d.func == F_IF_GET ? value(c.format) : Answer{}; };
        Result r = run_cli({"interface", "4", "option18", "text", "abc"});
        ASSERT_EQ(r.status, 0) << r.err;
        ASSERT_EQ(requests.size(), 2u);
        EXPECT_EQ(requests[0].cmd, 32u) << "asks for the option 18 format first";
        EXPECT_EQ(requests[1].cmd, 12u);
        EXPECT_EQ(requests[1].data, c.sent) << "format " << c.format;
    }
}

TEST_F(CliScripted, BindingAddFailingHalfWayRemovesTheNewEntry)
{
    daemon = [](const Decoded &d) { return d.cmd == 1 ? fail(0x3E80004) : Answer{}; };
    Result r = run_cli(
        {"binding", "add", "192.0.2.7", "mac", "02:00:00:00:00:07", "vlan", "10", "interface", "3"});
    EXPECT_EQ(r.status, EXIT_RESULT);
    EXPECT_TRUE(has(r.err, "binding add 192.0.2.7 vlan: the hardware layer refused the change (0x3E80004)"))
        << r.err;
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[3].cmd, 9u);
    EXPECT_EQ(requests[3].value(), 6u) << "the half-made entry is deleted";

    /* A create that fails leaves nothing to undo. */
    requests.clear();
    daemon = [](const Decoded &) { return fail(0x3E80003); };
    r = run_cli(
        {"binding", "add", "192.0.2.7", "mac", "02:00:00:00:00:07", "vlan", "10", "interface", "3"});
    EXPECT_EQ(r.status, EXIT_RESULT);
    EXPECT_EQ(requests.size(), 1u);
    EXPECT_TRUE(has(r.err, "exists already")) << r.err;
}

/* ------------------------------------------------------------------------ */
/* Usage                                                                     */
/* ------------------------------------------------------------------------ */

TEST_F(CliScripted, UsageErrorsExitTwoWithoutTalkingToTheDaemon)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"--bogus", "global", "show"}, "unknown option '--bogus'"},
        {{"--timeout", "0", "global", "show"}, "--timeout needs"},
        {{"global", "enable", "maybe"}, "expected on or off"},
        {{"global", "debug", "256"}, "from 0 to 255"},
        {{"interface", "7", "version", "ipv5"}, "ipv4, ipv6 or both"},
        {{"interface", "7", "max-users", "65536"}, "from 0 to 65535"},
        {{"interface", "no-such-if0", "show"}, "no interface named 'no-such-if0'"},
        {{"interface", "7", "relay-address", "300.1.1.1"}, "not an IPv4 address"},
        {{"interface", "7", "option82", "circuit-id", "text", std::string(129, 'x')},
         "at most 128 bytes"},
        {{"interface", "7", "option82", "policy", "4"}, "from 0 to 3"},
        {{"interface", "7", "option82", "subopt9", "typed", "1", "x"}, "unknown subopt9 command"},
        {{"vlan", "0", "show"}, "from 1 to 4094"},
        {{"binding", "add", "192.0.2.7", "mac", "02:00:00:00:00:07"}, "needs mac, vlan and interface"},
        {{"binding", "add", "192.0.2.7", "mac", "02:00:00:00:07", "vlan", "1", "interface", "1"},
         "not a MAC address"},
        {{"binding", "bind", "192.0.2"}, "not an IPv4 or IPv6 address"},
        {{"binding", "set", "192.0.2.7"}, "needs at least one"},
        {{"server-ip", "add", "3", "2001:db8::1"}, "not an IPv4 address"},
        {{"global", "sync-packet", "0g"}, "not a string of hex bytes"},
    };
    for (auto &[args, msg] : cases) {
        Result r = run_cli(args);
        EXPECT_EQ(r.status, EXIT_USAGE) << args.size();
        EXPECT_TRUE(has(r.err, msg)) << "wanted '" << msg << "' in: " << r.err;
    }
    EXPECT_TRUE(requests.empty());
}

TEST_F(CliScripted, HelpOnEveryLevel)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--help"}, "Usage: dhcpsnoopctl [OPTIONS] COMMAND"},
        {{"global", "--help"}, "Usage: dhcpsnoopctl global"},
        {{"interface", "--help"}, "Usage: dhcpsnoopctl interface"},
        {{"interface", "swp1", "option82", "-h"}, "option82 circuit-id text"},
        {{"vlan", "--help"}, "Usage: dhcpsnoopctl vlan"},
        {{"binding", "--help"}, "Usage: dhcpsnoopctl binding"},
        {{"server-ip", "--help"}, "Usage: dhcpsnoopctl server-ip"},
    };
    for (auto &[args, text] : cases) {
        Result r = run_cli(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(has(r.out, text)) << r.out;
    }
    EXPECT_TRUE(requests.empty());
}

/* ------------------------------------------------------------------------ */
/* The socket exchange against a scripted server                             */
/* ------------------------------------------------------------------------ */

class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/dsctl-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir()
    {
        for (auto &f : files_)
            unlink(f.c_str());
        rmdir(path_.c_str());
    }
    std::string file(const std::string &name)
    {
        files_.push_back(path_ + "/" + name);
        return files_.back();
    }

private:
    std::string path_;
    std::vector<std::string> files_;
};

int listen_on(const std::string &path, bool listening = true)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un un {};
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, path.c_str(), sizeof un.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&un), sizeof un), 0);
    if (listening) {
        EXPECT_EQ(listen(fd, 4), 0);
    }
    return fd;
}

bool read_n(int fd, uint8_t *p, size_t n)
{
    for (size_t got = 0; got < n;) {
        ssize_t r = read(fd, p + got, n - got);
        if (r <= 0)
            return false;
        got += size_t(r);
    }
    return true;
}

/* Serves `count` connections: reads one request and writes what `reply`
 * makes of it (the 4-byte length included). */
class FakeServer {
public:
    using Replier = std::function<Bytes(const Bytes &request)>;

    /* With a delay, the count may still be set until the delay is over. */
    FakeServer(const std::string &path, int count, Replier reply, int delayMs = 0)
        : count_(count), fd_(listen_on(path)), thread_([this, reply, delayMs] {
              poll(nullptr, 0, delayMs);
              serve(count_, reply);
          })
    {}
    std::atomic<int> count_;
    ~FakeServer()
    {
        thread_.join();
        close(fd_);
    }
    std::vector<Bytes> seen;

private:
    void serve(int count, const Replier &reply)
    {
        for (int i = 0; i < count; i++) {
            struct pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 10000) != 1)
                return; /* the front end never came */
            int c = accept(fd_, nullptr, nullptr);
            uint8_t lenBytes[4];
            uint32_t len = 0;
            Bytes req;
            if (read_n(c, lenBytes, 4)) {
                memcpy(&len, lenBytes, 4);
                req.resize(len);
                if (len <= REQUEST_MAX && read_n(c, req.data(), len)) {
                    seen.push_back(req);
                    Bytes out = reply(req);
                    if (!out.empty()) {
                        EXPECT_EQ(write(c, out.data(), out.size()), ssize_t(out.size()));
                    }
                }
            }
            close(c);
        }
    }
    int fd_;
    std::thread thread_;
};

/* The front end against a scripted server on a socket of its own. */
class CliSocket : public ::testing::Test {
protected:
    TempDir dir;
    std::string path = dir.file("sock");
};

FakeServer::Replier answering(Answer ans)
{
    return [ans](const Bytes &req) {
        return framed(reply_for(req.data(), uint32_t(req.size()), ans));
    };
}

TEST_F(CliSocket, ResultCodesBecomeMessagesAndExitOne)
{
    const std::vector<std::pair<int32_t, std::string>> codes = {
        {0x3E80002, "no such entry or interface (0x3E80002); snooping is not enabled"},
        {0x3E80003, "already exists or is an IP source guard binding (0x3E80003)"},
        {0x3E80004, "hardware layer refused the change (0x3E80004)"},
        {0x3E8000C, "bound and cannot be changed"},
        {0x3E8000D, "too short or too long"},
        {0x3E80010, "unknown command or value, or a precondition is not met (0x3E80010)"},
        {0x3E8001A, "null key (0x3E8001A)"},
        {12, "no free entry left in the daemon's table (12)"},
        {22, "value out of range (22)"},
        {-1, "not found (-1)"},
        {0x1234567, "unexpected result (0x1234567)"},
    };
    for (auto &[rc, text] : codes) {
        FakeServer srv(path, 1, answering(fail(rc)));
        Result r = run_cli({"--socket", path, "interface", "7", "trust", "on"});
        EXPECT_EQ(r.status, EXIT_RESULT) << rc;
        EXPECT_TRUE(has(r.err, "interface 7 trust: ")) << r.err;
        EXPECT_TRUE(has(r.err, text)) << "wanted '" << text << "' in: " << r.err;
        unlink(path.c_str());
    }
}

/* Framing and the request itself are proven against the daemon below; here
 * the path from the environment and both forms of a value. */
TEST_F(CliSocket, PathFromTheEnvironmentAndValueForms)
{
    setenv(SOCKET_ENV, path.c_str(), 1);
    FakeServer srv(path, 2, answering(value(777)));
    Result r = run_cli({"interface", "7", "get", "18"});
    EXPECT_EQ(r.out, "777\n") << r.err;
    r = run_cli({"--json", "interface", "7", "get", "18"});
    EXPECT_EQ(r.out, "{\"value\":777}\n") << r.err;
    unsetenv(SOCKET_ENV);
}

TEST_F(CliSocket, BrokenRepliesAreCommunicationErrors)
{
    struct Case {
        const char *name;
        FakeServer::Replier reply;
        const char *text;
    };
    const std::vector<Case> cases = {
        {"length 0", [](const Bytes &) { return u32_bytes(0); }, "the daemon rejected the request"},
        {"closed", [](const Bytes &) { return Bytes(); }, "closed the connection without an answer"},
        {"short", [](const Bytes &req) { Bytes b = framed(req); b.resize(b.size() - 3); return b; },
         "the reply was cut short"},
        {"huge length", [](const Bytes &) { return u32_bytes(1u << 30); }, "is not plausible"},
        {"refused credentials", [](const Bytes &) { return u32_bytes(REPLY_DENIED); },
         "interface 7 get 18: permission denied: run as root or as a member of "},
        {"other func",
         [](const Bytes &req) {
             Bytes b = framed(req);
             uint32_t f = F_GLOBAL_GET;
             memcpy(b.data() + 8, &f, 4);
             return b;
         },
         "the reply is for func 2, not 7"},
        {"no data",
         [](const Bytes &req) {
             Bytes body(req.begin(), req.begin() + 26);
             return framed(body);
         },
         "bad reply"},
        {"bad tag",
         [](const Bytes &req) {
             Bytes b = framed(req);
             b[4] ^= 0xFF;
             return b;
         },
         "header words are malformed"},
    };
    for (auto &c : cases) {
        FakeServer srv(path, 1, c.reply);
        Result r = run_cli({"--socket", path, "--timeout", "5", "interface", "7", "get", "18"});
        EXPECT_EQ(r.status, EXIT_COMM) << c.name;
        EXPECT_TRUE(has(r.err, c.text)) << c.name << ": " << r.err;
        EXPECT_EQ(r.out, "") << c.name;
        unlink(path.c_str());
    }
}

TEST_F(CliSocket, DaemonNotRunningIsReportedAtOnce)
{
    Result r = run_cli({"--socket", dir.file("absent"), "global", "show"});
    EXPECT_EQ(r.status, EXIT_COMM);
    EXPECT_TRUE(has(r.err, "the daemon is not running")) << r.err;

    /* A socket file left behind by a daemon that is gone. */
    std::string stale = dir.file("stale");
    int fd = listen_on(stale, false);
    r = run_cli({"--socket", stale, "global", "show"});
    close(fd);
    EXPECT_EQ(r.status, EXIT_COMM);
    EXPECT_TRUE(has(r.err, "the daemon is not running")) << r.err;
}

TEST_F(CliSocket, FullConnectionQueueIsWaitedOutWithinTheTimeout)
{
    const int queued = 8; /* more than the listen backlog of 4 holds */
    FakeServer srv(path, 1, answering(value(5)), 300);
    struct sockaddr_un un {};
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, path.c_str(), sizeof un.sun_path - 1);
    int filled = 0;
    for (int i = 0; i < queued; i++) {
        int c = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        filled += connect(c, reinterpret_cast<sockaddr *>(&un), sizeof un) == 0;
        close(c); /* still waits in the queue, to be accepted and find its end */
    }
    srv.count_ = filled + 1;
    ASSERT_LT(filled, queued);
    Result r = run_cli({"--socket", path, "--timeout", "5", "interface", "7", "get", "18"});
    EXPECT_EQ(r.out, "5\n") << r.err;
}

TEST_F(CliSocket, SilentDaemonTimesOut)
{
    int fd = listen_on(path); /* never accepts: the request waits in its queue */
    Result r = run_cli({"--socket", path, "--timeout", "0.2", "global", "show"});
    close(fd);
    EXPECT_EQ(r.status, EXIT_COMM);
    EXPECT_TRUE(has(r.err, "global show enable: timed out (no reply from the daemon in time)"))
        << r.err;
}

/* ------------------------------------------------------------------------ */
/* Against the daemon's own command server                                   */
/* ------------------------------------------------------------------------ */

/* The daemon's own command server, in a child process on the simulated
 * platform with ports 3 and 4 and a VLAN interface for VLAN 10. */
class CliDaemon : public ::testing::Test {
protected:
    TempDir dir;
    std::string path;
    ChildDaemon daemon;

    void SetUp() override
    {
        path = dir.file("daemon.sock");
        ChildDaemonOptions o;
        o.ports = {3, 4};
        o.vlanIfs = {{100, 10}};
        o.hwDrops = 7;
        ASSERT_TRUE(daemon.start(path, o)) << "the daemon did not start";
    }
    void TearDown() override { daemon.stop(); }
    Result ctl(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--socket", path, "-n"});
        return run_cli(args);
    }
    void ok(std::vector<std::string> args)
    {
        Result r = ctl(args);
        EXPECT_EQ(r.status, 0) << args[0] << " " << (args.size() > 1 ? args[1] : "") << ": "
                               << r.err;
    }
    void refused(std::vector<std::string> args, const std::string &text)
    {
        Result r = ctl(args);
        EXPECT_EQ(r.status, EXIT_RESULT);
        EXPECT_TRUE(has(r.err, text)) << "wanted '" << text << "' in: " << r.err;
    }
};

/* Whether a line of `out`, its columns joined by single spaces, is `line`. */
bool has_line(const std::string &out, const std::string &line)
{
    for (auto &cols : rows_of(out)) {
        std::string joined;
        for (auto &c : cols)
            joined += (joined.empty() ? "" : " ") + c;
        if (joined == line)
            return true;
    }
    return false;
}

TEST_F(CliDaemon, SettingsRoundTripThroughTheDaemon)
{
    ok({"global", "enable", "on"});
    ok({"global", "server-learn", "on"});
    ok({"global", "debug", "0"});
    Result r = ctl({"--json", "global", "show"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "\"enable\":true")) << r.out;
    EXPECT_TRUE(has(r.out, "\"server_learn\":true,\"debug\":0")) << r.out;

    refused({"interface", "3", "trust", "on"}, "no such entry or interface (0x3E80002)");
    ok({"interface", "4", "enable", "on"});
    ok({"interface", "3", "enable", "on"});
    ok({"interface", "3", "trust", "on"});
    ok({"interface", "3", "max-users", "40"});
    ok({"interface", "3", "relay-address", "192.0.2.254"});
    refused({"interface", "3", "option82", "circuit-id", "text", "rack7"},
            "is option82 enabled on the interface?");
    ok({"interface", "3", "option82", "on"});
    ok({"interface", "3", "option82", "circuit-id", "text", "rack7"});
    ok({"interface", "3", "option82", "remote-id", "format", "0"});
    ok({"interface", "3", "option82", "remote-id", "text", "plain"});
    refused({"interface", "3", "option82", "subopt9", "text", "x"},
            "are option82 and its subopt9 enabled");
    refused({"interface", "3", "option82", "circuit-id", "format", "9"}, "format modes are 0 to 6");

    r = ctl({"interface", "3", "show"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has_line(r.out, "circuit-id type 1 \"rack7\" (format 3)")) << r.out;
    EXPECT_TRUE(has_line(r.out, "remote-id \"plain\" (format 0)")) << r.out;
    EXPECT_TRUE(has_line(r.out, "relay-address 192.0.2.254")) << r.out;
    EXPECT_TRUE(has_line(r.out, "policy keep-default (2)")) << r.out;
    EXPECT_TRUE(has_line(r.out, "hardware-drops source-guard 7")) << r.out;
    EXPECT_TRUE(has_line(r.out, "hardware-drops arp-inspection 8")) << r.out;

    r = ctl({"interface", "show"});
    EXPECT_EQ(r.status, 0) << r.err;
    auto rows = rows_of(r.out);
    ASSERT_EQ(rows.size(), 3u) << r.out;
    EXPECT_EQ(rows[1], (std::vector<std::string>{"3", "3", "ipv4", "on", "on", "40", "0",
                                                 "192.0.2.254", "0", "0", "0"}));
    EXPECT_EQ(rows[2][0], "4");

    ok({"vlan", "10", "enable", "on"});
    ok({"vlan", "10", "max-users", "50"});
    refused({"vlan", "20", "max-users", "5"}, "the VLAN has no interface on this switch");
    r = ctl({"vlan", "show"});
    EXPECT_EQ(r.out, "VLAN  MaxUsers\n10    50\n") << r.err;

    ok({"server-ip", "add", "3", "192.0.2.1"});
    ok({"server-ip", "add", "4", "192.0.2.9"});
    ok({"server-ip", "add", "3", "192.0.2.2"});
    ok({"server-ip", "add", "3", "192.0.2.3"});
    refused({"server-ip", "add", "3", "192.0.2.4"}, "three server addresses already");
    ok({"server-ip", "delete", "3", "192.0.2.2"});
    r = ctl({"server-ip", "show"});
    EXPECT_EQ(r.out, "Interface  Server\n3          192.0.2.1\n3          192.0.2.3\n"
                     "4          192.0.2.9\n")
        << r.err;
    EXPECT_EQ(ctl({"server-ip", "check", "3", "192.0.2.3"}).status, 0);
    r = ctl({"server-ip", "check", "3", "192.0.2.2"});
    EXPECT_EQ(r.status, EXIT_RESULT);
    EXPECT_EQ(r.out, "not configured\n");

    ok({"interface", "4", "enable", "off"});
    r = ctl({"--json", "interface", "show"});
    EXPECT_TRUE(has(r.out, "\"ifindex\":3")) << r.out;
    EXPECT_TRUE(has(r.out, "\"hardware_drops\":{\"source_guard\":7,\"arp_inspection\":8}")) << r.out;
    EXPECT_FALSE(has(r.out, "\"ifindex\":4")) << r.out;
}

TEST_F(CliDaemon, BindingsMadeByTheFrontEndAreListedBack)
{
    ok({"interface", "3", "enable", "on"});
    constexpr int COUNT = 1000;
    auto ip = [](int i) { return "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1); };
    auto mac = [](int i) {
        char b[20];
        snprintf(b, sizeof b, "02:00:00:00:%02x:%02x", i >> 8, i & 0xFF);
        return std::string(b);
    };
    for (int i = 0; i < COUNT; i++) {
        Result r = ctl({"binding", "add", ip(i), "mac", mac(i), "vlan", std::to_string(1 + i % 7),
                        "interface", "3"});
        ASSERT_EQ(r.status, 0) << ip(i) << ": " << r.err;
    }
    ok({"binding", "add", "2001:db8::7", "mac", "02:00:00:00:ff:07", "vlan", "10", "interface",
        "3", "unbound"});

    Result r = ctl({"binding", "show"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto rows = rows_of(r.out);
    ASSERT_EQ(rows.size(), size_t(COUNT) + 2) << "header, 1000 IPv4 rows, one IPv6 row";
    EXPECT_EQ(rows[0], (std::vector<std::string>{"IP", "MAC", "VLAN", "Interface", "Type",
                                                 "State", "Lease", "Elapsed"}));
    std::map<std::string, std::vector<std::string>> byIp;
    for (size_t i = 1; i < rows.size(); i++) {
        ASSERT_EQ(rows[i].size(), 8u);
        byIp[rows[i][0]] = rows[i];
    }
    ASSERT_EQ(byIp.size(), size_t(COUNT) + 1) << "every binding once";
    for (int i = 0; i < COUNT; i++) {
        auto it = byIp.find(ip(i));
        ASSERT_NE(it, byIp.end()) << ip(i);
        EXPECT_EQ(it->second, (std::vector<std::string>{ip(i), mac(i), std::to_string(1 + i % 7),
                                                        "3", "static", "bound", "infinite",
                                                        it->second[7]}));
    }
    /* Keys are listed in byte order: IPv4 (type 1) before IPv6 (type 2). */
    EXPECT_EQ(rows[1][0], "10.1.0.1");
    EXPECT_EQ(rows.back(), (std::vector<std::string>{"2001:db8::7", "02:00:00:00:ff:07", "10",
                                                     "3", "static", "unbound", "infinite",
                                                     rows.back()[7]}));
    r = ctl({"--json", "global", "show"});
    EXPECT_TRUE(has(r.out, "\"users\":1001")) << r.out;
    /* filtered in the daemon, across pages */
    EXPECT_EQ(ctl({"binding", "show", "--vlan", "3", "--count"}).out, "143\n");
    EXPECT_EQ(ctl({"--json", "binding", "show", "--interface", "3", "--count"}).out,
              "{\"count\":1001}\n");
    EXPECT_EQ(ctl({"binding", "show", "--interface", "4"}).out, "No bindings.\n");

    refused({"binding", "add", ip(5), "mac", mac(5), "vlan", "1", "interface", "3"},
            "exists already");
    refused({"binding", "set", ip(5), "vlan", "9"}, "bound and cannot be changed");
    ok({"binding", "unbind", ip(5)});
    ok({"binding", "set", ip(5), "vlan", "9"});
    r = ctl({"binding", "show", ip(5)});
    auto one = rows_of(r.out);
    ASSERT_EQ(one.size(), 2u) << r.out;
    EXPECT_EQ(one[1][2], "9");
    EXPECT_EQ(one[1][5], "unbound");
    ok({"binding", "delete", ip(5)});
    refused({"binding", "show", ip(5)}, "no binding for that address");
    refused({"binding", "bind", ip(5)}, "no such entry or interface (0x3E80002)");
}

} // namespace
