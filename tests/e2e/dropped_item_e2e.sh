#!/usr/bin/env bash
# A tray host that drops the monitor's item after taking it (as GNOME
# Shell's AppIndicator extension did when it failed to read the item's
# properties): the monitor sees that the watcher no longer lists it and
# registers again, until the host keeps it, with one line in its log; and
# a host that drops every registration gets a bounded number of them (the
# first and three more), not an endless loop. On a session bus of its own,
# with a watcher of the test's own (dropping_watcher).
#
#   dropped_item_e2e.sh MONITOR DROPPING_WATCHER
set -euo pipefail
if [ -z "${QM_DROPPED_INNER:-}" ]; then
    QM_DROPPED_INNER=1 exec dbus-run-session -- "$0" "$@"
fi
monitor=$1 watcher=$2
work=$(mktemp -d /tmp/quendral-dropped.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh" # qm_until
cleanup() {
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    cat "$work"/monitor-*.log >&2 2>/dev/null || true
    exit 1
}
mkdir -p "$work/home/database"
printf '[database]\n' >"$work/home/database/quendral.ini"
export QUENDRAL_HOME=$work/home XDG_CONFIG_HOME=$work/config QT_QPA_PLATFORM=offscreen
said="The tray host dropped the monitor's icon; it is registered again"

listed() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        RegisteredStatusNotifierItems | grep -q "/StatusNotifierItem"
}
run() { # NAME DROPS: the watcher, then the monitor; leaves $registrations
    : >"$work/registrations-$1"
    "$watcher" "$2" "$work/registrations-$1" &
    local watcher_pid=$!
    qm_pids+=($watcher_pid)
    up() {
        gdbus introspect --session --dest org.kde.StatusNotifierWatcher \
            --object-path /StatusNotifierWatcher >/dev/null 2>&1
    }
    qm_until 10 up || fail "the test's watcher did not start"
    "$monitor" >"$work/monitor-$1.log" 2>&1 &
    monitor_pid=$!
    qm_pids+=($monitor_pid)
}
stop_run() {
    kill "${qm_pids[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    qm_pids=()
}

# Dropped twice, then kept: registered three times, listed in the end.
run twice 2
qm_until 15 listed || fail "the item is not listed after the host dropped it twice"
sleep 2 # a fourth registration would come now
listed || fail "the item went from the list"
registrations=$(wc -l <"$work/registrations-twice")
[ "$registrations" -eq 3 ] || fail "$registrations registrations instead of 3"
[ "$(grep -c "$said" "$work/monitor-twice.log")" -eq 1 ] || fail "not said once in the log"
echo "dropped twice: registered 3 times and listed; said once: $said"
stop_run

# Dropped every time: the first registration and three more, then no more.
run always 1000
four() { [ "$(wc -l <"$work/registrations-always")" -ge 4 ]; }
qm_until 15 four ||
    fail "the monitor did not register again after the host dropped it"
sleep 3
registrations=$(wc -l <"$work/registrations-always")
[ "$registrations" -eq 4 ] || fail "$registrations registrations instead of 4"
kill -0 "$monitor_pid" || fail "the monitor did not keep running"
[ "$(grep -c "$said" "$work/monitor-always.log")" -eq 1 ] || fail "not said once in the log"
echo "dropped every time: registered 4 times, then left alone; the monitor runs on"
stop_run
