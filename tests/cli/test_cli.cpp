/*
 * dhcpsnoopctl: the requests it builds, its output against the daemon's own
 * command processing, its usage errors and its bounded socket exchange.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <sstream>
#include <thread>

#include "binding_helpers.h"
#include "cmd_helpers.h"
#include "dhcpsnoopctl.h"

using namespace dhcpsnoopctl;
using namespace std::string_literals;

namespace {

struct Result {
    int status;
    std::string out, err;
};

/* The front end run on `line` split on spaces. */
Result run_cli(const std::string &line)
{
    std::vector<std::string> args = {"dhcpsnoopctl"};
    std::istringstream words(line);
    for (std::string w; words >> w;)
        args.push_back(w);
    std::vector<char *> argv;
    for (auto &w : args)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    char *obuf = nullptr, *ebuf = nullptr;
    size_t olen = 0, elen = 0;
    FILE *out = open_memstream(&obuf, &olen), *err = open_memstream(&ebuf, &elen);
    int st = dhcpsnoopctl_run(int(args.size()), argv.data(), out, err);
    fclose(out);
    fclose(err);
    Result r{st, obuf, ebuf};
    free(obuf);
    free(ebuf);
    return r;
}

using Daemon = std::function<Bytes(const Bytes &)>;

/* The front end against the daemon's command processing in-process, on the
 * simulated platform with ports 3 and 4 and the VLAN interface of VLAN 10,
 * unless a test scripts the daemon's answers. */
class Cli : public DaemonTest {
protected:
    std::vector<Bytes> requests;
    Daemon daemon = cmd_run;
    void SetUp() override
    {
        DaemonTest::SetUp();
        start();
        model().addPort(3, "swp3");
        model().addPort(4, "swp4");
        model().addVlanIf(100, 10, "vlan10");
        model().onHwCounter = [](uint32_t, uint32_t attr) {
            return attr == DHCPSNOOP_IF_ATTR_IPSG_DROPS ? 7u : 8u;
        };
        sys().now = 100000;
        set_transport([this](const char *, int, const uint8_t *req, uint32_t len, Bytes &reply,
                             std::string &) {
            requests.emplace_back(req, req + len);
            reply = daemon(requests.back());
            return reply.empty() ? Xfer::rejected : Xfer::ok;
        });
    }
    void TearDown() override
    {
        set_transport(nullptr);
        DaemonTest::TearDown();
    }
    std::string ok(const std::string &line)
    {
        Result r = run_cli("-n " + line);
        EXPECT_EQ(r.status, 0) << r.err;
        return r.out;
    }
    void refused(const std::string &line, const std::string &text)
    {
        Result r = run_cli(line);
        EXPECT_EQ(r.status, EXIT_RESULT);
        EXPECT_EQ(r.err, "dhcpsnoopctl: " + text + "\n");
    }
};

const Bytes Z4 = u32_bytes(0), I7 = u32_bytes(7);

std::vector<Bytes> key_of(const char *ip)
{
    Bytes k(20, 0);
    k[0] = strchr(ip, ':') ? 2 : 1;
    inet_pton(k[0] == 1 ? AF_INET : AF_INET6, ip, &k[4]);
    return key_items(k.data());
}

/* A request carrying a 32-bit value or bytes; the index is 0 for global ones. */
Bytes num(uint32_t func, uint32_t cmd, uint32_t v, std::vector<Bytes> index = {Z4})
{
    return cmd_body({func, cmd, index, DT_U32, u32_bytes(v)});
}
Bytes raw(uint32_t func, uint32_t cmd, std::vector<Bytes> index, Bytes data)
{
    return cmd_body({func, cmd, index, DT_BYTES, data});
}

/* The requests whose effect the in-process daemon below does not show. */
TEST_F(Cli, RequestsAreEncodedWhole)
{
    daemon = [](const Bytes &req) { return answered(req, 0); };
    const std::vector<std::pair<const char *, std::vector<Bytes>>> cases = {
        {"global clear-statistics", {num(0, 17, 1)}},
        {"--sync global debug info", {num(1, 20, 1)}},
        {"global sync-packet 01:02:ff", {raw(0, 19, {Z4}, {1, 2, 0xff})}},
        {"global show",
         {num(2, 1, 0), num(2, 2, 0), num(2, 3, 0), num(2, 4, 0), num(2, 16, 0), num(2, 20, 0),
          num(2, 21, 0)}},
        {"interface 7 option82 policy drop", {num(5, 8, 1, {I7})}},
        {"interface 7 clear-statistics", {num(5, 28, 1, {I7})}},
        {"--sync binding unbind 2001:db8::1", {num(11, 9, 2, key_of("2001:db8::1"))}},
    };
    for (auto &[line, sent] : cases) {
        requests.clear();
        EXPECT_EQ(run_cli(line).status, 0) << line;
        requests.resize(std::min(requests.size(), sent.size())); /* the first ones sent */
        EXPECT_EQ(requests, sent) << line;
    }
}

