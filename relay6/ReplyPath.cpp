// The relay-reply path: a server's Relay-Repl is unwrapped and its message delivered out of
// the interface its Interface-Id names: to the client on port 546, or to the next relay down
// on port 547.

#include "codec/Dhcp6Codec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/trace/Trace.h"
#include "relay6/DhcpRelaySmv6.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::VrfName;

bool DhcpRelaySmv6::isServerOf(const IntfConfig& config, const VrfName& vrf,
                               const Ip6Addr& srcIp) const {
   for (const auto& [server, configured] : config.serverIp6()) {
      if (configured && server.vrf == vrf && server.ip.isV6() && server.ip.v6() == srcIp)
         return true;
   }
   return false;
}

void DhcpRelaySmv6::handleRelayReply(Platform::Pkt& pkt, const Ip6Addr& srcIp, const VrfName& vrf) {
   constexpr uint8_t type = dhcp6RelayRepl;
   Dhcp6RelayReply reply;
   Dhcp6ReplyError error = Dhcp6ReplyError::none;
   if (!dhcp6ParseRelayReply(pkt, reply, error)) {
      switch (error) {
         case Dhcp6ReplyError::noRelayMessage:
            TRACE(5, "   received 'relay-reply' doesn't ",
                  "contain 'relay-message' options. Dropping packet.");
            doDropped(type, IntfId(), DropReason::noRelayMessage);
            return;
         case Dhcp6ReplyError::noInterfaceId:
            TRACE(5, " interfacedId option must be present ", " Dropping Pkt.");
            doDropped(type, IntfId(), DropReason::noInterfaceId);
            return;
         case Dhcp6ReplyError::tooShort:
            TRACE(5, " Relay-Repl of ", pkt.bytes(), " bytes is shorter than its header.",
                  " Dropping Pkt.");
            doDropped(type, IntfId(), DropReason::tooShort);
            return;
         default:
            TRACE(5, " Relay-Repl with an option running past its end. Dropping Pkt.");
            doDropped(type, IntfId(), DropReason::malformed);
            return;
      }
   }
   const std::optional<Dhcp6InterfaceIdNames> names = dhcp6SplitInterfaceId(reply.interfaceId);
   const std::optional<IntfId> intf = names ? IntfId::parse(names->intf) : std::nullopt;
   const std::optional<VrfName> clientVrf = names ? VrfName::parse(names->vrf) : std::nullopt;
   if (!intf || !clientVrf) {
      TRACE(5, "   no intfName for received ", "interfacefIdOpt: ", reply.interfaceId.size(),
            " bytes. Dropping Pkt.");
      doDropped(type, IntfId(), DropReason::badInterfaceId);
      return;
   }
   Intf* state = this->intf(*intf);
   if (!state || !state->relaying) {
      TRACE(5, " Egress Intf ", *intf, " does not relay DHCPv6. Dropping Pkt.");
      doDropped(type, *intf, DropReason::unknownInterface);
      return;
   }
   if (!state->inVrf || state->vrf != *clientVrf) {
      TRACE(5, " Interface has changed vrf between forward and reply", " intf: ", *intf, " vrf ",
            *clientVrf);
      doDropped(type, *intf, DropReason::intfChangedVrf);
      return;
   }
   // Our copies to servers in another VRF come back there: only those servers may answer
   // across VRFs, or any host there could reach a client here.
   if (vrf != *clientVrf && !isServerOf(*state->config.notifier(), vrf, srcIp)) {
      TRACE(5, " Relay-Repl from ", srcIp, " in vrf ", vrf, " is from no server of ", *intf,
            ". Dropping Pkt.");
      doDropped(type, *intf, DropReason::unknownServer);
      return;
   }
   DhcpVrfSmv6* sm = dhcpVrfSmv6(*clientVrf);
   if (!sm || !sm->sockets()) {
      TRACE(5, " There is no vrfSm for vrf ", *clientVrf, ". Dropping Pkt.");
      doDropped(type, *intf, DropReason::noVrfSocket);
      return;
   }
   const Ptr<const KernelNetInfo::KernelIntf> device = sm->sockets()->kernelDevice(*intf);
   if (!device || device->ifindex() == 0) {
      TRACE(5, " ", *intf, " does not have a corresponding kernel device.", " Dropping Pkt.");
      doDropped(type, *intf, DropReason::noKernelDevice);
      return;
   }
   if (!state->ccapCores.empty()) {
      bool ok = true;
      const int delta =
          searchAndSetCcapCoresInPkt(pkt, state->ccapCores, intf->str(), 0, pkt.bytes(), ok);
      if (!ok) {
         TRACE(5, " CCAP cores do not fit into the reply for ", *intf, ". Dropping Pkt.");
         doDropped(type, *intf, DropReason::ccapEditFailed);
         return;
      }
      reply.relayMsgLength = static_cast<size_t>(static_cast<int>(reply.relayMsgLength) + delta);
   }
   if (!dhcp6UnwrapRelayMessage(pkt, reply.relayMsgOffset, reply.relayMsgLength) ||
       pkt.bytes() == 0) {
      TRACE(5, " empty relay message for ", *intf, ". Dropping Pkt.");
      doDropped(type, *intf, DropReason::tooShort);
      return;
   }

   const uint8_t inner = pkt.data()[0];
   Ip6Addr txSrc;
   uint16_t port = DhcpVrfSmv6::kClientPort;
   if (inner == dhcp6RelayRepl) {
      port = DhcpVrfSmv6::kServerPort;  // for the next relay down; its own address answers
   } else {
      if (reply.hdr.linkAddress.isZero()) {
         // Our Relay-Forw for a client always names the link; only one for a downstream
         // relay carries ::, and its reply goes to that relay (a Relay-Repl inside).
         TRACE(5, " rcvdLinkAddr is Unspecified for pkt destined to client ", " Dropping Pkt.");
         doDropped(type, *intf, DropReason::zeroLinkAddress);
         return;
      }
      txSrc = state->linkLocal;
      if (txSrc.isZero()) {
         TRACE(5, " ", *intf, " has no link-local address to reach the client. Dropping Pkt.");
         doDropped(type, *intf, DropReason::noLinkLocal);
         return;
      }
      TRACE(7, "   setting txSrcIp6Addr: ", txSrc, " for intf ", *intf);
   }
   // What is relayed down routes: the leases of a reply dropped above never reach anyone.
   if (routeInstallOn(*state))
      doRouteInstallReply(pkt, *intf, *state, reply.hdr.peerAddress, srcIp, vrf);
   Platform::UdpPam& udp = *sm->udpPam();
   udp.txDstAddrIs(reply.hdr.peerAddress);
   udp.txPortIs(port);
   // To a link-local client the kernel answers from the link-local address of the device it
   // is told, which is this one: naming it again would cost a control message per send.
   udp.txSrcAddrIs(reply.hdr.peerAddress.isLinkLocal() ? Platform::IpGenAddr()
                                                       : Platform::IpGenAddr(txSrc));
   udp.txIfindexIs(device->ifindex());
   if (!udp.send(pkt, this, doPendingSend(type, *intf)))
      return;
   TRACE(6, "   relaying DHCP reply packet to ", reply.hdr.peerAddress);
   if (Platform::Trace::keeps(5))
      TRACE_PLAIN(
          5, dhcp6MsgTypeName(inner), " ", Platform::TraceArg::ofHexBytes(dhcp6ClientDuid(pkt)),
          " xid ", Platform::TraceArg::ofHex32(dhcp6TransactionId(pkt)), " from ", srcIp, " vrf ",
          vrf, ": delivered to ", reply.hdr.peerAddress, " on ", *intf, " vrf ", *clientVrf);
}

}  // namespace Ip::Helper::DhcpRelay
