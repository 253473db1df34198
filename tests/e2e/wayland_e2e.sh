#!/usr/bin/env bash
# The real tray executable in waybar under a headless sway (Wayland), on its
# own session bus. sway will not run as root, so the session runs as an
# ordinary user (nobody). Run in both orders: the monitor before waybar, as
# at login, and waybar first, as when the monitor is started from a terminal
# or the application menu. A
# user's clicks come through a virtual pointer (vpointer), keys through
# wtype (the alert's Return); screenshots through grim. Checks: the icon appears; right and left
# clicks give waybar's menu, never a window of the monitor's own; the texts
# are exact; the open menu follows a server started from outside, however it
# was opened; the alert comes up in front and Return starts the server;
# within the monitor's stop after the menu opened (waybar never says it
# closed) the monitor is idle; Quit ends it with status 0.
#
#   wayland_e2e.sh panel-first|monitor-first MONITOR QUENDRALCTL DEMO_SERVER VPOINTER OUTPUT_DIR
set -euo pipefail
if [ -z "${QM_WAYLAND_INNER:-}" ]; then
    [ "$(id -u)" -eq 0 ] || { echo "runs as root, to become an ordinary user" >&2; exit 1; }
    work=$(mktemp -d /tmp/quendral-wayland.XXXXXX)
    mkdir -p "$work/run" "$work/user" "$6/waybar-$1"
    chmod 700 "$work/run"
    chmod 755 "$work"
    chown -R nobody:nogroup "$work" "$6/waybar-$1"
    status=0
    setpriv --reuid=nobody --regid=nogroup --clear-groups \
        env -i PATH=/usr/bin:/bin HOME="$work/user" XDG_RUNTIME_DIR="$work/run" \
        QM_WAYLAND_INNER="$work" LANG=C.UTF-8 \
        ASAN_OPTIONS="${ASAN_OPTIONS:-}" LSAN_OPTIONS="${LSAN_OPTIONS:-}" \
        UBSAN_OPTIONS="${UBSAN_OPTIONS:-}" \
        dbus-run-session -- "$0" "$@" || status=$?
    # Only this run's compositor: another run may have its own beside it.
    pkill -u nobody -f "^sway -c $work/sway.conf" 2>/dev/null || true
    rm -rf "$work"
    exit $status
fi
order=$1 monitor=$2 ctl=$3 demo=$4 vpointer=$5 out=$6/waybar-$1
work=$QM_WAYLAND_INNER
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh" # qm_until
. "$(dirname "$0")/tray_item.sh"
qm_host="waybar, $order"
trap qm_cleanup EXIT
shot() { grim "$out/$1.png"; }

qm_make_installation
printf 'output HEADLESS-1 resolution 1024x768\ndefault_border none\n' >"$work/sway.conf"
cat >"$work/waybar.json" <<'CONF'
{ "layer": "top", "position": "top", "height": 30, "modules-right": ["tray"],
  "tray": { "icon-size": 21, "spacing": 8 } }
CONF
export WLR_BACKENDS=headless WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman
sway -c "$work/sway.conf" >"$work/sway.log" 2>&1 &
qm_pids+=($!)
qm_until 10 test -S "$XDG_RUNTIME_DIR/wayland-1" || fail "sway did not start"
export WAYLAND_DISPLAY=wayland-1 SWAYSOCK
SWAYSOCK=$(ls "$XDG_RUNTIME_DIR"/sway-ipc.*.sock)
export QT_QPA_PLATFORM=wayland QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 \
    XDG_CONFIG_HOME=$work/config

# Under AddressSanitizer, leaks are not looked for here: Qt's Wayland plugin
# leaves its display objects at exit, partly from a plugin already unloaded
# when the report is made, which no suppression can name. The monitor's own
# leaks are looked for by the offscreen and D-Bus tests.
[ -z "${ASAN_OPTIONS:-}" ] || export ASAN_OPTIONS="$ASAN_OPTIONS:detect_leaks=0"
start_monitor() {
    "$monitor" >"$work/monitor.log" 2>&1 &
    monitor_pid=$!
    qm_pids+=($monitor_pid)
}
start_bar() {
    waybar -c "$work/waybar.json" >"$work/waybar.log" 2>&1 &
    qm_pids+=($!)
}
bar_up() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        IsStatusNotifierHostRegistered 2>/dev/null | grep -q true
}
if [ "$order" = monitor-first ]; then
    start_monitor
    sleep 2
    start_bar
else
    start_bar
    qm_until 30 bar_up || fail "waybar registered no status notifier host"
    start_monitor
fi

icon_center() {
    grim "$work/find.png" 2>/dev/null || return 1
    local box
    box=$(convert "$work/find.png" -crop 1024x30+0+0 +repage -fill black -fuzz 5% \
        +opaque '#1f5fa8' -trim -format '%w %h %X %Y' info: 2>/dev/null) || return 1
    read -r w h x y <<<"$box"
    [ "$w" -ge 8 ] && [ "$w" -le 40 ] && [ "$h" -ge 8 ] || return 1
    echo "$((${x#+} + w / 2)) $((${y#+} + h / 2))"
}
icon_shown() { icon_center >/dev/null; }
qm_until 30 icon_shown || fail "the icon did not appear in waybar"
read -r icon_x icon_y <<<"$(icon_center)"
echo "$qm_host: the icon appears, at $icon_x,$icon_y"
shot bar
# Left of the icon, over the whole height: where waybar's menu opens.
region="0,0 $((icon_x - 25))x400"
grim -g "$region" "$work/empty.png"

