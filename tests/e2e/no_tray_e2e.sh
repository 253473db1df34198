#!/usr/bin/env bash
# Where no tray appears (a bare X server, no session bus), the monitor says
# so once in its log after a short wait, naming what to install, and keeps
# waiting: a tray that comes later still gets the icon.
#
#   no_tray_e2e.sh MONITOR
set -euo pipefail
monitor=$1
work=$(mktemp -d /tmp/quendral-notray.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
cleanup() {
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; cat "$work/monitor.log" >&2; exit 1; }
mkdir -p "$work/home/database"
printf '[database]\n' >"$work/home/database/quendral.ini"
qm_start_xvfb "$work/xvfb.log" || fail "Xvfb did not start"
export DBUS_SESSION_BUS_ADDRESS=disabled: QUENDRAL_HOME=$work/home XDG_CONFIG_HOME=$work/config
"$monitor" >"$work/monitor.log" 2>&1 &
qm_pids+=($!)
notice="No system tray found; the monitor waits for one. On GNOME install the AppIndicator"
said() { grep -q "$notice" "$work/monitor.log"; }
qm_until 20 said || fail "no notice that there is no tray"
sleep 3
[ "$(grep -c "$notice" "$work/monitor.log")" -eq 1 ] || fail "the notice was given more than once"
echo "said once: $(grep -o 'No system tray found.*' "$work/monitor.log")"
qm_start_trayer "$work/trayer.log" || fail "no tray host"
qm_until 15 qm_icon_docked || fail "the icon did not dock in the tray that came later"
echo "docked in the tray that came later"
