#!/bin/sh
# Who may ask the gateway's agent.
section=snmpAgent
initial='{"enabled":true,"community":"public"}'
. "${0%/*}/section"
