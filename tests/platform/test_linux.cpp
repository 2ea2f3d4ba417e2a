/* The Linux platform: its configuration, and how frames and link events of a
 * stock kernel are turned into what the daemon expects. */
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "frame6_helpers.h"
#include "frame_helpers.h"
#include "linux_platform.h"
#include "switch_model.h"

TEST(LinuxConfig, ReadsEveryStatement)
{
    const char *text = "# switch\n"
                       "port swp1 pvid 0000000010 max-users 20\n"
                       "port uplink tagged vlans 10,20 tpid 0x88a8 router\n"
                       "port swp3 tagged untagged router bridge excluded   # not forwarded\n"
                       "vlan 20 interface\n"
                       "vlan 30 interface v30\n"
                       "role master\n"
                       "peer /run/peer.sock\n"
                       "ipsg swp1 items 0xC0\n"
                       "dai vlan20 items 0xF0\n"
                       "hostname sw-7\n"
                       "hardware-state /tmp/hw\n"
                       "trap none\n"
                       "binding-guard off\n"
                       "socket-group root\n";
    LinuxConfig c;
    std::string error;
    ASSERT_EQ(linux_config_parse(text, c, error), 0) << error;
    using V = std::vector<uint16_t>;
    std::vector<std::tuple<std::string, int, bool, V, bool, int, bool, int>> ports;
    for (auto &p : c.ports)
        ports.emplace_back(p.name, p.pvid, p.tagged, p.vlans, p.router, p.tpid, p.excluded,
                           p.maxUsers);
    EXPECT_EQ(ports, (decltype(ports){{"swp1", 10, false, {}, false, 0x8100, false, 20},
                                      {"uplink", 1, true, {10, 20}, true, 0x88A8, false, 0},
                                      {"swp3", 1, false, {}, false, 0x8100, true, 0}}));
    EXPECT_EQ(c.vlanInterfaces, (std::map<uint16_t, std::string>{{20, "vlan20"}, {30, "v30"}}));
    EXPECT_EQ(std::tuple(c.role, c.peer, c.hostname, c.hardwareState, c.nftables, c.bindingGuard,
                         c.socketGid),
              std::tuple("master", "/run/peer.sock", "sw-7", "/tmp/hw", false, false, 0u));
    ASSERT_EQ(c.ipsg.size() + c.dai.size(), 2u);
    EXPECT_EQ(std::tuple(c.ipsg[0].port, c.ipsg[0].vlan, c.ipsg[0].items, c.dai[0].port, c.dai[0].vlan,
                         c.dai[0].items),
              std::tuple("swp1", 0, 0xC0, "", 20, 0xF0));
    EXPECT_TRUE(LinuxConfig().bindingGuard);
}

TEST(LinuxConfig, RefusesWhatItCannotMeanAndSaysWhere)
{
    struct Case {
        const char *text;
        const char *error;
    } cases[] = {
        {"port", "line 1: port needs a name"},
        {"\nport swp1 pvid 0", "line 2: bad pvid 0"},
        {"port swp1 pvid 4095", "line 1: bad pvid 4095"},
        {"port swp1 vlans 10,x", "line 1: bad vlan x"},
        {"port swp1 tpid 0x10000", "line 1: bad tpid 0x10000"},
        {"port swp1 speed 10", "line 1: unknown port setting speed"},
        {"port averyveryverylongname", "line 1: port name too long: averyveryverylongname"},
        {"vlan 10", "line 1: expected: vlan VID interface [NAME]"},
        {"role backup", "line 1: role is none, master or slave"},
        {"ipsg swp1 0xC0", "line 1: expected: ipsg PORT|vlanVID items 0xHH"},
        {"dai swp1 items 0x100", "line 1: expected: dai PORT|vlanVID items 0xHH"},
        {"trap iptables", "line 1: trap is nftables or none"},
        {"frobnicate", "line 1: unknown statement frobnicate"},
        {"port swp1 vlans 10,,20", "line 1: empty item in vlans 10,,20"},
        {"port swp1 max-users 0", "line 1: bad max-users 0"},
        {"port swp1\nport swp2\nport swp1 pvid 2", "line 3: port swp1 is already declared"},
        {"port swp1\nipsg swp1 items 0x80\ndai swp9 items 0x80\nport swp9x",
         "line 3: dai on swp9, which is not a declared port"},
        {"\nhardware-state /nonexistent-dir/sub/hw",
         "line 2: hardware-state /nonexistent-dir/sub/hw cannot be written: No such file or directory"},
        {"binding-guard yes", "line 1: binding-guard is on or off"},
        {"socket-group no-such-group-here", "line 1: no group no-such-group-here"},
    };
    for (auto &c : cases) {
        LinuxConfig out;
        std::string error;
        EXPECT_EQ(linux_config_parse(c.text, out, error), -1) << c.text;
        EXPECT_EQ(error, c.error) << c.text;
    }
}

