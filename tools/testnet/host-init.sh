#!/usr/bin/env bash
# Inside a test host's network, mount and UTS namespaces (testnet.sh starts it there): gives the
# host its own /run, host name, system bus and avahi-daemon, then holds the namespaces.
#   host-init.sh HOST DIR      DIR: the host's folder (its run/ becomes /run)
set -euo pipefail
host=$1
dir=$2

# Never let a daemon loose on the machine's own network.
if [ "$(readlink /proc/self/ns/net)" = "$(readlink /proc/1/ns/net)" ]; then
    echo "host-init: not inside a network namespace" >&2
    exit 1
fi
if [ "$(readlink /proc/self/ns/mnt)" = "$(readlink /proc/1/ns/mnt)" ]; then
    echo "host-init: not inside a mount namespace" >&2
    exit 1
fi

mount --bind "$dir/run" /run
# /var/run is a link to /run on Debian; bind it too where it is a folder of its own.
[ -L /var/run ] || mount --bind "$dir/run" /var/run
hostname "$host"
mkdir -p /run/dbus

cat >"$dir/dbus.conf" <<'EOF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
EOF

cat >"$dir/avahi-daemon.conf" <<EOF
[server]
host-name=$host
domain-name=local
use-ipv4=yes
use-ipv6=yes
allow-interfaces=eth0
enable-dbus=yes
disallow-other-stacks=no

[wide-area]
enable-wide-area=no

[publish]
publish-hinfo=no
publish-workstation=no

[reflector]
enable-reflector=no
EOF

dbus-daemon --config-file="$dir/dbus.conf" --nofork --nopidfile --nosyslog \
    >"$dir/dbus.log" 2>&1 &
dbus_pid=$!
for _ in $(seq 100); do
    [ -S /run/dbus/system_bus_socket ] && break
    sleep 0.05
done
[ -S /run/dbus/system_bus_socket ] || {
    echo "host-init: dbus-daemon did not start" >&2
    exit 1
}

# As root in a namespace: no privilege drop, no chroot, no rlimits from the stock config.
start_avahi() {
    avahi-daemon --file="$dir/avahi-daemon.conf" --no-drop-root --no-chroot --no-rlimits \
        --no-proc-title >>"$dir/avahi.log" 2>&1 &
    avahi_pid=$!
}
start_avahi
# A daemon restarted after a crash (testnet.sh avahi) is our child too, so it is reaped.
trap start_avahi USR1

# Holds the namespaces and reaps the daemons when testnet.sh down ends them.
trap 'kill -TERM $avahi_pid $dbus_pid 2>/dev/null; wait; exit 0' TERM INT
touch "$dir/ready"
while :; do
    sleep 3600 &
    wait || true
done
