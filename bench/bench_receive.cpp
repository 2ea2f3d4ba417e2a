/*
 * The daemon's receive path, measured in-process: frames enter through the
 * system-call seam and one main-loop pass each, exactly as they would from
 * the kernel, with the binding table filled to 0, 8k and 64k entries
 * beforehand (the pool sized to match at start-up).
 *
 * The daemon starts and the table fills on the tests' fake system calls;
 * the frames then go through the bench's own lean seam (below), so that
 * what is measured is the daemon and not a test double's bookkeeping.
 *
 * Beside every block of frames the same frames are copied and summed with a
 * plain RFC 1071 pass; the counter "ratio" is that pass's time over the
 * daemon's time for the same frames, so a figure stays comparable on a
 * shared machine whose absolute speed varies.  Higher is better.  Both are
 * timed in the thread's processor time, interleaved block by block.
 */
#include <benchmark/benchmark.h>

#include <linux/if_packet.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "binding_helpers.h"
#include "frame6_helpers.h"
#include "frame_helpers.h"

namespace {

constexpr uint32_t CLIENT_PORT = 1, SERVER_PORT = 2;
constexpr uint16_t VLAN = 10;
constexpr uint32_t SERVER_IP = 0xC0000201; /* 192.0.2.1 */
constexpr int BLOCK = 64;                  /* frames timed per iteration */
const Mac SERVER_MAC{0x02, 0xAA, 0xAA, 0xAA, 0xAA, 0x01};

/* A frame for the daemon: its bytes, the port it came in on, its family. */
struct Input {
    std::vector<uint8_t> bytes;
    uint32_t port;
    bool v6;
};

/*
 * The bench's system calls for the frames: select reports the socket of the
 * next queued frame's family readable, recvmsg hands that frame over with its
 * packet information (ingress port, VLAN, link header length) as the platform
 * gives it, sendto keeps the last frame sent in a fixed buffer and counts the
 * sends.  No names, no records, no allocation per frame; every other call
 * (the clock, the start-up sockets) goes to the tests' fake it was copied from.
 */
struct BenchSys {
    DhcpsnoopSysOps ops;
    int fd4, fd6;
    const Input *queue[2 * BLOCK];
    size_t head, tail;
    uint8_t sent[DHCPSNOOP_FRAME_MAX + 4];
    size_t sentLen;
    uint64_t sends;
};
BenchSys bsys;

int bench_fd(const Input *f) { return f->v6 ? bsys.fd6 : bsys.fd4; }

int bench_select(int, fd_set *rd, fd_set *wr, fd_set *ex, struct timeval *)
{
    if (wr)
        FD_ZERO(wr);
    if (ex)
        FD_ZERO(ex);
    int fd = bsys.head < bsys.tail ? bench_fd(bsys.queue[bsys.head]) : -1;
    bool ready = fd >= 0 && rd && FD_ISSET(fd, rd);
    if (rd)
        FD_ZERO(rd);
    if (!ready)
        return 0;
    FD_SET(fd, rd);
    return 1;
}

ssize_t bench_recvmsg(int fd, struct msghdr *msg, int)
{
    if (bsys.head == bsys.tail || bench_fd(bsys.queue[bsys.head]) != fd) {
        errno = EAGAIN;
        return -1;
    }
    const Input *f = bsys.queue[bsys.head++];
    size_t room = msg->msg_iovlen ? msg->msg_iov[0].iov_len : 0;
    size_t n = std::min(room, f->bytes.size());
    memcpy(msg->msg_iov[0].iov_base, f->bytes.data(), n);
    msg->msg_flags = 0;
    if (msg->msg_name && msg->msg_namelen >= sizeof(struct sockaddr_ll)) {
        struct sockaddr_ll ll;
        memset(&ll, 0, sizeof ll);
        ll.sll_family = AF_PACKET;
        ll.sll_ifindex = int(f->port);
        memcpy(msg->msg_name, &ll, sizeof ll);
        msg->msg_namelen = sizeof ll;
    }
    uint8_t info[28] = {0};
    uint16_t vid = VLAN;
    memcpy(info, &f->port, 4);
    memcpy(info + 20, &vid, 2);
    info[24] = 14;
    if (!msg->msg_control || msg->msg_controllen < CMSG_SPACE(sizeof info)) {
        msg->msg_flags |= MSG_CTRUNC;
        msg->msg_controllen = 0;
        return ssize_t(n);
    }
    struct cmsghdr *c = CMSG_FIRSTHDR(msg);
    c->cmsg_level = 263; /* the platform's packet information */
    c->cmsg_type = 0;
    c->cmsg_len = CMSG_LEN(sizeof info);
    memcpy(CMSG_DATA(c), info, sizeof info);
    msg->msg_controllen = CMSG_SPACE(sizeof info);
    return ssize_t(n);
}

ssize_t bench_sendto(int, const void *buf, size_t len, int, const struct sockaddr *, socklen_t)
{
    bsys.sentLen = std::min(len, sizeof bsys.sent);
    memcpy(bsys.sent, buf, bsys.sentLen);
    bsys.sends++;
    return ssize_t(len);
}

/* Take over the frames from the fake, whose table is in force. */
void bench_sys_install(int fd4, int fd6)
{
    bsys.ops = *dhcpsnoop_sys;
    bsys.ops.select = bench_select;
    bsys.ops.recvmsg = bench_recvmsg;
    bsys.ops.sendto = bench_sendto;
    bsys.fd4 = fd4;
    bsys.fd6 = fd6;
    bsys.head = bsys.tail = 0;
    bsys.sends = 0;
    dhcpsnoop_sys_set(&bsys.ops);
}

void bench_queue(const Input &f)
{
    if (bsys.head == bsys.tail)
        bsys.head = bsys.tail = 0;
    if (bsys.tail < std::size(bsys.queue))
        bsys.queue[bsys.tail++] = &f;
}

/* The last frame the daemon sent. */
std::vector<uint8_t> last_sent() { return {bsys.sent, bsys.sent + bsys.sentLen}; }

/* The thread's own processor time: what other jobs on a shared machine take
 * while a block runs is not counted against it. */
double cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

/* The daemon as the tests drive it, outside a test. */
struct Daemon : DaemonTest {
    void TestBody() override {}
    DhcpsnoopIf *client = nullptr, *server = nullptr;

