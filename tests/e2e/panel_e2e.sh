#!/usr/bin/env bash
# The real tray executable in a real desktop panel from Debian under Xvfb,
# each on its own display and session bus: xfce4-panel with xfwm4, or
# lxqt-panel with openbox. The monitor starts before the panel (as at
# login). Driven as a user would, with xdotool: the icon appears; right and
# left clicks open the panel's menu, whose texts are exact (instances named
# "my_db" and "R&D"); the open menu follows a server started from outside,
# however it was opened; choosing the item brings up the alert, and Return
# starts the server; the monitor is idle a second after the menu closed where
# the panel says so, and within the monitor's own stop where it does not
# (its main thread's wakeups counted from /proc); Quit ends it with status 0.
# Screenshots are saved.
#
#   panel_e2e.sh xfce|lxqt MONITOR QUENDRALCTL DEMO_SERVER OUTPUT_DIR
set -euo pipefail
if [ -z "${QM_PANEL_INNER:-}" ]; then
    work=$(mktemp -d /tmp/quendral-panel.XXXXXX)
    qm_pids=()
    . "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
    qm_start_xvfb "$work/xvfb.log" || { echo "FAIL: Xvfb did not start" >&2; exit 1; }
    status=0
    # The session bus starts with DISPLAY set, as in a desktop session.
    QM_PANEL_INNER=$work dbus-run-session -- "$0" "$@" || status=$?
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
    exit $status
fi
host=$1 monitor=$2 ctl=$3 demo=$4 out=$5/$1
work=$QM_PANEL_INNER
mkdir -p "$out"
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
. "$(dirname "$0")/tray_item.sh"
qm_host=$host
trap qm_cleanup EXIT
shot() { import -window root "$out/$1.png"; }

qm_make_installation
mkdir -p "$work/config"
export XDG_CONFIG_HOME=$work/config QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 \
    LANG=C.UTF-8 QT_QPA_PLATFORM=xcb
# The login case: the monitor first, the panel after it.
"$monitor" >"$work/monitor.log" 2>&1 &
monitor_pid=$!
qm_pids+=($monitor_pid)
sleep 1

# Whether the panel tells the monitor that its menu closed (xfce4-panel
# never does: the monitor stops refreshing by itself, 10 s after the
# opening), and who draws the menu on a left click: the panel, or, where the
# panel never reads ItemIsMenu, asks the monitor to activate instead and
# shows nothing when that is refused (lxqt-panel 1.2), the monitor, its menu
# drawn by Qt at the pointer.
reports_closing=yes
left_click_menu=panel
case $host in
xfce)
    reports_closing=no
    xfwm4 --compositor=off >"$work/wm.log" 2>&1 &
    qm_pids+=($!)
    sleep 1
    xfce4-panel >"$work/panel.log" 2>&1 &
    qm_pids+=($!)
    ;;
lxqt)
    left_click_menu=monitor
    mkdir -p "$work/config/lxqt"
    cat >"$work/config/lxqt/panel.conf" <<'CONF'
[General]
panels=panel1

[panel1]
position=Top
plugins=spacer, statusnotifier, tray
panelSize=32
iconSize=22

[spacer]
type=spacer

[statusnotifier]
type=statusnotifier

[tray]
type=tray
CONF
    openbox >"$work/wm.log" 2>&1 &
    qm_pids+=($!)
    sleep 1
    lxqt-panel >"$work/panel.log" 2>&1 &
    qm_pids+=($!)
    ;;
*) fail "unknown panel $host" ;;
esac

# The icon: the blue disc of the Q, found in the top band of the screen.
icon_center() {
    import -window root "$work/find.png"
    local box
    box=$(convert "$work/find.png" -crop 1024x40+0+0 +repage -fill black -fuzz 5% \
        +opaque '#1f5fa8' -trim -format '%w %h %X %Y' info: 2>/dev/null) || return 1
    read -r w h x y <<<"$box"
    [ "$w" -ge 8 ] && [ "$w" -le 40 ] && [ "$h" -ge 8 ] || return 1
    echo "$((${x#+} + w / 2)) $((${y#+} + h / 2))"
}
icon_shown() { icon_center >/dev/null; }
qm_until 30 icon_shown || fail "the icon did not appear in the panel"
echo "$host: the icon appears with the monitor started before the panel, at $(icon_center)"
shot panel-monitor-first

# On X11 that monitor docked through XEmbed (no D-Bus host was there when
# it started). Started again now that the panel runs, it is the panel's
# D-Bus item, whose menu the panel draws: the rest is about that one.
kill "$monitor_pid"
wait "$monitor_pid" 2>/dev/null || true
icon_gone() { ! icon_shown; }
qm_until 10 icon_gone || fail "the icon stayed after the monitor ended"
"$monitor" >"$work/monitor.log" 2>&1 &
monitor_pid=$!
qm_pids+=($monitor_pid)
qm_until 30 icon_shown || fail "the icon did not appear again"
sleep 1
read -r icon_x icon_y <<<"$(icon_center)"
echo "$host: icon at $icon_x,$icon_y"
shot panel

