#!/usr/bin/env bash
# Start-up and reload time of the relay agent against the number of interfaces.
#
# For each N it builds, in namespaces of its own:
#     relay:  Ethernet1..N (veth, 10.<i/256>.<i%256>.1/24 each, up), up0 to the servers
#     client: c1..cN, the veth peers (only cN is used: dhcp-loadgen)
#     server: the S server addresses 172.16.0.1..S on lo, dhcp-reflector
#     vrfa, vrfb: two namespaces for VRF v0
# and a configuration relaying every Ethernet<i> to the S servers, with V VRFs:
# v0 in vrfa (Ethernet1 also has a server there, so the relay opens sockets in it) and
# v1..v(V-1) in namespaces that do not exist (inactive: following thousands of real
# namespaces would need thousands of netlink sockets).
#
# It reports, per N:
#   check_s     dhcp-relay-agent --check of the file (the parse alone)
#   start_s     exec of the agent until the control socket answers and an OFFER comes
#               back through Ethernet<N> (the last device, the last one the kernel
#               lists): the relay has its sockets and knows its interfaces
#   start_cpu_s the agent's CPU time (user + system) by then: on a busy machine the
#               figure that depends least on what else runs
#   reload_if_s `dhcp-relay-ctl reload` after one interface's servers changed, until a
#               following `show vrfs` answers (median of 3)
#   reload_vrf_s the same after v0 moved between vrfa and vrfb, until `show vrfs`
#               shows it active in its new namespace (median of 3)
#   reload_all_s the same after v1..v(V-1) all moved to other (missing) namespaces, until
#               a following `show vrfs` answers (median of 3)
# Times include the start of dhcp-relay-ctl and dhcp-loadgen (a few ms).
#
# Needs root. Build first:
#     ninja -C build dhcp-relay-agent dhcp-relay-ctl dhcp-loadgen dhcp-reflector
#     bench/startup_scale.sh
# Environment:
#   SCALE_SIZES    the values of N (default: 256 512 1024 2048 4096)
#   SCALE_SERVERS  S, servers per interface (default: 32)
#   SCALE_VRFS     V, VRFs in the file (default: N)
#   SCALE_BUILD    build directory (default: build)
#   SCALE_PREFIX   namespace name prefix (default: scale<pid>)
#   SCALE_PERF     directory: record a call-graph profile of each start-up there
#                  (perf-<N>.data, `perf report -i FILE`; Debian linux-perf)
# Everything the run creates (namespaces, processes, files) is removed on exit, also
# on error or Ctrl-C.
set -euo pipefail

top="$(cd "$(dirname "$0")/.." && pwd)"
sizes="${SCALE_SIZES:-256 512 1024 2048 4096}"
servers="${SCALE_SERVERS:-32}"
build="${SCALE_BUILD:-$top/build}"
prefix="${SCALE_PREFIX:-scale$$}"
perf_dir="${SCALE_PERF:-}"

for b in dhcp-relay-agent tools/dhcp-relay-ctl bench/dhcp-loadgen bench/dhcp-reflector; do
   [ -x "$build/$b" ] || { echo "missing $build/$b: build it first" >&2; exit 1; }
done

relay="$prefix-relay" client="$prefix-client" server="$prefix-server"
vrfa="$prefix-vrfa" vrfb="$prefix-vrfb"
work="$(mktemp -d "/tmp/$prefix.XXXXXX")"
agent_pid= reflector_pid= perf_pid=

