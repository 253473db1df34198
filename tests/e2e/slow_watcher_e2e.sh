#!/usr/bin/env bash
# A StatusNotifierWatcher that is slow to answer while the monitor starts (a
# desktop's watcher loading its modules at login answers seconds late): the
# monitor registers its item as soon as the watcher answers, however late,
# whether the watcher was stopped for less than the monitor's wait for an
# answer or for longer than one call's time limit, and with the watcher
# started only after the monitor. Without an X11 tray to fall back to (as on
# Wayland), so the item is the only icon there can be. On a session bus of
# its own, with a watcher of the test's own that keeps every item
# (dropping_watcher 0).
#
#   slow_watcher_e2e.sh MONITOR WATCHER
set -euo pipefail
if [ -z "${QM_SLOW_INNER:-}" ]; then
    QM_SLOW_INNER=1 exec dbus-run-session -- "$0" "$@"
fi
monitor=$1 watcher=$2
work=$(mktemp -d /tmp/quendral-slow.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh" # qm_until
cleanup() {
    for p in "${qm_pids[@]}"; do kill -CONT "$p" 2>/dev/null || true; done
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

listed() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        RegisteredStatusNotifierItems 2>/dev/null | grep "/StatusNotifierItem" >/dev/null
}
up() {
    gdbus introspect --session --dest org.kde.StatusNotifierWatcher \
        --object-path /StatusNotifierWatcher >/dev/null 2>&1
}
start_watcher() { # NAME
    "$watcher" 0 "$work/registrations-$1" &
    watcher_pid=$!
    qm_pids+=($watcher_pid)
    qm_until 10 up || fail "the test's watcher did not start"
}
start_monitor() { # NAME
    "$monitor" >"$work/monitor-$1.log" 2>&1 &
    monitor_pid=$!
    qm_pids+=($monitor_pid)
}
stop_run() {
    for p in "${qm_pids[@]}"; do kill -CONT "$p" 2>/dev/null || true; done
    kill "${qm_pids[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    qm_pids=()
}
# The watcher stopped for SECONDS while the monitor starts, then let go:
# the item is listed within a few seconds of that.
stopped_while_starting() { # NAME SECONDS
    start_watcher "$1"
    kill -STOP "$watcher_pid"
    start_monitor "$1"
    sleep "$2"
    kill -0 "$monitor_pid" || fail "$1: the monitor ended while the watcher was stopped"
    kill -CONT "$watcher_pid"
    local let_go=$SECONDS
    qm_until 8 listed || fail "$1: the item is not listed 8 s after the watcher answered again"
    # Listed once, whatever questions were asked again meanwhile.
    sleep 1
    local registrations
    registrations=$(sort -u "$work/registrations-$1" | wc -l)
    [ "$registrations" -eq 1 ] || fail "$1: $registrations items registered instead of 1"
    kill -0 "$monitor_pid" || fail "$1: the monitor ended"
    echo "watcher stopped $2 s while the monitor started: listed $((SECONDS - let_go)) s or less after it answered"
    stop_run
}

# Less than the monitor's wait for a first answer, and as late as seen at
# login (3.5 s), and longer than a call's time limit (5 s): the question
# and the registration are asked again.
stopped_while_starting short 1.5
stopped_while_starting login 3.5
stopped_while_starting long 8

# The monitor first, the watcher (with its host) a few seconds later.
start_monitor watcher-later
sleep 2
start_watcher watcher-later
qm_until 8 listed || fail "the item is not listed 8 s after the watcher came"
echo "watcher started after the monitor: listed"
stop_run
