// The reply path of the DHCPv4 relay: server replies back to the client's link, and
// unicast renewals of clients relayed across VRFs.

#include "codec/DhcpCodec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/packet/ByteCursor.h"
#include "platform/packet/InetHeaders.h"
#include "platform/trace/Trace.h"
#include "relay4/DhcpRelaySm.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::Pkt;
using Platform::VrfName;

namespace {

using Platform::inetChecksum;
using Platform::inetSum;
constexpr size_t kEthHeader = Platform::kEthHeaderBytes;
constexpr size_t kIpHeader = Platform::kIpv4HeaderBytes;
constexpr size_t kUdpHeader = Platform::kUdpHeaderBytes;
constexpr size_t kFrameHeaders = kEthHeader + kIpHeader + kUdpHeader;
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
   const Platform::EthAddr chaddr = hdr->chaddr();
   const size_t dhcpBytes = pkt.bytes();
   const size_t pktSize = dhcpBytes + kFrameHeaders;
   if (pktSize > 0xffff + kEthHeader - kIpHeader || !pkt.growHead(kFrameHeaders)) {
      TRACE(5, " null packet.");
      return false;
   }
   const IpAddr dstIp = broadcast || yiaddr.isZero() ? IpAddr::broadcast() : yiaddr;
   const Platform::EthAddr dstMac =
       broadcast ? Platform::EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}) : chaddr;

   Platform::ByteWriter out(pkt.span().first(kFrameHeaders));
   out.bytes(dstMac.bytes());
   out.bytes(srcMac.bytes());
   out.write16(0x0800);
   out.write8(0x45);  // version 4, 20-byte header
   out.write8(0);
   out.write16(static_cast<uint16_t>(pktSize - kEthHeader));
   out.write16(0);  // identification
   out.write16(0);  // no fragmentation flags, offset 0
   out.write8(64);
   out.write8(17);
   out.write16(0);  // header checksum, below
   out.write32(srcIp.value());
   out.write32(dstIp.value());
   out.write16(DhcpVrfSm::kServerPort);
   out.write16(kClientPort);
   out.write16(static_cast<uint16_t>(kUdpHeader + dhcpBytes));
   out.write16(0);  // UDP checksum, below

   uint8_t* frame = pkt.data();
   const uint16_t ipSum = inetChecksum(inetSum(pkt.sub(kEthHeader, kIpHeader)));
   frame[kEthHeader + 10] = static_cast<uint8_t>(ipSum >> 8);
   frame[kEthHeader + 11] = static_cast<uint8_t>(ipSum);
   // RFC 768: the pseudo-header is source, destination, zero, protocol and UDP length.
   uint32_t pseudo = inetSum(pkt.sub(kEthHeader + 12, 8));
   pseudo += 17 + static_cast<uint32_t>(kUdpHeader + dhcpBytes);
   uint16_t udpSum =
       inetChecksum(inetSum(pkt.sub(kEthHeader + kIpHeader, kUdpHeader + dhcpBytes), pseudo));
   if (udpSum == 0)
      udpSum = 0xffff;  // 0 means "no checksum" (RFC 768)
   frame[kEthHeader + kIpHeader + 6] = static_cast<uint8_t>(udpSum >> 8);
   frame[kEthHeader + kIpHeader + 7] = static_cast<uint8_t>(udpSum);
   PLATFORM_ASSERT(pkt.bytes() == pktSize, "pkt->bytes() == pktSize");
   return true;
}