    /* Started with `bindings` entries in a pool with room to spare; option 82
     * (and 18/37) on the client's port, the server's port trusted. */
    void up(uint32_t bindings, bool v6)
    {
        SetUp();
        set_role(DHCPSNOOP_ROLE_NONE);
        uint32_t pool = std::min<uint32_t>(bindings + 511, 65535);
        start(0, uint16_t(pool));
        model().record = false; /* nothing accumulates over millions of frames */
        model().vlanMembers[VLAN] = {CLIENT_PORT, SERVER_PORT};
        client = enablePort(CLIENT_PORT);
        server = enablePort(SERVER_PORT);
        if (v6) {
            dhcpsnoop_if_version_set(client, 3);
            dhcpsnoop_if_version_set(server, 3);
        }
        server->flags |= ifflag::TRUSTED;
        client->flags |= ifflag::OPTION82 | ifflag::OPTION18 | ifflag::OPTION37;
        sys().selectAdvancesClock = false;
        for (uint32_t i = 0; i < bindings; i++) {
            uint32_t n = i + 1;
            Mac mac{0x02, 0x10, 0, uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
            DhcpsnoopUserKey key = v6 ? v6key({0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0,
                                               uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)})
                                      : v4key(10, uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n));
            DhcpsnoopUser *u = make_user(key, DHCPSNOOP_USER_DYNAMIC, CLIENT_PORT, VLAN, mac);
            if (u) /* leased now, so that the lease timer keeps them */
                u->leaseStart = uint32_t(sys().now);
        }
        /* One-off work the fill leaves for later stays out of the timed passes: the first
         * lease scan (prev_time 0) walks every binding, and the first MAC lookup links
         * every new binding into the MAC index. */
        dhcpsnoop_user_timer_check();
        const uint8_t none[6] = {};
        dhcpsnoop_user_lookup_by_mac(none);
        bench_sys_install(sys().fdOf(FakeKind::Data4), sys().fdOf(FakeKind::Data6));
    }
    void down()
    {
        sys().install(); /* the fake closes what it opened */
        TearDown();
    }
};

/* One frame through one pass; the number of frames the daemon sent. */
uint64_t pass_one(const Input &f)
{
    uint64_t before = bsys.sends;
    bench_queue(f);
    dhcpsnoop_main_pass();
    bsys.head = bsys.tail = 0; /* a frame not taken is not kept */
    return bsys.sends - before;
}

