/* Daemon core: pools, start-up and shutdown, the loop and the lease timer. */
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstring>

#include "daemon_fixture.h"

namespace {

const char *kPath = "/tmp/dhcpsnoop.socket";

size_t list_length(const DhcpsnoopList *head)
{
    size_t n = 0;
    for (const DhcpsnoopList *e = head->next; e != head; e = e->next)
        n++;
    return n;
}

size_t count_of(const std::vector<int> &v, int x) { return size_t(std::count(v.begin(), v.end(), x)); }

DhcpsnoopUser *add_user(uint8_t a, uint8_t type, uint32_t leaseStart, uint32_t lease)
{
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    key.ipAddr[0] = 10;
    key.ipAddr[3] = a;
    DhcpsnoopUser *u = dhcpsnoop_user_table_add(&key);
    if (u) {
        u->userType = type;
        u->leaseStart = leaseStart;
        u->leaseTime = lease;
    }
    return u;
}

DhcpsnoopUserKey key_of(uint8_t a)
{
    DhcpsnoopUserKey key{};
    key.ipType = DHCPSNOOP_IPTYPE_V4;
    key.ipAddr[0] = 10;
    key.ipAddr[3] = a;
    return key;
}

} // namespace

/* ---- pools ------------------------------------------------------------------ */

using PoolTest = DaemonTest;

TEST_F(PoolTest, EntriesAreTakenFromTheEndOfTheBlockTowardsItsStart)
{
    DhcpsnoopList head;
    void *pool = nullptr;
    ASSERT_EQ(dhcpsnoop_memlist_init(&head, &pool, 48, 4), 0);
    auto *block = static_cast<uint8_t *>(pool);
    const DhcpsnoopList *e = head.next;
    for (int i = 3; i >= 0; i--, e = e->next)
        EXPECT_EQ(reinterpret_cast<const uint8_t *>(e), block + i * 48) << "entry " << i;
    EXPECT_EQ(e, &head);
    EXPECT_EQ(head.prev, reinterpret_cast<DhcpsnoopList *>(block));
    dhcpsnoop_sys->free(pool);
}

TEST_F(PoolTest, SizesAreRaisedToTwoLinkWordsAndCountZeroMeansOne)
{
    struct Case {
        uint32_t size, count;
        size_t stride, entries;
    } cases[] = {
        {1, 3, sizeof(DhcpsnoopList), 3},
        {sizeof(DhcpsnoopList), 2, sizeof(DhcpsnoopList), 2},
        {24, 0, 24, 1},
        {sizeof(DhcpsnoopUser), 5, sizeof(DhcpsnoopUser), 5},
    };
    for (auto &c : cases) {
        DhcpsnoopList head;
        void *pool = nullptr;
        ASSERT_EQ(dhcpsnoop_memlist_init(&head, &pool, c.size, c.count), 0);
        EXPECT_EQ(list_length(&head), c.entries) << c.size << "x" << c.count;
        if (c.entries > 1) {
            EXPECT_EQ(reinterpret_cast<uint8_t *>(head.next) - reinterpret_cast<uint8_t *>(head.next->next),
                      ptrdiff_t(c.stride));
        }
        dhcpsnoop_sys->free(pool);
    }
}

TEST_F(PoolTest, ExhaustedMemoryLeavesAnEmptyList)
{
    DhcpsnoopList head;
    void *pool = reinterpret_cast<void *>(0x1);
    sys().failCall("calloc");
    EXPECT_EQ(dhcpsnoop_memlist_init(&head, &pool, 32, 10), -1);
    EXPECT_TRUE(dhcpsnoop_list_empty(&head));
    EXPECT_EQ(pool, reinterpret_cast<void *>(0x1));
}

/* ---- arguments of main ------------------------------------------------------- */

using StartTest = DaemonTest;

