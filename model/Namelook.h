#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "platform/addr/IpAddr.h"
#include "platform/store/Entity.h"

namespace Namelook {

using Platform::Entity;
using Platform::IpAddr;
using Platform::Ptr;
using Platform::ReactorOf;

// Host names the agent wants resolved, each with the number of users asking: the
// resolver keeps resolving a name until its last user is gone.
class ResolutionRequestDir : public Entity {
 public:
   PLATFORM_ENTITY_TYPE("Namelook::ResolutionRequestDir")
   using Entity::Entity;

   class Reactor : public ReactorOf<const ResolutionRequestDir> {
    public:
      virtual void handleRequest(const std::string& /*hostname*/) {}
   };

   const std::map<std::string, uint32_t>& request() const { return request_; }
   uint32_t request(const std::string& hostname) const {
      return mapEntryOr(request_, hostname, 0u);
   }
   void requestIs(const std::string& hostname, uint32_t count) {
      mapEntryIs(request_, hostname, count, &Reactor::handleRequest);
   }
   void requestDel(const std::string& hostname) {
      mapEntryDel(request_, hostname, &Reactor::handleRequest);
   }

 private:
   std::map<std::string, uint32_t> request_;
};

// The IPv4 addresses one hostname currently resolves to.
class ResolutionRecord : public Entity {
 public:
   PLATFORM_ENTITY_TYPE("Namelook::ResolutionRecord")
   using Entity::Entity;

   class Reactor : public ReactorOf<const ResolutionRecord> {
    public:
      virtual void handleIpAddress(IpAddr /*addr*/) {}
   };

   const std::string& hostname() const { return name(); }
   const std::set<IpAddr>& ipAddress() const { return ipAddress_; }
   void ipAddressIs(IpAddr a) { setEntryIs(ipAddress_, a, &Reactor::handleIpAddress); }
   void ipAddressDel(IpAddr a) { setEntryDel(ipAddress_, a, &Reactor::handleIpAddress); }

 private:
   std::set<IpAddr> ipAddress_;
};

class ResolutionRecordDir : public Entity {
 public:
   PLATFORM_ENTITY_TYPE("Namelook::ResolutionRecordDir")
   using Entity::Entity;

   class Reactor : public ReactorOf<const ResolutionRecordDir> {
    public:
      virtual void handleRecord(const std::string& /*hostname*/) {}
   };

   const std::map<std::string, Ptr<ResolutionRecord>>& record() const { return record_; }
   Ptr<ResolutionRecord> record(const std::string& hostname) const {
      return mapEntryOr(record_, hostname, nullptr);
   }
   Ptr<ResolutionRecord> recordIs(const std::string& hostname) {
      return mapEntryCreate(record_, hostname, &Reactor::handleRecord);
   }
   void recordDel(const std::string& hostname) {
      mapEntryDel(record_, hostname, &Reactor::handleRecord);
   }
   void recordDelAll() { mapEntryDelAll(record_, &Reactor::handleRecord); }

 private:
   std::map<std::string, Ptr<ResolutionRecord>> record_;
};

}  // namespace Namelook