/* What the comparison pass does with a frame: copy it and sum it. */
uint16_t copy_and_sum(const std::vector<uint8_t> &frame, uint8_t *buf)
{
    memcpy(buf, frame.data(), frame.size());
    benchmark::ClobberMemory();
    uint32_t sum = 0;
    size_t n = frame.size();
    for (size_t i = 0; i + 1 < n; i += 2)
        sum += uint32_t(buf[i]) << 8 | buf[i + 1];
    if (n & 1)
        sum += uint32_t(buf[n - 1]) << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

Mac client_mac(uint32_t i) { return {0x02, 0xC0, 0, 0, uint8_t(i >> 8), uint8_t(i)}; }
uint32_t client_ip(uint32_t i) { return 0xC6120000 + i + 1; } /* 198.18.0.0/16 */

Dhcp4Frame from_client(uint32_t i, uint8_t type, bool renew = false)
{
    Dhcp4Frame f;
    f.src = f.chaddr = client_mac(i);
    f.xid = 0x1000 + i;
    f.msgType(type);
    if (renew) {
        f.ciaddr = f.srcIp = client_ip(i);
        f.dstIp = SERVER_IP;
        f.dst = SERVER_MAC;
    } else if (type == 3) {
        f.opt(50, ipv4(client_ip(i))).opt(54, ipv4(SERVER_IP));
    }
    f.opt(55, {1, 3, 6, 15, 51, 54}).opt(61, {1, 0x02, 0xC0, 0, 0, uint8_t(i >> 8), uint8_t(i)});
    f.end();
    return f;
}

/* The server's ACK, carrying back the option 82 the daemon inserted. */
Dhcp4Frame ack(uint32_t i, const std::vector<uint8_t> &option82)
{
    Dhcp4Frame f;
    f.src = SERVER_MAC;
    f.dst = f.chaddr = client_mac(i);
    f.op = 2;
    f.sport = 67;
    f.dport = 68;
    f.srcIp = SERVER_IP;
    f.dstIp = f.yiaddr = client_ip(i);
    f.xid = 0x1000 + i;
    f.msgType(5).opt(54, ipv4(SERVER_IP)).opt(51, ipv4(3600)).opt(1, ipv4(0xFFFF0000));
    f.opt(3, ipv4(0xC6120001));
    if (!option82.empty())
        f.opt(82, option82);
    f.end();
    return f;
}

std::vector<uint8_t> option82_of(const std::vector<uint8_t> &frame)
{
    for (auto &o : dhcp4_options(frame.data(), frame.size(), 14))
        if (o.code == 82)
            return o.data;
    return {};
}

DhcpsnoopUser *binding_of(uint32_t i)
{
    uint32_t ip = client_ip(i);
    DhcpsnoopUserKey k = v4key(uint8_t(ip >> 24), uint8_t(ip >> 16), uint8_t(ip >> 8), uint8_t(ip));
    return dhcpsnoop_user_lookup(&k);
}

/* Runs the blocks: `frames` go in (in this order, each with its port and
 * family), one pass each, and each must leave once; `between` runs untimed
 * after each block. */
template <typename Between>
void run_blocks(benchmark::State &state, const std::vector<Input> &frames, Between between)
{
    std::vector<uint8_t> buf(DHCPSNOOP_FRAME_MAX);
    double path = 0, base = 0;
    bool each_left = true;
    for (auto _ : state) {
        for (auto &f : frames)
            bench_queue(f);
        uint64_t sends = bsys.sends;
        double t0 = cpu_seconds();
        for (size_t k = 0; k < frames.size(); k++)
            dhcpsnoop_main_pass();
        double t1 = cpu_seconds();
        bsys.head = bsys.tail = 0;
        for (auto &f : frames)
            benchmark::DoNotOptimize(copy_and_sum(f.bytes, buf.data()));
        double t2 = cpu_seconds();
        double p = t1 - t0;
        path += p;
        base += t2 - t1;
        state.SetIterationTime(p);
        each_left = each_left && bsys.sends - sends == frames.size();
        between();
    }
    if (!each_left)
        state.SkipWithError("a frame of the block did not leave exactly once");
    double n = double(state.iterations()) * double(frames.size());
    state.SetItemsProcessed(int64_t(n));
    state.counters["ratio"] = base / path;
    state.counters["frame_ns"] = path / n * 1e9;
    state.counters["pass_ns"] = base / n * 1e9;
}

bool forwarded(const Input &f) { return pass_one(f) == 1; }

void BM_Discover82(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), false);
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++)
        frames.push_back({from_client(i, 1).build(), CLIENT_PORT, false});
    if (!forwarded(frames[0]) || option82_of(last_sent()).empty())
        state.SkipWithError("the DISCOVER did not leave with option 82");
    else
        run_blocks(state, frames, [] {});
    d.down();
}

