#pragma once

#include <map>
#include <set>
#include <string>

#include "platform/addr/IntfId.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// The interfaces whose configuration names one server hostname: when the name
// resolves to new addresses, exactly these interfaces gain or lose servers.
class HostnameToIntfName : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::HostnameToIntfName")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const HostnameToIntfName> {
    public:
      virtual void handleIntfIdColl(const Platform::IntfId& /*intf*/) {}
   };

   const std::string& hostname() const { return name(); }
   PLATFORM_SET(intfIdColl, IntfIdColl, Platform::IntfId)
};

class HostnameToIntfNameMap : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::HostnameToIntfNameMap")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const HostnameToIntfNameMap> {
    public:
      virtual void handleHostnameToIntfName(const std::string& /*hostname*/) {}
   };

   PLATFORM_RECORDS(hostnameToIntfName, HostnameToIntfName, std::string, HostnameToIntfName)
};

}  // namespace Ip::Helper::DhcpRelay
