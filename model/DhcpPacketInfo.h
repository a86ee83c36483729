#pragma once

#include <cstdint>
#include <string>

#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// A DHCP packet handed between snooping and the relay, with what the receiver
// learned about it. Copying one takes a packet reference and allocates nothing.
struct DhcpPacketInfo {
   Platform::Ptr<Platform::Pkt> packet;
   Platform::IntfId intfId;
   bool fromSnooping = false;
   // The DHCP payload's length as received, before any option was added or removed.
   uint32_t rcvdDhcpLen = 0;
   Platform::Ip6Addr srcIp6Addr;

   // An empty record stands for "no packet" (an empty queue, a missing index).
   bool operator!() const { return !packet; }
   // Two records describe the same handoff only if they carry the same packet
   // object: equal bytes in another buffer are another packet.
   bool operator==(const DhcpPacketInfo&) const = default;
   std::string toString() const;
};

}  // namespace Ip::Helper::DhcpRelay
