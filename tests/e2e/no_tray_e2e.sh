#!/usr/bin/env bash
# Where no tray appears, the monitor says so once after ten seconds, naming
# what to install, and keeps waiting: a tray that comes later still gets the
# icon.
#   - With no session bus: one line in its log.
#   - On a session with a desktop notification server (one of the test's
#     own, which writes down what it is sent): the line, and exactly one
#     notification; then a tray comes and the icon docks in it.
#   - Where a tray takes the icon within the ten seconds: no notification.
#
#   no_tray_e2e.sh MONITOR NOTIFICATION_SERVER
set -euo pipefail
monitor=$1 server=$2
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
cleanup() {
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    [ -n "${QM_NOTRAY_INNER:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    cat "$work"/monitor-*.log >&2 2>/dev/null || true
    exit 1
}
export QT_QPA_PLATFORM=xcb LANG=C.UTF-8
notice="No system tray found; the monitor waits for one. On GNOME install the AppIndicator"
said() { grep -q "$notice" "$1"; }

if [ -z "${QM_NOTRAY_INNER:-}" ]; then
    work=$(mktemp -d /tmp/quendral-notray.XXXXXX)
    mkdir -p "$work/home/database"
    printf '[database]\n' >"$work/home/database/quendral.ini"
    export QUENDRAL_HOME=$work/home XDG_CONFIG_HOME=$work/config
    qm_start_xvfb "$work/xvfb.log" || fail "Xvfb did not start"

    # No session bus: the log says it, once.
    DBUS_SESSION_BUS_ADDRESS=disabled: "$monitor" >"$work/monitor-nobus.log" 2>&1 &
    qm_pids+=($!)
    qm_until 20 said "$work/monitor-nobus.log" || fail "no notice that there is no tray"
    sleep 3
    [ "$(grep -c "$notice" "$work/monitor-nobus.log")" -eq 1 ] ||
        fail "the notice was given more than once"
    echo "no session bus, said once: $(grep -o 'No system tray found.*' "$work/monitor-nobus.log")"

    QM_NOTRAY_INNER=$work dbus-run-session -- "$0" "$@"
    exit
fi
work=$QM_NOTRAY_INNER

# The monitor on a session with the test's notification server; a tray
# (trayer) comes after $2 seconds, and the monitor runs $3 more.
run_session() { # NAME TRAY_AFTER RUN_ON
    local sent=$work/notifications-$1 log=$work/monitor-$1.log
    : >"$sent"
    "$server" "$sent" &
    local server_pid=$!
    serving() {
        gdbus call --session --dest org.freedesktop.DBus --object-path / \
            --method org.freedesktop.DBus.NameHasOwner org.freedesktop.Notifications 2>/dev/null |
            grep -q true
    }
    qm_until 10 serving || fail "the notification server did not start"
    "$monitor" >"$log" 2>&1 &
    local monitor_pid=$!
    sleep "$2"
    qm_start_trayer "$work/trayer-$1.log" || fail "no tray host"
    local trayer_pid=${qm_pids[-1]}
    qm_until 15 qm_icon_docked || fail "the icon did not dock in the tray"
    sleep "$3"
    kill "$monitor_pid" "$server_pid" "$trayer_pid"
    wait "$monitor_pid" "$server_pid" "$trayer_pid" 2>/dev/null || true
}

# No tray for twelve seconds: the notice and one notification.
run_session late 12 3
said "$work/monitor-late.log" || fail "no notice in the log"
n=$(wc -l <"$work/notifications-late")
[ "$n" -eq 1 ] || fail "$n notifications instead of one: $(cat "$work/notifications-late")"
grep -q "^Quendral Monitor is running	No system tray shows its icon. On GNOME, install" \
    "$work/notifications-late" || fail "the notification: $(cat "$work/notifications-late")"
echo "no tray for 12 s: one notification: $(cat "$work/notifications-late")"
echo "then a tray came, and the icon docked in it"

# A tray within the ten seconds: no notice, no notification, past the ten.
run_session early 2 10
n=$(wc -l <"$work/notifications-early")
[ "$n" -eq 0 ] || fail "a notification though the tray came in time: $(cat "$work/notifications-early")"
said "$work/monitor-early.log" && fail "a notice though the tray came in time"
echo "a tray within 2 s: no notification, no notice"
