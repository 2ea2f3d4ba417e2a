#!/usr/bin/env bash
# Source guard and ARP inspection in dhcpsnoopd's nftables table on a kernel
# bridge: a leased address passes, an unleased one neither passes nor poisons
# ARP caches, a released one stops; a restarted daemon replaces a killed one's
# table; DHCP under odd tags or with IP options is trapped.
set -u
. "$(dirname "$0")/e2e-lib.sh"
e2e_init enforce tshark isc-dhcp-client iputils-ping python3-scapy
SRV=10.77.0.1 STATIC=10.77.0.200 ROGUE_MAC=02:00:00:00:00:66
v4_lab $'ipsg swc items 0xf0\ndai swc items 0xf0\ndai swr items 0xf0' 0 0 1 1 0
v4_server
cap_start cl eth0 "$NL_TMP/client.pcap" || exit 1; CAP_CL=$CAP_PID
dhclient_start cl eth0 "$REC"
lease_wait

pings() { in_ns cl ping -c 1 -W 1 -I "$1" "$SRV" >/dev/null 2>&1; }
no_ping() { ! pings "$1" && ! pings "$1"; }
arp_of() { in_ns srv ip neigh show "$1" dev eth0 | grep -o 'lladdr [0-9a-f:]*' | cut -d' ' -f2; }
drops() { ifshow "$1" "j['hardware_drops']['$2']"; }
check "the leased address $ip reaches the server" wait_for 10 "a ping from $ip" pings "$ip"
check_eq "the server knows the client's MAC for $ip" "$CLIENT_MAC" "$(arp_of "$ip")"
in_ns cl ip addr add "$STATIC/24" dev eth0
check "the same host with $STATIC (never leased) cannot reach the server" no_ping "$STATIC"
n=$(drops swc source_guard)
check "source-guard drops are counted on the client's port ($n)" gt0 "$n"

# ARP claiming the unleased address (a request the server would learn the
# sender from), and a gratuitous ARP for the client's address from the rogue.
bc="dst='ff:ff:ff:ff:ff:ff'"
send_frames cl eth0 "[Ether(src='$CLIENT_MAC', $bc)/ARP(op=1, hwsrc='$CLIENT_MAC', psrc='$STATIC', pdst='$SRV')]"
send_frames rog eth0 "[Ether(src='$ROGUE_MAC', $bc)/ARP(op=2, hwsrc='$ROGUE_MAC', psrc='$ip', pdst='$ip', hw$bc)]*3"
sleep 0.5
check_eq "the server learned nothing for $STATIC and keeps the client's MAC for $ip" " $CLIENT_MAC" \
  "$(arp_of "$STATIC") $(arp_of "$ip")"
n="$(drops swc arp_inspection) $(drops swr arp_inspection)"
check "ARP-inspection drops on the client's and the rogue's port ($n)" eval "gt0 ${n% *} && gt0 ${n#* }"

# DHCP the bridge must never forward itself: a rogue ACK under a 0x9100 tag
# and under two tags, and a client DISCOVER carrying an IP option.
ack="IP(src='10.66.0.1', dst='255.255.255.255')/UDP(sport=67, dport=68)/BOOTP(op=2, yiaddr='10.66.0.9', chaddr=mac2str('$CLIENT_MAC'), sname=b'ROGUE-TAGGED')/DHCP(options=[('message-type', 'ack'), 'end'])"
eth="Ether(src='$ROGUE_MAC', $bc"
send_frames rog eth0 "[$eth, type=0x9100)/Dot1Q(vlan=1, type=0x0800)/$ack, $eth, type=0x88a8)/Dot1Q(vlan=1, type=0x8100)/Dot1Q(vlan=1)/$ack, $eth)/Dot1Q(vlan=1)/Dot1Q(vlan=1)/$ack]"
send_frames cl eth0 "[Ether(src='02:00:00:00:00:77', $bc)/IP(src='0.0.0.0', dst='255.255.255.255', options=[IPOption_Router_Alert()])/UDP(sport=68, dport=67)/BOOTP(chaddr=mac2str('02:00:00:00:00:77'), xid=77)/DHCP(options=[('message-type', 'discover'), 'end'])]"
check "a DISCOVER with an IP option reached the server through the daemon" \
  wait_for 10 "the DISCOVER at the server" grep -q "DHCPDISCOVER(eth0) 02:00:00:00:00:77" "$NL_TMP/server.log"
sleep 0.5
cap_stop "$CAP_CL"
check_eq "no tagged rogue ACK reached the client's port" 0 \
  "$(in_ns cl tshark -r "$NL_TMP/client.pcap" -Y 'frame contains "ROGUE-TAGGED"' 2>/dev/null | wc -l)"

dhclient_release cl eth0 "$REC"
check "the RELEASE removed the binding" wait_for 15 "the binding to go" no_binding_for "$SOCK" "$ip"
in_ns cl ip addr add "$ip/24" dev eth0 2>/dev/null
check "after RELEASE $ip no longer reaches the server" no_ping "$ip"

# Killed, the daemon leaves its table; started again without the checks it
# replaces it, and everything passes.  (A stopped daemon's table: e2e_guard.)
check_alive dhcpsnoopd "$DS_PID"
kill -KILL "$DS_PID"; wait "$DS_PID" 2>/dev/null
check "a killed daemon leaves its table behind" in_ns sw nft list table netdev dhcpsnoop >/dev/null
ds_start sw "$NL_TMP/open.conf" "$SOCK" "$NL_TMP/dhcpsnoopd2.log" 0 0 1 1 0 || exit 1
in_ns cl ip addr add "$STATIC/24" dev eth0 2>/dev/null # the RELEASE flushed it
check "with source guard off the unleased $STATIC reaches the server" wait_for 10 "a ping" pings "$STATIC"
check "with source guard off $ip reaches the server" pings "$ip"
nl_summary
