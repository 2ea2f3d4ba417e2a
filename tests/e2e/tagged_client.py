#!/usr/bin/python3
"""A DHCPv4 client behind an 802.1Q-tagged link, for kernels without 802.1Q
devices: DISCOVER and REQUEST go out tagged on a raw packet socket, and the
replies are read back with their tags (the kernel hands a received tag over
in the packet's auxiliary data; it is put back into the frame here).

    tagged_client.py IFACE VID MAC [--timeout SECS]

Prints one JSON object: the OFFER and ACK as received (their VLAN tags, the
address, lease time and server), and every DHCP reply seen with its tag.
Exit status 0 when an ACK arrived, 1 otherwise.
"""
import json
import random
import socket
import struct
import sys
import time

from scapy.layers.dhcp import BOOTP, DHCP
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Dot1Q, Ether

SOL_PACKET = 263
PACKET_AUXDATA = 8
TP_STATUS_VLAN_VALID = 0x10
TP_STATUS_VLAN_TPID_VALID = 0x40
PACKET_OUTGOING = 4
ETH_P_ALL = 3


def open_socket(iface):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
    s.bind((iface, ETH_P_ALL))
    return s


def receive(s, deadline):
    """One incoming frame with its 802.1Q tag restored, or None at the deadline."""
    while True:
        left = deadline - time.monotonic()
        if left <= 0:
            return None
        s.settimeout(left)
        try:
            data, anc, _flags, addr = s.recvmsg(4096, socket.CMSG_SPACE(20))
        except socket.timeout:
            return None
        if addr[2] == PACKET_OUTGOING:
            continue
        for level, kind, cdata in anc:
            if level == SOL_PACKET and kind == PACKET_AUXDATA and len(cdata) >= 20:
                status, _len, _snap, _mac, _net, tci, tpid = struct.unpack("=IIIHHHH", cdata[:20])
                if status & TP_STATUS_VLAN_VALID:
                    if not status & TP_STATUS_VLAN_TPID_VALID:
                        tpid = 0x8100
                    data = data[:12] + struct.pack("!HH", tpid, tci) + data[12:]
        return data


def dhcp_type(pkt):
    for o in pkt[DHCP].options:
        if isinstance(o, tuple) and o[0] == "message-type":
            return o[1]
    return None


def opt(pkt, name):
    for o in pkt[DHCP].options:
        if isinstance(o, tuple) and o[0] == name:
            return o[1]
    return None


def describe(pkt):
    tags = []
    layer = pkt
    while layer.haslayer(Dot1Q):
        layer = layer[Dot1Q]
        tags.append(layer.vlan)
        layer = layer.payload
    return {"vlans": tags, "type": dhcp_type(pkt), "yiaddr": pkt[BOOTP].yiaddr,
            "src": pkt[Ether].src, "server": opt(pkt, "server_id"),
            "lease": opt(pkt, "lease_time"), "has82": opt(pkt, "relay_agent_information") is not None}


def exchange(s, iface, frame, xid, want, timeout, seen):
    """Send frame (again every 2 s) until a reply of type want for xid arrives."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        s.send(bytes(frame))
        step = min(deadline, time.monotonic() + 2)
        while True:
            data = receive(s, step)
            if data is None:
                break
            pkt = Ether(data)
            if not pkt.haslayer(BOOTP) or pkt[BOOTP].op != 2 or pkt[BOOTP].xid != xid:
                continue
            d = describe(pkt)
            seen.append(d)
            if d["type"] == want:
                return pkt, d
    return None, None


def main(argv):
    if len(argv) < 4:
        raise SystemExit(__doc__)
    iface, vid, mac = argv[1], int(argv[2]), argv[3]
    timeout = float(argv[argv.index("--timeout") + 1]) if "--timeout" in argv else 20.0
    chaddr = bytes.fromhex(mac.replace(":", ""))
    xid = random.randrange(1, 2**32)
    s = open_socket(iface)
    base = (Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") / Dot1Q(vlan=vid) /
            IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67))
    out = {"xid": "%08x" % xid, "replies": []}
    discover = base / BOOTP(chaddr=chaddr, xid=xid, flags=0) / DHCP(
        options=[("message-type", "discover"), ("param_req_list", [1, 3, 51, 54]), "end"])
    offer, out["offer"] = exchange(s, iface, discover, xid, 2, timeout, out["replies"])
    if offer is None:
        print(json.dumps(out))
        return 1
    server = opt(offer, "server_id")
    request = base / BOOTP(chaddr=chaddr, xid=xid, flags=0) / DHCP(
        options=[("message-type", "request"), ("requested_addr", offer[BOOTP].yiaddr),
                 ("server_id", server), "end"])
    ack, out["ack"] = exchange(s, iface, request, xid, 5, timeout, out["replies"])
    print(json.dumps(out))
    return 0 if ack is not None else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
