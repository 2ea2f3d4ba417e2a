#!/usr/bin/env python3
"""Write the seeds of fuzz_netlink: one valid datagram of each kind the daemon
handles, in little-endian host order (the development machines' order).
The interfaces and bindings they name are the ones the harness sets up."""
import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "netlink")


def msg(mtype, payload=b""):
    return struct.pack("<IHHII", 16 + len(payload), mtype, 0, 1, 0) + payload


def pad(b):
    return b + b"\0" * (-len(b) % 4)


def attr(atype, value=b""):
    return pad(struct.pack("<HH", 4 + len(value), atype) + value)


def link(mtype, ifindex, attrs=b""):
    return msg(mtype, struct.pack("<IIII", 0, ifindex, 0, 0) + attrs)


def check(mtype, ifindex, items):
    return msg(mtype, struct.pack("<IB", ifindex, items))


def chassis(mtype, system, slot, card, extra=0):
    return msg(mtype, struct.pack("<IIII", system, slot, card, extra))


SEEDS = {
    "newlink_agg_add_remove": link(16, 5, attr(52, struct.pack("<I", 7)) + attr(53, struct.pack("<I", 8))),
    "newlink_join_synccfg": link(16, 3, attr(49) + attr(38) + attr(60, b"\1\2")),
    "dellink": link(17, 4),
    "ipsg_port": check(198, 3, 0xC0),
    "ipsg_vlan_withdraw": check(198, 100, 0x00),
    "dai_vlan": check(199, 100, 0x60),
    "dai_start_stop": pad(check(123, 3, 0x90)) + msg(124),
    "card_up": chassis(87, 1, 2, 5),
    "card_down": chassis(88, 1, 2, 5),
    "slot_up_down": chassis(90, 1, 2, 0) + chassis(91, 1, 3, 0),
    "subsystem_up": msg(93),
    "resend_vlan": msg(190, struct.pack("<I", 10)),
    "several": pad(link(16, 3, attr(49, b"\1"))) + link(17, 3) + msg(200),
}

os.makedirs(OUT, exist_ok=True)
for name, data in SEEDS.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
