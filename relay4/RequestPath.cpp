// The request path of the DHCPv4 relay: client requests towards the configured servers.

#include <algorithm>

#include "codec/DhcpCodec.h"
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

constexpr uint16_t kServerPort = DhcpVrfSm::kServerPort;

std::string_view circuitIdOf(const IntfConfig& config, const IntfId& intf) {
   return config.circuitId().empty() ? intf.str() : std::string_view(config.circuitId());
}

// RFC 3046 section 2.1: a relay adds one option 82, never a second. One packet goes to
// several servers with different sub-options, so the option this relay added for the
// previous copy comes out before the next one goes in; an option that arrived with the
// client's message (from a trusted element downstream) stays as it came.
bool prepareCopy(Pkt& pkt, bool flag, std::string_view circuitId, std::string_view vrfName,
                 IpAddr serverIdOverride, IpAddr linkSelection, bool& ownOption) {
   if (ownOption) {
      if (!preparePacket(pkt, bootReply, true, {}, {}, {}, IpAddr(), IpAddr(), 0))
         return false;
      ownOption = false;
   }
   const bool present = flag && infoOptPresent(pkt);
   if (!preparePacket(pkt, bootRequest, flag, circuitId, {}, vrfName, serverIdOverride,
                      linkSelection, 0))
      return false;
   ownOption = flag && !present && infoOptPresent(pkt);
   return true;
}

bool sendTo(Platform::UdpPam& udp, IpAddr src, IpAddr dst, const Pkt& pkt) {
   udp.txSrcAddrIs(src);
   udp.txDstAddrIs(dst);
   udp.txPortIs(kServerPort);
   return udp.send(pkt);
}

}  // namespace

void DhcpRelaySm::doProcessRequest(DhcpVrfSm& sm, DhcpHdr& hdr, Pkt& pkt, IpAddr srcIp,
                                   IpAddr dstIp, const IntfId& intf) {
   Status& status = *in_.status;
   const VrfName& vrf = sm.vrfName();
   const IpAddr giaddr = hdr.giaddr();
   const bool ownGiaddr = !giaddr.isZero() && !intfLookupTbl(genVrfIpPair(vrf, giaddr)).empty();

   if (!giaddr.isZero() && !ownGiaddr) {
      // Another relay agent's request: pass it on. A re-broadcast must not circulate
      // between relays on one link, so it leaves with the last hop the next relay accepts
      // none of.
      if (dstIp == IpAddr::broadcast()) {
         hdr.hopsIs(kHopsMax);
         TRACE(5, " Destination ip is ", "broadcast for request pkt received from another ",
               "relay agent, setting hops to maximum value.");
      }
      hdr.hopsInc();
      if (!sm.udpPam() || !sendTo(*sm.udpPam(), IpAddr(), dstIp, pkt)) {
         pktDropped(status, bootRequest, intf);
         return;
      }
      TRACE(5, " forward previously relayed packet to ", dstIp);
      pktForwarded(status, bootRequest, intf);
      return;
   }
   if (hdr.flags() & ~DhcpLayout::broadcastFlag)
      TRACE(6, " Ignore MBZ (must be zero) bits in flags field not zero");
   if (ownGiaddr) {
      TRACE(5, " dropping request packet already handled ", "( giaddr=", giaddr, " ) on ", intf);
      pktDropped(status, bootRequest, intf);
      return;
   }
   TRACE(6, " request op is: ", hdr.bootpOp());
   TRACE(5, "received a ", getDhcpMsgType(pkt, 0), " ( Server at ",
         getServerId(pkt).value_or(IpAddr()), " ) ", "message on ", intf, " to ", dstIp, " from ",
         srcIp);
   if (dstIp != IpAddr::broadcast() && intfLookupTbl(genVrfIpPair(vrf, dstIp)) == intf) {
      handleRenew(sm, hdr, pkt, intf);
      return;
   }
   handleRequest(sm, hdr, pkt, intf);
}