stop() {  # pid: SIGTERM, then SIGKILL after 10 s
   local pid="$1"
   [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null || return 0
   kill -TERM "$pid"
   for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
   kill -0 "$pid" 2>/dev/null && kill -KILL "$pid"
   wait "$pid" 2>/dev/null || true
}
teardown() {
   stop "$perf_pid"
   stop "$agent_pid"
   stop "$reflector_pid"
   agent_pid= reflector_pid= perf_pid=
   for ns in "$relay" "$client" "$server"; do
      ip netns del "$ns" 2>/dev/null || true
   done
}
cleanup() {
   teardown
   ip netns del "$vrfa" 2>/dev/null || true
   ip netns del "$vrfb" 2>/dev/null || true
   rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

ctl() { "$build/tools/dhcp-relay-ctl" --socket "$work/ctl.sock" "$@"; }
# utime + stime of a process in seconds (fields 14 and 15 of /proc/<pid>/stat, counted
# from after the command name, which may hold spaces).
cpu_seconds() {
   sed 's/^.*) //' "/proc/$1/stat" | awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($12 + $13) / hz }'
}
now_ns() { date +%s%N; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", (b - a) / 1e9 }'; }
median3() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
mac() { ip -n "$1" -br link show "$2" | awk '{ print $3 }'; }

build_lab() {  # N
   local n="$1" i
   for ns in "$relay" "$client" "$server"; do ip netns add "$ns"; done
   {
      echo "link set lo up"
      for ((i = 1; i <= n; i++)); do
         echo "link add Ethernet$i type veth peer name c$i netns $client"
         echo "address add 10.$((i / 256)).$((i % 256)).1/24 dev Ethernet$i"
         echo "link set Ethernet$i up"
      done
      echo "link add up0 type veth peer name s0 netns $server"
      echo "address add 172.31.0.1/30 dev up0"
      echo "link set up0 up"
      echo "route add 172.16.0.0/16 via 172.31.0.2"
   } | ip -n "$relay" -batch -
   {
      for ((i = 1; i <= n; i++)); do echo "link set c$i up"; done
   } | ip -n "$client" -batch -
   {
      echo "link set lo up"
      for ((i = 1; i <= servers; i++)); do echo "address add 172.16.0.$i/32 dev lo"; done
      echo "address add 172.31.0.2/30 dev s0"
      echo "link set s0 up"
      echo "route add 10.0.0.0/8 via 172.31.0.1"
   } | ip -n "$server" -batch -
   # The kernel brings thousands of links up in the background (link watch): the agent
   # starts once every link can carry traffic, so that only the agent is measured.
   local ns want
   for ns in "$relay" "$client"; do
      want=$n
      [ "$ns" = "$relay" ] && want=$((n + 1))
      until [ "$(ip -n "$ns" -o link show type veth | grep -c 'state UP')" -eq "$want" ]; do
         sleep 0.2
      done
   done
   # No ARP on the way: the first relayed DISCOVER must not wait for it.
   ip -n "$relay" neigh replace 172.31.0.2 lladdr "$(mac "$server" s0)" dev up0 nud permanent
   ip -n "$server" neigh replace 172.31.0.1 lladdr "$(mac "$relay" up0)" dev s0 nud permanent
}

# config N V VRF0_NS [CHANGED_INTF [OTHERS]]: the changed interface gets one server more;
# v1..v(V-1) are in namespaces named <prefix>-<OTHERS><i>.
write_config() {
   awk -v n="$1" -v v="$2" -v ns0="$3" -v changed="${4:-0}" -v others="${5:-none}" \
      -v s="$servers" -v p="$prefix" 'BEGIN {
      print "vrfs:"
      printf "  v0: %s\n", ns0
      for (i = 1; i < v; i++) printf "  v%d: %s-%s%d\n", i, p, others, i
      print "interfaces:"
      for (i = 1; i <= n; i++) {
         printf "  Ethernet%d:\n    servers:\n", i
         for (j = 1; j <= s; j++) printf "      - address: 172.16.0.%d\n", j
         if (i == 1) print "      - {address: 172.16.1.1, vrf: v0}"
         # A server in another VRF finds its way back through option 82 only.
         if (i == 1) print "    information-option: true"
         if (i == changed) printf "      - address: 172.16.0.%d\n", s + 1
      }
   }'
}

start_agent() {  # N: sets `took` to the seconds from exec to ready, `cpu` to the CPU time
   local n="$1" t0 t1
   t0="$(now_ns)"
   BLIPJETDIR="$work" ip netns exec "$relay" "$build/dhcp-relay-agent" \
      --config "$work/config.yaml" --socket "$work/ctl.sock" >"$work/agent.log" 2>&1 &
   agent_pid=$!
   if [ -n "$perf_dir" ]; then
      perf record -q --call-graph dwarf,16384 -F 999 -p "$agent_pid" \
         -o "$perf_dir/perf-$n.data" &
      perf_pid=$!
   fi
   until ctl show vrfs >/dev/null 2>&1; do
      kill -0 "$agent_pid" 2>/dev/null || { cat "$work/agent.log" >&2; return 1; }
      sleep 0.01
   done
   ip netns exec "$client" "$build/bench/dhcp-loadgen" --dev "c$n" --until-answered 1 \
      --duration 300 --window 1 --clients 1 --timeout-ms 5 >"$work/probe.log" ||
      { cat "$work/probe.log" "$work/agent.log" >&2; return 1; }
   t1="$(now_ns)"
   cpu="$(cpu_seconds "$agent_pid")"
   if [ -n "$perf_pid" ]; then
      kill -INT "$perf_pid"
      wait "$perf_pid" || true
      perf_pid=
   fi
   took="$(seconds "$t0" "$t1")"
}

reload() {  # CONFIG [VRF0_NS]: sets `took` to the seconds the reload took
   local t0 t1 start=$SECONDS
   cp "$1" "$work/config.yaml"
   t0="$(now_ns)"
   # 2: no reply within dhcp-relay-ctl's 30 s, the agent still applying; the wait below
   # tells when it is done.
   local rc=0
   ctl reload >/dev/null || rc=$?
   [ "$rc" -eq 0 ] || [ "$rc" -eq 2 ] || return 1
   if [ -n "${2:-}" ]; then
      # Not grep -q: ctl must not die of SIGPIPE on a long listing (pipefail).
      until ctl show vrfs | grep -E "^v0 +$2 +active" >/dev/null; do
         [ $((SECONDS - start)) -lt 600 ] || { echo "v0 never became active in $2" >&2; return 1; }
         sleep 0.001
      done
   else
      until ctl show vrfs >/dev/null 2>&1; do :; done
   fi
   t1="$(now_ns)"
   took="$(seconds "$t0" "$t1")"
}

ip netns add "$vrfa"
ip netns add "$vrfb"
row='%6s %4s %6s %8s %8s %12s %12s %13s %13s\n'
printf "$row" N S V check_s start_s start_cpu_s reload_if_s reload_vrf_s reload_all_s
for n in $sizes; do
   v="${SCALE_VRFS:-$n}"
   build_lab "$n"
   write_config "$n" "$v" "$vrfa" >"$work/base.yaml"
   write_config "$n" "$v" "$vrfa" $((n / 2)) >"$work/changed.yaml"
   write_config "$n" "$v" "$vrfb" >"$work/moved.yaml"
   write_config "$n" "$v" "$vrfa" 0 other >"$work/all.yaml"
   cp "$work/base.yaml" "$work/config.yaml"

   t0="$(now_ns)"
   "$build/dhcp-relay-agent" --config "$work/base.yaml" --check >/dev/null
   check="$(seconds "$t0" "$(now_ns)")"

   ip netns exec "$server" "$build/bench/dhcp-reflector" --max-seconds 3600 \
      >"$work/reflector.log" 2>&1 &
   reflector_pid=$!
   start_agent "$n"
   start="$took"

   if_times=() vrf_times=() all_times=()
   for _ in 1 2 3; do
      reload "$work/changed.yaml"
      if_times+=("$took")
      reload "$work/base.yaml"
      reload "$work/moved.yaml" "$vrfb"
      vrf_times+=("$took")
      reload "$work/base.yaml" "$vrfa"
      reload "$work/all.yaml"
      all_times+=("$took")
      reload "$work/base.yaml"
   done
   printf "$row" "$n" "$servers" "$v" "$check" "$start" "$cpu" "$(median3 "${if_times[@]}")" \
      "$(median3 "${vrf_times[@]}")" "$(median3 "${all_times[@]}")"
   teardown
done
