#pragma once

#include <cstdint>
#include <map>

#include "platform/addr/VrfName.h"
#include "platform/store/Entity.h"

namespace Ip {

// One VRF as the kernel front end sees it: the network namespace holding it and
// whether that namespace is usable yet.
class VrfStatusLocal : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::VrfStatusLocal")
   enum class State : uint8_t { inactive, active };

   explicit VrfStatusLocal(const Platform::VrfName& vrf) : Entity(vrf.str()), vrf_(vrf) {}

   class Reactor : public Platform::ReactorOf<const VrfStatusLocal> {
    public:
      virtual void handleNsName() {}
      virtual void handleState() {}
   };

   const Platform::VrfName& vrf() const { return vrf_; }
   const Platform::NamespaceName& nsName() const { return nsName_; }
   void nsNameIs(const Platform::NamespaceName& v) { attrIs(nsName_, v, &Reactor::handleNsName); }
   State state() const { return state_; }
   void stateIs(State v) { attrIs(state_, v, &Reactor::handleState); }

 private:
   Platform::VrfName vrf_;
   Platform::NamespaceName nsName_;
   State state_ = State::inactive;
};

class AllVrfStatusLocal : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::AllVrfStatusLocal")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const AllVrfStatusLocal> {
    public:
      virtual void handleVrf(const Platform::VrfName& /*vrf*/) {}
   };

   PLATFORM_RECORDS(vrf, Vrf, Platform::VrfName, VrfStatusLocal)
};

}  // namespace Ip
