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
   const std::map<VrfIpSrcIntfSrcIp, uint32_t>& serverIp() const { return serverIp_; }
   uint32_t serverIp(const VrfIpSrcIntfSrcIp& k) const { return mapEntryOr(serverIp_, k, 0u); }
   void serverIpIs(const VrfIpSrcIntfSrcIp& k, uint32_t count) {
      mapEntryIs(serverIp_, k, count, &Reactor::handleServerIp);
   }
   void serverIpDel(const VrfIpSrcIntfSrcIp& k) {
      mapEntryDel(serverIp_, k, &Reactor::handleServerIp);
   }

 private:
   Platform::IntfId intfId_;
   std::map<VrfIpSrcIntfSrcIp, uint32_t> serverIp_;
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

   const std::map<Platform::IntfId, Ptr<IntfServerIp>>& drIntfServerIp() const {
      return drIntfServerIp_;
   }
   Ptr<IntfServerIp> drIntfServerIp(const Platform::IntfId& intf) const {
      return mapEntryOr(drIntfServerIp_, intf, nullptr);
   }
   Ptr<IntfServerIp> drIntfServerIpIs(const Platform::IntfId& intf) {
      return mapEntryCreate(drIntfServerIp_, intf, &Reactor::handleDrIntfServerIp);
   }
   void drIntfServerIpDel(const Platform::IntfId& intf) {
      mapEntryDel(drIntfServerIp_, intf, &Reactor::handleDrIntfServerIp);
   }
   void drIntfServerIpDelAll() { mapEntryDelAll(drIntfServerIp_, &Reactor::handleDrIntfServerIp); }

 private:
   std::map<Platform::IntfId, Ptr<IntfServerIp>> drIntfServerIp_;
};

}  // namespace Ip::Helper::DhcpRelay
