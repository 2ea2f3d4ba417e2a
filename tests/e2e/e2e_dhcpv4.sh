#!/usr/bin/env bash
# DHCPv4 through the switch: a real server (dnsmasq or Kea) on a trusted
# port, a real client (ISC dhclient or busybox udhcpc) on a port with option
# 82, and a rogue dnsmasq on an untrusted port that hears the client.
#   e2e_dhcpv4.sh [--daemon PATH --ctl PATH] SERVER CLIENT
#   SERVER: dnsmasq | kea      CLIENT: dhclient | udhcpc
set -u
. "$(dirname "$0")/e2e-lib.sh"
server=${E2E_ARGS[0]:-dnsmasq}
client=${E2E_ARGS[1]:-dhclient}
case $server in dnsmasq) spkg=dnsmasq-base ;; kea) spkg=kea-dhcp4-server ;; *) nl_die "server $server?" ;; esac
case $client in dhclient) cpkg=isc-dhcp-client ;; udhcpc) cpkg=busybox ;; *) nl_die "client $client?" ;; esac
nl_need_packages iproute2 nftables tshark dnsmasq-base python3 "$spkg" "$cpkg"
nl_init "v4$client"

CIRCUIT="e2e-port-swc"
REMOTE="e2e-switch-remote"
SOCK=$NL_TMP/dhcpsnoop.sock
REC=$NL_TMP/lease
lab_v4
# IP source guard on the client's port, checking IP, MAC, VLAN and port; the
# daemon is started with its source-guard and ARP-inspection hooks.
echo "ipsg swc items 0xf0" >>"$NL_TMP/dhcpsnoop.conf"
ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" 0 0 1 1 0 || exit 1
NL_QUIET=1 lab_snoop "$SOCK" "$CIRCUIT" "$REMOTE" || nl_die "configuring the daemon failed"

cap_start srv eth0 "$NL_TMP/server.pcap" || exit 1; CAP_SRV=$CAP_PID
cap_start cl eth0 "$NL_TMP/client.pcap" || exit 1; CAP_CL=$CAP_PID
if [ "$server" = kea ]; then
  kea_v4 srv eth0 10.77.0.1/24 10.77.0.0/24 10.77.0.100 10.77.0.150 600 "$NL_TMP/server.log" || exit 1
else
  dnsmasq_v4 srv eth0 10.77.0.1/24 10.77.0.100 10.77.0.150 600 "$NL_TMP/server.log" || exit 1
fi
dnsmasq_v4 rog eth0 10.66.0.1/24 10.66.0.100 10.66.0.150 300 "$NL_TMP/rogue.log" || exit 1

if [ "$client" = dhclient ]; then dhclient_start cl eth0 "$REC"; else udhcpc_start cl eth0 "$REC"; fi
CLIENT_PID=$NL_LAST_PID
if ! wait_for 60 "the client's lease" test -s "$REC"; then
  e2e_logs "$NL_TMP"/dhclient-*.log "$NL_TMP"/udhcpc-*.log "$NL_TMP/dhcpsnoopd.log" "$NL_TMP/server.log"
fi

ip=$(rec_get "$REC" ip)
check_eq "$client got its lease from the real server" 10.77.0.1 "$(rec_get "$REC" server)"
check "leased address $ip is in the server's range" \
  "$NL_PY" -c "import sys,ipaddress as a; sys.exit(not a.ip_address('${ip:-0.0.0.0}') in a.ip_network('10.77.0.0/24'))"
check_eq "lease time" 600 "$(rec_get "$REC" lease)"

# The binding: learned from the ACK that the switch forwarded.
wait_for 10 "a binding for $ip" has_binding_for "$SOCK" "$ip"
B=$(bindings "$SOCK")
nl_say "bindings: $B"
sel="[b for b in j if b['ip'] == '$ip']"
check_eq "one binding for the leased address" 1 "$(json_get "len($sel)" <<<"$B")"
check_eq "binding MAC" "$CLIENT_MAC" "$(json_get "${sel}[0]['mac']" <<<"$B")"
check_eq "binding port" swc "$(json_get "${sel}[0]['interface']" <<<"$B")"
check_eq "binding VLAN" 1 "$(json_get "${sel}[0]['vlan']" <<<"$B")"
check_eq "binding lease time" 600 "$(json_get "${sel}[0]['lease']" <<<"$B")"
check_eq "binding type and state" "dynamic bound" "$(json_get "${sel}[0]['type'] + ' ' + ${sel}[0]['state']" <<<"$B")"
check_eq "no other binding" 1 "$(json_get 'len(j)' <<<"$B")"
# The binding is handed to the hardware as a source-guard rule (the host
# platform writes what it was handed to a file).
hw_has() { grep -q "^swc $ip $CLIENT_MAC 1 ipsg" "$NL_TMP/hardware"; }
check "the binding was handed to the hardware as a source-guard rule" wait_for 5 "the hardware entry" hw_has

