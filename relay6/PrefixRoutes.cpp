// Routes for delegated prefixes: on interfaces with route installation, every address
// (IA_NA) and prefix (IA_PD) of a Reply relayed to a client becomes a prefix binding in the
// interface's status and a kernel route towards the client in the VRF's namespace. The
// binding is the authority: its route is present exactly while it exists, and its timer,
// not the kernel's expiry on the route, ends it.

#include <array>

#include "codec/Dhcp6Codec.h"
#include "platform/trace/Trace.h"
#include "relay6/DhcpRelaySmv6.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::Ip6Prefix;
using Platform::VrfName;

namespace {

// A message carries a handful of IAs; more than this many leases in one are not bound.
constexpr size_t kMaxLeasesPerMessage = 32;

}  // namespace

// Neither 0 nor infinite: the binding ends when its valid lifetime does.
bool DhcpRelaySmv6::expires(const PrefixBindingAttrs& attrs) {
   return attrs.validLifetime != 0 && attrs.validLifetime != 0xffffffff && attrs.writeTime != 0;
}

bool DhcpRelaySmv6::routeInstallOn(const Intf& state) {
   const Ptr<const IntfConfig>& config = state.config.notifier();
   return config && config->routeInstall();
}

// A Reply on its way down to `nextHop` (the client, or the relay below that serves it).
void DhcpRelaySmv6::doRouteInstallReply(const Platform::Pkt& msg, const IntfId& intf, Intf& state,
                                        const Ip6Addr& nextHop, const Ip6Addr& srcIp,
                                        const VrfName& srcVrf) {
   uint16_t start = 0, end = 0;
   if (!dhcpRelaySmv6ParseMsgForRouteInstall(msg, 0, start, end))
      return;
   // Anyone in the VRF can send a Relay-Repl; only the interface's servers place routes.
   if (!isServerOf(*state.config.notifier(), srcVrf, srcIp)) {
      TRACE(5, " Reply from ", srcIp, " in vrf ", srcVrf, " is from no server of ", intf,
            ". Skipping route installation.");
      return;
   }
   std::array<Dhcp6Lease, kMaxLeasesPerMessage> leases;
   const size_t found = dhcpRelaySmv6HandleIanaPd(msg, start, end, leases);
   for (size_t i = 0; i < found; ++i)
      dhcpRelaySmv6HandleBinding(intf, state, leases[i], nextHop, false);
}

// A Release on its way up from `srcIp`: its leases go before the servers hear of it. Only
// the bindings routed to that sender are removed, so no client releases another's route.
void DhcpRelaySmv6::doRouteInstallRelease(const Platform::Pkt& msg, const IntfId& intf, Intf& state,
                                          const Ip6Addr& srcIp) {
   uint16_t start = 0, end = 0;
   // The innermost message may be a Reply as well: only a Release releases.
   if (!dhcpRelaySmv6ParseMsgForRouteInstall(msg, 0, start, end) ||
       msg.at(start - Dhcp6Layout::clientHeader) != dhcp6Release)
      return;
   std::array<Dhcp6Lease, kMaxLeasesPerMessage> leases;
   const size_t found = dhcpRelaySmv6HandleIanaPd(msg, start, end, leases);
   for (size_t i = 0; i < found; ++i)
      dhcpRelaySmv6HandleBinding(intf, state, leases[i], srcIp, true);
}

void DhcpRelaySmv6::dhcpRelaySmv6HandleBinding(const IntfId& intf, Intf& state,
                                               const Dhcp6Lease& lease, const Ip6Addr& nextHop,
                                               bool release) {
   if (release) {
      const Ptr<IntfStatus> status = in_.status->intfStatus(intf);
      const Ptr<PrefixBinding> binding = status ? status->prefixBinding(lease.prefix) : nullptr;
      if (!binding || binding->addrAttrs().nextHop != nextHop) {
         TRACE(5, "Prefix ", lease.prefix, " released by ", nextHop, " is not bound to it on ",
               intf);
         return;
      }
      TRACE(3, "Prefix ", lease.prefix, " released on ", intf);
      doBindingDel(intf, state, lease.prefix);
      return;
   }
   if (nextHop.isZero()) {
      TRACE(5, "Cannot add unspecified address ", nextHop, " for prefix ", lease.prefix,
            " to the lookup table. Skipping route additon.");
      return;
   }
   PrefixBindingAttrs attrs;
   attrs.preferredLifetime = lease.preferredLifetime;
   attrs.validLifetime = lease.validLifetime;
   attrs.nextHop = nextHop;
   attrs.vrf = state.vrf;
   attrs.writeTime = in_.timerWheel->utcClock().now();
   dhcpRelaySmv6AddBinding(intf, state, lease.prefix, attrs);
}

