#include "model/PacketLinkQueue.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/base/Assert.h"

namespace Ip::Helper::DhcpRelay {

namespace {

constexpr size_t kInitialRing = 8;

}  // namespace

uint32_t PacketLinkQueue::enq(const DhcpPacketInfo& info) {
   // A restored `next` may lag behind entries already queued; the tail wins then.
   uint64_t index = metadata_.next;
   if (count_ != 0)
      index = std::max<uint64_t>(index, uint64_t{slot(count_ - 1).index} + 1);
   // The largest value is never handed out: `next` must stay representable.
   PLATFORM_ASSERT(index < std::numeric_limits<uint32_t>::max(), "linkqueue index space full");
   if (count_ == ring_.size())
      grow();
   Entry& e = slot(count_);
   e.index = static_cast<uint32_t>(index);
   e.info = info;
   ++count_;
   metadata_.next = e.index + 1;
   headUpdate();
   return e.index;
}

DhcpPacketInfo PacketLinkQueue::deq() {
   if (count_ == 0)
      return {};
   // Moving out leaves the slot without a packet reference.
   DhcpPacketInfo out = std::move(slot(0).info);
   first_ = (first_ + 1) & (ring_.size() - 1);
   --count_;
   headUpdate();
   return out;
}

DhcpPacketInfo PacketLinkQueue::entry(uint32_t index) const {
   const size_t pos = position(index);
   return pos == count_ ? DhcpPacketInfo{} : slot(pos).info;
}

bool PacketLinkQueue::del(uint32_t index) {
   const size_t pos = position(index);
   if (pos == count_)
      return false;
   for (size_t i = pos; i + 1 < count_; ++i)
      slot(i) = std::move(slot(i + 1));
   slot(count_ - 1).info.packet.reset();
   --count_;
   headUpdate();
   return true;
}

bool PacketLinkQueue::delAll() {
   if (count_ == 0)
      return false;
   for (size_t pos = 0; pos < count_; ++pos)
      slot(pos).info.packet.reset();
   first_ = 0;
   count_ = 0;
   headUpdate();
   return true;
}

bool PacketLinkQueue::metadataIs(const LinkQueueMetadata& m) {
   if (metadata_ == m)
      return false;
   metadata_ = m;
   return true;
}

size_t PacketLinkQueue::position(uint32_t index) const {
   if (count_ == 0 || index < slot(0).index)
      return count_;
   // Indices are consecutive unless an entry was deleted from the middle.
   const uint64_t guess = uint64_t{index} - slot(0).index;
   if (guess < count_ && slot(guess).index == index)
      return guess;
   size_t lo = 0;
   size_t hi = count_;
   while (lo < hi) {
      const size_t mid = lo + (hi - lo) / 2;
      if (slot(mid).index < index) {
         lo = mid + 1;
      } else {
         hi = mid;
      }
   }
   return lo < count_ && slot(lo).index == index ? lo : count_;
}

void PacketLinkQueue::grow() {
   std::vector<Entry> bigger(ring_.empty() ? kInitialRing : ring_.size() * 2);
   for (size_t pos = 0; pos < count_; ++pos)
      bigger[pos] = std::move(slot(pos));
   ring_ = std::move(bigger);
   first_ = 0;
}

}  // namespace Ip::Helper::DhcpRelay
