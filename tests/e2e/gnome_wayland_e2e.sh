#!/usr/bin/env bash
# The real tray executable in GNOME Shell's Wayland session (headless, on a
# virtual monitor) with the AppIndicator extension, on session and system
# buses of the test's own. The shell is the compositor, the watcher and the
# panel at once. Input comes through Mutter's remote desktop interface,
# screenshots and the list of windows from the shell's own interfaces
# (gnome_shell_tool). Mutter 43 gives the focus to a newly mapped window
# whether or not it brings a token, except in its strict mode while a
# terminal has the focus; there the alert stays behind even when activated
# with the token the extension hands over (a startup-notification id, which
# Mutter 43's xdg-activation leaves unused: tried). So the focus is checked
# with another program's window focused first, and the token in the
# monitor's Wayland protocol log.
#
# Two orders, as users meet them:
#   panel-first    the shell up with its host registered; then the shell (so
#                  its watcher) stopped (SIGSTOP) for 3.5 s while the monitor
#                  starts, as a busy session answers
#   monitor-first  the monitor started as soon as the compositor's socket is
#                  there, before the extension's watcher (login)
# Checks, in both: the item is registered and the icon appears; right and
# left click open the menu the shell draws, with exact texts; with another
# program's window focused, "Start Instance" brings up the alert with the
# keyboard focus, activated with the very token the shell sent with the
# click (the monitor's Wayland protocol log), and Return starts the server;
# Escape cancels a stop; the monitor is idle once the menu closed; Quit
# exits 0.
#
#   gnome_wayland_e2e.sh panel-first|monitor-first MONITOR QUENDRALCTL DEMO_SERVER
#       GNOME_SHELL_TOOL OUTPUT_DIR
set -euo pipefail
if [ -z "${QM_GNOME_WL_INNER:-}" ]; then
    for p in gnome-shell pipewire weston-flower; do
        command -v "$p" >/dev/null || { echo "FAIL: $p is not installed" >&2; exit 1; }
    done
    work=$(mktemp -d /tmp/quendral-gnome-wl.XXXXXX)
    # The shell's settings (dconf, started by the session bus) and caches live
    # in the test's own folders: set before the bus starts.
    mkdir -p "$work/config" "$work/data" "$work/cache" "$work/run" "$work/user"
    chmod 700 "$work/run"
    export HOME=$work/user XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data \
        XDG_CACHE_HOME=$work/cache XDG_RUNTIME_DIR=$work/run
    # The shell wants a system bus (logind's): a private one.
    cat >"$work/system.conf" <<CONF
<busconfig><type>system</type><listen>unix:path=$work/system_bus</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_type="method_call"/><allow send_type="signal"/><allow send_type="method_return"/>
<allow send_type="error"/><allow receive_type="method_call"/><allow receive_type="signal"/>
<allow receive_type="method_return"/><allow receive_type="error"/></policy></busconfig>
CONF
    dbus-daemon --config-file="$work/system.conf" --nofork --nopidfile >"$work/system-bus.log" 2>&1 &
    system_bus=$!
    for _ in $(seq 50); do [ -S "$work/system_bus" ] && break; sleep 0.1; done
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/system_bus
    status=0
    QM_GNOME_WL_INNER=$work dbus-run-session -- "$0" "$@" || status=$?
    kill "$system_bus" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$work"
    exit $status
fi
order=$1 monitor=$2 ctl=$3 demo=$4 tool=$5 out=$6/gnome-wayland-$1
work=$QM_GNOME_WL_INNER
mkdir -p "$out"
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh" # qm_until
. "$(dirname "$0")/tray_item.sh"
qm_host="gnome wayland, $order"
cleanup() {
    qm_cleanup
    qm_end_session_processes
}
trap cleanup EXIT
shot() { "$tool" shot "$out/$1.png"; }

qm_make_installation
export QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 LANG=C.UTF-8 XDG_CURRENT_DESKTOP=GNOME
unset DISPLAY
pipewire >"$work/pipewire.log" 2>&1 & # the remote desktop's screen cast
qm_pids+=($!)
dconf write /org/gnome/shell/enabled-extensions "['ubuntu-appindicators@ubuntu.com']"
# No notification banners over the screen the test compares.
dconf write /org/gnome/desktop/notifications/show-banners false
gnome-shell --wayland --headless --virtual-monitor 1280x800 --no-x11 >"$work/shell.log" 2>&1 &
shell=$!
qm_pids+=($shell)
qm_until 30 test -S "$XDG_RUNTIME_DIR/wayland-0" || fail "the shell's compositor did not start"
export WAYLAND_DISPLAY=wayland-0 QT_QPA_PLATFORM=wayland

# The tokens the shell hands to the item before a click.
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
watcher_has_host() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        IsStatusNotifierHostRegistered 2>/dev/null | grep -q true
}
if [ "$order" = monitor-first ]; then
    start_monitor
else
    qm_until 60 watcher_has_host || fail "the shell registered no host with its watcher"
    kill -STOP "$shell"
    start_monitor
    sleep 3.5
    kill -CONT "$shell"
    echo "$qm_host: the shell (its watcher) answered nothing for 3.5 s while the monitor started"
fi
qm_until 60 qm_find_item || fail "the monitor is not registered as a status notifier item"
expected=$qm_expected_labels

