# shellcheck shell=bash
# Shared helpers for the demonstration and the end-to-end tests: network
# namespaces joined by veth pairs, bounded waits, background processes that
# are always cleaned up, and the DHCP peers (dnsmasq, Kea, dhclient, udhcpc,
# tshark) set up the same way everywhere.
#
# Source it, then call nl_init TAG first.  Every namespace gets a prefix that
# is unique to this run, so runs can overlap; interface names live inside the
# namespaces and need no prefix.  On EXIT, INT or TERM everything the run
# started is stopped and its namespaces and temporary directory removed.
#
# Variables callers may set before nl_init:
#   NL_KEEP=1        keep the temporary directory (logs, captures) on exit
#   NL_QUIET=1       do not echo the commands run in namespaces
#   DHCPSNOOPD, DHCPSNOOPCTL   the binaries (default build/ of the tree)

NL_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
NL_PY=/usr/bin/python3          # the Debian interpreter, which has scapy
NL_PIDS=()
NL_NAMESPACES=()
NL_TMP=
NL_PREFIX=
NL_PASS=0
NL_FAIL=0

# ---------------------------------------------------------------- basics

nl_say() { printf '%s\n' "$*"; }
nl_err() { printf '%s\n' "$*" >&2; }

nl_section() {
  printf '\n==== %s ====\n' "$*"
}

# A visible skip: ctest maps exit status 77 to "skipped".
nl_skip() {
  nl_say "SKIP: $*"
  exit 77
}

nl_die() {
  nl_err "ERROR: $*"
  exit 1
}

# Install the Debian packages that are missing (root only); skip without root.
nl_need_packages() {
  local p missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$(id -u)" -eq 0 ] || nl_skip "packages missing (${missing[*]}) and not root to install them"
  nl_say "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  if ! apt-get install -y -qq "${missing[@]}" >/dev/null; then
    apt-get update -qq || true
    apt-get install -y -qq "${missing[@]}" >/dev/null || nl_die "cannot install ${missing[*]}"
  fi
}

# Root, namespaces and veth pairs must work here, else skip visibly.
nl_init() {
  local tag=${1:-run}
  [ "$(id -u)" -eq 0 ] || nl_skip "needs root (network namespaces)"
  command -v ip >/dev/null || nl_skip "ip (iproute2) is missing"
  NL_PREFIX="ds${tag:0:6}$$$(printf '%04x' $((RANDOM)))"
  NL_TMP=$(mktemp -d "/tmp/dhcpsnoop-${tag}.XXXXXX") || nl_die "mktemp failed"
  chmod 755 "$NL_TMP"
  trap nl_cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  if ! ip netns add "${NL_PREFIX}probe" 2>/dev/null; then
    nl_skip "network namespaces cannot be made here"
  fi
  NL_NAMESPACES+=("${NL_PREFIX}probe")
  if ! ip -n "${NL_PREFIX}probe" link add p0 type veth peer name p1 2>/dev/null; then
    nl_skip "veth pairs cannot be made here"
  fi
  ip netns del "${NL_PREFIX}probe"
  NL_NAMESPACES=()
  DHCPSNOOPD=${DHCPSNOOPD:-$NL_ROOT/build/dhcpsnoopd}
  DHCPSNOOPCTL=${DHCPSNOOPCTL:-$NL_ROOT/build/dhcpsnoopctl}
}

