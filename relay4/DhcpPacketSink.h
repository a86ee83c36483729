#pragma once

#include "platform/addr/IntfId.h"
#include "platform/addr/IpAddr.h"
#include "platform/addr/VrfName.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// Where a VRF's socket machine hands every DHCPv4 datagram it received: the relay's packet
// paths. `intf` is empty for a message from a device that is no system interface.
class DhcpPacketSink {
 public:
   virtual void doProcessPacket(Platform::Pkt& pkt, Platform::IpAddr srcIp, Platform::IpAddr dstIp,
                                const Platform::IntfId& intf, const Platform::VrfName& vrf) = 0;

 protected:
   ~DhcpPacketSink() = default;
};

}  // namespace Ip::Helper::DhcpRelay
