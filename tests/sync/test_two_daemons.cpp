/*
 * A master and a slave daemon: bindings the master learns from frames reach
 * the slave through the peer transport and the slave's command socket, and
 * so do their deletions.
 */
#include <unistd.h>

#include <cstring>

#include "child_daemon_helpers.h"
#include "daemon_fixture.h"
#include "dhcpsnoop_user.h"
#include "frame_helpers.h"
#include "peer_transport.h"

namespace {

constexpr uint32_t CLIENT_PORT = 1, SERVER_PORT = 2;
constexpr uint32_t SERVER_IP = 0xC0000201, CLIENT_IP = 0xC0000264;
const std::array<uint8_t, 6> CLIENT_MAC{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

/* The peer's redundancy scalar 54: 0 makes it a Slave, 1 a unit of role None. */
ChildDaemonOptions slaveOptions(int32_t s54)
{
    ChildDaemonOptions o;
    o.ports = {CLIENT_PORT, SERVER_PORT};
    o.s53 = 1;
    o.s54 = s54;
    o.enablePorts = true;
    return o;
}

class TwoDaemons : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        char tmpl[] = "/tmp/dhcpsnoop-pair-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_TRUE(slave.start(dir + "/slave.sock", slaveOptions(0)));
        model().hwScalars[53] = 0; /* master */
        start();
        enablePort(CLIENT_PORT);
        enablePort(SERVER_PORT)->flags |= ifflag::TRUSTED;
        sys().selectAdvancesClock = false;
        std::string peer = slave.path;
        model().onScalarSync = [peer](uint32_t code, void *data, uint32_t) {
            return code == 0x40013 ? dhcpsnoop_peer_send(peer.c_str(),
                                                         static_cast<QorTextPair *>(data))
                                   : 0;
        };
    }
    void TearDown() override
    {
        slave.stop();
        unlink((dir + "/slave.sock").c_str());
        rmdir(dir.c_str());
        DaemonTest::TearDown();
    }

    void inject(uint32_t port, const Dhcp4Frame &f)
    {
        FakeFrame ff;
        ff.bytes = f.build();
        ff.ingress = port;
        ff.outerVid = 10;
        sys().frames4.push_back(ff);
        dhcpsnoop_main_pass();
    }

    void exchange()
    {
        Dhcp4Frame req;
        req.src = req.chaddr = CLIENT_MAC;
        req.msgType(3).opt(50, ipv4(CLIENT_IP)).opt(54, ipv4(SERVER_IP)).end();
        inject(CLIENT_PORT, req);
        Dhcp4Frame ack;
        ack.op = 2;
        ack.sport = 67;
        ack.dport = 68;
        ack.chaddr = CLIENT_MAC;
        ack.yiaddr = CLIENT_IP;
        ack.msgType(5).opt(54, ipv4(SERVER_IP)).opt(51, ipv4(3600)).end();
        inject(SERVER_PORT, ack);
    }

    std::string slaveBindings()
    {
        std::string out;
        EXPECT_EQ(slave.ctl({"--json", "binding", "show"}, out), 0);
        return out;
    }

    std::string dir;
    ChildDaemon slave;
};

} // namespace

TEST_F(TwoDaemons, BindingsLearntOnTheMasterFollowOnTheSlave)
{
    EXPECT_EQ(slaveBindings().find("192.0.2.100"), std::string::npos);
    exchange();
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    memcpy(key.ipAddr, ipv4(CLIENT_IP).data(), 4);
    ASSERT_NE(dhcpsnoop_user_lookup(&key), nullptr);
    std::string listed = slaveBindings();
    EXPECT_NE(listed.find("192.0.2.100"), std::string::npos) << listed;
    EXPECT_NE(listed.find("02:11:22:33:44:55"), std::string::npos) << listed;
    EXPECT_NE(listed.find("3600"), std::string::npos) << listed;

    /* the client releases: the deletion follows */
    Dhcp4Frame rel;
    rel.src = rel.chaddr = CLIENT_MAC;
    rel.ciaddr = CLIENT_IP;
    rel.msgType(7).end();
    inject(CLIENT_PORT, rel);
    EXPECT_EQ(dhcpsnoop_user_lookup(&key), nullptr);
    EXPECT_EQ(slaveBindings().find("192.0.2.100"), std::string::npos);
}

TEST_F(TwoDaemons, ASlaveThatIsNotASlaveIgnoresTheBuffers)
{
    slave.stop();
    ASSERT_TRUE(slave.start(dir + "/slave.sock", slaveOptions(1))); /* None */
    exchange();
    EXPECT_EQ(slaveBindings().find("192.0.2.100"), std::string::npos);
}

TEST_F(TwoDaemons, AFullCopyAfterSubsystemUpRebuildsAnEmptySlave)
{
    exchange();
    /* the slave restarts empty; the master is told its subsystem came up */
    slave.stop();
    ASSERT_TRUE(slave.start(dir + "/slave.sock", slaveOptions(0)));
    EXPECT_EQ(slaveBindings().find("192.0.2.100"), std::string::npos);
    std::vector<uint8_t> up(16, 0);
    uint32_t len = 16;
    uint16_t type = 93;
    memcpy(up.data(), &len, 4);
    memcpy(up.data() + 4, &type, 2);
    sys().netlink.push_back(up);
    dhcpsnoop_main_pass();
    std::string listed = slaveBindings();
    EXPECT_NE(listed.find("192.0.2.100"), std::string::npos) << listed;
}
