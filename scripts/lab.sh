#!/usr/bin/env bash
# The DHCP lab in network namespaces: builds
#     client --veth-- relay --veth-- server (+ server2, and red for VRF tests)
# starts ISC dhcpd (DHCPv4 and DHCPv6) on the server side and dhcp-relay-agent in the
# relay namespace, runs ISC dhclient once for each family in the client namespace so
# that it gets its lease (and its IPv6 address) through the agent, shows the leases,
# what the server saw and the agent's counters, and removes everything again (also on
# error or Ctrl-C).
# Nothing touches the host's own devices or addresses: every device, address and
# process lives in namespaces named $LAB_PREFIX-<role>.
#
# Needs root and scripts/install-deps.sh. Environment:
#   LAB_PREFIX   namespace name prefix (default: lab<pid>)
#   LAB_BUILD    build directory holding dhcp-relay-agent (default: build)
set -euo pipefail

top="$(cd "$(dirname "$0")/.." && pwd)"
prefix="${LAB_PREFIX:-lab$$}"
build="${LAB_BUILD:-$top/build}"
work="$(mktemp -d "/tmp/$prefix.XXXXXX")"

lab() { /usr/bin/python3 "$top/tools/lab/lab.py" --prefix "$prefix" --dir "$work" "$@"; }

agent_pid=
cleanup() {
   # The agent first, with SIGTERM: it closes its sockets and exits 0.
   if [ -n "$agent_pid" ] && kill -0 "$agent_pid" 2>/dev/null; then
      kill -TERM "$agent_pid"
      wait "$agent_pid" && echo "== agent stopped cleanly" || echo "== agent exited with $?"
   fi
   lab down || true
   rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

ctl() { "$build/tools/dhcp-relay-ctl" --socket "$work/ctl.sock" "$@"; }

# dhcpd on the server side; the agent inside the relay namespace (its default VRF),
# relaying between the client link (Ethernet1) and the servers (Ethernet2).
start_relay() {
   lab dhcpd server
   lab dhcpd6 server
   config="$(lab agent-config)"
   relay_ns="$(lab names | sed -n 's/^relay=//p')"
   BLIPJETDIR="$work" ip netns exec "$relay_ns" "$build/dhcp-relay-agent" --config "$config" \
      --socket "$work/ctl.sock" >"$work/agent.log" 2>&1 &
   agent_pid=$!
   for _ in $(seq 100); do
      ctl show vrfs >/dev/null 2>&1 && return 0
      sleep 0.1
   done
   echo "the agent did not start:" >&2
   cat "$work/agent.log" >&2
   return 1
}

echo "== building the lab (namespaces $prefix-*)"
lab up
lab names | sed 's/^/   /'
echo "== servers and relay"
start_relay
echo "== what the agent sees in its VRFs"
ctl show interfaces
echo "== client (ISC dhclient, through the agent)"
lab client --timeout 10
echo "== DHCPv6 client (ISC dhclient -6, through the agent)"
lab client6 --timeout 10
echo "== DHCPv6 prefix delegation (ISC dhclient -6 -P, through the agent)"
lab client6 --delegated --timeout 10
echo "== the routes the agent placed towards the client (its address and its prefix)"
ctl show routes
echo "== the agent's counters"
ctl show counters