# Stop what this run started: its own processes by id, then whatever still
# runs inside its own namespaces, then the namespaces and the temp directory.
nl_cleanup() {
  local rc=$? pid ns
  # A second signal must not cut the cleanup short.
  trap - EXIT
  trap '' INT TERM
  for pid in "${NL_PIDS[@]}"; do
    kill -TERM "$pid" 2>/dev/null
  done
  for _ in $(seq 1 30); do
    local alive=0
    for pid in "${NL_PIDS[@]}"; do
      kill -0 "$pid" 2>/dev/null && alive=1
    done
    [ $alive -eq 0 ] && break
    sleep 0.1
  done
  for pid in "${NL_PIDS[@]}"; do
    kill -KILL "$pid" 2>/dev/null
  done
  for ns in "${NL_NAMESPACES[@]}"; do
    for pid in $(ip netns pids "$ns" 2>/dev/null); do
      kill -KILL "$pid" 2>/dev/null
    done
  done
  for ns in "${NL_NAMESPACES[@]}"; do
    ip netns del "$ns" 2>/dev/null
  done
  if [ -n "$NL_TMP" ] && [ -d "$NL_TMP" ]; then
    if [ "${NL_KEEP:-0}" = 1 ] || { [ $rc -ne 0 ] && [ "${NL_KEEP_ON_FAIL:-0}" = 1 ]; }; then
      nl_err "kept: $NL_TMP"
    else
      rm -rf "$NL_TMP"
    fi
  fi
  exit $rc
}

# wait_for SECONDS WHAT COMMAND...: poll COMMAND until it succeeds; give up
# after SECONDS with a message.  Every wait in these scripts is one of these.
wait_for() {
  local secs=$1 what=$2; shift 2
  local deadline=$((SECONDS + secs))
  while :; do
    if "$@" >/dev/null 2>&1; then
      return 0
    fi
    if [ $SECONDS -ge $deadline ]; then
      nl_err "timed out after ${secs}s waiting for $what"
      return 1
    fi
    sleep 0.2
  done
}

# wait_exit SECONDS PID: wait for a process of ours to end, bounded.
wait_exit() {
  local secs=$1 pid=$2
  wait_for "$secs" "process $pid to end" nl_not_running "$pid"
}
nl_not_running() { ! kill -0 "$1" 2>/dev/null; }

# ---------------------------------------------------------------- checks

# check WHAT COMMAND...: one counted check.
check() {
  local what=$1; shift
  if "$@"; then
    NL_PASS=$((NL_PASS + 1))
    nl_say "ok   - $what"
  else
    NL_FAIL=$((NL_FAIL + 1))
    nl_say "FAIL - $what"
  fi
}

# check_eq WHAT EXPECTED ACTUAL
check_eq() {
  local what=$1 want=$2 got=$3
  if [ "$want" = "$got" ]; then
    NL_PASS=$((NL_PASS + 1))
    nl_say "ok   - $what ($got)"
  else
    NL_FAIL=$((NL_FAIL + 1))
    nl_say "FAIL - $what: expected '$want', got '$got'"
  fi
}

# The closing line of every test script; its exit status says whether all
# checks passed (and at least one ran).
nl_summary() {
  nl_say "$NL_PASS passed, $NL_FAIL failed"
  [ $NL_FAIL -eq 0 ] && [ $NL_PASS -gt 0 ]
}

# ---------------------------------------------------------------- namespaces

# ns NAME: the full name of one of this run's namespaces.
ns() { printf '%s%s' "$NL_PREFIX" "$1"; }

# nl_ns NAME...: make namespaces with loopback up and IPv6 DAD off (so
# link-local addresses are usable at once).
nl_ns() {
  local n full
  for n in "$@"; do
    full=$(ns "$n")
    ip netns add "$full" || nl_die "cannot make namespace $full"
    NL_NAMESPACES+=("$full")
    ip -n "$full" link set lo up
    ip netns exec "$full" sysctl -qw net.ipv6.conf.all.accept_dad=0 \
      net.ipv6.conf.default.accept_dad=0 >/dev/null 2>&1 || true
  done
}

# nl_link NS_A IF_A NS_B IF_B [MAC_B]: a veth pair between two namespaces.
nl_link() {
  local a b
  a=$(ns "$1"); b=$(ns "$3")
  ip link add "$2" netns "$a" type veth peer name "$4" netns "$b" ||
    nl_die "cannot make veth $1/$2 -- $3/$4"
  [ -n "${5:-}" ] && ip -n "$b" link set "$4" address "$5"
  ip -n "$a" link set "$2" up
  ip -n "$b" link set "$4" up
}

