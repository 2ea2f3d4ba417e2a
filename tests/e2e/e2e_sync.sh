#!/usr/bin/env bash
# Master and slave: two daemons, each with its own command socket.  The
# master (role master, peer = the slave's socket) learns a binding from a
# real exchange; the slave (role slave) lists it, and drops it when the
# client's release removes it on the master.
set -u
. "$(dirname "$0")/e2e-lib.sh"
nl_need_packages iproute2 nftables dnsmasq-base isc-dhcp-client python3
nl_init sync

MSOCK=$NL_TMP/master.sock
SSOCK=$NL_TMP/slave.sock
REC=$NL_TMP/lease
nl_ns sw cl srv standby
nl_link sw swc cl eth0 "$CLIENT_MAC"
nl_link sw sws srv eth0 02:00:00:00:00:51
lab_switch sw swc sws
ds_config "$NL_TMP/slave.conf" "role slave" "hostname e2e-standby" "hardware-state $NL_TMP/hardware-slave"
ds_config "$NL_TMP/master.conf" "port swc" "port sws" "role master" "peer $SSOCK" \
  "hostname e2e-switch" "hardware-state $NL_TMP/hardware-master"
ds_start standby "$NL_TMP/slave.conf" "$SSOCK" "$NL_TMP/slave.log" 0 0 || exit 1
SLAVE_PID=$DS_PID
ds_start sw "$NL_TMP/master.conf" "$MSOCK" "$NL_TMP/master.log" 0 0 || exit 1
MASTER_PID=$DS_PID
for c in "global enable on" "interface swc enable on" "interface sws enable on" \
  "interface sws trust on"; do
  # shellcheck disable=SC2086
  ctl_in sw "$MSOCK" $c || nl_die "dhcpsnoopctl $c failed"
done
check_eq "the slave starts without bindings" 0 "$(binding_count "$SSOCK" standby)"

dnsmasq_v4 srv eth0 10.77.0.1/24 10.77.0.100 10.77.0.150 600 "$NL_TMP/server.log" || exit 1
dhclient_start cl eth0 "$REC"
if ! wait_for 60 "the client's lease" test -s "$REC"; then
  e2e_logs "$NL_TMP"/dhclient-*.log "$NL_TMP/master.log" "$NL_TMP/slave.log"
fi
ip=$(rec_get "$REC" ip)
check "the client got a lease ($ip)" test -n "$ip"
check "the master learned the binding" wait_for 10 "a binding on the master" has_binding_for "$MSOCK" "$ip"
check "the slave lists it" wait_for 10 "the binding on the slave" has_binding_for "$SSOCK" "$ip" standby
fields="' '.join(str(b[k]) for b in j if b['ip'] == '$ip' for k in ('mac', 'ifindex', 'vlan', 'lease', 'type', 'state'))"
want=$(bindings "$MSOCK" | json_get "$fields")
check_eq "the slave's copy matches the master's (MAC, port, VLAN, lease, type, state)" "$want" \
  "$(bindings "$SSOCK" standby | json_get "$fields")"
check_eq "the copy is the master's port and lease" "$CLIENT_MAC $(in_ns sw cat /sys/class/net/swc/ifindex) 1 600 dynamic bound" "$want"

dhclient_release cl eth0 "$REC"
check "the release removed the binding on the master" \
  wait_for 15 "the binding to go on the master" no_binding_for "$MSOCK" "$ip"
check "the deletion followed on the slave" \
  wait_for 15 "the binding to go on the slave" no_binding_for "$SSOCK" "$ip" standby
check_eq "the slave is empty again" 0 "$(binding_count "$SSOCK" standby)"

check_alive "the master" "$MASTER_PID"
check_alive "the slave" "$SLAVE_PID"
nl_summary
