#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/addr/IpAddr.h"

namespace Platform {

// A set of IPv4 prefixes answering which one holds an address most specifically: a binary
// trie, one level per bit. The nodes live in one vector and are reused after removal, so a
// lookup allocates nothing and follows at most 32 indices. Meant for the handful of subnets
// of one interface, not a routing table.
class PrefixTrie {
 public:
   PrefixTrie();

   // Host bits of `prefix` are ignored. False when the prefix was already there.
   bool insert(const IpAddrWithMask& prefix);
   // False when the prefix was not there.
   bool remove(const IpAddrWithMask& prefix);
   bool contains(const IpAddrWithMask& prefix) const;
   // The longest prefix holding `addr`.
   std::optional<IpAddrWithMask> longestMatch(IpAddr addr) const;

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }

 private:
   static constexpr uint32_t kNone = 0;  // the root is node 0 and nobody's child

   struct Node {
      uint32_t child[2] = {kNone, kNone};
      bool terminal = false;
   };

   static unsigned bitAt(uint32_t value, unsigned depth) { return (value >> (31 - depth)) & 1; }
   // The node of the prefix, or kNone (for a prefix other than /0) when its path is missing.
   uint32_t find(const IpAddrWithMask& prefix) const;
   uint32_t nodeIs();

   std::vector<Node> nodes_;
   std::vector<uint32_t> free_;
   size_t size_ = 0;
};

}  // namespace Platform
