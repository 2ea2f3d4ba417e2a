# shellcheck shell=bash
# Common start of the end-to-end scripts: the namespace helpers, the binaries
# given by CTest (--daemon PATH --ctl PATH; other arguments land in E2E_ARGS)
# and the checks the scenarios share.
E2E_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../../scripts/netns-lib.sh
. "$E2E_DIR/../../scripts/netns-lib.sh"
E2E_ARGS=()
while [ $# -gt 0 ]; do
  case $1 in
    --daemon) DHCPSNOOPD=$2; shift 2 ;;
    --ctl) DHCPSNOOPCTL=$2; shift 2 ;;
    *) E2E_ARGS+=("$1"); shift ;;
  esac
done
SOCK=/nonexistent REC=/nonexistent

# e2e_init TAG PACKAGE...: the packages, the namespaces' prefix, $SOCK, $REC.
e2e_init() {
  local tag=$1; shift
  nl_need_packages iproute2 nftables dnsmasq-base python3 "$@"
  nl_init "$tag"
  SOCK=$NL_TMP/dhcpsnoop.sock REC=$NL_TMP/lease
}

# cap_count FILE EXPR: how many DHCP messages m of a capture satisfy EXPR.
cap_count() { "$NL_PY" "$E2E_DIR/dhcplab.py" count "$1" "$2"; }
# send_frames NS IF EXPR: send the scapy frames EXPR (a list) out of IF.
send_frames() { in_ns "$1" "$NL_PY" "$E2E_DIR/dhcplab.py" send "$2" "$3"; }
gt0() { [ "${1:-0}" -gt 0 ] 2>/dev/null; }
not() { ! "$@"; }
in_net() { "$NL_PY" -c "import sys,ipaddress as a; sys.exit(a.ip_address(sys.argv[1]) not in a.ip_network(sys.argv[2]))" "${1:-::}" "$2"; }

# ctl_all SOCK COMMAND...: each COMMAND (one string) through dhcpsnoopctl in sw.
ctl_all() {
  local sock=$1 c; shift
  for c in "$@"; do
    # shellcheck disable=SC2086
    ctl_in sw "$sock" $c || nl_die "dhcpsnoopctl $c failed"
  done
}

bindings() { ctl_in "${2:-sw}" "$1" --json binding show; }
binding_count() { bindings "$@" | json_get 'len(j)'; }
# binding_of SOCK IP [NS [FIELDS]]: the fields (default: mac interface vlan
# lease type state) of every binding of IP, in one line.
binding_of() {
  local f=${4:-mac interface vlan lease type state}
  bindings "$1" "${3:-sw}" | json_get "' '.join(str(b[k]) for b in j if __import__('ipaddress').ip_address(b['ip']) == __import__('ipaddress').ip_address('${2:-::}') for k in '$f'.split())"
}
has_binding_for() { [[ "$(binding_of "$@")" == *" bound" ]]; }
no_binding_for() { [ -z "$(binding_of "$@")" ]; }
ifshow() { ctl_in sw "$SOCK" --json interface "$1" show | json_get "$2"; }

# lease_wait [LOG...]: wait for the client's lease in $REC and its binding;
# sets ip.  On failure the logs are shown.
lease_wait() {
  local f
  if ! wait_for 60 "the client's lease" test -s "$REC"; then
    for f in "$NL_TMP"/dhclient-*.log "$NL_TMP/dhcpsnoopd.log" "$NL_TMP/server.log" "$@"; do
      [ -f "$f" ] && { nl_say "--- ${f##*/}"; tail -n 25 "$f"; }
    done
  fi
  ip=$(rec_get "$REC" ip)
  wait_for 10 "a binding for $ip" has_binding_for "$SOCK" "${ip:-none}"
}

# v4_lab CONF_LINES DAEMON_ARGS...: the DHCPv4 lab (netns-lib's lab_v4, its
# configuration kept as open.conf) with the lines added (source guard and ARP
# inspection), the daemon started and snooping.
v4_lab() {
  lab_v4
  cp "$NL_TMP/dhcpsnoop.conf" "$NL_TMP/open.conf"
  printf '%s\n' "$1" >>"$NL_TMP/dhcpsnoop.conf"
  shift
  ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" "$@" || exit 1
  NL_QUIET=1 lab_snoop "$SOCK" "${CIRCUIT:-circ}" "${REMOTE:-rem}" || nl_die "configuring the daemon failed"
}
# the real server (dnsmasq) on 10.77.0.1
v4_server() { dnsmasq_v4 srv eth0 10.77.0.1/24 10.77.0.100 10.77.0.150 600 "$NL_TMP/server.log" || exit 1; }

# lab2 SWC_LINE SWS_LINE [COMMAND...]: namespaces sw, cl, srv; swc--cl/eth0 and
# sws--srv/eth0 on a bridge; the daemon with those port lines, snooping on both
# ports, then each COMMAND; captures at both ends.
lab2() {
  nl_ns sw cl srv
  nl_link sw swc cl eth0 "$CLIENT_MAC"
  nl_link sw sws srv eth0 02:00:00:00:00:51
  lab_switch sw swc sws
  ds_config "$NL_TMP/dhcpsnoop.conf" "$1" "$2" "hostname e2e-switch" "hardware-state $NL_TMP/hardware"
  ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/dhcpsnoopd.log" 0 0 || exit 1
  shift 2
  ctl_all "$SOCK" "global enable on" "interface swc enable on" "interface sws enable on" "$@"
  caps_start
}
caps_start() {
  cap_start srv eth0 "$NL_TMP/server.pcap" || exit 1; CAP_SRV=$CAP_PID
  cap_start cl eth0 "$NL_TMP/client.pcap" || exit 1; CAP_CL=$CAP_PID
}
caps_stop() { sleep 0.5; cap_stop "$CAP_SRV"; cap_stop "$CAP_CL"; }
# cap_all FILE MINE COND WHAT EACH: some messages MINE in the capture, all of them COND.
cap_all() {
  local n; n=$(cap_count "$1" "$2")
  check "$4 ($n)" gt0 "$n"
  check_eq "$5" "$n" "$(cap_count "$1" "$2 and ($3)")"
}

# check_alive WHAT PID: a daemon of ours still runs (a crash would have ended it).
check_alive() { check "$1 is still running" kill -0 "$2"; }
