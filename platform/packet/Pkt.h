#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/base/Ptr.h"

namespace Platform {

// A packet in one allocation: the object and its buffer live in a single block, so
// receiving a packet costs one allocation and every later edit costs none. Room before
// the data lets the relay prepend headers in place; room after it lets it append
// options. Every edit either fits and is applied, or returns false and leaves the
// packet untouched, so a caller can drop an oversized packet without repairing it.
class Pkt final : public RefCounted {
 public:
   static Ptr<Pkt> create(size_t bytes, size_t headroom = 64, size_t tailroom = 512);
   static Ptr<Pkt> copyOf(std::span<const uint8_t> src, size_t headroom = 64,
                          size_t tailroom = 512);

   size_t bytes() const { return bytes_; }
   size_t headroom() const { return head_; }
   size_t tailroom() const { return capacity_ - head_ - bytes_; }

   uint8_t* data() { return buffer() + head_; }
   const uint8_t* data() const { return buffer() + head_; }
   std::span<uint8_t> span() { return {data(), bytes_}; }
   std::span<const uint8_t> span() const { return {data(), bytes_}; }

   // Bytes exposed at either end are zeroed, so no stale content of an earlier
   // packet layout can reach the wire.
   bool growHead(size_t n);
   bool shrinkHead(size_t n);
   bool growTail(size_t n);
   bool shrinkTail(size_t n);
   // memmove semantics: the ranges may overlap, which is how gaps are opened and closed.
   bool moveRange(size_t from, size_t to, size_t len);
   // Gives a recycled packet the layout of a fresh one (zeroed data of `bytes` after
   // `headroom`), so a pool can hand it out again; false, unchanged, when the buffer
   // is too small for that layout.
   bool reset(size_t bytes, size_t headroom);

   std::optional<uint8_t> at(size_t off) const;
   bool write(size_t off, std::span<const uint8_t> src);
   // Empty when the range is not wholly inside the data.
   std::span<const uint8_t> sub(size_t off, size_t len) const;

   std::string toString() const;

   // The block came from ::operator new with the buffer's size added; the unsized
   // form frees it without claiming it was sizeof(Pkt).
   static void operator delete(void* p) { ::operator delete(p); }

 private:
   Pkt(size_t capacity, size_t headroom, size_t bytes);
   ~Pkt() override = default;

   bool inData(size_t off, size_t len) const { return off <= bytes_ && len <= bytes_ - off; }

   uint8_t* buffer() { return reinterpret_cast<uint8_t*>(this + 1); }
   const uint8_t* buffer() const { return reinterpret_cast<const uint8_t*>(this + 1); }

   size_t capacity_;
   size_t head_;
   size_t bytes_;
};

}  // namespace Platform
