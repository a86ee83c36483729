#include "relay4/DhcpVrfSm.h"

#include "counters/DhcpRelayCounters.h"
#include "platform/trace/Trace.h"
#include "relay4/DhcpRelaySm.h"

namespace Ip::Helper::DhcpRelay {

namespace {

// The DSCP sits in the upper six bits of the TOS byte; the ECN bits stay zero.
uint8_t tosOf(uint8_t dscp) {
   return static_cast<uint8_t>((dscp * 4) & 255);
}

}  // namespace

class DhcpVrfSm::ConfigReactor : public Config::Reactor {
 public:
   ConfigReactor(DhcpVrfSm& sm, const Ptr<const Config>& config) : sm_(sm) { notifierIs(config); }
   void handleDscpV4() override { sm_.handleDscp(); }
   void onNotifierAttached() override { sm_.handleDscp(); }

 private:
   DhcpVrfSm& sm_;
};

class DhcpVrfSm::UdpPamReactor : public Platform::UdpPam::Reactor {
 public:
   UdpPamReactor(DhcpVrfSm& sm, const Ptr<Platform::UdpPam>& pam) : sm_(sm) { notifierIs(pam); }
   void handleReadableCount() override { sm_.handleReadableCount(); }
   void onNotifierAttached() override { sm_.handleReadableCount(); }

 private:
   DhcpVrfSm& sm_;
};

// Hears nothing: watching the raw socket only keeps it alive with its owner.
class DhcpVrfSm::RawTxPamReactor : public Platform::RawTxPam::Reactor {
 public:
   explicit RawTxPamReactor(const Ptr<Platform::RawTxPam>& pam) { notifierIs(pam); }
};

DhcpVrfSm::DhcpVrfSm(const Platform::VrfName& vrfName, const Platform::NamespaceName& nsName,
                     const Ptr<const Config>& config,
                     const Ptr<const Interface::DeviceNameConfig>& deviceIntfStatusDir,
                     Interface::IntfStatusSource& netNsIntfStatusManagerRoot,
                     Platform::StateStore& entityManager, DhcpPamFactory& pamFactory,
                     DhcpRelaySm& dhcpRelaySm)
    : vrfName_(vrfName),
      nsName_(nsName),
      dhcpRelayConfig_(config),
      deviceIntfStatusDir_(deviceIntfStatusDir),
      netNsIntfStatusManagerRoot_(netNsIntfStatusManagerRoot),
      entityManager_(entityManager),
      pamFactory_(pamFactory),
      dhcpRelaySm_(dhcpRelaySm) {
   handleInitialized();
}

DhcpVrfSm::~DhcpVrfSm() = default;

void DhcpVrfSm::handleInitialized() {
   if (initialized_)
      return;
   TRACE(3, " for vrf:", vrfName_);

   kniRoot_ = KernelNetInfo::kernelTableOf(entityManager_, nsName_.str());
   netNsIntfStatusManagerRoot_.namespaceFollowIs(nsName_.str());

   Ptr<Platform::UdpPam> udp = pamFactory_.udpPam("UdpSocket-" + vrfName_.str());
   udp->txDstAddrIs(Platform::IpAddr::broadcast());
   udp->txPortIs(kServerPort);
   udp->rxAddrIs(Platform::IpAddr::ipAddrZero());
   udp->rxPortIs(kServerPort);
   udp->netNsIs(nsName_.str());
   udp->txTosIs(tosOf(dhcpRelayConfig_->dscpV4()));
   udp->modeIs(Platform::Pam::modeOpen);
   udpPam_ = udp;
   udpPamReactor_ = std::make_unique<UdpPamReactor>(*this, udpPam_);
   configReactor_ = std::make_unique<ConfigReactor>(*this, dhcpRelayConfig_);

   Ptr<Platform::RawTxPam> raw = pamFactory_.rawTxPam("RawTxPam-" + vrfName_.str());
   raw->ethProtocolIs(0x0800);
   raw->netNsIs(nsName_.str());
   raw->modeIs(Platform::Pam::modeOpen);
   rawTxPam_ = raw;
   rawTxPamReactor_ = std::make_unique<RawTxPamReactor>(rawTxPam_);

   std::string error;
   netlinkSocket_ = pamFactory_.routeSocket(nsName_.str(), error);
   if (!netlinkSocket_)
      TRACE(0, " no netlink socket for vrf:", vrfName_, " namespace ", nsName_, ": ", error);

   initialized_ = true;
}

void DhcpVrfSm::handleDscp() {
   if (!udpPam_)
      return;
   const uint8_t dscp = dhcpRelayConfig_->dscpV4();
   TRACE(3, " DSCP change to ", dscp, " for ", vrfName_);
   udpPam_->txTosIs(tosOf(dscp));
}

void DhcpVrfSm::handleReadableCount() {
   TRACE(8, " for vrf:", vrfName_);
   if (!udpPam_)
      return;
   std::optional<Platform::UdpDatagram> datagram = udpPam_->rxPkt();
   if (!datagram) {
      TRACE(8, " no pkt, pam only set");
      return;
   }
   if (!datagram->src.isV4() || !datagram->dst.isV4()) {
      TRACE(5, " not an IPv4 datagram on vrf:", vrfName_, ". Dropping packet.");
      return;
   }
   Platform::Pkt& pkt = *datagram->pkt;
   const uint8_t op = pkt.bytes() ? pkt.data()[0] : 0;
   Status& counters = *dhcpRelaySm_.status();

   Ptr<KernelNetInfo::KernelIntf> kernelIntf =
       kniRoot_ ? kniRoot_->interfaceByIndex(datagram->ifindex) : nullptr;
   if (!kernelIntf) {
      TRACE(5, " Interface for ifindex ", datagram->ifindex, " does not exist. Dropping packet.");
      pktDropped(counters, op, Platform::IntfId());
      return;
   }
   const std::string& device = kernelIntf->deviceName();
   const Platform::IntfId intf = deviceIntfStatusDir_->intfIdOf(device);
   if (intf.empty() && op == bootRequest) {
      TRACE(5, " Interface for kernel device ", device, " does not exist. Dropping packet");
      return;
   }
   TRACE_PLAIN(7, "Packet received on kernel device ", device, ", interface ", intf);
   pktReceived(counters, op, intf);
   TRACE(7, " received a packet on interface ", intf);
   dhcpRelaySm_.doProcessPacket(pkt, datagram->src.v4(), datagram->dst.v4(), intf, vrfName_);
}

const EgressRouteCache::Answer* DhcpVrfSm::egressRoute(Platform::IpAddr server) {
   if (!netlinkSocket_)
      return nullptr;
   return &egressRoutes_.egressRoute(
       *netlinkSocket_,
       kniRoot_ ? std::optional<uint64_t>(kniRoot_->routeGeneration()) : std::nullopt, server);
}

void DhcpVrfSm::handleDel() {
   TRACE(3, " for ", vrfName_);
   if (!initialized_)
      return;
   configReactor_.reset();
   udpPamReactor_.reset();
   udpPam_->modeIs(Platform::Pam::modeClosed);
   udpPam_.reset();
   rawTxPamReactor_.reset();
   rawTxPam_->modeIs(Platform::Pam::modeClosed);
   rawTxPam_.reset();
   netlinkSocket_.reset();
   egressRoutes_ = EgressRouteCache();
   kniRoot_.reset();
   initialized_ = false;
   netNsIntfStatusManagerRoot_.namespaceFollowDel(nsName_.str());
}

}  // namespace Ip::Helper::DhcpRelay
