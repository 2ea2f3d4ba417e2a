#!/usr/bin/python3
"""Write the harnesses' seeds into fuzz/corpus/NAME/ (layouts: fuzz/fuzz_NAME.cpp).

    fuzz/gen_corpus.py [netlink] [cmdsock]   (default: both)
    fuzz/gen_corpus.py rx --run | DIR...

rx: the frames of real exchanges, client.pcap (port 1) and server.pcap (the
trusted port 2) of end-to-end directories kept with NL_KEEP=1 (--run runs the
capturing tests first), under a few settings and arrangements.  The rx seeds
dhcp4-* and dhcp6-* are hand-made frames, kept as they are.
"""
import os
import re
import struct
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
from dhcplab import decode, pcap  # noqa: E402


def write(kind, seeds):
    os.makedirs(os.path.join(HERE, "corpus", kind), exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(HERE, "corpus", kind, name), "wb") as f:
            f.write(data)


def netlink():
    """One valid datagram of each kind, in little-endian host order, after the byte 0
    (the sync-* seeds beside them are hand-made)."""
    msg = lambda t, payload=b"": struct.pack("<IHHII", 16 + len(payload), t, 0, 1, 0) + payload  # noqa: E731
    pad = lambda b: b + b"\0" * (-len(b) % 4)  # noqa: E731
    attr = lambda t, v=b"": pad(struct.pack("<HH", 4 + len(v), t) + v)  # noqa: E731
    link = lambda t, idx, attrs=b"": msg(t, struct.pack("<IIII", 0, idx, 0, 0) + attrs)  # noqa: E731
    check = lambda t, idx, items: msg(t, struct.pack("<IB", idx, items))  # noqa: E731
    chassis = lambda t, system, slot, card: msg(t, struct.pack("<IIII", system, slot, card, 0))  # noqa: E731
    u32 = lambda v: struct.pack("<I", v)  # noqa: E731
    write("netlink", {name: b"\0" + d for name, d in {
        "newlink_agg_add_remove": link(16, 5, attr(52, u32(7)) + attr(53, u32(8))),
        "newlink_join_synccfg": link(16, 3, attr(49) + attr(38) + attr(60, b"\1\2")),
        "dellink": link(17, 4), "ipsg_port": check(198, 3, 0xC0), "ipsg_vlan_withdraw": check(198, 100, 0),
        "dai_vlan": check(199, 100, 0x60), "dai_start_stop": pad(check(123, 3, 0x90)) + msg(124),
        "card_up": chassis(87, 1, 2, 5), "card_down": chassis(88, 1, 2, 5),
        "slot_up_down": chassis(90, 1, 2, 0) + chassis(91, 1, 3, 0), "subsystem_up": msg(93),
        "resend_vlan": msg(190, u32(10)), "several": pad(link(16, 3, attr(49, b"\1"))) + link(17, 3) + msg(200)}.items()})


def cmdsock():
    """The requests of corpus/cmd/ (2-byte little-endian length, body) as connections,
    whole and handed over 4 bytes at a time."""
    seeds, src = {}, os.path.join(HERE, "corpus", "cmd")
    for name in sorted(os.listdir(src)):
        data, conns, pos = open(os.path.join(src, name), "rb").read(), [], 0
        while pos + 2 <= len(data):
            body = data[pos + 2:pos + 2 + struct.unpack("<H", data[pos:pos + 2])[0]]
            conns.append(struct.pack("=I", len(body)) + body)
            pos += 2 + len(body)
        for chunk in (0, 4):
            seeds["%s-%d" % (name, chunk)] = b"".join(bytes([chunk]) + struct.pack("!H", len(c)) + c for c in conns)
    write("cmdsock", seeds)


# fuzz_rx's settings bytes s0..s3 by name, and its ports (kIngress indexes).
SETTINGS = {"plain": (0, 0, 0, 8), "opt82": (3, 0x34, 9, 0), "opt18-37": (0x0C, 0, 0, 8),
            "relay": (0x81, 1, 0, 8), "checks": (0x71, 0, 0xC0, 0x60), "small": (1, 0, 0, 0x80)}
CLIENT, SERVER, ROUTER, OFF = 0, 1, 2, 3
RUNS = [["e2e_dhcpv4.sh", "dnsmasq", "dhclient"], ["e2e_dhcpv4.sh", "kea", "dhclient"],
        ["e2e_dhcpv6.sh"], ["e2e_relay.sh"], ["e2e_vlan.sh"]]


def rx(args):
    dirs = [(os.path.basename(d.rstrip("/")), d) for d in args if d != "--run"]
    for run in RUNS if "--run" in args else []:
        p = subprocess.run(["bash", os.path.join(ROOT, "tests", "e2e", run[0]), "--daemon",
                            os.path.join(ROOT, "build", "dhcpsnoopd"), "--ctl",
                            os.path.join(ROOT, "build", "dhcpsnoopctl")] + run[1:],
                           env=dict(os.environ, NL_KEEP="1"), capture_output=True, text=True)
        dirs += [(" ".join(run), k) for k in re.findall(r"^kept: (\S+)", p.stderr, re.M)[-1:]]
    seeds = {}
    for label, d in dirs:
        ex = []
        for name, srv in (("client.pcap", False), ("server.pcap", True)):
            for t, fr in pcap(os.path.join(d, name)):
                m = decode(fr)
                if m and (m["op"] == 2 if m["v"] == 4 else m["type"] in ("ADVERTISE", "REPLY", "RECONFIGURE")) == srv:
                    ex.append((t, m["v"] == 6, srv, fr))
        ex = sorted(ex, key=lambda x: x[0])[:16]
        rec = lambda v6, port, fr, step=0, vid=0: bytes([v6 | port << 2 | vid << 5, step]) + struct.pack("!H", len(fr)) + fr  # noqa: E731, E501

        def seq(settings, step=0, client=CLIENT, server=SERVER, vid=0):
            return bytes(SETTINGS[settings]) + b"".join(rec(v6, server if s else client, fr, step, vid) for _, v6, s, fr in ex)
        tag = re.sub(r"[^a-z0-9]+", "-", label.replace("e2e_", "").replace(".sh", "")).strip("-")
        seeds.update({"%s-%s" % (tag, name): seq(name) for name in SETTINGS})
        seeds.update({tag + "-rogue": seq("opt82", server=ROUTER), tag + "-slow": seq("plain", step=10),
                      tag + "-vlanif": seq("opt82", client=OFF, vid=2)})
        for i, (_, v6, s, fr) in enumerate(ex[:2]):
            seeds["%s-frame%d" % (tag, i)] = bytes(SETTINGS["opt82"]) + rec(v6, SERVER if s else CLIENT, fr)
        print("%s: %d frames" % (tag, len(ex)))
        if "--run" in args:
            subprocess.run(["rm", "-rf", d])
    write("rx", seeds)


if __name__ == "__main__":
    if sys.argv[1:2] == ["rx"] and sys.argv[2:]:
        rx(sys.argv[2:])
    else:
        for kind in sys.argv[1:] or ["netlink", "cmdsock"]:
            globals()[kind]()
