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

   PLATFORM_RECORDS(intfStatus, IntfStatus, Platform::IntfId, IntfStatus)
};

}  // namespace MlagDhcpRelay