# The rogue heard the client and answered; none of it passed.
check "the rogue server answered the client (so there was something to stop)" \
  grep -q "DHCPOFFER(eth0) 10.66.0" "$NL_TMP/rogue.log"
drops=$(ctl_in sw "$SOCK" --json interface swr show | json_get "j['drops']['untrusted_server']")
check "untrusted-server drops counted on the rogue's port ($drops)" gt0 "$drops"
srvdrops=$(ctl_in sw "$SOCK" --json interface sws show | json_get "j['drops']['untrusted_server']")
check_eq "no drops on the trusted server port" 0 "$srvdrops"

# Release: the binding goes.
if [ "$client" = dhclient ]; then
  dhclient_release cl eth0 "$REC"
else
  kill -USR2 "$CLIENT_PID"
fi
check "the client's RELEASE removed the binding" \
  wait_for 15 "the binding of $ip to go" no_binding_for "$SOCK" "$ip"
check "the hardware entry went with it" wait_for 5 "the hardware entry to go" eval '! hw_has'
wait_for 10 "the RELEASE at the server" grep -qi "release" "$NL_TMP/server.log"
sleep 0.5  # let the last frames reach the captures before they stop
cap_stop "$CAP_SRV"; cap_stop "$CAP_CL"

# What crossed the wire.
c82="text_hex('$CIRCUIT')"; r82="text_hex('$REMOTE')"
want1="'01%02x' % len('$CIRCUIT') + $c82"; want2="'01%02x' % len('$REMOTE') + $r82"
mine="m['v'] == 4 and m['op'] == 1 and m['chaddr'] == '$CLIENT_MAC'"
n=$(cap_count "$NL_TMP/server.pcap" "$mine and m['type'] in ('DISCOVER', 'REQUEST')")
check "the client's DISCOVER/REQUEST reached the server ($n)" gt0 "$n"
check_eq "every one carries option 82 with circuit-id '$CIRCUIT' and remote-id '$REMOTE'" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['type'] in ('DISCOVER', 'REQUEST') and m['o82'] == {1: $want1, 2: $want2}")"
check_eq "their UDP checksums verify at the server" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['type'] in ('DISCOVER', 'REQUEST') and m['csum_ok'] is not False")"
# A reply that locates the client (the ACK, by its new binding) leaves the
# switch without the option 82 the switch added; the OFFER, flooded in the
# VLAN before any binding exists, goes out as the server sent it.
check_eq "no ACK or NAK reaches the client with option 82" 0 \
  "$(cap_count "$NL_TMP/client.pcap" "m['v'] == 4 and m['type'] in ('ACK', 'NAK') and 82 in m['opts']")"
nl_say "(flooded OFFERs with option 82 at the client: $(cap_count "$NL_TMP/client.pcap" "m['type'] == 'OFFER' and 82 in m['opts']"))"
acks=$(cap_count "$NL_TMP/client.pcap" "m['v'] == 4 and m['type'] == 'ACK' and m['yiaddr'] == '$ip'")
check "the server's ACK reached the client ($acks)" gt0 "$acks"
check_eq "replies at the client have valid UDP checksums" 0 \
  "$(cap_count "$NL_TMP/client.pcap" "m['v'] == 4 and m['op'] == 2 and m['csum_ok'] is False")"
check_eq "nothing from the rogue reaches the client" 0 \
  "$(cap_count "$NL_TMP/client.pcap" "m['src'] == '02:00:00:00:00:66' or m['server'] == '10.66.0.1' or m['yiaddr'].startswith('10.66.')")"
check "the client never held a rogue address" \
  bash -c "! grep -q '10\.66\.' '$REC' '$REC.events' 2>/dev/null"

check_alive dhcpsnoopd "$DS_PID"
nl_summary