void DhcpRelaySm::handleRequest(DhcpVrfSm&, DhcpHdr& hdr, Pkt& pkt, const IntfId& intf) {
   Status& status = *in_.status;
   Ptr<IntfConfig> config = in_.config->intfConfig(intf);
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   if (!config || !reactor) {
      TRACE(5, " receiving DHCP request packets on", intf,
            " non-configured interface. Dropping it.");
      pktDropped(status, bootRequest, intf);
      return;
   }
   Ptr<Ip::IpIntfStatus> intfStatus = in_.ipStatus->ipIntfStatus(intf);
   if (!intfStatus) {
      TRACE(5, " No ip intf status found for interface ", intf);
      pktDropped(status, bootRequest, intf);
      return;
   }
   // Set on every copy rather than incremented, so that each server sees the same count.
   const uint8_t hops = static_cast<uint8_t>(hdr.hops() + 1);
   Platform::IpAddrWithMask gateway = intfStatus->activeAddrWithMask();
   if (DhcpSmartRelayIntfSm* smart = smartRelaySm(*reactor)) {
      const std::optional<Platform::IpAddrWithMask> chosen =
          smart->smartRelayRequest(intf, hdr.chaddr(), hdr.ciaddr(), pkt);
      if (!chosen)
         return;
      gateway = *chosen;
   }
   if (gateway.address().isZero()) {
      TRACE(5, " No valid IP address found on client interface ( ", intf, " ). Dropping packet");
      pktDropped(status, bootRequest, intf);
      return;
   }
   Ptr<IntfServerIp> servers = in_.intfServerIpDir->drIntfServerIp(intf);
   PLATFORM_ASSERT(servers, "intfServerIp");

   const VrfName& clientVrf = intfStatus->vrf();
   bool ownOption = false;
   bool crossVrf = false;
   for (const auto& [server, count] : servers->serverIp()) {
      if (server.vrf != clientVrf) {
         crossVrf = true;
         continue;
      }
      if (relayToOwnVrfServer(hdr, pkt, intf, *config, server, gateway, hops, ownOption))
         pktForwarded(status, bootRequest, intf);
      else
         pktDropped(status, bootRequest, intf);
   }
   if (!crossVrf)
      return;

   // The servers in other VRFs, in the order of their keys (the map's order).
   auto dropAllCrossVrf = [&] {
      for (const auto& [server, count] : servers->serverIp()) {
         if (server.vrf != clientVrf)
            pktDropped(status, bootRequest, intf);
      }
   };
   // The server must be told the client's subnet (link selection) and the client must
   // see the relay as its server (server identifier override), RFC 3527 and RFC 5107:
   // neither can be said without option 82.
   if (!config->informationOption()) {
      TRACE(5, " Not relaying packet across vrf for intf ", intf, " because information option is ",
            "not set in the config ");
      dropAllCrossVrf();
      return;
   }
   if (!prepareCopy(pkt, true, circuitIdOf(*config, intf), clientVrf.str(), gateway.address(),
                    gateway.subnet(), ownOption)) {
      TRACE(5, " Unable to manipulate packet for cross vrf ", " transaction. Dropping it.");
      dropAllCrossVrf();
      return;
   }
   const bool hasServerId = getServerId(pkt).has_value();
   for (const auto& [server, count] : servers->serverIp()) {
      if (server.vrf == clientVrf)
         continue;
      DhcpVrfSm* serverSm = dhcpVrfSm(server.vrf);
      if (!serverSm || !serverSm->udpPam() || !server.ip.isV4()) {
         TRACE(5, " No vrfSm for vrf ", server.vrf);
         pktDropped(status, bootRequest, intf);
         continue;
      }
      const IpAddr serverIp = server.ip.v4();
      TRACE(6, "ingress vrf ", clientVrf, " egress vrf ", server.vrf);
      IpAddr src;
      if (!server.srcIntf.empty()) {
         if (!sourceIntfActive(server.srcIntf, *in_.ipStatus, server.vrf)) {
            TRACE(5, " Not relaying packet for intf ", intf, " to server ip ", serverIp,
                  " using source intf ", server.srcIntf,
                  " because source intf either belongs to different vrf ",
                  " or doesn't have an active address");
            pktDropped(status, bootRequest, intf);
            continue;
         }
         src = in_.ipStatus->ipIntfStatus(server.srcIntf)->activeAddrWithMask().address();
      } else {
         const std::optional<Platform::EgressRoute> route = egressRoute(*serverSm, serverIp);
         if (!route) {
            TRACE(5, "No egress interfaces found for destIp", serverIp, " in server vrf ",
                  server.vrf);
            pktDropped(status, bootRequest, intf);
            continue;
         }
         src = getEgressIp(*serverSm, route->ifindex);
         if (src.isZero()) {
            TRACE(5, " Unable to get egress intf ip for server at", serverIp);
            pktDropped(status, bootRequest, intf);
            continue;
         }
      }
      checkAddrBelongsToIntf(status, intf, src, server.vrf);
      TRACE(6, "Setting giaddr to ", src);
      hdr.giaddrIs(src);
      hdr.hopsIs(hops);
      // The client took the relay's override address for its server; the real server must
      // see itself named (RFC 5107 section 4). A message without option 54 names none.
      if (hasServerId && !setServerId(pkt, serverIp)) {
         TRACE(5, "Could not override server identifier option.  Dropping pkt.");
         pktDropped(status, bootRequest, intf);
         return;
      }
      if (!sendTo(*serverSm->udpPam(), src, serverIp, pkt)) {
         pktDropped(status, bootRequest, intf);
         continue;
      }
      TRACE(5, " relaying DHCP request packet to ", serverIp, " in vrf ", server.vrf, " from ",
            src);
      pktForwarded(status, bootRequest, intf);
   }
}