# The menu waybar draws from the monitor's exported one.
qm_find_item || fail "the monitor is not registered as a status notifier item"
labels() { qm_labels; }
expected=$qm_expected_labels

# A menu is open when the area below the bar is no longer what it was.
menu_open() {
    grim -g "$region" "$work/now.png" 2>/dev/null || return 1
    local d
    d=$(compare -metric AE "$work/empty.png" "$work/now.png" null: 2>&1 || true)
    [ "${d%% *}" -gt 2000 ]
}
menu_closed() { ! menu_open; }
# One pointer for the whole session, fed through a pipe.
mkfifo "$work/pointer"
"$vpointer" 1024 768 <"$work/pointer" >"$work/vpointer.log" 2>&1 &
qm_pids+=($!)
exec 7>"$work/pointer"
pointer() { echo "$*" >&7; sleep 0.4; }
click() { pointer click "$icon_x" "$icon_y" "$1"; }
open_menu() { click 3 && qm_until 5 menu_open; }
# A click on the empty desktop closes it, as a user does.
close_menu() { pointer click 500 600 1 && qm_until 5 menu_closed; }
# The open menu's box on the screen: menu_x menu_y menu_w menu_h.
menu_box() {
    local box
    box=$(compare "$work/empty.png" "$work/now.png" -compose src -highlight-color white \
        -lowlight-color black png:- 2>/dev/null | convert - -trim -format '%w %h %X %Y' info:) ||
        true # compare's status says that the pictures differ, which they do
    read -r menu_w menu_h menu_x menu_y <<<"$box"
    menu_x=${menu_x#+} menu_y=${menu_y#+}
}
# Clicks the menu's first item (0) or its last (-1).
click_item() {
    menu_open && menu_box
    local y=$((menu_y + 14))
    [ "$1" -ge 0 ] || y=$((menu_y + menu_h - 14))
    pointer click $((menu_x + 40)) "$y" 1
}
# Any window of the monitor's own on the screen (on Wayland a menu of Qt's
# would be one, full-screen).
own_window() {
    swaymsg -t get_tree | jq -e '[.. | objects | select(.app_id == "quendral-monitor")] | length > 0' >/dev/null
}

open_menu || fail "a right click opened no menu"
sleep 0.5
menu_open || fail "the menu closed by itself"
shot menu-right-click
[ "$(labels)" = "$expected" ] || fail "menu texts: $(labels)"
own_window && fail "a right click showed a window of the monitor's own"
echo "$qm_host: a right click opens the menu, texts exact"
close_menu || fail "Escape did not close the menu"

click 1
qm_until 5 menu_open || fail "a left click opened no menu"
sleep 0.5
menu_open || fail "the menu closed by itself after a left click"
shot menu-left-click
[ "$(labels)" = "$expected" ] || fail "menu texts after a left click: $(labels)"
own_window && fail "a left click showed a window of the monitor's own"
echo "$qm_host: a left click opens waybar's menu, texts exact"
qm_check_left_click_menu_follows
follows() { labels | grep -qx "Stop Instance 'my_db'"; }

open_menu || fail "the menu did not open again"
"$ctl" start my_db --wait 10 >/dev/null || fail "quendralctl start"
qm_until 3 follows || fail "the open menu did not follow the start"
sleep 0.5
shot menu-follows
echo "$qm_host: the open menu follows a server started from outside"
close_menu || fail "Escape did not close the menu"
"$ctl" stop my_db --wait 10 >/dev/null || fail "quendralctl stop"

open_menu || fail "the menu did not open"
sleep 0.3
click_item 0
focused_is_alert() {
    swaymsg -t get_tree | jq -e '[.. | objects | select(.focused == true) | .app_id] == ["quendral-monitor"]' >/dev/null
}
qm_until 5 focused_is_alert || fail "choosing the item brought up no alert in front"
sleep 0.5
shot alert
# The virtual keyboard brings its own keymap, which Qt must have before the
# first key; and a key pressed and released at once is missed.
wtype -s 400 -P Return -s 150 -p Return
qm_until 10 test -s "$work/home/R&D/quendral.lck" || fail "Return in the alert did not start the server"
echo "$qm_host: the alert came up in front and Return started the server"

# Closed, by either button's menu: waybar never says that its menu closed,
# and on Wayland no client sees another's popups, so the refresh ends by
# itself, the silent-host stop after the opening (shortened to 5 s here),
# and the monitor is idle. The refresh is counted from the click, not from
# when the screenshots show the menu: that may take longer than it runs.
for button in 1 3; do
    click "$button"
    busy=$(qm_wakeups "$monitor_pid" 2)
    qm_until 5 menu_open || fail "the menu did not open"
    [ "$busy" -ge 2 ] || fail "the open menu was not refreshed ($busy wakeups in 2 s)"
    close_menu || fail "the menu did not close"
    qm_until_idle "$monitor_pid" 15 || fail "the refresh did not stop after the menu closed"
    idle=$(qm_wakeups "$monitor_pid" 3)
    echo "$qm_host: button $button: $busy wakeups in 2 s while open, $idle in 3 s once the monitor went idle"
    [ "$idle" -le 2 ] || fail "the monitor keeps waking up after the menu closed ($idle in 3 s)"
done

open_menu || fail "the menu did not open"
sleep 0.3
click_item -1
qm_until 10 sh -c "! kill -0 $monitor_pid 2>/dev/null" || fail "Quit did not end the monitor"
status=0
wait "$monitor_pid" || status=$?
[ "$status" -eq 0 ] || fail "quit exited with $status"
"$ctl" status "R&D" >/dev/null || fail "quitting stopped the server"
echo "$qm_host: quit exited 0; the server runs on; screenshots in $out"
