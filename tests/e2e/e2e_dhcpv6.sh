#!/usr/bin/env bash
# DHCPv6 through the switch: dnsmasq on a trusted port, ISC dhclient -6 on a
# port that adds options 18 and 37.
set -u
. "$(dirname "$0")/e2e-lib.sh"
nl_need_packages iproute2 nftables tshark dnsmasq-base isc-dhcp-client python3
nl_init v6

SOCK=$NL_TMP/dhcpsnoop.sock
REC=$NL_TMP/lease6
nl_ns sw cl srv
nl_link sw swc cl eth0 "$CLIENT_MAC"
nl_link sw sws srv eth0 02:00:00:00:00:51
lab_switch sw swc sws
ds_config "$NL_TMP/dhcpsnoop.conf" "port swc" "port sws" \
  "hostname e2e-switch" "hardware-state $NL_TMP/hardware"
ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" 0 0 || exit 1
# The version comes before trust: changing it leaves a port untrusted.
for c in "global enable on" "interface swc enable on" "interface sws enable on" \
  "interface swc version both" "interface sws version both" "interface sws trust on" \
  "interface swc option18 on" "interface swc option37 on"; do
  # shellcheck disable=SC2086
  ctl_in sw "$SOCK" $c || nl_die "dhcpsnoopctl $c failed"
done

cap_start srv eth0 "$NL_TMP/server.pcap" || exit 1; CAP_SRV=$CAP_PID
cap_start cl eth0 "$NL_TMP/client.pcap" || exit 1; CAP_CL=$CAP_PID
dnsmasq_v6 srv eth0 2001:db8:1::1/64 2001:db8:1::100 2001:db8:1::1ff 600 "$NL_TMP/server.log" || exit 1
dhclient_start cl eth0 "$REC" -6
if ! wait_for 60 "the client's DHCPv6 lease" test -s "$REC"; then
  e2e_logs "$NL_TMP"/dhclient-*.log "$NL_TMP/dhcpsnoopd.log" "$NL_TMP/server.log"
fi
ip=$(rec_get "$REC" ip)
check "the client leased $ip from the server's range" "$NL_PY" -c \
  "import sys,ipaddress as a; sys.exit(not a.ip_address('${ip:-::}') in a.ip_network('2001:db8:1::/64'))"
check_eq "valid lifetime" 600 "$(rec_get "$REC" lease)"

same="__import__('ipaddress').ip_address(b['ip']) == __import__('ipaddress').ip_address('${ip:-::}')"
has6() { [ "$(bindings "$SOCK" | json_get "len([b for b in j if $same and b['state'] == 'bound'])")" = 1 ]; }
no6() { [ "$(bindings "$SOCK" | json_get "len([b for b in j if $same])")" = 0 ]; }
wait_for 10 "a bound IPv6 binding for $ip" has6
B=$(bindings "$SOCK")
nl_say "bindings: $B"
sel="[b for b in j if $same]"
check_eq "one IPv6 binding for the leased address" 1 "$(json_get "len($sel)" <<<"$B")"
check_eq "binding: MAC, port, VLAN, lease, type, state" "$CLIENT_MAC swc 1 600 dynamic bound" \
  "$(json_get "' '.join(str(${sel}[0][k]) for k in ('mac', 'interface', 'vlan', 'lease', 'type', 'state'))" <<<"$B")"

dhclient_release cl eth0 "$REC" -6
check "the client's RELEASE removed the IPv6 binding" wait_for 15 "the binding of $ip to go" no6
sleep 0.5
cap_stop "$CAP_SRV"; cap_stop "$CAP_CL"

# Options 18 and 37 as the switch builds them by default: type 1 (6 bytes
# said, 8 given: VLAN and the port's location), type 2 (the port's MAC);
# option 37 carries the same after the enterprise number.
idx=$(in_ns sw cat /sys/class/net/swc/ifindex)
swmac=$(in_ns sw cat /sys/class/net/swc/address)
data=$(printf '010600060001010001%02x02080006%s' "$idx" "${swmac//:/}")
mine="m['v'] == 6 and m['src'] == '$CLIENT_MAC' and m['type'] in ('SOLICIT', 'REQUEST', 'RELEASE')"
n=$(cap_count "$NL_TMP/server.pcap" "$mine")
check "the client's SOLICIT/REQUEST/RELEASE reached the server ($n)" gt0 "$n"
check_eq "each carries option 18 with the port's identity" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['o18'] == '$data'")"
check_eq "each carries option 37: enterprise number, then the same" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['o37'] is not None and m['o37'][8:] == '$data'")"
check_eq "their UDP checksums verify at the server" "$n" \
  "$(cap_count "$NL_TMP/server.pcap" "$mine and m['csum_ok'] is True")"
r=$(cap_count "$NL_TMP/client.pcap" "m['v'] == 6 and m['type'] in ('ADVERTISE', 'REPLY')")
check "the server's ADVERTISE/REPLY reached the client ($r)" gt0 "$r"
check_eq "no message on the client's link carries option 18 or 37" 0 \
  "$(cap_count "$NL_TMP/client.pcap" "m['v'] == 6 and (18 in m['codes'] or 37 in m['codes'])")"
check_eq "replies at the client have valid UDP checksums" 0 \
  "$(cap_count "$NL_TMP/client.pcap" "m['v'] == 6 and m['type'] in ('ADVERTISE', 'REPLY') and m['csum_ok'] is not True")"

check_alive dhcpsnoopd "$DS_PID"
nl_summary
