#pragma once

#include <map>
#include <set>

#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/VrfName.h"
#include "platform/store/Entity.h"

namespace Ip6 {

// The IPv6 addresses of one interface, each with its prefix length and host bits
// kept: the relay needs the address itself as link address and source, and the
// prefix to match clients.
class IntfStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip6::IntfStatus")
   explicit IntfStatus(const Platform::IntfId& intf) : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfStatus> {
    public:
      virtual void handleAddr(const Platform::Ip6Prefix& /*addr*/) {}
      virtual void handleVrf() {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   const std::set<Platform::Ip6Prefix>& addr() const { return addr_; }
   void addrIs(const Platform::Ip6Prefix& a) { setEntryIs(addr_, a, &Reactor::handleAddr); }
   void addrDel(const Platform::Ip6Prefix& a) { setEntryDel(addr_, a, &Reactor::handleAddr); }
   const Platform::VrfName& vrf() const { return vrf_; }
   void vrfIs(const Platform::VrfName& v) { attrIs(vrf_, v, &Reactor::handleVrf); }

 private:
   Platform::IntfId intfId_;
   std::set<Platform::Ip6Prefix> addr_;
   Platform::VrfName vrf_ = Platform::VrfName::defaultVrf();
};

class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip6::Status")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleIntf(const Platform::IntfId& /*intf*/) {}
   };

   PLATFORM_RECORDS(intf, Intf, Platform::IntfId, IntfStatus)
};

// Multicast groups applications want joined on DHCPv6 interfaces; the relay adds
// All_DHCP_Relay_Agents_and_Servers here.
class MulticastGroupsForApplications : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip6::MulticastGroupsForApplications")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const MulticastGroupsForApplications> {
    public:
      virtual void handleMcaddr(const Platform::Ip6Addr& /*addr*/) {}
   };

   const std::set<Platform::Ip6Addr>& mcaddr() const { return mcaddr_; }
   void mcaddrIs(const Platform::Ip6Addr& a) { setEntryIs(mcaddr_, a, &Reactor::handleMcaddr); }
   void mcaddrDel(const Platform::Ip6Addr& a) { setEntryDel(mcaddr_, a, &Reactor::handleMcaddr); }

 private:
   std::set<Platform::Ip6Addr> mcaddr_;
};

}  // namespace Ip6
