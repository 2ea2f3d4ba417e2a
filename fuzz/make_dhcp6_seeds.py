#!/usr/bin/env python3
"""Writes the DHCPv6 fuzzer's seed frames: a SOLICIT with IA_NA, a REQUEST
with options 18 and 37, and a REPLY with two addresses and a status."""
import os
import struct
import sys


def opt(code, data):
    return struct.pack("!HH", code, len(data)) + data


def iaaddr(last, valid, inner=b""):
    return opt(5, bytes(15) + bytes([last]) + struct.pack("!II", valid // 2, valid) + inner)


def frame(msg_type, options, sport=546, dport=547):
    dhcp = bytes([msg_type, 1, 2, 3]) + options
    udp = struct.pack("!HHHH", sport, dport, 8 + len(dhcp), 0) + dhcp
    src = bytes.fromhex("fe800000000000000000000000000001")
    dst = bytes.fromhex("ff020000000000000000000000010002")
    ip6 = struct.pack("!IHBB", 0x60000000, len(udp), 17, 1) + src + dst
    eth = bytes.fromhex("333300010002") + bytes.fromhex("020000000001") + b"\x86\xdd"
    return eth + ip6 + udp


out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus", "dhcp6")
os.makedirs(out, exist_ok=True)
seeds = {
    "solicit": (b"\x0e\x31\x05\x01", frame(1, opt(1, b"\x00\x01abcd") + opt(3, struct.pack("!III", 1, 0, 0) + iaaddr(5, 100)))),
    "request": (b"\x0e\x32\x03\x03", frame(3, opt(3, struct.pack("!III", 1, 0, 0) + iaaddr(6, 100)) + opt(18, b"\x01\x06\x00\x06") + opt(37, b"\x00\x00\x7e\xd9ab"))),
    "reply": (b"\x0e\x30\x05\x07", frame(7, opt(3, struct.pack("!III", 1, 0, 0) + iaaddr(6, 3600) + iaaddr(7, 0, opt(13, b"\x00\x02"))), 547, 546)),
}
for name, (knobs, data) in seeds.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(knobs + data)
