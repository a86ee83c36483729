// The reply path of the DHCPv4 relay: server replies back to the client's link.

#include "codec/DhcpCodec.h"
#include "codec/Frame.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"
#include "relay4/DhcpRelaySm.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::Pkt;
using Platform::VrfName;

namespace {

constexpr uint16_t kClientPort = 68;

}  // namespace

bool DhcpRelaySm::buildReplyPkt(Pkt& pkt, const Platform::EthAddr& srcMac, IpAddr srcIp) {
   std::optional<DhcpHdr> hdr = DhcpHdr::of(pkt);
   if (!hdr || srcMac.isZero()) {
      TRACE(5, srcMac.isZero() ? " failed to get ifhwaddr" : " null packet.");
      return false;
   }
   // The reply counts a hop on its way to the client too.
   hdr->hopsInc();
   const bool broadcast = hdr->flags() & DhcpLayout::broadcastFlag;
   const IpAddr yiaddr = hdr->yiaddr();
   const size_t pktSize = pkt.bytes() + Codec::kUdp4FrameHeaders;
   const Codec::Udp4Frame frame{
       .dstMac =
           broadcast ? Platform::EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}) : hdr->chaddr(),
       .srcMac = srcMac,
       .srcIp = srcIp,
       .dstIp = broadcast || yiaddr.isZero() ? IpAddr::broadcast() : yiaddr,
       .srcPort = DhcpVrfSm::kServerPort,
       .dstPort = kClientPort};
   if (!Codec::prependUdp4Frame(pkt, frame)) {
      TRACE(5, " null packet.");
      return false;
   }
   PLATFORM_ASSERT(pkt.bytes() == pktSize, "pkt->bytes() == pktSize");
   return true;
}

