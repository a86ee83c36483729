#include "model/Status.h"

#include "platform/Assert.h"

namespace Ip::Helper::DhcpRelay {

Ptr<PrefixBinding> IntfStatus::prefixBindingIs(const Platform::Ip6Prefix& p) {
   auto [it, added] = prefixBinding_.try_emplace(p);
   if (!added)
      return it->second;
   it->second = Platform::make<PrefixBinding>(p);
   Ptr<PrefixBinding> b = it->second;
   notify(&Reactor::handlePrefixBinding, p);
   return b;
}

Ptr<IntfStatus> Status::intfStatusIs(const Platform::IntfId& intf) {
   auto [it, added] = intfStatus_.try_emplace(intf);
   if (!added)
      return it->second;
   it->second = Platform::make<IntfStatus>(intf);
   Ptr<IntfStatus> s = it->second;
   notify(&Reactor::handleIntfStatus, intf);
   return s;
}

void Status::numSmartRelayedHostsInc() {
   ++numSmartRelayedHosts_;
   notify(&Reactor::handleNumSmartRelayedHosts);
}

void Status::numSmartRelayedHostsDec() {
   PLATFORM_ASSERT(numSmartRelayedHosts_ > 0, "numSmartRelayedHosts decremented below zero");
   --numSmartRelayedHosts_;
   notify(&Reactor::handleNumSmartRelayedHosts);
}

}  // namespace Ip::Helper::DhcpRelay
