#!/usr/bin/env bash
# Builds the Debian package and checks it on this machine, then purges it again:
#  - lintian finds no error;
#  - installed over an older version, an administrator's autostart entry and the engine
#    service's state folder stay;
#  - `velmor` on PATH, the menu entry's and the autostart entry's Exec lines start the agent
#    (under Xvfb for the entries); the engine service passes `systemd-analyze verify` and its
#    ExecStart, run as an unprivileged user, serves "/get" with anon:anon and ends on SIGTERM;
#  - `apt remove` leaves no file of the package but its configuration file, `apt purge` removes
#    that and the service's state folder.
# Everything that runs the program runs in a network namespace of its own with only a loopback
# interface, with no DNS-SD library: nothing listens on, or announces to, this machine's network.
# The package's scripts cannot start a service (policy-rc.d). Root only.
#   tools/package-check.sh [build dir]   package from that build (configured for /usr here);
#                                        without one, `tools/setup.sh package` builds it
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
    echo "package-check: FAILED: $*" >&2
    exit 1
}

wait_for() {  # seconds, command...: true once the command succeeds
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.2
    done
}

# ---- inside the namespace: the program's own checks ------------------------------------------
if [ "${1:-}" = "--isolated" ]; then
    tmp=$2
    # Whatever a failed check leaves running (Xvfb, an agent, the engine) ends with it.
    trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
    ip link set lo up
    nodnssd=/nonexistent/libvelmor_dnssd.so

    # name, command...: the agent starts (its banner reaches the log) and ends on SIGTERM.
    start_agent() {
        local name=$1 home=$tmp/$1
        shift
        local config="$home/appdata/Corvane Technologies/velmor"
        mkdir -p "$config" "$home/run"
        chmod 700 "$home/run"
        # Slave mode: the agent looks for a server and starts no engine of its own.
        echo '{"mode": 2}' >"$config/config.json"
        env APPDATA="$home/appdata" XDG_RUNTIME_DIR="$home/run" VELMOR_DNSSD_LIBRARY=$nodnssd \
            "$@" </dev/null >"$home/output" 2>&1 &
        local pid=$!
        wait_for 30 grep -qs "Velmor Agent" "$config/logs/velmor.log" ||
            { cat "$home/output" "$config/logs/velmor.log" >&2 || true; fail "$name: the agent did not start"; }
        kill -0 "$pid" 2>/dev/null || fail "$name: the agent ended by itself"
        kill -TERM "$pid"
        wait_for 10 bash -c "! kill -0 $pid 2>/dev/null" || fail "$name: the agent ignored SIGTERM"
        wait "$pid" || true
        echo "ok: $name starts the agent (log in its logs folder: no terminal, no journal here)"
    }

    command -v velmor >/dev/null || fail "no velmor on PATH"
    QT_QPA_PLATFORM=offscreen start_agent "velmor-on-PATH" velmor

    Xvfb -displayfd 3 -nolisten tcp 3>"$tmp/display" >/dev/null 2>&1 &
    xvfb=$!
    wait_for 10 test -s "$tmp/display" || fail "Xvfb did not start"
    DISPLAY=":$(cat "$tmp/display")"
    export DISPLAY
    menu=$(sed -n 's/^Exec=//p' /usr/share/applications/velmor.desktop)
    login=$(sed -n 's/^Exec=//p' /etc/xdg/autostart/velmor.desktop)
    start_agent "menu-entry" sh -c "exec $menu"
    start_agent "autostart-entry" sh -c "exec $login"
    kill "$xvfb"
    unset DISPLAY

    # The engine service's ExecStart as its dynamic user would run it: an unprivileged user id
    # with no name, its state folder as APPDATA, no display.
    unit=/usr/lib/systemd/system/velmor-engine.service
    execstart=$(sed -n 's/^ExecStart=//p' "$unit")
    state=$tmp/engine-state
    mkdir -p "$state"
    chown 61934:61934 "$state"
    chmod 700 "$state"
    port=18080
    # shellcheck disable=SC2086
    setpriv --reuid=61934 --regid=61934 --clear-groups \
        env -i PATH=/usr/bin:/bin APPDATA="$state" QT_QPA_PLATFORM=offscreen \
        VELMOR_DNSSD_LIBRARY=$nodnssd VELMOR_ENGINE_PORT=$port $execstart \
        </dev/null >"$tmp/engine-output" 2>&1 &
    engine=$!
    # shellcheck disable=SC2317  # called through wait_for
    get() {
        curl -s -o "$tmp/get" -w '%{http_code}' -u anon:anon -X POST -d '{"Path": "$"}' \
            "http://127.0.0.1:$port/get" >"$tmp/get-status" 2>/dev/null
        [ "$(cat "$tmp/get-status")" = 200 ]
    }
    wait_for 20 get || { cat "$tmp/engine-output" >&2; fail "the engine service does not serve /get"; }
    grep -q '"Config"' "$tmp/get" || fail "/get did not answer the engine document"
    [ -d "$state/Corvane Technologies/velmor/logs" ] ||
        fail "the engine service made its folders outside its state folder"
    kill -TERM "$engine"
    wait_for 10 bash -c "! kill -0 $engine 2>/dev/null" || fail "the engine ignored SIGTERM"
    status=0
    wait "$engine" || status=$?
    # systemd counts an end by SIGTERM (128 + 15) as a clean stop.
    [ "$status" -eq 0 ] || [ "$status" -eq 143 ] || fail "the engine ended with status $status"
    echo "ok: the engine service's ExecStart serves /get as an unprivileged user, ends on SIGTERM"
    exit 0
