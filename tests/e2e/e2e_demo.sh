#!/usr/bin/env bash
# The README's demonstration, run as a person would, with its output read
# back: what it shows is what happened.  (It exits 0 only when every section
# ran, the lease is the real server's and the rogue was blocked.)
set -u
. "$(dirname "$0")/e2e-lib.sh"
[ "$(id -u)" -eq 0 ] || nl_skip "the demonstration needs root"
out=$(mktemp /tmp/dhcpsnoop-demo-out.XXXXXX)
trap 'rm -f "$out"' EXIT
timeout 240 "$E2E_DIR/../../scripts/demo" --daemon "$DHCPSNOOPD" --ctl "$DHCPSNOOPCTL" >"$out" 2>&1
rc=$?
cat "$out"
[ $rc -eq 77 ] && exit 77
check_eq "the demonstration exits 0" 0 "$rc"
ip=$(sed -n "s/^the client's lease: address \([0-9.]*\), lease time 600 s, from server 10\.77\.0\.1$/\1/p" "$out")
check "the lease shown is from the real server's range ($ip)" grep -Eq '^10\.77\.0\.[0-9]+$' <<<"$ip"
while IFS='|' read -r what re; do
  check "$what" grep -Eq "$re" "$out"
done <<ROWS
binding show lists the client's address on swc with lease 600|^${ip//./\\.} +$CLIENT_MAC +1 +swc +dynamic +bound +600 
the circuit-id the server saw is decoded|^    circuit-id: type 1, "demo-switch/port-swc"$
the remote-id the server saw is decoded|^    remote-id: type 1, "demo-switch"$
the server's log line with option 82 is shown|option: 82 agent-id
the rogue's drop counter is above zero|^drops untrusted-server +[1-9][0-9]*$
ROWS
nl_summary
