// Prefix bindings of a previous run. Their routes outlived the agent in the kernel; each
// binding comes back when its interface relays again in the same VRF with route
// installation on, re-placing a route that went meanwhile, and whatever has not come back
// when start-up is over loses its route. Routes the agent has no record of, whoever
// placed them, are never touched.

#include "platform/trace/Trace.h"
#include "relay6/DhcpRelaySmv6.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

void DhcpRelaySmv6::restoredBindingsIs(std::vector<SavedPrefixBinding> bindings) {
   restored_.clear();
   restoreSettled_ = false;
   for (SavedPrefixBinding& saved : bindings)
      restored_[saved.intf].push_back(std::move(saved));
   if (!initialized_)
      return;
   for (auto& [intf, state] : intfs_)
      doRestoreBindings(intf, *state);
}

bool DhcpRelaySmv6::expired(const PrefixBindingAttrs& attrs) const {
   return expires(attrs) &&
          attrs.writeTime + attrs.validLifetime <= in_.timerWheel->utcClock().now();
}

void DhcpRelaySmv6::doRestoreBindings(const IntfId& intf, Intf& state) {
   auto it = restored_.find(intf);
   if (it == restored_.end() || !routeInstallOn(state) || !state.inVrf)
      return;
   std::vector<SavedPrefixBinding> waiting;
   for (SavedPrefixBinding& saved : it->second) {
      if (saved.attrs.vrf != state.vrf || expired(saved.attrs)) {
         waiting.push_back(std::move(saved));
         continue;
      }
      TRACE(3, "Prefix ", saved.prefix, " on ", intf, " restored from the previous run");
      dhcpRelaySmv6AddBinding(intf, state, saved.prefix, saved.attrs);
   }
   if (waiting.empty())
      restored_.erase(it);
   else
      it->second = std::move(waiting);
}

void DhcpRelaySmv6::handleRestoreSettled() {
   if (restoreSettled_)
      return;
   restoreSettled_ = true;
   for (const auto& [intf, bindings] : restored_) {
      for (const SavedPrefixBinding& saved : bindings) {
         const Platform::VrfName& vrf = saved.attrs.vrf;
         TRACE(3, "Prefix ", saved.prefix, " on ", intf, " in vrf ", vrf,
               " was not restored: removing its route");
         std::unique_ptr<Platform::RouteSocket> own;
         Platform::RouteSocket* routes = pdRouteSocket(vrf);
         std::string error;
         if (!routes && vrfs_.usable(vrf)) {
            own = in_.pamFactory->routeSocket(vrfs_.nsName(vrf).str(), error);
            routes = own.get();
         }
         if (!routes) {
            TRACE(1, "Route of prefix ", saved.prefix, " in vrf ", vrf,
                  " not removed: no route socket there ", error);
            continue;
         }
         if (!routes->routeDel(pdRoute(saved.prefix, saved.attrs), error))
            TRACE(5, "Prefix: ", saved.prefix, " in vrf ", vrf,
                  " was not in the routing table: ", error);
      }
   }
   restored_.clear();
   doBindingsChanged();
}

std::vector<SavedPrefixBinding> DhcpRelaySmv6::savedBindings() const {
   std::vector<SavedPrefixBinding> out;
   for (const auto& [intf, status] : in_.status->intfStatus()) {
      for (const auto& [prefix, binding] : status->prefixBinding())
         out.push_back({intf, prefix, binding->addrAttrs()});
   }
   for (const auto& [intf, bindings] : restored_)
      out.insert(out.end(), bindings.begin(), bindings.end());
   return out;
}

}  // namespace Ip::Helper::DhcpRelay
