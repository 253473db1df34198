# Sourced by the end-to-end tests in real panels: the monitor as the panel
# sees it over D-Bus (its StatusNotifierItem and exported menu), the menu's
# expected texts for the instances "R&D" and "my_db", and the monitor's main
# thread's wakeups.

# What every panel test shares. They set $work, $ctl, $demo and $qm_host, and
# define shot NAME (a screenshot); the processes they start go in qm_pids,
# and are stopped at the end with the servers (trap qm_cleanup EXIT).
qm_pids=()
qm_cleanup() {
    "$ctl" --home "$work/home" stop --all --wait 5 >/dev/null 2>&1 || true
    qm_end_processes "${qm_pids[@]}"
    wait 2>/dev/null || true
}
# Ends the processes given: SIGTERM, and SIGKILL for any that has not ended
# 10 s later (named on stderr). A desktop's helper that hangs on its way out
# would otherwise keep the test's output open, and the test would never end.
qm_end_processes() {
    local p end=$((SECONDS + 10)) left
    for p in "$@"; do kill "$p" 2>/dev/null || true; done
    while :; do
        left=()
        for p in "$@"; do qm_running "$p" && left+=("$p"); done
        [ ${#left[@]} -gt 0 ] || return 0
        [ $SECONDS -lt $end ] || break
        sleep 0.2
    done
    for p in "${left[@]}"; do
        echo "note: $(cat "/proc/$p/comm" 2>/dev/null) ($p) did not end on SIGTERM; killed" >&2
        kill -KILL "$p" 2>/dev/null || true
    done
}
# Whether process $1 runs: ended but not yet reaped is not running.
qm_running() {
    local state
    state=$(sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -c1) || return 1
    [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}
# Desktops start helpers through the session bus (kded5, dconf, the shell's
# services), not as children of the test: every process of this session
# bus goes.
qm_end_session_processes() {
    local e p session=()
    for e in /proc/[0-9]*/environ; do
        tr '\0' '\n' 2>/dev/null <"$e" | grep -qxF "DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS" ||
            continue
        p=${e#/proc/}
        p=${p%/environ}
        [ "$p" = $$ ] || [ "$p" = "$BASHPID" ] || session+=("$p")
    done
    [ ${#session[@]} -eq 0 ] || qm_end_processes "${session[@]}"
}
fail() {
    echo "FAIL ($qm_host): $*" >&2
    shot failure || true
    tail -n 20 "$work/monitor.log" >&2 || true
    exit 1
}
# The installation the tests show: the demo server and the instances "my_db"
# and "R&D".
qm_make_installation() {
    mkdir -p "$work/home/bin" "$work/home/my_db" "$work/home/R&D"
    cp "$demo" "$work/home/bin/quendral"
    for d in my_db "R&D"; do printf '[database]\n' >"$work/home/$d/quendral.ini"; done
}

# Finds the registered item and its menu: sets qm_item_bus and qm_menu_path.
qm_find_item() {
    local item
    item=$(gdbus call --session --dest org.kde.StatusNotifierWatcher \
        --object-path /StatusNotifierWatcher --method org.freedesktop.DBus.Properties.Get \
        org.kde.StatusNotifierWatcher RegisteredStatusNotifierItems | grep -o "'[^']*'" | head -1 |
        tr -d "'") || true
    [ -n "$item" ] || return 1
    qm_item_bus=${item%%[@/]*}
    qm_menu_path=$(gdbus call --session --dest "$qm_item_bus" --object-path /StatusNotifierItem \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem Menu |
        grep -o "'/[^']*'" | tr -d "'")
}

# The labels as the panel reads them, one a line; the panel shows "_" as a
# mnemonic marker and "__" as "_".
qm_labels() {
    gdbus call --session --dest "$qm_item_bus" --object-path "$qm_menu_path" \
        --method com.canonical.dbusmenu.GetLayout 0 'int32 -1' '@as []' |
        grep -o "'label': <[^>]*>" | sed -E "s/'label': <['\"](.*)['\"]>/\1/" |
        sed -E 's/_(.)/\1/g'
}

qm_expected_labels="Start Instance 'R&D'
Start Instance 'my_db'
Open Diagnostic Messages
Open Quendral Dravinter
View Online Documentation
Start Quendral Monitor at Login
Quit Quendral Monitor"

# The refresh stop for hosts that never say the menu closed, shortened from
# its 10 s so that the tests wait for the monitor to go idle, not for a clock.
export QUENDRAL_MONITOR_TEST_SILENT_HOST_MS=5000

# Waits until the process $1's main thread is idle (at most one wakeup in two
# seconds: the open menu's refresh wakes it four times in that time), for at
# most $2 seconds.
qm_until_idle() {
    local end=$((SECONDS + $2))
    until [ "$(qm_wakeups "$1" 2)" -le 1 ]; do
        [ $SECONDS -lt $end ] || return 1
    done
}

# With the menu opened by a left click: it follows a server started from
# outside; then closed, and the server stopped. Uses the test's qm_labels,
# shot and close_menu.
qm_check_left_click_menu_follows() {
    "$ctl" start my_db --wait 10 >/dev/null || fail "quendralctl start"
    qm_follows() { qm_labels | grep -qx "Stop Instance 'my_db'"; }
    qm_until 3 qm_follows || fail "the menu opened by a left click did not follow the start"
    sleep 0.5
    shot menu-left-click-follows
    echo "$qm_host: the menu opened by a left click follows a server started from outside"
    close_menu || fail "Escape did not close the menu"
    "$ctl" stop my_db --wait 10 >/dev/null || fail "quendralctl stop"
}

# After the menu closed: the monitor goes idle within $1 seconds and stays so.
qm_check_idle_after_close() {
    qm_until_idle "$monitor_pid" "$1" || fail "the refresh did not stop after the menu closed"
    qm_idle=$(qm_wakeups "$monitor_pid" 3)
    [ "$qm_idle" -le 2 ] || fail "the monitor keeps waking up after the menu closed ($qm_idle in 3 s)"
}

# Quit, the menu's last item, chosen with the keyboard after open_menu $1 as
# a user would: the monitor exits 0 and the server of instance $2 runs on.
qm_quit_by_last_item() {
    open_menu "$1" || fail "the menu did not open"
    sleep 0.5
    xdotool key Up Return
    local status=0
    qm_until 10 sh -c "! kill -0 $monitor_pid 2>/dev/null" || fail "Quit did not end the monitor"
    wait "$monitor_pid" || status=$?
    [ "$status" -eq 0 ] || fail "quit exited with $status"
    "$ctl" status "$2" >/dev/null || fail "quitting stopped the server"
}

# How often the process $1's main thread woke up during $2 seconds.
qm_wakeups() {
    local status=/proc/$1/task/$1/status before after
    before=$(awk '/ctxt_switches/ { n += $2 } END { print n }' "$status")
    sleep "$2"
    after=$(awk '/ctxt_switches/ { n += $2 } END { print n }' "$status")
    echo $((after - before))
}