void DhcpRelaySm::handleReply(DhcpVrfSm&, DhcpHdr& hdr, Pkt& pkt, const VrfName& vrf,
                              IpAddr srcIp) {
   Status& status = *in_.status;
   const IpAddr giaddr = hdr.giaddr();
   if (giaddr.isZero()) {
      TRACE(5, " giaddr is zero on reply packet. Dropping packet.");
      pktDropped(status, bootReply, IntfId());
      return;
   }
   IntfId intf = intfLookupTbl(genVrfIpPair(vrf, giaddr));
   IntfId clientIntf = intf;
   IpAddr serverIdOverride, linkSelection;
   const bool parsed = parseInfoOpt(pkt, replyCircuitId_, replyRemoteId_, replyVrfName_,
                                    serverIdOverride, linkSelection, 0);
   // A reply to a request relayed across VRFs names the client's VRF and the address of
   // the client's interface there: that, not giaddr (an address in the server's VRF), is
   // where the client is.
   const bool crossVrf = parsed && !replyVrfName_.empty();
   if (crossVrf && !serverIdOverride.isZero()) {
      const IntfId owner = intfLookupTbl(genVrfIpPair(VrfName(replyVrfName_), serverIdOverride));
      if (!owner.empty())
         clientIntf = owner;
   }
   if (clientIntf.empty()) {
      TRACE(5, " no interface associated with giaddr=", giaddr, ". Dropping packet.");
      pktDropped(status, bootReply, IntfId());
      return;
   }
   TRACE(5, " received ", getDhcpMsgType(pkt, 0), " from ", srcIp, " on Vrf ", vrf);
   if (!parsed) {
      TRACE(5, "Could not parse Dhcp packet for Option-82 ", "information");
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   if (crossVrf) {
      if (serverIdOverride.isZero()) {
         TRACE(5, "Did not receive server-id override suboption.");
         pktDropped(status, bootReply, clientIntf);
         return;
      }
      // The client must keep talking to the relay, which alone reaches the server's VRF
      // (RFC 5107 section 4).
      if (!setServerId(pkt, serverIdOverride)) {
         TRACE(5, "Could not override server identifier option.");
         pktDropped(status, bootReply, clientIntf);
         return;
      }
   }
   Ptr<IntfConfig> config = in_.config->intfConfig(clientIntf);
   if (!config) {
      TRACE(5, " receiving DHCP reply ", "packets for non-configured interface. Dropping it.");
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   const VrfName clientVrf = vrfNameFromIntfId(clientIntf);
   DhcpVrfSm* clientSm = dhcpVrfSm(clientVrf);
   if (!clientSm || !clientSm->rawTxPam()) {
      TRACE(5, " No vrfSm for vrf ", clientVrf);
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   TRACE(7, "  devicename ", in_.deviceIntfStatusDir->deviceOf(clientIntf));
   Ptr<const KernelNetInfo::KernelIntf> device = kernelIntfOf(*clientSm, clientIntf);
   if (!device) {
      TRACE(5, "Could not get kernel interface for devicename ",
            in_.deviceIntfStatusDir->deviceOf(clientIntf));
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   TRACE(7, " for device ", device->deviceName(), " devifIndex ", device->ifindex());
   // What the relay added on the way in comes out on the way back (RFC 3046 section 2.2).
   if (!preparePacket(pkt, bootReply, config->informationOption() || crossVrf, {}, {}, {}, IpAddr(),
                      IpAddr(), 0)) {
      TRACE(5, " could not remove the relay agent information option. Dropping packet.");
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   const IpAddr clientSideAddr = clientIntf == intf ? giaddr : serverIdOverride;
   const Platform::EthAddr chaddr = hdr.chaddr();
   // A server answered from the client's current gateway address: the client needs to
   // move on no further, and its next DISCOVER starts over on the primary.
   if (DhcpSmartRelayIntfSm* smart = smartRelaySm(clientIntf)) {
      TRACE(6, " deleting client state for ", chaddr);
      smart->dsrClientStateDel(chaddr);
   }
   if (!buildReplyPkt(pkt, device->mac(), clientSideAddr)) {
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   if (vrf != clientVrf) {
      in_.clientContext->crossVrfClientBindingIs(
          chaddr,
          CrossVrfClientBinding{genVrfIpPair(clientVrf, clientSideAddr), genVrfIpPair(vrf, giaddr),
                                genVrfIpPair(vrf, srcIp), linkSelection});
   }
   if (!clientSm->rawTxPam()->send(device->ifindex(), pkt)) {
      pktDropped(status, bootReply, clientIntf);
      return;
   }
   TRACE(5, " sending DHCP reply packet", "through interface ", clientIntf);
   pktForwarded(status, bootReply, clientIntf);
}

void DhcpRelaySm::handleRenew(DhcpVrfSm&, DhcpHdr& hdr, Pkt& pkt, const IntfId& intf) {
   Status& status = *in_.status;
   Ptr<IntfConfig> config = in_.config->intfConfig(intf);
   if (!config) {
      TRACE(5, " received DHCPRENEW packets on", intf, " non-configured interface. Dropping it.");
      pktDropped(status, bootRequest, intf);
      return;
   }
   PLATFORM_ASSERT(in_.clientContext, "sm->dhcpClientContext()");
   const CrossVrfClientBinding* binding = in_.clientContext->crossVrfClientBinding(hdr.chaddr());
   if (!binding) {
      TRACE(5, " No existing client context, ", "Dropping unicast DHCPRENEW request for client ",
            hdr.chaddr());
      pktDropped(status, bootRequest, intf);
      return;
   }
   if (!in_.ipStatus->ipIntfStatus(intf)) {
      TRACE(5, " No ip intf status found for interface ", intf);
      pktDropped(status, bootRequest, intf);
      return;
   }
   const IpAddr ingress =
       binding->ingressVrfIp.addr.isV4() ? binding->ingressVrfIp.addr.v4() : IpAddr();
   if (!preparePacket(
           pkt, bootRequest, true,
           config->circuitId().empty() ? intf.str() : std::string_view(config->circuitId()), {},
           binding->ingressVrfIp.vrf.str(), ingress, binding->activeSubnet, 0)) {
      TRACE(5, " Packet manipulation error for DHCPRENEW request ", "on interface ", intf,
            ". Dropping it.");
      pktDropped(status, bootRequest, intf);
      return;
   }
   hdr.hopsInc();
   DhcpVrfSm* serverSm = dhcpVrfSm(binding->serverVrfIp.vrf);
   if (!serverSm || !serverSm->udpPam() || !binding->serverVrfIp.addr.isV4() ||
       !binding->egressVrfIp.addr.isV4()) {
      TRACE(5, " No existing VrfSm for vrf ", binding->serverVrfIp.vrf, ". Dropping pkt.");
      pktDropped(status, bootRequest, intf);
      return;
   }
   // The server answers to giaddr (RFC 2131 section 4.1); only the relay's address in the
   // server's VRF brings the answer back to this relay.
   hdr.giaddrIs(binding->egressVrfIp.addr.v4());
   Platform::UdpPam& udp = *serverSm->udpPam();
   udp.txDstAddrIs(binding->serverVrfIp.addr);
   udp.txPortIs(DhcpVrfSm::kServerPort);
   udp.txSrcAddrIs(binding->egressVrfIp.addr);
   if (!udp.send(pkt)) {
      pktDropped(status, bootRequest, intf);
      return;
   }
   TRACE(5, " relaying DHCP request packet to ", binding->serverVrfIp.addr);
   pktForwarded(status, bootRequest, intf);
}

}  // namespace Ip::Helper::DhcpRelay