/* The half-made entry is deleted again. */
TEST_F(Cli, BindingAddFailingHalfWayRemovesTheNewEntry)
{
    daemon = [](const Bytes &req) { return answered(req, word(req, 20) == 1 ? 0x3E80004 : 0); };
    Result r = run_cli("binding add 192.0.2.7 mac 02:00:00:00:00:07 vlan 10 interface 3");
    EXPECT_EQ(r.status, EXIT_RESULT);
    EXPECT_EQ(r.err, "dhcpsnoopctl: binding add 192.0.2.7 vlan: the hardware layer refused the "
                     "change (0x3E80004)\n");
    const std::vector<Bytes> K4 = key_of("192.0.2.7");
    EXPECT_EQ(requests, (std::vector<Bytes>{num(10, 9, 4, K4), raw(10, 5, K4, {2, 0, 0, 0, 0, 7}),
                                            num(10, 1, 10, K4), num(10, 9, 6, K4)}));
}

TEST_F(Cli, ListingThatDoesNotAdvanceStops)
{
    /* the same VLAN for ever */
    daemon = [](const Bytes &req) { return answered(req, 0, DATA_POS_INDEX, 2, {u32_bytes(20)}); };
    Result r = run_cli("vlan show");
    EXPECT_EQ(r.status, EXIT_COMM);
    EXPECT_EQ(r.err, "dhcpsnoopctl: vlan show: the daemon's list does not advance at 20\n");
    EXPECT_EQ(requests.size(), 2u);
}

/* A result code the front end has no words for exits 1; replies that do not
 * fit the request exit 3. */
TEST_F(Cli, UnusableAnswers)
{
    auto rc = [](int32_t code) { return [code](const Bytes &req) { return answered(req, code); }; };
    const std::vector<std::tuple<Daemon, int, std::string>> cases = {
        {rc(0x10000), EXIT_RESULT, "unexpected result (0x10000)"},
        {[](Bytes req) {
             Bytes func = u32_bytes(F_GLOBAL_GET); /* host order, as the codec writes it */
             std::copy(func.begin(), func.end(), req.begin() + 4);
             return req;
         },
         EXIT_COMM, "bad reply (the reply is for func 2, not 7)"},
        {[](Bytes req) { return req[0] = 0, req; }, EXIT_COMM,
         "bad reply (the reply's header words are malformed)"},
        {[](const Bytes &req) { return Bytes(req.begin(), req.begin() + 26); }, EXIT_COMM,
         "bad reply (the reply ends before its data)"},
        {[](const Bytes &req) { return answered(req, 0, DATA_POS_INDEX, 2, {Bytes(3)}); },
         EXIT_COMM, "bad reply (value of 3 bytes)"},
    };
    for (auto &[answer, status, text] : cases) {
        daemon = answer;
        Result r = run_cli("interface 7 get 18");
        EXPECT_EQ(r.status, status);
        EXPECT_EQ(r.err, "dhcpsnoopctl: interface 7 get 18: " + text + "\n");
    }
}

