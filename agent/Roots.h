#pragma once

#include "platform/Entity.h"

// The roots own the state machines of their subsystem: deleting a root deletes
// its machines first. Each subsystem adds its machines to its root as it is
// built, in the order the agent creates them.

namespace Ip::Helper::DhcpRelay {

class Root : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::Root")
   using Entity::Entity;
};

class Rootv6 : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::Rootv6")
   using Entity::Entity;
};

}  // namespace Ip::Helper::DhcpRelay

namespace Bridging::DhcpSnooping {

class Root : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::Root")
   using Entity::Entity;
};

}  // namespace Bridging::DhcpSnooping
