#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "codec/TlvWalker.h"
#include "platform/packet/Pkt.h"

namespace Codec {

namespace DhcpOption {
constexpr uint8_t requestedIp = 50;
constexpr uint8_t leaseTime = 51;
constexpr uint8_t overload = 52;
constexpr uint8_t msgType = 53;
constexpr uint8_t serverId = 54;
constexpr uint8_t relayAgentInfo = 82;
}  // namespace DhcpOption

// A run of option bytes, as offsets into the packet's data.
struct OptionArea {
   size_t offset = 0;
   size_t length = 0;
};

enum class OptionsStatus {
   Ok,
   // The packet holds the fixed header but no magic cookie after it: a plain BOOTP
   // message (RFC 951), which has no options at all.
   NoOptions,
   // Shorter than the fixed header, an option area that cannot be walked, or an
   // overload option (52) that is duplicated or not 1, 2 or 3.
   Malformed,
};

// Where a message's options are, in the order RFC 2131 section 4.1 reads them: the
// options field, then `file`, then `sname`, the last two only when option 52 in the
// options field lends them. Option 52 anywhere else means nothing.
struct DhcpOptionAreas {
   std::array<OptionArea, 3> areas{};
   size_t count = 0;
   // The end option of the options field; absent when the field runs to the end of the
   // message without one, which readers accept and writers refuse (a relay agent adds
   // its option right before the end option, RFC 3046 section 2.1).
   std::optional<size_t> endOffset;

   std::span<const OptionArea> list() const { return {areas.data(), count}; }
   const OptionArea& optionsField() const { return areas[0]; }
};

// Checks the whole options field, so every other read can rely on it being walkable;
// `file` and `sname` are checked by the lookups that walk them.
OptionsStatus locateOptionAreas(const Platform::Pkt& pkt, size_t dhcpOffset, DhcpOptionAreas& out);

// Every instance of one option code in all the areas. A fixed-width option found more
// than once is an RFC 3396 split whose joined value cannot have that width, so readers
// treat `instances > 1` as unusable rather than picking one instance.
struct OptionLookup {
   OptionsStatus status = OptionsStatus::Malformed;
   size_t instances = 0;
   Tlv first;  // meaningful when instances > 0; `first.value` views the packet
};

OptionLookup findOption(const Platform::Pkt& pkt, const DhcpOptionAreas& areas, uint8_t code);
OptionLookup findOption(const Platform::Pkt& pkt, size_t dhcpOffset, uint8_t code);

// The one instance of `code`, when there is exactly one and its value is `width` bytes.
std::optional<Tlv> singleOption(const Platform::Pkt& pkt, size_t dhcpOffset, uint8_t code,
                                size_t width);

}  // namespace Codec
