#!/bin/sh
# The network server that the packet forwarder talks to.
section=networkServer
initial='{"address":"127.0.0.1","portUp":1680,"portDown":1680}'
. "${0%/*}/section"
