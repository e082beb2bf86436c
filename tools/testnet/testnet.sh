#!/usr/bin/env bash
# Test hosts for the network tests: one network namespace per host, each with its own /run,
# host name, dbus-daemon and avahi-daemon, joined by veth pairs (a bridge in a namespace of its
# own from three hosts on). Nothing runs in, or is attached to, the machine's own network.
#
#   testnet.sh up NET HOST HOST...   make the hosts (names: letters, digits, at most 10 chars)
#   testnet.sh run NET HOST CMD...   run CMD on HOST (its network, /run, host name, avahi)
#   testnet.sh bus NET HOST          print HOST's system bus address, for a client outside
#   testnet.sh check NET A B         avahi on B sees a service published on A
#   testnet.sh avahi NET HOST kill|start   SIGKILL HOST's avahi-daemon, or start it again and
#                                    wait until it runs (a crash, an upgrade)
#   testnet.sh down NET              remove everything NET made (also after a failed up)
#   testnet.sh prune                 remove the networks "n<pid>" whose process <pid> is gone
#
# NET is a short tag (at most 8 chars) that keeps parallel networks apart; the test helper
# (tests/support/TestNet) names its networks after its process id. Root only.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
base=${VELMOR_TESTNET_DIR:-/tmp/velmor-testnet}

