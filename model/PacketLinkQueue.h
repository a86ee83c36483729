#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "model/DhcpPacketInfo.h"

namespace Ip::Helper::DhcpRelay {

// Where a queue stands: `head` is the index of its oldest entry (or, when empty, of
// the entry that will come next) and `next` the index the next entry gets. Saved and
// restored with the queue so that indices never go back while a consumer may still
// hold a notification for one of them.
struct LinkQueueMetadata {
   uint32_t head = 0;
   uint32_t next = 0;

   bool operator==(const LinkQueueMetadata&) const = default;
};

// A FIFO of packet records, each under a uint32 index that is never reused while the
// queue holds entries, so that a notification naming an index can be checked against
// the queue later. No length limit and no drop policy: producers and consumers run
// on the same thread and a consumer drains inside the producer's notification.
//
// Entries live in a ring that doubles when full and never shrinks, so once the ring
// has grown to the queue's working depth, enqueue and dequeue allocate nothing (a
// std::deque would allocate and free a block every few packets).
class PacketLinkQueue {
 public:
   // Appends under a fresh index and returns it; the index space running out is
   // fatal (PLATFORM_ASSERT "linkqueue index space full").
   uint32_t enq(const DhcpPacketInfo& info);
   // The oldest entry, removed; an empty record when the queue is empty.
   DhcpPacketInfo deq();
   // The entry under `index`, or an empty record.
   DhcpPacketInfo entry(uint32_t index) const;
   // Each returns whether the queue changed.
   bool del(uint32_t index);
   bool delAll();
   bool metadataIs(const LinkQueueMetadata& m);

   const LinkQueueMetadata& metadata() const { return metadata_; }
   size_t size() const { return count_; }
   bool empty() const { return count_ == 0; }
   // Oldest first: fn(index, info).
   template <class F>
   void forEach(F&& fn) const {
      for (size_t pos = 0; pos < count_; ++pos)
         fn(slot(pos).index, slot(pos).info);
   }

 private:
   struct Entry {
      uint32_t index = 0;
      DhcpPacketInfo info;
   };

   Entry& slot(size_t pos) { return ring_[(first_ + pos) & (ring_.size() - 1)]; }
   const Entry& slot(size_t pos) const { return ring_[(first_ + pos) & (ring_.size() - 1)]; }
   // The position holding `index`, or size() when absent.
   size_t position(uint32_t index) const;
   void grow();
   void headUpdate() { metadata_.head = count_ ? slot(0).index : metadata_.next; }

   std::vector<Entry> ring_;  // empty or a power of two long
   size_t first_ = 0;
   size_t count_ = 0;
   LinkQueueMetadata metadata_;
};

}  // namespace Ip::Helper::DhcpRelay
