#!/usr/bin/env bash
# Master and slave, each with its own command socket: the master (peer = the
# slave's socket) learns a binding from a real exchange; the slave lists it,
# and drops it when the client's release removes it on the master.
set -u
. "$(dirname "$0")/e2e-lib.sh"
e2e_init sync tshark isc-dhcp-client
SSOCK=$NL_TMP/slave.sock
nl_ns standby
ds_config "$NL_TMP/slave.conf" "role slave" "hostname e2e-standby" "hardware-state $NL_TMP/hardware-slave"
ds_start standby "$NL_TMP/slave.conf" "$SSOCK" "$NL_TMP/slave.log" 0 0 || exit 1
SLAVE_PID=$DS_PID
lab2 "port swc" "port sws
role master
peer $SSOCK" "interface sws trust on"
check_eq "the slave starts without bindings" 0 "$(binding_count "$SSOCK" standby)"
v4_server
dhclient_start cl eth0 "$REC"
lease_wait "$NL_TMP/slave.log"
check "the slave lists it" wait_for 10 "the binding on the slave" has_binding_for "$SSOCK" "$ip" standby
f="mac ifindex vlan lease type state"
check_eq "the slave's copy is the master's port and lease" \
  "$CLIENT_MAC $(in_ns sw cat /sys/class/net/swc/ifindex) 1 600 dynamic bound = same" \
  "$(binding_of "$SOCK" "$ip" sw "$f") = $([ "$(binding_of "$SOCK" "$ip" sw "$f")" = "$(binding_of "$SSOCK" "$ip" standby "$f")" ] && echo same)"
dhclient_release cl eth0 "$REC"
check "the release removed the binding on the master" wait_for 15 "the binding to go" no_binding_for "$SOCK" "$ip"
check "the deletion followed on the slave" wait_for 15 "the slave's copy to go" no_binding_for "$SSOCK" "$ip" standby
check_eq "the slave is empty again" 0 "$(binding_count "$SSOCK" standby)"
check_alive "the master" "$DS_PID"
check_alive "the slave" "$SLAVE_PID"
nl_summary