TEST_F(Cli, UsageErrorsExitTwoWithoutTalkingToTheDaemon)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "no command given\nTry 'dhcpsnoopctl --help'."},
        {"frobnicate", "unknown command 'frobnicate'"},
        {"--bogus global show", "unknown option '--bogus'"},
        {"--timeout 0 global show", "--timeout needs a number of seconds (up to 3600)"},
        {"--socket", "--socket needs a value"},
        {"global enable maybe",
         "expected on or off, not 'maybe'\nTry 'dhcpsnoopctl global --help'."},
        {"global debug 256", "the debug flags must be a number from 0 to 255, not '256'"},
        {"global show x", "unexpected 'x'"},
        {"interface 7 version ipv5", "the version is ipv4, ipv6 or both, not 'ipv5'"},
        {"interface 7 max-users 5x", "max-users must be a number from 0 to 65535, not '5x'"},
        {"interface no-such-if0 show", "no interface named 'no-such-if0' (give its name or index)"},
        {"interface 7 relay-address 300.1.1.1", "'300.1.1.1' is not an IPv4 address"},
        {"interface 7 option82 circuit-id text " + std::string(129, 'x'),
         "a text holds at most 128 bytes"},
        {"interface 7 option82 policy 4", "the policy must be a number from 0 to 3"},
        {"interface 7 option82 subopt9 typed 1 x", "unknown subopt9 command 'typed'"},
        {"vlan 0 show", "the VLAN id must be a number from 1 to 4094, not '0'"},
        {"binding add 192.0.2.7 mac 02:00:00:00:00:07 vlan 10",
         "binding add needs mac, vlan and interface"},
        {"binding add 192.0.2.7 mac 02:00:00:00:00:0g vlan 1 interface 1",
         "'02:00:00:00:00:0g' is not a MAC address (aa:bb:cc:dd:ee:ff)"},
        {"binding bind 192.0.2", "'192.0.2' is not an IPv4 or IPv6 address"},
        {"binding set 192.0.2.7",
         "binding set needs at least one of mac, vlan, interface, attribute"},
        {"binding set 192.0.2.7 vlan 9 up", "unknown binding attribute 'up'"},
        {"binding show 192.0.2.7 --count",
         "give an address or --interface/--vlan/--count, not both"},
        {"global sync-packet 0g", "'0g' is not a string of hex bytes"},
        {"global sync-packet 012", "hex bytes must come in pairs of digits"},
    };
    for (auto &[line, msg] : cases) {
        Result r = run_cli(line);
        EXPECT_EQ(r.status, EXIT_USAGE);
        EXPECT_NE(r.err.find("dhcpsnoopctl: " + msg), std::string::npos) << r.err;
    }
    EXPECT_TRUE(requests.empty());
}

TEST_F(Cli, HelpOnEveryLevel)
{
    const std::string top = "Usage: dhcpsnoopctl [OPTIONS] COMMAND";
    EXPECT_EQ(run_cli("--help").out.find(top), 0u);
    EXPECT_EQ(run_cli("nothing -h").out.find(top), 0u);
    for (std::string t : {"global", "interface", "vlan", "binding", "server-ip"})
        EXPECT_EQ(run_cli(t + " --help").out.find("Usage: dhcpsnoopctl " + t), 0u) << t;
    EXPECT_EQ(run_cli("interface swp1 option82 -h").out, run_cli("interface -h").out);
    EXPECT_TRUE(requests.empty());
}

