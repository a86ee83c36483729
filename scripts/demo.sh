#!/usr/bin/env bash
# The agent's main job, end to end on this host: installs what is needed, builds,
# then runs the namespace lab (scripts/lab.sh): a client, the agent and an ISC dhcpd
# server in network namespaces; a real ISC dhclient gets its DHCPv4 lease and a real
# dhclient -6 its IPv6 address through the agent, and the agent's counters are shown.
# Leaves nothing behind.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

bash scripts/install-deps.sh
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo
build/dhcp-relay-agent --config examples/dhcp-relay.yaml --check >/dev/null
LAB_BUILD="$top/build" bash scripts/lab.sh
