#!/usr/bin/env bash
# DORA benchmark over real sockets: perfdhcp (a client population) against
# Kea, through a switch namespace that is
#   bridge  a plain kernel bridge (the floor: no DHCP handling at all),
#   fwd     the bridge with DHCP kept off it and bench_forwarder copying DHCP
#           frames between the two ports (the least a snooper must do),
#   snoop   the bridge with dhcpsnoopd on both ports (option 82 on the
#           client's port, the server's port trusted).
# Each mode has its own namespaces and its own Kea; the runs alternate
# between the modes (bridge, fwd, snoop, bridge, ...) so that the machine's
# other load falls on all of them alike.
#
#   bench/dora.sh                        v4 and v6, 2000 and 4000 exchanges/s
#   RATES="2000" FAMILIES=4 REPS=3 SECS=10 bench/dora.sh
#
# Printed per family and rate: exchanges completed per second, drops, the
# mean delay of both exchange halves and the CPU time the switch's process
# (daemon or forwarder) and Kea used per exchange, then snoop and fwd as
# ratios to the bridge (rate, delay) and snoop to fwd (CPU).  Needs root;
# every packet stays inside the namespaces made here.
# No errexit: the shared clean-up (an EXIT trap) must run to its end.
set -u
cd "$(dirname "$0")/.." || exit 1
# shellcheck source=scripts/netns-lib.sh
. scripts/netns-lib.sh

RATES=${RATES:-"2000 4000"}
FAMILIES=${FAMILIES:-"4 6"}
REPS=${REPS:-2}
SECS=${SECS:-10}
MODES=${MODES:-"bridge fwd snoop"}
NL_QUIET=1

nl_need_packages cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iproute2 nftables ethtool \
  kea-admin kea-dhcp4-server kea-dhcp6-server
if [ ! -x build/bench/bench_forwarder ] || [ ! -x "${DHCPSNOOPD:-build/dhcpsnoopd}" ]; then
  { cmake -S . -B build -DDHCPSNOOP_BENCH=ON >/dev/null &&
    cmake --build build -j2 --target dhcpsnoopd dhcpsnoopctl bench_forwarder >/dev/null; } ||
    nl_die "the build failed"
fi
FORWARDER=$NL_ROOT/build/bench/bench_forwarder
nl_init dora

# kea MODE FAMILY: a quiet Kea on MODE's server namespace.
kea() {
  local m=$1 fam=$2 dir=$NL_TMP/kea-$1-$2
  mkdir -p "$dir"
  if [ "$fam" = 4 ]; then
    cat >"$dir/kea.json" <<EOF
{ "Dhcp4": {
    "interfaces-config": { "interfaces": [ "eth0" ], "dhcp-socket-type": "raw" },
    "lease-database": { "type": "memfile", "persist": false },
    "valid-lifetime": 3600, "authoritative": true,
    "subnet4": [ { "subnet": "10.0.0.0/16", "pools": [ { "pool": "10.0.1.0 - 10.0.255.250" } ] } ],
    "loggers": [ { "name": "kea-dhcp4", "severity": "ERROR", "output_options": [ { "output": "$dir/log" } ] } ]
} }
EOF
  else
    cat >"$dir/kea.json" <<EOF
{ "Dhcp6": {
    "interfaces-config": { "interfaces": [ "eth0" ] },
    "server-id": { "type": "LL", "persist": false },
    "lease-database": { "type": "memfile", "persist": false },
    "valid-lifetime": 3600, "preferred-lifetime": 1800,
    "subnet6": [ { "subnet": "2001:db8:1::/64", "interface": "eth0",
                   "pools": [ { "pool": "2001:db8:1::1:0 - 2001:db8:1::ffff:ffff" } ] } ],
    "loggers": [ { "name": "kea-dhcp6", "severity": "ERROR", "output_options": [ { "output": "$dir/log" } ] } ]
} }
EOF
  fi
  bg_ns "$m-srv" "$dir/stderr" env KEA_LOCKFILE_DIR="$dir" KEA_PIDFILE_DIR="$dir" \
    "kea-dhcp$fam" -c "$dir/kea.json"
  eval "KEA_${m}_${fam}=$NL_LAST_PID"
}

# lab MODE: client -- switch -- server for one mode.
lab() {
  local m=$1
  nl_ns "$m-cl" "$m-sw" "$m-srv"
  nl_link "$m-cl" eth0 "$m-sw" swc
  nl_link "$m-srv" eth0 "$m-sw" sws
  lab_switch "$m-sw" swc sws
  in_ns "$m-srv" ip addr add 10.0.0.1/16 dev eth0
  in_ns "$m-srv" ip -6 addr add 2001:db8:1::1/64 dev eth0 nodad
  in_ns "$m-cl" ip addr add 10.0.0.2/16 dev eth0 # perfdhcp sends from an address
  # complete checksums at the sender: the minimal forwarder does not finish
  # them for the receiving stack (the daemon would)
  in_ns "$m-cl" ethtool -K eth0 tx off >/dev/null || nl_die "ethtool failed"
  in_ns "$m-srv" ethtool -K eth0 tx off >/dev/null || nl_die "ethtool failed"
  case $m in
    fwd)
      in_ns fwd-sw nft -f - <<'EOF' || nl_die "nft refused the forwarder's trap"
