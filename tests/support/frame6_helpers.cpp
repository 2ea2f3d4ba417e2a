#include "frame6_helpers.h"

#include <arpa/inet.h>

#include <stdexcept>

namespace {
std::vector<uint8_t> be(uint32_t x, int bytes)
{
    std::vector<uint8_t> v;
    for (int i = bytes - 1; i >= 0; i--)
        v.push_back(uint8_t(x >> (8 * i)));
    return v;
}
uint32_t get16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }

/* The folded sum of the UDP datagram at `ip + 40` and its pseudo-header. */
uint32_t udp6_sum(const uint8_t *ip, uint32_t len)
{
    uint32_t sum = len + 17;
    for (int i = 8; i < 40; i += 2)
        sum += get16(ip + i);
    for (uint32_t i = 0; i + 1 < len; i += 2)
        sum += get16(ip + 40 + i);
    if (len % 2)
        sum += uint32_t(ip[40 + len - 1]) << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return sum;
}
} // namespace

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
    return cat({be(code, 2), be(uint32_t(data.size()), 2), data});
}

std::vector<uint8_t> iaaddr6(const Ip6 &addr, uint32_t preferred, uint32_t valid,
                             const std::vector<uint8_t> &inner)
{
    return opt6(5, cat({{addr.begin(), addr.end()}, be(preferred, 4), be(valid, 4), inner}));
}

std::vector<uint8_t> ia_na6(uint32_t iaid, const std::vector<uint8_t> &inner)
{
    return opt6(3, cat({be(iaid, 4), be(1800, 4), be(2880, 4), inner}));
}

std::vector<uint8_t> ia_ta6(uint32_t iaid, const std::vector<uint8_t> &inner)
{
    return opt6(4, cat({be(iaid, 4), inner}));
}

std::vector<uint8_t> status6(uint16_t code) { return opt6(13, be(code, 2)); }

Dhcp6Frame &Dhcp6Frame::opt(uint16_t code, const std::vector<uint8_t> &data)
{
    options = cat({options, opt6(code, data)});
    return *this;
}

std::vector<uint8_t> Dhcp6Frame::build() const
{
    std::vector<uint8_t> f = cat({{dst.begin(), dst.end()}, {src.begin(), src.end()}});
    for (uint16_t v : vlans)
        f = cat({f, {0x81, 0}, be(v, 2)});
    uint32_t udpLen = 8 + 4 + uint32_t(options.size());
    size_t ipAt = f.size() + 2, udpAt = ipAt + 40 + ext.size();
    f = cat({f, {0x86, 0xDD, 0x60, 0, 0, 0}, be(uint32_t(ext.size()) + udpLen, 2),
             {uint8_t(ext.empty() ? 17 : nextHeader), 1}, {srcIp.begin(), srcIp.end()},
             {dstIp.begin(), dstIp.end()}, ext, be(sport, 2), be(dport, 2), be(udpLen, 2), {0, 0},
             be(uint32_t(type) << 24 | (xid & 0xFFFFFF), 4), options});
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
    return udp6_sum(frame + l2, get16(frame + l2 + 40 + 4)) == 0xFFFF;
}

std::vector<size_t> find_opts6(const std::vector<uint8_t> &f, size_t l2, uint16_t code)
{
    std::vector<size_t> out;
    size_t end = l2 + 40 + get16(&f[l2 + 4]);
    for (size_t pos = l2 + 40 + 8 + 4; pos + 4 <= end && pos + 4 <= f.size(); pos += 4 + get16(&f[pos + 2]))
        if (get16(&f[pos]) == code)
            out.push_back(pos);
    return out;
}
