#!/usr/bin/env bash
# The README's demonstration, run as a person would, with its output read
# back: every section present, and what each shows is what happened.
set -u
. "$(dirname "$0")/e2e-lib.sh"
[ "$(id -u)" -eq 0 ] || nl_skip "the demonstration needs root"
out=$(mktemp /tmp/dhcpsnoop-demo-out.XXXXXX)
trap 'rm -f "$out"' EXIT
timeout 240 "$E2E_DIR/../../scripts/demo" --daemon "$DHCPSNOOPD" --ctl "$DHCPSNOOPCTL" >"$out" 2>&1
rc=$?
cat "$out"
[ $rc -eq 77 ] && exit 77
nl_say "----"
check_eq "the demonstration exits 0" 0 "$rc"
for s in Packages Network Daemon "Configuration with dhcpsnoopctl" "DHCP servers" Client \
  "Bindings learned by the switch" "Option 82 as the server saw it" "The rogue server, blocked" Result; do
  check "section '$s' shown" grep -q "^==== $s ====" "$out"
done
ip=$(sed -n 's/^the client.s lease: address \([0-9.]*\), lease time \([0-9]*\) s, from server \([0-9.]*\)$/\1/p' "$out")
check "the lease shown is from the real server's range ($ip)" grep -Eq \
  "^the client's lease: address 10\.77\.0\.[0-9]+, lease time 600 s, from server 10\.77\.0\.1$" "$out"
check "binding show lists the client's address on swc with lease 600" grep -Eq \
  "^${ip//./\\.} +$CLIENT_MAC +1 +swc +dynamic +bound +600 " "$out"
check "the circuit-id the server saw is decoded" grep -q '^    circuit-id: type 1, "demo-switch/port-swc"$' "$out"
check "the remote-id the server saw is decoded" grep -q '^    remote-id: type 1, "demo-switch"$' "$out"
check "the server's log line with option 82 is shown" grep -q "option: 82 agent-id" "$out"
check "the rogue's drop counter is above zero" grep -Eq "^drops untrusted-server +[1-9][0-9]*$" "$out"
check "no rogue address held" grep -q "never a rogue (10.66.0.x) address" "$out"
check "the closing line" grep -q "^demonstration complete" "$out"
nl_summary
