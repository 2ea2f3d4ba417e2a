#!/usr/bin/env bash
# A real client keeps its binding and lease beside a spoofing, flooding host,
# held-open command connections and unprivileged or many front ends; then the
# lifecycle: a second daemon refuses the live socket, SIGTERM takes the traps
# and the socket away, a start-up that cannot work exits 1.
set -u
. "$(dirname "$0")/e2e-lib.sh"
e2e_init guard isc-dhcp-client python3-scapy util-linux
SPOOF_MAC=02:00:00:00:00:66
# a binding pool of 64, so that each port's share is 8; the source-guard hook
v4_lab "ipsg swc items 0xc0" 0 64 1 0 0

nl_section "the socket and the settings"
check_eq "socket mode and owner, binding guard on by default, a port's share of the pool" "660 root root True 8" \
  "$(stat -c '%a %U %G' "$SOCK") $(ctl_in sw "$SOCK" --json global show | json_get "j['binding_guard']") $(ifshow swr "j['max_users']")"
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
check "nobody is refused by the socket's mode" grep -qF "$want" <<<"$(as_nobody)"
chmod 666 "$SOCK"
check "nobody is refused by the daemon's credential check" grep -qF "$want" <<<"$(as_nobody)"
chmod 660 "$SOCK"
for i in $(seq 1 20); do ctl_in sw "$SOCK" global show >/dev/null 2>&1 & PAR[$i]=$!; done
ok=0
for i in $(seq 1 20); do wait "${PAR[$i]}" && ok=$((ok + 1)); done
check_eq "twenty front ends at once all answered" 20 "$ok"

nl_section "a silent and a half-sent connection while the client takes its lease"
hold='import socket,sys,time
s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); s.send(bytes.fromhex(sys.argv[2])); time.sleep(60)'
bg_ns sw "$NL_TMP/silent.log" "$NL_PY" -c "$hold" "$SOCK" ""
bg_ns sw "$NL_TMP/half.log" "$NL_PY" -c "$hold" "$SOCK" "40000000010203"
v4_server
dhclient_start cl eth0 "$REC"
lease_wait
check_eq "the client's lease and binding with both connections held open" "$CLIENT_MAC swc 1 600 dynamic bound" \
  "$(binding_of "$SOCK" "${ip:-none}")"

nl_section "the spoofing host"
# The spoofer's REQUEST, RELEASE and DECLINE for the client's address, then
# a flood of REQUESTs from a hundred MACs.
d="Ether(src=m, dst='ff:ff:ff:ff:ff:ff')/IP(src=c, dst='255.255.255.255')/UDP(sport=68, dport=67)/BOOTP(chaddr=mac2str(m), ciaddr=c, xid=x)/DHCP(options=[('message-type', t)] + o + ['end'])"
s="('server_id', '10.77.0.1')"
send_frames rog eth0 "[$d for m, t, c, o, x in [('$SPOOF_MAC', 'request', '0.0.0.0', [('requested_addr', '$ip'), $s], 1),
  ('$SPOOF_MAC', 'release', '$ip', [$s], 2), ('$SPOOF_MAC', 'decline', '0.0.0.0', [('requested_addr', '$ip'), $s], 3)]
  + [('02:77:00:00:00:%02x' % i, 'request', '0.0.0.0', [('requested_addr', '10.88.0.%d' % (i + 1))], 10 + i) for i in range(100)]]" ||
  nl_err "scapy failed"
wait_for 10 "the flood to be counted" test "$(ifshow swr "j['drops']['table_full']")" -ge 92
check_eq "the client's binding is untouched" "$CLIENT_MAC swc 1 600 dynamic bound" "$(binding_of "$SOCK" "$ip")"
check_eq "spoofs dropped by the binding guard; users of the spoofer's port; the rest of the flood" "3 8 92" \
  "$(ifshow swr "'%d %d %d' % (j['drops']['binding_guard'], j['users'], j['drops']['table_full'])")"
check "the hardware still has the client's binding" grep -q "^swc $ip $CLIENT_MAC" "$NL_TMP/hardware"
check "the client still holds $ip" grep -q " $ip/" <<<"$(in_ns cl ip -4 addr show eth0)"
check "the server never saw the spoofer's claim on $ip" not grep -qi "DHCPREQUEST(eth0) $ip $SPOOF_MAC" "$NL_TMP/server.log"
check_alive dhcpsnoopd "$DS_PID"
stop_pid "$NL_LAST_PID"
in_ns cl ip -4 addr flush dev eth0

nl_section "lifecycle"
# run_daemon LOG [SOCKET [ARGS...]]: a daemon that should refuse to start; its status in rc.
run_daemon() {
  local log=$1 sock=${2:-$SOCK}; shift 2
  bg_ns sw "$log" env DHCPSNOOP_CONFIG="$NL_TMP/dhcpsnoop.conf" DHCPSNOOP_SOCKET="$sock" "$DHCPSNOOPD" "$@"
  wait_exit 10 "$NL_LAST_PID"; wait "$NL_LAST_PID"; rc=$?
}
run_daemon "$NL_TMP/second.log" "$SOCK"
check_eq "a second daemon on the live socket exits 1" 1 "$rc"
check "and says why" grep -q "another daemon is serving $SOCK" "$NL_TMP/second.log"
check "the first daemon still answers" ctl_in sw "$SOCK" global enable on
chains() { in_ns sw nft list table netdev dhcpsnoop 2>/dev/null | grep -c 'chain '; }
check "the traps are installed" gt0 "$(chains)"
kill -TERM "$DS_PID"
wait_exit 10 "$DS_PID"; wait "$DS_PID"
check_eq "SIGTERM ends the daemon with status 0" 0 "$?"
check "no trap is left behind: the table is gone" not eval "in_ns sw nft list table netdev dhcpsnoop &>/dev/null"
check "the socket file is gone" not test -e "$SOCK"
dhclient_start cl eth0 "$REC"
check "with the daemon stopped, DHCP is forwarded by the bridge again" \
  wait_for 60 "a lease without the daemon" test -s "$REC"
stop_pid "$NL_LAST_PID"
# A daemon killed outright leaves its socket file: the next one replaces it.
ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/killed.log" || exit 1
kill -KILL "$DS_PID"; wait "$DS_PID" 2>/dev/null
check "a killed daemon leaves its socket file" test -S "$SOCK"
check "the next daemon replaces the dead one's socket" ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/after.log"
stop_pid "$DS_PID"
run_daemon "$NL_TMP/bad.log" "$NL_TMP/no-such-dir/s.sock"
check_eq "a start-up that fails exits 1" 1 "$rc"
check "with one clear line" grep -q "start-up failed (command socket $NL_TMP/no-such-dir/s.sock)" "$NL_TMP/bad.log"
run_daemon "$NL_TMP/args.log" "$SOCK" -5
check_eq "an argument out of range exits 1" 1 "$rc"
check "and is named" grep -q "argument 1 (the interface pool size) must be a number from 0 to 65535, not '-5'" "$NL_TMP/args.log"
nl_summary
