#!/usr/bin/env bash
# The real tray executable in a real desktop from Debian under Xvfb, each on
# its own display and session bus: xfce4-panel with xfwm4, lxqt-panel with
# openbox, mate-panel with marco, Cinnamon with xapp-sn-watcher, or GNOME
# Shell with the AppIndicator extension. Run in both orders people meet:
# the panel first and the monitor started after it (from a terminal, the
# application menu), or the monitor first and the panel after it (login).
# Driven as a user would, with xdotool:
#   - the monitor ends up as the panel's registered StatusNotifierItem, and
#     no XEmbed icon of it is left on the screen;
#   - right and left clicks open a menu with the exact texts (instances
#     "my_db" and "R&D"), the panel's, or where the panel leaves a left
#     click to the monitor (lxqt-panel 1.2, mate-panel 1.26, Cinnamon),
#     the monitor's at the pointer;
#   - the open menu follows a server started from outside;
#   - choosing the item brings up the alert in front, and Return starts the
#     server;
#   - the monitor is idle within half a second of the menu closing (its
#     main thread's wakeups counted from /proc);
#   - Quit ends it with status 0.
# In GNOME, with the shell up first, the monitor is started 5 times over
# (QM_GNOME_STARTS), and every start must open the menu: the extension once
# dropped an item one start in five. What the monitor does when a host drops
# its item is proven by dropped_item_e2e.sh with a watcher that drops it on
# purpose; these starts check that the shell itself keeps it. Screenshots
# are saved.
#
#   panel_e2e.sh HOST ORDER MONITOR QUENDRALCTL DEMO_SERVER OUTPUT_DIR
#   HOST: xfce | lxqt | mate | cinnamon | gnome
#   ORDER: panel-first | monitor-first
set -euo pipefail
if [ -z "${QM_PANEL_INNER:-}" ]; then
    work=$(mktemp -d /tmp/quendral-panel.XXXXXX)
    qm_pids=()
    . "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
    qm_start_xvfb "$work/xvfb.log" 1280x800 || { echo "FAIL: Xvfb did not start" >&2; exit 1; }
    # The desktop's settings (dconf, started by the session bus) and caches
    # live in the test's own folders: set before the bus starts.
    mkdir -p "$work/config" "$work/data" "$work/cache" "$work/run"
    chmod 700 "$work/run"
    export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache \
        XDG_RUNTIME_DIR=$work/run
    status=0
    QM_PANEL_INNER=$work dbus-run-session -- "$0" "$@" || status=$?
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
    exit $status
fi
host=$1 order=$2 monitor=$3 ctl=$4 demo=$5 out=$6/$1-$2
work=$QM_PANEL_INNER
mkdir -p "$out"
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
. "$(dirname "$0")/tray_item.sh"
qm_host="$host, $order"
# Desktops start helpers of their own through the session bus, not as
# children of ours: every process of this session bus goes at the end.
cleanup() {
    qm_cleanup
    qm_end_session_processes
}
trap cleanup EXIT
shot() { import -window root "$out/$1.png"; }

qm_make_installation
export QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 LANG=C.UTF-8 QT_QPA_PLATFORM=xcb

# Who draws the menu on a left click: the panel, or, where the panel never
# reads ItemIsMenu, asks the monitor to activate instead and shows nothing
# when that is refused (lxqt-panel 1.2, mate-panel 1.26, Cinnamon's xapp-sn-watcher 1.6), the
# monitor, its
# menu drawn by Qt at the pointer.
left_click_menu=panel
start_panel() {
    case $host in
    xfce)
        xfwm4 --compositor=off >"$work/wm.log" 2>&1 &
        qm_pids+=($!)
        sleep 1
        xfce4-panel >"$work/panel.log" 2>&1 &
        qm_pids+=($!)
        ;;
    lxqt)
        left_click_menu=monitor
        mkdir -p "$XDG_CONFIG_HOME/lxqt"
        cat >"$XDG_CONFIG_HOME/lxqt/panel.conf" <<'CONF'
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
    mate)
        left_click_menu=monitor
        # One panel along the top with the notification area in it.
        dconf load /org/mate/panel/ <<'CONF'