TEST(LinuxArgs, PoolSizesAndSwitchesAreCheckedNotWrapped)
{
    struct Case {
        std::vector<const char *> args;
        const char *error; /* null: accepted */
    } cases[] = {
        {{}, nullptr},
        {{"0", "65535", "1", "0", "1"}, nullptr},
        {{"0", "65536"}, "argument 2 (the binding pool size) must be a number from 0 to 65535, not '65536'"},
        {{"0", "0", "2"}, "argument 3 (the source-guard switch) must be 0 or 1, not '2'"},
        {{"0", "0", "0", "abc"}, "argument 4 (the ARP-inspection switch) must be 0 or 1, not 'abc'"},
        {{"0x10"}, "argument 1 (the interface pool size) must be a number from 0 to 65535, not '0x10'"},
        {{"0", "0", "0", "0", "0", "0"}, "at most five arguments"},
    };
    for (auto &c : cases) {
        std::vector<char *> argv = {const_cast<char *>("dhcpsnoopd")};
        for (const char *a : c.args)
            argv.push_back(const_cast<char *>(a));
        std::string error;
        EXPECT_EQ(linux_args_check(int(argv.size()), argv.data(), error), c.error ? -1 : 0);
        EXPECT_EQ(error, c.error ? c.error : "");
    }
}

using Bytes = std::vector<uint8_t>;

/* linux_adapt_frame on port 9 (PVID 7, TPID 0x8100) with room to spare. */
Bytes adapt(const Bytes &in, bool vlanValid, uint16_t tci, bool csumNotReady, LinuxRxInfo &info)
{
    Bytes buf(in);
    buf.resize(2052);
    buf.resize(linux_adapt_frame(buf.data(), uint32_t(in.size()), 2052, vlanValid, tci, 0,
                                 csumNotReady, 9, 7, 0x8100, info));
    return buf;
}

TEST(LinuxFrames, TagsAndVlansAsTheSwitchWouldReportThem)
{
    Dhcp4Frame f;
    f.msgType(1).end();
    const Bytes untagged = f.build();
    f.vlans = {30};
    const Bytes tagged = f.build();
    f.vlans = {40};
    const Bytes inner40 = f.build();
    f.vlans = {30, 40};
    const Bytes qinq = f.build();
    Bytes qinq9100 = qinq;
    qinq9100[12] = 0x91;
    struct Case {
        const char *what;
        Bytes in;
        bool vlanValid;
        uint16_t tci;
        Bytes expect;
        uint16_t outer, inner;
        uint8_t l2;
    } cases[] = {
        {"untagged: the port's PVID", untagged, false, 0, untagged, 7, 0, 14},
        {"tag taken off by the kernel goes back", untagged, true, 30, tagged, 30, 0, 18},
        {"tag left in the data", tagged, false, 0, tagged, 30, 0, 18},
        {"outer tag taken off, inner left", inner40, true, 30, qinq, 30, 40, 22},
        {"two tags left in the data, 0x9100 outside", qinq9100, false, 0, qinq9100, 30, 40, 22},
        {"priority bits are not the VLAN", untagged, true, 0xE000 | 30, {}, 30, 0, 18},
    };
    for (auto &c : cases) {
        LinuxRxInfo info;
        Bytes out = adapt(c.in, c.vlanValid, c.tci, false, info);
        if (!c.expect.empty()) {
            EXPECT_EQ(out, c.expect) << c.what;
        }
        EXPECT_EQ(std::tuple(info.ingress, info.outerVid, info.innerVid, info.l2HdrLen),
                  std::tuple(9u, c.outer, c.inner, c.l2))
            << c.what;
    }
    /* a frame that would not fit with its tag keeps its length */
    Bytes full(2048, 0);
    LinuxRxInfo info;
    EXPECT_EQ(linux_adapt_frame(full.data(), 2048, 2048, true, 5, 0, false, 1, 1, 0x8100, info), 2048u);
}