# in_ns NAME COMMAND...: run a command in a namespace.
in_ns() {
  local n; n=$(ns "$1"); shift
  ip netns exec "$n" "$@"
}

# bg_ns NAME LOG COMMAND...: start a background command in a namespace with
# its output in LOG; its pid is in NL_LAST_PID and is stopped at cleanup.
bg_ns() {
  local n log=$2; n=$(ns "$1"); shift 2
  ip netns exec "$n" "$@" >"$log" 2>&1 </dev/null &
  NL_LAST_PID=$!
  NL_PIDS+=("$NL_LAST_PID")
}

# stop_pid PID [SECONDS]: TERM one of our processes and wait for it, bounded.
stop_pid() {
  local pid=$1 secs=${2:-5}
  kill -TERM "$pid" 2>/dev/null || return 0
  if ! wait_exit "$secs" "$pid"; then
    kill -KILL "$pid" 2>/dev/null
  fi
  wait "$pid" 2>/dev/null || true
}

# ---------------------------------------------------------------- the daemon

# ds_config FILE LINE...: write a daemon configuration file.
ds_config() {
  local f=$1; shift
  printf '%s\n' "# written by ${0##*/}" "$@" >"$f"
}

# ds_start NS CONF SOCKET LOG [ARGS...]: start dhcpsnoopd in NS and wait until
# it answers on its command socket.  Extra environment (DHCPSNOOP_RELAY=1)
# can be passed in DS_ENV.  The pid is in DS_PID.
ds_start() {
  local nsn=$1 conf=$2 sock=$3 log=$4; shift 4
  [ -x "$DHCPSNOOPD" ] || nl_die "no daemon at $DHCPSNOOPD (build first)"
  local args=("$@")
  [ ${#args[@]} -gt 0 ] || args=(0 0)
  rm -f "$sock"
  # shellcheck disable=SC2086
  bg_ns "$nsn" "$log" env DHCPSNOOP_CONFIG="$conf" DHCPSNOOP_SOCKET="$sock" ${DS_ENV:-} \
    "$DHCPSNOOPD" "${args[@]}"
  DS_PID=$NL_LAST_PID
  if ! wait_for 15 "dhcpsnoopd to answer on $sock" ctl_in "$nsn" "$sock" global show; then
    nl_err "--- daemon log ($log):"; tail -n 30 "$log" >&2
    return 1
  fi
}

# ctl_in NS SOCKET ARGS...: dhcpsnoopctl against one daemon, run in the
# namespace whose interface names it should resolve.
ctl_in() {
  local nsn=$1 sock=$2; shift 2
  in_ns "$nsn" env DHCPSNOOP_SOCKET="$sock" "$DHCPSNOOPCTL" --timeout 5 "$@"
}

# ctl_show NS SOCKET ARGS...: the same, echoed for a person to read.
ctl_show() {
  local nsn=$1 sock=$2; shift 2
  [ "${NL_QUIET:-0}" = 1 ] || nl_say "# dhcpsnoopctl $*"
  ctl_in "$nsn" "$sock" "$@"
}

# ---------------------------------------------------------------- servers

# dnsmasq_v4 NS IF ADDR/PREFIX RANGE_LO RANGE_HI LEASE_SECS LOG [EXTRA...]
# A DHCPv4 server on IF with the address given, logging every exchange
# (including the relay agent information it saw).  Pid in NL_LAST_PID.
dnsmasq_v4() {
  local nsn=$1 ifn=$2 addr=$3 lo=$4 hi=$5 lease=$6 log=$7; shift 7
  local dir; dir=$(dirname "$log")
  in_ns "$nsn" ip addr add "$addr" dev "$ifn"
  bg_ns "$nsn" "$log.stderr" dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 \
    --user=root --group=root --interface="$ifn" --bind-interfaces --except-interface=lo \
    --dhcp-range="$lo,$hi,$lease" --dhcp-authoritative --no-ping --log-dhcp --log-facility="$log" \
    --dhcp-leasefile="$dir/dnsmasq-$nsn-$ifn.leases" --pid-file="$dir/dnsmasq-$nsn-$ifn.pid" "$@"
  wait_for 10 "dnsmasq in $nsn to start" grep -q "started" "$log"
}

# kea_v4 NS IF ADDR/PREFIX SUBNET RANGE_LO RANGE_HI LEASE_SECS LOG
kea_v4() {
  local nsn=$1 ifn=$2 addr=$3 subnet=$4 lo=$5 hi=$6 lease=$7 log=$8
  local dir conf; dir=$(dirname "$log"); conf=$dir/kea-$nsn.json
  in_ns "$nsn" ip addr add "$addr" dev "$ifn"
  cat >"$conf" <<EOF
{ "Dhcp4": {
    "interfaces-config": { "interfaces": [ "$ifn" ], "dhcp-socket-type": "raw" },
    "lease-database": { "type": "memfile", "persist": false },
    "valid-lifetime": $lease, "renew-timer": $((lease / 2)), "rebind-timer": $((lease * 7 / 8)),
    "authoritative": true,
    "subnet4": [ { "subnet": "$subnet", "pools": [ { "pool": "$lo - $hi" } ] } ],
    "loggers": [ { "name": "kea-dhcp4", "severity": "DEBUG", "debuglevel": 55,
                   "output_options": [ { "output": "$log" } ] } ]
} }
EOF
  mkdir -p "$dir/kea-run"
  bg_ns "$nsn" "$log.stderr" env KEA_LOCKFILE_DIR="$dir/kea-run" KEA_PIDFILE_DIR="$dir/kea-run" \
    kea-dhcp4 -c "$conf"
  wait_for 15 "kea-dhcp4 in $nsn to open its socket" grep -q "DHCP4_STARTED\|DHCPSRV_OPEN_SOCKET\|DHCP4_CONFIG_COMPLETE" "$log"
}

# dnsmasq_v6 NS IF ADDR/64 RANGE_LO RANGE_HI LEASE_SECS LOG
dnsmasq_v6() {
  local nsn=$1 ifn=$2 addr=$3 lo=$4 hi=$5 lease=$6 log=$7
  local dir; dir=$(dirname "$log")
  in_ns "$nsn" ip -6 addr add "$addr" dev "$ifn" nodad
  bg_ns "$nsn" "$log.stderr" dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 \
    --user=root --group=root --interface="$ifn" --bind-interfaces --except-interface=lo \
    --dhcp-range="$lo,$hi,64,$lease" --dhcp-authoritative --log-dhcp --log-facility="$log" \
    --dhcp-leasefile="$dir/dnsmasq6-$nsn.leases" --pid-file="$dir/dnsmasq6-$nsn.pid"
  wait_for 10 "dnsmasq (DHCPv6) in $nsn to start" grep -q "started" "$log"
}

# ---------------------------------------------------------------- capture

# cap_start NS IF FILE: tshark's capture engine (dumpcap) writing what
# crosses IF to FILE; waits until it captures.  Pid in CAP_PID; stop with
# cap_stop PID.  dumpcap is run itself rather than under tshark so that the
# file is complete when the process we wait for has ended.
cap_start() {
  local nsn=$1 ifn=$2 file=$3
  bg_ns "$nsn" "$file.log" dumpcap -q -i "$ifn" -P -w "$file"
  wait_for 20 "the capture on $nsn/$ifn to start" grep -q "Capturing on" "$file.log" || return 1
  CAP_PID=$NL_LAST_PID
}

cap_stop() {
  stop_pid "$1" 10
}

# ---------------------------------------------------------------- clients

# The client scripts record what the client got in a file of KEY=VALUE lines
# (RECORD; events in RECORD.events) instead of touching the namespace's
# resolver files.  dhclient gives its script a fresh environment, so the
# record's path is written into the script.
nl_client_script() {
  local rec=$1 f=$1.dhclient-script
  printf '#!/bin/sh\nrec=%s\n' "$rec" >"$f"
  cat >>"$f" <<'EOF'
# Record the lease and put the address on the interface.
case "$reason" in
  BOUND|RENEW|REBIND|REBOOT)
    ip addr flush dev "$interface" scope global 2>/dev/null
    bits=0
    for o in $(echo "${new_subnet_mask:-255.255.255.0}" | tr . ' '); do
      case $o in 255) bits=$((bits+8));; 254) bits=$((bits+7));; 252) bits=$((bits+6));;
        248) bits=$((bits+5));; 240) bits=$((bits+4));; 224) bits=$((bits+3));;
        192) bits=$((bits+2));; 128) bits=$((bits+1));; esac
    done
    ip addr add "$new_ip_address/$bits" dev "$interface" 2>/dev/null
    printf 'ip=%s\nlease=%s\nserver=%s\nmask=%s\n' "$new_ip_address" \
      "$new_dhcp_lease_time" "$new_dhcp_server_identifier" "$new_subnet_mask" >"$rec.tmp"
    mv "$rec.tmp" "$rec" ;;
  BOUND6|RENEW6|REBIND6|REBOOT6)
    ip -6 addr add "$new_ip6_address/${new_ip6_prefixlen:-128}" dev "$interface" nodad 2>/dev/null
    printf 'ip=%s\nlease=%s\npreferred=%s\n' "$new_ip6_address" "$new_max_life" \
      "$new_preferred_life" >"$rec.tmp"
    mv "$rec.tmp" "$rec" ;;
  RELEASE|STOP|EXPIRE|FAIL)
    ip addr flush dev "$interface" scope global 2>/dev/null
    printf 'released=%s\n' "$reason" >>"$rec.events" ;;
  RELEASE6|STOP6|EXPIRE6)
    printf 'released=%s\n' "$reason" >>"$rec.events" ;;
