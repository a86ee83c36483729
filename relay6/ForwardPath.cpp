// The relay-forward path: a client message, or a Relay-Forw from a downstream relay, received
// on a relaying interface goes to every DHCPv6 server of the interface wrapped in a
// Relay-Forw of our own.

#include <algorithm>

#include "codec/Dhcp6Codec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/trace/Trace.h"
#include "relay6/DhcpRelaySmv6.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::VrfName;

// One message on its way up: what every copy shares.
struct DhcpRelaySmv6::Forward {
   Platform::Pkt& pkt;
   const IntfId& intf;
   const VrfName& vrf;  // the client's
   Intf& state;
   uint8_t msgType;
   uint8_t hopCount;  // of our Relay-Forw
   Ip6Addr linkAddr;
};

namespace {

// A stable 64-bit identifier of an interface for the Remote-Id: the same after a restart of
// the agent or a re-creation of the device, unlike an ifindex (FNV-1a of the name).
uint64_t interfaceIdValue(const IntfId& intf) {
   uint64_t h = 14695981039346656037ull;
   for (const char c : intf.str()) {
      h ^= static_cast<uint8_t>(c);
      h *= 1099511628211ull;
   }
   return h;
}

}  // namespace

DhcpRelaySmv6::Intf* DhcpRelaySmv6::relayingIntf(uint8_t msgType, const IntfId& intf) {
   Intf* state = this->intf(intf);
   if (!state || !state->relaying) {
      TRACE(5, "   received DHCP request packets on", " non-configured interface: ", intf,
            ". Dropping it.");
      doDropped(msgType, intf, DropReason::notConfigured);
      return nullptr;
   }
   return state;
}

void DhcpRelaySmv6::handleForwardReq(Platform::Pkt& pkt, const Ip6Addr& srcIp, uint8_t msgType,
                                     const IntfId& intf, const VrfName& vrf) {
   Intf* state = relayingIntf(msgType, intf);
   if (!state)
      return;
   uint8_t hopCount = 0;
   if (msgType == dhcp6RelayForw) {
      const std::optional<Dhcp6RelayHdr> hdr = dhcp6RelayHdr(pkt);
      if (!hdr) {
         TRACE(5, " Relay-Forw of ", pkt.bytes(), " bytes is shorter than its header on ", intf,
               ". Dropping packet.");
         doDropped(msgType, intf, DropReason::tooShort);
         return;
      }
      TRACE(7, "   pkt hop count: ", hdr->hopCount);
      if (hdr->hopCount >= kHopCountLimit) {
         TRACE(5, "   pkt with hop count: ", hdr->hopCount, "(>= ", kHopCountLimit, " ). ",
               "Dropping packet.");
         doDropped(msgType, intf, DropReason::hopLimit);
         return;
      }
      hopCount = static_cast<uint8_t>(hdr->hopCount + 1);
   }
   // A downstream relay with a global address names its link itself, in its own
   // link-address; otherwise the link is ours and the server needs its address.
   Ip6Addr linkAddr;
   if (msgType != dhcp6RelayForw || !srcIp.isGlobalUnicast()) {
      linkAddr = state->linkAddress;
      if (linkAddr.isZero()) {
         TRACE(5, "   no global Ip unicast address found for link: ", intf, ". Dropping packet.");
         doDropped(msgType, intf, DropReason::noGlobalAddress);
         return;
      }
   }
   if ((msgType == dhcp6Release || msgType == dhcp6RelayForw) && routeInstallOn(*state))
      doRouteInstallRelease(pkt, intf, *state, srcIp);
   // The client's DUID is read from the message alone, before anything is wrapped around it.
   std::span<const uint8_t> duid;
   std::optional<Dhcp6DuidMacBindingKey> macKey;
   if (wantsClientMac(msgType) && !(macKey = doClientMacKey(pkt, msgType, intf, duid)))
      return;
   const Platform::EthAddr mac = in_.config->remoteIdMac().isZero() ? in_.entityMib->systemMacAddr()
                                                                    : in_.config->remoteIdMac();
   if (!dhcp6WrapRelayForw(pkt, hopCount, srcIp) ||
       !dhcp6AppendRemoteId(pkt, in_.config->remoteIdEnterprise(), mac, interfaceIdValue(intf))) {
      TRACE(5, " no room to build the Relay-Forw of ", pkt.bytes(), " bytes on ", intf,
            ". Dropping packet.");
      doDropped(msgType, intf, DropReason::relayForwBuildFailed);
      return;
   }
   // Held until a captured frame shows the client's MAC, or dropped.
   if (macKey && !doClientLinkLayerAddr(pkt, *macKey, duid, msgType, intf, linkAddr, vrf))
      return;
   Forward fwd{pkt, intf, vrf, *state, msgType, hopCount, linkAddr};
   forwardReqHelper(fwd);
}

