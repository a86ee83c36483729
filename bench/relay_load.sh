#!/usr/bin/env bash
# Load through the relay agent in the namespace lab (tools/lab/lab.py):
#     dhcp-loadgen (client ns) --c0/r0-- dhcp-relay-agent (relay ns) --r1/br0-- dhcp-reflector (server ns)
# DHCPv4 by default; LOAD_PROTO=6 gives the lab IPv6 addresses (client link 2001:db8:1::/64,
# server link 2001:db8:2::/64, the reflector at 2001:db8:2::2, duplicate address detection
# off) and relays Solicits from the clients' link-local addresses instead.
# The agent runs pinned to one core; the load tool and the reflector share the
# other. Prints the load tool's figures and the agent's CPU time per relayed
# exchange (DISCOVER relayed + OFFER relayed back, or Solicit + Advertise), from
# utime+stime of /proc/<pid>/stat before and after the run. Everything the run creates
# is removed on exit, also on error or Ctrl-C.
#
# Needs root. Build first: ninja -C build dhcp-relay-agent dhcp-relay-ctl dhcp-loadgen dhcp-reflector
# Environment:
#   LOAD_PROTO      4 (default) or 6
#   LOAD_PREFIX     namespace name prefix (default: load<pid>)
#   LOAD_BUILD      build directory (default: build)
#   LOAD_DURATION   seconds of load (default: 5)
#   LOAD_WINDOW     outstanding requests (default: 64)
#   LOAD_CLIENTS    simulated clients, one MAC each (default: 65536; DHCPv6: 256, as every
#                   client is a neighbour entry of the relay: see bench/loadgen/main.cpp)
#   LOAD_RELAY      a command line to measure instead of the agent (split at spaces, {WORK}
#                   replaced by the run's scratch folder), run in the relay namespace where
#                   the client side is r0 and the server side r1. ISC dhcrelay, for instance:
#                   LOAD_PROTO=6 LOAD_RELAY='dhcrelay -6 -d -q -pf {WORK}/dhcrelay.pid -I -l r0 -u 2001:db8:2::2%r1'
#   AGENT_CPU       core the agent is pinned to (default: 0)
#   LOAD_CPU        core of the load tool and the reflector (default: 1)
#   LOAD_PERF       file: record a call-graph profile of the agent during the load with
#                   `perf record` (Debian linux-perf); read it with `perf report -i FILE`
set -euo pipefail

top="$(cd "$(dirname "$0")/.." && pwd)"
proto="${LOAD_PROTO:-4}"
prefix="${LOAD_PREFIX:-load$$}"
build="${LOAD_BUILD:-$top/build}"
duration="${LOAD_DURATION:-5}"
window="${LOAD_WINDOW:-64}"
relay_cmd="${LOAD_RELAY:-}"
relay_name=agent
[ -z "$relay_cmd" ] || { relay_name="${relay_cmd%% *}"; relay_name="${relay_name##*/}"; }
case "$proto" in
   4) clients="${LOAD_CLIENTS:-65536}" warm_clients=1024 ;;
   # Every client's neighbour entry is made while warming up.
   6) clients="${LOAD_CLIENTS:-256}" warm_clients="$clients" ;;
   *) echo "LOAD_PROTO is 4 or 6" >&2; exit 2 ;;
esac
relay6=2001:db8:1::1 relay_up6=2001:db8:2::1 server6=2001:db8:2::2
agent_cpu="${AGENT_CPU:-0}"
load_cpu="${LOAD_CPU:-1}"
perf_file="${LOAD_PERF:-}"

for b in dhcp-relay-agent tools/dhcp-relay-ctl bench/dhcp-loadgen bench/dhcp-reflector; do
   [ -x "$build/$b" ] || { echo "missing $build/$b: build it first" >&2; exit 1; }
done

work="$(mktemp -d "/tmp/$prefix.XXXXXX")"
lab() { /usr/bin/python3 "$top/tools/lab/lab.py" --prefix "$prefix" --dir "$work" "$@"; }

