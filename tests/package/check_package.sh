#!/usr/bin/env bash
# Checks a built Debian package the way a fresh machine would use it: its
# dependencies resolve (apt-get's simulation, as root), it unpacks to the
# expected files, every library its programs need is found, and the unpacked
# quendralctl runs: --version, and list on a demo installation.
#
#   check_package.sh PACKAGE.deb DEMO_SERVER
set -euo pipefail
deb=$(readlink -f "$1") demo=$2
root=$(mktemp -d /tmp/quendral-pkg.XXXXXX)
trap 'rm -rf "$root"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for lib in libqt6widgets6 libqt6gui6 libqt6core6 libc6 libstdc++6; do
    grep -q "$lib" <<<"$depends" || fail "no dependency on $lib"
done
if [ "$(id -u)" -eq 0 ]; then
    apt-get install --simulate --no-install-recommends "$deb" >"$root/apt.log" 2>&1 ||
        { cat "$root/apt.log"; fail "apt-get cannot install the package"; }
    echo "apt-get would install it"
fi

dpkg -x "$deb" "$root/fs"
for f in usr/bin/quendral-monitor usr/bin/quendralctl \
    usr/share/applications/quendral-monitor.desktop \
    usr/share/icons/hicolor/scalable/apps/quendral-monitor.svg \
    usr/share/quendral-monitor/translations/quendral-monitor_de.qm \
    usr/share/man/man1/quendralctl.1.gz \
    usr/share/bash-completion/completions/quendralctl \
    usr/share/zsh/vendor-completions/_quendralctl \
    usr/share/fish/vendor_completions.d/quendralctl.fish; do
    [ -s "$root/fs/$f" ] || fail "missing $f"
done
for exe in quendral-monitor quendralctl; do
    missing=$(ldd "$root/fs/usr/bin/$exe" | grep 'not found' || true)
    [ -z "$missing" ] || fail "$exe: $missing"
done
if command -v desktop-file-validate >/dev/null; then
    desktop-file-validate "$root/fs/usr/share/applications/quendral-monitor.desktop" ||
        fail "invalid desktop entry"
fi
zcat "$root/fs/usr/share/man/man1/quendralctl.1.gz" | grep -q '^\.TH QUENDRALCTL 1' ||
    fail "man page unreadable"

ctl=$root/fs/usr/bin/quendralctl
version=$("$ctl" --version)
echo "$version"
[[ $version == "quendralctl "* ]] || fail "--version printed '$version'"

home=$root/home
mkdir -p "$home/bin" "$home/database" "$home/sales"
cp "$demo" "$home/bin/quendral"
printf '[database]\n' >"$home/database/quendral.ini"
printf '[database]\n' >"$home/sales/quendral.ini"
listing=$(QUENDRAL_HOME=$home "$ctl" list)
echo "$listing"
grep -q "^\* database  stopped .* $home/database$" <<<"$listing" || fail "list misses database"
grep -q "^  sales     stopped .* $home/sales$" <<<"$listing" || fail "list misses sales"
# The installed completion scripts are the ones the program prints.
for shell in bash zsh fish; do
    case $shell in
    bash) f=usr/share/bash-completion/completions/quendralctl ;;
    zsh) f=usr/share/zsh/vendor-completions/_quendralctl ;;
    fish) f=usr/share/fish/vendor_completions.d/quendralctl.fish ;;
    esac
    "$ctl" completion $shell | cmp -s - "$root/fs/$f" || fail "$f differs from 'completion $shell'"
done
bash -c "source '$root/fs/usr/share/bash-completion/completions/quendralctl'" ||
    fail "the bash completion does not load"
# The packaged tray starts and keeps running (Qt's offscreen platform).
QT_QPA_PLATFORM=offscreen DBUS_SESSION_BUS_ADDRESS=disabled: QUENDRAL_HOME=$home \
    XDG_CONFIG_HOME=$root/config "$root/fs/usr/bin/quendral-monitor" >"$root/tray.log" 2>&1 &
tray=$!
sleep 2
kill -0 "$tray" 2>/dev/null || { cat "$root/tray.log"; fail "the packaged tray did not keep running"; }
kill "$tray"
wait "$tray" 2>/dev/null || true
echo "package OK"
