#include "relay/IntfLookupTable.h"

namespace Ip::Helper::DhcpRelay {

const std::vector<VrfIpPair>& IntfLookupTable::rows(const Platform::IntfId& intf) const {
   static const std::vector<VrfIpPair> kNone;
   auto it = rows_.find(intf);
   return it == rows_.end() ? kNone : it->second;
}

void IntfLookupTable::rowIs(const VrfIpPair& key, const Platform::IntfId& intf) {
   owner_[key] = intf;
   rows_[intf].push_back(key);
}

void IntfLookupTable::rowsDel(const Platform::IntfId& intf) {
   auto node = rows_.extract(intf);
   if (!node)
      return;
   for (const VrfIpPair& key : node.mapped()) {
      auto it = owner_.find(key);
      if (it != owner_.end() && it->second == intf)
         owner_.erase(it);
   }
}

}  // namespace Ip::Helper::DhcpRelay