TEST_F(Cli, SettingsAndTheirListings)
{
    EXPECT_EQ(ok("interface show"), "No interface has snooping enabled.\n");
    EXPECT_EQ(ok("vlan show"), "No VLAN has snooping enabled.\n");
    EXPECT_EQ(ok("server-ip show"), "No relay server addresses.\n");
    for (const char *c :
         {"global enable on", "global server-learn on", "global enterprise-number 4242",
          "global debug dump", "global hw-notify on", "global binding-guard on"})
        ok(c);
    EXPECT_EQ(ok("global show"), "enable             on\n"
                                 "enterprise-number  4242\n"
                                 "users              0\n"
                                 "hw-notify          on\n"
                                 "server-learn       on\n"
                                 "debug              0x02\n"
                                 "binding-guard      on\n");
    EXPECT_EQ(ok("--json global show"),
              "{\"enable\":true,\"enterprise_number\":4242,\"users\":0,\"hw_notify\":true,"
              "\"server_learn\":true,\"debug\":2,\"binding_guard\":true}\n");

    refused("interface 3 trust on",
            "interface 3 trust: no such entry or interface (0x3E80002); snooping is not "
            "enabled on the interface ('interface IF enable on')");
    for (const char *c : {"interface 4 enable on", "interface 4 version both",
                          "interface 3 enable on", "interface 3 trust on",
                          "interface 3 max-users 40", "interface 3 relay-address 192.0.2.254"})
        ok(c);
    refused("interface 3 option82 circuit-id text rack7",
            "interface 3 option82 circuit-id text: unknown command or value, or a "
            "precondition is not met (0x3E80010); is option82 enabled on the interface?");
    refused("interface 3 option82 subopt9 text x",
            "interface 3 option82 subopt9 text: unknown command or value, or a precondition "
            "is not met (0x3E80010); are option82 and its subopt9 enabled on the interface?");
    /* texts under format 3 and 4 are typed, under 5 plain */
    for (const char *c : {"option82 on", "option82 policy append", "option82 format 2",
                          "option82 circuit-id text rack7", "option82 remote-id format 4",
                          "option82 remote-id text a\"b\x01", "option82 subopt9 on",
                          "option82 subopt9 text host-a", "option18 on", "option18 typed 7 v18",
                          "option37 on", "option37 format 5", "option37 text xy", "set 16 1"})
        ok(std::string("interface 3 ") + c);
    refused("interface 3 option82 circuit-id format 9",
            "interface 3 option82 circuit-id format: value out of range (22); format modes "
            "are 0 to 6");
    DhcpsnoopIf *e = dhcpsnoop_if_lookup(3);
    e->curUser = 2;
    for (uint32_t i = 0; i < 5; i++)
        e->counters[i] = 11 + i;
    EXPECT_EQ(ok("interface 3 show"),
              "interface                      3 (index 3)\n"
              "version                        ipv4\n"
              "trust                          on\n"
              "option82                       on\n"
              "  policy                       append (3)\n"
              "  format                       2\n"
              "  circuit-id                   type 1 \"rack7\" (format 3)\n"
              "  remote-id                    type 1 \"a\\\"b\\x01\" (format 4)\n"
              "  subopt9                      on \"host-a\"\n"
              "option18                       on type 7 \"v18\" (format 3)\n"
              "option37                       on \"xy\" (format 5)\n"
              "max-users                      40\n"
              "users                          2\n"
              "relay-address                  192.0.2.254\n"
              "settings 14/15/16/21           0 0 1 100\n"
              "drops untrusted-server         11\n"
              "drops mac-mismatch             12\n"
              "drops binding-mismatch         13\n"
              "drops table-full               14\n"
              "drops binding-guard            15\n"
              "hardware-drops source-guard    7\n"
              "hardware-drops arp-inspection  8\n");
    EXPECT_EQ(ok("--json interface 3 show"),
              "{\"interface\":null,\"ifindex\":3,\"version\":\"ipv4\",\"trust\":true,"
              "\"option82\":true,\"max_users\":40,\"users\":2,\"relay_address\":\"192.0.2.254\","
              "\"drops\":{\"untrusted_server\":11,\"mac_mismatch\":12,\"binding_mismatch\":13,"
              "\"table_full\":14,\"binding_guard\":15},\"hardware_drops\":{\"source_guard\":7,"
              "\"arp_inspection\":8},\"option82_settings\":{\"policy\":\"append\","
              "\"policy_value\":3,\"format\":2,\"circuit_id_format\":3,\"circuit_id\":{\"type\":1,"
              "\"text\":\"rack7\"},\"remote_id_format\":4,\"remote_id\":{\"type\":1,"
              "\"text\":\"a\\\"b\\u0001\"},"
              "\"subopt9\":true,\"subopt9_text\":\"host-a\"},\"option18\":{\"enable\":true,"
              "\"format\":3,\"text\":{\"type\":7,\"text\":\"v18\"}},\"option37\":{\"enable\":true,"
              "\"format\":5,\"text\":\"xy\"},\"setting14\":0,"
              "\"setting15\":0,\"setting16\":1,\"setting21\":100}\n");
    EXPECT_EQ(ok("interface show"),
              "Interface  Index  Version  Trust  Opt82  MaxUsers  Users  Relay        "
              "DropSrv  DropMac  DropBind\n"
              "3          3      ipv4     on     on     40        2      192.0.2.254  11       12  "
              "     13\n"
              "4          4      both     off    off    32768     0      -            0        0   "
              "     0\n");
    EXPECT_EQ(ok("--json interface show"),
              "[{\"interface\":null,\"ifindex\":3,\"version\":\"ipv4\",\"trust\":true,"
              "\"option82\":true,\"max_users\":40,\"users\":2,\"relay_address\":\"192.0.2.254\","
              "\"drops\":{\"untrusted_server\":11,\"mac_mismatch\":12,\"binding_mismatch\":13},"
              "\"hardware_drops\":{\"source_guard\":7,\"arp_inspection\":8}},{\"interface\":null,"
              "\"ifindex\":4,\"version\":\"both\",\"trust\":false,\"option82\":false,"
              "\"max_users\":32768,\"users\":0,\"relay_address\":null,"
              "\"drops\":{\"untrusted_server\":0,\"mac_mismatch\":0,\"binding_mismatch\":0},"
              "\"hardware_drops\":{\"source_guard\":7,\"arp_inspection\":8}}]\n");
    EXPECT_EQ(ok("--json interface 3 get 18"), "{\"value\":40}\n");

    ok("vlan 10 enable on");
    ok("vlan 10 max-users 50");
    refused("vlan 20 max-users 5",
            "vlan 20 max-users: not found (-1); the VLAN has no interface on this switch");
    EXPECT_EQ(ok("vlan show"), "VLAN  MaxUsers\n10    50\n");
    EXPECT_EQ(ok("--json vlan show"), "[{\"vlan\":10,\"max_users\":50}]\n");
    EXPECT_EQ(ok("vlan 10 show"), "vlan       10\n"
                                  "max-users  50\n");
    EXPECT_EQ(ok("--json vlan 10 show"), "{\"vlan\":10,\"max_users\":50}\n");

    for (const char *a : {"3 192.0.2.1", "4 192.0.2.9", "3 192.0.2.2", "3 192.0.2.3"})
        ok(std::string("server-ip add ") + a);
    refused("server-ip add 3 192.0.2.4",
            "server-ip add 3 192.0.2.4: unknown command or value, or a precondition is not "
            "met (0x3E80010); the interface has three server addresses already");
    ok("server-ip delete 3 192.0.2.2");
    EXPECT_EQ(ok("server-ip show"),
              "Interface  Server\n3          192.0.2.1\n3          192.0.2.3\n"
              "4          192.0.2.9\n");
    EXPECT_EQ(ok("--json server-ip show"),
              "[{\"interface\":null,\"ifindex\":3,\"server\":\"192.0.2.1\"},{\"interface\":null,"
              "\"ifindex\":3,\"server\":\"192.0.2.3\"},{\"interface\":null,\"ifindex\":4,"
              "\"server\":\"192.0.2.9\"}]\n");
    EXPECT_EQ(ok("server-ip check 3 192.0.2.3"), "configured\n");
    Result r = run_cli("--json server-ip check 3 192.0.2.2");
    EXPECT_EQ(r.status, EXIT_RESULT);
    EXPECT_EQ(r.out, "{\"configured\":false}\n");
}

