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
        # From the JSON: a name may hold a newline.
        s=$(ctl status "$1" --json | sed -n 's/.*"serverStatus": *"\([a-z]*\)".*/\1/p')
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

echo "== no byte of a path changes a unit: newline, %, a trailing backslash, the program's own path"
units=$UM_DIR/home/.config/systemd/user
nl=$'x\n[Service]\nExecStartPre=touch PWNED'
pct='p%u'
bs='trail\'
for name in "$nl" "$pct" "$bs"; do
    mkdir -p "$home/$name"
    printf '[database]\n' >"$home/$name/quendral.ini"
done
# quendralctl itself under a path holding $, quotes, a backslash and %, and
# under one with a tab: systemd runs no program from the latter two itself.
oddbin="$UM_DIR/bin \$x \"q\" 'a' \\b 100%"
tabbin="$UM_DIR/bin"$'\t'"tab"
mkdir -p "$oddbin" "$tabbin"
cp "$ctl" "$oddbin/quendralctl"
cp "$ctl" "$tabbin/quendralctl"
chmod 755 "$UM_DIR" "$oddbin" "$oddbin/quendralctl" "$tabbin" "$tabbin/quendralctl"
chown -R "$UM_USER:" "$home"
out=$(um_run env QUENDRAL_DEMO_HTTP_PORT=0 "$tabbin/quendralctl" --home "$home" enable sales) ||
    fail "enable from a program under $(printf %q "$tabbin"): $out"
for name in "$nl" "$pct" "$bs"; do
    out=$(ctl enable "$home/$name") || fail "enable of a directory named $(printf %q "$name"): $out"
done
out=$(um_run env QUENDRAL_DEMO_HTTP_PORT=0 "$oddbin/quendralctl" --home "$home" enable database) ||
    fail "enable from a program under $(printf %q "$oddbin"): $out"
for name in "$nl" "$pct" "$bs"; do
    unit=$(unit_for "$name")
    [ "$(grep -c '^ExecStart' "$units/$unit")" = 1 ] || fail "$unit: $(cat "$units/$unit")"
    [ "$(grep -c '^\[' "$units/$unit")" = 3 ] || fail "$unit has sections of a path's: $(cat "$units/$unit")"
    [ -z "$(um_run systemctl --user show -P ExecStartPre "$unit")" ] || fail "$unit runs a path's command"
done
desc=$(um_run systemctl --user show -P Description "$(unit_for "$pct")")
[ "$desc" = "Quendral server of $home/$pct" ] || fail "a % was read as a specifier: $desc"
desc=$(um_run systemctl --user show -P Description "$(unit_for "$bs")")
[ "$desc" = "Quendral server of $home/trail\\x5c" ] || fail "a trailing backslash: $desc"
um_restart || fail "the manager did not come back"
for name in "$nl" "$pct" "$bs" database sales; do
    [ "$(settled_status "$name")" = running ] || fail "$(printf %q "$name") did not start at login: $(cat "$units/$(unit_for "$name")"; um_run systemctl --user show -p Result -p ExecMainStatus -p LoadState -p ActiveState -p UnitFileState -p ExecStart -p LoadError "$(unit_for "$name")")"
done
for pwned in "$UM_DIR/home/PWNED" "$home/PWNED" /PWNED; do
    [ ! -e "$pwned" ] || fail "a directory's name ran a command at login: $pwned"
done
out=$(ctl disable --all) || fail "disable --all: $out"
ctl stop --all --wait 10 >/dev/null
rm -rf "$home/$nl" "$home/$pct" "$home/$bs"

echo "== a unit name as long as systemd allows"
prefix=$(um_run systemd-escape --path "$home")
long=$(printf 'L%.0s' $(seq $((255 - ${#prefix} - 1 - 24))))
mkdir -p "$home/$long"
printf '[database]\n' >"$home/$long/quendral.ini"
chown -R "$UM_USER:" "$home"
unit=$(unit_for "$long")
[ ${#unit} -eq 255 ] || fail "the test's unit name has ${#unit} bytes"
out=$(ctl enable "$home/$long") || fail "enable of a 255-byte unit name: $out"
[ -f "$units/$unit" ] || fail "no unit file $unit"
out=$(ctl disable "$home/$long") || fail "disable: $out"
rm -rf "$home/$long"

echo "== a unit of the user's own is never replaced nor removed"
mine=$units/$(unit_for sales)
printf '[Service]\nExecStart=/bin/true\n' >"$mine"
chown "$UM_USER:" "$mine"
out=$(ctl enable sales 2>&1) && fail "enable replaced the user's own unit: $out"
[[ $out == *"is not one quendralctl wrote"* ]] || fail "enable said: $out"
[ "$(cat "$mine")" = $'[Service]\nExecStart=/bin/true' ] || fail "the user's unit was changed"
out=$(ctl disable sales 2>&1) && fail "disable removed the user's own unit: $out"
[ -f "$mine" ] || fail "the user's unit is gone"
rm -f "$mine"

echo "== a failed enable leaves nothing behind"
wants=$units/default.target.wants
mkdir -p "$wants"
chown "$UM_USER:" "$units" "$wants"
chmod 500 "$wants"
out=$(ctl enable sales 2>&1) && fail "enable succeeded where the manager cannot link: $out"
[ ! -e "$units/$(unit_for sales)" ] || fail "a failed enable left its unit file"
chmod 700 "$wants"
out=$(ctl disable sales) || fail "disable after a failed enable: $out"

um_finish
