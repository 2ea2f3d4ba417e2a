/* Daemon core: pools, start-up and shutdown, the loop, the lease timer and
 * the relay server list. */
#include <linux/netlink.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "binding_helpers.h"

namespace {

const char *kPath = "/tmp/dhcpsnoop.socket";

size_t list_length(const DhcpsnoopList *head)
{
    size_t n = 0;
    for (const DhcpsnoopList *e = head->next; e != head; e = e->next)
        n++;
    return n;
}

using StartTest = DaemonTest;

} // namespace

/* Entries are at least link-sized, aligned, taken from the end of the block;
 * a count of 0 gives one. */
TEST_F(StartTest, PoolEntriesAreLinkSizedAndTakenFromTheEndOfTheBlock)
{
    for (auto [size, count, stride, entries] :
         {std::tuple<uint32_t, uint32_t, size_t, size_t>{1, 3, sizeof(DhcpsnoopList), 3},
          {20, 0, 24, 1}, {sizeof(DhcpsnoopUser), 5, sizeof(DhcpsnoopUser), 5}}) {
        DhcpsnoopList head;
        void *pool = nullptr;
        ASSERT_EQ(dhcpsnoop_memlist_init(&head, &pool, size, count), 0);
        EXPECT_EQ(list_length(&head), entries) << size << "x" << count;
        const DhcpsnoopList *e = head.next;
        for (size_t i = entries; i-- > 0; e = e->next)
            EXPECT_EQ(reinterpret_cast<const uint8_t *>(e),
                      static_cast<uint8_t *>(pool) + i * stride);
        dhcpsnoop_sys->free(pool);
    }
}

/* Pool sizes, then one flag per hook: source guard, ARP inspection, the
 * default-install callback; a sixth argument is ignored. */
TEST_F(StartTest, ArgumentsGivePoolSizesAndHooks)
{
    struct Case {
        std::vector<const char *> args;
        uint16_t ifMax, userMax;
        bool ipsg, dai, deft;
    } cases[] = {
        {{}, 20, 256, false, false, false},
        {{"5", "7", "1", "0", "1"}, 5, 7, true, false, true},
        {{"3", "0", "0", "1", "0", "9"}, 3, 256, false, true, false},
    };
    for (auto &c : cases) {
        std::vector<char *> argv{const_cast<char *>("dhcpsnoopd")};
        for (const char *a : c.args)
            argv.push_back(const_cast<char *>(a));
        int before = model().segFaultHandlerInstalled;
        ASSERT_EQ(dhcpsnoop_start(int(argv.size()), argv.data()), 0);
        EXPECT_EQ(model().segFaultHandlerInstalled, before + 1);
        EXPECT_EQ(
            std::tuple(list_length(&gDhcpsnoop.ifFreeList), list_length(&gDhcpsnoop.userFreeList),
                       gDhcpsnoop.ifMax, gDhcpsnoop.userMax, gDhcpsnoop.serverMax),
            std::tuple(size_t(c.ifMax), size_t(c.userMax), c.ifMax, c.userMax, uint16_t(256)));
        EXPECT_EQ(std::tuple(gDhcpsnoop.ipsgIfGet != nullptr, gDhcpsnoop.antiArpIfGet != nullptr,
                             gDhcpsnoop.deftinstallCb != nullptr, gDhcpsnoop.circuitIdFmt.mode),
                  std::tuple(c.ipsg, c.dai, c.deft, uint16_t(3)));
        dhcpsnoop_shutdown();
    }
}

