// The request path of the DHCPv4 relay: client requests towards the configured servers.
//
// Every copy is planned before anything is written into the packet: the plan names the
// socket, giaddr and the option 82 the copy carries, or the reason it cannot go. Then it
// is sent. One packet serves every copy, so the option of the previous copy is undone
// before the next one's goes in.

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

bool sendTo(Platform::UdpPam& udp, IpAddr src, IpAddr dst, const Pkt& pkt) {
   udp.txSrcAddrIs(src);
   udp.txDstAddrIs(dst);
   udp.txPortIs(kServerPort);
   return udp.send(pkt);
}

}  // namespace

// The option 82 one copy carries. `circuitId` asks for the relay's own whole option (the
// interface has information-option on); the three addresses and the VRF name are what
// replies to a copy that does not leave from the client's gateway address are found by
// (link selection, RFC 3527; server identifier override, RFC 5107; VRF name, RFC 6607).
struct DhcpRelaySm::OptionPlan {
   bool circuitId = false;
   IpAddr linkSelection;
   IpAddr serverIdOverride;
   std::string_view vrfName;

   bool located() const { return !serverIdOverride.isZero(); }
   bool any() const { return circuitId || located(); }
   bool operator==(const OptionPlan&) const = default;
};

// What every copy of one request shares.
struct DhcpRelaySm::RequestContext {
   RequestContext(DhcpHdr& h, Pkt& p, const IntfId& i, const IntfConfig& c, const VrfName& v,
                  const Platform::IpAddrWithMask& g)
       : hdr(h), pkt(p), intf(i), config(c), clientVrf(v), gateway(g) {}

   DhcpHdr& hdr;
   Pkt& pkt;
   const IntfId& intf;
   const IntfConfig& config;
   const VrfName& clientVrf;
   Platform::IpAddrWithMask gateway;
   uint8_t hops = 0;
   // A trusted first hop's option 82 travels with the request (policy keep).
   bool firstHopOption = false;
   // Another relay agent's request: its giaddr and option stay as they came.
   bool relayed = false;
   // Whether the client sent option 54; read once, by the first copy that needs to know.
   std::optional<bool> hasServerId;
   // What the packet carries now of the relay's own.
   enum class Applied : uint8_t { nothing, whole, merged } applied = Applied::nothing;
   OptionPlan current;
};

struct DhcpRelaySm::CopyPlan {
   DhcpVrfSm* via = nullptr;
   IpAddr server;
   IpAddr giaddr;  // also the source address of the copy
   OptionPlan option;
   bool crossVrf = false;
};

void DhcpRelaySm::doDrop(const RequestContext& ctx, DropReason reason) {
   doDropped(bootRequest, ctx.intf, reason);
}

void DhcpRelaySm::doDropped(uint8_t op, const IntfId& intf, DropReason reason) {
   pktDropped(*in_.status, op, intf, reason);
   msgTrace_.dropped(reason);
}

