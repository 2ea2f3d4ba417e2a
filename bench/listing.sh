#!/usr/bin/env bash
# Listing benchmark: fill the binding table of a dhcpsnoopd (in a network
# namespace of its own) and time `dhcpsnoopctl binding show` and
# `binding show --json`; print the daemon's RSS beside its pool.
#
#   bench/listing.sh                 65,535 static bindings
#   COUNT=4000 bench/listing.sh      fewer bindings
#   HW=1 bench/listing.sh            IP source guard also configured on the
#                                    port (hook and check items)
# Either way every binding reaches the hardware state file: a static binding
# bound through management has its rules installed whatever the port says,
# so the fill and the RSS include the state file's slots.
#   FILL_TIMEOUT=600 (seconds)       give up filling after this long
#
# The table is filled with bench_fill (build/bench/), which runs the same
# `dhcpsnoopctl binding add` commands in one process.  Needs root; builds
# build/ with the benchmarks when they are missing.
# No errexit: the shared clean-up (an EXIT trap) must run to its end.
set -u
cd "$(dirname "$0")/.." || exit 1
# shellcheck source=scripts/netns-lib.sh
. scripts/netns-lib.sh

COUNT=${COUNT:-65535}
HW=${HW:-0}
FILL_TIMEOUT=${FILL_TIMEOUT:-900}
NL_QUIET=1

nl_need_packages cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iproute2
if [ ! -x build/bench/bench_fill ] || [ ! -x build/dhcpsnoopd ] || [ ! -x build/dhcpsnoopctl ]; then
  { cmake -S . -B build -DDHCPSNOOP_BENCH=ON >/dev/null &&
    cmake --build build -j2 --target dhcpsnoopd dhcpsnoopctl bench_fill >/dev/null; } ||
    nl_die "the build failed"
fi
FILL=$NL_ROOT/build/bench/bench_fill

nl_init listing
nl_ns sw peer
nl_link sw swp1 peer eth0
SOCK=$NL_TMP/ctl.sock
conf=("port swp1 pvid 10" "hostname bench" "hardware-state $NL_TMP/hardware" "trap none")
[ "$HW" = 1 ] && conf+=("ipsg swp1 items 0xC0")
ds_config "$NL_TMP/dhcpsnoop.conf" "${conf[@]}"
ds_start sw "$NL_TMP/dhcpsnoop.conf" "$SOCK" "$NL_TMP/daemon.log" 8 "$COUNT" "$HW" 0 0 >/dev/null ||
  nl_die "the daemon did not start"
ctl_in sw "$SOCK" global enable on >/dev/null || nl_die "global enable failed"
ctl_in sw "$SOCK" interface swp1 enable on >/dev/null || nl_die "interface enable failed"

rss_kib() { awk '/^VmRSS/ {print $2}' "/proc/$DS_PID/status"; }
now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", b - a}'; }

rss0=$(rss_kib)
nl_say "daemon RSS at start (pool of $COUNT bindings): $rss0 KiB"
t0=$(now)
if ! in_ns sw timeout "$FILL_TIMEOUT" env DHCPSNOOP_SOCKET="$SOCK" "$FILL" "$COUNT" swp1 10; then
  have=$(ctl_in sw "$SOCK" binding show --json | json_get 'len(j) if isinstance(j, list) else len(j.get("bindings", []))' || echo '?')
  nl_say "fill: stopped after ${FILL_TIMEOUT}s with $have of $COUNT bindings; RSS $(rss_kib) KiB"
  exit 1
fi
t1=$(now)
nl_say "fill: $COUNT bindings in $(secs "$t0" "$t1") s"

t0=$(now)
lines=$(ctl_in sw "$SOCK" binding show | wc -l)
t1=$(now)
nl_say "binding show: $(secs "$t0" "$t1") s ($lines lines)"
t0=$(now)
bytes=$(ctl_in sw "$SOCK" binding show --json | wc -c)
t1=$(now)
nl_say "binding show --json: $(secs "$t0" "$t1") s ($bytes bytes)"

rss1=$(rss_kib)
nl_say "daemon RSS with $COUNT bindings: $rss1 KiB (+$((rss1 - rss0)) KiB since start)"
nl_say "hardware state file: $(wc -l <"$NL_TMP/hardware") lines, $(wc -c <"$NL_TMP/hardware") bytes"
exit 0
