/* The builders and checks of both families (frame_helpers.h, frame6_helpers.h),
 * sharing their byte and checksum arithmetic. */
#include "frame_helpers.h"

#include <arpa/inet.h>

#include <cstring>
#include <stdexcept>

#include "dhcpsnoop_msg.h"
#include "frame6_helpers.h"

namespace {

void push16(std::vector<uint8_t> &v, uint32_t x)
{
    v.push_back(uint8_t(x >> 8));
    v.push_back(uint8_t(x));
}

void push32(std::vector<uint8_t> &v, uint32_t x)
{
    push16(v, x >> 16);
    push16(v, x);
}

std::vector<uint8_t> be16(uint32_t x) { return {uint8_t(x >> 8), uint8_t(x)}; }

uint32_t rd16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }

/* RFC 1071 sum, folded, without the final complement. */
uint32_t ones_sum(const uint8_t *p, size_t n, uint32_t acc = 0)
{
    for (size_t i = 0; i + 1 < n; i += 2)
        acc += rd16(p + i);
    if (n & 1)
        acc += uint32_t(p[n - 1]) << 8;
    while (acc >> 16)
        acc = (acc & 0xFFFF) + (acc >> 16);
    return acc;
}

uint32_t udp_sum(const uint8_t *ip, const uint8_t *udp, size_t udpLen)
{
    uint8_t pseudo[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 17, uint8_t(udpLen >> 8), uint8_t(udpLen)};
    memcpy(pseudo, ip + 12, 8);
    return ones_sum(udp, udpLen, ones_sum(pseudo, 12));
}

/* The same for the UDP datagram at `ip + 40` behind a fixed IPv6 header. */
uint32_t udp6_sum(const uint8_t *ip, uint32_t len)
{
    return ones_sum(ip + 40, len, ones_sum(ip + 8, 32, len + 17));
}

} // namespace

std::vector<uint8_t> ipv4(uint32_t hostOrder)
{
    std::vector<uint8_t> v;
    push32(v, hostOrder);
    return v;
}

Dhcp4Frame &Dhcp4Frame::opt(uint8_t code, std::vector<uint8_t> data)
{
    options.push_back(code);
    options.push_back(uint8_t(data.size()));
    options.insert(options.end(), data.begin(), data.end());
    return *this;
}

Dhcp4Frame &Dhcp4Frame::msgType(uint8_t t) { return opt(53, {t}); }

Dhcp4Frame &Dhcp4Frame::end()
{
    options.push_back(255);
    return *this;
}

std::vector<uint8_t> Dhcp4Frame::build() const
{
    std::vector<uint8_t> f(dst.begin(), dst.end());
    f.insert(f.end(), src.begin(), src.end());
    for (uint16_t vid : vlans) {
        push16(f, 0x8100);
        push16(f, vid);
    }
    push16(f, 0x0800);

    size_t ipAt = f.size(), ipHdrLen = size_t(ihl) * 4, udpLen = 8 + 240 + options.size();
    f.push_back(uint8_t(0x40 | (ihl & 0x0F)));
    f.push_back(0);
    push16(f, uint32_t(ipHdrLen + udpLen));
    push32(f, 0x4000); // id 0, don't fragment
    f.push_back(64);
    f.push_back(ipProto);
    push16(f, 0); // checksum, below
    push32(f, srcIp);
    push32(f, dstIp);
    f.resize(ipAt + ipHdrLen, 0);

    size_t udpAt = f.size();
    push16(f, sport);
    push16(f, dport);
    push16(f, uint32_t(udpLen));
    push16(f, 0);

    for (uint8_t b : {op, uint8_t(1), uint8_t(6), uint8_t(0)}) // Ethernet, 6-byte addresses
        f.push_back(b);
    for (uint32_t w : {xid, uint32_t(flags), ciaddr, yiaddr, siaddr, giaddr})
        push32(f, w);
    f.insert(f.end(), chaddr.begin(), chaddr.end());
    f.resize(f.size() + 10 + 64 + 128, 0);
    for (uint8_t b : {99, 130, 83, 99})
        f.push_back(b);
    f.insert(f.end(), options.begin(), options.end());

    uint32_t ipSum = ~ones_sum(f.data() + ipAt, ipHdrLen) & 0xFFFF;
    f[ipAt + 10] = uint8_t(ipSum >> 8);
    f[ipAt + 11] = uint8_t(ipSum);
    uint32_t us = ~udp_sum(f.data() + ipAt, f.data() + udpAt, udpLen) & 0xFFFF;
    if (us == 0)
        us = 0xFFFF;
    f[udpAt + 6] = uint8_t(us >> 8);
    f[udpAt + 7] = uint8_t(us);
    f.resize(f.size() + pad, 0);
    return f;
}

bool ipv4_checksum_ok(const uint8_t *frame, size_t l2Len)
{
    const uint8_t *ip = frame + l2Len;
    return ones_sum(ip, size_t(ip[0] & 0x0F) * 4) == 0xFFFF;
}

bool udp4_checksum_ok(const uint8_t *frame, size_t l2Len)
{
    const uint8_t *ip = frame + l2Len;
    const uint8_t *udp = ip + size_t(ip[0] & 0x0F) * 4;
    return rd16(udp + 6) == 0 || udp_sum(ip, udp, rd16(udp + 4)) == 0xFFFF;
}

