#pragma once

#include <map>
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
      auto it = owner_.find(key);
      return it == owner_.end() ? Platform::IntfId() : it->second;
   }
   // Null when none; no copy, for the per-packet lookups.
   const Platform::IntfId* find(const VrfIpPair& key) const {
      auto it = owner_.find(key);
      return it == owner_.end() ? nullptr : &it->second;
   }
   // The rows the interface claimed, in the order it claimed them.
   const std::vector<VrfIpPair>& rows(const Platform::IntfId& intf) const;
   const std::unordered_map<VrfIpPair, Platform::IntfId>& all() const { return owner_; }

   void rowIs(const VrfIpPair& key, const Platform::IntfId& intf);
   // Removes every row the interface claimed.
   void rowsDel(const Platform::IntfId& intf);

 private:
   std::unordered_map<VrfIpPair, Platform::IntfId> owner_;
   std::map<Platform::IntfId, std::vector<VrfIpPair>> rows_;
};

}  // namespace Ip::Helper::DhcpRelay