TEST_F(StartTest, StartUpOpensTheFourSocketsOnce)
{
    sys().failCall("setsockopt", 1, 57); /* the last two groups are optional */
    sys().failCall("setsockopt", 2, 40);
    start(4, 8);
    FakeSock *d4 = sys().sock(gDhcpsnoop.dataSock), *d6 = sys().sock(gDhcpsnoop.data6Sock),
             *cmd = sys().sock(gDhcpsnoop.cmdSock), *rt = sys().sock(gDhcpsnoop.rtSock);
    ASSERT_TRUE(d4 && d6 && cmd && rt);
    EXPECT_EQ(std::tuple(d4->kind, d6->kind, d4->bound, (d4->options[{263, 20}]),
                         (d6->options[{263, 20}])),
              std::tuple(FakeKind::Data4, FakeKind::Data6, false, 1, 1));
    EXPECT_EQ(std::tuple(cmd->boundPath, cmd->bindLen, cmd->listening, cmd->backlog),
              std::tuple(std::string(kPath), socklen_t(110), true, 10));
    EXPECT_EQ(std::tuple(rt->protocol, rt->bindLen, rt->groups, rt->nonblocking),
              std::tuple(NETLINK_ROUTE, socklen_t(12), std::vector<int>{32, 31, 40, 1, 56}, true));
    /* the relay socket is deliberately left unopened; a stale socket path is
     * removed before binding */
    EXPECT_EQ(std::tuple(dhcpsnoop_is_started(), gDhcpsnoop.udpSock, sys().openCount()),
              std::tuple(1u, 0, size_t(4)));
    EXPECT_EQ(sys().unlinked, std::vector<std::string>{kPath});
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, DHCPSNOOP_ENTERPRISE_NUMBER);
    EXPECT_EQ(model().semaphores.count(gDhcpsnoop.semId), 1u);

    /* a second start-up returns 0 and changes nothing */
    DhcpsnoopIf *e = enablePort(5);
    size_t sockets = sys().socks.size();
    EXPECT_EQ(dhcpsnoop_init_ex(10, 10, 10, 5, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(sys().socks.size(), sockets);
    EXPECT_EQ(dhcpsnoop_if_lookup(5), e);
    EXPECT_EQ(std::tuple(gDhcpsnoop.ifMax, gDhcpsnoop.circuitIdFmt.mode), std::tuple(4, 3));
}

TEST_F(StartTest, OptionModesOfStartUp)
{
    const char *t[] = {"%s.%c.%d:%N", "%d", "%d %N:%s.%c", "%s.%c.%d:%N"};
    for (auto [mode, expectMode] : {std::pair<uint32_t, uint16_t>{0, 3}, {7, 7}, {5, 5}}) {
        ASSERT_EQ(dhcpsnoop_init_ex(0, 0, 0, mode, nullptr, nullptr, nullptr), 0);
        const DhcpsnoopOptFmt *f[] = {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt,
                                      &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt};
        for (int i = 0; i < 4; i++)
            EXPECT_EQ(std::pair(f[i]->mode, std::string((const char *)f[i]->text, f[i]->len)),
                      std::pair(expectMode, std::string(mode == 5 ? t[i] : "")));
        dhcpsnoop_shutdown();
    }
}

TEST_F(StartTest, EveryFailingStepReleasesEverything)
{
    struct Case {
        const char *fn;
        long arg;
        int nth;
        int zeroCloses; /* descriptor 0 closed by shutdown's zero-filled fields */
    } cases[] = {
        {"OsixCreateMSem", -1, 1, 2}, {"calloc", -1, 1, 2},     {"calloc", -1, 2, 2},
        {"calloc", -1, 3, 2},         {"socket", AF_PACKET, 1, 2}, {"setsockopt", 20, 1, 2},
        {"socket", AF_PACKET, 2, 2},  {"setsockopt", 20, 2, 2},  {"socket", AF_UNIX, 1, 1},
        {"bind", long(FakeKind::Cmd), 1, 1},     {"listen", -1, 1, 1},
        {"socket", AF_NETLINK, 1, 0}, {"bind", long(FakeKind::Netlink), 1, 0},
        {"setsockopt", 32, 1, 0},     {"setsockopt", 31, 1, 0},  {"setsockopt", 40, 1, 0},
        {"setsockopt", 1, 1, 0},      {"setsockopt", 56, 1, 0},  {"ioctl", -1, 1, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(std::string(c.fn) + " " + std::to_string(c.arg) + " #" +
                     std::to_string(c.nth));
        sys().reset();
        sys().install();
        model().reset();
        if (std::string(c.fn) == "OsixCreateMSem")
            model().failOn(c.fn, -1, 1, 1);
        else
            sys().failCall(c.fn, c.nth, c.arg);
        EXPECT_EQ(dhcpsnoop_init_ex(0, 0, 0, 3, nullptr, nullptr, nullptr), -1);
        EXPECT_EQ(std::tuple(dhcpsnoop_is_started(), sys().openCount(), sys().liveAllocations(),
                             model().semaphores.size(), gDhcpsnoop.semId, gDhcpsnoop.cmdSock,
                             gDhcpsnoop.rtSock),
                  std::tuple(0u, 0u, 0u, 0u, 0u, -1, -1));
        EXPECT_EQ(std::count(sys().closedFds.begin(), sys().closedFds.end(), 0), c.zeroCloses);
        if (c.zeroCloses == 2) {
            EXPECT_EQ(sys().unlinked, std::vector<std::string>{kPath});
        }
    }
}

TEST_F(StartTest, UdpSocketIsBoundToPort67AndClosedOnAnyFailure)
{
    start();
    int fd = dhcpsnoop_udp_socket_init();
    ASSERT_GT(fd, 0);
    FakeSock *s = sys().sock(fd);
    EXPECT_TRUE(s->bound);
    for (int opt : {SO_BROADCAST, SO_REUSEADDR, SO_RCVBUF})
        EXPECT_EQ((s->options[{SOL_SOCKET, opt}]), 1) << opt;
    for (auto [fn, arg] : {std::pair<const char *, long>{"socket", AF_INET},
                           {"setsockopt", SO_BROADCAST},
                           {"setsockopt", SO_REUSEADDR},
                           {"setsockopt", SO_RCVBUF},
                           {"bind", long(FakeKind::Udp)}}) {
        size_t open = sys().openCount();
        sys().failCall(fn, 1, arg);
        EXPECT_EQ(dhcpsnoop_udp_socket_init(), -1) << fn << " " << arg;
        EXPECT_EQ(sys().openCount(), open) << fn << " " << arg;
    }
}

/* A full server list gives up its newest entry; only a Master sends the
 * changes; a lookup needs all three values. */
TEST_F(StartTest, ServerListReplacesItsNewestEntryWhenFull)
{
    ASSERT_EQ(dhcpsnoop_init_ex(0, 0, 2, 3, nullptr, nullptr, nullptr), 0);
    for (DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_SLAVE, DHCPSNOOP_ROLE_MASTER}) {
        for (DhcpsnoopServer *s : server_list())
            dhcpsnoop_server_delete(s);
        set_role(role);
        dhcpsnoop_server_add(0xA, 10, 1);
        dhcpsnoop_server_add(0xB, 20, 2);
        dhcpsnoop_server_add(0xC, 30, 3);
        auto l = server_list();
        ASSERT_EQ(l.size(), 2u);
        EXPECT_EQ(std::tuple(l[0]->serverIp, l[0]->vid, l[0]->ifIndex, l[1]->serverIp),
                  std::tuple(0xCu, 30u, 3u, 0xAu));
    }
    EXPECT_EQ(sync_buffers(), (std::vector<std::vector<uint8_t>>{
                                  server_record(0xA, 10, 1, 1), server_record(0xB, 20, 2, 1),
                                  server_record(0xB, 20, 2, 0), server_record(0xC, 30, 3, 1)}));
    EXPECT_EQ(dhcpsnoop_server_lookup(0xC, 30, 3), server_list()[0]);
    for (auto [ip, vid, ifIndex] : {std::tuple{0xDu, 30u, 3u}, {0xCu, 31u, 3u}, {0xCu, 30u, 4u}})
        EXPECT_EQ(dhcpsnoop_server_lookup(ip, vid, ifIndex), nullptr);
    /* a deleted entry is taken again first, zeroed */
    DhcpsnoopServer *s = server_list()[1];
    dhcpsnoop_server_delete(s);
    dhcpsnoop_server_delete(nullptr);
    EXPECT_EQ(dhcpsnoop_server_alloc(), s);
    EXPECT_EQ(std::tuple(s->serverIp, s->vid), std::tuple(0u, 0u));
    dhcpsnoop_server_delete(server_list()[0]);
    EXPECT_NE(dhcpsnoop_server_alloc(), nullptr);
    EXPECT_EQ(dhcpsnoop_server_alloc(), nullptr); /* nothing free, nothing to replace */
}

namespace {

class LoopTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        set_role(DHCPSNOOP_ROLE_NONE);
        start();
        sys().calls.clear();
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    }
    /* The receives and accepts since the last call. */
    std::vector<std::string> served() { return std::exchange(sys().calls, {}); }
    size_t handed_on() { return model().debugCount("Receive a dhcp message"); }
    FakeFrame frame(uint32_t ingress, uint16_t outer = 1)
    {
        FakeFrame f;
        f.bytes.assign(64, 0xAB);
        f.ingress = ingress;
        f.outerVid = outer;
        return f;
    }
    /* The frame record handed on: index, VLANs, header length, type, length. */
    std::tuple<uint32_t, uint16_t, uint16_t, uint8_t, uint16_t, uint16_t> rx()
    {
        const DhcpsnoopRxPkt *r = dhcpsnoop_main_rxpkt();
        return {r->ifIndex, r->outerVid, r->innerVid, r->l2HdrLen, r->etherType, r->len};
    }
};

} // namespace

