#!/usr/bin/env bash
# A StatusNotifierItem host that drops every registration of the item (the
# test's own watcher, dropping_watcher) must never leave the user without an
# icon while a tray exists, nor without a word where none does:
#   - docked in an X11 tray (trayer) first, the monitor moves to the host's
#     item when the host comes; the host drops it four times; the icon goes
#     back to trayer, and the log says so;
#   - with no X11 tray, the log says that no tray shows the icon and the
#     desktop's notifications (a server of the test's own) say it once.
#
#   host_keeps_no_item_e2e.sh MONITOR DROPPING_WATCHER NOTIFICATION_SERVER
set -euo pipefail
if [ -z "${QM_KEEPS_NONE_INNER:-}" ]; then
    QM_KEEPS_NONE_INNER=1 exec dbus-run-session -- "$0" "$@"
fi
monitor=$1 watcher=$2 server=$3
work=$(mktemp -d /tmp/quendral-keepsnone.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
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
export QUENDRAL_HOME=$work/home XDG_CONFIG_HOME=$work/config QT_QPA_PLATFORM=xcb LANG=C.UTF-8
qm_start_xvfb "$work/xvfb.log" || fail "Xvfb did not start"
watcher_up() {
    gdbus introspect --session --dest org.kde.StatusNotifierWatcher \
        --object-path /StatusNotifierWatcher >/dev/null 2>&1
}
registrations() { wc -l <"$1"; }

# An X11 tray first, the monitor docked in it; then the dropping host.
qm_start_trayer "$work/trayer.log" || fail "no tray host"
trayer_pid=${qm_pids[-1]}
"$monitor" >"$work/monitor-xembed.log" 2>&1 &
monitor_pid=$!
qm_pids+=($monitor_pid)
qm_until 15 qm_icon_docked || fail "the icon did not dock in trayer"
: >"$work/registrations-xembed"
"$watcher" 1000 "$work/registrations-xembed" &
watcher_pid=$!
qm_pids+=($watcher_pid)
qm_until 10 watcher_up || fail "the test's watcher did not start"
four() { [ "$(registrations "$work/registrations-xembed")" -ge 4 ]; }
qm_until 15 four || fail "the monitor did not move to the host's item"
back="The tray host does not keep the monitor's icon; it is shown in the X11 system tray instead"
qm_until 10 grep -q "$back" "$work/monitor-xembed.log" || fail "not said in the log: $back"
qm_until 10 qm_icon_docked || fail "the icon did not go back to trayer"
sleep 2
n=$(registrations "$work/registrations-xembed")
[ "$n" -eq 4 ] || fail "$n registrations instead of 4"
qm_icon_docked || fail "the icon left trayer again"
grep -q "no other tray shows it" "$work/monitor-xembed.log" && fail "said that no tray shows it"
echo "docked in trayer, moved to a host that dropped it 4 times: back in trayer; said: $back"
kill "$monitor_pid" "$watcher_pid" "$trayer_pid"
wait "$monitor_pid" "$watcher_pid" "$trayer_pid" 2>/dev/null || true
qm_pids=("${qm_pids[0]}") # Xvfb

# No X11 tray: the dropping host alone, and a notification server.
: >"$work/notifications"
"$server" "$work/notifications" &
qm_pids+=($!)
serving() {
    gdbus call --session --dest org.freedesktop.DBus --object-path / \
        --method org.freedesktop.DBus.NameHasOwner org.freedesktop.Notifications 2>/dev/null |
        grep -q true
}
qm_until 10 serving || fail "the notification server did not start"
: >"$work/registrations-none"
"$watcher" 1000 "$work/registrations-none" &
qm_pids+=($!)
qm_until 10 watcher_up || fail "the test's watcher did not start"
"$monitor" >"$work/monitor-none.log" 2>&1 &
monitor_pid=$!
qm_pids+=($monitor_pid)
none="The tray host does not keep the monitor's icon, and no other tray shows it"
qm_until 15 grep -q "$none" "$work/monitor-none.log" || fail "not said in the log: $none"
notified() { [ "$(wc -l <"$work/notifications")" -ge 1 ]; }
qm_until 10 notified || fail "no notification"
sleep 2
n=$(wc -l <"$work/notifications")
[ "$n" -eq 1 ] || fail "$n notifications instead of one: $(cat "$work/notifications")"
grep -q "No system tray shows its icon" "$work/notifications" ||
    fail "the notification: $(cat "$work/notifications")"
n=$(registrations "$work/registrations-none")
[ "$n" -eq 4 ] || fail "$n registrations instead of 4"
kill -0 "$monitor_pid" || fail "the monitor did not keep running"
echo "no X11 tray, a host that drops every registration: said in the log and notified once"
