#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/packet/ByteCursor.h"

namespace Codec {

// One type-length-value item as it sits on the wire. `offset` is where its tag starts,
// counted from the base the walker was given (so a walker over part of a packet reports
// packet offsets), and `value` is a view into the walked bytes.
struct Tlv {
   uint16_t tag = 0;
   size_t offset = 0;
   size_t length = 0;
   std::span<const uint8_t> value;
};

enum class TlvStep {
   Item,       // `next` filled in one item
   EndOption,  // a one-byte end tag: the items stop here, whatever follows is padding
   EndOfData,  // the bytes ran out exactly on an item boundary
   Malformed,  // a tag or length field is cut short, or a length runs past the end
};

// The wire layout of one TLV family. Widths are 1 or 2 bytes; the pad and end tags are
// one-byte items without a length, a DHCPv4 peculiarity (RFC 2132 section 3.1 and 3.2),
// so formats without them leave `hasPadAndEnd` false.
template <size_t TagWidth, size_t LengthWidth, bool HasPadAndEnd>
struct TlvFormat {
   static_assert((TagWidth == 1 || TagWidth == 2) && (LengthWidth == 1 || LengthWidth == 2));
   static constexpr size_t tagWidth = TagWidth;
   static constexpr size_t lengthWidth = LengthWidth;
   static constexpr bool hasPadAndEnd = HasPadAndEnd;
   static constexpr uint16_t padTag = 0;
   static constexpr uint16_t endTag = 255;
   static constexpr size_t maxLength = LengthWidth == 1 ? 0xff : 0xffff;
};

// DHCPv4 options (RFC 2132) and RFC 3046 relay agent information sub-options, which
// have no pad or end of their own.
using Dhcp4OptionFormat = TlvFormat<1, 1, true>;
using Dhcp4SubOptionFormat = TlvFormat<1, 1, false>;
using Dhcp6OptionFormat = TlvFormat<2, 2, false>;

// Walks TLV items in wire order, duplicates included. It never reads outside the bytes
// it was given, and after Malformed, EndOption or EndOfData it keeps returning the same
// step, so a loop `while (walker.next(tlv) == TlvStep::Item)` cannot run away.
template <class Format>
class TlvWalker {
 public:
   explicit TlvWalker(std::span<const uint8_t> bytes, size_t base = 0)
       : reader_(bytes), base_(base) {}

   TlvStep next(Tlv& out) {
      if (stop_ != TlvStep::Item)
         return stop_;
      for (;;) {
         const size_t at = reader_.offset();
         if (reader_.remaining() == 0)
            return finish(TlvStep::EndOfData, at);
         const auto tag = readField(Format::tagWidth);
         if (!tag)
            return finish(TlvStep::Malformed, at);
         if constexpr (Format::hasPadAndEnd) {
            if (*tag == Format::padTag)
               continue;
            if (*tag == Format::endTag)
               return finish(TlvStep::EndOption, at);
         }
         const auto length = readField(Format::lengthWidth);
         if (!length)
            return finish(TlvStep::Malformed, at);
         const auto value = reader_.bytes(*length);
         if (!value)
            return finish(TlvStep::Malformed, at);
         out = Tlv{*tag, base_ + at, *length, *value};
         return TlvStep::Item;
      }
   }

   // After the walk stopped: where the end option, the cut-short item or the end of the
   // data is, in the same numbering as Tlv::offset.
   size_t stopOffset() const { return stopOffset_; }

 private:
   std::optional<uint16_t> readField(size_t width) {
      if (width == 1)
         return reader_.read8();
      return reader_.read16();
   }

   TlvStep finish(TlvStep step, size_t at) {
      stop_ = step;
      stopOffset_ = base_ + at;
      return step;
   }

   Platform::ByteReader reader_;
   size_t base_;
   TlvStep stop_ = TlvStep::Item;  // Item while the walk goes on
   size_t stopOffset_ = 0;
};

}  // namespace Codec
