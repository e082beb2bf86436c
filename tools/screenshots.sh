#!/bin/bash
# Captures the agent's splash and its open tray menu, light and dark, under Xvfb with trayer
# as the tray host. No DNS-SD and mode 2, so nothing reaches the network and no engine starts.
# Usage: tools/screenshots.sh [build dir] [output dir]   (needs xvfb x11-utils trayer imagemagick xdotool)
set -euo pipefail
build=$(realpath "${1:-build}")
out=$(realpath "${2:-docs}")
work=$(mktemp -d)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

display=:$((90 + RANDOM % 100))
export DISPLAY=$display
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
pids+=($!)
wait_for "xwininfo -root -tree | grep -q '\"panel\"'" 50

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
grab() { # window id, file
    timeout 10 import -window "$1" "$2"
}

for theme in ${THEMES:-light dark}; do
    mkdir -p "$work/$theme/app/Corvane Technologies/velmor" "$work/$theme/run"
    chmod 700 "$work/$theme/run"
    echo '{"mode": 2}' >"$work/$theme/app/Corvane Technologies/velmor/config.json"
    APPDATA="$work/$theme/app" XDG_RUNTIME_DIR="$work/$theme/run" \
        VELMOR_DNSSD_LIBRARY=/nonexistent VELMOR_ENGINE_PORT=$port VELMOR_THEME=$theme \
        "$build/VELMOR" >"$work/$theme.log" 2>&1 &
    agent=$!
    pids+=($agent)
    # The splash is the agent's largest top-level window; it stays a few seconds without DNS-SD.
    splash_of() { xwininfo -root -tree | awk '/"VELMOR": \("VELMOR"/ && $0 ~ /[0-9]+x[0-9]+\+[0-9]+\+[0-9]+/ {split($0,a,/ +/); for(i in a) if (a[i] ~ /^[0-9]+x[0-9]+\+/) {split(a[i],d,/[x+]/); if (d[1]>300 && d[2]>200) print a[2]}}' | head -1; }
    wait_for '[ -n "$(splash_of)" ]' 100
    sleep 0.5 # let the first frame paint
    grab "$(splash_of)" "$out/splash-$theme.png"
    # The splash closes after the search; then the tray icon inside trayer's panel gets a right click.
    wait_for '[ -z "$(splash_of)" ]' 250
    icon=$(xwininfo -root -tree | awk '/"panel"/ {p=1} p && /"VELMOR"/ {print $1; exit}')
    # The menu is the top-level window that the click brings (balloons may be showing too).
    top_level() { xdotool search --onlyvisible --class VELMOR | sort; }
    top_level >"$work/before"
    xdotool mousemove --window "$icon" 10 10 click 3
    menu_of() { top_level | comm -13 "$work/before" - | head -1; }
    wait_for '[ -n "$(menu_of)" ]' 50
    sleep 0.5
    grab "$(menu_of)" "$out/tray-menu-$theme.png"
    xdotool key Escape
    kill "$agent"
    wait "$agent" 2>/dev/null || true
done
echo "saved $out/splash-{light,dark}.png $out/tray-menu-{light,dark}.png"
