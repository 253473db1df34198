#!/usr/bin/env bash
# The real tray executable in Plasma's Wayland session: KWin on a virtual
# output, kded5 serving the StatusNotifierWatcher, plasmashell's panel, on a
# session bus of the test's own. Input comes through KWin's fake input
# protocol (kwin_input), screenshots through KWin's ScreenShot2 interface
# (kwin_screenshot); both are granted to those two programs by desktop files,
# with KWin's permission checks on (without them KWin grants no activation
# tokens). Neither compositor here refuses the focus to a newly mapped window
# that brings no token: KWin 5.27 gives it even at its strictest focus
# stealing prevention (tried: a second program's window takes it from the
# first). What shows that the token is used is the monitor's Wayland protocol
# log: the alert is activated with the very token Plasma handed over with
# the click.
#
# Two orders, as users meet them:
#   panel-first    the panel up; the watcher (kded5) stopped (SIGSTOP) for
#                  3.5 s while the monitor starts, as a busy kded5 answers
#   monitor-first  the monitor first, then kded5 and the panel (login)
# Checks, in both: the item is registered and the icon appears; right and
# left click open the menu Plasma draws, with exact texts; with another
# program's window focused, "Start Instance" brings up the alert with the
# keyboard focus, activated with the very token Plasma sent (the monitor's
# Wayland protocol log), and Return starts the server; Escape cancels a stop;
# the monitor is idle once the menu closed; Quit exits 0.
#
#   plasma_wayland_e2e.sh panel-first|monitor-first MONITOR QUENDRALCTL DEMO_SERVER
#       KWIN_INPUT KWIN_SCREENSHOT OUTPUT_DIR
set -euo pipefail
if [ -z "${QM_PLASMA_WL_INNER:-}" ]; then
    for p in kwin_wayland plasmashell kded5 kbuildsycoca5 weston-flower; do
        command -v "$p" >/dev/null || { echo "FAIL: $p is not installed" >&2; exit 1; }
    done
    work=$(mktemp -d /tmp/quendral-plasma-wl.XXXXXX)
    status=0
    QM_PLASMA_WL_INNER=$work dbus-run-session -- "$0" "$@" || status=$?
    rm -rf "$work"
    exit $status
fi
order=$1 monitor=$2 ctl=$3 demo=$4 input=$5 screenshot=$6 out=$7/plasma-wayland-$1
work=$QM_PLASMA_WL_INNER
mkdir -p "$out"
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh" # qm_until
. "$(dirname "$0")/tray_item.sh"
qm_host="plasma wayland, $order"
cleanup() {
    qm_cleanup
    qm_end_session_processes
}
trap cleanup EXIT
shot() { "$screenshot" "$out/$1.png"; }

qm_make_installation
mkdir -p "$work/config" "$work/data/applications" "$work/cache" "$work/run"
chmod 700 "$work/run"
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache \
    XDG_RUNTIME_DIR=$work/run QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 LANG=C.UTF-8
unset DISPLAY

# KWin gives its fake input and its screenshots only to the programs whose
# desktop files ask for them, found by the path they run from.
cat >"$work/data/applications/qm-test-input.desktop" <<EOF
[Desktop Entry]
Type=Application
Name=Test input
Exec=$input
NoDisplay=true
X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input
EOF
cat >"$work/data/applications/qm-test-screenshot.desktop" <<EOF
[Desktop Entry]
Type=Application
Name=Test screenshots
Exec=$screenshot
NoDisplay=true
X-KDE-DBUS-Restricted-Interfaces=org.kde.KWin.ScreenShot2
EOF
kbuildsycoca5 >/dev/null 2>&1

# kwin_wayland carries a file capability that a container may refuse: a copy
# of it runs without.
cp "$(command -v kwin_wayland)" "$work/kwin_wayland"
"$work/kwin_wayland" --virtual --width 1280 --height 800 --no-lockscreen --socket qm-wayland \
    >"$work/kwin.log" 2>&1 &
qm_pids+=($!)
qm_until 20 test -S "$XDG_RUNTIME_DIR/qm-wayland" || fail "KWin did not start"
export WAYLAND_DISPLAY=qm-wayland QT_QPA_PLATFORM=wayland
# Programs the bus starts (kded5) get the session's display.
dbus-update-activation-environment QT_QPA_PLATFORM=wayland WAYLAND_DISPLAY=qm-wayland \
    XDG_RUNTIME_DIR="$XDG_RUNTIME_DIR" XDG_CONFIG_HOME="$XDG_CONFIG_HOME" \
    XDG_DATA_HOME="$XDG_DATA_HOME" XDG_CACHE_HOME="$XDG_CACHE_HOME"

# The tokens the panel hands to the item before a click.
dbus-monitor --session "type='method_call',interface='org.kde.StatusNotifierItem',member='ProvideXdgActivationToken'" \
    >"$work/tokens.log" 2>&1 &
qm_pids+=($!)

