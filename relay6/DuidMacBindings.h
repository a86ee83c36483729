#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory_resource>
#include <span>

#include "platform/addr/VrfName.h"
#include "platform/loop/TimerWheel.h"
#include "platform/packet/PktPool.h"
#include "relay6/Dhcp6DuidMacBinding.h"
#include "relay6/Dhcp6PacketSink.h"

namespace Ip::Helper::DhcpRelay {

// One VRF's DUID-to-MAC bindings, which put the client's MAC into option 79: the UDP
// socket's copy of a Solicit or Request and the frame the VRF's capture saw of it arrive
// in either order, and whichever comes first waits here for the other. A frame first
// leaves the client's MAC for the socket's copy, which is relayed at once; the socket's
// copy first leaves its Relay-Forw, held until the frame shows the MAC.
//
// A sweep every kSweepSeconds removes the bindings no frame refreshed since the one
// before, so one that sees no frame lives 5 to 10 seconds; a Relay-Forw still held then is
// dropped. At most kMaxBindings are kept: a flood of Solicits with made-up DUIDs fills the
// table and no more, and while it is full new bindings are refused (counted): the frame's
// MAC is not learned, and the socket's copy is dropped.
//
// Nodes come from a pool that keeps what bindings gave back, and held copies from a packet
// pool, so once the VRF has seen its working number of clients at once, bindings come and
// go without allocating.
class DuidMacBindings {
 public:
   static constexpr size_t kMaxBindings = 4096;
   static constexpr double kSweepSeconds = 5.0;
   using Key = Dhcp6DuidMacBindingKey;
   using Bindings = std::pmr::map<Key, Dhcp6DuidMacBinding>;

   DuidMacBindings(const Platform::VrfName& vrf, Platform::TimerWheel& wheel,
                   Dhcp6PacketSink& sink);
   DuidMacBindings(const DuidMacBindings&) = delete;
   DuidMacBindings& operator=(const DuidMacBindings&) = delete;

   // What became of the socket's copy of a message.
   enum class Held : uint8_t {
      macKnown,     // a frame came first: `mac` is the client's, and the binding is gone
      held,         // a copy of `relayForw` waits for the frame
      alreadyHeld,  // an earlier copy of the message waits already: this one is not needed
      full,         // no room for a binding
   };
   // The socket's copy, wrapped into `relayForw` (which is copied when held).
   Held doHoldForMac(const Key& key, std::span<const uint8_t> duid, const Platform::Pkt& relayForw,
                     uint8_t msgType, const Platform::IntfId& intf,
                     const Platform::Ip6Addr& linkAddr, Platform::EthAddr& mac);
   // A captured frame of the message, from `mac`: a held Relay-Forw goes on to the sink.
   void handleClientMac(const Key& key, std::span<const uint8_t> duid, const Platform::EthAddr& mac,
                        const Platform::IntfId& intf);
   void handleDuidMacBindingTimer();

   const Bindings& dhcp6DuidMacBindings() const { return bindings_; }
   const Dhcp6DuidMacBinding* dhcp6DuidMacBindings(const Key& key) const;
   // Null, counted in refused, when kMaxBindings are kept.
   Dhcp6DuidMacBinding* dhcp6DuidMacBindingsIs(const Key& key, std::span<const uint8_t> duid);
   void dhcp6DuidMacBindingsDel(const Key& key);
   // Held Relay-Forw are dropped and counted.
   void dhcp6DuidMacBindingsDelAll();

   uint64_t refused() const { return refused_; }
   // Seconds since the binding was made.
   double age(const Dhcp6DuidMacBinding& binding) const {
      return wheel_.clock().now() - binding.createdAt;
   }

 private:
   void doDropHeld(Dhcp6DuidMacBinding& binding);

   const Platform::VrfName vrf_;
   Platform::TimerWheel& wheel_;
   Dhcp6PacketSink& sink_;
   // Before the bindings, which hold its nodes and packets.
   std::pmr::unsynchronized_pool_resource nodes_;
   Platform::PktPool heldPkts_{0};
   Bindings bindings_{&nodes_};
   uint64_t refused_ = 0;
   uint64_t heldDropped_ = 0;
   Platform::Timer duidMacBindingTimer_;
};

}  // namespace Ip::Helper::DhcpRelay
