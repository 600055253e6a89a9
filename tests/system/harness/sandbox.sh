#!/bin/sh
# Runs a daemon in a mount namespace of its own: sandbox.sh WORK BINARY [ARGUMENT...], started by unshare.
# The folders with fixed paths are empty and private; what the daemon is given keeps its path.
set -e
work=$1
binary=$2
shift 2
cd "$work"
mibs=$(readlink -f "$(dirname "$0")/../../../lab/mibs")
exec 8<"$(dirname "$binary")" 7<"$mibs"

for folder in /tmp /var /run /dev/shm /usr/share; do
    mount -t tmpfs tmpfs "$folder"
done
mkdir /var/lib /var/log /var/tmp

# A folder of the host's for the firmware may be absent; a stand-in of /usr/lib has an empty one.
libraries=$(readlink -f /lib)
mkdir /run/libraries /run/stand-in
mount --no-canonicalize --rbind "$libraries" /run/libraries
mount -t tmpfs tmpfs /run/stand-in
ln -s /run/libraries/* /run/stand-in
rm -f /run/stand-in/firmware
mkdir /run/stand-in/firmware
mount --move /run/stand-in "$libraries"
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
if [ ! -e "$mibs" ]; then
    mkdir -p "$mibs"
    mount --no-canonicalize --bind /proc/self/fd/7 "$mibs"
fi
exec 7<&- 8<&-
[ -z "$SANDBOX_DEV_LOG" ] || ln -s "$SANDBOX_DEV_LOG" /dev/log
exec "$binary" "$@"
