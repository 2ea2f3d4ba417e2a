#!/usr/bin/env bash
# The switch as a relay agent: the client's port has a relay address and a
# server address; dnsmasq sits in another subnet, reached by routing from the
# switch's namespace, and answers to the relay address.
set -u
. "$(dirname "$0")/e2e-lib.sh"
e2e_init relay tshark isc-dhcp-client
RELAY=192.168.50.1 SERVER=10.9.0.2
nl_ns sw cl srv
nl_link sw swc cl eth0 "$CLIENT_MAC"
nl_link sw swu srv eth0 02:00:00:00:00:51
in_ns sw ip addr add "$RELAY/24" dev swc
in_ns sw ip addr add 10.9.0.1/24 dev swu
in_ns sw sysctl -qw net.ipv4.ip_forward=1
ds_config "$NL_TMP/dhcpsnoop.conf" "port swc" "port swu" "hostname e2e-switch" "hardware-state $NL_TMP/hardware"
DS_ENV=DHCPSNOOP_RELAY=1 ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" 0 0 || exit 1
ctl_all "$SOCK" "global enable on" "interface swc enable on" "interface swu enable on" \
  "interface swu trust on" "interface swc option82 on" "interface swc option82 circuit-id text relay-circuit" \
  "interface swc relay-address $RELAY" "server-ip add swc $SERVER"
check "server-ip check swc $SERVER" ctl_in sw "$SOCK" server-ip check swc "$SERVER" >/dev/null
caps_start
dnsmasq_v4 srv eth0 "$SERVER/24" 192.168.50.100 192.168.50.150 600 "$NL_TMP/server.log" || exit 1
in_ns srv ip route add 192.168.50.0/24 via 10.9.0.1
dhclient_start cl eth0 "$REC"
lease_wait
check "the client leased $ip from the relayed range" in_net "$ip" 192.168.50.0/24
check_eq "lease time, server identifier" "600 $SERVER" "$(rec_get "$REC" lease) $(rec_get "$REC" server)"
check_eq "binding: MAC, port, VLAN, lease, type, state" "$CLIENT_MAC swc 1 600 dynamic bound" "$(binding_of "$SOCK" "$ip")"
caps_stop

mine="m['op'] == 1 and m['chaddr'] == '$CLIENT_MAC'"
cap_all "$NL_TMP/server.pcap" "$mine" "(m['ipsrc'], m['sport'], m['ipdst'], m['dport'], m['giaddr']) == ('$RELAY', 67, '$SERVER', 67, '$RELAY') and (m['o82'] or {}).get(1) == '010d' + text_hex('relay-circuit')" \
  "the client's DISCOVER/REQUEST reached the server" \
  "all relayed: UDP $RELAY:67 to $SERVER:67, giaddr $RELAY, the port's option 82"
cap_all "$NL_TMP/client.pcap" "m['op'] == 2 and m['chaddr'] == '$CLIENT_MAC'" \
  "m['ipsrc'] == '$RELAY' and m['dport'] == 68 and 82 not in m['opts'] and m['csum_ok'] is not False" \
  "the server's replies reached the client" "each from $RELAY to port 68, without option 82, checksum valid"
check_eq "the ACK carries the address the client took" 1 \
  "$(cap_count "$NL_TMP/client.pcap" "m['type'] == 'ACK' and m['yiaddr'] == '$ip'")"
check_alive dhcpsnoopd "$DS_PID"
nl_summary
