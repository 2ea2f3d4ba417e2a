#!/usr/bin/python3
"""Seeds for fuzz_rx from real DHCP exchanges.

    fuzz/gen_corpus_rx.py --run          run the end-to-end tests that capture
                                         dnsmasq/Kea and dhclient, then convert
    fuzz/gen_corpus_rx.py DIR...         convert kept end-to-end directories
    fuzz/gen_corpus_rx.py --cmd          seeds for fuzz_cmdsock from fuzz/corpus/cmd

A DIR holds client.pcap and server.pcap as an end-to-end test leaves them
with NL_KEEP=1.  The frames the client sent (client.pcap) and the ones the
server sent (server.pcap), merged in time order, become the frame records
of fuzz_rx (see fuzz/fuzz_rx.cpp): the client's on port 1, the server's on
the trusted port 2.  Each exchange is written under a few settings and
arrangements (option 82, relaying, checks, small pools, a rogue server, the
clock running out between frames, single frames) into fuzz/corpus/rx/.
"""
import os
import re
import struct
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
from dhcpcap import decode  # noqa: E402

OUT = os.path.join(HERE, "corpus", "rx")
FRAMES_MAX = 16
RUNS = [["e2e_dhcpv4.sh", "dnsmasq", "dhclient"], ["e2e_dhcpv4.sh", "kea", "dhclient"],
        ["e2e_dhcpv6.sh"], ["e2e_relay.sh"], ["e2e_vlan.sh"]]
# Settings bytes s0..s3 (see fuzz_rx.cpp) by name.
SETTINGS = {
    "plain": (0x00, 0x00, 0x00, 0x08),
    "opt82": (0x03, 0x34, 0x09, 0x00),
    "opt18-37": (0x0C, 0x00, 0x00, 0x08),
    "relay": (0x81, 0x01, 0x00, 0x08),
    "checks": (0x71, 0x00, 0xC0, 0x60),
    "small": (0x01, 0x00, 0x00, 0x80),
}
# kIngress indexes; port 4, off, reaches VLAN interface 100 by its VLAN (kVids 2)
PORT_CLIENT, PORT_SERVER, PORT_ROUTER, PORT_OFF = 0, 1, 2, 3


def pcap(path):
    """(time, frame) of each record of a pcap file."""
    with open(path, "rb") as f:
        data = f.read()
    e = "<" if data[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    off = 24
    while off + 16 <= len(data):
        sec, frac, incl = struct.unpack(e + "III", data[off:off + 12])
        yield sec + frac / 1e6, data[off + 16:off + 16 + incl]
        off += 16 + incl


def from_server(m):
    return m["op"] == 2 if m["v"] == 4 else m["type"] in ("ADVERTISE", "REPLY", "RECONFIGURE")


def exchange(d):
    """[(time, v6, from_server, frame)] of a kept directory, in time order."""
    out = []
    for name, server_side in (("client.pcap", False), ("server.pcap", True)):
        for t, fr in pcap(os.path.join(d, name)):
            m = decode(fr)
            if m is not None and from_server(m) == server_side:
                out.append((t, m["v"] == 6, server_side, fr))
    return sorted(out, key=lambda x: x[0])


def record(v6, port, frame, step=0, vid=0):
    c0 = (1 if v6 else 0) | port << 2 | vid << 5
    return bytes([c0, step]) + struct.pack("!H", len(frame)) + frame


def inputs(ex):
    """(suffix, bytes) of the inputs made from one exchange."""
    def seq(settings, step=0, client=PORT_CLIENT, server=PORT_SERVER, vid=0):
        recs = b"".join(record(v6, server if srv else client, fr, step, vid)
                        for _, v6, srv, fr in ex[:FRAMES_MAX])
        return bytes(SETTINGS[settings]) + recs

    yield from ((name, seq(name)) for name in SETTINGS)
    yield "rogue", seq("opt82", server=PORT_ROUTER)
    yield "slow", seq("plain", step=10)
    yield "vlanif", seq("opt82", client=PORT_OFF, vid=2)
    for i, (_, v6, srv, fr) in enumerate(ex[:2]):
        yield "frame%d" % i, bytes(SETTINGS["opt82"]) + record(v6, PORT_SERVER if srv else PORT_CLIENT, fr)


def run_e2e():
    """Run the capturing end-to-end tests with their directories kept."""
    dirs = []
    for run in RUNS:
        script = os.path.join(ROOT, "tests", "e2e", run[0])
        p = subprocess.run(["bash", script, "--daemon", os.path.join(ROOT, "build", "dhcpsnoopd"),
                            "--ctl", os.path.join(ROOT, "build", "dhcpsnoopctl")] + run[1:],
                           env=dict(os.environ, NL_KEEP="1"), capture_output=True, text=True)
        kept = re.findall(r"^kept: (\S+)", p.stderr, re.M)
        print("%s: exit %d, %s" % (" ".join(run), p.returncode, kept[-1] if kept else "nothing kept"))
        dirs += [(" ".join(run), k) for k in kept[-1:]]
    return dirs


def cmd_seeds():
    """fuzz_cmd's requests (2-byte little-endian length, body) as connections
    of fuzz_cmdsock, whole and handed over in small chunks."""
    out = os.path.join(HERE, "corpus", "cmdsock")
    os.makedirs(out, exist_ok=True)
    src = os.path.join(HERE, "corpus", "cmd")
    for name in sorted(os.listdir(src)):
        with open(os.path.join(src, name), "rb") as f:
            data = f.read()
        conns, pos = [], 0
        while pos + 2 <= len(data):
            n = struct.unpack("<H", data[pos:pos + 2])[0]
            body = data[pos + 2:pos + 2 + n]
            conns.append(struct.pack("=I", len(body)) + body)
            pos += 2 + n
        for chunk in (0, 4):
            with open(os.path.join(out, "%s-%d" % (name, chunk)), "wb") as f:
                f.write(b"".join(bytes([chunk]) + struct.pack("!H", len(c)) + c for c in conns))


def main(argv):
    if argv[1:] == ["--cmd"]:
        return cmd_seeds()
    if argv[1:] == ["--run"]:
        dirs = run_e2e()
    elif argv[1:]:
        dirs = [(os.path.basename(d.rstrip("/")), d) for d in argv[1:]]
    else:
        raise SystemExit(__doc__)
    os.makedirs(OUT, exist_ok=True)
    for label, d in dirs:
        ex = exchange(d)
        tag = re.sub(r"[^a-z0-9]+", "-", label.replace("e2e_", "").replace(".sh", "")).strip("-")
        for suffix, data in inputs(ex):
            with open(os.path.join(OUT, "%s-%s" % (tag, suffix)), "wb") as f:
                f.write(data)
        print("%s: %d frames" % (tag, len(ex)))
    if argv[1:] == ["--run"]:
        for _, d in dirs:
            subprocess.run(["rm", "-rf", d])


if __name__ == "__main__":
    main(sys.argv)