// The client interface of a reply is found one of two ways:
//  - by the server identifier override address in option 82, in the VRF the option names
//    (the receiving VRF when it names none): the copy left from another address than the
//    client's gateway (another VRF, a source interface or a source address). Such a reply
//    is trusted only when its giaddr is one of the relay's own addresses where it arrived
//    and it comes from a server of that client interface in that VRF; only such a reply
//    sets up the client's binding for unicast renewals.
//  - otherwise by giaddr, which must be a relay interface's address in the receiving VRF.
void DhcpRelaySm::handleReply(DhcpVrfSm& sm, DhcpHdr& hdr, Pkt& pkt, const VrfName& vrf,
                              IpAddr srcIp) {
   Status& status = *in_.status;
   const IpAddr giaddr = hdr.giaddr();
   if (giaddr.isZero()) {
      TRACE(5, " giaddr is zero on reply packet. Dropping packet.");
      doDropped(bootReply, IntfId(), DropReason::zeroGiaddr);
      return;
   }
   IpAddr serverIdOverride, linkSelection;
   const bool parsed = parseInfoOpt(pkt, replyCircuitId_, replyRemoteId_, replyVrfName_,
                                    serverIdOverride, linkSelection, 0);
   const bool located = parsed && !serverIdOverride.isZero();
   // Views: a reply copies no VRF name.
   const IntfId* clientIntfFound = nullptr;
   if (located) {
      const std::string_view named = replyVrfName_.empty() ? vrf.str() : replyVrfName_;
      clientIntfFound = lookup_.find(named, serverIdOverride);
      if (!clientIntfFound) {
         TRACE(5, " no interface associated with server identifier override ", serverIdOverride,
               " in vrf ", named, ". Dropping packet.");
         doDropped(bootReply, IntfId(), DropReason::unknownOverride);
         return;
      }
      if (!ownAddress(sm, giaddr)) {
         TRACE(5, " giaddr ", giaddr, " is no address of this relay in vrf ", vrf,
               ". Dropping packet.");
         doDropped(bootReply, *clientIntfFound, DropReason::giaddrNotOwn);
         return;
      }
      if (!isServerOf(*clientIntfFound, vrf, srcIp)) {
         TRACE(5, " reply from ", srcIp, " in vrf ", vrf, " is from no server of ",
               *clientIntfFound, ". Dropping packet.");
         doDropped(bootReply, *clientIntfFound, DropReason::unknownServer);
         return;
      }
   } else {
      clientIntfFound = lookup_.find(vrf.str(), giaddr);
      if (!clientIntfFound) {
         TRACE(5, " no interface associated with giaddr=", giaddr, ". Dropping packet.");
         doDropped(bootReply, IntfId(), DropReason::unknownGiaddr);
         return;
      }
   }
   const IntfId& clientIntf = *clientIntfFound;
   const std::string_view msgType = MessageTrace::on() ? msgTrace_.type() : getDhcpMsgType(pkt, 0);
   TRACE(5, " received ", msgType, " from ", srcIp, " on Vrf ", vrf);
   if (!parsed) {
      TRACE(5, "Could not parse Dhcp packet for Option-82 ", "information");
      doDropped(bootReply, clientIntf, DropReason::option82Malformed);
      return;
   }
   // A VRF name without the override: a cross-VRF reply that lost what finds its client.
   if (!located && !replyVrfName_.empty()) {
      TRACE(5, "Did not receive server-id override suboption.");
      doDropped(bootReply, clientIntf, DropReason::noServerIdOverride);
      return;
   }
   // The client must keep talking to the relay, which alone reaches its server from the
   // client's link (RFC 5107 section 4).
   if (located && !setServerId(pkt, serverIdOverride)) {
      TRACE(5, "Could not override server identifier option.");
      doDropped(bootReply, clientIntf, DropReason::serverIdRewriteFailed);
      return;
   }
   Ptr<IntfConfig> config = in_.config->intfConfig(clientIntf);
   // The VRF the interface's rows are under: the one the lookup just found it in.
   const VrfName* clientVrfOf = rowsVrf(clientIntf);
   if (!config || !clientVrfOf) {
      TRACE(5, " receiving DHCP reply ", "packets for non-configured interface. Dropping it.");
      doDropped(bootReply, clientIntf, DropReason::notConfigured);
      return;
   }
   const VrfName& clientVrf = *clientVrfOf;
   DhcpVrfSm* clientSm = clientVrf == vrf ? &sm : dhcpVrfSm(clientVrf);
   if (!clientSm || !clientSm->rawTxPam()) {
      TRACE(5, " No vrfSm for vrf ", clientVrf);
      doDropped(bootReply, clientIntf, DropReason::noVrfSocket);
      return;
   }
   TRACE(7, "  devicename ", in_.deviceIntfStatusDir->deviceOf(clientIntf));
   Ptr<const KernelNetInfo::KernelIntf> device = kernelIntfOf(*clientSm, clientIntf);
   if (!device) {
      TRACE(5, "Could not get kernel interface for devicename ",
            in_.deviceIntfStatusDir->deviceOf(clientIntf));
      doDropped(bootReply, clientIntf, DropReason::noKernelDevice);
      return;
   }
   TRACE(7, " for device ", device->deviceName(), " devifIndex ", device->ifindex());
   // What the relay added on the way in comes out on the way back (RFC 3046 section 2.2).
   if (!doStripOwnOption(pkt, *config, clientIntf, located || !linkSelection.isZero())) {
      TRACE(5, " could not remove the relay agent information option. Dropping packet.");
      doDropped(bootReply, clientIntf, DropReason::option82EditFailed);
      return;
   }
   const IpAddr clientSideAddr = located ? serverIdOverride : giaddr;
   const Platform::EthAddr chaddr = hdr.chaddr();
   // A server answered from the client's current gateway address: the client needs to
   // move on no further, and its next DISCOVER starts over on the primary.
   if (DhcpSmartRelayIntfSm* smart = smartRelaySm(clientIntf)) {
      TRACE(6, " deleting client state for ", chaddr);
      smart->dsrClientStateDel(chaddr);
   }
   // Read before the frame is built around the message.
   const std::optional<uint32_t> leaseTime = getLeaseTime(pkt);
   if (!buildReplyPkt(pkt, device->mac(), clientSideAddr)) {
      doDropped(bootReply, clientIntf, DropReason::frameBuildFailed);
      return;
   }
   // The client renews by unicast to the override address, which is the relay's: it needs
   // to know where that client's server is. A NAK ends the lease, and the binding with it.
   if (located && msgType == "DHCPACK") {
      bindings_->bindingIs(
          chaddr,
          CrossVrfClientBinding{genVrfIpPair(clientVrf, clientSideAddr), genVrfIpPair(vrf, giaddr),
                                genVrfIpPair(vrf, srcIp), linkSelection},
          leaseTime);
   } else if (located && msgType == "DHCPNAK") {
      bindings_->bindingDel(chaddr);
   }
   if (!clientSm->rawTxPam()->send(device->ifindex(), pkt)) {
      doDropped(bootReply, clientIntf, DropReason::sendFailed);
      return;
   }
   TRACE(5, " sending DHCP reply packet", "through interface ", clientIntf);
   msgTrace_.line("delivered on ", clientIntf, " vrf ", clientVrf);
   pktForwarded(status, bootReply, clientIntf);
}

bool DhcpRelaySm::doStripOwnOption(Pkt& pkt, const IntfConfig& config, const IntfId& clientIntf,
                                   bool ownSubOptions) {
   // The relay's own whole option carries its circuit-id and no remote-id; anything else
   // is a first hop's option, which goes back down as it came up, without what the relay
   // merged into it.
   const std::string_view ownCircuitId =
       config.circuitId().empty() ? clientIntf.str() : std::string_view(config.circuitId());
   if (!replyCircuitId_.empty() && replyCircuitId_ == ownCircuitId && replyRemoteId_.empty())
      return preparePacket(pkt, bootReply, true, {}, {}, {}, IpAddr(), IpAddr(), 0);
   if (ownSubOptions || !replyVrfName_.empty())
      return stripOwnInfoSubOptions(pkt, 0);
   return true;
}

bool DhcpRelaySm::isServerOf(const IntfId& intf, const VrfName& vrf, IpAddr srcIp) const {
   Ptr<IntfServerIp> servers = in_.intfServerIpDir->drIntfServerIp(intf);
   if (!servers)
      return false;
   for (const auto& [server, count] : servers->serverIp()) {
      if (server.vrf == vrf && server.ip == Platform::IpGenAddr(srcIp))
         return true;
   }
   return false;
}

}  // namespace Ip::Helper::DhcpRelay
