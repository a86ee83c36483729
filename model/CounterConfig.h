#pragma once

#include <cstdint>
#include <map>

#include "platform/addr/IntfId.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// Counter requests of one interface, written by the command front end.
class IntfCounterConfig : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::IntfCounterConfig")
   explicit IntfCounterConfig(const Platform::IntfId& intf)
       : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfCounterConfig> {
    public:
      virtual void handleResetTrigger() {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   // Any change asks for this interface's counters to be reset; the value itself
   // carries no meaning, so repeated requests are distinct changes.
   uint32_t resetTrigger() const { return resetTrigger_; }
   void resetTriggerIs(uint32_t v) { attrIs(resetTrigger_, v, &Reactor::handleResetTrigger); }

 private:
   Platform::IntfId intfId_;
   uint32_t resetTrigger_ = 0;
};

// Requests to refresh and reset the relay counters
// ("ip/helper/dhcprelay/counterConfig"), read only to the agent.
class CounterConfig : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::CounterConfig")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const CounterConfig> {
    public:
      virtual void handleCounterUpdateRequestTime() {}
      virtual void handleResetAllTrigger() {}
      virtual void handleIntfConfig(const Platform::IntfId& /*intf*/) {}
   };

   // A newer time asks the agent to publish fresh counters.
   double counterUpdateRequestTime() const { return counterUpdateRequestTime_; }
   void counterUpdateRequestTimeIs(double v) {
      attrIs(counterUpdateRequestTime_, v, &Reactor::handleCounterUpdateRequestTime);
   }
   // Any change asks for a reset of all counters.
   uint32_t resetAllTrigger() const { return resetAllTrigger_; }
   void resetAllTriggerIs(uint32_t v) {
      attrIs(resetAllTrigger_, v, &Reactor::handleResetAllTrigger);
   }

   PLATFORM_RECORDS(intfConfig, IntfConfig, Platform::IntfId, IntfCounterConfig)

 private:
   double counterUpdateRequestTime_ = 0;
   uint32_t resetAllTrigger_ = 0;
};

}  // namespace Ip::Helper::DhcpRelay
