#!/usr/bin/env bash
# Checks the built packages the way a distribution and a fresh machine would
# use them. The .deb: its dependencies resolve (apt-get's simulation, as
# root) and lintian finds no error or warning. The .rpm: its dependencies are
# declared. Both: they unpack to the expected files (programs, desktop entry,
# AppStream metadata, icons at every size, translations, manual pages,
# completion scripts, copyright and changelog), every library their programs
# need is found, the metadata validates, and the unpacked programs run.
#
#   check_package.sh PACKAGE.deb PACKAGE.rpm DEMO_SERVER
set -euo pipefail
deb=$(readlink -f "$1") rpm=$(readlink -f "$2") demo=$3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/quendral-pkg.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

icon_sizes="16 22 24 32 48 64 128 256"
languages="de es fr ja zh_CN"
expected_files() {
    echo usr/bin/quendral-monitor usr/bin/quendralctl
    echo usr/share/applications/quendral-monitor.desktop
    echo usr/share/metainfo/com.tarnwick.QuendralMonitor.metainfo.xml
    echo usr/share/icons/hicolor/scalable/apps/quendral-monitor.svg
    for s in $icon_sizes; do echo "usr/share/icons/hicolor/${s}x$s/apps/quendral-monitor.png"; done
    for l in $languages; do echo "usr/share/quendral-monitor/translations/quendral-monitor_$l.qm"; done
    echo usr/share/man/man1/quendralctl.1.gz usr/share/man/man1/quendral-monitor.1.gz
    echo usr/share/bash-completion/completions/quendralctl
    echo usr/share/zsh/vendor-completions/_quendralctl
    echo usr/share/fish/vendor_completions.d/quendralctl.fish
    echo usr/share/doc/quendral-monitor/copyright usr/share/doc/quendral-monitor/changelog.gz
}

# Everything that can be checked on an unpacked tree.
check_tree() {
    local root=$1 kind=$2
    local f
    for f in $(expected_files); do
        [ -s "$root/$f" ] || fail "$kind: missing $f"
    done
    for exe in quendral-monitor quendralctl; do
        missing=$(ldd "$root/usr/bin/$exe" | grep 'not found' || true)
        [ -z "$missing" ] || fail "$kind: $exe: $missing"
    done
    desktop-file-validate "$root/usr/share/applications/quendral-monitor.desktop" ||
        fail "$kind: invalid desktop entry"
    # The desktop entry speaks every shipped language.
    for l in $languages; do
        for key in Name Comment Keywords; do
            grep -q "^$key\[$l\]=" "$root/usr/share/applications/quendral-monitor.desktop" ||
                fail "$kind: the desktop entry has no $key[$l]"
        done
    done
    # No error, warning or info; only pedantic remarks are allowed.
    local validation
    validation=$(appstreamcli validate --no-net --explain \
        "$root/usr/share/metainfo/com.tarnwick.QuendralMonitor.metainfo.xml" 2>&1) ||
        { echo "$validation"; fail "$kind: AppStream metadata does not validate"; }
    grep -qE '^[EWI]: ' <<<"$validation" && { echo "$validation"; fail "$kind: AppStream remarks"; }
    for s in $icon_sizes; do
        file "$root/usr/share/icons/hicolor/${s}x$s/apps/quendral-monitor.png" |
            grep -q "PNG image data, $s x $s" || fail "$kind: the ${s}x$s icon is not $s x $s"
    done
    for page in quendralctl quendral-monitor; do
        zcat "$root/usr/share/man/man1/$page.1.gz" | grep -qi "^\.TH $page 1" ||
            fail "$kind: man page $page unreadable"
    done

    local ctl=$root/usr/bin/quendralctl
    local version
    version=$("$ctl" --version)
    [[ $version == "quendralctl "* ]] || fail "$kind: --version printed '$version'"

    local home=$root/home
    mkdir -p "$home/bin" "$home/database" "$home/sales"
    cp "$demo" "$home/bin/quendral"
    printf '[database]\n' >"$home/database/quendral.ini"
    printf '[database]\n' >"$home/sales/quendral.ini"
    local listing
    listing=$(QUENDRAL_HOME=$home "$ctl" list)
    grep -q "^\* database  stopped .* $home/database$" <<<"$listing" || fail "$kind: list misses database"
    grep -q "^  sales     stopped .* $home/sales$" <<<"$listing" || fail "$kind: list misses sales"
    # The installed completion scripts are the ones the program prints.
    local shell file
    for shell in bash zsh fish; do
        case $shell in
        bash) file=usr/share/bash-completion/completions/quendralctl ;;
        zsh) file=usr/share/zsh/vendor-completions/_quendralctl ;;
        fish) file=usr/share/fish/vendor_completions.d/quendralctl.fish ;;
        esac
        "$ctl" completion $shell | cmp -s - "$root/$file" || fail "$kind: $file differs"
    done
    bash -c "source '$root/usr/share/bash-completion/completions/quendralctl'" ||
        fail "$kind: the bash completion does not load"
    # The packaged tray starts and keeps running (Qt's offscreen platform),
    # in a language it ships.
    LANG=fr_FR.UTF-8 QT_QPA_PLATFORM=offscreen DBUS_SESSION_BUS_ADDRESS=disabled: \
        QUENDRAL_HOME=$home XDG_CONFIG_HOME=$root/config "$root/usr/bin/quendral-monitor" \
        >"$root/tray.log" 2>&1 &
    local tray=$!
    sleep 2
    kill -0 "$tray" 2>/dev/null || { cat "$root/tray.log"; fail "$kind: the tray did not keep running"; }
    kill "$tray"
    wait "$tray" 2>/dev/null || true
    echo "$kind: unpacked tree OK"
}

# The .deb
depends=$(dpkg-deb -f "$deb" Depends)
echo "deb Depends: $depends"
for lib in libqt6widgets6 libqt6gui6 libqt6core6 libc6 libstdc++6; do
    grep -q "$lib" <<<"$depends" || fail "deb: no dependency on $lib"
done
if [ "$(id -u)" -eq 0 ]; then
    apt-get install --simulate --no-install-recommends "$deb" >"$work/apt.log" 2>&1 ||
        { cat "$work/apt.log"; fail "apt-get cannot install the package"; }
    echo "deb: apt-get would install it"
fi
# lintian as Debian runs it: any error or warning fails. (As root it also
# says that it would rather not run as root; that is no finding.)
lintian --fail-on error,warning "$deb" >"$work/lintian.log" 2>&1 ||
    { cat "$work/lintian.log"; fail "lintian: $(grep -cE '^[EW]: ' "$work/lintian.log") findings"; }
echo "deb: lintian clean"
dpkg -x "$deb" "$work/deb"
check_tree "$work/deb" deb

# The .rpm
requires=$(rpm -qp --requires "$rpm" 2>/dev/null)
for lib in libQt6Widgets.so.6 libQt6Gui.so.6 libQt6Core.so.6 libc.so.6 libstdc++.so.6; do
    grep -q "^$lib" <<<"$requires" || fail "rpm: no dependency on $lib"
done
rpm -qpl "$rpm" 2>/dev/null >"$work/rpm.list"
for f in $(expected_files); do
    grep -qx "/$f" "$work/rpm.list" || fail "rpm: does not list /$f"
done
mkdir -p "$work/rpm"
(cd "$work/rpm" && rpm2cpio "$rpm" | cpio -idm --quiet)
check_tree "$work/rpm" rpm

"$here/check_translations.sh" "$here"/../../packaging/translations/*.ts
echo "packages OK"