// A Relay-Forw that waited for the client's MAC (ClientLinkLayerAddr.cpp) goes the same way.
void DhcpRelaySmv6::doRelayHeld(Platform::Pkt& relayForw, uint8_t msgType, const IntfId& intf,
                                const Platform::Ip6Addr& linkAddr, const Platform::VrfName& vrf,
                                const Platform::EthAddr& mac) {
   Intf* state = relayingIntf(msgType, intf);
   if (!state)
      return;
   if (!doClientMacIs(relayForw, msgType, intf, mac))
      return;
   // Only client messages are held: our Relay-Forw is the first hop.
   Forward fwd{relayForw, intf, vrf, *state, msgType, 0, linkAddr};
   forwardReqHelper(fwd);
}

// Same-VRF servers first, in configuration order; then the cross-VRF ones, which alone carry
// the client's VRF in option 68, in the servers' own order.
void DhcpRelaySmv6::forwardReqHelper(Forward& fwd) {
   if (!setIntfNameVrfInPkt(fwd.pkt, fwd.intf.str(), fwd.vrf.str())) {
      TRACE(5, " no room for the Interface-Id on ", fwd.intf, ". Dropping packet.");
      doDropped(fwd.msgType, fwd.intf, DropReason::relayForwBuildFailed);
      return;
   }
   crossVrf_.clear();
   for (const auto& [server, configured] : fwd.state.config.notifier()->serverIp6()) {
      if (!configured)
         continue;
      if (server.vrf == fwd.vrf)
         forwardPacketHelper(fwd, server);
      else
         crossVrf_.push_back(&server);
   }
   if (crossVrf_.empty())
      return;
   if (!dhcp6AppendVss(fwd.pkt, fwd.vrf.str())) {
      TRACE(5, " no room for the VRF option on ", fwd.intf, ". Dropping packet.");
      for (size_t i = 0; i < crossVrf_.size(); ++i)
         doDropped(fwd.msgType, fwd.intf, DropReason::relayForwBuildFailed);
      return;
   }
   for (const VrfIpSrcIntfSrcIp* server : crossVrf_)
      forwardPacketHelper(fwd, *server);
}

