/*
 * The daemon's receive path, measured in-process: frames enter through the
 * system-call seam (the tests' in-memory sockets) and one main-loop pass each,
 * exactly as they would from the kernel, with the binding table filled to
 * 0, 8k and 64k entries beforehand (the pool sized to match at start-up).
 *
 * Beside every block of frames the same frames are copied and summed with a
 * plain RFC 1071 pass; the counter "ratio" is that pass's time over the
 * daemon's time for the same frames, so a figure stays comparable on a
 * shared machine whose absolute speed varies.  Higher is better.  Both are
 * timed in the thread's processor time, interleaved block by block.
 */
#include <benchmark/benchmark.h>

#include <time.h>

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
    }
    void down() { TearDown(); }
    using DaemonTest::sys;

    void queue(const std::vector<uint8_t> &bytes, uint32_t port, bool v6)
    {
        FakeFrame f;
        f.bytes = bytes;
        f.ingress = port;
        f.sllIfindex = int(port);
        f.outerVid = VLAN;
        f.l2HdrLen = 14;
        (v6 ? sys().frames6 : sys().frames4).push_back(f);
    }
};

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
 * family), one pass each; `between` runs untimed after each block. */
struct Input {
    std::vector<uint8_t> bytes;
    uint32_t port;
    bool v6;
};

template <typename Between>
void run_blocks(benchmark::State &state, Daemon &d, const std::vector<Input> &frames, Between between)
{
    std::vector<uint8_t> buf(DHCPSNOOP_FRAME_MAX);
    double path = 0, base = 0;
    for (auto _ : state) {
        for (auto &f : frames)
            d.queue(f.bytes, f.port, f.v6);
        double t0 = cpu_seconds();
        for (size_t k = 0; k < frames.size(); k++)
            dhcpsnoop_main_pass();
        double t1 = cpu_seconds();
        for (auto &f : frames)
            benchmark::DoNotOptimize(copy_and_sum(f.bytes, buf.data()));
        double t2 = cpu_seconds();
        double p = t1 - t0;
        path += p;
        base += t2 - t1;
        state.SetIterationTime(p);
        d.sys().sent.clear();
        d.sys().calls.clear();
        between();
    }
    double n = double(state.iterations()) * double(frames.size());
    state.SetItemsProcessed(int64_t(n));
    state.counters["ratio"] = base / path;
    state.counters["frame_ns"] = path / n * 1e9;
    state.counters["pass_ns"] = base / n * 1e9;
}

bool forwarded_to_server(Daemon &d, const std::vector<uint8_t> &bytes, bool v6)
{
    d.sys().sent.clear();
    d.queue(bytes, CLIENT_PORT, v6);
    dhcpsnoop_main_pass();
    return d.sys().sent.size() == 1;
}

void BM_Discover82(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), false);
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++)
        frames.push_back({from_client(i, 1).build(), CLIENT_PORT, false});
    d.sys().sent.clear();
    d.queue(frames[0].bytes, CLIENT_PORT, false);
    dhcpsnoop_main_pass();
    if (d.sys().sent.size() != 1 || option82_of(d.sys().sent[0].bytes).empty())
        state.SkipWithError("the DISCOVER did not leave with option 82");
    else
        run_blocks(state, d, frames, [] {});
    d.down();
}

/* REQUEST then ACK for clients new to the table; the bindings made are
 * removed between blocks so the table keeps its size. */
void BM_RequestAck(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), false);
    Dhcp4Frame req0 = from_client(0, 3);
    bool ok = forwarded_to_server(d, req0.build(), false);
    std::vector<uint8_t> o82 = ok ? option82_of(d.sys().sent[0].bytes) : std::vector<uint8_t>{};
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++) {
        frames.push_back({from_client(i, 3).build(), CLIENT_PORT, false});
        frames.push_back({ack(i, o82).build(), SERVER_PORT, false});
    }
    d.queue(frames[1].bytes, SERVER_PORT, false);
    dhcpsnoop_main_pass();
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
        run_blocks(state, d, frames, clear);
    }
    d.down();
}

/* A bound client renews: unicast REQUEST with its address, then the ACK. */
void BM_Renew(benchmark::State &state)
{
    Daemon d;
    d.up(uint32_t(state.range(0)), false);
    Dhcp4Frame req0 = from_client(0, 3);
    bool ok = forwarded_to_server(d, req0.build(), false);
    std::vector<uint8_t> o82 = ok ? option82_of(d.sys().sent[0].bytes) : std::vector<uint8_t>{};
    /* bind the block's clients through the path first */
    for (uint32_t i = 0; i < BLOCK; i++) {
        d.queue(from_client(i, 3).build(), CLIENT_PORT, false);
        dhcpsnoop_main_pass();
        d.queue(ack(i, o82).build(), SERVER_PORT, false);
        dhcpsnoop_main_pass();
    }
    std::vector<Input> frames;
    for (uint32_t i = 0; i < BLOCK; i++) {
        frames.push_back({from_client(i, 3, true).build(), CLIENT_PORT, false});
        frames.push_back({ack(i, o82).build(), SERVER_PORT, false});
    }
    DhcpsnoopUser *u = binding_of(BLOCK - 1);
    if (o82.empty() || !u || u->bindState != DHCPSNOOP_BIND_BOUND ||
        !forwarded_to_server(d, frames[0].bytes, false))
        state.SkipWithError("the renewing client was not bound or its REQUEST did not pass");
    else
        run_blocks(state, d, frames, [] {});
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
    d.sys().sent.clear();
    d.queue(frames[0].bytes, CLIENT_PORT, true);
    dhcpsnoop_main_pass();
    if (d.sys().sent.size() != 1 || find_opts6(d.sys().sent[0].bytes, 14, 18).size() != 1 ||
        find_opts6(d.sys().sent[0].bytes, 14, 37).size() != 1)
        state.SkipWithError("the SOLICIT did not leave with options 18 and 37");
    else
        run_blocks(state, d, frames, [] {});
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