fi

# ---- outside: build, lintian, install, remove, purge -----------------------------------------
[ "$(id -u)" -eq 0 ] || fail "needs root (it installs the package)"
if dpkg-query -W -f='${Status}' velmor 2>/dev/null | grep -q "installed"; then
    fail "velmor is installed already; this check would remove it"
fi
if [ $# -ge 1 ]; then
    cmake -S . -B "$1" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
    cmake --build "$1"
    build=$(cd "$1" && pwd)
    (cd "$build" && rm -f velmor_*.deb && cpack -G DEB >/dev/null)
    deb=$(ls "$build"/velmor_*.deb)
else
    deb=$(tools/setup.sh package | tail -n 1)
fi
[ -f "$deb" ] || fail "no package built"

lintian --fail-on error "$deb" 2>&1 | grep -v "running with root privileges" || true
lintian --fail-on error "$deb" >/dev/null 2>&1 || fail "lintian reports errors"
echo "ok: lintian reports no error ($deb)"

tmp=$(mktemp -d)
chmod 711 "$tmp"
policy=/usr/sbin/policy-rc.d
added_policy=""
made_state=""
made_private=""
autostart=/etc/xdg/autostart/velmor.desktop
cleanup() {
    if dpkg-query -W -f='${Status}' velmor 2>/dev/null | grep -q "installed\|config-files"; then
        DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq velmor >/dev/null 2>&1 || true
    fi
    if [ -n "$added_policy" ]; then rm -f "$policy"; fi
    if [ -n "$made_state" ]; then rm -rf /var/lib/velmor-engine /var/lib/private/velmor-engine; fi
    if [ -n "$made_private" ]; then rmdir /var/lib/private 2>/dev/null || true; fi
    rm -rf "$tmp"
}
trap cleanup EXIT
if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"
    added_policy=1
fi
install_deb() {
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$1" >/dev/null ||
        fail "apt-get install $1"
}

# An older version first, then this one over it.
version=$(dpkg-deb -f "$deb" Version)
mkdir "$tmp/old"
dpkg-deb -R "$deb" "$tmp/old/tree"
sed -i "s/^Version: .*/Version: $version~old/" "$tmp/old/tree/DEBIAN/control"
dpkg-deb -b --root-owner-group "$tmp/old/tree" "$tmp/old/velmor_old.deb" >/dev/null
install_deb "$tmp/old/velmor_old.deb"
echo "X-Velmor-Checked=kept" >>"$autostart"
# The service's state folder, as systemd makes it for a dynamic user.
if [ ! -e /var/lib/private/velmor-engine ]; then
    if [ ! -d /var/lib/private ]; then
        mkdir -m 700 /var/lib/private
        made_private=1
    fi
    mkdir /var/lib/private/velmor-engine
    echo '{"mode": 1}' >/var/lib/private/velmor-engine/config.json
    ln -s private/velmor-engine /var/lib/velmor-engine
    made_state=1
fi
install_deb "$deb"
[ "$(dpkg-query -W -f='${Version}' velmor)" = "$version" ] || fail "the upgrade did not happen"
grep -q "X-Velmor-Checked=kept" "$autostart" || fail "the upgrade replaced the edited autostart entry"
[ -z "$made_state" ] || [ -f /var/lib/velmor-engine/config.json ] ||
    fail "the upgrade removed the service's state"
echo "ok: installed over $version~old, the edited autostart entry and the service's state stay"

unshare --net "$0" --isolated "$tmp"

unit=/usr/lib/systemd/system/velmor-engine.service
systemd-analyze verify "$unit" >"$tmp/verify" 2>&1 || { cat "$tmp/verify" >&2; fail "systemd-analyze verify"; }
if grep -i "velmor" "$tmp/verify" >&2; then fail "systemd-analyze verify warns about the unit"; fi
echo "ok: systemd-analyze verify passes the engine service"

dpkg -L velmor >"$tmp/files"
DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq velmor >/dev/null || fail "apt-get remove"
left=""
while read -r path; do
    [ "$path" = "/." ] && continue
    [ -e "$path" ] || [ -L "$path" ] || continue
    [ "$path" = "$autostart" ] && continue
    # A folder may stay when another package owns it too.
    [ -d "$path" ] && dpkg -S "$path" >/dev/null 2>&1 && continue
    left+=" $path"
done <"$tmp/files"
[ -z "$left" ] || fail "apt remove left:$left"
echo "ok: apt remove leaves no file of the package but its configuration file $autostart"

if [ -n "$made_state" ]; then
    [ -e /var/lib/velmor-engine ] || fail "apt remove removed the service's state"
fi
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq velmor >/dev/null || fail "apt-get purge"
for path in "$autostart" /var/lib/velmor-engine /var/lib/private/velmor-engine; do
    if [ -e "$path" ] || [ -L "$path" ]; then fail "apt purge left $path"; fi
done
echo "ok: apt purge removes the configuration file and the service's state folder"