TEST_F(StartTest, ArgumentsGivePoolSizesAndHooks)
{
    struct Case {
        std::vector<const char *> args;
        uint16_t ifMax, userMax;
        bool ipsg, dai, deft;
    } cases[] = {
        {{}, 20, 256, false, false, false},
        {{"0", "0"}, 20, 256, false, false, false},
        {{"abc", "xyz", "abc"}, 20, 256, false, false, false},
        {{"5", "7"}, 5, 7, false, false, false},
        {{"0", "0", "1"}, 20, 256, true, false, false},
        {{"0", "0", "0", "1"}, 20, 256, false, true, false},
        {{"0", "0", "0", "0", "2"}, 20, 256, false, false, true},
        {{"3", "0", "1", "1", "1", "9"}, 3, 256, true, true, true},
    };
    for (auto &c : cases) {
        std::vector<char *> argv{const_cast<char *>("dhcpsnoopd")};
        for (const char *a : c.args)
            argv.push_back(const_cast<char *>(a));
        argv.push_back(nullptr);
        int before = model().segFaultHandlerInstalled;
        ASSERT_EQ(dhcpsnoop_start(int(argv.size() - 1), argv.data()), 0);
        EXPECT_EQ(model().segFaultHandlerInstalled, before + 1);
        EXPECT_EQ(gDhcpsnoop.ifMax, c.ifMax);
        EXPECT_EQ(gDhcpsnoop.userMax, c.userMax);
        EXPECT_EQ(gDhcpsnoop.serverMax, 256);
        EXPECT_EQ(list_length(&gDhcpsnoop.ifFreeList), c.ifMax);
        EXPECT_EQ(list_length(&gDhcpsnoop.userFreeList), c.userMax);
        EXPECT_EQ(gDhcpsnoop.ipsgIfGet != nullptr, c.ipsg);
        EXPECT_EQ(gDhcpsnoop.antiArpIfGet != nullptr, c.dai);
        EXPECT_EQ(gDhcpsnoop.deftinstallCb != nullptr, c.deft);
        EXPECT_EQ(gDhcpsnoop.circuitIdFmt.mode, 3); /* main always asks for mode 3 */
        dhcpsnoop_shutdown();
    }
}

TEST_F(StartTest, StartUpOpensTheFourSocketsAsTheLoopNeedsThem)
{
    start();
    EXPECT_EQ(dhcpsnoop_is_started(), 1u);
    FakeSock *d4 = sys().sock(gDhcpsnoop.dataSock);
    FakeSock *d6 = sys().sock(gDhcpsnoop.data6Sock);
    FakeSock *cmd = sys().sock(gDhcpsnoop.cmdSock);
    FakeSock *rt = sys().sock(gDhcpsnoop.rtSock);
    ASSERT_TRUE(d4 && d6 && cmd && rt);
    EXPECT_EQ(d4->kind, FakeKind::Data4);
    EXPECT_EQ(d6->kind, FakeKind::Data6);
    EXPECT_EQ((d4->options[{263, 20}]), 1);
    EXPECT_EQ((d6->options[{263, 20}]), 1);
    EXPECT_FALSE(d4->bound);
    EXPECT_EQ(cmd->boundPath, kPath);
    EXPECT_EQ(cmd->bindLen, 110u);
    EXPECT_TRUE(cmd->listening);
    EXPECT_EQ(cmd->backlog, 10);
    EXPECT_EQ(rt->protocol, NETLINK_ROUTE);
    EXPECT_EQ(rt->bindLen, 12u);
    EXPECT_EQ(rt->groups, (std::vector<int>{32, 31, 40, 1, 56, 57, 40}));
    EXPECT_TRUE(rt->nonblocking);
    /* the relay socket is deliberately left unopened */
    EXPECT_EQ(gDhcpsnoop.udpSock, 0);
    EXPECT_EQ(sys().fdOf(FakeKind::Udp), -1);
    /* a stale socket path is removed before binding */
    ASSERT_FALSE(sys().unlinked.empty());
    EXPECT_EQ(sys().unlinked.front(), kPath);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, DHCPSNOOP_ENTERPRISE_NUMBER);
    EXPECT_EQ(model().semaphores.count(gDhcpsnoop.semId), 1u);
}

TEST_F(StartTest, OptionModesOfStartUp)
{
    struct Case {
        uint32_t mode;
        uint16_t expectMode;
        const char *circuit, *remote, *ifId, *remote6;
    } cases[] = {
        {0, 3, "", "", "", ""},
        {3, 3, "", "", "", ""},
        {7, 7, "", "", "", ""},
        {5, 5, "%s.%c.%d:%N", "%d", "%d %N:%s.%c", "%s.%c.%d:%N"},
    };
    for (auto &c : cases) {
        ASSERT_EQ(dhcpsnoop_init_ex(0, 0, 0, c.mode, nullptr, nullptr, nullptr), 0);
        const DhcpsnoopOptFmt *f[] = {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt,
                                      &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt};
        const char *t[] = {c.circuit, c.remote, c.ifId, c.remote6};
        for (int i = 0; i < 4; i++) {
            EXPECT_EQ(f[i]->mode, c.expectMode) << "mode " << c.mode;
            EXPECT_EQ(f[i]->len, strlen(t[i]));
            EXPECT_EQ(std::string(reinterpret_cast<const char *>(f[i]->text), f[i]->len), t[i]);
        }
        dhcpsnoop_shutdown();
    }
}

