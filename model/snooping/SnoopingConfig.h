#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "platform/store/Entity.h"

namespace Bridging::DhcpSnooping {

// DHCPv4 snooping settings ("bridging/dhcpsnooping/config"), read only to the agent.
class Config : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::Config")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Config> {
    public:
      virtual void handleEnabled() {}
      virtual void handleVlan(uint16_t /*vlan*/) {}
      virtual void handleInformationOption() {}
      virtual void handleCircuitIdTypeValid() {}
      virtual void handleCircuitIdType() {}
      virtual void handleCircuitIdFormatString() {}
   };

   bool enabled() const { return enabled_; }
   void enabledIs(bool v) { attrIs(enabled_, v, &Reactor::handleEnabled); }
   // VLANs snooping is enabled on.
   const std::set<uint16_t>& vlan() const { return vlan_; }
   void vlanIs(uint16_t v) { setEntryIs(vlan_, v, &Reactor::handleVlan); }
   void vlanDel(uint16_t v) { setEntryDel(vlan_, v, &Reactor::handleVlan); }
   // Insert the relay agent information option (82) into snooped requests.
   bool informationOption() const { return informationOption_; }
   void informationOptionIs(bool v) {
      attrIs(informationOption_, v, &Reactor::handleInformationOption);
   }
   // circuitIdType is only sent when valid: zero is a legal type value.
   bool circuitIdTypeValid() const { return circuitIdTypeValid_; }
   void circuitIdTypeValidIs(bool v) {
      attrIs(circuitIdTypeValid_, v, &Reactor::handleCircuitIdTypeValid);
   }
   uint8_t circuitIdType() const { return circuitIdType_; }
   void circuitIdTypeIs(uint8_t v) { attrIs(circuitIdType_, v, &Reactor::handleCircuitIdType); }
   // Circuit-id text: "%p" is the port name, "%v" the VLAN id.
   const std::string& circuitIdFormatString() const { return circuitIdFormatString_; }
   void circuitIdFormatStringIs(const std::string& v) {
      attrIs(circuitIdFormatString_, v, &Reactor::handleCircuitIdFormatString);
   }

 private:
   bool enabled_ = false;
   std::set<uint16_t> vlan_;
   bool informationOption_ = false;
   bool circuitIdTypeValid_ = false;
   uint8_t circuitIdType_ = 0;
   std::string circuitIdFormatString_ = "%p:%v";
};

// DHCPv6 snooping settings ("bridging/dhcpsnooping/dhcp6Config"), read only.
class Dhcp6Config : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::Dhcp6Config")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Dhcp6Config> {
    public:
      virtual void handleEnabled() {}
      virtual void handleVlan(uint16_t /*vlan*/) {}
      virtual void handleRemoteIdOption() {}
   };

   bool enabled() const { return enabled_; }
   void enabledIs(bool v) { attrIs(enabled_, v, &Reactor::handleEnabled); }
   const std::set<uint16_t>& vlan() const { return vlan_; }
   void vlanIs(uint16_t v) { setEntryIs(vlan_, v, &Reactor::handleVlan); }
   void vlanDel(uint16_t v) { setEntryDel(vlan_, v, &Reactor::handleVlan); }
   // Insert the remote-id option (37) into snooped requests.
   bool remoteIdOption() const { return remoteIdOption_; }
   void remoteIdOptionIs(bool v) { attrIs(remoteIdOption_, v, &Reactor::handleRemoteIdOption); }

 private:
   bool enabled_ = false;
   std::set<uint16_t> vlan_;
   bool remoteIdOption_ = false;
};

// Requests to refresh and reset the snooping counters, read only.
class CounterConfig : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::CounterConfig")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const CounterConfig> {
    public:
      virtual void handleCounterUpdateRequestTime() {}
      virtual void handleResetCountersTrigger() {}
      virtual void handleResetDebugCountersTrigger() {}
   };

   double counterUpdateRequestTime() const { return counterUpdateRequestTime_; }
   void counterUpdateRequestTimeIs(double v) {
      attrIs(counterUpdateRequestTime_, v, &Reactor::handleCounterUpdateRequestTime);
   }
   // Any change of a trigger asks for a reset; the value carries no meaning.
   uint32_t resetCountersTrigger() const { return resetCountersTrigger_; }
   void resetCountersTriggerIs(uint32_t v) {
      attrIs(resetCountersTrigger_, v, &Reactor::handleResetCountersTrigger);
   }
   uint32_t resetDebugCountersTrigger() const { return resetDebugCountersTrigger_; }
   void resetDebugCountersTriggerIs(uint32_t v) {
      attrIs(resetDebugCountersTrigger_, v, &Reactor::handleResetDebugCountersTrigger);
   }

 private:
   double counterUpdateRequestTime_ = 0;
   uint32_t resetCountersTrigger_ = 0;
   uint32_t resetDebugCountersTrigger_ = 0;
};

}  // namespace Bridging::DhcpSnooping
