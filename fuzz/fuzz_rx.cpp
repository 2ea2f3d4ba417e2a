/*
 * The whole receive path: frames reach a started daemon through its packet
 * sockets and one main-loop pass each, on a small switch the input sets up;
 * after every pass the pools and tables must hold together.
 * Input: 4 setting bytes, then up to FRAMES_MAX records
 *   c0    bit 0 DHCPv6 socket; bit 1 no packet information; bits 2-4 the
 *         ingress (kIngress); 5-7 the outer VLAN (kVids; 0: the frame's tag, else 1)
 *   c1    seconds the clock moves before the pass, times 8
 *   len   2 bytes, big-endian; then the frame (cut at the input's end)
 * Settings (port 1 the clients' port, 2 the trusted server port, 3 a
 * router-mode port, 4 and VLAN interface 101 optional):
 *   s0    port 1: option 82, sub-option 9, options 18 + 37, source-MAC
 *         check, binding check; server learning; relaying on port 1 (bit 7)
 *   s1    bits 0-1 versions (0: both); 2-3 option-82 policy; 4-7 mode
 *   s2    bits 0-2 circuit-id, 3-5 remote-id format; 6 port 4 on and
 *         trusted; 7 VLAN interface 101 on
 *   s3    bits 0-2 port 1's user limit - 1; 3-4 role; 5 source-guard and
 *         ARP-inspection hooks; 6 debug trace and dumps; 7 a pool of 4 users
 * fuzz/gen_corpus.py rx writes seeds from captured exchanges.
 */
#include "fuzz_state.h"

