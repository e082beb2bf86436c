#!/usr/bin/env bash
# "/get" of the engine-server role under load from wrk: 64 connections, 2 threads, 10 s, on
# loopback only. Prints requests/s, errors and the 99th percentile latency (target < 10 ms).
#   VELMOR_BUILD_DIR   build folder holding VELMOR (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${VELMOR_BUILD_DIR:-build}
velmor=$build/VELMOR
[ -x "$velmor" ] || { echo "engine load: $velmor is not built" >&2; exit 1; }
command -v wrk >/dev/null || { echo "engine load: wrk is not installed" >&2; exit 1; }

work=$(mktemp -d)
server=
cleanup() {
  if [ -n "$server" ]; then
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# A loopback port nobody listens on.
for _ in $(seq 50); do
  port=$((20000 + RANDOM % 30000))
  [ -z "$(ss -Htln "sport = :$port")" ] && break
done

mkdir -p "$work/appdata" "$work/common" "$work/runtime"
# Never announced on the machine's own network: the DNS-SD library is a path that does not exist.
APPDATA=$work/appdata VELMOR_COMMON_APPDATA=$work/common XDG_RUNTIME_DIR=$work/runtime \
  QT_QPA_PLATFORM=offscreen VELMOR_ENGINE_PORT=$port VELMOR_DNSSD_LIBRARY=$work/no-dnssd.so \
  "$velmor" --server 1 --apid $$ >"$work/server.log" 2>&1 &
server=$!

url=http://127.0.0.1:$port/get
ready=
for _ in $(seq 500); do
  if [ "$(curl -s -o /dev/null -w '%{http_code}' --noproxy '*' -u anon:anon \
        -d '{"Path": "$"}' "$url")" = 200 ]; then
    ready=1
    break
  fi
  sleep 0.02
done
[ -n "$ready" ] || { echo "engine load: the engine did not answer" >&2; cat "$work/server.log" >&2; exit 1; }

echo "engine /get under wrk (64 connections, 2 threads, 10 s):"
wrk -t2 -c64 -d10s --latency -s bench/engine_get.lua "$url" | sed 's/^/  /'
