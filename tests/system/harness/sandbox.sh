#!/bin/sh
# Runs a daemon in a mount namespace of its own: sandbox.sh WORK BINARY [ARGUMENT...], started by unshare.
# The folders with fixed paths are empty and private; the working directory and the binary keep their paths.
set -e
work=$1
binary=$2
shift 2
cd "$work"
exec 8<"$(dirname "$binary")"

for folder in /tmp /var/lib /run /dev/shm; do
    mount -t tmpfs tmpfs "$folder"
done
[ -z "$SANDBOX_DEV_LOG" ] || mount -t tmpfs tmpfs /dev
mount -t tmpfs tmpfs /etc
echo '127.0.0.1 localhost' >/etc/hosts
: >/etc/resolv.conf
echo 'hosts: files' >/etc/nsswitch.conf

# A daemon ends without a disconnect, and the MQTT library then leaves the connection's TLS session behind.
echo 'leak:MQTTClient_connect' >/run/leaks

mkdir -p "$work"
mount --no-canonicalize --bind . "$work"
cd "$work"
if [ ! -e "$binary" ]; then
    mkdir -p "$(dirname "$binary")"
    mount --no-canonicalize --bind /proc/self/fd/8 "$(dirname "$binary")"
fi
exec 8<&-
[ -z "$SANDBOX_DEV_LOG" ] || ln -s "$SANDBOX_DEV_LOG" /dev/log
exec "$binary" "$@"