void DhcpRelaySm::doProcessRequest(DhcpVrfSm& sm, DhcpHdr& hdr, Pkt& pkt, IpAddr srcIp,
                                   IpAddr dstIp, const IntfId& intf) {
   Status& status = *in_.status;
   const VrfName& vrf = sm.vrfName();
   const IpAddr giaddr = hdr.giaddr();
   const bool ownGiaddr = !giaddr.isZero() && lookup_.find(vrf.str(), giaddr);

   if (!giaddr.isZero() && !ownGiaddr) {
      // On Linux the relay only hears another agent's request when it is broadcast or sent
      // to one of our own addresses. Sent to us, we are that agent's server: relay it to
      // the receiving interface's servers (RFC 1542 section 4.1.1), rather than send it to
      // ourselves.
      if (dstIp != IpAddr::broadcast() && ownAddress(sm, dstIp)) {
         handleRelayedRequest(sm, hdr, pkt, intf);
         return;
      }
      // A re-broadcast must not circulate between relays on one link, so it leaves with
      // the last hop the next relay accepts none of.
      if (dstIp == IpAddr::broadcast()) {
         hdr.hopsIs(kHopsMax);
         TRACE(5, " Destination ip is ", "broadcast for request pkt received from another ",
               "relay agent, setting hops to maximum value.");
      }
      hdr.hopsInc();
      if (!sm.udpPam() || !sendTo(*sm.udpPam(), IpAddr(), dstIp, pkt)) {
         doDropped(bootRequest, intf, DropReason::sendFailed);
         return;
      }
      TRACE(5, " forward previously relayed packet to ", dstIp);
      msgTrace_.line("forwarded to ", dstIp);
      pktForwarded(status, bootRequest, intf);
      return;
   }
   if (hdr.flags() & ~DhcpLayout::broadcastFlag)
      TRACE(6, " Ignore MBZ (must be zero) bits in flags field not zero");
   if (ownGiaddr) {
      TRACE(5, " dropping request packet already handled ", "( giaddr=", giaddr, " ) on ", intf);
      doDropped(bootRequest, intf, DropReason::alreadyRelayed);
      return;
   }
   TRACE(6, " request op is: ", hdr.bootpOp());
   // Level 5 is the message trace's: the type was read as the message arrived.
   TRACE(5, "received a ", msgTrace_.type(), " ( Server at ", getServerId(pkt).value_or(IpAddr()),
         " ) ", "message on ", intf, " to ", dstIp, " from ", srcIp);
   if (dstIp != IpAddr::broadcast()) {
      const IntfId* owner = lookup_.find(vrf.str(), dstIp);
      if (owner && *owner == intf) {
         handleRenew(sm, hdr, pkt, intf);
         return;
      }
   }
   handleRequest(sm, hdr, pkt, intf);
}

bool DhcpRelaySm::doFirstHopOption(RequestContext& ctx) {
   if (!ctx.hdr.giaddr().isZero() || !infoOptPresent(ctx.pkt))
      return true;
   switch (ctx.config.informationOptionPolicy()) {
      case InfoOptionPolicy::drop:
         TRACE(5, " dropping request with relay agent information from an untrusted first hop on ",
               ctx.intf);
         doDrop(ctx, DropReason::option82Untrusted);
         return false;
      case InfoOptionPolicy::replace:
         if (!preparePacket(ctx.pkt, bootReply, true, {}, {}, {}, IpAddr(), IpAddr(), 0)) {
            TRACE(5, " could not remove the first hop's relay agent information on ", ctx.intf);
            doDrop(ctx, DropReason::option82EditFailed);
            return false;
         }
         return true;
      case InfoOptionPolicy::keep:
         ctx.firstHopOption = true;
         return true;
   }
   return true;
}

void DhcpRelaySm::handleRequest(DhcpVrfSm&, DhcpHdr& hdr, Pkt& pkt, const IntfId& intf) {
   Ptr<IntfConfig> config = in_.config->intfConfig(intf);
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   if (!config || !reactor) {
      TRACE(5, " receiving DHCP request packets on", intf,
            " non-configured interface. Dropping it.");
      doDropped(bootRequest, intf, DropReason::notConfigured);
      return;
   }
   Ptr<Ip::IpIntfStatus> intfStatus = in_.ipStatus->ipIntfStatus(intf);
   if (!intfStatus) {
      TRACE(5, " No ip intf status found for interface ", intf);
      doDropped(bootRequest, intf, DropReason::noIpStatus);
      return;
   }
   // Before smart relay: it has nothing to choose from on an interface without an address.
   Platform::IpAddrWithMask gateway = intfStatus->activeAddrWithMask();
   if (gateway.address().isZero()) {
      TRACE(5, " No valid IP address found on client interface ( ", intf, " ). Dropping packet");
      doDropped(bootRequest, intf, DropReason::noAddress);
      return;
   }
   // Without a secondary address smart relay has nowhere to move a client: the interface
   // relays from its primary, as if smart relay were off, until one appears.
   DhcpSmartRelayIntfSm* smart = smartRelaySmOf(*reactor);
   if (smart && !intfStatus->activeSecondaryWithMask().empty()) {
      const std::optional<Platform::IpAddrWithMask> chosen =
          smart->smartRelayRequest(intf, hdr.chaddr(), hdr.ciaddr(), pkt);
      if (!chosen)
         return;
      gateway = *chosen;
   }
   RequestContext ctx(hdr, pkt, intf, *config, intfStatus->vrf(), gateway);
   // Set on every copy rather than incremented, so that each server sees the same count.
   ctx.hops = static_cast<uint8_t>(hdr.hops() + 1);
   if (!doFirstHopOption(ctx))
      return;
   Ptr<IntfServerIp> servers = in_.intfServerIpDir->drIntfServerIp(intf);
   PLATFORM_ASSERT(servers, "intfServerIp");

   bool crossVrf = false;
   bool abandon = false;
   for (const auto& [server, count] : servers->serverIp()) {
      if (server.vrf != ctx.clientVrf) {
         crossVrf = true;
         continue;
      }
      if (std::optional<CopyPlan> plan = planOwnVrfCopy(ctx, server))
         doSendCopy(ctx, *plan, abandon);
   }
   if (!crossVrf)
      return;
   // The server must be told the client's subnet (link selection) and the client must
   // see the relay as its server (server identifier override), RFC 3527 and RFC 5107:
   // neither can be said without option 82.
   if (!config->informationOption()) {
      TRACE(5, " Not relaying packet across vrf for intf ", intf, " because information option is ",
            "not set in the config ");
      for (const auto& [server, count] : servers->serverIp()) {
         if (server.vrf != ctx.clientVrf)
            doDrop(ctx, DropReason::crossVrfNeedsInfoOption);
      }
      return;
   }
   // The servers in other VRFs, in the order of their keys (the map's order).
   for (const auto& [server, count] : servers->serverIp()) {
      if (server.vrf == ctx.clientVrf)
         continue;
      if (abandon) {
         doDrop(ctx, DropReason::serverIdRewriteFailed);
         continue;
      }
      if (std::optional<CopyPlan> plan = planCrossVrfCopy(ctx, server))
         doSendCopy(ctx, *plan, abandon);
   }
}

