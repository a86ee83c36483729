#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "model/Counters.h"
#include "model/DropReason.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/VrfName.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// What the relay learned about a delegated prefix from the server's reply: enough
// to install and later expire the route towards the requesting router.
struct PrefixBindingAttrs {
   uint32_t preferredLifetime = 0;
   uint32_t validLifetime = 0;
   Platform::Ip6Addr nextHop;
   Platform::VrfName vrf;
   double writeTime = 0;

   bool operator==(const PrefixBindingAttrs&) const = default;
};

class PrefixBinding : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::PrefixBinding")
   explicit PrefixBinding(const Platform::Ip6Prefix& prefix)
       : Entity(prefix.toString()), prefix_(prefix) {}

   class Reactor : public Platform::ReactorOf<const PrefixBinding> {
    public:
      virtual void handleAddrAttrs() {}
   };

   const Platform::Ip6Prefix& prefix() const { return prefix_; }
   const PrefixBindingAttrs& addrAttrs() const { return addrAttrs_; }
   void addrAttrsIs(const PrefixBindingAttrs& v) {
      attrIs(addrAttrs_, v, &Reactor::handleAddrAttrs);
   }

 private:
   Platform::Ip6Prefix prefix_;
   PrefixBindingAttrs addrAttrs_;
};

#define DHCP_RELAY_INTF_STATUS_COUNTERS(X)                               \
   X(requestsReceived, RequestsReceived)                                 \
   X(requestsDropped, RequestsDropped)                                   \
   X(requestsDroppedByOption79, RequestsDroppedByOption79)               \
   X(requestsForwardedWithCrossVrfIp, RequestsForwardedWithCrossVrfIp)   \
   X(requestsForwardedWithNonSubnetIp, RequestsForwardedWithNonSubnetIp) \
   X(repliesForwarded, RepliesForwarded)

// Relay counters and prefix bindings of one interface.
class IntfStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::IntfStatus")
   explicit IntfStatus(const Platform::IntfId& intf) : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfStatus> {
    public:
      virtual void handleCounter() {}
      DHCP_RELAY_INTF_STATUS_COUNTERS(MODEL_COUNTER_HANDLER)
      virtual void handleLastResetTime() {}
      virtual void handleSmartRelayNoSecondary() {}
      virtual void handlePrefixBinding(const Platform::Ip6Prefix& /*prefix*/) {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }

   DHCP_RELAY_INTF_STATUS_COUNTERS(MODEL_COUNTER_ACCESSORS)
   MODEL_COUNTER_BULK(DHCP_RELAY_INTF_STATUS_COUNTERS, IntfStatus)

   double lastResetTime() const { return lastResetTime_; }
   void lastResetTimeIs(double v) { attrIs(lastResetTime_, v, &Reactor::handleLastResetTime); }

   // Smart relay is on but the interface has no secondary address, so it relays from its
   // primary: shown to the operator as a warning.
   bool smartRelayNoSecondary() const { return smartRelayNoSecondary_; }
   void smartRelayNoSecondaryIs(bool v) {
      attrIs(smartRelayNoSecondary_, v, &Reactor::handleSmartRelayNoSecondary);
   }

   PLATFORM_RECORDS(prefixBinding, PrefixBinding, Platform::Ip6Prefix, PrefixBinding)

 private:
   MODEL_COUNTER_NOTIFIER

   Platform::IntfId intfId_;
   DHCP_RELAY_INTF_STATUS_COUNTERS(MODEL_COUNTER_MEMBER)
   double lastResetTime_ = 0;
   bool smartRelayNoSecondary_ = false;
};

#define DHCP_RELAY_STATUS_COUNTERS(X)                                              \
   X(totalRequestsReceived, TotalRequestsReceived)                                 \
   X(totalRequestsForwarded, TotalRequestsForwarded)                               \
   X(totalRequestsDropped, TotalRequestsDropped)                                   \
   X(totalRequestsDroppedByOption79, TotalRequestsDroppedByOption79)               \
   X(totalRequestsForwardedWithCrossVrfIp, TotalRequestsForwardedWithCrossVrfIp)   \
   X(totalRequestsForwardedWithNonSubnetIp, TotalRequestsForwardedWithNonSubnetIp) \
   X(totalRepliesReceived, TotalRepliesReceived)                                   \
   X(totalRepliesForwarded, TotalRepliesForwarded)                                 \
   X(totalRepliesDropped, TotalRepliesDropped)

