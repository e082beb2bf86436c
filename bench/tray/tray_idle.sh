#!/bin/bash
# Resident memory and CPU use of the agent idling for 60 s after it attached to an engine:
# two test hosts, the engine role on A, the agent on B in a real X server (Xvfb) with a tray
# host (trayer), as on a desktop. Root only.
# Usage: bench/tray/tray_idle.sh [build dir] [seconds]
set -euo pipefail
build=$(realpath "${1:-build}")
seconds=${2:-60}
testnet=$(dirname "$0")/../../tools/testnet/testnet.sh
net=b$$
work=$(mktemp -d)
chmod 755 "$work"
cleanup() {
    "$testnet" down "$net" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
"$testnet" up "$net" a b >/dev/null

for h in A B; do
    mkdir -p "$work/$h/app/Corvane Technologies/velmor" "$work/$h/run"
    chmod 700 "$work/$h/run"
done
echo '{"mode": 2}' >"$work/B/app/Corvane Technologies/velmor/config.json"
# Xvfb picks a free display itself and names it once it accepts clients.
"$testnet" run "$net" b Xvfb -displayfd 1 -screen 0 1024x768x24 -nolisten tcp \
    >"$work/xvfb.display" 2>"$work/xvfb.log" &
deadline=$((SECONDS + 20))
until [ -s "$work/xvfb.display" ]; do
    ((SECONDS < deadline)) || { echo "Xvfb did not start" >&2; cat "$work/xvfb.log" >&2; exit 1; }
    sleep 0.1
done
display=:$(head -n1 "$work/xvfb.display")
"$testnet" run "$net" b env DISPLAY="$display" trayer --edge top --align right \
    --widthtype request --height 32 >"$work/trayer.log" 2>&1 &
until DISPLAY=$display xwininfo -root -tree 2>/dev/null | grep -q '"panel"'; do
    ((SECONDS < deadline)) || { echo "trayer did not start" >&2; cat "$work/trayer.log" >&2; exit 1; }
    sleep 0.1
done
port=18080
# The engine role supervises the process given by --apid; the shell stays for the whole run.
"$testnet" run "$net" a env APPDATA="$work/A/app" XDG_RUNTIME_DIR="$work/A/run" \
    QT_QPA_PLATFORM=offscreen VELMOR_ENGINE_PORT=$port \
    "$build/VELMOR" --server 1 --apid $$ >"$work/engine.log" 2>&1 &
"$testnet" run "$net" b env -u QT_QPA_PLATFORM APPDATA="$work/B/app" XDG_RUNTIME_DIR="$work/B/run" \
    DISPLAY="$display" sh -c 'echo $$ >"$0/agent.pid"; exec "$1/VELMOR"' \
    "$work" "$build" >"$work/agent.log" 2>&1 &
deadline=$((SECONDS + 40))
until [ -s "$work/agent.pid" ] && grep -q "$port" "$work/agent.log" 2>/dev/null; do
    ((SECONDS < deadline)) || { echo "agent did not attach" >&2; cat "$work/agent.log" >&2; exit 1; }
    sleep 0.2
done
pid=$(cat "$work/agent.pid")
grep -m1 "$port" "$work/agent.log" | sed "s/\x1b\[[0-9;]*m//g"
ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
hz=$(getconf CLK_TCK)
t0=$(ticks)
sleep "$seconds"
t1=$(ticks)
rss=$(awk '/VmRSS/ {print $2}' "/proc/$pid/status")
kill "$pid" 2>/dev/null || true
echo "agent idle ${seconds} s after attaching: VmRSS $((rss / 1024)) MB (target < 60)," \
    "CPU $(awk -v t=$((t1 - t0)) -v hz="$hz" -v s="$seconds" 'BEGIN {printf "%.3f", 100 * t / hz / s}') % of a core (target < 0.5)"
