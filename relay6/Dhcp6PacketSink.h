#pragma once

#include "model/DropReason.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/VrfName.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// Where a VRF's DHCPv6 socket machine hands every datagram it received: the relay's packet
// paths. `intf` is the arrival interface, empty for a device that is no system interface.
class Dhcp6PacketSink {
 public:
   virtual void doProcessPacket(Platform::Pkt& pkt, const Platform::Ip6Addr& srcIp,
                                const Platform::Ip6Addr& dstIp, const Platform::IntfId& intf,
                                const Platform::VrfName& vrf) = 0;
   // A Relay-Forw held for its client's MAC, which a captured frame has shown: it goes on to
   // the servers with option 79, as if it had just come.
   virtual void doRelayHeld(Platform::Pkt& relayForw, uint8_t msgType, const Platform::IntfId& intf,
                            const Platform::Ip6Addr& linkAddr, const Platform::VrfName& vrf,
                            const Platform::EthAddr& mac) = 0;
   // A client message dropped for want of its client's MAC.
   virtual void doDroppedByOption79(uint8_t msgType, const Platform::IntfId& intf,
                                    DropReason reason) = 0;

 protected:
   ~Dhcp6PacketSink() = default;
};

}  // namespace Ip::Helper::DhcpRelay