TEST_F(StartTest, EveryFailingStepReleasesEverything)
{
    struct Case {
        const char *what;
        const char *fn;
        long arg;
        int nth;
        int zeroCloses; /* descriptor 0 closed by shutdown's zero-filled fields */
    } cases[] = {
        {"semaphore", "OsixCreateMSem", -1, 1, 2},
        {"interface pool", "calloc", -1, 1, 2},
        {"user pool", "calloc", -1, 2, 2},
        {"server pool", "calloc", -1, 3, 2},
        {"IPv4 socket", "socket", AF_PACKET, 1, 2},
        {"IPv4 option", "setsockopt", 20, 1, 2},
        {"IPv6 socket", "socket", AF_PACKET, 2, 2},
        {"IPv6 option", "setsockopt", 20, 2, 2},
        {"command socket", "socket", AF_UNIX, 1, 1},
        {"command bind", "bind", long(FakeKind::Cmd), 1, 1},
        {"command listen", "listen", -1, 1, 1},
        {"netlink socket", "socket", AF_NETLINK, 1, 0},
        {"netlink bind", "bind", long(FakeKind::Netlink), 1, 0},
        {"group 32", "setsockopt", 32, 1, 0},
        {"group 31", "setsockopt", 31, 1, 0},
        {"group 40", "setsockopt", 40, 1, 0},
        {"group 1", "setsockopt", 1, 1, 0},
        {"group 56", "setsockopt", 56, 1, 0},
        {"non-blocking", "ioctl", -1, 1, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        sys().reset();
        sys().install();
        model().reset();
        if (std::string(c.fn) == "OsixCreateMSem")
            model().failOn(c.fn, -1, 1, 1);
        else
            sys().failCall(c.fn, c.nth, c.arg);

        EXPECT_EQ(dhcpsnoop_init_ex(0, 0, 0, 3, nullptr, nullptr, nullptr), -1);
        EXPECT_EQ(dhcpsnoop_is_started(), 0u);
        EXPECT_EQ(sys().openCount(), 0u) << "a socket was left open";
        EXPECT_EQ(sys().liveAllocations(), 0u) << "a pool was left allocated";
        EXPECT_TRUE(model().semaphores.empty());
        EXPECT_EQ(gDhcpsnoop.semId, 0u);
        EXPECT_TRUE(dhcpsnoop_list_empty(&gDhcpsnoop.ifFreeList));
        EXPECT_TRUE(dhcpsnoop_list_empty(&gDhcpsnoop.userFreeList));
        EXPECT_TRUE(dhcpsnoop_list_empty(&gDhcpsnoop.serverFreeList));
        EXPECT_EQ(gDhcpsnoop.cmdSock, -1);
        EXPECT_EQ(gDhcpsnoop.rtSock, -1);
        /* the zero-filled descriptors of the command and netlink sockets are
         * closed by shutdown when start-up did not reach them */
        EXPECT_EQ(count_of(sys().closedFds, 0), size_t(c.zeroCloses));
        if (c.zeroCloses == 2) {
            EXPECT_EQ(sys().unlinked, std::vector<std::string>{kPath});
        }

        /* a failed start may be tried again */
        sys().reset();
        sys().install();
        EXPECT_EQ(dhcpsnoop_init_ex(0, 0, 0, 3, nullptr, nullptr, nullptr), 0);
        dhcpsnoop_shutdown();
    }
}

TEST_F(StartTest, OptionalGroupJoinsDoNotFailStartUp)
{
    sys().failCall("setsockopt", 1, 57);
    sys().failCall("setsockopt", 2, 40);
    gDhcpsnoop.debugFlags = 0;
    start();
    EXPECT_EQ(sys().sock(gDhcpsnoop.rtSock)->groups, (std::vector<int>{32, 31, 40, 1, 56}));
}

TEST_F(StartTest, SecondStartUpReturnsZeroAndChangesNothing)
{
    start(4, 8);
    DhcpsnoopIf *e = enablePort(5);
    ASSERT_NE(e, nullptr);
    int sockets = int(sys().socks.size());
    EXPECT_EQ(dhcpsnoop_init_ex(10, 10, 10, 5, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(int(sys().socks.size()), sockets);
    EXPECT_EQ(dhcpsnoop_if_lookup(5), e);
    EXPECT_EQ(gDhcpsnoop.ifMax, 4);
    EXPECT_EQ(gDhcpsnoop.circuitIdFmt.mode, 3);
}

TEST_F(StartTest, UdpSocketIsBoundToPort67AndClosedOnAnyFailure)
{
    start();
    int fd = dhcpsnoop_udp_socket_init();
    ASSERT_GT(fd, 0);
    FakeSock *s = sys().sock(fd);
    EXPECT_TRUE(s->bound);
    EXPECT_EQ((s->options[{SOL_SOCKET, SO_BROADCAST}]), 1);
    EXPECT_EQ((s->options[{SOL_SOCKET, SO_REUSEADDR}]), 1);
    EXPECT_EQ((s->options[{SOL_SOCKET, SO_RCVBUF}]), 1);

    struct Case {
        const char *fn;
        long arg;
    } cases[] = {{"socket", AF_INET}, {"setsockopt", SO_BROADCAST}, {"setsockopt", SO_REUSEADDR},
                 {"setsockopt", SO_RCVBUF}, {"bind", long(FakeKind::Udp)}};
    for (auto &c : cases) {
        size_t open = sys().openCount();
        sys().failCall(c.fn, 1, c.arg);
        EXPECT_EQ(dhcpsnoop_udp_socket_init(), -1) << c.fn << " " << c.arg;
        EXPECT_EQ(sys().openCount(), open) << c.fn << " " << c.arg;
    }
}

/* ---- the loop ------------------------------------------------------------------ */

class LoopTest : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        model().hwScalars[53] = 1; /* role None */
        model().hwScalars[54] = 1;
        start();
        sys().calls.clear();
    }
    /* The calls of one pass that served a socket. */
    std::vector<std::string> served()
    {
        std::vector<std::string> out;
        for (auto &c : sys().calls)
            if (c.rfind("recvmsg", 0) == 0 || c.rfind("accept", 0) == 0 ||
                c.rfind("recvfrom", 0) == 0)
                out.push_back(c);
        sys().calls.clear();
        return out;
    }
    size_t frames_handed_on() { return model().debugCount("Receive a dhcp message"); }
    FakeFrame frame(uint32_t ingress, uint16_t outer = 1)
    {
        FakeFrame f;
        f.bytes.assign(64, 0xAB);
        f.ingress = ingress;
        f.outerVid = outer;
        return f;
    }
};

TEST_F(LoopTest, ReadSetHoldsTheFourSocketsAndWaitsSixtySeconds)
{
    dhcpsnoop_main_pass();
    int fds[] = {gDhcpsnoop.dataSock, gDhcpsnoop.data6Sock, gDhcpsnoop.cmdSock, gDhcpsnoop.rtSock};
    for (int fd : fds)
        EXPECT_TRUE(FD_ISSET(fd, &sys().lastReadSet)) << fd;
    EXPECT_EQ(sys().lastNfds, *std::max_element(fds, fds + 4) + 1);
    EXPECT_EQ(sys().lastTimeout, 60);
    int watched = 0;
    for (int fd = 0; fd < FD_SETSIZE; fd++)
        watched += FD_ISSET(fd, &sys().lastReadSet) ? 1 : 0;
    EXPECT_EQ(watched, 4);
}

TEST_F(LoopTest, OnePassServesOneUnitPerSocketInOrder)
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
    EXPECT_EQ(sys().frames4.size(), 1u);
    EXPECT_EQ(sys().frames6.size(), 1u);
    EXPECT_EQ(sys().pendingConns.size(), 1u);
    EXPECT_EQ(sys().netlink.size(), 1u);

    /* only what is ready is served */
    sys().frames4.clear();
    sys().pendingConns.clear();
    dhcpsnoop_main_pass();
    EXPECT_EQ(served(), (std::vector<std::string>{"recvmsg:data6", "recvfrom:netlink"}));
}

