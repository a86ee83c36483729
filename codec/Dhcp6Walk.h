#pragma once

// The DHCPv6 codec's own option walk, shared by its reads and its edits. Options and the
// CableLabs sub-options inside option 17 have the same layout (2-byte code, 2-byte length),
// so one walk serves both.

#include <algorithm>
#include <cstddef>

#include "codec/TlvWalker.h"
#include "platform/packet/Pkt.h"

namespace Codec {

using Dhcp6Walker = TlvWalker<Dhcp6OptionFormat>;

// A Relay-Forw may be wrapped by at most 32 relays (RFC 8415 section 7.6, HOP_COUNT_LIMIT),
// and a Relay-Repl retraces that path, so a message nested deeper is not one relays sent.
constexpr size_t kDhcp6MaxRelayDepth = 32;

// A walk over [start, end) of the packet's data, end clipped to the packet, reporting
// packet offsets. An empty or inverted region walks nothing.
inline Dhcp6Walker dhcp6Walker(const Platform::Pkt& pkt, size_t start, size_t end) {
   end = std::min(end, pkt.bytes());
   if (start >= end)
      return Dhcp6Walker({}, start);
   return Dhcp6Walker(pkt.sub(start, end - start), start);
}

// The first item `accept` takes: Item with `out` filled; EndOfData when the region holds
// none; Malformed when an item running past the region stopped the walk before one was
// found, in which case the bytes it did not reach are unknown, not absent.
template <class Accept>
TlvStep dhcp6FindFirst(const Platform::Pkt& pkt, size_t start, size_t end, Tlv& out,
                       Accept&& accept) {
   Dhcp6Walker walker = dhcp6Walker(pkt, start, end);
   TlvStep step;
   while ((step = walker.next(out)) == TlvStep::Item) {
      if (accept(out))
         return TlvStep::Item;
   }
   return step;
}

}  // namespace Codec
