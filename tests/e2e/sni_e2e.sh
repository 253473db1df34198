#!/usr/bin/env bash
# The real tray executable on a D-Bus session with a StatusNotifierItem
# watcher (status-notifier-watcher), talked to as a tray host talks to it:
# the host registers, reads the item's properties (a menu-only item, its
# category, title and icon pixmaps) and its exported menu, sends the menu's
# "opened"/"closed" events and clicks items. Checks the labels (a host draws
# "_" as a mnemonic marker), that the open menu follows a server's start and
# stops following once closed, that "Start" + Return in the alert starts the
# server, and that quitting exits 0. Runs inside its own dbus-run-session.
#
#   sni_e2e.sh MONITOR QUENDRALCTL DEMO_SERVER
set -euo pipefail
if [ -z "${QM_SNI_INNER:-}" ]; then
    QM_SNI_INNER=1 exec dbus-run-session -- "$0" "$@"
fi
monitor=$1 ctl=$2 demo=$3
work=$(mktemp -d /tmp/quendral-sni.XXXXXX)
qm_pids=()
. "$(dirname "$0")/../../scripts/lib/xdisplay.sh"
. "$(dirname "$0")/tray_item.sh"
cleanup() {
    "$ctl" --home "$work/home" stop "$work/home/R&D_x" --wait 5 >/dev/null 2>&1 || true
    for p in "${qm_pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    [ -f "$work/monitor.log" ] && tail -n 40 "$work/monitor.log" >&2
    exit 1
}

# One instance whose name holds both mnemonic characters.
inst="$work/home/R&D_x"
mkdir -p "$work/home/bin" "$inst"
cp "$demo" "$work/home/bin/quendral"
printf '[database]\n' >"$inst/quendral.ini"

qm_start_xvfb "$work/xvfb.log" || fail "Xvfb did not start" # for the alert
status-notifier-watcher >"$work/watcher.log" 2>&1 &
watcher_pid=$!
qm_pids+=($watcher_pid)
watcher_up() { gdbus introspect --session --dest org.kde.StatusNotifierWatcher \
    --object-path /StatusNotifierWatcher >/dev/null 2>&1; }
qm_until 10 watcher_up || fail "no StatusNotifierWatcher"
watcher() {
    gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
        --method "$@"
}
watcher org.kde.StatusNotifierWatcher.RegisterStatusNotifierHost org.quendral.TestHost >/dev/null

export XDG_CONFIG_HOME=$work/config QUENDRAL_HOME=$work/home QUENDRAL_DEMO_HTTP_PORT=0 LANG=C.UTF-8
QUENDRAL_MONITOR_TEST_ACTIVATE_GRACE_MS=1500 "$monitor" >"$work/monitor.log" 2>&1 &
monitor_pid=$!

item_name() {
    watcher org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
        RegisteredStatusNotifierItems | grep -o "'[^']*'" | head -1 | tr -d "'"
}
registered() { [ -n "$(item_name)" ]; }
qm_until 15 registered || { cat "$work/monitor.log"; fail "the monitor registered no item"; }
item=$(item_name)
item=${item%%[@/]*} # a bus name, possibly followed by the object path
echo "item registered as $item"
prop() {
    gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem "$1"
}
prop ToolTip | grep -q "'Tarnwick Quendral'" || fail "tool tip: $(prop ToolTip)"
# A menu-only item: hosts show its menu on a left click as on a right one.
[ "$(prop ItemIsMenu)" = "(<true>,)" ] || fail "ItemIsMenu: $(prop ItemIsMenu)"
[ "$(prop Category)" = "(<'ApplicationStatus'>,)" ] || fail "Category: $(prop Category)"
[ "$(prop Title)" = "(<'Quendral Monitor'>,)" ] || fail "Title: $(prop Title)"
[ "$(prop Id)" = "(<'quendral-monitor'>,)" ] || fail "Id: $(prop Id)"
[ "$(prop Status)" = "(<'Active'>,)" ] || fail "Status: $(prop Status)"
# The icon as pixmaps at the sizes panels draw, each width x height ARGB
# pixels in network byte order: the disc's opaque blue reads ff 1f 5f a8.
prop IconPixmap >"$work/pixmaps"
sizes=$(grep -oE '\(([0-9]+), [0-9]+, \[' "$work/pixmaps" | grep -oE '^\([0-9]+' | tr -d '(' | tr '\n' ' ')
for size in 16 22 24 32 48; do
    [[ " $sizes" == *" $size "* ]] || fail "no ${size}x$size pixmap (sizes: $sizes)"
