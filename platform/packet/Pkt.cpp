#include "platform/packet/Pkt.h"

#include <cstring>
#include <limits>
#include <new>

#include "platform/base/Assert.h"

namespace Platform {

Pkt::Pkt(size_t capacity, size_t headroom, size_t bytes)
    : capacity_(capacity), head_(headroom), bytes_(bytes) {
   std::memset(buffer(), 0, capacity_);
}

Ptr<Pkt> Pkt::create(size_t bytes, size_t headroom, size_t tailroom) {
   constexpr size_t limit = std::numeric_limits<size_t>::max() - sizeof(Pkt);
   PLATFORM_ASSERT(
       headroom <= limit && bytes <= limit - headroom && tailroom <= limit - headroom - bytes,
       "Pkt size overflows");
   const size_t capacity = headroom + bytes + tailroom;
   void* block = ::operator new(sizeof(Pkt) + capacity);
   return Ptr<Pkt>(new (block) Pkt(capacity, headroom, bytes));
}

Ptr<Pkt> Pkt::copyOf(std::span<const uint8_t> src, size_t headroom, size_t tailroom) {
   Ptr<Pkt> pkt = create(src.size(), headroom, tailroom);
   if (!src.empty())
      std::memcpy(pkt->data(), src.data(), src.size());
   return pkt;
}

bool Pkt::growHead(size_t n) {
   if (n > head_)
      return false;
   head_ -= n;
   bytes_ += n;
   std::memset(data(), 0, n);
   return true;
}

bool Pkt::shrinkHead(size_t n) {
   if (n > bytes_)
      return false;
   head_ += n;
   bytes_ -= n;
   return true;
}

bool Pkt::growTail(size_t n) {
   if (n > tailroom())
      return false;
   std::memset(data() + bytes_, 0, n);
   bytes_ += n;
   return true;
}

bool Pkt::shrinkTail(size_t n) {
   if (n > bytes_)
      return false;
   bytes_ -= n;
   return true;
}

bool Pkt::moveRange(size_t from, size_t to, size_t len) {
   if (!inData(from, len) || !inData(to, len))
      return false;
   if (len != 0)
      std::memmove(data() + to, data() + from, len);
   return true;
}

bool Pkt::reset(size_t bytes, size_t headroom) {
   if (headroom > capacity_ || bytes > capacity_ - headroom)
      return false;
   head_ = headroom;
   bytes_ = bytes;
   std::memset(data(), 0, bytes_);
   return true;
}

std::optional<uint8_t> Pkt::at(size_t off) const {
   if (off >= bytes_)
      return std::nullopt;
   return data()[off];
}

bool Pkt::write(size_t off, std::span<const uint8_t> src) {
   if (!inData(off, src.size()))
      return false;
   if (!src.empty())
      std::memcpy(data() + off, src.data(), src.size());
   return true;
}

std::span<const uint8_t> Pkt::sub(size_t off, size_t len) const {
   if (!inData(off, len))
      return {};
   return span().subspan(off, len);
}

std::string Pkt::toString() const {
   return "Pkt(bytes=" + std::to_string(bytes_) + ")";
}

}  // namespace Platform