TEST_F(LoopTest, OnePassServesOneUnitOfEachReadySocket)
{
    for (int i = 0; i < 2; i++) {
        sys().frames4.push_back(frame(1));
        sys().frames6.push_back(frame(1));
        sys().pendingConns.push_back(FakeConn{});
        sys().netlink.push_back(std::vector<uint8_t>(20, 0));
    }
    dhcpsnoop_main_pass();
    EXPECT_EQ(served(), (std::vector<std::string>{"recvmsg:data4", "recvmsg:data6", "accept:cmd",
                                                  "recvfrom:netlink"}));
    /* only what is ready is served */
    sys().frames4.clear();
    sys().pendingConns.clear();
    dhcpsnoop_main_pass();
    EXPECT_EQ(served(), (std::vector<std::string>{"recvmsg:data6", "recvfrom:netlink"}));
    /* with nothing ready the pass waits out its minute */
    const time_t before = sys().now;
    dhcpsnoop_main_pass();
    EXPECT_EQ(std::tuple(served().size(), sys().now - before), std::tuple(0u, time_t(60)));
    /* a failed select leaves the set as built: every socket is served */
    sys().selectResult = -1;
    dhcpsnoop_main_pass();
    EXPECT_EQ(served().size(), 4u);
    /* an empty netlink read is told */
    sys().netlink.push_back({});
    testing::internal::CaptureStderr();
    dhcpsnoop_main_pass();
    EXPECT_NE(
        testing::internal::GetCapturedStderr().find("[DHCPSNOOP]: recvfrom rt_socket  failed!"),
        std::string::npos);
}

