#include "relay4/DhcpVrfSm.h"

#include "codec/DhcpHdr.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

const RelayFamily DhcpVrfSm::kFamily{"v4", kServerPort, false, true, 0};

DhcpVrfSm::DhcpVrfSm(const Platform::VrfName& vrfName, const Platform::NamespaceName& nsName,
                     const Ptr<const Config>& config, const VrfSockets::Deps& deps, Status& status,
                     DhcpPacketSink& sink)
    : vrfName_(vrfName),
      nsName_(nsName),
      dhcpRelayConfig_(config),
      deps_(deps),
      status_(status),
      sink_(sink) {
   handleInitialized();
}

DhcpVrfSm::~DhcpVrfSm() {
   doClose();
}

void DhcpVrfSm::handleInitialized() {
   if (sockets_)
      return;
   TRACE(3, " for vrf:", vrfName_);
   sockets_.emplace(kFamily, vrfName_, nsName_, deps_, dhcpRelayConfig_->dscpV4(), status_);
   sockets_->onReadableIs([this] { handleReadableCount(); });
   configWatch_.on(&Config::Reactor::handleDscpV4, [this] { handleDscp(); });
   configWatch_.onAttached([this] { handleDscp(); });
   configWatch_.notifierIs(dhcpRelayConfig_);
}

void DhcpVrfSm::handleDscp() {
   if (!sockets_)
      return;
   const uint8_t dscp = dhcpRelayConfig_->dscpV4();
   TRACE(3, " DSCP change to ", dscp, " for ", vrfName_);
   sockets_->dscpIs(dscp);
}

void DhcpVrfSm::handleReadableCount() {
   TRACE(8, " for vrf:", vrfName_);
   if (!sockets_)
      return;
   VrfSockets& sockets = *sockets_;
   std::optional<Platform::UdpDatagram> datagram = sockets.udpPam()->rxPkt();
   if (!datagram) {
      TRACE(8, " no pkt, pam only set");
      return;
   }
   Platform::Pkt& pkt = *datagram->pkt;
   const uint8_t op = pkt.bytes() ? pkt.data()[0] : 0;
   if (!datagram->src.isV4() || !datagram->dst.isV4()) {
      TRACE(5, " not an IPv4 datagram on vrf:", vrfName_, ". Dropping packet.");
      status_.dropsInc(DropReason::notIpv4);
      return;
   }
   const KernelNetInfo::KernelIntf* device = sockets.deviceOf(datagram->ifindex);
   if (!device) {
      TRACE(5, " Interface for ifindex ", datagram->ifindex, " does not exist. Dropping packet.");
      pktDropped(status_, op, Platform::IntfId(), DropReason::unknownIfindex);
      return;
   }
   const std::string& deviceName = device->deviceName();
   const Platform::IntfId intf = sockets.intfOf(deviceName);
   if (intf.empty() && op == bootRequest) {
      // Not counted as a request: it came from no interface the relay serves.
      TRACE(5, " Interface for kernel device ", deviceName, " does not exist. Dropping packet");
      status_.dropsInc(DropReason::unknownDevice);
      return;
   }
   TRACE_PLAIN(7, "Packet received on kernel device ", deviceName, ", interface ", intf);
   pktReceived(status_, op, intf);
   TRACE(7, " received a packet on interface ", intf);
   sink_.doProcessPacket(pkt, datagram->src.v4(), datagram->dst.v4(), intf, vrfName_);
}

void DhcpVrfSm::handleDel() {
   TRACE(3, " for ", vrfName_);
   doClose();
}

void DhcpVrfSm::doClose() {
   configWatch_.notifierIs(nullptr);
   sockets_.reset();
}

}  // namespace Ip::Helper::DhcpRelay
