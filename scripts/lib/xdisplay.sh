# Sourced by scripts/run (headless preview) and the end-to-end tray test: a
# virtual X display with a tray host, and finding the monitor's icon and menu
# on it. Processes started here are added to the caller's qm_pids array.

# Polls a command for up to $1 seconds.
qm_until() {
    local limit=$1
    shift
    local end=$((SECONDS + limit))
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.1
    done
}

# Starts Xvfb on a free display and exports DISPLAY; $2 is the screen's size
# (default 1024x768). Xvfb picks the display itself (-displayfd): two tests
# starting at once never pick the same one.
qm_start_xvfb() {
    local log=$1 size=${2:-1024x768} fifo n=
    fifo=$(mktemp -u /tmp/quendral-xvfb.XXXXXX)
    mkfifo "$fifo" || return 1
    Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp 3>"$fifo" >"$log" 2>&1 &
    qm_pids+=($!)
    read -r -t 10 n <"$fifo" || true
    rm -f "$fifo"
    [ -n "$n" ] || return 1
    export DISPLAY=:$n
    qm_until 10 xdpyinfo >/dev/null 2>&1
}

# Starts trayer as the tray host along the top edge.
qm_start_trayer() {
    trayer --edge top --align right --widthtype request --height 32 --SetDockType true \
        --transparent false --tint 0x333333 >"$1" 2>&1 &
    qm_pids+=($!)
    qm_until 10 qm_has_panel
}
qm_has_panel() { xwininfo -root -tree | grep '"panel" "trayer"' >/dev/null; }

# "X Y" of the middle of the monitor's icon docked in trayer's panel (a window
# in the panel's subtree), or nothing.
qm_icon_center() {
    xwininfo -root -tree | awk '
        { indent = match($0, /[^ ]/) }
        inpanel && indent <= panelIndent { inpanel = 0 }
        /"panel" "trayer"/ { inpanel = 1; panelIndent = indent; next }
        inpanel && /"quendral-monitor" "quendral-monitor"/ {
            for (i = 1; i <= NF; i++) {
                if ($i ~ /^[0-9]+x[0-9]+\+/) { split($i, s, /[x+]/); w = s[1]; h = s[2] }
                if ($i ~ /^\+-?[0-9]+\+-?[0-9]+$/) { split($i, p, "+"); x = p[2]; y = p[3] }
            }
            if (w > 1) { print x + int(w / 2), y + int(h / 2); exit }
        }'
}
qm_icon_docked() { [ -n "$(qm_icon_center)" ]; }

# "WINDOW X Y WIDTH HEIGHT" of the monitor's open menu, or nothing.
qm_menu_geometry() {
    local w g
    for w in $(xdotool search --onlyvisible --classname '^quendral-monitor$' 2>/dev/null); do
        g=$(xdotool getwindowgeometry --shell "$w")
        eval "$(grep -E '^(X|Y|WIDTH|HEIGHT)=' <<<"$g")"
        if [ "$HEIGHT" -gt 100 ]; then
            echo "$w $X $Y $WIDTH $HEIGHT"
            return
        fi
    done
}
qm_menu_open() { [ -n "$(qm_menu_geometry)" ]; }
qm_menu_closed() { ! qm_menu_open; }

# Right-clicks the icon and waits for the menu; sets menu_x menu_y menu_w menu_h.
qm_open_menu() {
    local icon
    icon=$(qm_icon_center)
    xdotool mousemove ${icon% *} ${icon#* } click 3
    qm_until 5 qm_menu_open || return 1
    read -r _ menu_x menu_y menu_w menu_h <<<"$(qm_menu_geometry)"
}