# One pointer and keyboard for the whole session, fed through a pipe; the
# first key of a new remote desktop session is lost: Shift goes first.
mkfifo "$work/input"
"$tool" input <"$work/input" >"$work/input.log" 2>&1 &
qm_pids+=($!)
exec 7>"$work/input"
send() { echo "$*" >&7; sleep 0.4; }
click() { send click "$@"; }
key() { send key "$1"; } # X keysyms: Return 0xff0d, Escape 0xff1b
key 0xffe1
# The shell starts in its overview: left as a user does, with Escape.
overview() {
    gdbus call --session --dest org.gnome.Shell --object-path /org/gnome/Shell \
        --method org.freedesktop.DBus.Properties.Get org.gnome.Shell OverviewActive 2>/dev/null |
        grep -q "$1"
}
leave_overview() { overview false || { key 0xff1b && sleep 0.5 && overview false; }; }
qm_until 30 leave_overview || fail "the shell stayed in its overview"

# The icon: the blue disc of the Q, in the top bar. Found once the remote
# desktop's indicator is there, which moves it.
icon_center() {
    "$tool" shot "$work/find.png" 2>/dev/null || return 1
    local box
    box=$(convert "$work/find.png" -crop 1280x32+0+0 +repage -fill black -fuzz 5% \
        +opaque '#1f5fa8' -trim -format '%w %h %X %Y' info: 2>/dev/null) || return 1
    read -r w h x y <<<"$box"
    [ "$w" -ge 8 ] && [ "$w" -le 40 ] && [ "$h" -ge 8 ] || return 1
    echo "$((${x#+} + w / 2)) $((${y#+} + h / 2))"
}
icon_shown() { icon_center >/dev/null; }
qm_until 30 icon_shown || fail "the icon did not appear in the top bar"
sleep 1
read -r icon_x icon_y <<<"$(icon_center)"
echo "$qm_host: registered; the icon at $icon_x,$icon_y"
shot panel

# The window with the keyboard focus, by its class.
focused() { "$tool" windows | awk '$3 == "focused" { print $2 }'; }
focused_is() { [ "$(focused)" = "$1" ]; }

# Below the icon, where the shell's menu opens.
region_x=$((icon_x - 350))
crop="$((1280 - region_x))x400+$region_x+32"
# What is there with the menu closed, taken before each opening.
take_empty() {
    "$tool" shot "$work/empty-full.png"
    convert "$work/empty-full.png" -crop "$crop" +repage "$work/empty.png"
}
menu_open() {
    "$tool" shot "$work/now-full.png" 2>/dev/null || return 1
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
    menu_x=$((region_x + ${menu_x#+})) menu_y=$((32 + ${menu_y#+}))
}
open_menu() { take_empty && click "$icon_x" "$icon_y" "$1" && qm_until 5 menu_open; }
close_menu() { key 0xff1b && qm_until 5 menu_closed; }
# Clicks the menu's first item (0) or its last (-1).
click_item() {
    menu_open && menu_box
    local y=$((menu_y + 24))
    [ "$1" -ge 0 ] || y=$((menu_y + menu_h - 26))
    click $((menu_x + 80)) "$y" 1
}

for button in 3 1; do
    name=right
    [ "$button" = 1 ] && name=left
    open_menu "$button" || fail "a $name click opened no menu"
    sleep 0.5
    shot "menu-$name-click"
    [ "$(qm_labels)" = "$expected" ] || fail "menu texts after a $name click: $(qm_labels)"
    [ "$(focused)" != quendral-monitor ] || fail "a $name click showed a window of the monitor's own"
    echo "$qm_host: a $name click opens the menu the shell draws, texts exact"
    close_menu || fail "Escape did not close the menu"
    # The shell says when its menu closed: the refresh ends with it.
    idle=$(qm_wakeups "$monitor_pid" 2)
    echo "$qm_host: $idle wakeups in the 2 s after the menu closed"
    [ "$idle" -le 2 ] || fail "the refresh ran on after the menu closed ($idle wakeups in 2 s)"
done

# Another program's window has the focus.
weston-flower >"$work/other.log" 2>&1 &
qm_pids+=($!)
other_focused() { focused_is org.freedesktop.weston.flower; }
qm_until 10 other_focused || fail "the other program's window did not take the focus"
shot other-window
echo "$qm_host: the focus is on another program's window"

tokens_before=$(grep -c '^   string' "$work/tokens.log" || true)
activations_before=$(grep -c 'xdg_activation_v1@[0-9]*\.activate(' "$work/protocol.log" || true)
open_menu 3 || fail "the menu did not open"
sleep 0.3
click_item 0
alert_focused() { focused_is quendral-monitor; }
alert_shown() { "$tool" windows | grep -q '^[^ ]* quendral-monitor '; }
qm_until 5 alert_shown || fail "choosing the item brought up no alert"
token=$(grep '^   string' "$work/tokens.log" | sed -n "$((tokens_before + 1)),\$p" | tail -1 |
    sed -E 's/^   string "(.*)"$/\1/')
used=$(grep -o 'xdg_activation_v1@[0-9]*\.activate("[^"]*"' "$work/protocol.log" |
    sed -n "$((activations_before + 1))p" | sed -E 's/.*activate\("(.*)"/\1/')
[ -n "$token" ] || fail "the shell handed over no activation token with the click"
[ "$used" = "$token" ] ||
    fail "the alert was activated with '$used', not the token the shell sent ('$token')"
qm_until 5 alert_focused || fail "the alert did not come up with the focus (focused: $(focused))"
sleep 0.5
shot alert
echo "$qm_host: the alert took the focus with the token the shell sent ($token)"
key 0xff0d
qm_until 10 test -s "$work/home/R&D/quendral.lck" || fail "Return in the alert did not start the server"
"$ctl" start "R&D" --wait 10 >/dev/null || fail "the server of R&D did not come up"
echo "$qm_host: Return started the server"

# Escape cancels a stop.
open_menu 3 || fail "the menu did not open"
sleep 0.3
click_item 0
qm_until 5 alert_focused || fail "the stop's alert did not come up with the focus"
shot stop-alert
key 0xff1b
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