# See wayland_e2e.sh: Qt's Wayland plugin leaves its display objects at exit.
[ -z "${ASAN_OPTIONS:-}" ] || export ASAN_OPTIONS="$ASAN_OPTIONS:detect_leaks=0"
start_monitor() {
    # The monitor's side of the Wayland protocol, where its activations show.
    WAYLAND_DEBUG=client "$monitor" >"$work/monitor.log" 2>"$work/protocol.log" &
    monitor_pid=$!
    qm_pids+=($monitor_pid)
}
start_watcher() {
    gdbus call --session --dest org.kde.kded5 --object-path /kded \
        --method org.kde.kded5.loadModule statusnotifierwatcher >/dev/null ||
        fail "the status notifier watcher could not be loaded"
}
start_panel() {
    plasmashell >"$work/panel.log" 2>&1 &
    qm_pids+=($!)
}
watcher_has_host() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        IsStatusNotifierHostRegistered 2>/dev/null | grep -q true
}
if [ "$order" = monitor-first ]; then
    start_monitor
    start_watcher
    start_panel
else
    start_watcher
    start_panel
    qm_until 60 watcher_has_host || fail "plasmashell registered no host with the watcher"
    kded=$(gdbus call --session --dest org.freedesktop.DBus --object-path / \
        --method org.freedesktop.DBus.GetConnectionUnixProcessID org.kde.StatusNotifierWatcher |
        grep -o '[0-9]\+' | tail -1)
    kill -STOP "$kded"
    start_monitor
    sleep 3.5
    kill -CONT "$kded"
    echo "$qm_host: the watcher (kded5, $kded) answered nothing for 3.5 s while the monitor started"
fi
qm_until 30 qm_find_item || fail "the monitor is not registered as a status notifier item"
expected=$qm_expected_labels