TEST_F(LoopTest, FailedSelectStillServesWhatTheSetHolds)
{
    sys().selectResult = -1;
    sys().frames4.push_back(frame(1));
    dhcpsnoop_main_pass();
    /* the set is left as built, so every socket is served */
    EXPECT_EQ(served().size(), 4u);
}

TEST_F(LoopTest, LeaseScanRunsAtMostOncePerMinuteAndNeverOnASlave)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    sys().selectAdvancesClock = false;
    const char *scan = "Timeout, check the user binding table!";
    struct Step {
        time_t advance;
        size_t scans;
    } steps[] = {{0, 1}, {30, 1}, {29, 1}, {1, 2}, {59, 2}, {60, 3}, {200, 4}};
    for (auto &s : steps) {
        sys().now += s.advance;
        dhcpsnoop_main_pass();
        EXPECT_EQ(model().debugCount(scan), s.scans) << "after +" << s.advance;
    }
    model().hwScalars[54] = 0; /* Slave */
    sys().now += 600;
    dhcpsnoop_main_pass();
    EXPECT_EQ(model().debugCount(scan), 4u);
}

TEST_F(LoopTest, LeaseScanExpiresDynamicUsersAndOldMacUsers)
{
    sys().selectAdvancesClock = false;
    dhcpsnoop_main_pass(); /* first scan now */
    uint32_t t0 = uint32_t(sys().now);
    /* 10.0.0.1 and 1.0.0.10 share a bucket: deleting one keeps the walk safe */
    add_user(1, DHCPSNOOP_USER_DYNAMIC, t0, 60);
    add_user(2, DHCPSNOOP_USER_DYNAMIC, t0, 200);
    add_user(3, DHCPSNOOP_USER_STATIC, t0, 60);
    add_user(4, DHCPSNOOP_USER_IPSG, t0, 0);
    DhcpsnoopPktInfo info{};
    uint8_t mac[6] = {0, 0, 0, 0, 1, 2};
    info.chaddr = mac;
    info.rxTime = t0;
    ASSERT_NE(dhcpsnoop_mac_user_add(&info), nullptr);

    auto present = [](uint8_t a) {
        DhcpsnoopUserKey k = key_of(a);
        return dhcpsnoop_user_lookup(&k) != nullptr;
    };
    sys().now = t0 + 60;
    dhcpsnoop_main_pass();
    EXPECT_FALSE(present(1));
    EXPECT_TRUE(present(2));
    EXPECT_TRUE(present(3)); /* static entries never expire */
    EXPECT_TRUE(present(4));
    EXPECT_NE(dhcpsnoop_mac_user_lookup(mac), nullptr);

    sys().now = t0 + 119;
    dhcpsnoop_main_pass(); /* too soon after the last scan */
    sys().now = t0 + 120;
    dhcpsnoop_main_pass();
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(mac), nullptr);
    EXPECT_TRUE(present(2));
    sys().now = t0 + 200;
    dhcpsnoop_main_pass();
    EXPECT_FALSE(present(2));
    EXPECT_EQ(list_length(&gDhcpsnoop.userFreeList), size_t(gDhcpsnoop.userMax) - 2);
}

