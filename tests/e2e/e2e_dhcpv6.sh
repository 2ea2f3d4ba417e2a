#!/usr/bin/env bash
# DHCPv6 through the switch: dnsmasq on a trusted port, dhclient -6 on a port
# that adds options 18 and 37.
set -u
. "$(dirname "$0")/e2e-lib.sh"
e2e_init v6 tshark isc-dhcp-client
# The version comes before trust: changing it leaves a port untrusted.
lab2 "port swc" "port sws" "interface swc version both" "interface sws version both" "interface sws trust on" \
  "interface swc option18 on" "interface swc option37 on"
dnsmasq_v6 srv eth0 2001:db8:1::1/64 2001:db8:1::100 2001:db8:1::1ff 600 "$NL_TMP/server.log" || exit 1
dhclient_start cl eth0 "$REC" -6
lease_wait
check "the client leased $ip from the server's range" in_net "$ip" 2001:db8:1::/64
check_eq "valid lifetime" 600 "$(rec_get "$REC" lease)"
check_eq "the one IPv6 binding: MAC, port, VLAN, lease, type, state" \
  "$CLIENT_MAC swc 1 600 dynamic bound" "$(binding_of "$SOCK" "$ip")"
dhclient_release cl eth0 "$REC" -6
check "the client's RELEASE removed the IPv6 binding" wait_for 15 "the binding to go" no_binding_for "$SOCK" "$ip"
caps_stop

# Options 18 and 37 as the switch builds them by default: type 1 (6 bytes
# said, 8 given: VLAN and the port's location), type 2 (the port's MAC);
# option 37 carries the same after the enterprise number.
idx=$(in_ns sw cat /sys/class/net/swc/ifindex)
swmac=$(in_ns sw cat /sys/class/net/swc/address)
data=$(printf '010600060001010001%02x02080006%s' "$idx" "${swmac//:/}")
mine="m['v'] == 6 and m['src'] == '$CLIENT_MAC' and m['type'] in ('SOLICIT', 'REQUEST', 'RELEASE')"
cap_all "$NL_TMP/server.pcap" "$mine" "m['o18'] == '$data' and (m['o37'] or '')[8:] == '$data' and m['csum_ok'] is True" \
  "the client's SOLICIT/REQUEST/RELEASE reached the server" \
  "each with option 18 = the port's identity, 37 = enterprise number + the same, valid checksum"
cl() { cap_count "$NL_TMP/client.pcap" "m['v'] == 6 and ($1)"; }
check "the server's ADVERTISE/REPLY reached the client" gt0 "$(cl "m['type'] in ('ADVERTISE', 'REPLY')")"
check_eq "at the client: messages with option 18 or 37, replies without a valid checksum" "0 0" \
  "$(cl "18 in m['codes'] or 37 in m['codes']") $(cl "m['type'] in ('ADVERTISE', 'REPLY') and m['csum_ok'] is not True")"
check_alive dhcpsnoopd "$DS_PID"
nl_summary
