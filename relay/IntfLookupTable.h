#pragma once

#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "model/VrfIpPair.h"
#include "platform/addr/IntfId.h"

namespace Ip::Helper::DhcpRelay {

// Which relay interface owns an address in a VRF, for both families: the packet paths look
// up giaddr, the echo source and unicast destinations here. Each interface's rows are kept
// beside the table, so rebuilding one interface costs its own rows, not the whole table.
//
// Two interfaces of one VRF may claim the same address (the kernel allows it on different
// devices): the latest claim owns the row, and taking an interface's rows away leaves rows
// another interface now owns in place.
class IntfLookupTable {
 public:
   // The owner of the address in the VRF; empty when none.
   Platform::IntfId owner(const VrfIpPair& key) const {
      const Platform::IntfId* found = find(key.vrf.str(), key.addr);
      return found ? *found : Platform::IntfId();
   }
   // Null when none. The VRF is a view: a per-packet lookup copies no name.
   const Platform::IntfId* find(std::string_view vrf, const Platform::IpGenAddr& addr) const {
      auto it = owner_.find(Key{vrf, addr});
      return it == owner_.end() ? nullptr : &it->second;
   }
   // The rows the interface claimed, in the order it claimed them.
   const std::vector<VrfIpPair>& rows(const Platform::IntfId& intf) const;
   size_t size() const { return owner_.size(); }

   void rowIs(const VrfIpPair& key, const Platform::IntfId& intf);
   // Removes every row the interface claimed.
   void rowsDel(const Platform::IntfId& intf);

 private:
   // A lookup key that borrows the VRF name.
   struct Key {
      std::string_view vrf;
      Platform::IpGenAddr addr;
   };
   // Hashes a key and a stored pair alike, so that a Key finds its pair.
   struct Hash {
      using is_transparent = void;
      size_t operator()(const Key& k) const noexcept {
         return hashCombine(std::hash<std::string_view>{}(k.vrf), k.addr);
      }
      size_t operator()(const VrfIpPair& p) const noexcept {
         return (*this)({p.vrf.str(), p.addr});
      }
   };
   struct Equal {
      using is_transparent = void;
      static Key keyOf(const Key& k) { return k; }
      static Key keyOf(const VrfIpPair& p) { return {p.vrf.str(), p.addr}; }
      template <class A, class B>
      bool operator()(const A& a, const B& b) const noexcept {
         const Key x = keyOf(a), y = keyOf(b);
         return x.vrf == y.vrf && x.addr == y.addr;
      }
   };

   std::unordered_map<VrfIpPair, Platform::IntfId, Hash, Equal> owner_;
   std::map<Platform::IntfId, std::vector<VrfIpPair>> rows_;
};

}  // namespace Ip::Helper::DhcpRelay
