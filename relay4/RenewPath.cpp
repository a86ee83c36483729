// The unicast renew path of the DHCPv4 relay: a client that took the relay's override
// address for its server renews by unicast to it; the relay forwards the renewal to the
// server recorded in the client's binding.

#include "codec/DhcpCodec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"
#include "relay4/DhcpRelaySm.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::Pkt;

void DhcpRelaySm::handleRenew(DhcpVrfSm&, DhcpHdr& hdr, Pkt& pkt, const IntfId& intf) {
   Status& status = *in_.status;
   Ptr<IntfConfig> config = in_.config->intfConfig(intf);
   if (!config) {
      TRACE(5, " received DHCPRENEW packets on", intf, " non-configured interface. Dropping it.");
      doDropped(bootRequest, intf, DropReason::notConfigured);
      return;
   }
   PLATFORM_ASSERT(in_.clientContext, "sm->dhcpClientContext()");
   const CrossVrfClientBinding* binding = in_.clientContext->crossVrfClientBinding(hdr.chaddr());
   if (!binding) {
      TRACE(5, " No existing client context, ", "Dropping unicast DHCPRENEW request for client ",
            hdr.chaddr());
      doDropped(bootRequest, intf, DropReason::noClientBinding);
      return;
   }
   if (!in_.ipStatus->ipIntfStatus(intf)) {
      TRACE(5, " No ip intf status found for interface ", intf);
      doDropped(bootRequest, intf, DropReason::noIpStatus);
      return;
   }
   const IpAddr ingress =
       binding->ingressVrfIp.addr.isV4() ? binding->ingressVrfIp.addr.v4() : IpAddr();
   // The VRF name goes only where the renewal crosses VRFs, as on the client's first request.
   const std::string_view vrfName = binding->ingressVrfIp.vrf == binding->serverVrfIp.vrf
                                        ? std::string_view()
                                        : binding->ingressVrfIp.vrf.str();
   bool edited = true;
   if (infoOptPresent(pkt)) {
      switch (config->informationOptionPolicy()) {
         case InfoOptionPolicy::drop:
            TRACE(5, " dropping request with relay agent information from an untrusted first ",
                  "hop on ", intf);
            doDropped(bootRequest, intf, DropReason::option82Untrusted);
            return;
         case InfoOptionPolicy::keep:
            edited = mergeInfoOpt(pkt, vrfName, ingress, binding->activeSubnet, 0);
            break;
         case InfoOptionPolicy::replace:
            edited = preparePacket(pkt, bootReply, true, {}, {}, {}, IpAddr(), IpAddr(), 0) &&
                     !infoOptPresent(pkt);
            break;
      }
   }
   if (edited && !infoOptPresent(pkt)) {
      edited = preparePacket(
          pkt, bootRequest, true,
          config->circuitId().empty() ? intf.str() : std::string_view(config->circuitId()), {},
          vrfName, ingress, binding->activeSubnet, 0);
   }
   if (!edited) {
      TRACE(5, " Packet manipulation error for DHCPRENEW request ", "on interface ", intf,
            ". Dropping it.");
      doDropped(bootRequest, intf, DropReason::option82EditFailed);
      return;
   }
   hdr.hopsInc();
   DhcpVrfSm* serverSm = dhcpVrfSm(binding->serverVrfIp.vrf);
   if (!serverSm || !serverSm->udpPam() || !binding->serverVrfIp.addr.isV4() ||
       !binding->egressVrfIp.addr.isV4()) {
      TRACE(5, " No existing VrfSm for vrf ", binding->serverVrfIp.vrf, ". Dropping pkt.");
      doDropped(bootRequest, intf, DropReason::noServerSocket);
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
      doDropped(bootRequest, intf, DropReason::sendFailed);
      return;
   }
   TRACE(5, " relaying DHCP request packet to ", binding->serverVrfIp.addr);
   msgTrace_.line("renewal relayed to ", binding->serverVrfIp.addr, " vrf ",
                  binding->serverVrfIp.vrf);
   pktForwarded(status, bootRequest, intf);
}

}  // namespace Ip::Helper::DhcpRelay
