#include "platform/addr/PrefixTrie.h"

#include <array>

namespace Platform {

PrefixTrie::PrefixTrie() : nodes_(1) {}

uint32_t PrefixTrie::nodeIs() {
   if (free_.empty()) {
      nodes_.emplace_back();
      return static_cast<uint32_t>(nodes_.size() - 1);
   }
   const uint32_t i = free_.back();
   free_.pop_back();
   nodes_[i] = Node();
   return i;
}

uint32_t PrefixTrie::find(const IpAddrWithMask& prefix) const {
   const uint32_t value = prefix.address().value();
   uint32_t n = 0;
   for (unsigned depth = 0; depth < prefix.maskLen(); ++depth) {
      n = nodes_[n].child[bitAt(value, depth)];
      if (n == kNone)
         return kNone;
   }
   return n;
}

bool PrefixTrie::insert(const IpAddrWithMask& prefix) {
   const uint32_t value = prefix.address().value();
   uint32_t n = 0;
   for (unsigned depth = 0; depth < prefix.maskLen(); ++depth) {
      const unsigned bit = bitAt(value, depth);
      if (nodes_[n].child[bit] == kNone) {
         // nodeIs may move the vector: no reference into it is held across the call.
         const uint32_t created = nodeIs();
         nodes_[n].child[bit] = created;
      }
      n = nodes_[n].child[bit];
   }
   if (nodes_[n].terminal)
      return false;
   nodes_[n].terminal = true;
   ++size_;
   return true;
}

bool PrefixTrie::remove(const IpAddrWithMask& prefix) {
   const uint32_t value = prefix.address().value();
   std::array<uint32_t, 33> path;
   path[0] = 0;
   const unsigned len = prefix.maskLen();
   for (unsigned depth = 0; depth < len; ++depth) {
      path[depth + 1] = nodes_[path[depth]].child[bitAt(value, depth)];
      if (path[depth + 1] == kNone)
         return false;
   }
   if (!nodes_[path[len]].terminal)
      return false;
   nodes_[path[len]].terminal = false;
   --size_;
   // Prune the branch that now leads to no prefix, so that lookups stay short.
   for (unsigned depth = len; depth > 0; --depth) {
      const Node& node = nodes_[path[depth]];
      if (node.terminal || node.child[0] != kNone || node.child[1] != kNone)
         break;
      nodes_[path[depth - 1]].child[bitAt(value, depth - 1)] = kNone;
      free_.push_back(path[depth]);
   }
   return true;
}

bool PrefixTrie::contains(const IpAddrWithMask& prefix) const {
   const uint32_t n = find(prefix);
   return (n != kNone || prefix.maskLen() == 0) && nodes_[n].terminal;
}

std::optional<IpAddrWithMask> PrefixTrie::longestMatch(IpAddr addr) const {
   const uint32_t value = addr.value();
   std::optional<IpAddrWithMask> best;
   uint32_t n = 0;
   for (unsigned depth = 0;; ++depth) {
      if (nodes_[n].terminal)
         best = IpAddrWithMask(addr, static_cast<uint8_t>(depth)).prefix();
      if (depth == 32)
         break;
      n = nodes_[n].child[bitAt(value, depth)];
      if (n == kNone)
         break;
   }
   return best;
}

}  // namespace Platform