TEST(LinuxFrames, ChecksumsLeftToTheHardwareAreCompleted)
{
    Dhcp4Frame f;
    const Bytes ready = f.msgType(3).opt(50, ipv4(0xC0000205)).end().build();
    Bytes v4 = ready;
    v4[14 + 20 + 6] = 0x12; /* a partial sum, as the sender's kernel leaves it */
    v4[14 + 20 + 7] = 0x34;
    ASSERT_FALSE(udp4_checksum_ok(v4.data(), 14));
    LinuxRxInfo info;
    Bytes out = adapt(v4, false, 0, true, info);
    EXPECT_TRUE(udp4_checksum_ok(out.data(), 14) && ipv4_checksum_ok(out.data(), 14));
    /* a checksum that is ready is left alone */
    EXPECT_EQ(adapt(v4, false, 0, false, info), v4);

    Dhcp6Frame g;
    Bytes v6 = g.opt(8, {0, 0}).build();
    v6[14 + 40 + 6] ^= 0xFF;
    out = adapt(v6, true, 12, true, info); /* with the tag put back first */
    EXPECT_EQ(info.l2HdrLen, 18);
    EXPECT_TRUE(udp6_checksum_ok(out.data(), 18));
}

/* Does the data sockets' kernel filter let the frame through?  A datagram
 * socket pair runs the same filter without privileges. */
bool filter_passes(bool v6, const Bytes &frame)
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0)
        return false;
    std::vector<sock_filter> code = linux_dhcp_filter(v6, {0x8100, 0x88A8, 0x9100});
    struct sock_fprog prog = {uint16_t(code.size()), code.data()};
    uint8_t buf[2048];
    bool ok = setsockopt(sv[1], SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) == 0 &&
              send(sv[0], frame.data(), frame.size(), 0) == ssize_t(frame.size()) &&
              recv(sv[1], buf, sizeof buf, MSG_DONTWAIT) == ssize_t(frame.size());
    close(sv[0]);
    close(sv[1]);
    return ok;
}

TEST(LinuxFrames, ReceiveFilterFindsDhcpBehindTagsIpOptionsAndExtensionHeaders)
{
    auto v4 = [](auto change) {
        Dhcp4Frame f;
        f.msgType(1).end();
        change(f);
        return f.build();
    };
    auto outer = [](Bytes fr, uint16_t tpid) {
        fr[12] = uint8_t(tpid >> 8);
        fr[13] = uint8_t(tpid);
        return fr;
    };
    auto v6 = [](uint8_t next, Bytes ext) {
        Dhcp6Frame f;
        f.nextHeader = next;
        f.ext = ext;
        return f.build();
    };
    Bytes hbhThenDst = {60, 0, 1, 4, 0, 0, 0, 0, 17, 1, 1, 12};
    hbhThenDst.resize(24);
    const Bytes qinq = v4([](Dhcp4Frame &f) { f.vlans = {30, 40}; });
    struct Case {
        const char *what;
        bool v6;
        Bytes frame;
        bool pass;
    } cases[] = {
        {"untagged DHCPv4", false, v4([](Dhcp4Frame &) {}), true},
        {"IPv4 options (router alert)", false, v4([](Dhcp4Frame &f) { f.ihl = 6; }), true},
        {"one 802.1Q tag", false, v4([](Dhcp4Frame &f) { f.vlans = {30}; }), true},
        {"two tags, 0x9100 outside", false, outer(qinq, 0x9100), true},
        {"three tags", false, v4([](Dhcp4Frame &f) { f.vlans = {1, 2, 3}; }), false},
        {"an unknown outer TPID", false, outer(qinq, 0x9200), false},
        {"other UDP ports", false, v4([](Dhcp4Frame &f) { f.sport = f.dport = 53; }), false},
        {"not UDP", false, v4([](Dhcp4Frame &f) { f.ipProto = 6; }), false},
        {"plain DHCPv6", true, v6(17, {}), true},
        {"DHCPv6 behind hop-by-hop and destination options", true, v6(0, hbhThenDst), true},
        {"TCP behind a hop-by-hop header", true, v6(0, {6, 0, 1, 4, 0, 0, 0, 0}), false},
        {"DHCPv6 to the IPv4 filter", false, v6(17, {}), false},
    };
    for (auto &c : cases)
        EXPECT_EQ(filter_passes(c.v6, c.frame), c.pass) << c.what;
}

