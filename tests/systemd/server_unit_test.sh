#!/usr/bin/env bash
# A server outlives whoever started it, against a real systemd user manager:
# quendralctl (and the tray) run inside a unit like the one a desktop makes of
# an autostart entry; the servers they start are in scopes of their own, which
# survive that unit's stop, name their instance directory, give the server
# time to stop, and are gone once the server has ended.
#
#   server_unit_test.sh QUENDRALCTL DEMO_SERVER [TRAY_START_ONCE]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/user_manager.sh"
ctl=$(realpath "$1")
demo=$(realpath "$2")
tray=${3:+$(realpath "$3")}

um_start
um_installation "$demo"
home=$UM_HOME
for name in database sales forking daemon; do
    mkdir -p "$home/$name"
    printf '[database]\n' >"$home/$name/quendral.ini"
done
chown -R "$UM_USER:" "$home"

q() { um_run env QUENDRAL_HOME="$home" QUENDRAL_DEMO_HTTP_PORT=0 "$@"; }
ctl() { q "$ctl" "$@"; }
pid_of() { ctl status "$1" --json | sed -n 's/.*"pid": *\([0-9]*\).*/\1/p'; }
# The unit holding a process, from its control group.
unit_of() {
    awk -F: '$2 == "name=systemd" { n = $3 } $2 == "" && !n { n = $3 } END { print n }' \
        "/proc/$1/cgroup" 2>/dev/null | sed 's|.*/||'
}
running_within() {
    local i
    for i in $(seq 100); do
        ctl status "$1" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    return 1
}
our_units() {
    um_run systemctl --user list-units --all --plain --no-legend 'app-quendralctl-*' |
        awk '{ print $1 }'
}
seconds_of() { # "1min 30s" -> 90
    echo "$1" | awk '{ s = 0; for (i = 1; i <= NF; i++) {
        if ($i ~ /min$/) s += 60 * $i; else if ($i ~ /ms$/) s += 0; else if ($i ~ /s$/) s += $i }
        print s }'
}

echo "== a server started from a unit like an autostart entry's outlives that unit"
um_run systemd-run --user --quiet --unit=app-quendraltest@autostart.service -p ExitType=cgroup \
    --setenv=QUENDRAL_HOME="$home" --setenv=QUENDRAL_DEMO_HTTP_PORT=0 \
    sh -c "'$ctl' start database --wait 10 && exec sleep 1000" || fail "systemd-run"
running_within database || fail "database did not start"
pid=$(pid_of database)
unit=$(unit_of "$pid")
echo "server $pid in $unit"
case "$unit" in app-quendralctl-quendral-*.scope) ;; *) fail "server $pid is in '$unit'" ;; esac
description=$(um_run systemctl --user show -P Description "$unit")
[ "$description" = "Quendral server of $home/database" ] || fail "description '$description'"
[ "$(ctl status database | head -n 1)" = "database running" ] || fail "status: $(ctl status database)"
ctl status database | grep -qxF "         Unit: $unit" ||
    fail "status does not name the unit: $(ctl status database)"
ctl status database --json | grep -qF "\"unit\": \"$unit\"" ||
    fail "status --json does not name the unit"
timeout=$(um_run systemctl --user show -P TimeoutStopUSec "$unit")
[ "$(seconds_of "$timeout")" -ge 30 ] || fail "stop timeout '$timeout'"
um_run systemctl --user stop app-quendraltest@autostart.service || fail "stopping the unit"
sleep 0.5
ctl status database >/dev/null || fail "the server did not survive its starter's unit"
[ "$(pid_of database)" = "$pid" ] || fail "another server: $(pid_of database), not $pid"

echo "== two instances, two units"
ctl start sales --wait 10 >/dev/null || fail "sales did not start"
other=$(unit_of "$(pid_of sales)")
case "$other" in app-quendralctl-quendral-*.scope) ;; *) fail "sales is in '$other'" ;; esac
[ "$other" != "$unit" ] || fail "one unit for two servers"

echo "== a server that forks at once has every process in its own unit"
q QUENDRAL_DEMO_FORK=1 "$ctl" start forking --wait 10 >/dev/null || fail "forking did not start"
served=$(pid_of forking)
fork_unit=$(unit_of "$served")
case "$fork_unit" in app-quendralctl-quendral-*.scope) ;; *) fail "forked server in '$fork_unit'" ;; esac
# The first process forks at once and waits for its child, which serves.
processes=0
for p in $(pgrep -u "$UM_USER" -f 'quendral -f'); do
    [ "$(readlink "/proc/$p/cwd")" = "$home/forking" ] || continue
    processes=$((processes + 1))
    [ "$(unit_of "$p")" = "$fork_unit" ] || fail "process $p of the forking server is in $(unit_of "$p")"
