#pragma once

#include <map>

#include "model/Status.h"
#include "platform/addr/IntfId.h"
#include "platform/store/Entity.h"

namespace MlagDhcpRelay {

// Relay interface counters kept for the MLAG peer, in the relay's own per-interface
// form so that they can be copied either way on failover.
class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("MlagDhcpRelay::Status")
   using Entity::Entity;
   using IntfStatus = Ip::Helper::DhcpRelay::IntfStatus;

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleIntfStatus(const Platform::IntfId& /*intf*/) {}
   };

   const std::map<Platform::IntfId, Platform::Ptr<IntfStatus>>& intfStatus() const {
      return intfStatus_;
   }
   Platform::Ptr<IntfStatus> intfStatus(const Platform::IntfId& intf) const {
      return mapEntryOr(intfStatus_, intf, nullptr);
   }
   Platform::Ptr<IntfStatus> intfStatusIs(const Platform::IntfId& intf) {
      return mapEntryCreate(intfStatus_, intf, &Reactor::handleIntfStatus);
   }
   void intfStatusDel(const Platform::IntfId& intf) {
      mapEntryDel(intfStatus_, intf, &Reactor::handleIntfStatus);
   }
   void intfStatusDelAll() { mapEntryDelAll(intfStatus_, &Reactor::handleIntfStatus); }

 private:
   std::map<Platform::IntfId, Platform::Ptr<IntfStatus>> intfStatus_;
};

}  // namespace MlagDhcpRelay