namespace {

constexpr int FRAMES_MAX = 16;
constexpr uint32_t kIngress[8] = {1, 2, 3, 4, 100, 101, 9, 0};
constexpr uint16_t kVids[8] = {0, 1, 10, 20, 30, 0, 4095, 10};

void set(uint32_t ifIndex, uint32_t cmd, uint32_t v) { dhcpSnoopIfSetApi(ifIndex, cmd, &v); }

void set_text(uint32_t ifIndex, uint32_t cmd, const char *text)
{
    QorTextPair t = {const_cast<char *>(text), uint32_t(strlen(text))};
    dhcpSnoopIfSetApi(ifIndex, cmd, &t);
}

void start_switch(const uint8_t *s)
{
    fuzz_restart(true);
    SwitchModel &m = sim_model();
    m.hwScalars[53] = (s[3] >> 3 & 3) != 0; /* 0 master, 1 none, 2 slave */
    m.hwScalars[54] = (s[3] >> 3 & 3) == 1;
    for (uint32_t i = 1; i <= 4; i++) {
        SimPort &p = m.addPort(i, "swp" + std::to_string(i));
        p.mac = {0x02, 0x5e, 0, 0, 0, uint8_t(i)};
        p.location = {1, 1, 0, i, 0, 0, 0};
    }
    m.ports[3].routerMode = true;
    m.ports[4].tpid = 0x88A8;
    m.ports[4].untagged = 0;
    m.addVlanIf(100, 10, "vlan10");
    m.addVlanIf(101, 20, "vlan20");
    m.vlanMembers[1] = {1, 2, 3, 4};
    m.vlanMembers[10] = {1, 2, 3};
    m.vlanMembers[20] = {3, 4};
    bool hooks = s[3] & 0x20;
    for (uint32_t i : {1u, 3u, 100u}) {
        m.ipsg[i] = {0, hooks, DHCPSNOOP_CHECK_ALL};
        m.dai[i] = {0, hooks, DHCPSNOOP_CHECK_IP | DHCPSNOOP_CHECK_MAC};
    }
    if (dhcpsnoop_init_ex(8, (s[3] & 0x80) ? 4 : 24, 4, 3, nullptr,
                          hooks ? ipsgIfGetApi : nullptr,
                          hooks ? arpAntiAttackIfGetApi : nullptr) != 0)
        abort();

    uint32_t version = (s[1] & 3) ? (s[1] & 3) : 3;
    for (uint32_t i : {1u, 2u, 3u, 4u, 100u, 101u}) {
        if ((i == 4 && !(s[2] & 0x40)) || (i == 101 && !(s[2] & 0x80)))
            continue;
        set(i, 1, 1);
        set(i, 2, version);
    }
    set(2, 3, 1);
    set(4, 3, 1);
    for (uint32_t i : {1u, 3u, 100u}) {
        set(i, 4, s[0] & 1);
        set(i, 8, s[1] >> 2 & 3);
        set(i, 10, s[1] >> 4);
        set(i, 30, s[2] & 7);
        set(i, 31, s[2] >> 3 & 7);
        /* every directive of a template, on the ports the captures do not use */
        set_text(i, 5, i == 1 ? "%s.%c.%d:%N" : "%D.%e.%N.%i.%y.%S.%r.%s.%c.%l.%d ");
        set_text(i, 6, "e2e-switch-remote"); /* as the captured replies carry */
        set(i, 9, s[0] >> 1 & 1);
        set_text(i, 7, "rack7");
        set(i, 11, s[0] >> 2 & 1);
        set(i, 13, s[0] >> 2 & 1);
        set_text(i, 12, "%d %N");
        set(i, 16, s[0] >> 4 & 1);
        set(i, 17, s[0] >> 5 & 1);
    }
    set(1, 18, 1 + (s[3] & 7));
    uint32_t learn = s[0] >> 6 & 1;
    dhcpSnoopSetApi(nullptr, DHCPSNOOP_G_SERVER_LEARN, &learn);
    if (s[0] & 0x80) {
        set(1, 34, 0xC0A83201); /* as the relaying end-to-end test */
        uint32_t pair[2] = {1, 0x0A090002};
        uint32_t on = 1;
        dhcpSnoopServerIpSetApi(pair, 1, &on);
        gDhcpsnoop.udpSock = dhcpsnoop_udp_socket_init();
    }
    gDhcpsnoop.debugFlags = (s[3] & 0x40) ? DHCPSNOOP_DEBUG_INFO | DHCPSNOOP_DEBUG_DUMP : 0;
}

/* The packet information a switch port gives the frame: its tags' VLANs
 * and the layer-2 header's length. */
FakeFrame frame_of(uint8_t c0, const uint8_t *data, size_t len)
{
    FakeFrame f;
    f.bytes.assign(data, data + len);
    f.withInfo = !(c0 & 2);
    f.ingress = f.sllIfindex = kIngress[c0 >> 2 & 7];
    uint16_t tags[2] = {0, 0};
    size_t l2 = 12;
    for (int i = 0; i < 2 && l2 + 4 <= len; i++) {
        uint16_t type = uint16_t(data[l2] << 8 | data[l2 + 1]);
        if (type != 0x8100 && type != 0x88A8 && type != 0x9100)
            break;
        tags[i] = uint16_t((data[l2 + 2] << 8 | data[l2 + 3]) & 0xFFF);
        l2 += 4;
    }
    f.l2HdrLen = uint8_t(l2 + 2);
    f.outerVid = kVids[c0 >> 5] ? kVids[c0 >> 5] : (tags[0] ? tags[0] : 1);
    f.innerVid = tags[1];
    return f;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    start_switch(data);
    FakeSys &sys = FakeSys::get();
    size_t pos = 4;
    for (int n = 0; n < FRAMES_MAX && pos + 4 <= size; n++) {
        uint8_t c0 = data[pos];
        sys.now += 8 * data[pos + 1];
        size_t len = size_t(data[pos + 2]) << 8 | data[pos + 3];
        pos += 4;
        len = len < size - pos ? len : size - pos;
        (c0 & 1 ? sys.frames6 : sys.frames4).push_back(frame_of(c0, data + pos, len));
        pos += len;
        dhcpsnoop_main_pass();
        fuzz_check_tables();
        sys.sent.clear();
    }
    /* one more lease scan, long after: provisional bindings, short leases
     * and waiting clients age out */
    sys.now += 100000;
    dhcpsnoop_main_pass();
    fuzz_check_tables();
    return 0;
}
