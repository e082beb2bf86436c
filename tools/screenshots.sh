#!/bin/bash
# Captures the agent's splash, its open tray menu, and the settings dialog and about box opened
# from that menu, light and dark, under Xvfb with trayer as the tray host (checking that the
# icon is embedded and no main window shows); then, with trayer gone, the main window that
# stands in for the tray; and the plug-in manager (plugin_manager_shot, offscreen). The agent
# runs on a test host (tools/testnet/testnet.sh): the settings dialog lists the host's addresses
# (10.77.0.1) instead of this machine's, and its DNS-SD browsing reaches only the test network.
# Mode 2, so no engine starts. Every text is in Carlito (fonts-crosextra-carlito).
# Usage: tools/screenshots.sh [build dir] [output dir]
#   root (network namespaces); needs xvfb x11-utils trayer imagemagick xdotool, the test-network
#   packages (avahi-daemon dbus iproute2), and VELMOR and libvelmor_dnssd.so in the build dir.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(realpath "${1:-build}")
out=$(realpath "${2:-docs}")
[ "$(id -u)" -eq 0 ] || { echo "screenshots: needs root (test host in a network namespace)" >&2; exit 1; }
for file in VELMOR libvelmor_dnssd.so plugin_manager_shot; do
    [ -e "$build/$file" ] || { echo "screenshots: $build/$file is missing" >&2; exit 1; }
done
work=$(mktemp -d)
net=shot$((RANDOM % 10000))
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    "$here/testnet/testnet.sh" down "$net" || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

display=:$((90 + RANDOM % 100))
export DISPLAY=$display
# Clients on the test host reach it through the socket file under /tmp/.X11-unix: the abstract
# socket belongs to this network namespace.
Xvfb "$display" -screen 0 1024x768x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
pids+=($!)
wait_for() { # command, tenths of a second
    local n=$2
    until eval "$1" >/dev/null 2>&1; do
        ((n-- > 0)) || { echo "timed out: $1" >&2; return 1; }
        sleep 0.1
    done
}
wait_for "xdpyinfo" 50
trayer --edge top --align right --widthtype request --height 32 --transparent false \
    --tint 0x808080 >"$work/trayer.log" 2>&1 &
trayer=$!
pids+=($trayer)
wait_for "xwininfo -root -tree | grep -q '\"panel\"'" 50

# Two hosts are the least a test network has; the agent runs on a (10.77.0.1), b stays idle.
"$here/testnet/testnet.sh" up "$net" a b

grab() { # window id, file
    timeout 10 import -window "$1" "$2"
}
# The agent's visible top-level windows (splash, menu, balloons, dialogs).
top_level() { xdotool search --onlyvisible --class VELMOR | sort; }
# A visible window of the agent with exactly this title.
titled() { xdotool search --onlyvisible --name "^$1\$" | sort | comm -12 - <(top_level) | head -1; }
# Opens the tray menu with a right click on the icon in trayer's panel; prints the menu window.
open_menu() {
    local icon
    icon=$(xwininfo -root -tree | awk '/"panel"/ {p=1} p && /"VELMOR"/ {print $1; exit}')
    top_level >"$work/before"
    xdotool mousemove --window "$icon" 10 10 click 3
    # The menu is the top-level window that the click brings (balloons may be showing too).
    menu_of() { top_level | comm -13 "$work/before" - | head -1; }
    wait_for '[ -n "$(menu_of)" ]' 50
    sleep 0.5 # let the menu paint
    menu_of
}
# Presses the menu entry's accelerator, grabs the modal window it opens, closes it with Escape
# (the agent keeps running for the next capture).
capture_entry() { # accelerator key, window title, file
    local window
    xdotool key "$1"
    wait_for "[ -n \"\$(titled $2)\" ]" 50
    window=$(titled "$2")
    sleep 0.7 # let the first frame paint
    grab "$window" "$3"
    xdotool key Escape
    wait_for "[ -z \"\$(titled $2)\" ]" 50
}

# The main window that stands in for the tray: visible, with the iconic (minimised) hint.
main_window() {
    for w in $(xdotool search --onlyvisible --name '^VELMOR$' 2>/dev/null); do
        xprop -id "$w" WM_HINTS 2>/dev/null | grep -q 'state is Iconic' && echo "$w"
    done | head -1
}
start_agent() { # theme
    mkdir -p "$work/$1/app/Corvane Technologies/velmor" "$work/$1/run"
    chmod 700 "$work/$1/run"
    echo '{"mode": 2}' >"$work/$1/app/Corvane Technologies/velmor/config.json"
    # nsenter runs the agent in place of testnet.sh, so $! is the agent.
    APPDATA="$work/$1/app" XDG_RUNTIME_DIR="$work/$1/run" \
        VELMOR_ENGINE_PORT=0 VELMOR_THEME=$1 \
        "$here/testnet/testnet.sh" run "$net" a "$build/VELMOR" >"$work/$1.log" 2>&1 &
    agent=$!
    pids+=("$agent")
}

for theme in ${THEMES:-light dark}; do
    start_agent "$theme"
    # The splash is the agent's largest top-level window; it stays a few seconds in mode 2.
    splash_of() { xwininfo -root -tree | awk '/"VELMOR": \("VELMOR"/ && $0 ~ /[0-9]+x[0-9]+\+[0-9]+\+[0-9]+/ {split($0,a,/ +/); for(i in a) if (a[i] ~ /^[0-9]+x[0-9]+\+/) {split(a[i],d,/[x+]/); if (d[1]>300 && d[2]>200) print a[2]}}' | head -1; }
    wait_for '[ -n "$(splash_of)" ]' 100 || { cat "$work/$theme.log" >&2; exit 1; }
    sleep 0.5 # let the first frame paint
    grab "$(splash_of)" "$out/splash-$theme.png"
    # The tray icon appears once the splash has closed after the search.
    wait_for '[ -z "$(splash_of)" ]' 250
    [ -z "$(main_window)" ] || { echo "a main window shows beside the tray" >&2; exit 1; }
    grab "$(open_menu)" "$out/tray-menu-$theme.png"
    capture_entry s Settings "$out/settings-$theme.png"
    open_menu >/dev/null
    capture_entry a About "$out/about-$theme.png"
    kill -0 "$agent" || { echo "the agent ended early" >&2; cat "$work/$theme.log" >&2; exit 1; }
    kill "$agent"
    wait "$agent" 2>/dev/null || true
done

# No tray host: the main window carries the menu's actions.
kill "$trayer"
wait_for "! xwininfo -root -tree | grep -q '\"panel\"'" 50
for theme in ${THEMES:-light dark}; do
    start_agent "$theme"
    wait_for '[ -n "$(main_window)" ]' 250 || { cat "$work/$theme.log" >&2; exit 1; }
    sleep 0.5 # let the first frame paint
    grab "$(main_window)" "$out/no-tray-$theme.png"
    kill "$agent"
    wait "$agent" 2>/dev/null || true
    QT_QPA_PLATFORM=offscreen VELMOR_THEME=$theme "$build/plugin_manager_shot" \
        "$out/plugin-manager-$theme.png" >/dev/null
done
echo "saved $out/{splash,tray-menu,settings,about,no-tray,plugin-manager}-{light,dark}.png"
