# Sourced by the tests that need a real systemd user manager. On these
# machines init is not systemd, but a user manager runs all the same, as root
# arranges it: the marker directory that tells programs systemd is init, an
# ordinary user, a control group delegated to that user in the cgroup v2
# hierarchy (and the named v1 one, where systemd keeps its tree on hybrid
# systems), a runtime directory with no stale bus, then "systemd --user" with
# dbus-user-session's socket-activated bus.
#
#   um_start          start it (returns 77 when this machine cannot)
#   um_restart        stop the manager and start a new one, as a new login
#                     would (its units stop with it: servers too)
#   um_run CMD...     run CMD as the user inside the delegated group, with
#                     XDG_RUNTIME_DIR and DBUS_SESSION_BUS_ADDRESS set
#   um_stop           stop it and undo everything um_start did
#   um_installation DEMO   an installation of the user's, $UM_HOME, whose
#                     bin/quendral is DEMO
#   fail MESSAGE      count a failed check; um_finish then exits 1
#
# While the marker directory exists other programs believe systemd is init,
# so tests using this run alone (RUN_SERIAL), and um_stop runs on any exit.

UM_USER=quendral-test
UM_MARKER_MADE=0
UM_GROUP=quendral-test-$$
UM_DIR=
UM_MANAGER_PID=

UM_FAILURES=0
fail() {
    echo "FAIL: $*"
    UM_FAILURES=$((UM_FAILURES + 1))
}

um_finish() {
    [ "$UM_FAILURES" -eq 0 ] || { echo "$UM_FAILURES check(s) failed"; exit 1; }
    echo "all checks passed"
}

um_installation() {
    UM_HOME=$UM_DIR/home/q
    mkdir -p "$UM_HOME/bin"
    cp "$1" "$UM_HOME/bin/quendral"
}

um_skip() {
    echo "SKIPPED: no systemd user manager here: $*"
    exit 77
}

um_start() {
    [ "$(id -u)" -eq 0 ] || um_skip "needs root to set one up"
    [ -x /lib/systemd/systemd ] || um_skip "systemd is not installed"
    [ -d /sys/fs/cgroup/unified ] || [ -f /sys/fs/cgroup/cgroup.controllers ] ||
        um_skip "no cgroup v2 hierarchy"
    id "$UM_USER" >/dev/null 2>&1 ||
        useradd --system --no-create-home --shell /usr/sbin/nologin "$UM_USER" ||
        um_skip "cannot create the user $UM_USER"
    trap um_stop EXIT
    if [ ! -d /run/systemd/system ]; then
        mkdir -p /run/systemd/system
        UM_MARKER_MADE=1
    fi
    UM_DIR=$(mktemp -d /tmp/quendral-um.XXXXXX)
    chmod 755 "$UM_DIR"
    mkdir -m 700 "$UM_DIR/run"
    mkdir -m 755 "$UM_DIR/home"
    chown "$UM_USER:" "$UM_DIR/run" "$UM_DIR/home"
    local h
    for h in $(um_hierarchies); do
        mkdir -p "$h/$UM_GROUP"
        chown -R "$UM_USER:" "$h/$UM_GROUP"
    done
    um_launch || um_skip "the user manager did not come up: $(tail -5 "$UM_DIR/manager.log")"
}

# Starts the manager and waits until it has reached its default target.
um_launch() {
    rm -f "$UM_DIR/run/bus"
    # The manager's shell enters the group as root, then becomes the user.
    um_enter_and_become /lib/systemd/systemd --user >>"$UM_DIR/manager.log" 2>&1 &
    UM_MANAGER_PID=$!
    local i state=
    for i in $(seq 150); do
        state=$(um_run systemctl --user is-system-running 2>/dev/null) || true
        case "$state" in running | degraded) return 0 ;; esac
        sleep 0.1
    done
    return 1
}

um_halt() {
    um_run systemctl --user exit >/dev/null 2>&1 || true
    local i
    for i in $(seq 100); do
        kill -0 "$UM_MANAGER_PID" 2>/dev/null || break
        sleep 0.1
    done
    # The bus daemon it started ends with it, as at a logout.
    pkill -KILL -u "$UM_USER" dbus-daemon 2>/dev/null || true
}

um_restart() {
    um_halt
    um_launch
}

um_hierarchies() {
    if [ -f /sys/fs/cgroup/cgroup.controllers ]; then
        echo /sys/fs/cgroup
    else
        echo /sys/fs/cgroup/unified
        [ -d /sys/fs/cgroup/systemd ] && echo /sys/fs/cgroup/systemd
    fi
}

um_enter_and_become() {
    bash -c 'for h in '"$(um_hierarchies | tr '\n' ' ')"'; do
                 echo $$ > "$h/'"$UM_GROUP"'/cgroup.procs" || exit 1
             done
             exec "$@"' um \
        setpriv --reuid="$UM_USER" --regid="$UM_USER" --init-groups \
        env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$UM_DIR/home" USER="$UM_USER" \
        LANG=C.UTF-8 XDG_RUNTIME_DIR="$UM_DIR/run" \
        DBUS_SESSION_BUS_ADDRESS="unix:path=$UM_DIR/run/bus" \
        ASAN_OPTIONS="${ASAN_OPTIONS:-}" LSAN_OPTIONS="${LSAN_OPTIONS:-}" \
        UBSAN_OPTIONS="${UBSAN_OPTIONS:-}" "$@"
}

um_run() {
    um_enter_and_become "$@"
}

um_stop() {
    local status=$?
    trap - EXIT
    [ -n "$UM_MANAGER_PID" ] && um_halt
    # Whatever the user still runs (dbus-daemon, servers a failed test left).
    pkill -KILL -u "$UM_USER" 2>/dev/null || true
    sleep 0.2
    local h g
    for h in $(um_hierarchies); do
        # Children first: rmdir takes empty groups only.
        for g in $(find "$h/$UM_GROUP" -depth -type d 2>/dev/null); do rmdir "$g" 2>/dev/null; done
    done
    [ "$UM_MARKER_MADE" -eq 1 ] && rmdir /run/systemd/system 2>/dev/null
    [ -n "$UM_DIR" ] && rm -rf "$UM_DIR"
    exit $status
}
