#!/usr/bin/python3
"""Decode the DHCP messages of a pcap file and answer questions about them.

    dhcpcap.py FILE [--where EXPR] (--count | --dump | --get EXPR)

Every DHCPv4 or DHCPv6 message in FILE becomes a dict `m` (fields below);
--where keeps the messages for which the Python expression EXPR is true,
--count prints how many there are, --dump prints them one a line as JSON,
--get prints EXPR for each.  The frame is decoded here byte by byte rather
than by a dissector, so the checks see exactly what crossed the wire.

Fields of m:
  v          4 or 6
  src, dst   Ethernet addresses "aa:bb:.."
  vlans      list of VLAN ids of the 802.1Q/802.1ad tags, outermost first
  vlan       the outermost VLAN id or None
  tpids      the tag protocol ids of the tags
  ipsrc, ipdst, sport, dport, csum_ok (UDP checksum verifies; None when 0)
  DHCPv4: op, type (DISCOVER, OFFER, ...), xid, flags, ciaddr, yiaddr,
          giaddr, chaddr, opts {code: hex}, o82 {sub-option: hex} or None,
          lease (option 51) or None, server (option 54) or None
  DHCPv6: type (SOLICIT, ...), codes (option codes in order), o18, o37 (hex
          or None), addrs [(address, valid lifetime)] of IA_NA/IA_TA
"""
import ipaddress
import json
import struct
import sys

V4_TYPES = {1: "DISCOVER", 2: "OFFER", 3: "REQUEST", 4: "DECLINE", 5: "ACK", 6: "NAK",
            7: "RELEASE", 8: "INFORM"}
V6_TYPES = {1: "SOLICIT", 2: "ADVERTISE", 3: "REQUEST", 4: "CONFIRM", 5: "RENEW", 6: "REBIND",
            7: "REPLY", 8: "RELEASE", 9: "DECLINE", 10: "RECONFIGURE", 11: "INFORMATION-REQUEST",
            12: "RELAY-FORW", 13: "RELAY-REPL"}
TAG_TPIDS = (0x8100, 0x88A8, 0x9100)


def mac(b):
    return ":".join("%02x" % x for x in b)


def frames(path):
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 24:
        return
    magic = data[:4]
    if magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1"):
        e = "<"
    elif magic in (b"\xa1\xb2\xc3\xd4", b"\xa1\xb2\x3c\x4d"):
        e = ">"
    else:
        raise SystemExit("%s: not a pcap file (write it with -F pcap)" % path)
    linktype = struct.unpack(e + "I", data[20:24])[0]
    if linktype != 1:
        raise SystemExit("%s: link type %d, expected Ethernet" % (path, linktype))
    off = 24
    while off + 16 <= len(data):
        incl = struct.unpack(e + "I", data[off + 8:off + 12])[0]
        yield data[off + 16:off + 16 + incl]
        off += 16 + incl


def csum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return s


def dhcp4(m, p):
    if len(p) < 240:
        return None
    m.update(v=4, op=p[0], xid="%08x" % struct.unpack("!I", p[4:8])[0],
             flags=struct.unpack("!H", p[10:12])[0],
             ciaddr=str(ipaddress.IPv4Address(p[12:16])),
             yiaddr=str(ipaddress.IPv4Address(p[16:20])),
             giaddr=str(ipaddress.IPv4Address(p[24:28])), chaddr=mac(p[28:34]),
             opts={}, o82=None, lease=None, server=None, type=None)
    i = 240
    while i < len(p):
        code = p[i]
        if code == 0:
            i += 1
            continue
        if code == 255 or i + 1 >= len(p):
            break
        ln = p[i + 1]
        val = p[i + 2:i + 2 + ln]
        m["opts"][code] = val.hex()
        if code == 53 and ln >= 1:
            m["type"] = V4_TYPES.get(val[0], str(val[0]))
        elif code == 51 and ln == 4:
            m["lease"] = struct.unpack("!I", val)[0]
        elif code == 54 and ln == 4:
            m["server"] = str(ipaddress.IPv4Address(val))
        elif code == 82:
            subs, j = {}, 0
            while j + 1 < len(val):
                subs[val[j]] = val[j + 2:j + 2 + val[j + 1]].hex()
                j += 2 + val[j + 1]
            m["o82"] = subs
        i += 2 + ln
    return m