esac
exit 0
EOF
  chmod 755 "$f"
  printf '%s' "$f"
}

nl_udhcpc_script() {
  local rec=$1 f=$1.udhcpc-script
  printf '#!/bin/sh\nrec=%s\n' "$rec" >"$f"
  cat >>"$f" <<'EOF'
# Record the lease and put the address on the interface.
case "$1" in
  bound|renew)
    ip addr flush dev "$interface" scope global 2>/dev/null
    ip addr add "$ip/24" dev "$interface" 2>/dev/null
    printf 'ip=%s\nlease=%s\nserver=%s\nmask=%s\n' "$ip" "$lease" "$serverid" "$subnet" >"$rec.tmp"
    mv "$rec.tmp" "$rec" ;;
  deconfig|leasefail|nak)
    printf 'event=%s\n' "$1" >>"$rec.events" ;;
esac
exit 0
EOF
  chmod 755 "$f"
  printf '%s' "$f"
}

# dhclient_start NS IF RECORD [-6]: ISC dhclient in the foreground (in the
# background of this script), recording its lease in RECORD.
dhclient_start() {
  local nsn=$1 ifn=$2 rec=$3 fam=${4:--4}
  local base=$NL_TMP/dhclient-$nsn-$ifn$fam
  printf 'timeout 60;\nretry 2;\ninitial-interval 1;\nbackoff-cutoff 2;\n' >"$base.conf"
  rm -f "$rec" "$rec.events"
  bg_ns "$nsn" "$base.log" dhclient "$fam" -d -v \
    -cf "$base.conf" -lf "$base.leases" -pf "$base.pid" -sf "$(nl_client_script "$rec")" "$ifn"
}

