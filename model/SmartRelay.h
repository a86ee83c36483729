#pragma once

#include <cstdint>
#include <set>

#include "platform/addr/EthAddr.h"
#include "platform/addr/IpAddr.h"
#include "platform/store/Entity.h"

namespace Ip::Helper::DhcpRelay {

// What smart relay remembers about one client of an interface with several subnets: the
// interface address it currently relays the client's messages from (giaddr) and how many
// DHCPDISCOVERs went out from it without an offer coming back.
class SmartRelayState : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::SmartRelayState")
   // No name: a client costs no string beside its key.
   SmartRelayState(const Platform::EthAddr& ethAddr, double expiryTime)
       : ethAddr_(ethAddr), expiryTime_(expiryTime) {}

   class Reactor : public Platform::ReactorOf<const SmartRelayState> {
    public:
      virtual void handleDiscoversWithoutOffer() {}
      virtual void handleGatewayAddress() {}
   };

   const Platform::EthAddr& ethAddr() const { return ethAddr_; }
   // Seconds the state lives after the last counted DISCOVER.
   double expiryTime() const { return expiryTime_; }
   // Wraps at 256 like the 8-bit counter it is.
   uint8_t discoversWithoutOffer() const { return discoversWithoutOffer_; }
   void discoversWithoutOfferIs(uint8_t n) {
      attrIs(discoversWithoutOffer_, n, &Reactor::handleDiscoversWithoutOffer);
   }
   void discoversWithoutOfferInc(uint8_t n = 1) {
      discoversWithoutOfferIs(static_cast<uint8_t>(discoversWithoutOffer_ + n));
   }
   const Platform::IpAddrWithMask& gatewayAddress() const { return gatewayAddress_; }
   void gatewayAddressIs(const Platform::IpAddrWithMask& a) {
      attrIs(gatewayAddress_, a, &Reactor::handleGatewayAddress);
   }

 private:
   Platform::EthAddr ethAddr_;
   uint8_t discoversWithoutOffer_ = 0;
   double expiryTime_;
   Platform::IpAddrWithMask gatewayAddress_;
};

// The addresses of one interface that lie in one subnet, keyed by the subnet's prefix: what
// a DHCPREQUEST's requested address is matched against.
class IpPrefixToAddr : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Ip::Helper::DhcpRelay::IpPrefixToAddr")
   explicit IpPrefixToAddr(const Platform::IpAddrWithMask& prefix)
       : Entity(prefix.toString()), prefix_(prefix) {}

   class Reactor : public Platform::ReactorOf<const IpPrefixToAddr> {
    public:
      virtual void handleIpAddrWithMask(const Platform::IpAddrWithMask& /*addr*/) {}
   };

   const Platform::IpAddrWithMask& prefix() const { return prefix_; }
   PLATFORM_SET(ipAddrWithMask, IpAddrWithMask, Platform::IpAddrWithMask)

 private:
   Platform::IpAddrWithMask prefix_;
};

}  // namespace Ip::Helper::DhcpRelay
