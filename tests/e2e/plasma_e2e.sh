#!/usr/bin/env bash
# The real tray executable in Debian's Plasma panel (plasmashell) under Xvfb,
# on its own display and session bus, driven as a user would with xdotool:
# the icon appears in the panel; a right click and a left click both open the
# menu Plasma draws (Plasma asks the item to activate on a left click, and
# draws the menu itself once that is refused), with the exact texts, and no
# menu of the monitor's own beside it; the open menu follows a server
# started from outside; the monitor is idle once the menu closed (Plasma says
# so); Quit ends it with status 0. Run in both orders: the panel first, and
# the monitor first (at login), which then ends up as Plasma's registered
# item, with no window of its own (an XEmbed icon) left on the screen.
# Screenshots are saved.
#
#   plasma_e2e.sh panel-first|monitor-first MONITOR QUENDRALCTL DEMO_SERVER OUTPUT_DIR
set -euo pipefail
if [ -z "${QM_PLASMA_INNER:-}" ]; then
    command -v plasmashell >/dev/null || { echo "FAIL: plasmashell is not installed" >&2; exit 1; }
    work=$(mktemp -d /tmp/quendral-plasma.XXXXXX)
    qm_pids=()
    . "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
    # Plasma lays its default panel out for the screen: along the bottom.
    qm_start_xvfb "$work/xvfb.log" 1280x800 || { echo "FAIL: Xvfb did not start" >&2; exit 1; }
    status=0
    QM_PLASMA_INNER=$work dbus-run-session -- "$0" "$@" || status=$?
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
    exit $status
fi
order=$1 monitor=$2 ctl=$3 demo=$4 out=$5/plasma-$1
work=$QM_PLASMA_INNER
mkdir -p "$out"
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
. "$(dirname "$0")/tray_item.sh"
qm_host="plasma, $order"
# Plasma starts helpers of its own through the session bus (kded5,
# kactivitymanagerd, kglobalaccel5, ...), not as children of ours: every
# process of this session bus goes at the end.
cleanup() {
    qm_cleanup
    qm_end_session_processes
}
trap cleanup EXIT
shot() { import -window root "$out/$1.png"; }

qm_make_installation
mkdir -p "$work/config" "$work/data" "$work/cache" "$work/run"
chmod 700 "$work/run"
# Plasma starts from its default layout and writes nothing outside $work.
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache \
    XDG_RUNTIME_DIR=$work/run QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 LANG=C.UTF-8

start_monitor() {
    "$monitor" >"$work/monitor.log" 2>&1 &
    monitor_pid=$!
    qm_pids+=($monitor_pid)
}
# The login case: the monitor first, the panel after it.
[ "$order" = panel-first ] || start_monitor
openbox >"$work/wm.log" 2>&1 &
qm_pids+=($!)
QT_QPA_PLATFORM=xcb plasmashell >"$work/panel.log" 2>&1 &
qm_pids+=($!)
# The tray registers its host; the watcher is a module of kded5 that a
# Plasma session loads at login, loaded here by hand.
host_up() {
    gdbus call --session --dest org.freedesktop.DBus --object-path / \
        --method org.freedesktop.DBus.ListNames | grep -q "org.kde.StatusNotifierHost-"
}
qm_until 90 host_up || fail "plasmashell registered no status notifier host"
gdbus call --session --dest org.kde.kded5 --object-path /kded \
    --method org.kde.kded5.loadModule statusnotifierwatcher >/dev/null ||
    fail "the status notifier watcher could not be loaded"
watcher_has_host() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        IsStatusNotifierHostRegistered 2>/dev/null | grep -q true
}
qm_until 30 watcher_has_host || fail "the watcher has no host"
[ "$order" = monitor-first ] || start_monitor

# The icon: the blue disc of the Q, in the panel along the bottom.
icon_center() {
    import -window root "$work/find.png"
    local box
    box=$(convert "$work/find.png" -crop 1280x44+0+756 +repage -fill black -fuzz 5% \
        +opaque '#1f5fa8' -morphology Open Square:1 -trim -format '%w %h %X %Y' info: 2>/dev/null) ||
        return 1
    read -r w h x y <<<"$box"
    [ "$w" -ge 8 ] && [ "$w" -le 40 ] && [ "$h" -ge 8 ] || return 1
    echo "$((${x#+} + w / 2)) $((756 + ${y#+} + h / 2))"
}
icon_shown() { icon_center >/dev/null; }
qm_until 60 icon_shown || fail "the icon did not appear in the panel"
sleep 1
read -r icon_x icon_y <<<"$(icon_center)"
echo "$qm_host: icon at $icon_x,$icon_y"
shot panel
qm_until 15 qm_find_item || fail "the monitor is not registered as a status notifier item"
expected=$qm_expected_labels

# The menu Plasma draws is a popup-menu window of plasmashell's; the
# monitor's own would be a window of the monitor's.
host_menu() {
    local w
    for w in $(xdotool search --onlyvisible --classname '^plasmashell$' 2>/dev/null); do
        xprop -id "$w" _NET_WM_WINDOW_TYPE | grep -q POPUP_MENU || continue
        eval "$(xdotool getwindowgeometry --shell "$w" | grep -E '^HEIGHT=')"
        [ "$HEIGHT" -gt 100 ] && { echo "$w"; return; }
    done
}
own_menu() { xdotool search --onlyvisible --classname '^quendral-monitor$' 2>/dev/null | head -1; }
[ -z "$(own_menu)" ] || fail "a window of the monitor's own (an XEmbed icon) is on the screen"
host_menu_open() { [ -n "$(host_menu)" ]; }
menu_closed() { [ -z "$(host_menu)$(own_menu)" ]; }
open_menu() { # BUTTON
    xdotool mousemove "$icon_x" "$icon_y" click "$1"
    qm_until 5 host_menu_open
}
close_menu() {
    xdotool key Escape
    qm_until 5 menu_closed
}

for button in 3 1; do
    click=right
    [ "$button" = 1 ] && click=left
    open_menu "$button" || fail "a $click click opened no menu Plasma draws"
    sleep 0.5
    [ -z "$(own_menu)" ] || fail "a $click click opened a menu of the monitor's own"
    shot "menu-$click-click"
    [ "$(qm_labels)" = "$expected" ] || fail "menu texts after a $click click: $(qm_labels)"
    echo "$qm_host: a $click click opens the menu Plasma draws, texts exact"
    if [ "$button" = 1 ]; then
        "$ctl" start my_db --wait 10 >/dev/null || fail "quendralctl start"
        follows() { qm_labels | grep -qx "Stop Instance 'my_db'"; }
        qm_until 3 follows || fail "the menu opened by a left click did not follow the start"
        echo "$qm_host: the menu opened by a left click follows a server started from outside"
    fi
    close_menu || fail "Escape did not close the menu"
    # Plasma says when its menu closed: the refresh ends with it.
    idle=$(qm_wakeups "$monitor_pid" 2)
    echo "$qm_host: $idle wakeups in the 2 s after the menu closed"
    [ "$idle" -le 2 ] || fail "the refresh ran on after the menu closed ($idle wakeups in 2 s)"
done

qm_quit_by_last_item 1 my_db
echo "$qm_host: quit exited 0; the server runs on; screenshots in $out"
