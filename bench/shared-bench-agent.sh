#!/bin/sh
# The agent as the relay under test of the shared relay benchmark (../shared/bench/run.sh):
# relays the client-side device to one server, DHCPv4 or DHCPv6 as {PROTO} says, trace ring
# on, in the foreground.
#
#   sudo RELAY_PROTOS="4 6" \
#        RELAY_CMD="$PWD/bench/shared-bench-agent.sh {DOWN} {UP} {SERVER4} {WORK} {PROTO} {SERVER6}" \
#        ../shared/bench/run.sh
#
# {PROTO} and {SERVER6} may be left out: the agent then relays DHCPv4, so the four-argument
# form of RELAY_PROTOS=4 runs still works.
#
# AGENT names the binary (default: build/dhcp-relay-agent next to this script's checkout),
# so that two builds can be measured one after the other with the same command.
set -eu
down=$1 up=$2 server4=$3 work=$4 proto=${5:-4} server6=${6:-}
case "$proto" in
   4) servers=servers server=$server4 ;;
   6) servers=servers-v6 server=$server6 ;;
   *) echo "$0: PROTO is 4 or 6, not $proto" >&2; exit 2 ;;
esac
[ -n "$server" ] || { echo "$0: no server address for DHCPv$proto" >&2; exit 2; }
agent=${AGENT:-$(cd "$(dirname "$0")/.." && pwd)/build/dhcp-relay-agent}
config="$work/dhcp-relay-agent.yaml"
cat >"$config" <<YAML
devices:
  Ethernet1: $down
  Ethernet2: $up
interfaces:
  Ethernet1:
    $servers:
      - address: $server
YAML
exec env BLIPJETDIR="$work" "$agent" --config "$config" --socket "$work/ctl.sock"
