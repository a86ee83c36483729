#include "relay6/DhcpVrfSmv6.h"

#include "codec/Dhcp6Codec.h"
#include "codec/DhcpHdr.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

const RelayFamily DhcpVrfSmv6::kFamily{"v6", kServerPort, true, false, kMaxRxPayload};
const Platform::Ip6Addr DhcpVrfSmv6::kAllRelayAgentsAndServers(Platform::Ip6Addr::Bytes{
    0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2});

DhcpVrfSmv6::DhcpVrfSmv6(const Platform::VrfName& vrfName, const Platform::NamespaceName& nsName,
                         const Ptr<const Config>& config, const VrfSockets::Deps& deps,
                         Status& status, Dhcp6PacketSink& sink, Platform::TimerWheel& wheel)
    : vrfName_(vrfName),
      nsName_(nsName),
      dhcpRelayConfig_(config),
      deps_(deps),
      status_(status),
      sink_(sink),
      duidMacBindings_(vrfName, wheel, sink) {
   handleInitialized();
}

DhcpVrfSmv6::~DhcpVrfSmv6() {
   doClose();
}

void DhcpVrfSmv6::handleInitialized() {
   if (sockets_) {
      TRACE(3, " already initialized return");
      return;
   }
   sockets_.emplace(kFamily, vrfName_, nsName_, deps_, dhcpRelayConfig_->dscpV6(), status_);
   TRACE(2, " udpPam setup complete for VRF ", vrfName_);
   truncatedSeen_ = sockets_->udpPam()->rxTruncated();
   sockets_->onReadableIs([this] { handleReadableCount(); });
   // A reopened socket has no memberships: they are joined again once it is open.
   sockets_->onStateIs([this] { doSyncMcastAll(); });
   configWatch_.on(&Config::Reactor::handleDscpV6, [this] { handleDscpV6(); });
   configWatch_.on(&Config::Reactor::handleClientLinkLayerAddrOpt,
                   [this] { handleClientLinkLayerAddrOptOn(); });
   configWatch_.notifierIs(dhcpRelayConfig_);
   localDirWatch_.on(&Interface::AllIntfStatusLocalDir::Reactor::handleIntfStatusLocal,
                     [this](const IntfId& intf) { handleIntfStatusLocal(intf); });
   localDirWatch_.notifierIs(deps_.intfStatus.intfStatusLocal());
   doSyncMcastAll();
}

void DhcpVrfSmv6::handleDscpV6() {
   if (!sockets_)
      return;
   const uint8_t dscp = dhcpRelayConfig_->dscpV6();
   TRACE(3, " DSCP change to ", dscp, " for Vrf ", vrfName_);
   sockets_->dscpIs(dscp);
}

// --- multicast membership ----------------------------------------------------------------

void DhcpVrfSmv6::handleIntfsInVrf(const IntfId& intf, bool member) {
   if (member) {
      auto [it, added] = members_.try_emplace(intf);
      if (!added)
         return;
      Member& m = it->second;
      m.local.on(&Interface::IntfStatusLocal::Reactor::handleIfindex,
                 [this, intf] { handleIntfStatusLocal(intf); });
      m.local.on(&Interface::IntfStatusLocal::Reactor::handleVrf,
                 [this, intf] { handleIntfStatusLocal(intf); });
      m.local.notifierIs(deps_.intfStatus.intfStatusLocal()->intfStatusLocal(intf));
      doSyncMcast(intf, m);
      handleDevicePam(intf, m);
      return;
   }
   auto it = members_.find(intf);
   if (it == members_.end())
      return;
   doLeave(intf, it->second);
   members_.erase(it);
}

// The interface's device appeared, went, changed index or moved between namespaces.
void DhcpVrfSmv6::handleIntfStatusLocal(const IntfId& intf) {
   auto it = members_.find(intf);
   if (it == members_.end())
      return;
   Member& m = it->second;
   const auto record = deps_.intfStatus.intfStatusLocal()->intfStatusLocal(intf);
   if (m.local.notifier() != record)
      m.local.notifierIs(record);
   doSyncMcast(intf, m);
   handleDevicePam(intf, m);
}

void DhcpVrfSmv6::doSyncMcastAll() {
   for (auto& [intf, m] : members_)
      doSyncMcast(intf, m);
}

void DhcpVrfSmv6::doSyncMcast(const IntfId& intf, Member& m) {
   if (!sockets_)
      return;
   Platform::UdpPam& udp = *sockets_->udpPam();
   if (!udp.active()) {
      m.joined = 0;  // memberships went with the socket
      return;
   }
   const Ptr<const KernelNetInfo::KernelIntf> device = sockets_->kernelDevice(intf);
   const uint32_t ifindex = device ? device->ifindex() : 0;
   if (ifindex == m.joined)
      return;
   if (m.joined)
      doLeave(intf, m);
   if (!device) {
      TRACE(3, " Interface ", intf, " does not have a corresponding kernel device ");
      return;
   }
   std::string error;
   if (!udp.mcastGroupIs(ifindex, kAllRelayAgentsAndServers, true, error)) {
      TRACE(0, " udpPam handleMcastGroup failed with error", " ", error, " on ", intf);
      return;
   }
   m.joined = ifindex;
   TRACE(3, "   interface ", intf, " joined ", kAllRelayAgentsAndServers, " in VRF ", vrfName_);
}

