#pragma once

#include <cstdint>
#include <map>

#include "platform/addr/VrfName.h"
#include "platform/base/Assert.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// How many users (interfaces, servers) need one VRF: the relay opens its sockets in
// a VRF while the count is above zero.
class VrfWithCount : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::VrfWithCount")
   explicit VrfWithCount(const Platform::VrfName& vrf) : Entity(vrf.str()), vrfName_(vrf) {}

   class Reactor : public Platform::ReactorOf<const VrfWithCount> {
    public:
      virtual void handleCount() {}
   };

   const Platform::VrfName& vrfName() const { return vrfName_; }
   uint32_t count() const { return count_; }
   void countIs(uint32_t n) { attrIs(count_, n, &Reactor::handleCount); }
   void countInc(uint32_t n = 1) { countIs(count_ + n); }
   void countDec(uint32_t n = 1) {
      PLATFORM_ASSERT(n <= count_, "VrfWithCount decremented below zero");
      countIs(count_ - n);
   }

 private:
   Platform::VrfName vrfName_;
   uint32_t count_ = 0;
};

class VrfWithCountDir : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::VrfWithCountDir")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const VrfWithCountDir> {
    public:
      virtual void handleVrfCount(const Platform::VrfName& /*vrf*/) {}
   };

   PLATFORM_RECORDS(vrfCount, VrfCount, Platform::VrfName, VrfWithCount)
};

}  // namespace Ip::Helper::DhcpRelay
