#!/usr/bin/env bash
# The real tray executable under Xvfb with a real tray host (trayer), driven
# with xdotool as a user would: the icon docks, a right-click opens the menu,
# "Start Default Instance" + Return starts the demo server, the open menu
# follows the change, stopping works, and quitting exits 0 with the server
# still running. Screenshots of the open menu and the alert are saved.
#
#   tray_e2e.sh MONITOR QUENDRALCTL DEMO_SERVER OUTPUT_DIR
set -euo pipefail
monitor=$1 ctl=$2 demo=$3 out=$4
mkdir -p "$out"
work=$(mktemp -d /tmp/quendral-e2e.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
cleanup() {
    "$ctl" --home "$work/home" stop --wait 5 >/dev/null 2>&1 || true
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
mkdir -p "$work/home/bin" "$work/home/database" "$work/config"
cp "$demo" "$work/home/bin/quendral"
printf '[database]\nlockfile = quendral.lck\nerrorlogfile = quendral.log\n' \
    >"$work/home/database/quendral.ini"
lock=$work/home/database/quendral.lck

qm_start_xvfb "$work/xvfb.log" || fail "Xvfb did not start"

export DBUS_SESSION_BUS_ADDRESS=disabled: XDG_CONFIG_HOME=$work/config \
    QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 QUENDRAL_DEMO_START_DELAY_MS=1500 \
    LANG=C.UTF-8
# The monitor starts before the panel, as autostart programs often do at
# login; its icon must dock once a tray host is there, and again when the
# host is restarted.
"$monitor" >"$work/monitor.log" 2>&1 &
monitor_pid=$!
sleep 1
qm_start_trayer "$work/trayer.log" || fail "no tray host"
qm_until 15 qm_icon_docked || { cat "$work/monitor.log"; fail "the icon did not dock"; }
kill "${qm_pids[-1]}"
wait "${qm_pids[-1]}" 2>/dev/null || true
qm_until 5 sh -c '! xwininfo -root -tree | grep "\"panel\" \"trayer\"" >/dev/null' || fail "trayer did not end"
qm_start_trayer "$work/trayer-again.log" || fail "no tray host the second time"
qm_until 15 qm_icon_docked || { cat "$work/monitor.log"; fail "the icon did not dock again"; }
echo "icon docked at $(qm_icon_center), before and after the tray host restarted"
open_menu() { qm_open_menu || fail "right-click did not open the menu"; }

# Clicks the menu item at the given row from the top (0-based) or bottom (-1).
item_row_y() { if [ "$1" -ge 0 ]; then echo $((menu_y + 14 + 22 * $1)); else echo $((menu_y + menu_h - 14)); fi; }
click_item() { xdotool mousemove $((menu_x + 40)) "$(item_row_y "$1")" click 1; }
shot() { import -window root "$out/$1.png"; }
crop_item() { convert "$out/$1.png" -crop "${menu_w}x20+${menu_x}+$((menu_y + 4))" "$work/$2.png"; }

open_menu
shot menu
echo "menu: ${menu_w}x${menu_h} at $menu_x,$menu_y"

# The alert: a visible window of the monitor away from the panel.
alert_up() {
    local w
    for w in $(xdotool search --onlyvisible --classname '^quendral-monitor$' 2>/dev/null); do
        eval "$(xdotool getwindowgeometry --shell "$w" | grep -E '^Y=')"
        [ "$Y" -gt 100 ] && return 0
    done
    return 1
}
click_item 0
qm_until 5 alert_up || fail "choosing the item showed no alert"
sleep 0.3 # let it paint
shot alert
xdotool key Return
# Open the menu again while the server is still starting; it must follow the
# change without being reopened.
sleep 0.2
open_menu
shot menu-starting
crop_item menu-starting before
qm_until 10 test -s "$lock" || fail "Return did not start the server (no lock file)"
started=$(date +%s%N)
title_changed() {
    shot menu-running
    crop_item menu-running after
    local d; d=$(compare -metric AE "$work/before.png" "$work/after.png" null: 2>&1 || true)
    [ "${d%% *}" != "0" ]
}
qm_until 3 title_changed || fail "the first item's title did not change while the menu was open"
elapsed_ms=$((($(date +%s%N) - started) / 1000000))
qm_menu_open || fail "the menu closed by itself"
echo "title changed ${elapsed_ms} ms after the lock file appeared, menu still open"
xdotool key Escape
qm_until 5 qm_menu_closed || fail "Escape did not close the menu"

# Stop through the menu.
open_menu
click_item 0
qm_until 5 alert_up || fail "choosing the item showed no alert"
xdotool key Return
qm_until 10 test ! -e "$lock" || fail "Return did not stop the server"
echo "stopped through the menu"

# Start at login: the item writes an autostart entry for this very program.
open_menu
xdotool mousemove $((menu_x + 40)) $((menu_y + menu_h - 14 - 22)) click 1
autostart=$work/config/autostart
entry_written() { compgen -G "$autostart/*.desktop" >/dev/null; }
qm_until 5 entry_written || fail "choosing the login item wrote no autostart entry"
grep -q "^Exec=$(readlink -f "$monitor")\$" "$autostart"/*.desktop || fail "the entry does not start the monitor"
echo "autostart entry: $(ls "$autostart")"

# Start again from the command line, then quit the monitor: the server stays.
"$ctl" --home "$work/home" start --wait 10 >/dev/null || fail "quendralctl start"
open_menu
click_item -1
status=0
wait "$monitor_pid" || status=$?
[ "$status" -eq 0 ] || fail "quit exited with $status"
"$ctl" --home "$work/home" status >/dev/null || fail "quitting stopped the server"
echo "quit exited 0; the server runs on"

# A desktop session's autostart (dex, run as a session would at login)
# starts the monitor from the entry.
qm_until 5 qm_menu_closed || true
dex --autostart --search-paths "$autostart" >"$work/dex.log" 2>&1 || fail "dex: $(cat "$work/dex.log")"
qm_until 15 qm_icon_docked || fail "the autostart entry did not start the monitor"
echo "started again from its autostart entry"
open_menu
click_item -1
qm_until 10 sh -c "! pgrep -f -x '$(readlink -f "$monitor")' >/dev/null" || fail "the second monitor did not quit"
echo "screenshots in $out"