void DhcpRelaySm::handleRelayedRequest(DhcpVrfSm&, DhcpHdr& hdr, Pkt& pkt, const IntfId& intf) {
   Ptr<IntfConfig> config = in_.config->intfConfig(intf);
   Ptr<Ip::IpIntfStatus> intfStatus = in_.ipStatus->ipIntfStatus(intf);
   if (!config || !intfStatus) {
      TRACE(5, " receiving DHCP request packets on", intf,
            " non-configured interface. Dropping it.");
      doDropped(bootRequest, intf, DropReason::notConfigured);
      return;
   }
   TRACE(5, " request relayed by ", hdr.giaddr(), " to this relay on ", intf,
         ": relaying it to the interface's servers");
   RequestContext ctx(hdr, pkt, intf, *config, intfStatus->vrf(), {});
   ctx.relayed = true;
   ctx.hops = static_cast<uint8_t>(hdr.hops() + 1);
   Ptr<IntfServerIp> servers = in_.intfServerIpDir->drIntfServerIp(intf);
   PLATFORM_ASSERT(servers, "intfServerIp");
   bool abandon = false;
   for (const auto& [server, count] : servers->serverIp()) {
      // The server answers the other agent at its giaddr, which another VRF cannot reach.
      if (server.vrf != ctx.clientVrf) {
         TRACE(5, " not relaying a request relayed by another agent across vrf to ", server);
         doDrop(ctx, DropReason::relayedCrossVrf);
         continue;
      }
      if (std::optional<CopyPlan> plan = planOwnVrfCopy(ctx, server))
         doSendCopy(ctx, *plan, abandon);
   }
}

