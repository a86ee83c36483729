#pragma once

#include <map>
#include <set>

#include "platform/addr/IntfId.h"
#include "platform/addr/IpAddr.h"
#include "platform/addr/VrfName.h"
#include "platform/store/Entity.h"

namespace Ip {

// The IPv4 addresses in use on one routed interface. The relay takes its gateway
// address (giaddr) from the primary and accepts replies to any of them.
class IpIntfStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::IpIntfStatus")
   explicit IpIntfStatus(const Platform::IntfId& intf) : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IpIntfStatus> {
    public:
      virtual void handleActiveAddrWithMask() {}
      virtual void handleActiveSecondaryWithMask(const Platform::IpAddrWithMask& /*addr*/) {}
      virtual void handleVrf() {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   // Zero address while the interface has no primary address.
   const Platform::IpAddrWithMask& activeAddrWithMask() const { return activeAddrWithMask_; }
   void activeAddrWithMaskIs(const Platform::IpAddrWithMask& v) {
      attrIs(activeAddrWithMask_, v, &Reactor::handleActiveAddrWithMask);
   }
   const std::set<Platform::IpAddrWithMask>& activeSecondaryWithMask() const {
      return activeSecondaryWithMask_;
   }
   void activeSecondaryWithMaskIs(const Platform::IpAddrWithMask& a) {
      setEntryIs(activeSecondaryWithMask_, a, &Reactor::handleActiveSecondaryWithMask);
   }
   void activeSecondaryWithMaskDel(const Platform::IpAddrWithMask& a) {
      setEntryDel(activeSecondaryWithMask_, a, &Reactor::handleActiveSecondaryWithMask);
   }
   const Platform::VrfName& vrf() const { return vrf_; }
   void vrfIs(const Platform::VrfName& v) { attrIs(vrf_, v, &Reactor::handleVrf); }

 private:
   Platform::IntfId intfId_;
   Platform::IpAddrWithMask activeAddrWithMask_;
   std::set<Platform::IpAddrWithMask> activeSecondaryWithMask_;
   Platform::VrfName vrf_ = Platform::VrfName::defaultVrf();
};

class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Status")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleIpIntfStatus(const Platform::IntfId& /*intf*/) {}
   };

   PLATFORM_RECORDS(ipIntfStatus, IpIntfStatus, Platform::IntfId, IpIntfStatus)
};

}  // namespace Ip