/* A link message with attributes (type, length), each padded to 4. */
Bytes link_message(uint16_t type, std::vector<std::pair<uint16_t, uint16_t>> attrs)
{
    Bytes m(32, 0);
    for (auto &[t, len] : attrs) {
        size_t at = m.size();
        m.resize(at + ((len + 3u) & ~3u), 0);
        memcpy(&m[at], &len, 2);
        memcpy(&m[at + 2], &t, 2);
    }
    uint32_t total = uint32_t(m.size());
    memcpy(&m[0], &total, 4);
    memcpy(&m[4], &type, 2);
    return m;
}

TEST(LinuxNetlink, StockLinkAttributesNeverLookLikeAggregationEvents)
{
    auto types = [](const Bytes &m, std::vector<size_t> at) {
        std::vector<uint16_t> t;
        for (size_t a : at)
            memcpy(&t.emplace_back(), &m[a + 2], 2);
        return t;
    };
    auto a = link_message(RTM_NEWLINK, {{3, 8}, {38, 8}, {52, 8}, {0x8000 | 53, 4}, {49, 4}});
    auto b = link_message(RTM_DELLINK, {{38, 8}});
    Bytes dgram(a);
    dgram.insert(dgram.end(), b.begin(), b.end());
    linux_filter_netlink(dgram.data(), dgram.size());
    /* only link news carry them */
    EXPECT_EQ(types(dgram, {32, 40, 48, 56, 60, a.size() + 32}),
              (std::vector<uint16_t>{3, 0x3FFF, 0x3FFF, 0x3FFF, 0x3FFF, 38}));

    /* lengths that lie stop the walk inside the datagram */
    auto c = link_message(RTM_NEWLINK, {{38, 8}});
    const uint16_t huge = 0xFFF0;
    memcpy(&c[32], &huge, 2);
    linux_filter_netlink(c.data(), c.size());
    EXPECT_EQ(types(c, {32}), std::vector<uint16_t>{38});
    uint32_t tooLong = 4096;
    memcpy(&c[0], &tooLong, 4);
    linux_filter_netlink(c.data(), c.size());
    linux_filter_netlink(c.data(), 10);
}

namespace {
/* A hardware record as the binding code builds it: IPv4 `last` in
 * 192.0.2.0/24, MAC ending in `last`, VLAN 10, the rule kind's flags. */
std::array<uint8_t, 44> hw_record(uint8_t last, uint8_t ruleFlags)
{
    std::array<uint8_t, 44> r{};
    r = {0x02, 0, 0, 0, 0, last};
    uint16_t vid = 10;
    memcpy(&r[6], &vid, 2);
    r[16] = 192, r[17] = 0, r[18] = 2, r[19] = last;
    r[36] = 1, r[37] = ruleFlags, r[39] = 0x20;
    return r;
}

std::vector<std::string> state_lines(const std::string &path)
{
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) {
        EXPECT_EQ(l.size() + 1, 96u) << l;
        l.erase(l.find_last_not_of(' ') + 1);
        if (!l.empty() && l[0] != '#')
            out.push_back(l);
    }
    return out;
}
} // namespace

TEST(LinuxHardwareState, OneLinePerRecordUpdatedInPlaceAndSlotsReused)
{
    std::string path = testing::TempDir() + "dhcpsnoop-hw-state";
    ASSERT_EQ(linux_hw_state_open(path.c_str(), 2), 0);
    const uint32_t ADD = 0x3E800DF, DEL = 0x3E800E0;
    auto v6 = hw_record(9, 0x80);
    v6[16] = 0x20, v6[17] = 0x01, v6[18] = 0x0d, v6[19] = 0xb8, v6[39] = 0x80;
    linux_hw_state_update(9, ADD, v6.data());
    EXPECT_EQ(state_lines(path), std::vector<std::string>{"9 2001:db8:: 02:00:00:00:00:09 10 ipsg"});
    linux_hw_state_update(9, DEL, v6.data());
    for (uint8_t b : {5, 6, 7})
        linux_hw_state_update(9, ADD, hw_record(b, 0x80).data());
    linux_hw_state_update(9, ADD, hw_record(6, 0x40).data()); /* a second rule, same address */
    linux_hw_state_update(9, ADD, hw_record(6, 0x40).data()); /* replaced, not repeated */
    std::vector<std::string> want = {
        "9 192.0.2.5 02:00:00:00:00:05 10 ipsg", "9 192.0.2.6 02:00:00:00:00:06 10 ipsg",
        "9 192.0.2.6 02:00:00:00:00:06 10  dai", "9 192.0.2.7 02:00:00:00:00:07 10 ipsg"};
    EXPECT_EQ(state_lines(path), want);
    auto size = [&] { return std::ifstream(path, std::ios::ate).tellg(); };
    auto before = size();
    linux_hw_state_update(9, DEL, hw_record(5, 0x80).data());
    linux_hw_state_update(9, DEL, hw_record(5, 0x80).data()); /* gone already */
    linux_hw_state_update(3, DEL, hw_record(6, 0x80).data()); /* another port's */
    linux_hw_state_update(9, ADD, hw_record(8, 0x80).data()); /* takes the freed slot */
    EXPECT_EQ(size(), before);
    want[0] = "9 192.0.2.8 02:00:00:00:00:08 10 ipsg";
    EXPECT_EQ(state_lines(path), want);
    /* every slot taken: further addresses are left out, nothing else changes */
    for (int b = 20; b < 200; b++)
        linux_hw_state_update(9, ADD, hw_record(uint8_t(b), 0x80).data());
    linux_hw_state_update(9, DEL, hw_record(6, 0x80).data());
    linux_hw_state_update(9, DEL, hw_record(6, 0x40).data());
    EXPECT_EQ(state_lines(path).size(), 2u + 64u - 1u);
    linux_hw_state_update(9, ADD, hw_record(250, 0x80).data()); /* room again */
    std::vector<std::string> lines = state_lines(path);
    EXPECT_EQ(lines.size(), 2u + 64u);
    EXPECT_EQ(lines[1], "9 192.0.2.250 02:00:00:00:00:fa 10 ipsg");
    linux_hw_state_open("", 0);
}

