# Sourced by scripts/run and scripts/test: makes sure the Debian packages a
# step needs are installed. As root it installs what is missing; otherwise it
# prints the one apt-get line that would and stops.

# Packages every build needs.
QM_PKGS_BUILD=(cmake ninja-build g++ pkg-config libsystemd-dev libcli11-dev nlohmann-json3-dev librsvg2-bin
    qt6-base-dev qt6-tools-dev qt6-l10n-tools qt6-tools-dev-tools libgl-dev libxcb1-dev fonts-dejavu-core)
# A tray host on a virtual display: the end-to-end test and the headless
# preview of scripts/run.
QM_PKGS_DISPLAY=(xvfb trayer xdotool imagemagick x11-utils)
# The test suite and its oracles.
QM_PKGS_TEST=(libgtest-dev libgmock-dev libssl-dev clang libclang-rt-14-dev desktop-file-utils dex
    zsh fish fonts-wqy-microhei weston qt6-wayland
    xfce4-panel xfwm4 xfconf dbus-x11 lxqt-panel openbox plasma-workspace plasma-desktop kded5
    kwin-wayland qtwayland5 plasma-wayland-protocols libkf5service-bin pipewire-bin
    gnome-shell gnome-shell-extension-appindicator cinnamon xapp-sn-watcher
    mate-panel marco mate-settings-daemon-common dconf-cli
    sway waybar grim wtype jq libwayland-dev libwayland-bin
    dbus-bin dbus-daemon libglib2.0-bin systemd dbus-user-session haskell-status-notifier-item-utils
    "${QM_PKGS_DISPLAY[@]}")
# Static analysis.
QM_PKGS_LINT=(clang-tidy cppcheck jq)
# Building the packages (dpkg-shlibdeps and rpmbuild find their dependencies)
# and checking them against the distributions' rules.
QM_PKGS_PACKAGE=(dpkg-dev file rpm rpm2cpio cpio lintian appstream)
# Benchmarks and their comparison peers.
QM_PKGS_BENCH=(libbenchmark-dev libinih-dev libssl-dev)

qm_missing_packages() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
    done
}

qm_ensure_packages() {
    local missing
    missing=$(qm_missing_packages "$@" | sort -u | tr '\n' ' ')
    [ -z "${missing// /}" ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing packages. Install them with:" >&2
        echo "  sudo apt-get install -y $missing" >&2
        exit 1
    fi
    echo "== Installing: $missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing >/dev/null
}
