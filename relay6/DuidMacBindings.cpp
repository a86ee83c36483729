#include "relay6/DuidMacBindings.h"

#include <utility>

#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::TraceArg;

DuidMacBindings::DuidMacBindings(const Platform::VrfName& vrf, Platform::TimerWheel& wheel,
                                 Dhcp6PacketSink& sink)
    : vrf_(vrf),
      wheel_(wheel),
      sink_(sink),
      duidMacBindingTimer_(wheel, [this] { handleDuidMacBindingTimer(); }) {}

DuidMacBindings::Held DuidMacBindings::doHoldForMac(const Key& key, std::span<const uint8_t> duid,
                                                    const Platform::Pkt& relayForw, uint8_t msgType,
                                                    const Platform::IntfId& intf,
                                                    const Platform::Ip6Addr& linkAddr,
                                                    Platform::EthAddr& mac) {
   auto it = bindings_.find(key);
   if (it != bindings_.end() && !it->second.llAddr.isZero()) {
      mac = it->second.llAddr;
      bindings_.erase(it);
      return Held::macKnown;
   }
   if (it != bindings_.end() && it->second.cachedPkt)
      return Held::alreadyHeld;
   Dhcp6DuidMacBinding* binding =
       it != bindings_.end() ? &it->second : dhcp6DuidMacBindingsIs(key, duid);
   if (!binding)
      return Held::full;
   Platform::Ptr<Platform::Pkt> copy = heldPkts_.take(relayForw.bytes());
   copy->write(0, relayForw.span());
   binding->cachedPkt = std::move(copy);
   binding->rcvdMsgType = msgType;
   binding->intfIdName = intf;
   binding->intfIpAddr = linkAddr;
   return Held::held;
}

void DuidMacBindings::handleClientMac(const Key& key, std::span<const uint8_t> duid,
                                      const Platform::EthAddr& mac, const Platform::IntfId& intf) {
   Dhcp6DuidMacBinding* binding = dhcp6DuidMacBindingsIs(key, duid);
   if (!binding) {
      TRACE(5, " no room for another binding in vrf ", vrf_, ": the MAC of ",
            TraceArg::ofHexBytes(duid), " on ", intf, " is not learned");
      return;
   }
   binding->keepAliveIs(true);
   binding->llAddr = mac;
   if (!binding->cachedPkt) {
      binding->intfIdName = intf;
      return;
   }
   // The binding's work is done: what the relay needs of it leaves it first.
   const Platform::Ptr<Platform::Pkt> held = std::move(binding->cachedPkt);
   const uint8_t msgType = binding->rcvdMsgType;
   const Platform::IntfId heldIntf = binding->intfIdName;
   const Platform::Ip6Addr linkAddr = binding->intfIpAddr;
   dhcp6DuidMacBindingsDel(key);
   sink_.doRelayHeld(*held, msgType, heldIntf, linkAddr, vrf_, mac);
}

// Bindings no frame refreshed since the last sweep go, and with them what they held; the
// others must see a frame before the next one.
void DuidMacBindings::handleDuidMacBindingTimer() {
   for (auto it = bindings_.begin(); it != bindings_.end();) {
      Dhcp6DuidMacBinding& binding = it->second;
      if (binding.keepAlive) {
         TRACE(8, " sets keepAlive to false for", " binding with DUID",
               TraceArg::ofHexBytes(binding.duid()), " xid ", TraceArg::ofHex32(it->first.xid));
         binding.keepAliveIs(false);
         ++it;
         continue;
      }
      doDropHeld(binding);
      TRACE(7, "removing binding with DUID", TraceArg::ofHexBytes(binding.duid()), " xid ",
            TraceArg::ofHex32(it->first.xid));
      it = bindings_.erase(it);
   }
   if (!bindings_.empty())
      duidMacBindingTimer_.armIn(kSweepSeconds);
}

const Dhcp6DuidMacBinding* DuidMacBindings::dhcp6DuidMacBindings(const Key& key) const {
   auto it = bindings_.find(key);
   return it == bindings_.end() ? nullptr : &it->second;
}

Dhcp6DuidMacBinding* DuidMacBindings::dhcp6DuidMacBindingsIs(const Key& key,
                                                             std::span<const uint8_t> duid) {
   auto it = bindings_.lower_bound(key);
   if (it != bindings_.end() && it->first == key)
      return &it->second;
   if (bindings_.size() >= kMaxBindings) {
      ++refused_;
      return nullptr;
   }
   it = bindings_.emplace_hint(it, key, Dhcp6DuidMacBinding{});
   it->second.createdAt = wheel_.clock().now();
   it->second.duidIs(duid);
   // The sweep runs only while there are bindings: a VRF without clients never wakes.
   if (!duidMacBindingTimer_.armed())
      duidMacBindingTimer_.armIn(kSweepSeconds);
   return &it->second;
}

void DuidMacBindings::dhcp6DuidMacBindingsDel(const Key& key) {
   bindings_.erase(key);
}

void DuidMacBindings::dhcp6DuidMacBindingsDelAll() {
   for (auto& [key, binding] : bindings_)
      doDropHeld(binding);
   bindings_.clear();
   duidMacBindingTimer_.cancel();
}

void DuidMacBindings::doDropHeld(Dhcp6DuidMacBinding& binding) {
   if (!binding.cachedPkt)
      return;
   binding.cachedPkt = nullptr;
   ++heldDropped_;
   TRACE(5, "Dropped a packet with type ", binding.rcvdMsgType,
         " because client hasn't sent us any solicit and request for at least one timeout "
         "period. Drop Count: ",
         heldDropped_);
   sink_.doDroppedByOption79(binding.rcvdMsgType, binding.intfIdName,
                             DropReason::noClientLinkLayerAddress);
}

}  // namespace Ip::Helper::DhcpRelay