done
bytes16=$(sed -E 's/\), \(/\n/g' "$work/pixmaps" | grep -E '^[^0-9]*16, 16,' | grep -o '0x' | wc -l)
[ "$bytes16" -eq $((16 * 16 * 4)) ] || fail "the 16x16 pixmap has $bytes16 bytes"
grep -q '0xff, 0x1f, 0x5f, 0xa8' "$work/pixmaps" || fail "no blue ARGB pixel in network byte order"
echo "item properties as a host reads them: menu-only, category, title, pixmaps $sizes"
menu_path=$(prop Menu | grep -o "'/[^']*'" | tr -d "'")
menu() {
    gdbus call --session --dest "$item" --object-path "$menu_path" --method "$@"
}
layout() { menu com.canonical.dbusmenu.GetLayout 0 'int32 -1' '@as []'; }
# "ID LABEL" for each item of the menu, in order ("-" for a separator).
items() {
    layout | grep -o "<([0-9]*, {[^}]*}" | sed -E \
        -e "s/^<\(([0-9]+), \{.*'type': <'separator'>.*/\1 -/" \
        -e "s/^<\(([0-9]+), \{.*'label': <\"([^\"]*)\">.*/\1 \2/" \
        -e "s/^<\(([0-9]+), \{.*'label': <'([^']*)'>.*/\1 \2/"
}
label_of() { items | sed -n "$(($1 + 1))p" | cut -d' ' -f2-; }
id_of() { items | sed -n "$(($1 + 1))p" | cut -d' ' -f1; }
event() { menu com.canonical.dbusmenu.Event "$1" "$2" '<int32 0>' 'uint32 0' >/dev/null; }

expected="Start Instance 'R_&D__x'
-
Open Diagnostic Messages
Open Quendral Dravinter
View Online Documentation
-
Start Quendral Monitor at Login
Quit Quendral Monitor"
actual=$(items | cut -d' ' -f2-)
[ "$actual" = "$expected" ] || fail "menu labels:
$actual"
# The states a host draws: disabled items, the check box, the shortcut.
layout | grep -qE "'label': <'Open Diagnostic Messages'>, 'enabled': <false>|'enabled': <false>, 'label': <'Open Diagnostic Messages'>|'enabled': <false>[^}]*'Open Diagnostic Messages'" ||
    fail "the log item is not disabled: $(layout)"
layout | grep -qE "'toggle-type': <'checkmark'>" || fail "no check box in $(layout)"
layout | grep -qE "'shortcut': <\[\['Control', 'Q'\]\]>" || fail "no shortcut in $(layout)"
echo "menu exported with the labels a host shows as the texts given"

# An opening that finds everything as it was sends the host no new layout:
# a burst of them made lxqt-panel close the menu it had just opened.
gdbus monitor --session --dest "$item" >"$work/signals.log" 2>&1 &
qm_pids+=($!)
sleep 0.5
for round in 1 2 3; do
    menu com.canonical.dbusmenu.AboutToShow 0 >/dev/null
    event 0 opened
    sleep 0.2
    event 0 closed
done
sleep 0.5
updates=$(grep -c 'LayoutUpdated' "$work/signals.log" || true)
[ "$updates" -eq 0 ] || fail "three openings sent $updates layout updates"
echo "openings send no layout updates"