std::optional<DhcpRelaySm::CopyPlan> DhcpRelaySm::planOwnVrfCopy(RequestContext& ctx,
                                                                 const VrfIpSrcIntfSrcIp& server) {
   DhcpVrfSm* sm = dhcpVrfSm(server.vrf);
   if (!sm || !sm->udpPam() || !server.ip.isV4()) {
      TRACE(5, " No vrfSm for vrf ", server.vrf);
      doDrop(ctx, DropReason::noServerSocket);
      return std::nullopt;
   }
   CopyPlan plan;
   plan.via = sm;
   plan.server = server.ip.v4();
   plan.giaddr = ctx.gateway.address();
   // Replies to a copy that leaves from another address than the client's gateway find the
   // client by the override address; the server leases from the client's subnet by link
   // selection.
   bool locate = false;
   if (!server.srcIntf.empty()) {
      if (!ctx.relayed && !ctx.config.informationOption()) {
         TRACE(5, " Not relaying packet for  intf ", ctx.intf, " to server ip ", plan.server,
               " using source intf ", server.srcIntf,
               " because information option is not set in the config");
         doDrop(ctx, DropReason::srcIntfNeedsInfoOption);
         return std::nullopt;
      }
      if (!doSourceIntf(ctx, server, plan))
         return std::nullopt;
      locate = true;
      TRACE(6, "giaddr is updated to", plan.giaddr);
   } else if (server.srcIp.isV4()) {
      plan.giaddr = server.srcIp.v4();
      TRACE(6, "giaddr is updated to", plan.giaddr);
      if (!ctx.relayed)
         checkAddrBelongsToIntf(*in_.status, ctx.intf, plan.giaddr, server.vrf);
      const IntfId* owner = lookup_.find(ctx.clientVrf.str(), plan.giaddr);
      locate = !owner || *owner != ctx.intf;
   }
   if (ctx.relayed) {
      // The other agent's giaddr stays; the configured source only picks the way out.
      if (server.srcIntf.empty() && !server.srcIp.isV4())
         plan.giaddr = IpAddr();
      return plan;
   }
   plan.option.circuitId = ctx.config.informationOption() && !ctx.firstHopOption;
   if (locate) {
      plan.option.linkSelection = ctx.gateway.subnet();
      plan.option.serverIdOverride = ctx.gateway.address();
   }
   return plan;
}

std::optional<DhcpRelaySm::CopyPlan> DhcpRelaySm::planCrossVrfCopy(
    RequestContext& ctx, const VrfIpSrcIntfSrcIp& server) {
   DhcpVrfSm* serverSm = dhcpVrfSm(server.vrf);
   if (!serverSm || !serverSm->udpPam() || !server.ip.isV4()) {
      TRACE(5, " No vrfSm for vrf ", server.vrf);
      doDrop(ctx, DropReason::noServerSocket);
      return std::nullopt;
   }
   CopyPlan plan;
   plan.via = serverSm;
   plan.server = server.ip.v4();
   plan.crossVrf = true;
   TRACE(6, "ingress vrf ", ctx.clientVrf, " egress vrf ", server.vrf);
   if (!server.srcIntf.empty()) {
      if (!doSourceIntf(ctx, server, plan))
         return std::nullopt;
   } else {
      const std::optional<Platform::EgressRoute> route = egressRoute(*serverSm, plan.server);
      if (!route) {
         TRACE(5, "No egress interfaces found for destIp", plan.server, " in server vrf ",
               server.vrf);
         doDrop(ctx, DropReason::noEgressRoute);
         return std::nullopt;
      }
      plan.giaddr = getEgressIp(*serverSm, route->ifindex);
      if (plan.giaddr.isZero()) {
         TRACE(5, " Unable to get egress intf ip for server at", plan.server);
         doDrop(ctx, DropReason::noEgressAddress);
         return std::nullopt;
      }
   }
   checkAddrBelongsToIntf(*in_.status, ctx.intf, plan.giaddr, server.vrf);
   plan.option.circuitId = !ctx.firstHopOption;
   plan.option.vrfName = ctx.clientVrf.str();
   plan.option.serverIdOverride = ctx.gateway.address();
   plan.option.linkSelection = ctx.gateway.subnet();
   return plan;
}

bool DhcpRelaySm::doSourceIntf(RequestContext& ctx, const VrfIpSrcIntfSrcIp& server,
                               CopyPlan& plan) {
   if (!sourceIntfActive(server.srcIntf, *in_.ipStatus, server.vrf)) {
      TRACE(5, " Not relaying packet for intf ", ctx.intf, " to server ip ", plan.server,
            " using source intf ", server.srcIntf,
            " because source intf either belongs to different vrf ",
            " or doesn't have an active address");
      doDrop(ctx, DropReason::srcIntfInactive);
      return false;
   }
   plan.giaddr = in_.ipStatus->ipIntfStatus(server.srcIntf)->activeAddrWithMask().address();
   return true;
}

