#!/usr/bin/env bash
# The Debian package: built with cpack from a build configured for /usr, it
# carries the daemon, the front end, the unit, the conffile, the man pages
# and the completion, depends on what the binaries link, unpacks into a
# scratch dpkg root (never the machine's own), and its unit verifies there.
#   package_test.sh SOURCE_DIR
set -u
src=$1
for tool in cpack dpkg-deb dpkg dpkg-shlibdeps scdoc; do
  command -v $tool >/dev/null || { echo "SKIP: $tool is missing"; exit 77; }
done
tmp=$(mktemp -d /tmp/dhcpsnoop-pkg.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
pass=0 fail=0
check() {
  local what=$1; shift
  if "$@"; then pass=$((pass + 1)); echo "ok   - $what"; else fail=$((fail + 1)); echo "FAIL - $what"; fi
}

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$src" -B "$tmp/build" -DCMAKE_INSTALL_PREFIX=/usr -DDHCPSNOOP_TESTS=OFF \
  "${launcher[@]}" >"$tmp/cmake.log" 2>&1 &&
  cmake --build "$tmp/build" -j "$(nproc)" >>"$tmp/cmake.log" 2>&1 &&
  (cd "$tmp/build" && cpack -G DEB >>"$tmp/cmake.log" 2>&1) || { tail -n 30 "$tmp/cmake.log"; exit 1; }
deb=$(ls "$tmp"/build/dhcpsnoop_*.deb)
echo "package: ${deb##*/}"

dpkg-deb -f "$deb" Package Depends
check "it depends on libnftables1 (what the daemon links)" \
  bash -c "dpkg-deb -f '$deb' Depends | grep -q 'libnftables1'"
contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for f in ./usr/sbin/dhcpsnoopd ./usr/bin/dhcpsnoopctl ./usr/lib/systemd/system/dhcpsnoopd.service \
  ./etc/dhcpsnoop.conf ./usr/share/man/man8/dhcpsnoopd.8.gz ./usr/share/man/man8/dhcpsnoopctl.8.gz \
  ./usr/share/man/man5/dhcpsnoop.conf.5.gz ./usr/share/bash-completion/completions/dhcpsnoopctl; do
  check "it carries $f" grep -qx "$f" <<<"$contents"
done
check "the configuration is a conffile" \
  bash -c "dpkg-deb -I '$deb' conffiles | grep -qx /etc/dhcpsnoop.conf"

# Installed into a scratch root with dpkg's own database there.
root=$tmp/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
check "dpkg unpacks it into a scratch root" \
  dpkg --root="$root" --force-depends --force-not-root --unpack "$deb"
check "dpkg knows it there" \
  bash -c "dpkg-query --admindir='$root/var/lib/dpkg' -W -f '\${Status}' dhcpsnoop | grep -q unpacked"
unit=$root/usr/lib/systemd/system/dhcpsnoopd.service
check "the unit names the package's paths" grep -qx "ExecStart=/usr/sbin/dhcpsnoopd 0 0 1 1 0" "$unit"
check "the unit reads the installed configuration" \
  grep -qx "Environment=DHCPSNOOP_CONFIG=/etc/dhcpsnoop.conf" "$unit"
check "the installed front end runs" "$root/usr/bin/dhcpsnoopctl" --help >/dev/null
check "the man pages are man pages" bash -c "zcat '$root'/usr/share/man/man8/dhcpsnoopd.8.gz | grep -q '^\.TH'"
check "the completion loads" bash -c "complete() { :; }; . '$root/usr/share/bash-completion/completions/dhcpsnoopctl'"

if command -v systemd-analyze >/dev/null && [ -d /usr/lib/systemd/system ]; then
  # the targets the unit refers to, from the machine's systemd
  cp -n /usr/lib/systemd/system/*.target "$root/usr/lib/systemd/system/" 2>/dev/null
  out=$(systemd-analyze verify --man=no --root="$root" /usr/lib/systemd/system/dhcpsnoopd.service 2>&1)
  rc=$?
  [ -n "$out" ] && echo "$out"
  check "systemd-analyze verify is clean" test $rc -eq 0 -a -z "$out"
else
  echo "SKIP: systemd-analyze is not available here; the unit was not verified"
fi
# The installed daemon as the unit starts it: it says READY=1 on the notify
# socket once its command socket and its nftables table are there (in a
# network namespace of its own, so the machine's ports are left alone).
if [ "$(id -u)" -eq 0 ] && command -v python3 >/dev/null && ip netns add "dspkg$$" 2>/dev/null; then
  ns=dspkg$$
  python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind(sys.argv[1]); s.settimeout(15)
print(s.recv(256).decode())' "$tmp/notify" >"$tmp/notified" 2>&1 &
  listener=$!
  for _ in $(seq 50); do [ -S "$tmp/notify" ] && break; sleep 0.1; done
  ip netns exec $ns env DHCPSNOOP_CONFIG="$root/etc/dhcpsnoop.conf" DHCPSNOOP_SOCKET="$tmp/ctl.sock" \
    NOTIFY_SOCKET="$tmp/notify" INVOCATION_ID=pkgtest "$root/usr/sbin/dhcpsnoopd" 0 0 1 1 0 \
    >"$tmp/daemon.out" 2>&1 &
  daemon=$!
  wait $listener
  check "the daemon told the service manager READY=1" grep -q "^READY=1" "$tmp/notified"
  check "its command socket was there by then" \
    env DHCPSNOOP_SOCKET="$tmp/ctl.sock" "$root/usr/bin/dhcpsnoopctl" global show
  check "its nftables table was there by then" ip netns exec $ns nft list table netdev dhcpsnoop
  kill -KILL $daemon; wait $daemon 2>/dev/null
  ip netns del $ns
else
  echo "SKIP: not root or no network namespaces; the installed daemon was not started"
fi
echo "$pass passed, $fail failed"
[ $fail -eq 0 ]