void DhcpRelaySmv6::dhcpRelaySmv6AddBinding(const IntfId& intf, Intf& state,
                                            const Ip6Prefix& prefix,
                                            const PrefixBindingAttrs& attrs) {
   if (!state.inVrf || state.vrf != attrs.vrf) {
      TRACE(5, "Interface: ", intf, " no longer present in intfsInVrf of vrf: ", attrs.vrf,
            ". Skipping binding addition");
      return;
   }
   const Ptr<IntfStatus> status = in_.status->intfStatus(intf);
   if (!status)
      return;
   Ptr<PrefixBinding> binding = status->prefixBinding(prefix);
   if (!binding) {
      if (status->prefixBinding().size() >= kMaxPrefixBindingsPerIntf) {
         TRACE(1, "Prefix ", prefix, " not bound on ", intf, ": the interface has ",
               kMaxPrefixBindingsPerIntf, " bindings already");
         in_.status->prefixBindingsRefusedInc();
         return;
      }
      binding = status->prefixBindingIs(prefix);
      TRACE(3, "Prefix ", prefix, " added to bindings collection with vrf: ", attrs.vrf,
            " next hop ", attrs.nextHop);
   } else {
      TRACE(3, "Prefix ", prefix, " updated in bindings collection ", "with vrf: ", attrs.vrf);
   }
   binding->addrAttrsIs(attrs);
   doAddPdRoute(intf, state, prefix, attrs);
   doUpdateExpiryTime(intf, state, prefix, attrs);
   doBindingsChanged();
}

void DhcpRelaySmv6::doBindingDel(const IntfId& intf, Intf& state, const Ip6Prefix& prefix) {
   const Ptr<IntfStatus> status = in_.status->intfStatus(intf);
   const Ptr<PrefixBinding> binding = status ? status->prefixBinding(prefix) : nullptr;
   if (!binding)
      return;
   doDelPdRoute(intf, prefix, binding->addrAttrs());
   state.pdTimers.erase(prefix);
   status->prefixBindingDel(prefix);
   doBindingsChanged();
}

void DhcpRelaySmv6::delIntfPrefixBindings(const IntfId& intf, Intf& state) {
   const Ptr<IntfStatus> status = in_.status->intfStatus(intf);
   if (!status || status->prefixBinding().empty())
      return;
   TRACE(3, " Deleting any prefix bindings ", "for ", intf);
   std::vector<Ip6Prefix> prefixes;
   for (const auto& [prefix, binding] : status->prefixBinding())
      prefixes.push_back(prefix);
   for (const Ip6Prefix& prefix : prefixes)
      doBindingDel(intf, state, prefix);
}

// The interface is in another VRF now (or in none): its bindings of the old one go, and with
// them their routes there.
void DhcpRelaySmv6::clearPrefixBindingsFromOldVrf(const IntfId& intf, Intf& state) {
   const Ptr<IntfStatus> status = in_.status->intfStatus(intf);
   if (!status || status->prefixBinding().empty())
      return;
   TRACE(3, "Clearing prefix bindings from local dhcpRelayIntfStatus for intf:", intf);
   std::vector<Ip6Prefix> stale;
   for (const auto& [prefix, binding] : status->prefixBinding()) {
      if (!state.inVrf || binding->addrAttrs().vrf != state.vrf) {
         TRACE(3, "Prefix ", prefix, " removed from bindings as its vrf:", binding->addrAttrs().vrf,
               " is not same as interface vrf:", state.vrf);
         stale.push_back(prefix);
      }
   }
   for (const Ip6Prefix& prefix : stale)
      doBindingDel(intf, state, prefix);
}

void DhcpRelaySmv6::handleRouteInstall(const IntfId& intf) {
   Intf* state = this->intf(intf);
   if (!initialized_ || !state)
      return;
   if (routeInstallOn(*state)) {
      TRACE(3, " Route programming turned on for interface ", intf);
      doRestoreBindings(intf, *state);
   } else {
      TRACE(3, " Route programming turned off for interface ", intf);
      delIntfPrefixBindings(intf, *state);
   }
}

Platform::RouteSocket* DhcpRelaySmv6::pdRouteSocket(const VrfName& vrf) {
   DhcpVrfSmv6* sm = dhcpVrfSmv6(vrf);
   return sm && sm->sockets() ? sm->sockets()->routeSocket() : nullptr;
}

