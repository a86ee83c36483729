#pragma once

#include <cstdint>
#include <map>

#include "model/VrfIpSrcIntfSrcIp.h"
#include "platform/addr/IntfId.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// The servers one interface relays to, with the number of configuration sources
// naming each (an address can come from a literal and from a resolved hostname):
// a server stays a target until its last source is gone.
class IntfServerIp : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::IntfServerIp")
   explicit IntfServerIp(const Platform::IntfId& intf) : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfServerIp> {
    public:
      virtual void handleServerIp(const VrfIpSrcIntfSrcIp& /*key*/) {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   PLATFORM_VALUES(serverIp, ServerIp, VrfIpSrcIntfSrcIp, uint32_t, 0u)

 private:
   Platform::IntfId intfId_;
};

// Servers per interface, local to the agent: the merge of literal and resolved
// server addresses that the relay machines act on.
class IntfServerIpDir : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::IntfServerIpDir")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const IntfServerIpDir> {
    public:
      virtual void handleDrIntfServerIp(const Platform::IntfId& /*intf*/) {}
   };

   PLATFORM_RECORDS(drIntfServerIp, DrIntfServerIp, Platform::IntfId, IntfServerIp)
};

}  // namespace Ip::Helper::DhcpRelay