void DhcpVrfSmv6::doLeave(const IntfId& intf, Member& m) {
   if (!m.joined || !sockets_)
      return;
   std::string error;
   // A device that went took its membership with it: failing to leave it is expected.
   if (!sockets_->udpPam()->mcastGroupIs(m.joined, kAllRelayAgentsAndServers, false, error))
      TRACE(4, " udpPam handleMcastGroup failed with error", " ", error, " on ", intf);
   m.joined = 0;
   TRACE(3, "   interface ", intf, " left ", kAllRelayAgentsAndServers, " in VRF ", vrfName_);
}

// --- client frames, for option 79 ------------------------------------------------------

// Off, the captures go and so do the bindings, with what they held.
void DhcpVrfSmv6::handleClientLinkLayerAddrOptOn() {
   TRACE(3, " with clientLinkLayerAddrOpt ", dhcpRelayConfig_->clientLinkLayerAddrOpt(), " for ",
         vrfName_);
   for (auto& [intf, m] : members_)
      handleDevicePam(intf, m);
   if (!dhcpRelayConfig_->clientLinkLayerAddrOpt())
      duidMacBindings_.dhcp6DuidMacBindingsDelAll();
}

// A capture is bound to one device: a device that went, or came back under another index,
// takes the old capture with it.
void DhcpVrfSmv6::handleDevicePam(const IntfId& intf, Member& m) {
   const Ptr<const KernelNetInfo::KernelIntf> device =
       sockets_ && dhcpRelayConfig_->clientLinkLayerAddrOpt() ? sockets_->kernelDevice(intf)
                                                              : nullptr;
   const uint32_t ifindex = device ? device->ifindex() : 0;
   if (m.packetSm && m.packetSm->ifindex() == ifindex)
      return;
   if (m.packetSm) {
      TRACE(3, " capture of ", intf, " closed in VRF ", vrfName_);
      m.packetSm.reset();
   }
   if (!device)
      return;
   m.packetSm = std::make_unique<DhcpPacketSmv6>(
       intf, ifindex, deps_.pams.ethDevPam(device->deviceName(), nsName_.str()), duidMacBindings_);
   TRACE(3, " capture of ", intf, " on ", device->deviceName(), " opened in VRF ", vrfName_);
}

std::map<IntfId, std::string> DhcpVrfSmv6::captureStates() const {
   std::map<IntfId, std::string> out;
   for (const auto& [intf, m] : members_) {
      if (!m.packetSm)
         continue;
      const Platform::EthDevPam& pam = m.packetSm->pam();
      out[intf] = pam.active()          ? "open"
                  : pam.error().empty() ? "closed"
                                        : "cannot open: " + pam.error();
   }
   return out;
}

// --- datagrams -----------------------------------------------------------------------------

void DhcpVrfSmv6::handleReadableCount() {
   if (!sockets_)
      return;
   VrfSockets& sockets = *sockets_;
   Platform::UdpPam& udp = *sockets.udpPam();
   // Datagrams over the receive limit never reach us; the socket counts them.
   for (; truncatedSeen_ < udp.rxTruncated(); ++truncatedSeen_)
      status_.dropsInc(DropReason::tooLong);
   std::optional<Platform::UdpDatagram> datagram = udp.rxPkt();
   if (!datagram) {
      TRACE(8, "readable count incremented but can not get the packet");
      return;
   }
   Platform::Pkt& pkt = *datagram->pkt;
   const uint8_t type = pkt.bytes() ? pkt.data()[0] : 0;
   if (!datagram->src.isV6() || !datagram->dst.isV6())
      return;  // an IPv6-only socket: cannot happen
   const Platform::Ip6Addr& src = datagram->src.v6();
   TRACE(7, "Packet was coming from ", src, ", destIp ", datagram->dst.v6());
   const KernelNetInfo::KernelIntf* device = sockets.deviceOf(datagram->ifindex);
   if (!device) {
      TRACE(5, " Interface for ifindex ", datagram->ifindex, " does not exist. Dropping packet.");
      pkt6Dropped(status_, type, IntfId(), DropReason::unknownIfindex);
      return;
   }
   const IntfId intf = sockets.intfOf(device->deviceName());
   if (intf.empty() && dhcp6Direction(type) == bootRequest) {
      // Not counted as a request: it came from no interface the relay serves.
      TRACE(5, " Interface for kernel device ", device->deviceName(),
            " does not exist. Dropping packet");
      status_.dropsInc(DropReason::unknownDevice);
      return;
   }
   pkt6Received(status_, type, intf);
   sink_.doProcessPacket(pkt, src, datagram->dst.v6(), intf, vrfName_);
}

void DhcpVrfSmv6::handleDel() {
   TRACE(3, " for ", vrfName_);
   doClose();
}

void DhcpVrfSmv6::doClose() {
   configWatch_.notifierIs(nullptr);
   localDirWatch_.notifierIs(nullptr);
   for (auto& [intf, m] : members_) {
      doLeave(intf, m);
      m.packetSm.reset();
   }
   duidMacBindings_.dhcp6DuidMacBindingsDelAll();
   sockets_.reset();
}

}  // namespace Ip::Helper::DhcpRelay