TEST_F(Cli, BindingsAreListedWhole)
{
    enablePort(3);
    DhcpsnoopUser *u =
        make_user(v4key(192, 0, 2, 7), DHCPSNOOP_USER_STATIC, 1, 10, {2, 0, 0, 0, 0, 7});
    u->leaseTime = 0xFFFFFFFF;
    u->userAttr = 5;
    u = make_user(v6key({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}),
                  DHCPSNOOP_USER_DYNAMIC, 4, 20, {2, 0, 0, 0, 0, 9});
    u->leaseTime = 600;
    u->leaseStart = 100000 - 30;
    u->bindState = DHCPSNOOP_BIND_REQUESTED;
    make_user(v4key(10, 0, 0, 5), DHCPSNOOP_USER_IPSG, 3, 10);                    /* never listed */
    make_user(v4key(10, 0, 0, 1), DHCPSNOOP_USER_DYNAMIC, 3, 30)->leaseStart = 0; /* ran out */
    EXPECT_EQ(
        ok("binding show"),
        "IP           MAC                VLAN  Interface  Type     State      Lease     Elapsed\n"
        "10.0.0.1     00:11:22:33:44:55  30    3          dynamic  bound      3600      3600\n"
        "192.0.2.7    02:00:00:00:00:07  10    1          static   bound      infinite  100000\n"
        "2001:db8::9  02:00:00:00:00:09  20    4          dynamic  requested  600       30\n");
    EXPECT_EQ(ok("binding show --interface 3 --count"), "1\n");
    EXPECT_EQ(ok("--json binding show --vlan 30 --count"), "{\"count\":1}\n");
    EXPECT_EQ(ok("binding show --vlan 99"), "No bindings.\n");
    /* names where the host has them: index 1 is loopback */
    EXPECT_EQ(
        run_cli("--json binding show --vlan 10").out,
        "[{\"ip\":\"192.0.2.7\",\"mac\":\"02:00:00:00:00:07\",\"vlan\":10,\"interface\":\"lo\","
        "\"ifindex\":1,\"type\":\"static\",\"state\":\"bound\",\"lease\":null,"
        "\"elapsed\":100000,\"attribute\":5}]\n");

    ok("binding add 192.0.2.8 mac 02:00:00:00:00:08 vlan 10 interface 3");
    refused("binding add 192.0.2.8 mac 02:00:00:00:00:08 vlan 1 interface 3",
            "binding add 192.0.2.8: the entry already exists or is an IP source guard "
            "binding (0x3E80003); a binding for that address exists already, or it is an IP "
            "source guard binding");
    refused("binding set 192.0.2.8 vlan 9",
            "binding set 192.0.2.8 vlan: the binding is bound and cannot be changed (unbind "
            "it first) (0x3E8000C); unbind it first ('binding unbind IP')");
    ok("binding unbind 192.0.2.8");
    ok("binding set 192.0.2.8 vlan 9 mac 02-00-00-00-00-0A attribute 3");
    EXPECT_EQ(ok("binding show 192.0.2.8"),
              "IP         MAC                VLAN  Interface  Type    State    Lease     Elapsed\n"
              "192.0.2.8  02:00:00:00:00:0a  9     3          static  unbound  infinite  0\n");
    ok("binding delete 192.0.2.8");
    for (std::string c : {"binding show 192.0.2.8", "binding bind 192.0.2.8"})
        refused(c, c + ": no such entry or interface (0x3E80002); no binding for that address");
    /* a listing of several pages */
    for (uint8_t i = 0; i < 70; i++)
        make_user(v4key(10, 1, 0, i), DHCPSNOOP_USER_STATIC, 3, 7);
    const std::string many = ok("binding show --vlan 7");
    EXPECT_EQ(std::count(many.begin(), many.end(), '\n'), 71);
}