[general]
toplevel-id-list=['top']
object-id-list=['tray']

[toplevels/top]
orientation='top'
size=32
expand=true

[objects/tray]
object-type='applet'
applet-iid='NotificationAreaAppletFactory::NotificationArea'
toplevel-id='top'
position=0
panel-right-stick=true
CONF
        marco --no-composite >"$work/wm.log" 2>&1 &
        qm_pids+=($!)
        sleep 1
        mate-panel >"$work/panel.log" 2>&1 &
        qm_pids+=($!)
        ;;
    cinnamon)
        left_click_menu=monitor
        # The watcher serves only the desktops its settings name.
        export XDG_CURRENT_DESKTOP=X-Cinnamon XDG_SESSION_DESKTOP=cinnamon
        dbus-update-activation-environment DISPLAY XDG_CURRENT_DESKTOP XDG_SESSION_DESKTOP \
            XDG_CONFIG_HOME XDG_DATA_HOME XDG_CACHE_HOME XDG_RUNTIME_DIR
        gsettings set org.cinnamon enabled-applets \
            "['panel1:right:0:systray@cinnamon.org:0', 'panel1:right:1:xapp-status@cinnamon.org:1']"
        LIBGL_ALWAYS_SOFTWARE=1 cinnamon --replace >"$work/panel.log" 2>&1 &
        qm_pids+=($!)
        /usr/libexec/xapps/sn-watcher/xapp-sn-watcher >"$work/watcher.log" 2>&1 &
        qm_pids+=($!)
        ;;
    gnome)
        # The shell wants a system bus: a private one.
        cat >"$work/system.conf" <<CONF
<busconfig><type>system</type><listen>unix:path=$work/system_bus</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_type="method_call"/><allow send_type="signal"/><allow send_type="method_return"/>
<allow send_type="error"/><allow receive_type="method_call"/><allow receive_type="signal"/>
<allow receive_type="method_return"/><allow receive_type="error"/></policy></busconfig>
CONF
        dbus-daemon --config-file="$work/system.conf" --nofork --nopidfile >"$work/system-bus.log" 2>&1 &
        qm_pids+=($!)
        qm_until 5 test -S "$work/system_bus" || fail "no system bus for the shell"
        export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/system_bus XDG_CURRENT_DESKTOP=GNOME
        gsettings set org.gnome.shell disable-user-extensions false
        gsettings set org.gnome.shell enabled-extensions "['ubuntu-appindicators@ubuntu.com']"
        LIBGL_ALWAYS_SOFTWARE=1 gnome-shell --x11 --replace >"$work/panel.log" 2>&1 &
        qm_pids+=($!)
        ;;
    *) fail "unknown panel $host" ;;
    esac
}
# The host is up: a StatusNotifierWatcher with a host registered.
host_up() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        IsStatusNotifierHostRegistered 2>/dev/null | grep -q true
}
start_monitor() {
    "$monitor" >>"$work/monitor.log" 2>&1 &
    monitor_pid=$!
    qm_pids+=($monitor_pid)
}

# The icon: the blue disc of the Q, found in the panel along the top or the
# bottom of the screen.
icon_center() {
    import -window root "$work/find.png"
    local box band open
    # A panel's own blue specks are opened away; GNOME's icon is drawn too
    # small for that and is taken as it is.
    for band in 0 760; do
        for open in "" "-morphology Open Square:1"; do
            # shellcheck disable=SC2086
            box=$(convert "$work/find.png" -crop "1280x40+0+$band" +repage -fill black -fuzz 5% \
                +opaque '#1f5fa8' $open -trim -format '%w %h %X %Y' info: 2>/dev/null) || continue
            read -r w h x y <<<"$box"
            [ "$w" -ge 8 ] && [ "$w" -le 40 ] && [ "$h" -ge 8 ] && [ "$h" -le 40 ] || continue
            echo "$((${x#+} + w / 2)) $((band + ${y#+} + h / 2))"
            return 0
        done
    done
    return 1
}
icon_shown() { icon_center >/dev/null; }
registered() { qm_find_item 2>/dev/null; }
qm_window() { xdotool search --onlyvisible --classname '^quendral-monitor$' 2>/dev/null | head -1; }

