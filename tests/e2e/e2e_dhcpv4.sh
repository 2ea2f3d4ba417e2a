#!/usr/bin/env bash
# DHCPv4 through the switch: a real server (dnsmasq or Kea) on a trusted port,
# a real client (dhclient or udhcpc) on a port with option 82 and source guard,
# and a rogue dnsmasq on an untrusted port that hears the client.
#   e2e_dhcpv4.sh [--daemon PATH --ctl PATH] dnsmasq|kea dhclient|udhcpc
set -u
. "$(dirname "$0")/e2e-lib.sh"
server=${E2E_ARGS[0]:-dnsmasq} client=${E2E_ARGS[1]:-dhclient}
case $server in dnsmasq) spkg=dnsmasq-base ;; kea) spkg=kea-dhcp4-server ;; *) nl_die "server $server?" ;; esac
case $client in dhclient) cpkg=isc-dhcp-client ;; udhcpc) cpkg=busybox ;; *) nl_die "client $client?" ;; esac
e2e_init "v4$client" tshark "$spkg" "$cpkg"
CIRCUIT=e2e-port-swc REMOTE=e2e-switch-remote
v4_lab "ipsg swc items 0xf0" 0 0 1 1 0
caps_start
if [ "$server" = kea ]; then
  kea_v4 srv eth0 10.77.0.1/24 10.77.0.0/24 10.77.0.100 10.77.0.150 600 "$NL_TMP/server.log" || exit 1
else
  v4_server
fi
dnsmasq_v4 rog eth0 10.66.0.1/24 10.66.0.100 10.66.0.150 300 "$NL_TMP/rogue.log" || exit 1
if [ "$client" = dhclient ]; then dhclient_start cl eth0 "$REC"; else udhcpc_start cl eth0 "$REC"; fi
CLIENT_PID=$NL_LAST_PID
lease_wait "$NL_TMP"/udhcpc-*.log
check_eq "$client's lease: server, lease time" "10.77.0.1 600" "$(rec_get "$REC" server) $(rec_get "$REC" lease)"
check "leased address $ip is in the server's range" in_net "$ip" 10.77.0.0/24
check_eq "the only binding: MAC, port, VLAN, lease, type, state; count" \
  "$CLIENT_MAC swc 1 600 dynamic bound 1" "$(binding_of "$SOCK" "$ip") $(binding_count "$SOCK")"
hw_has() { grep -q "^swc $ip $CLIENT_MAC 1 ipsg" "$NL_TMP/hardware"; }
check "the binding was handed to the hardware as a source-guard rule" wait_for 5 "the hardware entry" hw_has
check "the rogue server answered the client" grep -q "DHCPOFFER(eth0) 10.66.0" "$NL_TMP/rogue.log"
n=$(ifshow swr "j['drops']['untrusted_server']")
check "untrusted-server drops on the rogue's port ($n), none on the server's" \
  test "${n:-0}" -gt 0 -a "$(ifshow sws "j['drops']['untrusted_server']")" = 0

if [ "$client" = dhclient ]; then dhclient_release cl eth0 "$REC"; else kill -USR2 "$CLIENT_PID"; fi
check "the client's RELEASE removed the binding" wait_for 15 "the binding to go" no_binding_for "$SOCK" "$ip"
check "the hardware entry went with it" wait_for 5 "the hardware entry to go" not hw_has
wait_for 10 "the RELEASE at the server" grep -qi "release" "$NL_TMP/server.log"
caps_stop

mine="m['v'] == 4 and m['op'] == 1 and m['chaddr'] == '$CLIENT_MAC' and m['type'] in ('DISCOVER', 'REQUEST')"
o82="{1: '01%02x' % len('$CIRCUIT') + text_hex('$CIRCUIT'), 2: '01%02x' % len('$REMOTE') + text_hex('$REMOTE')}"
cap_all "$NL_TMP/server.pcap" "$mine" "m['o82'] == $o82 and m['csum_ok'] is not False" \
  "the client's DISCOVER/REQUEST reached the server" "each with option 82 ('$CIRCUIT', '$REMOTE') and a valid checksum"
# The ACK locates the client by its new binding and leaves without the
# switch's option 82; the OFFER, flooded before any binding, may keep it.
cl() { cap_count "$NL_TMP/client.pcap" "m['v'] == 4 and ($1)"; }
check "the server's ACK reached the client" gt0 "$(cl "m['type'] == 'ACK' and m['yiaddr'] == '$ip'")"
check_eq "at the client: ACK/NAK with option 82, replies with bad checksums, anything from the rogue" "0 0 0" \
  "$(cl "m['type'] in ('ACK', 'NAK') and 82 in m['opts']") $(cl "m['op'] == 2 and m['csum_ok'] is False") $(cl \
    "m['src'] == '02:00:00:00:00:66' or m['server'] == '10.66.0.1' or m['yiaddr'].startswith('10.66.')")"
check_alive dhcpsnoopd "$DS_PID"
nl_summary
