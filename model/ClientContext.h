#pragma once

#include <map>
#include <string>

#include "model/VrfIpPair.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IpAddr.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

// Where a client's requests went when its server lives in another VRF, so that the
// server's replies, which arrive in the server's VRF, can be sent back through the
// client's own VRF and subnet.
struct CrossVrfClientBinding {
   VrfIpPair ingressVrfIp;
   VrfIpPair egressVrfIp;
   VrfIpPair serverVrfIp;
   Platform::IpAddr activeSubnet;

   std::string toString() const {
      return "ingress=" + ingressVrfIp.toString() + " egress=" + egressVrfIp.toString() +
             " server=" + serverVrfIp.toString() + " subnet=" + activeSubnet.toString();
   }
   bool operator==(const CrossVrfClientBinding&) const = default;
};

class ClientContext : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::ClientContext")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const ClientContext> {
    public:
      virtual void handleCrossVrfClientBinding(const Platform::EthAddr& /*mac*/) {}
   };

   const std::map<Platform::EthAddr, CrossVrfClientBinding>& crossVrfClientBinding() const {
      return crossVrfClientBinding_;
   }
   // Null when the client has no binding. A pointer rather than a copy: the reply
   // path looks this up per packet and the binding holds VRF names.
   const CrossVrfClientBinding* crossVrfClientBinding(const Platform::EthAddr& mac) const {
      auto it = crossVrfClientBinding_.find(mac);
      return it == crossVrfClientBinding_.end() ? nullptr : &it->second;
   }
   void crossVrfClientBindingIs(const Platform::EthAddr& mac, const CrossVrfClientBinding& b) {
      mapEntryIs(crossVrfClientBinding_, mac, b, &Reactor::handleCrossVrfClientBinding);
   }
   void crossVrfClientBindingDel(const Platform::EthAddr& mac) {
      mapEntryDel(crossVrfClientBinding_, mac, &Reactor::handleCrossVrfClientBinding);
   }
   void crossVrfClientBindingDelAll() {
      mapEntryDelAll(crossVrfClientBinding_, &Reactor::handleCrossVrfClientBinding);
   }

 private:
   std::map<Platform::EthAddr, CrossVrfClientBinding> crossVrfClientBinding_;
};

}  // namespace Ip::Helper::DhcpRelay