# Where a menu opens: below an icon along the top, above one along the
# bottom, to the icon's left; taken without the panel, whose clock moves.
menu_region() {
    local left=$((icon_x > 340 ? icon_x - 340 : 0)) top=44
    [ "$icon_y" -lt 400 ] || top=$((800 - 44 - 300))
    echo "380x300+$left+$top"
}
take_closed_picture() {
    sleep 0.5
    import -window root "$work/screen.png"
    convert "$work/screen.png" -crop "$(menu_region)" +repage "$work/closed.png"
}
# A menu is open when that region is no longer what it was with none.
menu_open() {
    import -window root "$work/screen.png"
    convert "$work/screen.png" -crop "$(menu_region)" +repage "$work/now.png"
    local d
    d=$(compare -metric AE -fuzz 8% "$work/closed.png" "$work/now.png" null: 2>&1 || true)
    [ "${d%% *}" -gt 3000 ] 2>/dev/null
}
menu_closed() { ! menu_open; }
open_menu() { # BUTTON
    xdotool mousemove "$icon_x" "$icon_y" click "$1"
    qm_until 5 menu_open
}
close_menu() {
    xdotool key Escape
    qm_until 5 menu_closed
}

# The monitor and the panel, in the order asked for; the monitor ends up as
# the panel's registered item, with no XEmbed icon of its own left.
if [ "$order" = monitor-first ]; then
    start_monitor
    sleep 1
    start_panel
    qm_until 90 host_up || fail "the panel registered no status notifier host"
else
    start_panel
    qm_until 90 host_up || fail "the panel registered no status notifier host"
    sleep 2
    start_monitor
fi
if [ "$host" = gnome ]; then
    # The shell starts in its overview: left as a user does, with Escape,
    # once the shell has put it up.
    overview() {
        gdbus call --session --dest org.gnome.Shell --object-path /org/gnome/Shell \
            --method org.freedesktop.DBus.Properties.Get org.gnome.Shell OverviewActive 2>/dev/null |
            grep -q "$1"
    }
    leave_overview() { overview false || { xdotool key Escape && sleep 0.5 && overview false; }; }
    qm_until 30 overview true || true
    qm_until 30 leave_overview || fail "the shell stayed in its overview"
fi
qm_until 30 registered || fail "the monitor is not the panel's registered item"
qm_until 30 icon_shown || fail "the icon did not appear in the panel"
sleep 1
[ -z "$(qm_window)" ] || fail "a window of the monitor's own (an XEmbed icon) is on the screen"
read -r icon_x icon_y <<<"$(icon_center)"
echo "$qm_host: the monitor is the panel's registered item ($qm_item_bus), icon at $icon_x,$icon_y"
shot panel
take_closed_picture
expected=$qm_expected_labels

# Both buttons open the menu, with the exact texts.
check_clicks() {
    open_menu 3 || fail "a right click opened no menu"
    sleep 0.5
    menu_open || fail "the menu closed by itself after a right click"
    [ "$(qm_labels)" = "$expected" ] || fail "menu texts: $(qm_labels)"
    [ -z "$(qm_window)" ] || fail "a right click showed a window of the monitor's own"
    close_menu || fail "Escape did not close the menu after a right click"
    open_menu 1 || fail "a left click opened no menu"
    sleep 0.5
    menu_open || fail "the menu closed by itself after a left click"
    [ "$(qm_labels)" = "$expected" ] || fail "menu texts after a left click: $(qm_labels)"
    if [ "$left_click_menu" = panel ]; then
        [ -z "$(qm_window)" ] || fail "a left click showed a window of the monitor's own"
    else
        [ -n "$(qm_window)" ] || fail "a left click opened a menu that is not the monitor's"
    fi
}