bool DhcpRelaySmv6::doAddPdRoute(const IntfId& intf, Intf& state, const Ip6Prefix& prefix,
                                 const PrefixBindingAttrs& attrs) {
   if (!routeInstallOn(state)) {
      TRACE(5, "Route Programming not enabled on Interface:", intf);
      return false;
   }
   if (!state.inVrf || attrs.vrf != state.vrf) {
      TRACE(5, "Binding vrf:", attrs.vrf, " is not same as interface's vrf:", state.vrf);
      return false;
   }
   DhcpVrfSmv6* sm = dhcpVrfSmv6(attrs.vrf);
   const VrfSockets* sockets = sm ? sm->sockets() : nullptr;
   Platform::RouteSocket* routes = sockets ? sockets->routeSocket() : nullptr;
   const Ptr<const KernelNetInfo::KernelIntf> device =
       sockets ? sockets->kernelDevice(intf) : nullptr;
   if (!routes || !device || device->ifindex() == 0) {
      TRACE(5, "Couldn't find ", attrs.vrf, " vrf's dhcp routeInput path.",
            " vrf's dhcp routeInput path. Skipping route addition.");
      return false;
   }
   if (attrs.nextHop.isZero()) {
      TRACE(5, "Cannot add unspecified address ", attrs.nextHop,
            " to the lookup table. Skipping route additon.");
      return false;
   }
   Platform::Route route = pdRoute(prefix, attrs);
   route.ifindex = device->ifindex();
   if (expires(attrs)) {
      // The kernel's own expiry only backs the binding's timer up, for an agent that is not
      // running when the lease ends: it is what is left of the lease, never more.
      const double left = attrs.writeTime + attrs.validLifetime - in_.timerWheel->utcClock().now();
      route.expires = left < 1 ? 1 : static_cast<uint32_t>(left);
   }
   std::string error;
   if (!routes->routeAdd(route, error)) {
      TRACE(1, "Prefix: ", prefix, " via ", attrs.nextHop, " on ", intf, " in vrf ", attrs.vrf,
            " not added to RouteInput collection: ", error);
      return false;
   }
   TRACE(3, "Prefix: ", prefix, " via ", attrs.nextHop, " on ", intf, " in vrf ", attrs.vrf,
         " added to RouteInput collection");
   return true;
}

void DhcpRelaySmv6::doDelPdRoute(const IntfId& intf, const Ip6Prefix& prefix,
                                 const PrefixBindingAttrs& attrs) {
   Platform::RouteSocket* routes = pdRouteSocket(attrs.vrf);
   if (!routes) {
      TRACE(5, "Couldn't find ", attrs.vrf,
            " vrf's dhcp routeInput path. Skipping route deletion.");
      return;
   }
   std::string error;
   // Gone already (the device went, or the kernel expired it) is as good as deleted.
   if (!routes->routeDel(pdRoute(prefix, attrs), error))
      TRACE(5, "Prefix: ", prefix, " in vrf ", attrs.vrf, " on ", intf,
            " was not in the routing table: ", error);
   else
      TRACE(3, "Prefix: ", prefix, " in vrf ", attrs.vrf, " deleted from routeInput collection");
}

Platform::Route DhcpRelaySmv6::pdRoute(const Ip6Prefix& prefix, const PrefixBindingAttrs& attrs) {
   Platform::Route route;
   route.prefix = prefix.address();
   route.prefixLen = prefix.len();
   route.via = attrs.nextHop;
   route.preference = kPdRoutePreference;
   route.protocol = kPdRouteProtocol;
   return route;
}

// Every route of the interface's bindings again: after its device or addresses changed, or
// the VRF's sockets came (a route through a device that went is gone with it).
void DhcpRelaySmv6::doSyncPdRoutes(const IntfId& intf, Intf& state) {
   const Ptr<IntfStatus> status = in_.status->intfStatus(intf);
   if (!status)
      return;
   for (const auto& [prefix, binding] : status->prefixBinding())
      doAddPdRoute(intf, state, prefix, binding->addrAttrs());
}

void DhcpRelaySmv6::doUpdateExpiryTime(const IntfId& intf, Intf& state, const Ip6Prefix& prefix,
                                       const PrefixBindingAttrs& attrs) {
   auto& timer = state.pdTimers[prefix];
   if (!expires(attrs)) {
      timer.reset();
      return;
   }
   if (!timer)
      timer = std::make_unique<Platform::Timer>(
          *in_.timerWheel, [this, intf, prefix] { handlePdTimeout(intf, prefix); });
   // The binding's time is wall-clock time; the wheel runs on the monotonic clock.
   const double offset = in_.timerWheel->utcClock().now() - in_.timerWheel->clock().now();
   timer->armAt(attrs.writeTime + attrs.validLifetime - offset);
}

void DhcpRelaySmv6::handlePdTimeout(const IntfId& intf, const Ip6Prefix& prefix) {
   Intf* state = this->intf(intf);
   if (!state)
      return;
   TRACE(3, "Prefix ", prefix, " on ", intf, " expired");
   doBindingDel(intf, *state, prefix);
}

void DhcpRelaySmv6::doBindingsChanged() {
   if (in_.bindingJournal)
      in_.bindingJournal->handlePrefixBindingsChanged();
}

}  // namespace Ip::Helper::DhcpRelay
