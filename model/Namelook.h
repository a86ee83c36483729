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

   PLATFORM_VALUES(request, Request, std::string, uint32_t, 0u)
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
   PLATFORM_SET(ipAddress, IpAddress, IpAddr)
};

class ResolutionRecordDir : public Entity {
 public:
   PLATFORM_ENTITY_TYPE("Namelook::ResolutionRecordDir")
   using Entity::Entity;

   class Reactor : public ReactorOf<const ResolutionRecordDir> {
    public:
      virtual void handleRecord(const std::string& /*hostname*/) {}
   };

   PLATFORM_RECORDS(record, Record, std::string, ResolutionRecord)
};

}  // namespace Namelook
