#!/usr/bin/env bash
# The agent's main job, end to end on this host: installs what is needed, builds,
# starts dhcp-relay-agent on the shipped example configuration, shows with
# dhcp-relay-ctl what it loaded and which interfaces and VRFs it sees, reloads it,
# and stops it. Leaves nothing running.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

bash scripts/install-deps.sh
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_BENCH=OFF

work=$(mktemp -d /tmp/dhcp-relay-demo.XXXXXX)
agent_pid=
made_ns=
cleanup() {
   if [ -n "$agent_pid" ] && kill -0 "$agent_pid" 2>/dev/null; then
      kill -TERM "$agent_pid"
      wait "$agent_pid" || true
   fi
   [ -z "$made_ns" ] || ip netns del "$made_ns" 2>/dev/null || true
   rm -rf "$work"
}
trap cleanup EXIT

sock="$work/ctl.sock"
ctl() { build/tools/dhcp-relay-ctl --socket "$sock" "$@"; }
step() { printf '\n\033[1m$ %s\033[0m\n' "$*"; }

step dhcp-relay-agent --config examples/dhcp-relay.yaml --check
build/dhcp-relay-agent --config examples/dhcp-relay.yaml --check

step dhcp-relay-agent --config examples/dhcp-relay.yaml '&'
BLIPJETDIR="$work" DHCP_RELAY_TRACE=1 \
   build/dhcp-relay-agent --config examples/dhcp-relay.yaml --socket "$sock" &
agent_pid=$!
for _ in $(seq 100); do
   ctl show vrfs >/dev/null 2>&1 && break
   sleep 0.1
done

step dhcp-relay-ctl show config
ctl show config
step dhcp-relay-ctl show vrfs
ctl show vrfs
step dhcp-relay-ctl show interfaces
ctl show interfaces
# The example maps VRF red to namespace ns-red: create it (unless it exists) and
# watch the agent follow it, with a device and an address in it.
if ! ip netns list | grep -qw ns-red; then
   step ip netns add ns-red '&&' ip -n ns-red link add demo0 type veth peer name demo1 '...'
   ip netns add ns-red
   made_ns=ns-red
   ip -n ns-red link set lo up
   ip -n ns-red link add demo0 type veth peer name demo1
   ip -n ns-red link set demo1 up
   ip -n ns-red addr add 198.51.100.1/24 dev demo0
   ip -n ns-red link set demo0 up
   sleep 0.5
   step dhcp-relay-ctl show vrfs
   ctl show vrfs
   step dhcp-relay-ctl show interfaces
   ctl show interfaces
fi

step dhcp-relay-ctl show status
ctl show status
step dhcp-relay-ctl show counters
ctl show counters
step dhcp-relay-ctl reload
ctl reload

step kill -TERM "$agent_pid"
kill -TERM "$agent_pid"
wait "$agent_pid" && echo "agent stopped cleanly (exit 0)"
agent_pid=
step dhcp-relay-trace "$work/DhcpRelayAgent.bj" '| tail -5'
build/tools/dhcp-relay-trace "$work/DhcpRelayAgent.bj" | tail -5