bool DhcpRelaySm::relayToOwnVrfServer(DhcpHdr& hdr, Pkt& pkt, const IntfId& intf,
                                      const IntfConfig& config, const VrfIpSrcIntfSrcIp& server,
                                      const Platform::IpAddrWithMask& gateway, uint8_t hops,
                                      bool& ownOption) {
   DhcpVrfSm* sm = dhcpVrfSm(server.vrf);
   if (!sm || !sm->udpPam() || !server.ip.isV4()) {
      TRACE(5, " No vrfSm for vrf ", server.vrf);
      return false;
   }
   const IpAddr serverIp = server.ip.v4();
   IpAddr giaddr = gateway.address();
   IpAddr linkSelection;
   if (!server.srcIntf.empty()) {
      // The server answers to the source interface's subnet unless told the client's,
      // which takes the link selection sub-option (RFC 3527).
      if (!config.informationOption()) {
         TRACE(5, " Not relaying packet for  intf ", intf, " to server ip ", serverIp,
               " using source intf ", server.srcIntf,
               " because information option is not set in the config");
         return false;
      }
      if (!sourceIntfActive(server.srcIntf, *in_.ipStatus, server.vrf)) {
         TRACE(5, " Not relaying packet for intf ", intf, " to server ip ", serverIp,
               " using source intf ", server.srcIntf,
               " because source intf either belongs to different vrf ",
               " or doesn't have an active address");
         return false;
      }
      giaddr = in_.ipStatus->ipIntfStatus(server.srcIntf)->activeAddrWithMask().address();
      linkSelection = gateway.subnet();
      TRACE(6, "giaddr is updated to", giaddr);
   } else if (server.srcIp.isV4()) {
      giaddr = server.srcIp.v4();
      TRACE(6, "giaddr is updated to", giaddr);
      checkAddrBelongsToIntf(*in_.status, intf, giaddr, server.vrf);
   }
   if (!prepareCopy(pkt, config.informationOption(), circuitIdOf(config, intf), {}, IpAddr(),
                    linkSelection, ownOption)) {
      TRACE(5, " Unable to set link selection suboption  for the ",
            " DHCP request packets received on", intf, ". Dropping it.");
      return false;
   }
   hdr.giaddrIs(giaddr);
   hdr.hopsIs(hops);
   TRACE(5, " relaying DHCP request packet to vrfSm udpPam ", serverIp, " from ", giaddr);
   return sendTo(*sm->udpPam(), giaddr, serverIp, pkt);
}

std::optional<Platform::EgressRoute> DhcpRelaySm::egressRoute(DhcpVrfSm& sm, IpAddr server) {
   const EgressRouteCache::Answer* answer = sm.egressRoute(server);
   if (!answer)
      return std::nullopt;
   if (!answer->route)
      TRACE(5, " route lookup for ", server, " in vrf ", sm.vrfName(), " failed: ", answer->error);
   return answer->route;
}