TEST_F(LoopTest, LeaseScanRunsOncePerMinuteNeverOnASlaveAndExpiresDynamicEntries)
{
    sys().selectAdvancesClock = false;
    const uint32_t t0 = uint32_t(sys().now);
    /* 10.0.0.1 and 1.0.0.10 share a bucket: deleting one keeps the walk safe */
    for (auto [a, type, lease] : {std::tuple{1, DHCPSNOOP_USER_DYNAMIC, 60u},
                                  {2, DHCPSNOOP_USER_DYNAMIC, 200u},
                                  {3, DHCPSNOOP_USER_STATIC, 60u},
                                  {4, DHCPSNOOP_USER_IPSG, 0u}}) {
        DhcpsnoopUser *u = make_user(v4key(10, 0, 0, uint8_t(a)), type, 3, 1);
        u->leaseStart = t0;
        u->leaseTime = lease;
    }
    make_user(v4key(1, 0, 0, 10), DHCPSNOOP_USER_DYNAMIC, 3, 1)->leaseStart = t0;
    DhcpsnoopPktInfo info{};
    uint8_t mac[6] = {0, 0, 0, 0, 1, 2};
    info.chaddr = mac;
    info.rxTime = t0;
    ASSERT_NE(dhcpsnoop_mac_user_add(&info), nullptr);
    auto present = [](uint8_t a) {
        DhcpsnoopUserKey k = v4key(10, 0, 0, a);
        return dhcpsnoop_user_lookup(&k) != nullptr;
    };
    const char *scan = "Timeout, check the user binding table!";
    set_role(DHCPSNOOP_ROLE_SLAVE); /* a Slave never ages its tables */
    dhcpsnoop_main_pass();
    EXPECT_EQ(model().debugCount(scan), 0u);
    set_role(DHCPSNOOP_ROLE_NONE);
    /* the first pass scans; then a scan a minute at most */
    for (auto [at, scans, p1, p2, macUser] : {std::tuple{0u, 1u, true, true, true},
                                              {59u, 1u, true, true, true},
                                              {60u, 2u, false, true, true},
                                              {120u, 3u, false, true, false},
                                              {200u, 4u, false, false, false}}) {
        sys().now = t0 + at;
        dhcpsnoop_main_pass();
        EXPECT_EQ(std::tuple(model().debugCount(scan), present(1), present(2), present(3),
                             present(4), dhcpsnoop_mac_user_lookup(mac) != nullptr),
                  std::tuple(size_t(scans), p1, p2, true, true, macUser))
            << "at +" << at;
    }
    EXPECT_EQ(free_user_nodes(), size_t(gDhcpsnoop.userMax) - 3);
}

