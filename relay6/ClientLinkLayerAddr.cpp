// The client link-layer address option (79) on the relay-forward path: the client's MAC,
// which the UDP socket does not tell, comes from the frame the VRF's capture saw of the same
// message (DuidMacBindings), whichever of the two copies arrives first.

#include "codec/Dhcp6Codec.h"
#include "platform/trace/Trace.h"
#include "relay6/DhcpRelaySmv6.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::TraceArg;

bool DhcpRelaySmv6::wantsClientMac(uint8_t msgType) const {
   return in_.config->clientLinkLayerAddrOpt() &&
          (msgType == dhcp6Solicit || msgType == dhcp6Request);
}

std::optional<Dhcp6DuidMacBindingKey> DhcpRelaySmv6::doClientMacKey(
    const Platform::Pkt& msg, uint8_t msgType, const IntfId& intf, std::span<const uint8_t>& duid) {
   TRACE(7, "link-layer-addressOption: ", true, ", recvMsgType: ", msgType);
   const std::optional<Dhcp6Opt> clientId =
       dhcp6FindOption(msg, dhcp6OptClientId, Dhcp6Layout::clientHeader, msg.bytes());
   if (!clientId) {
      TRACE(5,
            "ClientId option doesn't exist, can not use DUID to get Clinet MAC. Drop the packet");
      doDropped(msgType, intf, DropReason::noClientId);
      return std::nullopt;
   }
   const std::optional<Dhcp6Duid> parsed = dhcp6ParseDuid(clientId->data);
   if (!parsed) {
      TRACE(5, "DUID length incorrect, can't look up the binding");
      doDropped(msgType, intf, DropReason::badDuid);
      return std::nullopt;
   }
   TRACE(7, "Received packet contains DuidType:", parsed->type, ", DuidHwType:", parsed->hwType,
         ", llAddr:", parsed->llAddr, ", uuid:", TraceArg::ofHexBytes(parsed->uuid),
         ", entno:", parsed->entno, ", entId:", TraceArg::ofHexBytes(parsed->entId));
   duid = clientId->data;
   return Dhcp6DuidMacBindingKey::of(*parsed, dhcp6TransactionId(msg));
}

bool DhcpRelaySmv6::doClientLinkLayerAddr(Platform::Pkt& relayForw,
                                          const Dhcp6DuidMacBindingKey& key,
                                          std::span<const uint8_t> duid, uint8_t msgType,
                                          const IntfId& intf, const Platform::Ip6Addr& linkAddr,
                                          const Platform::VrfName& vrf) {
   DhcpVrfSmv6* sm = dhcpVrfSmv6(vrf);
   if (!sm) {
      TRACE(5, "VrfSm not initialized vrf: ", vrf);
      doDropped(msgType, intf, DropReason::noVrfSocket);
      return false;
   }
   Platform::EthAddr mac;
   switch (sm->duidMacBindings().doHoldForMac(key, duid, relayForw, msgType, intf, linkAddr, mac)) {
      case DuidMacBindings::Held::macKnown:
         return doClientMacIs(relayForw, msgType, intf, mac);
      case DuidMacBindings::Held::held:
         TRACE(6,
               "DhcpRelaySmv6 does not have the DuidMAC binding or binding contians a invalid MAC, "
               "cache the pkt");
         return false;
      case DuidMacBindings::Held::alreadyHeld:
         TRACE(5, "Dropped ", dhcp6MsgTypeName(msgType), " on ", intf,
               " because udpPam received a new packet from the same",
               " client while the source MAC is not ready.");
         doDroppedByOption79(msgType, intf, DropReason::clientMacPending);
         return false;
      case DuidMacBindings::Held::full:
         TRACE(5, "Dropped ", dhcp6MsgTypeName(msgType), " on ", intf, ": vrf ", vrf, " holds ",
               DuidMacBindings::kMaxBindings, " DUID-to-MAC bindings already");
         doDroppedByOption79(msgType, intf, DropReason::duidMacBindingLimit);
         return false;
   }
   return false;
}

bool DhcpRelaySmv6::doClientMacIs(Platform::Pkt& relayForw, uint8_t msgType, const IntfId& intf,
                                  const Platform::EthAddr& mac) {
   if (!addDhcp6LinkLayerAddressOpt(relayForw, mac)) {
      TRACE(5, " no room for the link-layer address on ", intf, ". Dropping packet.");
      doDropped(msgType, intf, DropReason::relayForwBuildFailed);
      return false;
   }
   TRACE(7, "adding the link-layer-address option", " ", mac);
   return true;
}

void DhcpRelaySmv6::doDroppedByOption79(uint8_t msgType, const IntfId& intf, DropReason reason) {
   doDropped(msgType, intf, reason);
   in_.status->totalRequestsDroppedByOption79Inc();
   if (const Ptr<IntfStatus> status = in_.status->intfStatus(intf))
      status->requestsDroppedByOption79Inc();
}

}  // namespace Ip::Helper::DhcpRelay
