#include "frame6_helpers.h"

#include <arpa/inet.h>

#include <cstring>
#include <stdexcept>

namespace {
void put16(std::vector<uint8_t> &v, uint32_t x)
{
    v.push_back(uint8_t(x >> 8));
    v.push_back(uint8_t(x));
}
void put32(std::vector<uint8_t> &v, uint32_t x)
{
    put16(v, x >> 16);
    put16(v, x);
}
uint32_t get16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }
} // namespace

Ip6 ip6(const char *text)
{
    Ip6 a{};
    if (inet_pton(AF_INET6, text, a.data()) != 1)
        throw std::invalid_argument(text);
    return a;
}

std::vector<uint8_t> opt6(uint16_t code, const std::vector<uint8_t> &data)
{
    std::vector<uint8_t> v;
    put16(v, code);
    put16(v, uint32_t(data.size()));
    v.insert(v.end(), data.begin(), data.end());
    return v;
}

std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> v;
    for (auto &p : parts)
        v.insert(v.end(), p.begin(), p.end());
    return v;
}

std::vector<uint8_t> iaaddr6(const Ip6 &addr, uint32_t preferred, uint32_t valid,
                             const std::vector<uint8_t> &inner)
{
    std::vector<uint8_t> d(addr.begin(), addr.end());
    put32(d, preferred);
    put32(d, valid);
    d.insert(d.end(), inner.begin(), inner.end());
    return opt6(5, d);
}

std::vector<uint8_t> ia_na6(uint32_t iaid, const std::vector<uint8_t> &inner)
{
    std::vector<uint8_t> d;
    put32(d, iaid);
    put32(d, 1800);
    put32(d, 2880);
    d.insert(d.end(), inner.begin(), inner.end());
    return opt6(3, d);
}

std::vector<uint8_t> ia_ta6(uint32_t iaid, const std::vector<uint8_t> &inner)
{
    std::vector<uint8_t> d;
    put32(d, iaid);
    d.insert(d.end(), inner.begin(), inner.end());
    return opt6(4, d);
}

std::vector<uint8_t> status6(uint16_t code)
{
    std::vector<uint8_t> d;
    put16(d, code);
    return opt6(13, d);
}

Dhcp6Frame &Dhcp6Frame::opt(uint16_t code, const std::vector<uint8_t> &data)
{
    auto o = opt6(code, data);
    options.insert(options.end(), o.begin(), o.end());
    return *this;
}

std::vector<uint8_t> Dhcp6Frame::build() const
{
    std::vector<uint8_t> f(dst.begin(), dst.end());
    f.insert(f.end(), src.begin(), src.end());
    for (uint16_t v : vlans) {
        put16(f, 0x8100);
        put16(f, v);
    }
    put16(f, 0x86DD);
    std::vector<uint8_t> udp;
    put16(udp, sport);
    put16(udp, dport);
    uint32_t udpLen = 8 + 4 + uint32_t(options.size());
    put16(udp, udpLen);
    put16(udp, 0);
    udp.push_back(type);
    udp.push_back(uint8_t(xid >> 16));
    udp.push_back(uint8_t(xid >> 8));
    udp.push_back(uint8_t(xid));
    udp.insert(udp.end(), options.begin(), options.end());
    /* checksum over the pseudo-header */
    std::vector<uint8_t> ps(srcIp.begin(), srcIp.end());
    ps.insert(ps.end(), dstIp.begin(), dstIp.end());
    put32(ps, udpLen);
    put32(ps, 17);
    ps.insert(ps.end(), udp.begin(), udp.end());
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < ps.size(); i += 2)
        sum += get16(&ps[i]);
    if (ps.size() % 2)
        sum += uint32_t(ps.back()) << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    uint16_t ck = uint16_t(~sum);
    udp[6] = uint8_t(ck >> 8);
    udp[7] = uint8_t(ck);

    uint32_t payload = uint32_t(ext.size() + udp.size());
    f.push_back(0x60);
    f.push_back(0);
    put16(f, 0);
    put16(f, payload);
    f.push_back(ext.empty() ? 17 : nextHeader);
    f.push_back(1);
    f.insert(f.end(), srcIp.begin(), srcIp.end());
    f.insert(f.end(), dstIp.begin(), dstIp.end());
    f.insert(f.end(), ext.begin(), ext.end());
    f.insert(f.end(), udp.begin(), udp.end());
    f.insert(f.end(), pad, 0);
    return f;
}

uint16_t ip6_payload_len(const uint8_t *frame, size_t l2) { return uint16_t(get16(frame + l2 + 4)); }
uint16_t udp6_len(const uint8_t *frame, size_t l2) { return uint16_t(get16(frame + l2 + 40 + 4)); }

bool udp6_checksum_ok(const uint8_t *frame, size_t l2)
{
    const uint8_t *ip = frame + l2;
    uint32_t len = get16(ip + 40 + 4);
    uint32_t sum = 0;
    for (int i = 8; i < 40; i += 2)
        sum += get16(ip + i);
    sum += len + 17;
    const uint8_t *udp = ip + 40;
    for (uint32_t i = 0; i + 1 < len; i += 2)
        sum += get16(udp + i);
    if (len % 2)
        sum += uint32_t(udp[len - 1]) << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

std::vector<size_t> find_opts6(const std::vector<uint8_t> &f, size_t l2, uint16_t code)
{
    std::vector<size_t> out;
    size_t end = l2 + 40 + get16(&f[l2 + 4]);
    size_t pos = l2 + 40 + 8 + 4;
    while (pos + 4 <= end && pos + 4 <= f.size()) {
        if (get16(&f[pos]) == code)
            out.push_back(pos);
        pos += 4 + get16(&f[pos + 2]);
    }
    return out;
}