agent_pid=
reflector_pid=
stop() {  # pid name: SIGTERM, then wait at most 5 s before SIGKILL
   local pid="$1"
   [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null || return 0
   kill -TERM "$pid"
   for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
   kill -0 "$pid" 2>/dev/null && kill -KILL "$pid"
   wait "$pid" 2>/dev/null || echo "== $2 exited with $?"
}
cleanup() {
   stop "$agent_pid" "$relay_name"
   stop "$reflector_pid" reflector
   lab down || true
   rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

ctl() { "$build/tools/dhcp-relay-ctl" --socket "$work/ctl.sock" "$@"; }

# utime + stime of a process, in clock ticks (fields 14 and 15 of /proc/<pid>/stat;
# the command name, field 2, may hold spaces, so count from after its ")").
cpu_ticks() { sed 's/^.*) //' "/proc/$1/stat" | awk '{ print $12 + $13 }'; }

# The lab gives every link IPv6 addresses with duplicate address detection off; the
# link-local addresses the devices made when they came up may still finish theirs.
ipv6_ready() {
   local ns tentative
   for _ in $(seq 100); do
      tentative=
      for ns in "$ns_client" "$ns_relay" "$ns_server"; do
         [ -z "$(ip -n "$ns" -6 addr show tentative)" ] || tentative=1
      done
      [ -n "$tentative" ] || return 0
      sleep 0.1
   done
   echo "IPv6 addresses still tentative after 10 s" >&2
   return 1
}

echo "== lab (namespaces $prefix-*), DHCPv$proto"
lab up >/dev/null
eval "$(lab names | sed -n 's/^\(client\|relay\|server\)=/ns_\1=/p')"
config="$(lab agent-config)"
if [ "$proto" = 6 ]; then
   ipv6_ready
   sed -i "/^    servers: /d; s/^    servers-v6: .*/    servers-v6: [{address: \"$server6\"}]/" \
      "$config"
   grep -q servers-v6 "$config" || { echo "no servers-v6 line in $config" >&2; exit 1; }
else
   sed -i "/^    servers-v6: /d" "$config"
fi

echo "== reflector in $ns_server, $relay_name in $ns_relay on core $agent_cpu"
ip netns exec "$ns_server" taskset -c "$load_cpu" "$build/bench/dhcp-reflector" --proto "$proto" \
   --max-seconds $((duration + 120)) >"$work/reflector.log" 2>&1 &
reflector_pid=$!
if [ -n "$relay_cmd" ]; then
   # shellcheck disable=SC2086  # the command line is split at spaces on purpose
   ip netns exec "$ns_relay" taskset -c "$agent_cpu" ${relay_cmd//\{WORK\}/$work} \
      >"$work/agent.log" 2>&1 &
else
   BLIPJETDIR="$work" ip netns exec "$ns_relay" taskset -c "$agent_cpu" \
      "$build/dhcp-relay-agent" --config "$config" --socket "$work/ctl.sock" \
      >"$work/agent.log" 2>&1 &
fi
agent_pid=$!
relay_ready() {
   if [ -n "$relay_cmd" ]; then kill -0 "$agent_pid" 2>/dev/null; else ctl show vrfs >/dev/null 2>&1; fi
}
ready=
for _ in $(seq 100); do
   if relay_ready && grep -q listening "$work/reflector.log"; then
      ready=1
      break
   fi
   sleep 0.1
done
if [ -z "$ready" ]; then
   echo "the $relay_name or the reflector did not start:" >&2
   cat "$work/agent.log" "$work/reflector.log" >&2
   exit 1
fi

# A short warm-up: ARP or neighbour discovery between relay, reflector and clients, the
# relay's first allocations.
ip netns exec "$ns_client" "$build/bench/dhcp-loadgen" --dev c0 --proto "$proto" --duration 0.5 \
   --window 8 --clients "$warm_clients" --drain-ms 500 >/dev/null

echo "== load: $duration s, window $window, $clients clients"
perf_pid=
if [ -n "$perf_file" ]; then
   perf record -q -g -F 2999 -p "$agent_pid" -o "$perf_file" -- sleep "$duration" &
   perf_pid=$!
fi
before="$(cpu_ticks "$agent_pid")"
result="$(ip netns exec "$ns_client" taskset -c "$load_cpu" "$build/bench/dhcp-loadgen" --dev c0 \
   --proto "$proto" --duration "$duration" --window "$window" --clients "$clients")"
after="$(cpu_ticks "$agent_pid")"
[ -z "$perf_pid" ] || wait "$perf_pid"
echo "$result" | tr ' ' '\n' | sed 's/^/   /'

answered="$(echo "$result" | sed -n 's/.*answered=\([0-9]*\).*/\1/p')"
hz="$(getconf CLK_TCK)"
echo "== $relay_name CPU (utime+stime, pinned to core $agent_cpu)"
awk -v t=$((after - before)) -v hz="$hz" -v n="$answered" -v d="$duration" 'BEGIN {
   s = t / hz
   printf "   cpu_s=%.2f over %s s (%.0f%% of one core)\n", s, d, 100 * s / d
   if (n > 0) printf "   cpu_us_per_exchange=%.1f (%d ticks of %d Hz / %d exchanges)\n", 1e6 * s / n, t, hz, n
}'
if [ -z "$relay_cmd" ]; then
   echo "== agent counters"
   ctl show counters | sed 's/^/   /' | head -40
fi