table netdev benchtrap {
  chain c { type filter hook ingress device "swc" priority -500; udp dport { 67, 68, 546, 547 } drop; }
  chain s { type filter hook ingress device "sws" priority -500; udp dport { 67, 68, 546, 547 } drop; }
}
EOF
      bg_ns fwd-sw "$NL_TMP/forwarder.log" "$FORWARDER" swc sws
      SW_PID_fwd=$NL_LAST_PID ;;
    snoop)
      # perfdhcp's thousands of clients all sit behind swc: the port may hold
      # the whole pool, not the eighth a port gets by default
      ds_config "$NL_TMP/dhcpsnoop.conf" "port swc pvid 1 max-users 65535" "port sws pvid 1" \
        "hostname bench" "hardware-state $NL_TMP/hardware"
      ds_start snoop-sw "$NL_TMP/dhcpsnoop.conf" "$NL_TMP/ctl.sock" "$NL_TMP/daemon.log" 8 65535 \
        >/dev/null || nl_die "dhcpsnoopd did not start"
      SW_PID_snoop=$DS_PID
      local c
      for c in "global enable on" "interface swc enable on" "interface sws enable on" \
        "interface swc version both" "interface sws version both" "interface sws trust on" \
        "interface swc option82 on" "interface swc option18 on" "interface swc option37 on"; do
        # shellcheck disable=SC2086
        ctl_in snoop-sw "$NL_TMP/ctl.sock" $c >/dev/null || nl_die "dhcpsnoopctl $c failed"
      done ;;
  esac
  local fam
  for fam in $FAMILIES; do kea "$m" "$fam"; done
}

ticks() { # utime + stime of a process, in clock ticks
  [ -n "${1:-}" ] && awk '{print $14 + $15}' "/proc/$1/stat" 2>/dev/null || echo 0
}

for m in $MODES; do lab "$m"; done
sleep 3 # Kea opens its sockets
HZ=$(getconf CLK_TCK)

# run MODE FAMILY RATE: one perfdhcp run; appends "rate drops delay swcpu keacpu" to a file.
run() {
  local m=$1 fam=$2 rate=$3 out=$NL_TMP/perf-$1-$2-$3-$4.txt
  local swpid kpid sw0 k0 sw1 k1
  swpid=$(eval echo "\${SW_PID_$m:-}"); kpid=$(eval echo "\${KEA_${m}_${fam}}")
  sw0=$(ticks "$swpid"); k0=$(ticks "$kpid")
  local args=(-"$fam" -g single -l eth0 -r "$rate" -p "$SECS" -R 30000 -W 2000000)
  in_ns "$m-cl" perfdhcp "${args[@]}" >"$out" 2>&1 || true
  sw1=$(ticks "$swpid"); k1=$(ticks "$kpid")
  awk -v m="$m" -v hz="$HZ" -v secs="$SECS" -v sw=$((sw1 - sw0)) -v k=$((k1 - k0)) '
    /Statistics for: REQUEST-(ACK|REPLY)/ { second = 1 }
    /received packets:/ { if (second) recv = $3 }
    /^drops:/ { drops += $2 }
    /avg delay:/ { delay += $3 }
    END {
      done = recv + 0; if (done < 1) done = 1
      printf "%s %.1f %d %.3f %.1f %.1f\n", m, recv / secs, drops, delay, sw * 1e6 / hz / done, k * 1e6 / hz / done
    }' "$out" >>"$NL_TMP/results-$fam-$rate"
}

for fam in $FAMILIES; do
  for rate in $RATES; do
    : >"$NL_TMP/results-$fam-$rate"
    for rep in $(seq 1 "$REPS"); do
      for m in $MODES; do run "$m" "$fam" "$rate" "$rep"; done
    done
    nl_say ""
    nl_say "DHCPv$fam at $rate exchanges/s offered, ${SECS}s x $REPS runs per mode (means):"
    awk -v modes="$MODES" '
      { n[$1]++; r[$1] += $2; d[$1] += $3; l[$1] += $4; s[$1] += $5; k[$1] += $6 }
      END {
        printf "  %-7s %10s %7s %10s %12s %12s\n", "mode", "done/s", "drops", "delay ms", "switch us/ex", "kea us/ex"
        nm = split(modes, ms, " ")
        for (i = 1; i <= nm; i++) { m = ms[i]; if (!n[m]) continue
          printf "  %-7s %10.1f %7.1f %10.3f %12.1f %12.1f\n", m, r[m]/n[m], d[m]/n[m], l[m]/n[m], s[m]/n[m], k[m]/n[m] }
        if (n["bridge"] && n["snoop"]) {
          printf "  snoop/bridge: rate %.3f, delay %.2f, drops %+.1f\n", r["snoop"]/r["bridge"], \
            (l["bridge"] > 0 ? l["snoop"]/l["bridge"] : 0), (d["snoop"] - d["bridge"])/n["snoop"]
        }
        if (n["fwd"] && n["bridge"])
          printf "  fwd/bridge:   rate %.3f, delay %.2f\n", r["fwd"]/r["bridge"], (l["bridge"] > 0 ? l["fwd"]/l["bridge"] : 0)
        if (n["fwd"] && n["snoop"] && s["fwd"] > 0)
          printf "  snoop/fwd:    CPU per exchange %.2f, delay %.2f\n", s["snoop"]/s["fwd"], (l["fwd"] > 0 ? l["snoop"]/l["fwd"] : 0)
      }' "$NL_TMP/results-$fam-$rate"
  done
done
exit 0
