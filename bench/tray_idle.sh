#!/usr/bin/env bash
# The tray's idle cost with its menu closed, against a bare Qt tray
# application in the same run: wakeups (context switches) over 10 s and
# resident memory, both on a virtual display with a real tray host.
#
#   tray_idle.sh MONITOR BARE_TRAY DEMO_SERVER
set -euo pipefail
monitor=$1 bare=$2 demo=$3
seconds=${IDLE_SECONDS:-10}
work=$(mktemp -d /tmp/quendral-idle.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../scripts/lib/xdisplay.sh"
trap 'for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$work"' EXIT

mkdir -p "$work/home/bin"
cp "$demo" "$work/home/bin/quendral"
for i in database sales; do
    mkdir -p "$work/home/$i"
    printf '[database]\n' >"$work/home/$i/quendral.ini"
done
qm_start_xvfb "$work/xvfb.log"
qm_start_trayer "$work/trayer.log"
export DBUS_SESSION_BUS_ADDRESS=disabled: QUENDRAL_HOME=$work/home XDG_CONFIG_HOME=$work/config

switches() { awk '/ctxt_switches/ { n += $2 } END { print n }' "/proc/$1/status"; }
rss_kb() { awk '/^VmRSS/ { print $2 }' "/proc/$1/status"; }

# Prints "wakeups rss_kb" of a program idling for the given seconds.
measure() {
    "$1" >/dev/null 2>&1 &
    local pid=$!
    sleep 3 # start-up, docking
    kill -0 "$pid" 2>/dev/null || { echo "$1 did not keep running" >&2; exit 1; }
    local before; before=$(switches "$pid")
    sleep "$seconds"
    local after; after=$(switches "$pid")
    echo "$((after - before)) $(rss_kb "$pid")"
    kill "$pid"
    wait "$pid" 2>/dev/null || true
}

measure "$bare" >"$work/bare" || exit 1
measure "$monitor" >"$work/monitor" || exit 1
read -r bare_wake bare_rss <"$work/bare"
read -r mon_wake mon_rss <"$work/monitor"
echo "Tray idle with the menu closed, over ${seconds} s (same run, same display):"
printf '  %-28s %6s wakeups  %7s kB resident\n' "bare Qt tray application" "$bare_wake" "$bare_rss"
printf '  %-28s %6s wakeups  %7s kB resident\n' "quendral-monitor" "$mon_wake" "$mon_rss"
awk -v m="$mon_rss" -v b="$bare_rss" 'BEGIN { printf "  resident memory vs bare tray: %.2fx\n", m / b }'