TEST_F(LoopTest, SlaveNeverAgesItsTables)
{
    model().hwScalars[54] = 0;
    add_user(1, DHCPSNOOP_USER_DYNAMIC, 0, 60);
    sys().now += 10000;
    dhcpsnoop_main_pass();
    DhcpsnoopUserKey k = key_of(1);
    EXPECT_NE(dhcpsnoop_user_lookup(&k), nullptr);
}

/* ---- packet information -------------------------------------------------------- */

TEST_F(LoopTest, FramesWithoutPacketInformationAreDroppedUntilSomeArrives)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    enablePort(5);
    FakeFrame f = frame(5);
    f.withInfo = false;
    sys().frames4.push_back(f);
    sys().frames6.push_back(f);
    dhcpsnoop_main_pass();
    EXPECT_EQ(frames_handed_on(), 0u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP]: rxpktInfo was NULL!\r\n"), 1u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] rxpktInfo was NULL!"), 1u);

    /* once seen, the information is kept for frames that bring none */
    FakeFrame g = frame(5, 10);
    g.innerVid = 20;
    g.l2HdrLen = 22;
    g.bytes.assign(300, 0x11);
    dhcpsnoop_main_setup(); /* a fresh control room, as at loop start */
    sys().frames4.push_back(g);
    dhcpsnoop_main_pass();
    EXPECT_EQ(frames_handed_on(), 1u);
    sys().frames4.push_back(f);
    dhcpsnoop_main_pass();
    EXPECT_EQ(frames_handed_on(), 2u);
    const DhcpsnoopRxPkt *rx = dhcpsnoop_main_rxpkt();
    EXPECT_EQ(rx->ifIndex, 5u);
    EXPECT_EQ(rx->outerVid, 10);
    EXPECT_EQ(rx->innerVid, 20);
    EXPECT_EQ(rx->l2HdrLen, 22);
    EXPECT_EQ(rx->len, 64);
    EXPECT_EQ(rx->data[63], 0xAB);
}