# The icon: the blue disc of the Q, in the panel along the bottom.
icon_center() {
    "$screenshot" "$work/find.png" 2>/dev/null || return 1
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
echo "$qm_host: registered; the icon at $icon_x,$icon_y"
shot panel

# The window KWin has given the focus, and where a window of a class is, as a
# KWin script sees them.
cat >"$work/windows.js" <<'EOF'
var c = workspace.activeClient;
print("qm-active " + (c ? c.resourceClass + " " + c.pid : "none"));
var all = workspace.clientList();
for (var i = 0; i < all.length; ++i) {
    var g = all[i].frameGeometry;
    print("qm-window " + all[i].resourceClass + " " + all[i].pid + " " + Math.round(g.x + g.width / 2) + " " +
          Math.round(g.y + g.height / 2));
}
EOF
windows() {
    local id
    id=$(gdbus call --session --dest org.kde.KWin --object-path /Scripting \
        --method org.kde.kwin.Scripting.loadScript "$work/windows.js" qm-windows | grep -o '[0-9]\+')
    gdbus call --session --dest org.kde.KWin --object-path "/$id" --method org.kde.kwin.Script.run \
        >/dev/null
    gdbus call --session --dest org.kde.KWin --object-path /Scripting \
        --method org.kde.kwin.Scripting.unloadScript qm-windows >/dev/null
    sleep 0.2
    # What the last run printed: from its last "qm-active" line on.
    grep -o 'qm-\(active\|window\) .*' "$work/kwin.log" | tac | sed '/^qm-active/q' | tac
}
active_window() { windows | sed -n 's/^qm-active //p'; }
active_is() { [ "$(active_window)" = "$1" ]; }

# One pointer and keyboard for the whole session, fed through a pipe.
mkfifo "$work/input"
"$input" <"$work/input" >"$work/input.log" 2>&1 &
qm_pids+=($!)
exec 7>"$work/input"
send() { echo "$*" >&7; sleep 0.4; }
click() { send click "$@"; }
key() { # Linux input codes: Return 28, Escape 1
    send key "$1"
}

# Above the icon, where Plasma's menu opens.
region_x=$((icon_x - 400))
[ "$region_x" -ge 0 ] || region_x=0
crop="400x400+$region_x+$((icon_y - 420))"
# What is there with the menu closed, taken before each opening: other
# windows come and go.
take_empty() {
    "$screenshot" "$work/empty-full.png"
    convert "$work/empty-full.png" -crop "$crop" +repage "$work/empty.png"
}
menu_open() {
    "$screenshot" "$work/now-full.png" 2>/dev/null || return 1
    convert "$work/now-full.png" -crop "$crop" +repage "$work/now.png"
    local d
    d=$(compare -metric AE "$work/empty.png" "$work/now.png" null: 2>&1 || true)
    [ "${d%% *}" -gt 2000 ]
}
menu_closed() { ! menu_open; }
# The open menu's box on the screen: menu_x menu_y menu_w menu_h.
menu_box() {
    local box
    box=$(compare "$work/empty.png" "$work/now.png" -compose src -highlight-color white \
        -lowlight-color black png:- 2>/dev/null | convert - -trim -format '%w %h %X %Y' info:) ||
        true # compare's status says that the pictures differ, which they do
    read -r menu_w menu_h menu_x menu_y <<<"$box"
    menu_x=$((region_x + ${menu_x#+})) menu_y=$((icon_y - 420 + ${menu_y#+}))
}
open_menu() { take_empty && click "$icon_x" "$icon_y" "$1" && qm_until 5 menu_open; }
close_menu() { key 1 && qm_until 5 menu_closed; }
# Clicks the menu's first item (0) or its last (-1).
click_item() {
    menu_open && menu_box
    local y=$((menu_y + 11))
    [ "$1" -ge 0 ] || y=$((menu_y + menu_h - 12))
    click $((menu_x + 80)) "$y" 1
}

for button in 3 1; do
    name=right
    [ "$button" = 1 ] && name=left
    open_menu "$button" || fail "a $name click opened no menu"
    sleep 0.5
    shot "menu-$name-click"
    [ "$(qm_labels)" = "$expected" ] || fail "menu texts after a $name click: $(qm_labels)"
    [ "$(active_window)" != "quendral-monitor $monitor_pid" ] ||
        fail "a $name click showed a window of the monitor's own"
    echo "$qm_host: a $name click opens the menu Plasma draws, texts exact"
    close_menu || fail "Escape did not close the menu"
    # Plasma says when its menu closed: the refresh ends with it.
    idle=$(qm_wakeups "$monitor_pid" 2)
    echo "$qm_host: $idle wakeups in the 2 s after the menu closed"
    [ "$idle" -le 2 ] || fail "the refresh ran on after the menu closed ($idle wakeups in 2 s)"
done

# Another program's window has the focus, given by a click on it.
weston-flower >"$work/other.log" 2>&1 &
qm_pids+=($!)
other_window() { windows | grep '^qm-window ' | grep -v -e ' quendral-monitor ' -e 'plasmashell ' |
    head -1 | cut -d' ' -f2-; }
other_shown() { [ -n "$(other_window)" ]; }
qm_until 10 other_shown || fail "the other program's window did not appear"
read -r other_class other_pid other_x other_y <<<"$(other_window)"
echo "$qm_host: the other program's window ($other_class) mapped; KWin's focus: $(active_window)"
click "$other_x" "$other_y" 1
other_focused() { active_is "$other_class $other_pid"; }
qm_until 5 other_focused || fail "a click did not give the focus to the other program's window"
shot other-window
echo "$qm_host: the focus is on another program's window ($other_class)"

tokens_before=$(grep -c '^   string' "$work/tokens.log" || true)
activations_before=$(grep -c 'xdg_activation_v1@[0-9]*\.activate(' "$work/protocol.log" || true)
open_menu 3 || fail "the menu did not open"
sleep 0.3
click_item 0
alert_focused() { active_is "quendral-monitor $monitor_pid"; }
qm_until 5 alert_focused || fail "the alert did not come up with the focus (active: $(active_window))"
sleep 0.5
shot alert
token=$(grep '^   string' "$work/tokens.log" | sed -n "$((tokens_before + 1)),\$p" | tail -1 |
    sed -E 's/^   string "(.*)"$/\1/')
used=$(grep -o 'xdg_activation_v1@[0-9]*\.activate("[^"]*"' "$work/protocol.log" |
    sed -n "$((activations_before + 1))p" | sed -E 's/.*activate\("(.*)"/\1/')
[ -n "$token" ] || fail "Plasma handed over no activation token with the click"
[ "$used" = "$token" ] || fail "the alert was activated with '$used', not the token Plasma sent ('$token')"
echo "$qm_host: the alert took the focus with the token Plasma sent ($token)"
key 28
qm_until 10 test -s "$work/home/R&D/quendral.lck" || fail "Return in the alert did not start the server"
"$ctl" start "R&D" --wait 10 >/dev/null || fail "the server of R&D did not come up"
echo "$qm_host: Return started the server"

# Escape cancels a stop.
open_menu 3 || fail "the menu did not open"
sleep 0.3
click_item 0
qm_until 5 alert_focused || fail "the stop's alert did not come up with the focus"
shot stop-alert
key 1
alert_gone() { ! alert_focused; }
qm_until 5 alert_gone || fail "Escape did not close the stop's alert"
sleep 1
"$ctl" status "R&D" >/dev/null || fail "Escape in the stop's alert stopped the server"
echo "$qm_host: Escape cancelled the stop"

open_menu 3 || fail "the menu did not open"
sleep 0.3
click_item -1
qm_until 10 sh -c "! kill -0 $monitor_pid 2>/dev/null" || fail "Quit did not end the monitor"
status=0
wait "$monitor_pid" || status=$?
[ "$status" -eq 0 ] || fail "quit exited with $status"
"$ctl" status "R&D" >/dev/null || fail "quitting stopped the server"
echo "$qm_host: quit exited 0; the server runs on; screenshots in $out"
