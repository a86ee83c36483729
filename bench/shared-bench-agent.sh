#!/bin/sh
# The agent as the relay under test of the shared relay benchmark (../shared/bench/run.sh):
# relays the client-side device to one server, trace ring on, in the foreground.
#
#   sudo RELAY_PROTOS=4 RELAY_CMD="$PWD/bench/shared-bench-agent.sh {DOWN} {UP} {SERVER4} {WORK}" \
#        ../shared/bench/run.sh
#
# AGENT names the binary (default: build/dhcp-relay-agent next to this script's checkout),
# so that two builds can be measured one after the other with the same command.
set -eu
down=$1 up=$2 server=$3 work=$4
agent=${AGENT:-$(cd "$(dirname "$0")/.." && pwd)/build/dhcp-relay-agent}
config="$work/dhcp-relay-agent.yaml"
cat >"$config" <<YAML
devices:
  Ethernet1: $down
  Ethernet2: $up
interfaces:
  Ethernet1:
    servers:
      - address: $server
YAML
exec env BLIPJETDIR="$work" "$agent" --config "$config" --socket "$work/ctl.sock"