# A host that sends Activate for a menu-only item (one that never reads
# ItemIsMenu) is refused, so that one that falls back on a refusal draws the
# menu itself. One that then draws no menu gets, on X11, the monitor's own,
# at the point.
activate() {
    gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
        --method org.kde.StatusNotifierItem.Activate 10 10 2>&1
}
xdotool mousemove 15 15 # the click the host reports, near the point it gives
refusal=$(activate) && fail "Activate was not refused: $refusal"
[[ $refusal == *NotSupported* ]] || fail "Activate failed otherwise: $refusal"
own_menu() { xdotool search --onlyvisible --classname '^quendral-monitor$' >/dev/null 2>&1; }
qm_until 5 own_menu || fail "a refused Activate that the host let be opened no menu"
eval "$(xdotool getwindowgeometry --shell "$(xdotool search --onlyvisible --classname '^quendral-monitor$' | head -1)" | grep -E '^(X|Y)=')"
[ "$X" -le 20 ] && [ "$Y" -le 20 ] || fail "the menu opened at $X,$Y, not at the point given"
xdotool key Escape
qm_until 5 sh -c "! xdotool search --onlyvisible --classname '^quendral-monitor$' >/dev/null 2>&1" ||
    fail "Escape did not close the menu"
echo "Activate is refused, and where the host then shows nothing the monitor's menu opens at the point"
# A host that gives a point far from the click (mate-panel gives (0, 32)
# wherever its icon is): the menu opens at the pointer, on the icon.
xdotool mousemove 600 400
gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
    --method org.kde.StatusNotifierItem.Activate 0 32 >/dev/null 2>&1 || true
qm_until 5 own_menu || fail "a refused Activate that the host let be opened no menu"
eval "$(xdotool getwindowgeometry --shell "$(xdotool search --onlyvisible --classname '^quendral-monitor$' | head -1)" | grep -E '^(X|Y)=')"
[ $((X - 600)) -ge -20 ] && [ $((X - 600)) -le 20 ] && [ $((Y - 400)) -ge -20 ] &&
    [ $((Y - 400)) -le 20 ] || fail "the menu opened at $X,$Y, not at the pointer (600,400)"
xdotool key Escape
qm_until 5 sh -c "! xdotool search --onlyvisible --classname '^quendral-monitor$' >/dev/null 2>&1" ||
    fail "Escape did not close the menu"
echo "given a point far from the click, the monitor's menu opens at the pointer"

# A host that falls back on the refusal and shows the menu itself (Plasma):
# the monitor's own never opens. (The monitor's grace is lengthened to 1.5 s
# here, so that the time these calls take does not decide.)
activate >/dev/null || true
menu com.canonical.dbusmenu.AboutToShow 0 >/dev/null
event 0 opened
end=$((SECONDS + 3))
while [ $SECONDS -lt $end ]; do
    own_menu && fail "the monitor's menu opened beside the one the host shows"
    sleep 0.05
done
event 0 closed
echo "a host that shows the menu after the refusal gets no second one"

# Opened: the menu follows a server started meanwhile.
menu com.canonical.dbusmenu.AboutToShow 0 >/dev/null
event 0 opened
"$ctl" start "$inst" --wait 10 >/dev/null || fail "quendralctl start"
follows() { [ "$(label_of 0)" = "Stop Instance 'R_&D__x'" ]; }
qm_until 3 follows || fail "the open menu did not follow the start: $(label_of 0)"
echo "open menu follows the server"

# Closed: no refresh until the next opening. (This host has said "closed"
# before, so the monitor trusts it.)
event 0 closed
"$ctl" stop "$inst" --wait 10 >/dev/null || fail "quendralctl stop"
sleep 1.5
[ "$(label_of 0)" = "Stop Instance 'R_&D__x'" ] || fail "the closed menu was still refreshed"
echo "closed menu is left alone"

# A host opens it again and clicks the instance's item: the alert, Return.
# As Plasma does before the click on the icon, the host hands over an
# activation token first; on X11 the alert carries it as its startup id.
token="qm-e2e-$$_TIME$(date +%s)"
gdbus call --session --dest "$item" --object-path /StatusNotifierItem \
    --method org.kde.StatusNotifierItem.ProvideXdgActivationToken "$token" >/dev/null ||
    fail "the item took no activation token"