bool DhcpRelaySm::doApplyOption(RequestContext& ctx, const OptionPlan& option) {
   using Applied = RequestContext::Applied;
   if (ctx.applied != Applied::nothing && ctx.current == option)
      return true;
   // RFC 3046 section 2.1: one option 82 per message. What the previous copy carried
   // comes out before this copy's goes in.
   if (ctx.applied == Applied::whole &&
       !preparePacket(ctx.pkt, bootReply, true, {}, {}, {}, IpAddr(), IpAddr(), 0))
      return false;
   if (ctx.applied == Applied::merged && !stripOwnInfoSubOptions(ctx.pkt, 0))
      return false;
   ctx.applied = Applied::nothing;
   ctx.current = option;
   if (ctx.firstHopOption) {
      if (!option.located())
         return true;
      if (!mergeInfoOpt(ctx.pkt, option.vrfName, option.serverIdOverride, option.linkSelection, 0))
         return false;
      ctx.applied = Applied::merged;
      return true;
   }
   if (!option.any())
      return true;
   if (!preparePacket(ctx.pkt, bootRequest, true,
                      option.circuitId ? circuitIdOf(ctx.config, ctx.intf) : std::string_view(), {},
                      option.vrfName, option.serverIdOverride, option.linkSelection, 0))
      return false;
   ctx.applied = Applied::whole;
   return true;
}

bool DhcpRelaySm::doSendCopy(RequestContext& ctx, const CopyPlan& plan, bool& abandon) {
   if (!ctx.relayed && !doApplyOption(ctx, plan.option)) {
      if (plan.crossVrf)
         TRACE(5, " Unable to manipulate packet for cross vrf ", " transaction. Dropping it.");
      else
         TRACE(5, " Unable to set link selection suboption  for the ",
               " DHCP request packets received on", ctx.intf, ". Dropping it.");
      doDrop(ctx, DropReason::option82EditFailed);
      return false;
   }
   if (!ctx.relayed) {
      TRACE(6, "Setting giaddr to ", plan.giaddr);
      ctx.hdr.giaddrIs(plan.giaddr);
   }
   ctx.hdr.hopsIs(ctx.hops);
   // The client took the relay's override address for its server; the real server must
   // see itself named (RFC 5107 section 4). A message without option 54 names none.
   if (plan.crossVrf && !ctx.hasServerId)
      ctx.hasServerId = getServerId(ctx.pkt).has_value();
   if (plan.crossVrf && *ctx.hasServerId && !setServerId(ctx.pkt, plan.server)) {
      TRACE(5, "Could not override server identifier option.  Dropping pkt.");
      doDrop(ctx, DropReason::serverIdRewriteFailed);
      abandon = true;
      return false;
   }
   if (!sendTo(*plan.via->udpPam(), plan.giaddr, plan.server, ctx.pkt)) {
      doDrop(ctx, DropReason::sendFailed);
      return false;
   }
   if (plan.crossVrf)
      TRACE(5, " relaying DHCP request packet to ", plan.server, " in vrf ", plan.via->vrfName(),
            " from ", plan.giaddr);
   else
      TRACE(5, " relaying DHCP request packet to vrfSm udpPam ", plan.server, " from ",
            plan.giaddr);
   msgTrace_.line("relayed to ", plan.server, " vrf ", plan.via->vrfName(), " giaddr ",
                  plan.giaddr);
   pktForwarded(*in_.status, bootRequest, ctx.intf);
   return true;
}

std::optional<Platform::EgressRoute> DhcpRelaySm::egressRoute(DhcpVrfSm& sm, IpAddr server) {
   const EgressRouteCache::Answer* answer = sm.egressRoute(server);
   if (!answer)
      return std::nullopt;
   if (!answer->route)
      TRACE(5, " route lookup for ", server, " in vrf ", sm.vrfName(), " failed: ", answer->error);
   return answer->route;
}

bool DhcpRelaySm::ownAddress(const DhcpVrfSm& sm, IpAddr addr) const {
   return sm.sockets() && sm.sockets()->ownAddress(addr);
}

IpAddr DhcpRelaySm::getEgressIp(DhcpVrfSm& sm, uint32_t ifindex) const {
   const KernelNetInfo::KernelIntf* device =
       sm.sockets() ? sm.sockets()->deviceOf(ifindex) : nullptr;
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
   return sm.sockets() ? sm.sockets()->kernelDevice(intf) : nullptr;
}

}  // namespace Ip::Helper::DhcpRelay
