#!/usr/bin/env bash
# The Debian package: built with cpack from a build configured for /usr, it
# carries the daemon, the front end, the unit, the conffile, the man pages
# and the completion, depends on what the binaries link, unpacks into a
# scratch dpkg root (never the machine's own), and its unit verifies there.
#   package_test.sh SOURCE_DIR
set -u
src=$1
. "$src/scripts/netns-lib.sh"
for tool in cpack dpkg-deb dpkg dpkg-shlibdeps scdoc; do
  command -v $tool >/dev/null || nl_skip "$tool is missing"
done
tmp=$(mktemp -d /tmp/dhcpsnoop-pkg.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$src" -B "$tmp/build" -DCMAKE_INSTALL_PREFIX=/usr -DDHCPSNOOP_TESTS=OFF \
  "${launcher[@]}" >"$tmp/cmake.log" 2>&1 &&
  cmake --build "$tmp/build" -j "$(nproc)" >>"$tmp/cmake.log" 2>&1 &&
  (cd "$tmp/build" && cpack -G DEB >>"$tmp/cmake.log" 2>&1) || { tail -n 30 "$tmp/cmake.log"; exit 1; }
deb=$(ls "$tmp"/build/dhcpsnoop_*.deb)
depends=$(dpkg-deb -f "$deb" Depends)
check "it depends on libnftables1, what the daemon links ($depends)" grep -q libnftables1 <<<"$depends"
check_eq "it carries the daemon, front end, unit, conffile, man pages and completion" 8 \
  "$(dpkg-deb -c "$deb" | awk '{print $6}' | grep -cxE '\./usr/(sbin/dhcpsnoopd|bin/dhcpsnoopctl|lib/systemd/system/dhcpsnoopd\.service|share/man/man8/dhcpsnoop(d|ctl)\.8\.gz|share/man/man5/dhcpsnoop\.conf\.5\.gz|share/bash-completion/completions/dhcpsnoopctl)|\./etc/dhcpsnoop\.conf')"
check "the configuration is a conffile" grep -qx /etc/dhcpsnoop.conf <<<"$(dpkg-deb -I "$deb" conffiles)"

# Installed into a scratch root with dpkg's own database there.
root=$tmp/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
check "dpkg unpacks it into a scratch root" dpkg --root="$root" --force-depends --force-not-root --unpack "$deb"
unit=$root/usr/lib/systemd/system/dhcpsnoopd.service
check_eq "the unit runs the package's daemon with the installed configuration" 2 \
  "$(grep -cx -e "ExecStart=/usr/sbin/dhcpsnoopd 0 0 1 1 0" -e "Environment=DHCPSNOOP_CONFIG=/etc/dhcpsnoop.conf" "$unit")"
check "the installed front end runs" "$root/usr/bin/dhcpsnoopctl" --help >/dev/null
check "the man pages are man pages" grep -q '^\.TH' <<<"$(zcat "$root"/usr/share/man/man8/dhcpsnoopd.8.gz)"
check "the completion loads" bash -c "complete() { :; }; . '$root/usr/share/bash-completion/completions/dhcpsnoopctl'"
if command -v systemd-analyze >/dev/null && [ -d /usr/lib/systemd/system ]; then
  cp -n /usr/lib/systemd/system/*.target "$root/usr/lib/systemd/system/" 2>/dev/null # what the unit refers to
  out=$(systemd-analyze verify --man=no --root="$root" /usr/lib/systemd/system/dhcpsnoopd.service 2>&1)
  check_eq "systemd-analyze verify is clean ($out)" 0 "$?${out}"
else
  nl_say "SKIP: systemd-analyze is not available here; the unit was not verified"
fi
# The installed daemon as the unit starts it, in a network namespace of its
# own: READY=1 once its command socket and its nftables table are there.
if [ "$(id -u)" -eq 0 ] && ip netns add "dspkg$$" 2>/dev/null; then
  ns=dspkg$$
  python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind(sys.argv[1]); s.settimeout(15)
print(s.recv(256).decode())' "$tmp/notify" >"$tmp/notified" 2>&1 &
  listener=$!
  for _ in $(seq 50); do [ -S "$tmp/notify" ] && break; sleep 0.1; done
  ip netns exec $ns env DHCPSNOOP_CONFIG="$root/etc/dhcpsnoop.conf" DHCPSNOOP_SOCKET="$tmp/ctl.sock" \
    NOTIFY_SOCKET="$tmp/notify" INVOCATION_ID=pkgtest "$root/usr/sbin/dhcpsnoopd" 0 0 1 1 0 >"$tmp/daemon.out" 2>&1 &
  daemon=$!
  wait $listener
  check "the daemon told the service manager READY=1" grep -q "^READY=1" "$tmp/notified"
  check "its command socket was there by then" env DHCPSNOOP_SOCKET="$tmp/ctl.sock" "$root/usr/bin/dhcpsnoopctl" global show
  check "its nftables table was there by then" ip netns exec $ns nft list table netdev dhcpsnoop
  kill -KILL $daemon; wait $daemon 2>/dev/null
  ip netns del $ns
else
  nl_say "SKIP: not root or no network namespaces; the installed daemon was not started"
fi
nl_summary