# dhclient_release NS IF RECORD [-6]: release the lease (stops the client).
dhclient_release() {
  local nsn=$1 ifn=$2 rec=$3 fam=${4:--4}
  local base=$NL_TMP/dhclient-$nsn-$ifn$fam
  in_ns "$nsn" timeout 20 dhclient "$fam" -r -v -cf "$base.conf" \
    -lf "$base.leases" -pf "$base.pid" -sf "$(nl_client_script "$rec")" "$ifn" >>"$base.log" 2>&1
}

# udhcpc_start NS IF RECORD: busybox udhcpc, releasing on SIGUSR2/exit.
udhcpc_start() {
  local nsn=$1 ifn=$2 rec=$3
  rm -f "$rec" "$rec.events"
  bg_ns "$nsn" "$NL_TMP/udhcpc-$nsn-$ifn.log" busybox udhcpc -f -R \
    -i "$ifn" -t 20 -T 2 -A 2 -s "$(nl_udhcpc_script "$rec")"
}

# rec_get RECORD KEY: one value of a lease record.
rec_get() { sed -n "s/^$2=//p" "$1" 2>/dev/null | head -n1; }

# ---------------------------------------------------------------- JSON

# json_get EXPR: evaluate a Python expression over the JSON document on
# standard input (bound to j) and print the result.
json_get() {
  "$NL_PY" -c 'import json,sys
j = json.load(sys.stdin)
r = eval(sys.argv[1])
print("" if r is None else r)' "$1"
}

