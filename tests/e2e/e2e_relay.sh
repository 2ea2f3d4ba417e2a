#!/usr/bin/env bash
# The switch as a relay agent: the client's port has a relay address and a
# server address; the server (dnsmasq) sits in another subnet, reached by
# routing from the switch's namespace, and answers to the relay address.
set -u
. "$(dirname "$0")/e2e-lib.sh"
nl_need_packages iproute2 nftables tshark dnsmasq-base isc-dhcp-client python3
nl_init relay

SOCK=$NL_TMP/dhcpsnoop.sock
REC=$NL_TMP/lease
RELAY=192.168.50.1
SERVER=10.9.0.2
nl_ns sw cl srv
nl_link sw swc cl eth0 "$CLIENT_MAC"
nl_link sw swu srv eth0 02:00:00:00:00:51
# The switch routes between the client's subnet and the server's.
in_ns sw ip addr add "$RELAY/24" dev swc
in_ns sw ip addr add 10.9.0.1/24 dev swu
in_ns sw sysctl -qw net.ipv4.ip_forward=1
ds_config "$NL_TMP/dhcpsnoop.conf" "port swc" "port swu" \
  "hostname e2e-switch" "hardware-state $NL_TMP/hardware"
DS_ENV=DHCPSNOOP_RELAY=1 ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" 0 0 || exit 1
for c in "global enable on" "interface swc enable on" "interface swu enable on" \
  "interface swu trust on" "interface swc option82 on" \
  "interface swc option82 circuit-id text relay-circuit" \
  "interface swc relay-address $RELAY" "server-ip add swc $SERVER"; do
  # shellcheck disable=SC2086
  ctl_in sw "$SOCK" $c || nl_die "dhcpsnoopctl $c failed"
done
check "server-ip check swc $SERVER" ctl_in sw "$SOCK" server-ip check swc "$SERVER" >/dev/null

cap_start srv eth0 "$NL_TMP/server.pcap" || exit 1; CAP_SRV=$CAP_PID
cap_start cl eth0 "$NL_TMP/client.pcap" || exit 1; CAP_CL=$CAP_PID
dnsmasq_v4 srv eth0 "$SERVER/24" 192.168.50.100 192.168.50.150 600 "$NL_TMP/server.log" || exit 1
# dnsmasq answers to the relay address, through the switch.
in_ns srv ip route add 192.168.50.0/24 via 10.9.0.1
dhclient_start cl eth0 "$REC"
if ! wait_for 60 "the client's lease" test -s "$REC"; then
  e2e_logs "$NL_TMP"/dhclient-*.log "$NL_TMP/dhcpsnoopd.log" "$NL_TMP/server.log"
fi
ip=$(rec_get "$REC" ip)
check "the client leased $ip from the relayed range" "$NL_PY" -c \
  "import sys,ipaddress as a; sys.exit(not a.ip_address('${ip:-0.0.0.0}') in a.ip_network('192.168.50.0/24'))"
check_eq "lease time" 600 "$(rec_get "$REC" lease)"
check_eq "server identifier" "$SERVER" "$(rec_get "$REC" server)"
wait_for 10 "a binding for $ip" has_binding_for "$SOCK" "$ip"
B=$(bindings "$SOCK")
nl_say "bindings: $B"
sel="[b for b in j if b['ip'] == '$ip']"
check_eq "binding: MAC, port, VLAN, lease, state" "$CLIENT_MAC swc 1 600 bound" \
  "$(json_get "' '.join(str(${sel}[0][k]) for k in ('mac', 'interface', 'vlan', 'lease', 'state'))" <<<"$B")"
check "dnsmasq saw relayed requests" grep -q "$RELAY" "$NL_TMP/server.log"
sleep 0.5
cap_stop "$CAP_SRV"; cap_stop "$CAP_CL"

mine="m['op'] == 1 and m['chaddr'] == '$CLIENT_MAC'"
n=$(cap_count "$NL_TMP/server.pcap" "$mine")
check "the client's DISCOVER/REQUEST reached the server ($n)" gt0 "$n"
check_eq "all of them relayed: UDP from $RELAY:67 to $SERVER:67" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and (m['ipsrc'], m['sport'], m['ipdst'], m['dport']) == ('$RELAY', 67, '$SERVER', 67)")"
check_eq "all of them with giaddr $RELAY" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['giaddr'] == '$RELAY'")"
check_eq "all of them with the port's option 82" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['o82'] is not None and m['o82'].get(1) == '010d' + text_hex('relay-circuit')")"
r=$(cap_count "$NL_TMP/client.pcap" "m['op'] == 2 and m['chaddr'] == '$CLIENT_MAC'")
check "the server's replies reached the client ($r)" gt0 "$r"
check_eq "each from $RELAY to port 68, without option 82, checksum valid" "$r" \
  "$(cap_count "$NL_TMP/client.pcap" "m['op'] == 2 and m['ipsrc'] == '$RELAY' and m['dport'] == 68 and 82 not in m['opts'] and m['csum_ok'] is not False")"
check_eq "the ACK carries the address the client took" 1 \
  "$(cap_count "$NL_TMP/client.pcap" "m['type'] == 'ACK' and m['yiaddr'] == '$ip'")"

check_alive dhcpsnoopd "$DS_PID"
nl_summary