TEST_F(LoopTest, FrameRecordIsFilledFromThePacketInformation)
{
    DhcpsnoopIf *e = enablePort(5);
    FakeFrame f = frame(5, 300);
    f.withInfo = false;
    sys().frames4.push_back(f);
    sys().frames6.push_back(f);
    dhcpsnoop_main_pass();
    EXPECT_EQ(handed_on(), 0u);
    EXPECT_EQ(model().debugCount("rxpktInfo was NULL!"), 2u);

    /* the rooms a frame without information left are whole again; IPv6 takes
     * the index of the link-layer address, IPv4 the information's */
    f.withInfo = true;
    f.innerVid = 7;
    f.l2HdrLen = 18;
    f.sllIfindex = 99;
    sys().frames6.push_back(f);
    dhcpsnoop_main_pass();
    ASSERT_EQ(handed_on(), 1u);
    EXPECT_EQ(dhcpsnoop_main_rxpkt()->inIf, e);
    EXPECT_EQ(rx(), std::make_tuple(99u, 300, 7, 18, 0x86DD, 64));

    /* the information once seen is kept for frames that bring none; a frame
     * longer than the buffer is cut */
    FakeFrame big = frame(5, 10);
    big.withInfo = false;
    big.bytes.assign(5000, 0x5A);
    sys().frames4.push_back(big);
    dhcpsnoop_main_pass();
    EXPECT_EQ(handed_on(), 2u);
    EXPECT_EQ(rx(), std::make_tuple(5u, 300, 7, 18, 0x0800, 2048));
}

TEST_F(LoopTest, FramesWithoutAPortOrAValidReceiveAreDropped)
{
    enablePort(5);
    model().addVlanIf(60, 200, "vlan200");
    /* a VLAN without a snooping interface is dropped without a word; one the
     * platform cannot translate is told */
    for (uint16_t vid : {200, 999}) {
        sys().frames4.push_back(frame(7, vid));
        sys().frames6.push_back(frame(7, vid));
        dhcpsnoop_main_pass();
    }
    EXPECT_EQ(model().debugCount("qor index trans error!"), 2u);
    FakeFrame empty = frame(5), failed = frame(5);
    empty.result = 0;
    failed.result = -1;
    sys().frames4.push_back(empty);
    sys().frames6.push_back(failed);
    testing::internal::CaptureStderr();
    dhcpsnoop_main_pass();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("[DHCPSNOOP]: recvmsg error len!"),
              std::string::npos);
    /* control messages whose lengths lie are walked inside the control room */
    struct cmsghdr h {};
    h.cmsg_len = 100000;
    h.cmsg_level = 1;
    const uint8_t *hb = reinterpret_cast<uint8_t *>(&h);
    for (auto &ctl : {std::vector<uint8_t>(hb, hb + sizeof h), std::vector<uint8_t>(4, 0xFF),
                      std::vector<uint8_t>(sizeof h, 0)}) {
        FakeFrame f = frame(5);
        f.rawControl = ctl;
        sys().frames4.push_back(f);
        dhcpsnoop_main_pass();
    }
    EXPECT_EQ(handed_on(), 0u);
    /* information whose payload is cut short reads as zeros past its end */
    h.cmsg_len = CMSG_LEN(4);
    h.cmsg_level = 263;
    std::vector<uint8_t> ctl(CMSG_SPACE(4), 0);
    memcpy(ctl.data(), &h, sizeof h);
    uint32_t ingress = 5;
    memcpy(ctl.data() + CMSG_LEN(0), &ingress, 4);
    FakeFrame cut = frame(5);
    cut.rawControl = ctl;
    sys().frames4.push_back(cut);
    dhcpsnoop_main_pass();
    EXPECT_EQ(handed_on(), 1u);
    EXPECT_EQ(rx(), std::make_tuple(5u, 0, 0, 0, 0x0800, 64));
}