std::vector<Dhcp4Option> dhcp4_options(const uint8_t *frame, size_t frameLen, size_t l2Len)
{
    std::vector<Dhcp4Option> out;
    size_t udpAt = l2Len + size_t(frame[l2Len] & 0x0F) * 4;
    size_t at = udpAt + 8 + 240, end = std::min(udpAt + rd16(frame + udpAt + 4), frameLen);
    while (at < end) {
        uint8_t code = frame[at];
        if (code == 0) {
            at++;
            continue;
        }
        if (code == 255) {
            out.push_back({255, {}});
            break;
        }
        if (at + 1 >= end)
            break;
        size_t stop = std::min(at + 2 + frame[at + 1], end);
        out.push_back({code, std::vector<uint8_t>(frame + at + 2, frame + stop)});
        at += 2 + frame[at + 1];
    }
    return out;
}

void fill_rxpkt(DhcpsnoopRxPkt &rx, const std::vector<uint8_t> &frame, DhcpsnoopIf *ifp,
                uint32_t ifIndex, uint16_t outerVid, uint16_t innerVid, uint16_t l2HdrLen)
{
    memset(&rx, 0, sizeof rx);
    size_t n = std::min(frame.size(), sizeof rx.data);
    rx.valid = 1;
    rx.len = uint16_t(n);
    memcpy(rx.data, frame.data(), n);
    rx.inIf = ifp;
    rx.ifIndex = ifIndex;
    rx.outerVid = outerVid;
    rx.innerVid = innerVid;
    rx.l2HdrLen = l2HdrLen;
    rx.etherType = 0x0800;
}

int parse_frame(ParsedFrame &pf, const std::vector<uint8_t> &frame, DhcpsnoopIf *ifp,
                uint16_t outerVid, uint16_t innerVid, size_t l2Len)
{
    fill_rxpkt(pf.rx, frame, ifp, ifp ? ifp->ifIndex : 0, outerVid, innerVid, uint16_t(l2Len));
    return dhcpsnoop_packet_parse(&pf.rx, &pf.info, 1);
}

Ip6 ip6(const char *text)
{
    Ip6 a{};
    if (inet_pton(AF_INET6, text, a.data()) != 1)
        throw std::invalid_argument(text);
    return a;
}

std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> v;
    for (auto &p : parts)
        v.insert(v.end(), p.begin(), p.end());
    return v;
}

std::vector<uint8_t> opt6(uint16_t code, const std::vector<uint8_t> &data)
{
    return cat({be16(code), be16(uint32_t(data.size())), data});
}

std::vector<uint8_t> iaaddr6(const Ip6 &addr, uint32_t preferred, uint32_t valid,
                             const std::vector<uint8_t> &inner)
{
    return opt6(5, cat({{addr.begin(), addr.end()}, ipv4(preferred), ipv4(valid), inner}));
}

std::vector<uint8_t> ia_na6(uint32_t iaid, const std::vector<uint8_t> &inner)
{
    return opt6(3, cat({ipv4(iaid), ipv4(1800), ipv4(2880), inner}));
}

std::vector<uint8_t> ia_ta6(uint32_t iaid, const std::vector<uint8_t> &inner)
{
    return opt6(4, cat({ipv4(iaid), inner}));
}

std::vector<uint8_t> status6(uint16_t code) { return opt6(13, be16(code)); }

Dhcp6Frame &Dhcp6Frame::opt(uint16_t code, const std::vector<uint8_t> &data)
{
    options = cat({options, opt6(code, data)});
    return *this;
}

std::vector<uint8_t> Dhcp6Frame::build() const
{
    std::vector<uint8_t> f = cat({{dst.begin(), dst.end()}, {src.begin(), src.end()}});
    for (uint16_t v : vlans)
        f = cat({f, {0x81, 0}, be16(v)});
    uint32_t udpLen = 8 + 4 + uint32_t(options.size());
    size_t ipAt = f.size() + 2, udpAt = ipAt + 40 + ext.size();
    f = cat({f, {0x86, 0xDD, 0x60, 0, 0, 0}, be16(uint32_t(ext.size()) + udpLen)});
    f = cat({f, {uint8_t(ext.empty() ? 17 : nextHeader), 1}, {srcIp.begin(), srcIp.end()}});
    f = cat({f, {dstIp.begin(), dstIp.end()}, ext, be16(sport), be16(dport), be16(udpLen)});
    f = cat({f, {0, 0}, ipv4(uint32_t(type) << 24 | (xid & 0xFFFFFF)), options});
    /* the checksum over the pseudo-header, as if UDP followed the fixed header */
    std::vector<uint8_t> plain = cat({{f.begin() + long(ipAt), f.begin() + long(ipAt) + 40},
                                      {f.begin() + long(udpAt), f.end()}});
    uint16_t ck = uint16_t(~udp6_sum(plain.data(), udpLen));
    f[udpAt + 6] = uint8_t(ck >> 8);
    f[udpAt + 7] = uint8_t(ck);
    f.insert(f.end(), pad, 0);
    return f;
}

bool udp6_checksum_ok(const uint8_t *frame, size_t l2)
{
    return udp6_sum(frame + l2, rd16(frame + l2 + 40 + 4)) == 0xFFFF;
}

std::vector<size_t> find_opts6(const std::vector<uint8_t> &f, size_t l2, uint16_t code)
{
    std::vector<size_t> out;
    size_t end = l2 + 40 + rd16(&f[l2 + 4]);
    for (size_t pos = l2 + 40 + 8 + 4; pos + 4 <= end && pos + 4 <= f.size();
         pos += 4 + rd16(&f[pos + 2]))
        if (rd16(&f[pos]) == code)
            out.push_back(pos);
    return out;
}
