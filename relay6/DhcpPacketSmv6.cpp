#include "relay6/DhcpPacketSmv6.h"

#include <utility>

#include "codec/Dhcp6Codec.h"
#include "codec/Frame.h"
#include "platform/trace/Trace.h"
#include "relay6/DhcpVrfSmv6.h"

namespace Ip::Helper::DhcpRelay {

DhcpPacketSmv6::DhcpPacketSmv6(const Platform::IntfId& intf, uint32_t ifindex,
                               Ptr<Platform::EthDevPam> pam, DuidMacBindings& bindings)
    : intf_(intf), ifindex_(ifindex), pam_(std::move(pam)), bindings_(bindings) {
   pamWatch_.on(&Platform::EthDevPam::Reactor::handleReadableCount,
                [this] { handlePamReadable(); });
   pamWatch_.notifierIs(pam_);
   pam_->modeIs(Platform::Pam::modeOpen);
}

DhcpPacketSmv6::~DhcpPacketSmv6() {
   pamWatch_.notifierIs(nullptr);
   pam_->modeIs(Platform::Pam::modeClosed);
}

// The capture passes DHCP of both families in both directions; only a client's Solicit or
// Request to the servers' port teaches a MAC.
void DhcpPacketSmv6::handlePamReadable() {
   std::optional<Platform::EthFrame> captured = pam_->rxFrame();
   if (!captured)
      return;
   Platform::Pkt& frame = *captured->frame;
   const Codec::FrameLayout at = Codec::locateFrame(frame.span());
   if (!at) {
      TRACE(7, "Could not parse DHCP6 Client Message received on ", intf_, ": ",
            Codec::frameErrorText(at.error));
      return;
   }
   // What follows the datagram is link padding, not options.
   frame.shrinkTail(frame.bytes() - at.datagramEnd());
   const std::optional<uint8_t> type = at.ipv6 && at.dstPort == DhcpVrfSmv6::kServerPort
                                           ? dhcp6MsgType(frame, at.payload)
                                           : std::nullopt;
   if (type != dhcp6Solicit && type != dhcp6Request) {
      TRACE(8, " frame on ", intf_, " is not a DHCP6 solicit or request Message, dropping packet");
      return;
   }
   const std::optional<Dhcp6Opt> clientId = dhcp6FindOption(
       frame, dhcp6OptClientId, at.payload + Dhcp6Layout::clientHeader, frame.bytes());
   const std::optional<Platform::EthAddr> mac = Codec::frameSrcMac(frame.span());
   // A group or zero source is no client's address.
   if (!clientId || !mac || mac->isZero() || (mac->bytes()[0] & 1)) {
      TRACE(7, "Could not parse DHCP6 Client Message received on ", intf_,
            ": no client identifier or source MAC");
      return;
   }
   const std::optional<Dhcp6Duid> duid = dhcp6ParseDuid(clientId->data);
   if (!duid) {
      TRACE(7, "Could not parse DHCP6 Client Message received on ", intf_, ": DUID ",
            Platform::TraceArg::ofHexBytes(clientId->data));
      return;
   }
   TRACE(8, " ", dhcp6MsgTypeName(*type), " from ", *mac, " on ", intf_);
   bindings_.handleClientMac(
       Dhcp6DuidMacBindingKey::of(*duid, dhcp6TransactionId(frame, at.payload)), clientId->data,
       *mac, intf_);
}

}  // namespace Ip::Helper::DhcpRelay