bool DhcpRelaySmv6::forwardPacketHelper(Forward& fwd, const VrfIpSrcIntfSrcIp& server) {
   if (!server.ip.isV6())
      return false;  // the configuration holds only IPv6 addresses here
   const Ip6Addr& serverAddr = server.ip.v6();
   DhcpVrfSmv6* sm = dhcpVrfSmv6(server.vrf);
   if (!sm || !sm->udpPam()) {
      TRACE(5, "VrfSm not initialized vrf: ", server.vrf);
      doDropped(fwd.msgType, fwd.intf, DropReason::noServerSocket);
      return false;
   }
   Ip6Addr linkAddr = fwd.linkAddr;
   Ip6Addr txSrc;
   bool kernelSource = false;  // the kernel picks txSrc itself for this destination
   uint32_t txIfindex = 0;
   if (server.srcIp.isV6() && !server.srcIp.v6().isZero()) {
      txSrc = linkAddr = server.srcIp.v6();
   } else if (!server.srcIntf.empty()) {
      const Ptr<Ip6::IntfStatus> status = in_.ip6Status->intf(server.srcIntf);
      if (status)
         txSrc = globalAddressOf(*status);
      if (txSrc.isZero() || !status || status->vrf() != server.vrf) {
         TRACE(5, " source interface ", server.srcIntf, " has no global address in vrf ",
               server.vrf, ". Dropping packet.");
         doDropped(fwd.msgType, fwd.intf, DropReason::srcIntfInactive);
         return false;
      }
   } else {
      const std::optional<Platform::EgressRoute> route = egressRoute(*sm, serverAddr);
      if (!route) {
         TRACE(5, " No Ip for egress Intf ", "towards ", serverAddr, " in vrf ", server.vrf);
         doDropped(fwd.msgType, fwd.intf, DropReason::noEgressRoute);
         return false;
      }
      if (!route->preferredSource.isV6()) {
         TRACE(5, " No Ip for egress Intf ", route->ifindex, " towards ", serverAddr);
         doDropped(fwd.msgType, fwd.intf, DropReason::noEgressAddress);
         return false;
      }
      txSrc = route->preferredSource.v6();
      kernelSource = true;
      // A multicast destination leaves by the device the route names; a unicast one follows
      // the routing table.
      if (serverAddr.isMulticast())
         txIfindex = route->ifindex;
   }
   // A multicast copy may reach relays as well as servers: at the hop limit, no relay
   // passes it on. Every copy sets its own count, since copies share the packet.
   dhcp6RelayHopCountIs(fwd.pkt, serverAddr.isMulticast() ? kHopCountLimit : fwd.hopCount);
   dhcp6RelayLinkAddressIs(fwd.pkt, linkAddr);

   Status& status = *in_.status;
   const Ptr<IntfStatus> intfStatus = status.intfStatus(fwd.intf);
   if (server.vrf != fwd.vrf) {
      TRACE(6, "Cross Vrf: Server ", serverAddr, " linkAddr ", linkAddr, " txSrcIp6Addr ", txSrc,
            " txDstIp6Addr ", serverAddr, " server-vrf ", server.vrf, "client-vrf", fwd.vrf);
      status.totalRequestsForwardedWithCrossVrfIpInc();
      if (intfStatus)
         intfStatus->requestsForwardedWithCrossVrfIpInc();
   } else {
      TRACE(6, "Same Vrf: Server ", serverAddr, " linkAddr ", linkAddr, " txSrcIp6Addr ", txSrc);
   }
   // The server leases from the link-address's subnet: a link-address (a configured source
   // address) outside the client interface's subnets is worth an operator's eye. The
   // datagram's own source is the server-side interface's and says nothing about it.
   if (!linkAddr.isZero() && !inSubnets(fwd.state, linkAddr)) {
      status.totalRequestsForwardedWithNonSubnetIpInc();
      if (intfStatus)
         intfStatus->requestsForwardedWithNonSubnetIpInc();
   }

   Platform::UdpPam& udp = *sm->udpPam();
   udp.txDstAddrIs(serverAddr);
   udp.txPortIs(DhcpVrfSmv6::kServerPort);
   // The route's preferred source is what the kernel chooses anyway: left to it, a send
   // needs no control message.
   udp.txSrcAddrIs(kernelSource ? Platform::IpGenAddr() : Platform::IpGenAddr(txSrc));
   udp.txIfindexIs(txIfindex);
   // Counted as forwarded or dropped once the kernel took it or refused it (handleSendDone).
   if (!udp.send(fwd.pkt, this, doPendingSend(fwd.msgType, fwd.intf)))
      return false;
   TRACE(6, "   relaying DHCP request packet to ", serverAddr);
   if (Platform::Trace::keeps(5))
      TRACE_PLAIN(
          5, dhcp6MsgTypeName(fwd.msgType), " ",
          Platform::TraceArg::ofHexBytes(dhcp6ClientDuid(fwd.pkt, Dhcp6Layout::relayForwHead)),
          " xid ",
          Platform::TraceArg::ofHex32(dhcp6TransactionId(fwd.pkt, Dhcp6Layout::relayForwHead)),
          " on ", fwd.intf, " vrf ", fwd.vrf, ": relayed to ", serverAddr, " vrf ", server.vrf,
          " link-address ", linkAddr, " hop-count ", fwd.hopCount);
   return true;
}

}  // namespace Ip::Helper::DhcpRelay