done
[ "$processes" -eq 2 ] || fail "the forking server has $processes processes, not 2"

echo "== a server that leaves its session at once is starting until it speaks, in its scope"
daemon() { q QUENDRAL_DEMO_DAEMON=2 QUENDRAL_DEMO_START_DELAY_MS=3000 "$ctl" "$@"; }
out=$(daemon start daemon 2>&1) || fail "start: $out"
[ "$out" = "daemon starting" ] || fail "start said: $out"
daemons() {
    local p n=0
    for p in $(pgrep -u "$UM_USER" -f 'quendral -f'); do
        [ "$(readlink "/proc/$p/cwd")" = "$home/daemon" ] || continue
        [ "$(ps -o stat= -p "$p" | cut -c1)" = Z ] && continue
        n=$((n + 1))
    done
    echo "$n"
}
# The launched process and the one between have gone; the daemon, in a
# session of its own, is all that is left, and its scope holds it.
for i in $(seq 50); do [ "$(daemons)" -eq 1 ] && break; sleep 0.05; done
[ "$(daemons)" -eq 1 ] || fail "$(daemons) processes of the daemon"
[ "$(ctl status daemon | head -n 1)" = "daemon starting" ] ||
    fail "status while the daemon starts: $(ctl status daemon)"
out=$(daemon start daemon 2>&1) || fail "second start: $out"
[ "$out" = "daemon already starting" ] || fail "second start said: $out"
out=$(daemon start daemon --wait 10 2>&1) || fail "start --wait: $out"
[ "$out" = "daemon started" ] || fail "start --wait said: $out"
[ "$(daemons)" -eq 1 ] || fail "$(daemons) servers on the directory"
ctl stop daemon --wait 10 >/dev/null || fail "stop daemon"

echo "== a directory whose name is not UTF-8 gets a scope of its own, described with escapes"
bad=$'bad\xff'
mkdir -p "$home/$bad"
printf '[database]\n' >"$home/$bad/quendral.ini"
chown -R "$UM_USER:" "$home/$bad"
out=$(ctl start "$home/$bad" --wait 10 2>&1) || fail "start: $out"
[[ $out != *"no unit of its own"* ]] || fail "no scope: $out"
bad_unit=$(unit_of "$(pid_of "$home/$bad")")
case "$bad_unit" in app-quendralctl-quendral-*.scope) ;; *) fail "in '$bad_unit'" ;; esac
description=$(um_run systemctl --user show -P Description "$bad_unit")
[ "$description" = "Quendral server of $home/bad\\xff" ] || fail "description '$description'"

echo "== stop ends the servers and leaves no unit, active or failed"
ctl stop --all --wait 10 >/dev/null || fail "stop --all"
for i in $(seq 50); do
    [ -z "$(our_units)" ] && break
    sleep 0.1
done
[ -z "$(our_units)" ] || fail "units left: $(our_units | tr '\n' ' ')"

if [ -n "$tray" ]; then
    echo "== the tray in such a unit: a start chosen in its menu outlives it"
    um_run systemd-run --user --quiet --unit=app-quendraltray@autostart.service \
        -p ExitType=cgroup --setenv=QUENDRAL_HOME="$home" --setenv=QUENDRAL_DEMO_HTTP_PORT=0 \
        --setenv=QT_QPA_PLATFORM=offscreen sh -c "'$tray' && exec sleep 1000" || fail "tray unit"
    running_within database || fail "the tray did not start the database"
    pid=$(pid_of database)
    tray_unit=$(unit_of "$pid")
    case "$tray_unit" in app-quendral\\x2dmonitor-quendral-*.scope) ;;
    *) fail "the tray's server is in '$tray_unit'" ;; esac
    um_run systemctl --user stop app-quendraltray@autostart.service
    sleep 0.5
    [ "$(pid_of database)" = "$pid" ] || fail "the tray's server did not survive the tray's unit"
    ctl stop --all --wait 10 >/dev/null
fi

echo "== what the move adds to a start (quendralctl start, median of 7)"
median_start_ms() {
    local i t0 t1 times=()
    for i in $(seq 7); do
        t0=$(date +%s%N)
        q "$@" "$ctl" start database >/dev/null 2>&1
        t1=$(date +%s%N)
        times+=($(((t1 - t0) / 1000)))
        ctl stop database --wait 10 >/dev/null 2>&1
    done
    printf '%s\n' "${times[@]}" | sort -n | sed -n 4p
}
with=$(median_start_ms)
without=$(median_start_ms DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent XDG_RUNTIME_DIR=/nonexistent)
echo "start with its own unit: ${with} us; without a service manager: ${without} us"

um_finish
