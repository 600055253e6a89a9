#!/bin/sh
# Takes over what the sections were given, once the server has its answer.
state=/var/lib/gateway-configuration
mkdir -p "$state"
echo "commit $* [$(tr '\0' ' ' <"/proc/$$/environ")]" >>"$state/calls"
while [ -e "$state/commit.hold" ]; do
    sleep 0.02
done