/* Frames on a real packet socket, in a network namespace of the test's own
 * (needs root; skipped otherwise): loopback is the switch's only port. */
TEST(LinuxBatch, QueuedFramesComeOneByOneInOrderAndSelectSeesTheRest)
{
    if (unshare(CLONE_NEWNET) != 0)
        GTEST_SKIP() << "no network namespace of our own (not root)";
    int ctl = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr {};
    strcpy(ifr.ifr_name, "lo");
    ioctl(ctl, SIOCGIFFLAGS, &ifr);
    ifr.ifr_flags |= IFF_UP;
    ASSERT_EQ(ioctl(ctl, SIOCSIFFLAGS, &ifr), 0);
    close(ctl);
    sim_model().reset();
    sim_model().addPort(if_nametoindex("lo"), "lo");

    const DhcpsnoopSysOps *sys = linux_sys_ops();
    int fd = sys->socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP));
    if (fd < 0)
        GTEST_SKIP() << "no packet sockets here (an emulator that lacks them)";
    struct sockaddr_ll to {};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = int(if_nametoindex("lo"));
    to.sll_halen = 6;
    std::vector<std::vector<uint8_t>> sent;
    auto send = [&](uint32_t xid) {
        Dhcp4Frame f;
        f.xid = xid;
        sent.push_back(f.msgType(1).end().build());
        ASSERT_EQ(sys->sendto(fd, sent.back().data(), sent.back().size(), 0,
                              reinterpret_cast<struct sockaddr *>(&to), sizeof to),
                  ssize_t(sent.back().size()));
    };
    auto readable = [&](long usec) {
        fd_set rd;
        FD_ZERO(&rd);
        FD_SET(fd, &rd);
        struct timeval tv = {0, usec};
        return sys->select(fd + 1, &rd, nullptr, nullptr, &tv) == 1 && FD_ISSET(fd, &rd);
    };
    for (uint32_t xid = 1; xid <= 5; xid++)
        send(xid);
    for (size_t i = 0; i < 6; i++) {
        if (i == 5) /* a shorter batch of sends after a longer one: only its own frame */
            send(6);
        ASSERT_TRUE(readable(500000)) << i;
        uint8_t buf[2048];
        alignas(struct cmsghdr) uint8_t control[64];
        struct iovec iov = {buf, sizeof buf};
        struct msghdr m {};
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        m.msg_control = control;
        m.msg_controllen = sizeof control;
        ssize_t n = sys->recvmsg(fd, &m, 0);
        ASSERT_EQ(n, ssize_t(sent[i].size())) << i;
        EXPECT_EQ(std::vector<uint8_t>(buf, buf + n), sent[i]) << i;
        /* after the first, the kernel's queue is empty: the rest were read with it */
        uint8_t peek;
        EXPECT_EQ(recv(fd, &peek, 1, MSG_PEEK | MSG_DONTWAIT), -1) << i;
    }
    EXPECT_FALSE(readable(0));
    sys->close(fd);
}
