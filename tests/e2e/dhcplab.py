#!/usr/bin/python3
"""The end-to-end tests' packet tools: dhcplab.py count FILE EXPR (how many
DHCP messages m of a pcap file satisfy EXPR), send IFACE EXPR (send the scapy
frames EXPR).  Frames are decoded byte by byte, so the checks see exactly
what crossed the wire; the fields of m are the keys decode() sets."""
import ipaddress
import struct
import sys

V4 = "- DISCOVER OFFER REQUEST DECLINE ACK NAK RELEASE INFORM".split()
V6 = "- SOLICIT ADVERTISE REQUEST CONFIRM RENEW REBIND REPLY RELEASE DECLINE RECONFIGURE".split()


def pcap(path):
    """(time, frame) of each record of a pcap file."""
    data = open(path, "rb").read()
    e = "<" if data[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    off = 24
    while off + 16 <= len(data):
        sec, frac, incl = struct.unpack(e + "III", data[off:off + 12])
        yield sec + frac / 1e6, data[off + 16:off + 16 + incl]
        off += 16 + incl


def csum_ok(pseudo, seg):
    data = pseudo + seg + b"\0" * (len(seg) % 2)
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return s == 0xFFFF


def decode(fr):
    if len(fr) < 14:
        return None
    mac = lambda b: ":".join("%02x" % x for x in b)  # noqa: E731
    m = {"src": mac(fr[6:12]), "vlans": [], "tpids": []}
    et, off = struct.unpack("!H", fr[12:14])[0], 14
    while et in (0x8100, 0x88A8, 0x9100) and off + 4 <= len(fr):
        m["tpids"].append(et)
        m["vlans"].append(struct.unpack("!H", fr[off:off + 2])[0] & 0xFFF)
        et, off = struct.unpack("!H", fr[off + 2:off + 4])[0], off + 4
    if et == 0x0800 and off + 20 <= len(fr) and fr[off + 9] == 17:
        src, dst, u, ip = fr[off + 12:off + 16], fr[off + 16:off + 20], off + (fr[off] & 15) * 4, ipaddress.IPv4Address
    elif et == 0x86DD and off + 40 <= len(fr) and fr[off + 6] == 17:
        src, dst, u, ip = fr[off + 8:off + 24], fr[off + 24:off + 40], off + 40, ipaddress.IPv6Address
    else:
        return None
    if u + 8 > len(fr):
        return None
    m["ipsrc"], m["ipdst"] = str(ip(src)), str(ip(dst))
    m["sport"], m["dport"], ulen, ucs = struct.unpack("!HHHH", fr[u:u + 8])
    seg, p = fr[u:u + ulen], fr[u + 8:u + ulen]
    pseudo = src + dst + (b"\0\x11" + struct.pack("!H", len(seg)) if len(src) == 4 else
                          struct.pack("!I", len(seg)) + b"\0\0\0\x11")
    m["csum_ok"] = None if ucs == 0 else csum_ok(pseudo, seg)
    if {m["sport"], m["dport"]} & {67, 68} and len(p) >= 240:
        m.update(v=4, op=p[0], yiaddr=str(ip(p[16:20])), giaddr=str(ip(p[24:28])),
                 chaddr=mac(p[28:34]), opts={}, o82=None, server=None, type=None)
        i = 240
        while i + 1 < len(p) and p[i] != 255:
            if p[i] == 0:
                i += 1
                continue
            code, val = p[i], p[i + 2:i + 2 + p[i + 1]]
            m["opts"][code] = val.hex()
            if code == 53 and val:
                m["type"] = V4[val[0]] if val[0] < len(V4) else str(val[0])
            elif code == 54 and len(val) == 4:
                m["server"] = str(ip(val))
            elif code == 82:
                m["o82"], j = {}, 0
                while j + 1 < len(val):
                    m["o82"][val[j]] = val[j + 2:j + 2 + val[j + 1]].hex()
                    j += 2 + val[j + 1]
            i += 2 + p[i + 1]
        return m
    if {m["sport"], m["dport"]} & {546, 547} and len(p) >= 4:
        m.update(v=6, type=V6[p[0]] if p[0] < len(V6) else str(p[0]), codes=[], o18=None, o37=None)
        i = 4
        while i + 4 <= len(p):
            code, ln = struct.unpack("!HH", p[i:i + 4])
            m["codes"].append(code)
            if code in (18, 37):
                m["o%d" % code] = p[i + 4:i + 4 + ln].hex()
            i += 4 + ln
        return m
    return None


def main(argv):
    if argv[1:2] == ["count"]:
        where = compile(argv[3], "where", "eval")
        text_hex = lambda s: s.encode().hex()  # noqa: E731
        msgs = [m for m in map(decode, (f for _, f in pcap(argv[2]))) if m is not None]
        print(sum(1 for m in msgs if eval(where, {"text_hex": text_hex}, {"m": m})))
    elif argv[1:2] == ["send"]:
        from scapy.all import sendp
        import scapy.all
        sendp(eval(argv[3], vars(scapy.all)), iface=argv[2], inter=0.005, verbose=False)
    else:
        raise SystemExit(__doc__)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
