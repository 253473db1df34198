#!/usr/bin/env bash
# Servers that start at login, against a real systemd user manager: enable
# writes and enables a user unit; a new manager (as at a new login) starts the
# server through quendralctl, into a scope of its own; disable undoes it; a
# server that fails at once leaves the unit failed, and nothing retries.
#
#   at_login_test.sh QUENDRALCTL DEMO_SERVER
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/user_manager.sh"
ctl=$(realpath "$1")
demo=$(realpath "$2")

um_start
um_installation "$demo"
home=$UM_HOME
odd='odd "q" $x 100%'
for name in database sales broken gone "$odd"; do
    mkdir -p "$home/$name"
    printf '[database]\n' >"$home/$name/quendral.ini"
done
printf '#!/bin/sh\necho "FATAL: cannot open data file" >> quendral.log\nexit 1\n' >"$home/broken/quendral"
chmod 755 "$home/broken/quendral"
chown -R "$UM_USER:" "$home"

# Without --home at start time: the unit must remember the installation.
ctl() { um_run env QUENDRAL_DEMO_HTTP_PORT=0 "$ctl" --home "$home" "$@"; }
unit_for() { echo "quendral-server-$(um_run systemd-escape --path "$home/$1").service"; }
settled_status() { # the instance's status once the login's start has had its time
    local i s
    for i in $(seq 100); do
        s=$(ctl status "$1" | head -1)
        s=${s##* } # "NAME WORD"
        [ "$s" = starting ] || break
        sleep 0.1
    done
    echo "$s"
}
scope_of() {
    local pid
    pid=$(ctl status "$1" --json | sed -n 's/.*"pid": *\([0-9]*\).*/\1/p')
    awk -F: '$2 == "name=systemd" { n = $3 } $2 == "" && !n { n = $3 } END { print n }' \
        "/proc/$pid/cgroup" 2>/dev/null | sed 's|.*/||'
}

echo "== enable writes a user unit and enables it"
out=$(ctl enable database) || fail "enable: $out"
unit=$(unit_for database)
[ "$out" = "database starts at login (unit $unit)" ] || fail "enable said '$out'"
[ -f "$UM_DIR/home/.config/systemd/user/$unit" ] || fail "no unit file $unit"
[ "$(um_run systemctl --user is-enabled "$unit")" = enabled ] || fail "$unit is not enabled"
ctl list | grep -q "^\*+database " || fail "list does not mark it: $(ctl list)"
# (status exits 3: not running)
grep -qx "      Enabled: at login" <<<"$(ctl status database)" || fail "status has no Enabled line"
grep -q '"enabledAtLogin": true' <<<"$(ctl status database --json)" || fail "JSON enabledAtLogin"

echo "== a new login starts it, in its own scope"
um_restart || fail "the manager did not come back"
[ "$(settled_status database)" = running ] || fail "database did not start at login"
case "$(scope_of database)" in app-quendralctl-quendral-*.scope) ;;
*) fail "the server is in '$(scope_of database)'" ;; esac
[ "$(um_run systemctl --user is-failed "$unit")" != failed ] || fail "$unit failed"
[ "$(settled_status sales)" = stopped ] || fail "sales started though not enabled"

echo "== disable: a new login starts nothing"
out=$(ctl disable database) || fail "disable: $out"
[ "$out" = "database does not start at login" ] || fail "disable said '$out'"
[ ! -e "$UM_DIR/home/.config/systemd/user/$unit" ] || fail "the unit file is left"
ctl stop database --wait 10 >/dev/null
um_restart || fail "the manager did not come back"
sleep 1
[ "$(settled_status database)" = stopped ] || fail "database started after disable"

echo "== --all"
ctl enable --all >/dev/null || fail "enable --all"
um_restart || fail "the manager did not come back"
for name in database sales "$odd"; do
    [ "$(settled_status "$name")" = running ] || fail "$name did not start at login"
done

echo "== a server that fails at once: the unit fails, nothing retries"
broken=$(unit_for broken)
for i in $(seq 100); do
    [ "$(um_run systemctl --user is-failed "$broken")" = failed ] && break
    sleep 0.1
done
[ "$(um_run systemctl --user is-failed "$broken")" = failed ] || fail "$broken did not fail"
sleep 2
[ "$(um_run systemctl --user show -P NRestarts "$broken")" = 0 ] || fail "$broken was retried"
[ "$(um_run systemctl --user is-failed "$broken")" = failed ] || fail "$broken left failed"

echo "== an instance removed after enable is still disabled by its directory"
rm -rf "$home/gone"
out=$(ctl disable "$home/gone") || fail "disable of a removed instance: $out"
[ ! -e "$UM_DIR/home/.config/systemd/user/$(unit_for gone)" ] || fail "its unit file is left"
out=$(ctl disable --all) || fail "disable --all: $out"
ls "$UM_DIR/home/.config/systemd/user/" | grep -q quendral-server && fail "unit files left"
ctl stop --all --wait 10 >/dev/null

um_finish