TEST_F(LoopTest, FrameRecordIsFilledFromThePacketInformation)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    DhcpsnoopIf *e = enablePort(5);
    FakeFrame f = frame(5, 300);
    f.innerVid = 7;
    f.l2HdrLen = 18;
    f.sllIfindex = 99;
    for (size_t i = 0; i < f.bytes.size(); i++)
        f.bytes[i] = uint8_t(i);
    sys().frames4.push_back(f);
    dhcpsnoop_main_pass();
    const DhcpsnoopRxPkt *rx = dhcpsnoop_main_rxpkt();
    ASSERT_EQ(frames_handed_on(), 1u);
    EXPECT_EQ(rx->valid, 1);
    EXPECT_EQ(rx->len, 64);
    EXPECT_EQ(memcmp(rx->data, f.bytes.data(), 64), 0);
    EXPECT_EQ(rx->inIf, e);
    EXPECT_EQ(rx->ifIndex, 5u); /* IPv4: the ingress index of the information */
    EXPECT_EQ(rx->outerVid, 300);
    EXPECT_EQ(rx->innerVid, 7);
    EXPECT_EQ(rx->l2HdrLen, 18);
    EXPECT_EQ(rx->etherType, 0x0800);

    sys().frames6.push_back(f);
    dhcpsnoop_main_pass();
    EXPECT_EQ(rx->ifIndex, 99u); /* IPv6: the link-layer address's interface */
    EXPECT_EQ(rx->inIf, e);
    EXPECT_EQ(rx->etherType, 0x86DD);
}

TEST_F(LoopTest, UnknownPortFallsBackToTheVlanInterface)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP;
    model().addPort(7, "swp7");
    model().addVlanIf(50, 100, "vlan100");
    ASSERT_EQ(dhcpsnoop_if_enable(50), 0u);

    sys().frames4.push_back(frame(7, 100));
    dhcpsnoop_main_pass();
    ASSERT_EQ(frames_handed_on(), 1u);
    EXPECT_EQ(dhcpsnoop_main_rxpkt()->inIf, dhcpsnoop_if_lookup(50));
    EXPECT_EQ(dhcpsnoop_main_rxpkt()->ifIndex, 7u);

    /* a VLAN without a snooping interface: dropped without a word */
    model().addVlanIf(60, 200, "vlan200");
    sys().frames4.push_back(frame(7, 200));
    dhcpsnoop_main_pass();
    EXPECT_EQ(frames_handed_on(), 1u);
    EXPECT_EQ(model().debugCount("qor index trans error"), 0u);

    /* a VLAN the platform cannot translate */
    sys().frames4.push_back(frame(7, 999));
    sys().frames6.push_back(frame(7, 999));
    dhcpsnoop_main_pass();
    EXPECT_EQ(frames_handed_on(), 1u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP]: qor index trans error!\r\n"), 1u);
    EXPECT_EQ(model().debugCount("[DHCPSNOOP] qor index trans error!\r\n"), 1u);
}

