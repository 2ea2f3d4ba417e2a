#!/usr/bin/env bash
# A hostile host and hostile local processes beside a real client: a spoofing
# host (scapy) on an untrusted port claims and releases the client's address
# and floods REQUESTs; idle and half-sent command connections are held open;
# front ends without the right credentials or many at once knock on the
# socket.  The client keeps its binding and lease throughout.  Then the
# daemon's lifecycle: a second daemon refuses the live socket, SIGTERM takes
# the traps and the socket away (and DHCP flows again), and a start-up that
# cannot work ends at once with status 1.
set -u
. "$(dirname "$0")/e2e-lib.sh"
nl_need_packages iproute2 nftables dnsmasq-base isc-dhcp-client python3 python3-scapy util-linux
nl_init guard

SOCK=$NL_TMP/dhcpsnoop.sock
REC=$NL_TMP/lease
SPOOF_MAC=02:00:00:00:00:66
not() { ! "$@"; }
lab_v4
echo "ipsg swc items 0xc0" >>"$NL_TMP/dhcpsnoop.conf"
# a binding pool of 64, so that each port's share is 8; the source-guard hook
ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" 0 64 1 0 0 || exit 1
NL_QUIET=1 lab_snoop "$SOCK" circ rem || nl_die "configuring the daemon failed"
ifshow() { ctl_in sw "$SOCK" --json interface "$1" show | json_get "$2"; }

nl_section "the socket and the settings"
check_eq "the socket is 0660, root and its group" "660 root root" "$(stat -c '%a %U %G' "$SOCK")"
check_eq "the binding guard is on by default" True \
  "$(ctl_in sw "$SOCK" --json global show | json_get "j['binding_guard']")"
check_eq "a port's share of the binding pool" 8 "$(ifshow swr "j['max_users']")"
for dev in lo br0; do
  out=$(ctl_in sw "$SOCK" interface $dev enable on 2>&1)
  check "snooping on $dev is refused: $out" test $? -ne 0
done
check "no drop rule on lo or the bridge" \
  not bash -c "ip netns exec $(ns sw) nft list table netdev dhcpsnoop | grep -E 'device \"(lo|br0)\"'"

# An unprivileged front end: refused by the file's mode, and by the daemon
# itself when the mode lets it through.
cp "$DHCPSNOOPCTL" "$NL_TMP/ctl" && chmod 755 "$NL_TMP/ctl"
as_nobody() { in_ns sw setpriv --reuid=65534 --regid=65534 --clear-groups \
  env DHCPSNOOP_SOCKET="$SOCK" "$NL_TMP/ctl" --timeout 5 global show 2>&1; }
want="permission denied: run as root or as a member of root"
check "nobody is refused by the socket's mode" bash -c "[[ \"\$1\" == *'$want'* ]]" _ "$(as_nobody)"
chmod 666 "$SOCK"
check "nobody is refused by the daemon's credential check" bash -c "[[ \"\$1\" == *'$want'* ]]" _ "$(as_nobody)"
chmod 660 "$SOCK"

# Twenty front ends at once all get their answer.
for i in $(seq 1 20); do
  ctl_in sw "$SOCK" global show >"$NL_TMP/par$i.out" 2>&1 &
  PAR[$i]=$!
done
ok=0
for i in $(seq 1 20); do wait "${PAR[$i]}" && ok=$((ok + 1)); done
check_eq "twenty front ends at once all answered" 20 "$ok"

nl_section "a silent and a half-sent connection while the client takes its lease"
hold='import socket,sys,time
s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); s.send(bytes.fromhex(sys.argv[2])); time.sleep(60)'
bg_ns sw "$NL_TMP/silent.log" "$NL_PY" -c "$hold" "$SOCK" ""
bg_ns sw "$NL_TMP/half.log" "$NL_PY" -c "$hold" "$SOCK" "40000000010203"
dnsmasq_v4 srv eth0 10.77.0.1/24 10.77.0.100 10.77.0.150 600 "$NL_TMP/server.log" || exit 1
dhclient_start cl eth0 "$REC"
wait_for 60 "the client's lease" test -s "$REC" ||
  e2e_logs "$NL_TMP"/dhclient-*.log "$NL_TMP/dhcpsnoopd.log" "$NL_TMP/server.log"
ip=$(rec_get "$REC" ip)
check "the client got its lease with both connections held open" test -n "$ip"
wait_for 10 "a binding for $ip" has_binding_for "$SOCK" "$ip"

nl_section "the spoofing host"
mine="[b for b in j if b['ip'] == '$ip'][0]"
before=$(bindings "$SOCK" | json_get "$mine['mac'] + ' ' + $mine['interface'] + ' ' + $mine['state']")
check_eq "the client's binding" "$CLIENT_MAC swc bound" "$before"
spoof='import random, sys
from scapy.all import Ether, IP, UDP, BOOTP, DHCP, mac2str, sendp
victim, mac = sys.argv[1], sys.argv[2]
def frame(m, typ, ciaddr="0.0.0.0", opts=()):
    return (Ether(src=m, dst="ff:ff:ff:ff:ff:ff") / IP(src=ciaddr, dst="255.255.255.255") /
            UDP(sport=68, dport=67) / BOOTP(chaddr=mac2str(m), ciaddr=ciaddr, xid=random.getrandbits(32)) /
            DHCP(options=[("message-type", typ)] + list(opts) + ["end"]))
