#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "model/Counters.h"
#include "platform/store/Entity.h"

namespace Bridging::DhcpSnooping {

#define DHCP_SNOOPING_VLAN_COUNTERS(X)     \
   X(requestsReceived, RequestsReceived)   \
   X(requestsForwarded, RequestsForwarded) \
   X(repliesReceived, RepliesReceived)     \
   X(repliesForwarded, RepliesForwarded)

// Snooping counters of one VLAN.
class VlanStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::VlanStatus")
   explicit VlanStatus(uint16_t vlan) : Entity(std::to_string(vlan)), vlanId_(vlan) {}

   class Reactor : public Platform::ReactorOf<const VlanStatus> {
    public:
      virtual void handleCounter() {}
      DHCP_SNOOPING_VLAN_COUNTERS(MODEL_COUNTER_HANDLER)
      virtual void handleLastResetTime() {}
   };

   uint16_t vlanId() const { return vlanId_; }
   DHCP_SNOOPING_VLAN_COUNTERS(MODEL_COUNTER_ACCESSORS)
   MODEL_COUNTER_BULK(DHCP_SNOOPING_VLAN_COUNTERS, VlanStatus)
   double lastResetTime() const { return lastResetTime_; }
   void lastResetTimeIs(double v) { attrIs(lastResetTime_, v, &Reactor::handleLastResetTime); }

 private:
   MODEL_COUNTER_NOTIFIER

   uint16_t vlanId_;
   DHCP_SNOOPING_VLAN_COUNTERS(MODEL_COUNTER_MEMBER)
   double lastResetTime_ = 0;
};

// Why packets crossing between snooping and the relay were dropped, per direction;
// for support engineers, reset separately from the operator's counters.
#define DHCP_SNOOPING_DEBUG_COUNTERS(X)                            \
   X(snoopingToRelayReceived, SnoopingToRelayReceived)             \
   X(snoopingToRelayForwarded, SnoopingToRelayForwarded)           \
   X(snoopingToRelayDropVlanIdErr, SnoopingToRelayDropVlanIdErr)   \
   X(snoopingToRelayDropParseErr, SnoopingToRelayDropParseErr)     \
   X(snoopingToRelayDropDhcpOpErr, SnoopingToRelayDropDhcpOpErr)   \
   X(snoopingToRelayDropInfoOptErr, SnoopingToRelayDropInfoOptErr) \
   X(snoopingToRelayDropDisabled, SnoopingToRelayDropDisabled)     \
   X(relayToSnoopingReceived, RelayToSnoopingReceived)             \
   X(relayToSnoopingForwarded, RelayToSnoopingForwarded)           \
   X(relayToSnoopingDropVlanIdErr, RelayToSnoopingDropVlanIdErr)   \
   X(relayToSnoopingDropParseErr, RelayToSnoopingDropParseErr)     \
   X(relayToSnoopingDropDhcpOpErr, RelayToSnoopingDropDhcpOpErr)   \
   X(relayToSnoopingDropInfoOptErr, RelayToSnoopingDropInfoOptErr) \
   X(relayToSnoopingDropDisabled, RelayToSnoopingDropDisabled)

class DebugCounters : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::DebugCounters")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const DebugCounters> {
    public:
      virtual void handleCounter() {}
      DHCP_SNOOPING_DEBUG_COUNTERS(MODEL_COUNTER_HANDLER)
      virtual void handleLastResetTime() {}
   };

   DHCP_SNOOPING_DEBUG_COUNTERS(MODEL_COUNTER_ACCESSORS)
   MODEL_COUNTER_BULK(DHCP_SNOOPING_DEBUG_COUNTERS, DebugCounters)
   double lastResetTime() const { return lastResetTime_; }
   void lastResetTimeIs(double v) { attrIs(lastResetTime_, v, &Reactor::handleLastResetTime); }

 private:
   MODEL_COUNTER_NOTIFIER

   DHCP_SNOOPING_DEBUG_COUNTERS(MODEL_COUNTER_MEMBER)
   double lastResetTime_ = 0;
};

// Snooping's status ("bridging/dhcpsnooping/status"), written by the agent.
class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::Status")
   explicit Status(std::string name)
       : Entity(std::move(name)), debugCounters_(Platform::make<DebugCounters>("debugCounters")) {}

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleEnabled() {}
      virtual void handleVlanStatus(uint16_t /*vlan*/) {}
      virtual void handleCounterUpdateTime() {}
   };

   // Whether snooping is operating, which can differ from its configuration (for
   // example while no VLAN qualifies).
   bool enabled() const { return enabled_; }
   void enabledIs(bool v) { attrIs(enabled_, v, &Reactor::handleEnabled); }

   const std::map<uint16_t, Platform::Ptr<VlanStatus>>& vlanStatus() const { return vlanStatus_; }
   Platform::Ptr<VlanStatus> vlanStatus(uint16_t vlan) const {
      return mapEntryOr(vlanStatus_, vlan, nullptr);
   }
   Platform::Ptr<VlanStatus> vlanStatusIs(uint16_t vlan) {
      return mapEntryCreate(vlanStatus_, vlan, &Reactor::handleVlanStatus);
   }
   void vlanStatusDel(uint16_t vlan) { mapEntryDel(vlanStatus_, vlan, &Reactor::handleVlanStatus); }
   void vlanStatusDelAll() { mapEntryDelAll(vlanStatus_, &Reactor::handleVlanStatus); }

   // Always present; watch it through its own reactor.
   const Platform::Ptr<DebugCounters>& debugCounters() const { return debugCounters_; }

   double counterUpdateTime() const { return counterUpdateTime_; }
   void counterUpdateTimeIs(double v) {
      attrIs(counterUpdateTime_, v, &Reactor::handleCounterUpdateTime);
   }

 private:
   bool enabled_ = false;
   std::map<uint16_t, Platform::Ptr<VlanStatus>> vlanStatus_;
   Platform::Ptr<DebugCounters> debugCounters_;
   double counterUpdateTime_ = 0;
};

}  // namespace Bridging::DhcpSnooping
