#pragma once

#include <string>

#include "platform/addr/EthAddr.h"
#include "platform/store/Entity.h"

namespace System {

// The host's names; the relay puts them into relay agent options.
class NetStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("System::NetStatus")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const NetStatus> {
    public:
      virtual void handleHostname() {}
      virtual void handleDomainName() {}
   };

   const std::string& hostname() const { return hostname_; }
   void hostnameIs(const std::string& v) { attrIs(hostname_, v, &Reactor::handleHostname); }
   const std::string& domainName() const { return domainName_; }
   void domainNameIs(const std::string& v) { attrIs(domainName_, v, &Reactor::handleDomainName); }

 private:
   std::string hostname_;
   std::string domainName_;
};

}  // namespace System

namespace EntityMib {

// The switch's own MAC address, used where the relay must identify the switch
// rather than an interface (remote-id defaults).
class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("EntityMib::Status")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleSystemMacAddr() {}
   };

   const Platform::EthAddr& systemMacAddr() const { return systemMacAddr_; }
   void systemMacAddrIs(const Platform::EthAddr& v) {
      attrIs(systemMacAddr_, v, &Reactor::handleSystemMacAddr);
   }

 private:
   Platform::EthAddr systemMacAddr_;
};

}  // namespace EntityMib