# The menu the panel draws: the monitor's item and its exported menu.
qm_find_item || fail "the monitor is not registered as a status notifier item"
labels() { qm_labels; }
expected=$qm_expected_labels

# A menu is open when the empty (black) desktop below the icon is covered.
panel_menu_open() {
    import -window root "$work/menu.png"
    local left=$((icon_x > 400 ? icon_x - 400 : 0))
    local mean
    mean=$(convert "$work/menu.png" -crop "420x150+$left+40" +repage -colorspace gray \
        -format '%[fx:mean]' info:)
    awk -v m="$mean" 'BEGIN { exit !(m > 0.05) }'
}
panel_menu_closed() { ! panel_menu_open; }
open_menu() { # BUTTON
    xdotool mousemove "$icon_x" "$icon_y" click "$1"
    qm_until 5 panel_menu_open
}
close_menu() {
    xdotool key Escape
    qm_until 5 panel_menu_closed
}
qm_window() { xdotool search --onlyvisible --classname '^quendral-monitor$' 2>/dev/null | head -1; }

open_menu 3 || fail "a right click opened no menu"
sleep 0.5
panel_menu_open || fail "the menu closed by itself after a right click"
shot menu-right-click
[ "$(labels)" = "$expected" ] || fail "menu texts: $(labels)"
echo "$host: a right click opens the menu, texts exact"
close_menu || fail "Escape did not close the menu"

# A left click opens the menu, with the same texts: the one the panel draws
# (no window of the monitor's own), or where the panel leaves it to the
# monitor, the monitor's by the icon.
open_menu 1 || fail "a left click opened no menu"
sleep 0.5
panel_menu_open || fail "the menu closed by itself after a left click"
shot menu-left-click
[ "$(labels)" = "$expected" ] || fail "menu texts after a left click: $(labels)"
if [ "$left_click_menu" = panel ]; then
    [ -z "$(qm_window)" ] || fail "a left click showed a window of the monitor's own"
else
    own=$(qm_window)
    [ -n "$own" ] || fail "a left click opened a menu that is not the monitor's"
    eval "$(xdotool getwindowgeometry --shell "$own" | grep -E '^(X|Y)=')"
    [ $((X - icon_x)) -lt 40 ] && [ $((icon_x - X)) -lt 400 ] && [ $((Y - icon_y)) -lt 40 ] ||
        fail "the monitor's menu is at $X,$Y, away from the icon at $icon_x,$icon_y"
fi
echo "$host: a left click opens the menu ($left_click_menu draws it), texts exact"

qm_check_left_click_menu_follows
follows() { labels | grep -qx "Stop Instance 'my_db'"; }

# Open: the menu follows a server started from outside.
open_menu 3 || fail "the menu did not open again"
"$ctl" start my_db --wait 10 >/dev/null || fail "quendralctl start"
qm_until 3 follows || fail "the open menu did not follow the start"
sleep 0.5
shot menu-follows
echo "$host: the open menu follows a server started from outside"
close_menu || fail "Escape did not close the menu"
"$ctl" stop my_db --wait 10 >/dev/null || fail "quendralctl stop"

# Choosing the first item (R&D) brings up the alert in front; Return starts.
open_menu 3 || fail "the menu did not open"
sleep 0.3
xdotool key Down Return
qm_until 5 sh -c '[ -n "$(xdotool search --onlyvisible --classname "^quendral-monitor$" 2>/dev/null)" ]' ||
    fail "choosing the item showed no alert"
sleep 0.5
# In front: it has the keyboard, so a plain Return answers it.
active=$(xprop -id "$(xdotool getactivewindow 2>/dev/null)" WM_CLASS 2>/dev/null || true)
[[ $active == *'"quendral-monitor"'* ]] || fail "the alert is not in front (active: $active)"
shot alert
xdotool key Return
qm_until 10 test -s "$work/home/R&D/quendral.lck" || fail "Return in the alert did not start the server"
echo "$host: the alert came up and Return started the server"

# Closed: the refresh ends and the monitor idles, a second after the menu
# closed where the panel says so, else once the monitor's stop has passed.
# The refresh is counted from the click, not from when the screenshots show
# the menu: that may take longer than the refresh runs.
xdotool mousemove "$icon_x" "$icon_y" click 1
busy=$(qm_wakeups "$monitor_pid" 2)
qm_until 5 panel_menu_open || fail "the menu did not open"
[ "$busy" -ge 2 ] || fail "the open menu was not refreshed ($busy wakeups in 2 s)"
close_menu || fail "Escape did not close the menu"
qm_check_idle_after_close 15
echo "$host: $busy wakeups in 2 s while open, $qm_idle in 3 s after the menu closed (host reports closing: $reports_closing)"

qm_quit_by_last_item 3 "R&D"
echo "$host: quit exited 0; the server runs on; screenshots in $out"
