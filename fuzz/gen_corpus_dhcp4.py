#!/usr/bin/env python3
"""Write the seed frames of fuzz_dhcp4 into fuzz/corpus/dhcp4/.

Each seed is the harness's 8 control bytes followed by one Ethernet frame
with correct lengths and checksums: a DISCOVER, a REQUEST that already
carries option 82, and an ACK from a server.
"""
import os
import struct
import sys


def csum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def ip4(text):
    return bytes(int(x) for x in text.split("."))


def frame(op, options, src_ip="0.0.0.0", dst_ip="255.255.255.255", sport=68, dport=67,
          vlans=(), yiaddr="0.0.0.0", chaddr=b"\x02\x00\x00\x00\x00\x01"):
    bootp = struct.pack("!BBBBIHH4s4s4s4s", op, 1, 6, 0, 0x12345678, 0, 0,
                        ip4("0.0.0.0"), ip4(yiaddr), ip4("0.0.0.0"), ip4("0.0.0.0"))
    bootp += chaddr + bytes(10 + 64 + 128) + bytes([99, 130, 83, 99]) + options
    udp_len = 8 + len(bootp)
    src, dst = ip4(src_ip), ip4(dst_ip)
    pseudo = src + dst + struct.pack("!BBH", 0, 17, udp_len)
    udp = struct.pack("!HHHH", sport, dport, udp_len, 0) + bootp
    us = csum(pseudo + udp) or 0xFFFF
    udp = udp[:6] + struct.pack("!H", us) + udp[8:]
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + udp_len, 0, 0x4000, 64, 17, 0, src, dst)
    ip = ip[:10] + struct.pack("!H", csum(ip)) + ip[12:]
    eth = b"\xff" * 6 + chaddr
    for v in vlans:
        eth += struct.pack("!HH", 0x8100, v)
    eth += b"\x08\x00"
    return eth + ip + udp


def opt(code, data):
    return bytes([code, len(data)]) + data


def main():
    out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "dhcp4")
    os.makedirs(out, exist_ok=True)
    # control: l2 len, flags, port/debug, outer vid, inner vid, if modes, policy/modes, texts
    discover = bytes([14, 0x00, 0x31, 10, 0, 0x5B, 0x0A, 0x00]) + frame(
        1, opt(53, b"\x01") + opt(60, b"\x01\x04\x0a\x00\x00\x01") + b"\xff")
    request = bytes([18, 0x00, 0x12, 20, 0, 0xE4, 0x77, 0x35]) + frame(
        1,
        opt(53, b"\x03") + opt(50, ip4("10.0.0.5")) + opt(54, ip4("10.0.0.1"))
        + opt(82, opt(1, b"\x00\x06\x00\x14\x01\x00\x03\x01")
              + opt(2, b"\x00\x06\x10\x11\x12\x13\x14\x15")
              + opt(9, b"\x00\x00\x7e\xd9\x03\x01\x01x"))
        + b"\xff",
        vlans=(20,))
    ack = bytes([14, 0x00, 0x21, 10, 0, 0x49, 0xA4, 0x00]) + frame(
        2,
        opt(53, b"\x05") + opt(54, ip4("10.0.0.1")) + opt(51, struct.pack("!I", 3600))
        + opt(3, ip4("10.0.0.254")) + opt(1, ip4("255.255.255.0"))
        + opt(82, opt(2, b"\x00\x06\x10\x11\x12\x13\x14\x15")) + b"\xff",
        src_ip="10.0.0.1", dst_ip="10.0.0.5", sport=67, dport=68, yiaddr="10.0.0.5")
    for name, data in (("discover", discover), ("request_opt82", request), ("ack", ack)):
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
