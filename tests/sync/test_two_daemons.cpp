/* A master and a slave daemon: what the master learns from frames, and its
 * deletions, reach the slave through the peer transport and its command
 * socket; a slave that restarts empty is rebuilt by a full copy. */
#include <unistd.h>

#include "child_daemon_helpers.h"
#include "daemon_fixture.h"
#include "frame_helpers.h"
#include "peer_transport.h"

namespace {
const std::array<uint8_t, 6> CLIENT_MAC{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

void inject(uint32_t port, Dhcp4Frame &f)
{
    FakeFrame ff;
    ff.bytes = f.end().build();
    ff.ingress = port;
    ff.outerVid = 10;
    FakeSys::get().frames4.push_back(ff);
    dhcpsnoop_main_pass();
}
} // namespace

TEST_F(DaemonTest, BindingsLearntOnTheMasterFollowOnTheSlave)
{
    char tmpl[] = "/tmp/dhcpsnoop-pair-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, path = dir + "/slave.sock";
    ChildDaemonOptions o;
    o.ports = {1, 2};
    o.s54 = 0; /* a Slave */
    o.enablePorts = true;
    ChildDaemon slave;
    auto listed = [&] {
        std::string out;
        EXPECT_EQ(slave.ctl({"--json", "binding", "show"}, out), 0);
        return out;
    };
    ASSERT_TRUE(slave.start(path, o));
    model().hwScalars[53] = 0; /* a master */
    start();
    enablePort(1);
    enablePort(2)->flags |= ifflag::TRUSTED;
    sys().selectAdvancesClock = false;
    model().onScalarSync = [path](uint32_t code, void *data, uint32_t) {
        return code == 0x40013 ? dhcpsnoop_peer_send(path.c_str(), static_cast<QorTextPair *>(data))
                               : 0;
    };

    Dhcp4Frame req;
    req.src = req.chaddr = CLIENT_MAC;
    inject(1, req.msgType(3).opt(50, ipv4(0xC0000264)).opt(54, ipv4(0xC0000201)));
    Dhcp4Frame ack;
    ack.op = 2;
    ack.sport = 67;
    ack.dport = 68;
    ack.chaddr = CLIENT_MAC;
    ack.yiaddr = 0xC0000264;
    inject(2, ack.msgType(5).opt(54, ipv4(0xC0000201)).opt(51, ipv4(3600)));
    for (const char *text : {"192.0.2.100", "02:11:22:33:44:55", "3600"})
        EXPECT_NE(listed().find(text), std::string::npos) << text;

    /* restarted empty, it is rebuilt once the master hears its subsystem is up */
    slave.stop();
    ASSERT_TRUE(slave.start(path, o));
    EXPECT_EQ(listed().find("192.0.2.100"), std::string::npos);
    struct {
        uint32_t len = 16;
        uint16_t type = 93;
        uint8_t rest[10] = {};
    } up;
    sys().netlink.push_back(std::vector<uint8_t>((uint8_t *)&up, (uint8_t *)&up + 16));
    dhcpsnoop_main_pass();
    EXPECT_NE(listed().find("192.0.2.100"), std::string::npos);

    Dhcp4Frame rel;
    rel.src = rel.chaddr = CLIENT_MAC;
    rel.ciaddr = 0xC0000264;
    inject(1, rel.msgType(7));
    EXPECT_EQ(listed().find("192.0.2.100"), std::string::npos);
    slave.stop();
    unlink(path.c_str());
    rmdir(tmpl);
}