// The relay's status ("ip/helper/dhcprelay/status"), written by the agent.
class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::Status")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleIntfStatus(const Platform::IntfId& /*intf*/) {}
      virtual void handleCounter() {}
      DHCP_RELAY_STATUS_COUNTERS(MODEL_COUNTER_HANDLER)
      virtual void handleNumSmartRelayedHosts() {}
      virtual void handleNumClientBindings() {}
      virtual void handleCounterUpdateTime() {}
      virtual void handleLastResetAllTime() {}
      virtual void handleFailoverCopyInProgress() {}
      virtual void handleRunControl() {}
      virtual void handleVrfSocketError(const Platform::VrfName& /*vrf*/) {}
      virtual void handleVrfSocketsTried(const Platform::VrfName& /*vrf*/) {}
   };

   PLATFORM_RECORDS(intfStatus, IntfStatus, Platform::IntfId, IntfStatus)
   // Why the relay's sockets of an active VRF could not be opened; no entry while they are.
   PLATFORM_VALUES(vrfSocketError, VrfSocketError, Platform::VrfName, std::string, std::string())
   // VRFs whose relay sockets have been opened, or tried (then with a vrfSocketError): the
   // agent is ready once every active VRF it relays in is here.
   PLATFORM_SET(vrfSocketsTried, VrfSocketsTried, Platform::VrfName)

   DHCP_RELAY_STATUS_COUNTERS(MODEL_COUNTER_ACCESSORS)
   MODEL_COUNTER_BULK(DHCP_RELAY_STATUS_COUNTERS, Status)

   // Messages dropped, by reason. Every drop is also in the totals above; these say why.
   uint64_t drops(DropReason r) const { return drops_[static_cast<size_t>(r)]; }
   void dropsInc(DropReason r) {
      ++drops_[static_cast<size_t>(r)];
      notify(&Reactor::handleCounter);
   }
   // The reasons of the families in the mask (kDropV4, kDropV6), in list order.
   template <class F>
   void forEachDrop(F&& fn, uint8_t families = kDropV4 | kDropV6) const {
      for (size_t i = 0; i < kDropReasonCount; ++i) {
         const auto reason = static_cast<DropReason>(i);
         if (dropReasonFamilies(reason) & families)
            fn(dropReasonName(reason), drops_[i]);
      }
   }
   void dropsIs(const Status& src) {
      if (drops_ == src.drops_)
         return;
      drops_ = src.drops_;
      notify(&Reactor::handleCounter);
   }
   void dropsReset() {
      if (drops_ == std::array<uint64_t, kDropReasonCount>{})
         return;
      drops_ = {};
      notify(&Reactor::handleCounter);
   }

   // Client bindings the relay keeps for unicast renewals (see ClientContext); bounded
   // like smart relay's clients, and refusals are counted (clientBindingsRefused).
   static constexpr uint32_t numClientBindingsMax() { return 100000; }
   uint32_t numClientBindings() const { return numClientBindings_; }
   void numClientBindingsIs(uint32_t v) {
      attrIs(numClientBindings_, v, &Reactor::handleNumClientBindings);
   }
   uint64_t clientBindingsRefused() const { return clientBindingsRefused_; }
   void clientBindingsRefusedIs(uint64_t v) {
      attrIs(clientBindingsRefused_, v, &Reactor::handleCounter);
   }
   void clientBindingsRefusedInc() { clientBindingsRefusedIs(clientBindingsRefused_ + 1); }

   // Delegated prefixes not bound (no route placed) because their interface had as many
   // bindings as it may keep.
   uint64_t prefixBindingsRefused() const { return prefixBindingsRefused_; }
   void prefixBindingsRefusedIs(uint64_t v) {
      attrIs(prefixBindingsRefused_, v, &Reactor::handleCounter);
   }
   void prefixBindingsRefusedInc() { prefixBindingsRefusedIs(prefixBindingsRefused_ + 1); }

   // Clients currently relayed by smart relay; bounded so that a flood of clients
   // cannot grow the relay's per-client state without limit.
   static constexpr uint32_t numSmartRelayedHostsMax() { return 100000; }
   uint32_t numSmartRelayedHosts() const { return numSmartRelayedHosts_; }
   void numSmartRelayedHostsInc();
   void numSmartRelayedHostsDec();
   // For publishing the agent-local count; the smart relay itself only steps it.
   void numSmartRelayedHostsIs(uint32_t v) {
      attrIs(numSmartRelayedHosts_, v, &Reactor::handleNumSmartRelayedHosts);
   }

   double counterUpdateTime() const { return counterUpdateTime_; }
   void counterUpdateTimeIs(double v) {
      attrIs(counterUpdateTime_, v, &Reactor::handleCounterUpdateTime);
   }
   double lastResetAllTime() const { return lastResetAllTime_; }
   void lastResetAllTimeIs(double v) {
      attrIs(lastResetAllTime_, v, &Reactor::handleLastResetAllTime);
   }
   // Set while the counters of a failed-over relay are being copied in, so that
   // the counters machine does not publish a half-copied state.
   bool failoverCopyInProgress() const { return failoverCopyInProgress_; }
   void failoverCopyInProgressIs(bool v) {
      attrIs(failoverCopyInProgress_, v, &Reactor::handleFailoverCopyInProgress);
   }
   // Whether the relay runs at all: set while some interface needs relaying.
   bool runControl() const { return runControl_; }
   void runControlIs(bool v) { attrIs(runControl_, v, &Reactor::handleRunControl); }

 private:
   MODEL_COUNTER_NOTIFIER

   DHCP_RELAY_STATUS_COUNTERS(MODEL_COUNTER_MEMBER)
   std::array<uint64_t, kDropReasonCount> drops_{};
   uint32_t numSmartRelayedHosts_ = 0;
   uint32_t numClientBindings_ = 0;
   uint64_t clientBindingsRefused_ = 0;
   uint64_t prefixBindingsRefused_ = 0;
   double counterUpdateTime_ = 0;
   double lastResetAllTime_ = 0;
   bool failoverCopyInProgress_ = false;
   bool runControl_ = false;
};

}  // namespace Ip::Helper::DhcpRelay
