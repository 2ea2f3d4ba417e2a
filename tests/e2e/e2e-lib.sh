# shellcheck shell=bash
# Common start of the end-to-end scripts: the namespace helpers, the binaries
# given by CTest (--daemon PATH --ctl PATH; the rest of the arguments are left
# in E2E_ARGS) and the capture decoder.
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

# cap_count FILE WHERE: how many DHCP messages of a capture satisfy WHERE
# (a Python expression over m; see dhcpcap.py).
cap_count() { "$NL_PY" "$E2E_DIR/dhcpcap.py" "$1" --where "$2" --count; }

# gt0 N: the number is above zero.
gt0() { [ "${1:-0}" -gt 0 ] 2>/dev/null; }

# bindings SOCK [NS]: the daemon's binding table as JSON.
bindings() { ctl_in "${2:-sw}" "$1" --json binding show; }

# binding_count SOCK [NS]
binding_count() { bindings "$@" | json_get 'len(j)'; }

# no_binding_for SOCK IP [NS]
no_binding_for() {
  [ "$(bindings "$1" "${3:-sw}" | json_get "len([b for b in j if b['ip'] == '$2'])")" = 0 ]
}
has_binding_for() {
  [ "$(bindings "$1" "${3:-sw}" | json_get "len([b for b in j if b['ip'] == '$2'])")" = 1 ]
}

# e2e_logs FILE...: show the tail of logs when something went wrong.
e2e_logs() {
  local f
  for f in "$@"; do
    [ -f "$f" ] || continue
    nl_say "--- ${f##*/}"
    tail -n 25 "$f"
  done
}

# check_alive WHAT PID: a daemon of ours is still running (a crash on any of
# the frames it handled would have ended it).
check_alive() { check "$1 is still running" kill -0 "$2"; }