frames = [frame(mac, "request", opts=[("requested_addr", victim), ("server_id", "10.77.0.1")]),
          frame(mac, "release", ciaddr=victim, opts=[("server_id", "10.77.0.1")]),
          frame(mac, "decline", opts=[("requested_addr", victim), ("server_id", "10.77.0.1")])]
for i in range(100):
    m = "02:77:%02x:%02x:%02x:%02x" % tuple(random.getrandbits(8) for _ in range(4))
    frames.append(frame(m, "request", opts=[("requested_addr", "10.88.%d.%d" % (i // 200, i % 200 + 1))]))
sendp(frames, iface="eth0", inter=0.01, verbose=False)'
in_ns rog "$NL_PY" -c "$spoof" "$ip" "$SPOOF_MAC" || nl_err "scapy failed"
wait_for 10 "the flood to be counted" test "$(ifshow swr "j['drops']['table_full']")" -ge 92
after=$(bindings "$SOCK" | json_get "$mine['mac'] + ' ' + $mine['interface'] + ' ' + $mine['state']")
check_eq "the client's binding is untouched" "$before" "$after"
check_eq "the spoofed REQUEST, RELEASE and DECLINE were dropped and counted" 3 \
  "$(ifshow swr "j['drops']['binding_guard']")"
check_eq "the flood took the spoofer's port's share and no more" 8 "$(ifshow swr "j['users']")"
check_eq "the rest of the flood was counted" 92 "$(ifshow swr "j['drops']['table_full']")"
check "the hardware still has the client's binding" grep -q "^swc $ip $CLIENT_MAC" "$NL_TMP/hardware"
check "the client still holds $ip" bash -c "ip netns exec $(ns cl) ip -4 addr show eth0 | grep -q ' $ip/'"
check "the server never saw the spoofer's claim on $ip" \
  not grep -qi "DHCPREQUEST(eth0) $ip $SPOOF_MAC" "$NL_TMP/server.log"

# The client's own RELEASE still works, and it gets a lease again: its port's
# share was not touched by the flood.
dhclient_release cl eth0 "$REC"
check "the client's own RELEASE removed its binding" \
  wait_for 15 "the binding of $ip to go" no_binding_for "$SOCK" "$ip"
dhclient_start cl eth0 "$REC"
wait_for 60 "the client's second lease" test -s "$REC"
ip2=$(rec_get "$REC" ip)
check "the client got a lease again after the flood ($ip2)" wait_for 10 "its binding" has_binding_for "$SOCK" "${ip2:-none}"
check_alive dhcpsnoopd "$DS_PID"
stop_pid "$NL_LAST_PID"
in_ns cl ip -4 addr flush dev eth0

nl_section "lifecycle"
log2=$NL_TMP/second.log
bg_ns sw "$log2" env DHCPSNOOP_CONFIG="$NL_TMP/dhcpsnoop.conf" DHCPSNOOP_SOCKET="$SOCK" "$DHCPSNOOPD"
SECOND=$NL_LAST_PID
wait_exit 10 "$SECOND"; wait "$SECOND"; rc=$?
check_eq "a second daemon on the live socket exits 1" 1 "$rc"
check "and says why" grep -q "another daemon is serving $SOCK" "$log2"
check "the first daemon still answers" ctl_in sw "$SOCK" global enable on

chains() { in_ns sw nft list table netdev dhcpsnoop 2>/dev/null | grep -c 'chain '; }
check "the traps are installed" gt0 "$(chains)"
kill -TERM "$DS_PID"
wait_exit 10 "$DS_PID"; wait "$DS_PID"; rc=$?
check_eq "SIGTERM ends the daemon with status 0" 0 "$rc"
check_eq "no trap is left behind" 0 "$(chains)"
check "the socket file is gone" not test -e "$SOCK"
dhclient_start cl eth0 "$REC"
check "with the daemon stopped, DHCP is forwarded by the bridge again" \
  wait_for 60 "a lease without the daemon" test -s "$REC"
stop_pid "$NL_LAST_PID"

# A daemon killed outright leaves its socket file: the next one replaces it.
ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/killed.log" || exit 1
kill -KILL "$DS_PID"; wait "$DS_PID" 2>/dev/null
check "a killed daemon leaves its socket file" test -S "$SOCK"
bg_ns sw "$NL_TMP/after.log" env DHCPSNOOP_CONFIG="$NL_TMP/dhcpsnoop.conf" DHCPSNOOP_SOCKET="$SOCK" "$DHCPSNOOPD"
check "the next daemon replaces the dead one's socket" \
  wait_for 15 "the new daemon" ctl_in sw "$SOCK" global enable on
stop_pid "$NL_LAST_PID"

bg_ns sw "$NL_TMP/bad.log" env DHCPSNOOP_CONFIG="$NL_TMP/dhcpsnoop.conf" \
  DHCPSNOOP_SOCKET="$NL_TMP/no-such-dir/s.sock" "$DHCPSNOOPD"
BAD=$NL_LAST_PID
wait_exit 10 "$BAD"; wait "$BAD"; rc=$?
check_eq "a start-up that fails exits 1" 1 "$rc"
check "with one clear line" grep -q "start-up failed (command socket $NL_TMP/no-such-dir/s.sock)" "$NL_TMP/bad.log"
bg_ns sw "$NL_TMP/args.log" "$DHCPSNOOPD" -5
wait_exit 10 "$NL_LAST_PID"; wait "$NL_LAST_PID"; rc=$?
check_eq "an argument out of range exits 1" 1 "$rc"
check "and is named" grep -q "argument 1 (the interface pool size) must be a number from 0 to 65535, not '-5'" "$NL_TMP/args.log"
nl_summary