menu com.canonical.dbusmenu.AboutToShow 0 >/dev/null
event 0 opened
[ "$(label_of 0)" = "Start Instance 'R_&D__x'" ] || fail "reopened menu: $(label_of 0)"
event 0 closed
event "$(id_of 0)" clicked
alert_up() { xdotool search --onlyvisible --classname '^quendral-monitor$' >/dev/null 2>&1; }
qm_until 5 alert_up || fail "clicking the item showed no alert"
alert=$(xdotool search --onlyvisible --classname '^quendral-monitor$' | head -1)
startup_id=$(xprop -id "$alert" _NET_STARTUP_ID)
[[ $startup_id == *"\"$token\""* ]] || fail "the alert does not carry the host's token: $startup_id"
echo "the alert carries the host's activation token as its startup id"
sleep 0.3
xdotool key Return
qm_until 10 test -s "$inst/quendral.lck" || fail "Return in the alert did not start the server"
echo "clicked item and Return started the server"

echo "idle with the menu closed: $(qm_wakeups "$monitor_pid" 3) wakeups in 3 s"

# Quit: exit 0, the server keeps running.
event "$(id_of 7)" clicked
status=0
wait "$monitor_pid" || status=$?
[ "$status" -eq 0 ] || fail "quit exited with $status"
"$ctl" status "$inst" >/dev/null || fail "quitting stopped the server"
echo "quit exited 0; the server runs on"

# A monitor started before any tray host (as at login) on Wayland, which has
# no X11 trays: it registers once a watcher and a host appear, and again when
# the watcher is replaced. A headless weston is the Wayland display.
# No watcher yet: the first one goes (the first monitor has quit).
kill "$watcher_pid"
wait "$watcher_pid" 2>/dev/null || true
watcher_gone() { ! watcher_up; }
qm_until 10 watcher_gone || fail "the first watcher did not go"
export XDG_RUNTIME_DIR=$work/runtime
mkdir -m 700 "$XDG_RUNTIME_DIR"
weston --backend=headless-backend.so --socket=qm-wayland --idle-time=0 >"$work/weston.log" 2>&1 &
qm_pids+=($!)
qm_until 10 test -S "$XDG_RUNTIME_DIR/qm-wayland" || fail "weston did not start"
WAYLAND_DISPLAY=qm-wayland QT_QPA_PLATFORM=wayland "$monitor" >"$work/monitor.log" 2>&1 &
monitor_pid=$!
qm_pids+=($monitor_pid)
sleep 2
kill -0 "$monitor_pid" || fail "the monitor did not run on Wayland"
start_watcher() {
    status-notifier-watcher >>"$work/watcher.log" 2>&1 &
    qm_pids+=($!)
    watcher_pid=$!
    qm_until 10 watcher_up || fail "no StatusNotifierWatcher"
    watcher org.kde.StatusNotifierWatcher.RegisterStatusNotifierHost org.quendral.TestHost >/dev/null
}
start_watcher
qm_until 15 registered || fail "the monitor started before the tray host never registered"
item=$(item_name)
item=${item%%[@/]*}
echo "a monitor started before the tray host registers once it appears"

# A host that never says the menu closed: the refresh runs, then stops by
# itself within the safety stop (shortened to 5 s here), and the monitor is
# idle.
menu_path=$(prop Menu | grep -o "'/[^']*'" | tr -d "'")
menu com.canonical.dbusmenu.AboutToShow 0 >/dev/null
event 0 opened
busy=$(qm_wakeups "$monitor_pid" 2)
qm_until_idle "$monitor_pid" 15 || fail "the refresh did not stop by itself"
idle=$(qm_wakeups "$monitor_pid" 3)
echo "silent host: $busy wakeups in the first 2 s, $idle in 3 s after the safety stop"
[ "$busy" -ge 3 ] || fail "the open menu was not refreshed ($busy wakeups in 2 s)"
[ "$idle" -le 1 ] || fail "still refreshing after the safety stop ($idle wakeups in 3 s)"

kill "$watcher_pid"
wait "$watcher_pid" 2>/dev/null || true
qm_until 10 watcher_gone || fail "the watcher did not go"
start_watcher
qm_until 15 registered || fail "the monitor did not register with the new watcher"
echo "registers again with a watcher that replaced the first"
