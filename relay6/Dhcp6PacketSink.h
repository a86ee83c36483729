#pragma once

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

 protected:
   ~Dhcp6PacketSink() = default;
};

}  // namespace Ip::Helper::DhcpRelay