die() {
    echo "testnet: $*" >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || die "needs root (network namespaces)"
for tool in ip nsenter unshare dbus-daemon dbus-send avahi-daemon; do
    command -v "$tool" >/dev/null || die "$tool is missing (tools/setup.sh installs it)"
done

check_name() {
    [[ $2 =~ ^[a-z][a-z0-9]*$ && ${#2} -le $3 ]] || die "bad $1 name '$2'"
}

# The process whose namespaces are the host (it holds them while the daemons come and go).
holder_pid() {
    local pid
    check_name network "$1" 8
    check_name host "$2" 10
    pid=$(cat "$base/$1/$2/holder.pid" 2>/dev/null) || die "no host $2 in $1"
    [ -d "/proc/$pid" ] || die "host $2 in $1 is gone"
    echo "$pid"
}

cmd_run() {
    local net=$1 host=$2
    shift 2
    local pid
    pid=$(holder_pid "$net" "$host")
    # The default bus path resolves inside the host's own /run.
    exec env -u DBUS_SYSTEM_BUS_ADDRESS nsenter --target "$pid" --net --mount --uts -- "$@"
}

cmd_down() {
    local net=$1 dir="$base/$1" ns pid
    for ns in $(ip netns list | awk '{print $1}' | grep -E "^vt${net}-" || true); do
        # Only our own daemons and commands live there.
        for pid in $(ip netns pids "$ns" 2>/dev/null); do
            kill -TERM "$pid" 2>/dev/null || true
        done
        for _ in $(seq 50); do
            [ -z "$(ip netns pids "$ns" 2>/dev/null)" ] && break
            sleep 0.1
        done
        for pid in $(ip netns pids "$ns" 2>/dev/null); do
            kill -KILL "$pid" 2>/dev/null || true
        done
        ip netns del "$ns" 2>/dev/null || true
    done
    rm -rf "$dir"
}

wait_for_avahi() {
    local net=$1 host=$2
    for _ in $(seq 100); do
        # Server state 2 is "running": the host name has been probed and announced.
        if "$here/testnet.sh" run "$net" "$host" dbus-send --system --print-reply \
            --dest=org.freedesktop.Avahi / org.freedesktop.Avahi.Server.GetState 2>/dev/null |
            grep -q 'int32 2'; then
            return 0
        fi
        sleep 0.1
    done
    echo "--- avahi log of $host:" >&2
    cat "$base/$net/$host/avahi.log" >&2 || true
    die "avahi-daemon on $host did not come up"
}

cmd_up() {
    local net=$1
    shift
    check_name network "$net" 8
    [ $# -ge 2 ] || die "at least two hosts"
    [ -e "$base/$net" ] && die "$net exists already (testnet.sh down $net)"
    mkdir -p "$base/$net"
    # Expanded now: the function's locals are gone when the trap runs.
    # shellcheck disable=SC2064
    trap "cmd_down $net" EXIT
    trap 'exit 1' INT TERM

    local host i=0
    for host in "$@"; do
        check_name host "$host" 10
        ip netns add "vt$net-$host"
        ip -n "vt$net-$host" link set lo up
    done
    if [ $# -eq 2 ]; then
        ip -n "vt$net-$1" link add eth0 type veth peer name eth0 netns "vt$net-$2"
    else
        local br="vt$net-br"
        ip netns add "$br"
        ip -n "$br" link add br0 type bridge
        ip -n "$br" link set br0 up
        for host in "$@"; do
            ip -n "$br" link add "p$host" type veth peer name eth0 netns "vt$net-$host"
            ip -n "$br" link set "p$host" master br0
            ip -n "$br" link set "p$host" up
        done
    fi
    for host in "$@"; do
        i=$((i + 1))
        local ns="vt$net-$host"
        # No duplicate address detection: the link-local IPv6 address is usable at once.
        ip netns exec "$ns" sysctl -qw net.ipv6.conf.eth0.accept_dad=0
        ip -n "$ns" addr add "10.77.0.$i/24" dev eth0
        ip -n "$ns" link set eth0 up
        mkdir -p "$base/$net/$host/run"
        ip netns exec "$ns" unshare --mount --uts --propagation private \
            "$here/host-init.sh" "$host" "$base/$net/$host" \
            </dev/null >"$base/$net/$host/init.log" 2>&1 &
        echo $! >"$base/$net/$host/holder.pid"
    done
    for host in "$@"; do
        for _ in $(seq 100); do
            [ -e "$base/$net/$host/ready" ] && break
            kill -0 "$(cat "$base/$net/$host/holder.pid")" 2>/dev/null || break
            sleep 0.1
        done
        [ -e "$base/$net/$host/ready" ] || {
            cat "$base/$net/$host/init.log" >&2
            die "host $host did not start"
        }
    done
    for host in "$@"; do
        wait_for_avahi "$net" "$host"
    done
    trap - EXIT INT TERM
}

cmd_check() {
    local net=$1 a=$2 b=$3 pub out
    "$here/testnet.sh" run "$net" "$a" avahi-publish-service "testnet-check" _velmortest._tcp 4711 \
        >/dev/null 2>&1 &
    pub=$!
    trap 'kill $pub 2>/dev/null || true; wait $pub 2>/dev/null || true' RETURN
    for _ in $(seq 30); do
        out=$("$here/testnet.sh" run "$net" "$b" avahi-browse -t -r -p _velmortest._tcp 2>/dev/null || true)
        if grep -q '^=;eth0;IPv4;testnet-check;.*;10\.77\.0\.' <<<"$out"; then
            echo "ok: $b sees $a's service"
            return 0
        fi
        sleep 0.2
    done
    die "$b does not see the service published on $a"
}

cmd_prune() {
    local dir net
    for dir in "$base"/n*; do
        [ -d "$dir" ] || continue
        net=${dir##*/}
        [[ $net =~ ^n([0-9]+)$ ]] || continue
        [ -d "/proc/${BASH_REMATCH[1]}" ] || cmd_down "$net"
    done
}

cmd_avahi() {
    local net=$1 host=$2
    holder_pid "$net" "$host" >/dev/null
    case ${3:-} in
        kill) "$here/testnet.sh" run "$net" "$host" sh -c 'kill -KILL "$(cat /run/avahi-daemon/pid)"' ;;
        start)
            kill -USR1 "$(holder_pid "$net" "$host")"
            wait_for_avahi "$net" "$host"
            ;;
        *) die "usage: testnet.sh avahi NET HOST kill|start" ;;
    esac
}

cmd_bus() {
    holder_pid "$1" "$2" >/dev/null
    echo "unix:path=$base/$1/$2/run/dbus/system_bus_socket"
}

[ $# -ge 1 ] || die "usage: testnet.sh up|run|bus|check|down NET ... | prune"
command=$1
shift
[ "$command" = prune ] || [ $# -ge 1 ] || die "usage: testnet.sh $command NET ..."
case "$command" in
    prune) cmd_prune ;;
    up) cmd_up "$@" ;;
    run)
        [ $# -ge 3 ] || die "usage: testnet.sh run NET HOST CMD..."
        cmd_run "$@"
        ;;
    bus) cmd_bus "$@" ;;
    avahi) cmd_avahi "$@" ;;
    check) cmd_check "$@" ;;
    down)
        check_name network "$1" 8
        cmd_down "$1"
        ;;
    *) die "unknown command $command" ;;
esac