IpAddr DhcpRelaySm::getEgressIp(DhcpVrfSm& sm, uint32_t ifindex) const {
   Ptr<KernelNetInfo::KernelIntf> device =
       sm.kernelTable() ? sm.kernelTable()->interfaceByIndex(ifindex) : nullptr;
   const IntfId intf = device ? in_.deviceIntfStatusDir->intfIdOf(device->deviceName()) : IntfId();
   Ptr<Ip::IpIntfStatus> status = intf.empty() ? nullptr : in_.ipStatus->ipIntfStatus(intf);
   if (!status) {
      TRACE(5, " No interface Status for the interface ", intf, " (ifindex ", ifindex, ")");
      return IpAddr();
   }
   const IpAddr addr = status->activeAddrWithMask().address();
   TRACE(6, "Primary ip addr ", addr, " for interface ", intf);
   return addr;
}

void DhcpRelaySm::checkAddrBelongsToIntf(Status& status, const IntfId& intf, IpAddr addr,
                                         const VrfName& vrf) const {
   Ptr<Ip::IpIntfStatus> iisp = in_.ipStatus->ipIntfStatus(intf);
   PLATFORM_ASSERT(iisp, "iisp");
   Ptr<IntfStatus> counters = status.intfStatus(intf);
   if (iisp->activeAddrWithMask().address() == addr) {
      TRACE(7, " src address ", addr, " belongs to incoming interface ", intf,
            "'s primary Ip address.");
   } else if (std::any_of(iisp->activeSecondaryWithMask().begin(),
                          iisp->activeSecondaryWithMask().end(),
                          [&](const Platform::IpAddrWithMask& a) { return a.address() == addr; })) {
      TRACE(7, " src address ", addr, " belongs to incoming interface ", intf,
            "'s secondary Ip addresses.");
   } else {
      TRACE(7, " src address ", addr, " does not belong to incoming interface ", intf);
      status.totalRequestsForwardedWithNonSubnetIpInc();
      if (counters) {
         counters->requestsForwardedWithNonSubnetIpInc();
         TRACE(7, intf,
               ". ForwardedWithNonSubnetIp count: ", counters->requestsForwardedWithNonSubnetIp());
      }
      return;
   }
   if (iisp->vrf() == vrf)
      return;
   TRACE(7, " incoming interface ", intf, " and server are in different VRF ");
   status.totalRequestsForwardedWithCrossVrfIpInc();
   if (counters) {
      counters->requestsForwardedWithCrossVrfIpInc();
      TRACE(7, intf,
            " ForwardedWithCrossVrfIp count:", counters->requestsForwardedWithCrossVrfIp());
   }
}

bool DhcpRelaySm::sourceIntfActive(const IntfId& srcIntf, const Ip::Status& ipStatus,
                                   const VrfName& vrf) const {
   Ptr<Ip::IpIntfStatus> status = ipStatus.ipIntfStatus(srcIntf);
   if (!status) {
      TRACE(6, " ipIntfStatus not found", " for ", srcIntf);
      return false;
   }
   TRACE(7, " ipIntfStatus exists for ", srcIntf);
   if (status->vrf() != vrf) {
      TRACE(6, " srcIntf belongs to vrf ", status->vrf(), " different from server vrf");
      return false;
   }
   // Up means up in the kernel of the VRF's namespace, where the copy leaves.
   const DhcpVrfSm* sm = dhcpVrfSm(vrf);
   Ptr<const KernelNetInfo::KernelIntf> device = sm ? kernelIntfOf(*sm, srcIntf) : nullptr;
   if (!device || !device->up() || status->activeAddrWithMask().address().isZero()) {
      TRACE(6, " source interface shut or has no active address");
      return false;
   }
   return true;
}

Ptr<const KernelNetInfo::KernelIntf> DhcpRelaySm::kernelIntfOf(const DhcpVrfSm& sm,
                                                               const IntfId& intf) const {
   // The namespace's interface status manager keeps each interface's ifindex, so a
   // packet needs two map lookups, not a walk over the namespace's devices.
   Ptr<Interface::IntfStatusLocal> local =
       in_.intfStatusManagerRoot->intfStatusLocal()->intfStatusLocal(intf);
   if (!sm.kernelTable() || !local || local->vrf() != sm.vrfName())
      return nullptr;
   return sm.kernelTable()->interfaceByIndex(local->ifindex());
}

}  // namespace Ip::Helper::DhcpRelay