def dhcp6(m, p):
    if len(p) < 4:
        return None
    m.update(v=6, type=V6_TYPES.get(p[0], str(p[0])), codes=[], o18=None, o37=None, addrs=[])
    i = 4
    while i + 4 <= len(p):
        code, ln = struct.unpack("!HH", p[i:i + 4])
        val = p[i + 4:i + 4 + ln]
        m["codes"].append(code)
        if code == 18:
            m["o18"] = val.hex()
        elif code == 37:
            m["o37"] = val.hex()
        elif code in (3, 4):
            j = 12 if code == 3 else 4
            while j + 4 <= len(val):
                c2, l2 = struct.unpack("!HH", val[j:j + 4])
                if c2 == 5 and l2 >= 24:
                    a = val[j + 4:j + 20]
                    m["addrs"].append((str(ipaddress.IPv6Address(a)),
                                       struct.unpack("!I", val[j + 24:j + 28])[0]))
                j += 4 + l2
        i += 4 + ln
    return m


def decode(fr):
    if len(fr) < 14:
        return None
    m = {"dst": mac(fr[0:6]), "src": mac(fr[6:12]), "vlans": [], "tpids": []}
    et, off = struct.unpack("!H", fr[12:14])[0], 14
    while et in TAG_TPIDS and off + 4 <= len(fr):
        m["tpids"].append(et)
        m["vlans"].append(struct.unpack("!H", fr[off:off + 2])[0] & 0xFFF)
        et, off = struct.unpack("!H", fr[off + 2:off + 4])[0], off + 4
    m["vlan"] = m["vlans"][0] if m["vlans"] else None
    if et == 0x0800 and off + 20 <= len(fr) and fr[off + 9] == 17:
        ihl = (fr[off] & 15) * 4
        src, dst = fr[off + 12:off + 16], fr[off + 16:off + 20]
        m["ipsrc"], m["ipdst"] = str(ipaddress.IPv4Address(src)), str(ipaddress.IPv4Address(dst))
        u = off + ihl
    elif et == 0x86DD and off + 40 <= len(fr) and fr[off + 6] == 17:
        src, dst = fr[off + 8:off + 24], fr[off + 24:off + 40]
        m["ipsrc"], m["ipdst"] = str(ipaddress.IPv6Address(src)), str(ipaddress.IPv6Address(dst))
        u = off + 40
    else:
        return None
    if u + 8 > len(fr):
        return None
    sport, dport, ulen, ucs = struct.unpack("!HHHH", fr[u:u + 8])
    m["sport"], m["dport"] = sport, dport
    seg = fr[u:u + ulen]
    if ucs == 0:
        m["csum_ok"] = None
    elif len(src) == 4:
        m["csum_ok"] = csum(src + dst + b"\0\x11" + struct.pack("!H", len(seg)) + seg) == 0xFFFF
    else:
        m["csum_ok"] = csum(src + dst + struct.pack("!I", len(seg)) + b"\0\0\0\x11" + seg) == 0xFFFF
    body = seg[8:]
    if {sport, dport} & {67, 68}:
        return dhcp4(m, body)
    if {sport, dport} & {546, 547}:
        return dhcp6(m, body)
    return None


def main(argv):
    if len(argv) < 3:
        raise SystemExit(__doc__)
    path, where, mode, expr = argv[1], "True", None, None
    i = 2
    while i < len(argv):
        a = argv[i]
        if a == "--where":
            where, i = argv[i + 1], i + 2
        elif a == "--get":
            mode, expr, i = "get", argv[i + 1], i + 2
        elif a in ("--count", "--dump"):
            mode, i = a[2:], i + 1
        else:
            raise SystemExit("unknown argument %s" % a)
    msgs = []
    for fr in frames(path):
        m = decode(fr)
        if m is not None and eval(where, {"text_hex": text_hex}, {"m": m}):
            msgs.append(m)
    if mode == "count":
        print(len(msgs))
    elif mode == "dump":
        for m in msgs:
            print(json.dumps(m, sort_keys=True))
    elif mode == "get":
        for m in msgs:
            print(eval(expr, {"text_hex": text_hex}, {"m": m}))
    else:
        raise SystemExit("give --count, --dump or --get")


def text_hex(s):
    """The hex of a text, for comparing with option bytes."""
    return s.encode().hex()


if __name__ == "__main__":
    main(sys.argv)
