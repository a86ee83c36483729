#include "platform/packet/PktPool.h"

namespace Platform {

PktPool::PktPool(size_t headroom, size_t tailroom, size_t limit)
    : headroom_(headroom), tailroom_(tailroom), limit_(limit) {
   pkts_.reserve(limit_);
}

Ptr<Pkt> PktPool::doCreate(size_t bytes) {
   ++created_;
   return Pkt::create(bytes, headroom_, tailroom_);
}

Ptr<Pkt> PktPool::take(size_t bytes) {
   // Packets are mostly released in the order they were taken, so resuming after the
   // last one handed out usually finds a free one at once.
   const size_t n = pkts_.size();
   for (size_t i = 0; i < n; ++i) {
      const size_t at = (next_ + i) % n;
      Ptr<Pkt>& pkt = pkts_[at];
      if (pkt->refCount() != 1)
         continue;
      next_ = (at + 1) % n;
      const size_t capacity = pkt->headroom() + pkt->bytes() + pkt->tailroom();
      // A packet too small for the requested size (the size grew) is replaced in its slot.
      if (capacity < headroom_ + bytes + tailroom_ || !pkt->reset(bytes, headroom_))
         pkt = doCreate(bytes);
      return pkt;
   }
   if (n == limit_)
      return doCreate(bytes);
   pkts_.push_back(doCreate(bytes));
   return pkts_.back();
}

}  // namespace Platform
