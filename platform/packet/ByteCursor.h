#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Platform {

// Sequential reader over received bytes. Every read checks the count against what is
// left (sizes, never pointers), and a read that does not fit fails without consuming
// anything, so a truncated packet is reported to the caller instead of asserted on.
class ByteReader {
 public:
   ByteReader() = default;
   explicit ByteReader(std::span<const uint8_t> data) : data_(data) {}

   size_t offset() const { return offset_; }
   size_t remaining() const { return data_.size() - offset_; }

   std::optional<uint8_t> read8() {
      if (remaining() < 1)
         return std::nullopt;
      return data_[offset_++];
   }
   std::optional<uint16_t> read16() {
      if (remaining() < 2)
         return std::nullopt;
      const uint16_t v = static_cast<uint16_t>(data_[offset_] << 8 | data_[offset_ + 1]);
      offset_ += 2;
      return v;
   }
   std::optional<uint32_t> read32() {
      if (remaining() < 4)
         return std::nullopt;
      const uint32_t v = uint32_t{data_[offset_]} << 24 | uint32_t{data_[offset_ + 1]} << 16 |
                         uint32_t{data_[offset_ + 2]} << 8 | uint32_t{data_[offset_ + 3]};
      offset_ += 4;
      return v;
   }
   std::optional<std::span<const uint8_t>> bytes(size_t n) {
      if (n > remaining())
         return std::nullopt;
      const auto out = data_.subspan(offset_, n);
      offset_ += n;
      return out;
   }
   bool skip(size_t n) {
      if (n > remaining())
         return false;
      offset_ += n;
      return true;
   }
   // A reader confined to the next n bytes (one option, one sub-option): whatever the
   // inner parse does, it cannot run into the bytes that follow.
   std::optional<ByteReader> sub(size_t n) {
      const auto inner = bytes(n);
      if (!inner)
         return std::nullopt;
      return ByteReader(*inner);
   }

 private:
   std::span<const uint8_t> data_;
   size_t offset_ = 0;
};

// Sequential writer into a caller's buffer; a write that does not fit fails whole and
// writes nothing, so the caller decides whether to drop or truncate.
class ByteWriter {
 public:
   explicit ByteWriter(std::span<uint8_t> out) : out_(out) {}

   size_t offset() const { return offset_; }
   size_t remaining() const { return out_.size() - offset_; }
   std::span<uint8_t> written() const { return out_.first(offset_); }

   bool write8(uint8_t v) {
      if (remaining() < 1)
         return false;
      out_[offset_++] = v;
      return true;
   }
   bool write16(uint16_t v) {
      if (remaining() < 2)
         return false;
      out_[offset_++] = static_cast<uint8_t>(v >> 8);
      out_[offset_++] = static_cast<uint8_t>(v);
      return true;
   }
   bool write32(uint32_t v) {
      if (remaining() < 4)
         return false;
      for (int shift = 24; shift >= 0; shift -= 8)
         out_[offset_++] = static_cast<uint8_t>(v >> shift);
      return true;
   }
   bool bytes(std::span<const uint8_t> src) {
      if (src.size() > remaining())
         return false;
      std::copy(src.begin(), src.end(), out_.begin() + static_cast<ptrdiff_t>(offset_));
      offset_ += src.size();
      return true;
   }

 private:
   std::span<uint8_t> out_;
   size_t offset_ = 0;
};

}  // namespace Platform
