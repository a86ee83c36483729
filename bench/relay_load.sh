#!/usr/bin/env bash
# Load through the relay agent in the namespace lab (tools/lab/lab.py):
#     dhcp-loadgen (client ns) --c0/r0-- dhcp-relay-agent (relay ns) --r1/br0-- dhcp-reflector (server ns)
# The agent runs pinned to one core; the load tool and the reflector share the
# other. Prints the load tool's figures and the agent's CPU time per relayed
# exchange (DISCOVER relayed + OFFER relayed back), from utime+stime of
# /proc/<pid>/stat before and after the run. Everything the run creates is removed
# on exit, also on error or Ctrl-C.
#
# Needs root. Build first: ninja -C build dhcp-relay-agent dhcp-relay-ctl dhcp-loadgen dhcp-reflector
# Environment:
#   LOAD_PREFIX     namespace name prefix (default: load<pid>)
#   LOAD_BUILD      build directory (default: build)
#   LOAD_DURATION   seconds of load (default: 5)
#   LOAD_WINDOW     outstanding DISCOVERs (default: 64)
#   LOAD_CLIENTS    simulated clients, one MAC each (default: 65536)
#   AGENT_CPU       core the agent is pinned to (default: 0)
#   LOAD_CPU        core of the load tool and the reflector (default: 1)
#   LOAD_PERF       file: record a call-graph profile of the agent during the load with
#                   `perf record` (Debian linux-perf); read it with `perf report -i FILE`
set -euo pipefail

top="$(cd "$(dirname "$0")/.." && pwd)"
prefix="${LOAD_PREFIX:-load$$}"
build="${LOAD_BUILD:-$top/build}"
duration="${LOAD_DURATION:-5}"
window="${LOAD_WINDOW:-64}"
clients="${LOAD_CLIENTS:-65536}"
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
   stop "$agent_pid" agent
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

echo "== lab (namespaces $prefix-*)"
lab up >/dev/null
eval "$(lab names | sed -n 's/^\(client\|relay\|server\)=/ns_\1=/p')"
config="$(lab agent-config)"

echo "== reflector in $ns_server, agent in $ns_relay on core $agent_cpu"
ip netns exec "$ns_server" taskset -c "$load_cpu" "$build/bench/dhcp-reflector" \
   --max-seconds $((duration + 120)) >"$work/reflector.log" 2>&1 &
reflector_pid=$!
BLIPJETDIR="$work" ip netns exec "$ns_relay" taskset -c "$agent_cpu" "$build/dhcp-relay-agent" \
   --config "$config" --socket "$work/ctl.sock" >"$work/agent.log" 2>&1 &
agent_pid=$!
ready=
for _ in $(seq 100); do
   if ctl show vrfs >/dev/null 2>&1 && grep -q listening "$work/reflector.log"; then
      ready=1
      break
   fi
   sleep 0.1
done
if [ -z "$ready" ]; then
   echo "the agent or the reflector did not start:" >&2
   cat "$work/agent.log" "$work/reflector.log" >&2
   exit 1
fi

# A short warm-up: ARP between relay and reflector, the agent's first allocations.
ip netns exec "$ns_client" "$build/bench/dhcp-loadgen" --dev c0 --duration 0.5 --window 8 \
   --clients 1024 --drain-ms 500 >/dev/null

echo "== load: $duration s, window $window, $clients clients"
perf_pid=
if [ -n "$perf_file" ]; then
   perf record -q -g -F 2999 -p "$agent_pid" -o "$perf_file" -- sleep "$duration" &
   perf_pid=$!
fi
before="$(cpu_ticks "$agent_pid")"
result="$(ip netns exec "$ns_client" taskset -c "$load_cpu" "$build/bench/dhcp-loadgen" --dev c0 \
   --duration "$duration" --window "$window" --clients "$clients")"
after="$(cpu_ticks "$agent_pid")"
[ -z "$perf_pid" ] || wait "$perf_pid"
echo "$result" | tr ' ' '\n' | sed 's/^/   /'

answered="$(echo "$result" | sed -n 's/.*answered=\([0-9]*\).*/\1/p')"
hz="$(getconf CLK_TCK)"
echo "== agent CPU (utime+stime, pinned to core $agent_cpu)"
awk -v t=$((after - before)) -v hz="$hz" -v n="$answered" -v d="$duration" 'BEGIN {
   s = t / hz
   printf "   cpu_s=%.2f over %s s (%.0f%% of one core)\n", s, d, 100 * s / d
   if (n > 0) printf "   cpu_us_per_exchange=%.1f (%d ticks of %d Hz / %d exchanges)\n", 1e6 * s / n, t, hz, n
}'
echo "== agent counters"
ctl show counters | sed 's/^/   /' | head -40
