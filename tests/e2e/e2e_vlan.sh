#!/usr/bin/env bash
# A client behind an 802.1Q-tagged link: swc is a tagged member of VLAN 10,
# the server's port sws an untagged port of VLAN 10.  The client is scapy's
# tagged DISCOVER and REQUEST (the kernel may have no VLAN interfaces); the
# server is dnsmasq.
set -u
. "$(dirname "$0")/e2e-lib.sh"
e2e_init vlan tshark python3-scapy
VID=10
lab2 "port swc tagged vlans $VID" "port sws pvid $VID" "interface sws trust on" "interface swc option82 on"
dnsmasq_v4 srv eth0 10.78.0.1/24 10.78.0.100 10.78.0.150 600 "$NL_TMP/server.log" || exit 1
f="Ether(src='$CLIENT_MAC', dst='ff:ff:ff:ff:ff:ff')/Dot1Q(vlan=$VID)/IP(src='0.0.0.0', dst='255.255.255.255')/UDP(sport=68, dport=67)/BOOTP(chaddr=mac2str('$CLIENT_MAC'), xid=7)/DHCP(options=[('message-type', t)] + o + ['end'])"
ip=10.78.0.120
send_frames cl eth0 "[$f for t, o in [('discover', []), ('request', [('requested_addr', '$ip'), ('server_id', '10.78.0.1')])]]"
wait_for 10 "a binding for $ip" has_binding_for "$SOCK" "$ip"
check_eq "binding: MAC, port, VLAN, lease, type, state" "$CLIENT_MAC swc $VID 600 dynamic bound" "$(binding_of "$SOCK" "$ip")"
caps_stop

# At the server: untagged, with the switch's default option 82: circuit-id
# typed 0/6 with the VLAN of the client's tag and the port's location,
# remote-id typed 0/6 with the port's MAC.
idx=$(in_ns sw cat /sys/class/net/swc/ifindex)
swmac=$(in_ns sw cat /sys/class/net/swc/address)
circ=$(printf '0006%04x010001%02x' "$VID" "$idx")
mine="m['op'] == 1 and m['chaddr'] == '$CLIENT_MAC'"
tagged="m['vlans'] == [$VID] and m['tpids'] == [0x8100]"
cap_all "$NL_TMP/server.pcap" "$mine" "m['vlans'] == [] and m['o82'] == {1: '$circ', 2: '0006${swmac//:/}'}" \
  "the client's messages reached the server" "untagged at the server, option 82 naming VLAN $VID, port swc and its MAC"
cap_all "$NL_TMP/client.pcap" "m['op'] == 2" "$tagged" "replies crossed the client's link" \
  "every reply there is tagged $VID (0x8100)"
check_eq "an OFFER there, and the ACK for $ip: lease time 600, no option 82, a valid checksum" "1 1" \
  "$(cap_count "$NL_TMP/client.pcap" "m['type'] == 'OFFER'") $(cap_count "$NL_TMP/client.pcap" "m['type'] == 'ACK' and \
  m['yiaddr'] == '$ip' and m['opts'].get(51) == '00000258' and 82 not in m['opts'] and m['csum_ok'] is not False")"
check_alive dhcpsnoopd "$DS_PID"
nl_summary
