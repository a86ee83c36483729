#pragma once

#include <memory>
#include <utility>

#include "platform/store/Entity.h"
#include "relay4/DhcpRelaySm.h"
#include "relay6/DhcpRelaySmv6.h"
#include "servers/DhcpVrfSelectSmv4.h"
#include "servers/DhcpVrfSelectSmv6.h"

// The roots own the state machines of their subsystem: deleting a root deletes
// its machines first. Each subsystem adds its machines to its root as it is
// built, in the order the agent creates them.

namespace Ip::Helper::DhcpRelay {

class Root : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::Root")
   using Entity::Entity;

   DhcpVrfSelectSmv4* dhcpVrfSelectSm() const { return dhcpVrfSelectSm_.get(); }
   template <class... Args>
   DhcpVrfSelectSmv4* dhcpVrfSelectSmIs(Args&&... args) {
      dhcpVrfSelectSm_ = std::make_unique<DhcpVrfSelectSmv4>(std::forward<Args>(args)...);
      dhcpVrfSelectSm_->handleInitialized();
      return dhcpVrfSelectSm_.get();
   }
   void dhcpVrfSelectSmDel() { dhcpVrfSelectSm_.reset(); }

   DhcpRelaySm* dhcpRelaySm() const { return dhcpRelaySm_.get(); }
   DhcpRelaySm* dhcpRelaySmIs(DhcpRelaySm::Inputs inputs) {
      dhcpRelaySm_ = std::make_unique<DhcpRelaySm>(std::move(inputs));
      dhcpRelaySm_->handleInitialized();
      return dhcpRelaySm_.get();
   }
   void dhcpRelaySmDel() { dhcpRelaySm_.reset(); }

   // The relay machine watches what the VRF selection derives, so it goes first.
   ~Root() override {
      dhcpRelaySmDel();
      dhcpVrfSelectSmDel();
   }

 private:
   std::unique_ptr<DhcpVrfSelectSmv4> dhcpVrfSelectSm_;
   std::unique_ptr<DhcpRelaySm> dhcpRelaySm_;
};

class Rootv6 : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::Rootv6")
   using Entity::Entity;

   DhcpVrfSelectSmv6* dhcpVrfSelectSmv6() const { return dhcpVrfSelectSmv6_.get(); }
   template <class... Args>
   DhcpVrfSelectSmv6* dhcpVrfSelectSmv6Is(Args&&... args) {
      dhcpVrfSelectSmv6_ = std::make_unique<DhcpVrfSelectSmv6>(std::forward<Args>(args)...);
      dhcpVrfSelectSmv6_->handleInitialized();
      return dhcpVrfSelectSmv6_.get();
   }
   void dhcpVrfSelectSmv6Del() { dhcpVrfSelectSmv6_.reset(); }

   DhcpRelaySmv6* dhcpRelaySmv6() const { return dhcpRelaySmv6_.get(); }
   DhcpRelaySmv6* dhcpRelaySmv6Is(DhcpRelaySmv6::Inputs inputs) {
      dhcpRelaySmv6_ = std::make_unique<DhcpRelaySmv6>(std::move(inputs));
      dhcpRelaySmv6_->handleInitialized();
      return dhcpRelaySmv6_.get();
   }
   void dhcpRelaySmv6Del() { dhcpRelaySmv6_.reset(); }

   // The relay machine watches what the VRF selection derives, so it goes first.
   ~Rootv6() override {
      dhcpRelaySmv6Del();
      dhcpVrfSelectSmv6Del();
   }

 private:
   std::unique_ptr<DhcpVrfSelectSmv6> dhcpVrfSelectSmv6_;
   std::unique_ptr<DhcpRelaySmv6> dhcpRelaySmv6_;
};

}  // namespace Ip::Helper::DhcpRelay

namespace Bridging::DhcpSnooping {

class Root : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::DhcpSnooping::Root")
   using Entity::Entity;
};

}  // namespace Bridging::DhcpSnooping