# ---------------------------------------------------------------- the lab

# lab_switch NS PORT...: the switch's namespace holds a kernel bridge br0 over
# its ports, so that everything but DHCP crosses the switch the ordinary way;
# dhcpsnoopd keeps DHCP from the bridge and forwards it itself.
lab_switch() {
  local nsn=$1 p; shift
  in_ns "$nsn" ip link add br0 type bridge
  in_ns "$nsn" ip link set br0 up
  for p in "$@"; do
    in_ns "$nsn" ip link set "$p" master br0
  done
}

# lab_mirror_dhcp NS FROM TO: copy the DHCP client broadcasts arriving on
# port FROM out of port TO, as a hub between client and switch would, so
# that a rogue server behind TO hears the client and answers it (its answers
# are what the switch must stop).
lab_mirror_dhcp() {
  local nsn=$1 from=$2 to=$3
  in_ns "$nsn" tc qdisc add dev "$from" ingress
  in_ns "$nsn" tc filter add dev "$from" ingress protocol ip u32 \
    match ip dport 67 0xffff action mirred egress mirror dev "$to"
}

# lab_v4 SOCK: the DHCPv4 lab.  Namespaces sw (the switch), cl (a client),
# srv (the DHCP server), rog (a rogue DHCP server); veth pairs swc--cl/eth0,
# sws--srv/eth0, swr--rog/eth0; the daemon's configuration in
# $NL_TMP/dhcpsnoop.conf.  The client's MAC is CLIENT_MAC.
CLIENT_MAC=02:00:00:00:00:11
lab_v4() {
  nl_ns sw cl srv rog
  nl_link sw swc cl eth0 "$CLIENT_MAC"
  nl_link sw sws srv eth0 02:00:00:00:00:51
  nl_link sw swr rog eth0 02:00:00:00:00:66
  lab_switch sw swc sws swr
  lab_mirror_dhcp sw swc swr
  ds_config "$NL_TMP/dhcpsnoop.conf" \
    "port swc pvid 1" "port sws pvid 1" "port swr pvid 1" \
    "hostname e2e-switch" "hardware-state $NL_TMP/hardware"
}

# lab_snoop SOCK CIRCUIT REMOTE: snooping on, the three ports enabled, the
# server's port trusted, option 82 on the client's port with the texts given.
lab_snoop() {
  local sock=$1 circ=$2 rem=$3
  ctl_show sw "$sock" global enable on &&
    ctl_show sw "$sock" interface swc enable on &&
    ctl_show sw "$sock" interface sws enable on &&
    ctl_show sw "$sock" interface swr enable on &&
    ctl_show sw "$sock" interface sws trust on &&
    ctl_show sw "$sock" interface swc option82 on &&
    ctl_show sw "$sock" interface swc option82 circuit-id text "$circ" &&
    ctl_show sw "$sock" interface swc option82 remote-id text "$rem"
}