/* The socket exchange against a socket that serves one connection with what
 * `reply` makes of the request (the length word included); with `how` 1 it
 * only listens, with 0 it is a file left behind by a daemon that is gone. */
Result served(const std::string &path, const Daemon &reply, int how = 2)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un un {};
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, path.c_str(), sizeof un.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&un), sizeof un), 0);
    EXPECT_EQ(how ? listen(fd, 4) : 0, 0);
    std::thread server([&] {
        if (how < 2)
            return; /* the request waits in the queue, if any */
        int c = accept(fd, nullptr, nullptr);
        Bytes req(4 + REQUEST_MAX);
        req.resize(size_t(std::max<ssize_t>(4, recv(c, req.data(), req.size(), 0))));
        Bytes out = reply(Bytes(req.begin() + 4, req.end()));
        EXPECT_EQ(write(c, out.data(), out.size()), ssize_t(out.size()));
        close(c);
    });
    Result r = run_cli("--socket " + path + " --timeout 0.2 interface 7 get 18");
    server.join();
    close(fd);
    unlink(path.c_str());
    return r;
}

TEST(CliSocket, BrokenExchangesAreCommunicationErrors)
{
    const std::string path = "/tmp/dsctl-" + std::to_string(getpid()) + ".sock";
    const std::vector<std::pair<Daemon, std::string>> cases = {
        {[](const Bytes &req) {
             return framed(answered(req, 0, DATA_POS_INDEX, 2, {u32_bytes(40)}));
         },
         ""},
        {[](const Bytes &) { return u32_bytes(0); }, "the daemon rejected the request"},
        {[](const Bytes &) { return Bytes(); },
         "bad reply (the daemon closed the connection without an answer)"},
        {[](const Bytes &req) {
             Bytes b = framed(req);
             return b.resize(b.size() - 3), b;
         },
         "bad reply (the reply was cut short)"},
        {[](const Bytes &) { return u32_bytes(1u << 30); },
         "bad reply (reply length 1073741824 is not plausible)"},
    };
    for (auto &[reply, text] : cases) {
        Result r = served(path, reply);
        EXPECT_EQ(std::tuple(r.status, r.out),
                  text.empty() ? std::tuple(0, "40\n"s) : std::tuple(int(EXIT_COMM), ""s));
        EXPECT_EQ(r.err, text.empty() ? "" : "dhcpsnoopctl: interface 7 get 18: " + text + "\n");
    }
    EXPECT_EQ(served(path, nullptr, 1).err,
              "dhcpsnoopctl: interface 7 get 18: timed out (no reply from the daemon in time)\n");
    const std::string gone = "dhcpsnoopctl: interface 7 get 18: the daemon is not running "
                             "(nothing is listening on " +
                             path + ")\n";
    EXPECT_EQ(served(path, nullptr, 0).err, gone);
    EXPECT_EQ(run_cli("--socket " + path + " --timeout 0.2 interface 7 get 18").err, gone);
}

} // namespace
