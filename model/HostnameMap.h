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
   const std::set<Platform::IntfId>& intfIdColl() const { return intfIdColl_; }
   void intfIdCollIs(const Platform::IntfId& intf) {
      setEntryIs(intfIdColl_, intf, &Reactor::handleIntfIdColl);
   }
   void intfIdCollDel(const Platform::IntfId& intf) {
      setEntryDel(intfIdColl_, intf, &Reactor::handleIntfIdColl);
   }

 private:
   std::set<Platform::IntfId> intfIdColl_;
};

class HostnameToIntfNameMap : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::HostnameToIntfNameMap")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const HostnameToIntfNameMap> {
    public:
      virtual void handleHostnameToIntfName(const std::string& /*hostname*/) {}
   };

   const std::map<std::string, Ptr<HostnameToIntfName>>& hostnameToIntfName() const {
      return hostnameToIntfName_;
   }
   Ptr<HostnameToIntfName> hostnameToIntfName(const std::string& hostname) const {
      return mapEntryOr(hostnameToIntfName_, hostname, nullptr);
   }
   Ptr<HostnameToIntfName> hostnameToIntfNameIs(const std::string& hostname) {
      return mapEntryCreate(hostnameToIntfName_, hostname, &Reactor::handleHostnameToIntfName);
   }
   void hostnameToIntfNameDel(const std::string& hostname) {
      mapEntryDel(hostnameToIntfName_, hostname, &Reactor::handleHostnameToIntfName);
   }
   void hostnameToIntfNameDelAll() {
      mapEntryDelAll(hostnameToIntfName_, &Reactor::handleHostnameToIntfName);
   }

 private:
   std::map<std::string, Ptr<HostnameToIntfName>> hostnameToIntfName_;
};

}  // namespace Ip::Helper::DhcpRelay