# GNOME's extension once dropped one item in five started after the shell:
# every one of several starts must open the menu.
if [ "$host" = gnome ] && [ "$order" = panel-first ]; then
    starts=${QM_GNOME_STARTS:-5}
    for i in $(seq 1 "$starts"); do
        kill "$monitor_pid"
        wait "$monitor_pid" 2>/dev/null || true
        gone() { ! registered; }
        qm_until 10 gone || fail "the item stayed registered after the monitor ended"
        start_monitor
        qm_until 15 registered || fail "start $i: the monitor is not the shell's registered item"
        qm_until 15 icon_shown || fail "start $i: the icon did not appear"
        sleep 0.5
        check_clicks
        close_menu || fail "start $i: Escape did not close the menu"
        grep -q "initalizing proxy" "$work/panel.log" && fail "start $i: the shell dropped the item"
    done
    echo "$qm_host: $starts starts after the shell, every one registered and opened its menu"
fi

check_clicks
shot menu-left-click
echo "$qm_host: right and left clicks open the menu ($left_click_menu draws it on a left click), texts exact"
qm_check_left_click_menu_follows
follows() { qm_labels | grep -qx "Stop Instance 'my_db'"; }

# Open by a right click: the menu follows a server started from outside.
open_menu 3 || fail "the menu did not open again"
"$ctl" start my_db --wait 10 >/dev/null || fail "quendralctl start"
qm_until 3 follows || fail "the open menu did not follow the start"
sleep 0.5
shot menu-follows
echo "$qm_host: the open menu follows a server started from outside"
close_menu || fail "Escape did not close the menu"
"$ctl" stop my_db --wait 10 >/dev/null || fail "quendralctl stop"

# Choosing the first item (R&D) brings up the alert in front; Return starts.
open_menu 3 || fail "the menu did not open"
sleep 0.3
xdotool key Down Return
qm_until 5 sh -c '[ -n "$(xdotool search --onlyvisible --classname "^quendral-monitor$" 2>/dev/null)" ]' ||
    fail "choosing the item showed no alert"
sleep 0.5
alert_in_front() {
    local active
    active=$(xprop -id "$(xdotool getactivewindow 2>/dev/null)" WM_CLASS 2>/dev/null || true)
    [[ $active == *'"quendral-monitor"'* ]]
}
qm_until 3 alert_in_front || fail "the alert is not in front"
shot alert
xdotool key Return
qm_until 10 test -s "$work/home/R&D/quendral.lck" || fail "Return in the alert did not start the server"
echo "$qm_host: the alert came up and Return started the server"

# Closed, by either button's menu: the refresh ends at once. The refresh is
# counted from the click, not from when the screenshots show the menu.
for button in 1 3; do
    xdotool mousemove "$icon_x" "$icon_y" click "$button"
    busy=$(qm_wakeups "$monitor_pid" 2)
    qm_until 5 menu_open || fail "the menu did not open"
    [ "$busy" -ge 2 ] || fail "the open menu was not refreshed ($busy wakeups in 2 s)"
    close_menu || fail "Escape did not close the menu"
    idle=$(qm_wakeups "$monitor_pid" 2)
    echo "$qm_host: button $button: $busy wakeups in 2 s while open, $idle in the 2 s after it closed"
    [ "$idle" -le 2 ] || fail "the refresh ran on after the menu closed ($idle wakeups in 2 s)"
done

# Quit, the menu's last item, clicked: the monitor exits 0 and the server
# runs on.
open_menu 3 || fail "the menu did not open"
sleep 0.5
menu_open || fail "the menu closed by itself"
box=$(compare -fuzz 8% "$work/closed.png" "$work/now.png" -compose src -highlight-color white \
    -lowlight-color black png:- 2>/dev/null | convert - -trim -format '%w %h %X %Y' info:) || true
read -r menu_w menu_h menu_x menu_y <<<"$box"
IFS=+ read -r _ region_x region_y <<<"$(menu_region)"
xdotool mousemove $((region_x + ${menu_x#+} + menu_w / 3)) $((region_y + ${menu_y#+} + menu_h - 20)) click 1
quit_status=0
qm_until 10 sh -c "! kill -0 $monitor_pid 2>/dev/null" || fail "Quit did not end the monitor"
wait "$monitor_pid" || quit_status=$?
[ "$quit_status" -eq 0 ] || fail "quit exited with $quit_status"
"$ctl" status "R&D" >/dev/null || fail "quitting stopped the server"
echo "$qm_host: quit exited 0; the server runs on; screenshots in $out"
