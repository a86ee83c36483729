#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/base/Ptr.h"
#include "platform/packet/Pkt.h"

namespace Platform {

// Receive buffers that are used again instead of freed, so a socket that keeps
// receiving allocates nothing once the pool has grown to its working size. A pooled
// packet is free again as soon as the pool holds its only reference: whoever took it
// simply drops it, and nothing has to be given back.
//
// Beyond `limit` packets in use at once (a consumer that keeps every packet it gets)
// take() still succeeds with a packet the pool does not keep, so a leak upstream costs
// allocations, not packets.
class PktPool {
 public:
   explicit PktPool(size_t headroom = 64, size_t tailroom = 512, size_t limit = 256);
   PktPool(const PktPool&) = delete;
   PktPool& operator=(const PktPool&) = delete;

   // A packet of `bytes` zeroed bytes with the pool's head and tail room.
   Ptr<Pkt> take(size_t bytes);

   size_t size() const { return pkts_.size(); }
   // Packets allocated so far, pooled or not: flat in steady state.
   uint64_t created() const { return created_; }

 private:
   Ptr<Pkt> doCreate(size_t bytes);

   size_t headroom_;
   size_t tailroom_;
   size_t limit_;
   std::vector<Ptr<Pkt>> pkts_;
   size_t next_ = 0;  // where the search for a free packet resumes
   uint64_t created_ = 0;
};

}  // namespace Platform
