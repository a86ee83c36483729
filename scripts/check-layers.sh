#!/usr/bin/env bash
# Fails on an #include that points up a layer. From the bottom:
#   platform            event loop, store, trace, packets, addresses, sockets
#   codec               DHCP messages, options and frames on top of packets
#   model               the records the front ends write and the machines read
#   machines            servers/ counters/ relay/ relay4/ relay6/ snooping/
#   frontend            config file, control socket, kernel, resolver
#   agent               the object graph and the daemon, which wires all of the above
# Machines and front ends are side by side: neither includes the other.
# tools/, bench/, fuzz/ and tests/ may include anything.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A allowed=(
   [platform]="platform"
   [codec]="codec platform"
   [model]="model platform"
   [servers]="servers model codec platform"
   [counters]="counters model codec platform"
   [relay]="relay counters servers model codec platform"
   [relay4]="relay4 relay counters servers model codec platform"
   [relay6]="relay6 relay counters servers model codec platform"
   [snooping]="snooping relay counters model codec platform"
   [frontend]="frontend model codec platform"
   [agent]="agent frontend relay relay4 relay6 snooping servers counters model codec platform"
)

bad=0
while IFS= read -r file; do
   from=${file%%/*}
   [[ -n ${allowed[$from]+x} ]] || continue
   while IFS=: read -r line target; do
      to=${target%%/*}
      if [[ " ${allowed[$from]} " != *" $to "* ]]; then
         echo "$file:$line: includes $target: $from/ may include only ${allowed[$from]}" >&2
         bad=1
      fi
   done < <(grep -n '^#include "' "$file" | sed -E 's/^([0-9]+):#include "([^"]+)".*/\1:\2/')
done < <(git ls-files '*.h' '*.cpp')
exit $bad
