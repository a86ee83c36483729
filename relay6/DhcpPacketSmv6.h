#pragma once

#include <cstdint>

#include "platform/addr/IntfId.h"
#include "platform/base/Ptr.h"
#include "platform/pam/EthDevPam.h"
#include "relay6/DuidMacBindings.h"

namespace Ip::Helper::DhcpRelay {

// The DHCPv6 client frames of one relaying interface's device, captured only for the
// client's MAC (option 79): the UDP socket does not tell it. Each Solicit and Request
// teaches the VRF's bindings the source MAC under the client's DUID and the transaction id;
// the socket's copy of the same message is what gets relayed. Opens the capture on
// construction and closes it when it goes.
class DhcpPacketSmv6 {
 public:
   DhcpPacketSmv6(const Platform::IntfId& intf, uint32_t ifindex,
                  Platform::Ptr<Platform::EthDevPam> pam, DuidMacBindings& bindings);
   ~DhcpPacketSmv6();
   DhcpPacketSmv6(const DhcpPacketSmv6&) = delete;
   DhcpPacketSmv6& operator=(const DhcpPacketSmv6&) = delete;

   void handlePamReadable();

   // The device's index when the capture was made: another one is another device.
   uint32_t ifindex() const { return ifindex_; }
   const Platform::EthDevPam& pam() const { return *pam_; }

 private:
   const Platform::IntfId intf_;
   const uint32_t ifindex_;
   Platform::Ptr<Platform::EthDevPam> pam_;
   DuidMacBindings& bindings_;
   Platform::Watch<Platform::EthDevPam> pamWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