TEST_F(LoopTest, EmptyFailedAndMalformedReceivesAreDropped)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    enablePort(5);
    FakeFrame empty = frame(5);
    empty.result = 0;
    FakeFrame failed = frame(5);
    failed.result = -1;
    sys().frames4.push_back(empty);
    sys().frames6.push_back(failed);
    testing::internal::CaptureStderr();
    dhcpsnoop_main_pass();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[DHCPSNOOP]: recvmsg error len!"), std::string::npos);
    EXPECT_EQ(frames_handed_on(), 0u);

    /* control messages whose lengths lie are walked inside the control room */
    struct cmsghdr h {};
    h.cmsg_len = 100000;
    h.cmsg_level = 1;
    std::vector<uint8_t> lying(reinterpret_cast<uint8_t *>(&h), reinterpret_cast<uint8_t *>(&h) + sizeof h);
    std::vector<uint8_t> shortHdr(4, 0xFF);
    std::vector<uint8_t> zeroLen(sizeof h, 0);
    for (auto &ctl : {lying, shortHdr, zeroLen}) {
        FakeFrame f = frame(5);
        f.rawControl = ctl;
        sys().frames4.push_back(f);
        dhcpsnoop_main_pass();
    }
    EXPECT_EQ(frames_handed_on(), 0u);

    /* information whose payload is cut short reads as zeros past its end */
    struct cmsghdr c {};
    c.cmsg_len = CMSG_LEN(4);
    c.cmsg_level = 263;
    std::vector<uint8_t> ctl(CMSG_SPACE(4), 0);
    memcpy(ctl.data(), &c, sizeof c);
    uint32_t ingress = 5;
    memcpy(ctl.data() + CMSG_LEN(0), &ingress, 4);
    FakeFrame cut = frame(5);
    cut.rawControl = ctl;
    dhcpsnoop_main_setup(); /* the earlier frames shrank the control room */
    sys().frames4.push_back(cut);
    dhcpsnoop_main_pass();
    EXPECT_EQ(frames_handed_on(), 1u);
    EXPECT_EQ(dhcpsnoop_main_rxpkt()->outerVid, 0);
    EXPECT_EQ(dhcpsnoop_main_rxpkt()->l2HdrLen, 0);
}

TEST_F(LoopTest, OversizedFramesAreCutAtTheFrameBuffer)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    enablePort(5);
    FakeFrame f = frame(5);
    f.bytes.assign(5000, 0x5A);
    sys().frames4.push_back(f);
    dhcpsnoop_main_pass();
    ASSERT_EQ(frames_handed_on(), 1u);
    EXPECT_EQ(dhcpsnoop_main_rxpkt()->len, 2048);
}

TEST_F(LoopTest, NetlinkDatagramsAndTheirFailures)
{
    sys().netlink.push_back(std::vector<uint8_t>(32, 1));
    dhcpsnoop_main_pass();
    EXPECT_EQ(served(), std::vector<std::string>{"recvfrom:netlink"});
    sys().netlink.push_back({});
    testing::internal::CaptureStderr();
    dhcpsnoop_main_pass();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[DHCPSNOOP]: recvfrom rt_socket  failed!"), std::string::npos);
}

TEST_F(LoopTest, ALoopAfterAFailedStartWatchesNothing)
{
    dhcpsnoop_shutdown();
    sys().failCall("socket", 1, AF_PACKET);
    EXPECT_EQ(dhcpsnoop_init_ex(0, 0, 0, 3, nullptr, nullptr, nullptr), -1);
    dhcpsnoop_main_pass();
    EXPECT_EQ(sys().lastNfds, 1);
    for (int fd = 0; fd < FD_SETSIZE; fd++)
        EXPECT_FALSE(FD_ISSET(fd, &sys().lastReadSet));
}

/* ---- running role ---------------------------------------------------------------- */

TEST_F(LoopTest, RunningRoleFollowsThePlatformScalars)
{
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
    struct Case {
        int32_t s53, s54;
        uint8_t role;
    } cases[] = {{0, 0, DHCPSNOOP_ROLE_MASTER}, {0, 1, DHCPSNOOP_ROLE_MASTER},
                 {1, 1, DHCPSNOOP_ROLE_NONE},   {5, 0, DHCPSNOOP_ROLE_SLAVE},
                 {1, 0, DHCPSNOOP_ROLE_SLAVE}};
    for (auto &c : cases) {
        model().hwScalars[53] = c.s53;
        model().hwScalars[54] = c.s54;
        EXPECT_EQ(dhcpsnoop_running_role_get(), c.role) << c.s53 << "/" << c.s54;
        EXPECT_EQ(gDhcpsnoop.runningRole, c.role);
    }
    EXPECT_EQ(model().debugCount("running role of the dhcpsnoop changed from Master to None"), 1u);
    EXPECT_EQ(model().debugCount("changed from None to Slave"), 1u);
    EXPECT_EQ(model().debugCount("running role of the dhcpsnoop changed"), 3u);
}