/* REQUEST then ACK for clients new to the table; the bindings made are
 * removed between blocks so the table keeps its size. */
void BM_RequestAck(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), false);
    Input req0{from_client(0, 3).build(), CLIENT_PORT, false};
    std::vector<uint8_t> o82 = forwarded(req0) ? option82_of(last_sent()) : std::vector<uint8_t>{};
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++) {
        frames.push_back({from_client(i, 3).build(), CLIENT_PORT, false});
        frames.push_back({ack(i, o82).build(), SERVER_PORT, false});
    }
    pass_one(frames[1]);
    DhcpsnoopUser *u = binding_of(0);
    auto clear = [] {
        for (uint32_t i = 0; i < BLOCK; i++)
            if (DhcpsnoopUser *b = binding_of(i))
                dhcpsnoop_user_delete(b);
    };
    if (o82.empty() || !u || u->bindState != DHCPSNOOP_BIND_BOUND) {
        state.SkipWithError("REQUEST/ACK did not make a bound binding");
    } else {
        clear();
        run_blocks(state, frames, clear);
    }
    d.down();
}

/* A bound client renews: unicast REQUEST with its address, then the ACK. */
void BM_Renew(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), false);
    Input req0{from_client(0, 3).build(), CLIENT_PORT, false};
    std::vector<uint8_t> o82 = forwarded(req0) ? option82_of(last_sent()) : std::vector<uint8_t>{};
    /* bind the block's clients through the path first */
    for (uint32_t i = 0; i < BLOCK; i++) {
        pass_one({from_client(i, 3).build(), CLIENT_PORT, false});
        pass_one({ack(i, o82).build(), SERVER_PORT, false});
    }
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++) {
        frames.push_back({from_client(i, 3, true).build(), CLIENT_PORT, false});
        frames.push_back({ack(i, o82).build(), SERVER_PORT, false});
    }
    DhcpsnoopUser *u = binding_of(BLOCK - 1);
    if (o82.empty() || !u || u->bindState != DHCPSNOOP_BIND_BOUND || !forwarded(frames[0]))
        state.SkipWithError("the renewing client was not bound or its REQUEST did not pass");
    else
        run_blocks(state, frames, [] {});
    d.down();
}

void BM_Solicit1837(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), true);
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++) {
        Dhcp6Frame f;
        f.src = client_mac(i);
        f.type = 1;
        f.xid = 0x1000 + i;
        Mac m = client_mac(i);
        f.options = cat({opt6(1, {0, 3, 0, 1, m[0], m[1], m[2], m[3], m[4], m[5]}),
                         ia_na6(i + 1, {}), opt6(8, {0, 0}), opt6(6, {0, 23, 0, 24})});
        frames.push_back({f.build(), CLIENT_PORT, true});
    }
    if (!forwarded(frames[0]) || find_opts6(last_sent(), 14, 18).size() != 1 ||
        find_opts6(last_sent(), 14, 37).size() != 1)
        state.SkipWithError("the SOLICIT did not leave with options 18 and 37");
    else
        run_blocks(state, frames, [] {});
    d.down();
}

void table_sizes(benchmark::internal::Benchmark *b)
{
    b->Arg(0)->Arg(8192)->Arg(65024)->UseManualTime()->Unit(benchmark::kNanosecond);
}

} // namespace

BENCHMARK(BM_Discover82)->Apply(table_sizes);
BENCHMARK(BM_RequestAck)->Apply(table_sizes);
BENCHMARK(BM_Renew)->Apply(table_sizes);
BENCHMARK(BM_Solicit1837)->Apply(table_sizes);

BENCHMARK_MAIN();
