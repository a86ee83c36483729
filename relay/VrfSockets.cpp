#include "relay/VrfSockets.h"

#include <string>

#include "codec/Frame.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

namespace {

// The DSCP sits in the upper six bits of the TOS byte or traffic class; ECN stays zero.
uint8_t tosOf(uint8_t dscp) {
   return static_cast<uint8_t>((dscp * 4) & 255);
}

}  // namespace

VrfSockets::VrfSockets(const RelayFamily& family, const Platform::VrfName& vrf,
                       const Platform::NamespaceName& nsName, const Deps& deps, uint8_t dscp,
                       Status& status)
    : family_(family),
      vrf_(vrf),
      nsName_(nsName),
      deps_(deps),
      status_(status),
      kernelTable_(KernelNetInfo::kernelTableOf(deps.store, nsName.str())),
      ownAddresses_(kernelTable_) {
   deps_.intfStatus.namespaceFollowIs(nsName_.str());

   Ptr<Platform::UdpPam> udp = deps_.pams.udpPam("UdpSocket-" + vrf_.str());
   if (family.ipv6) {
      udp->ipv6Is(true);
      udp->txDstAddrIs(Platform::Ip6Addr());
      udp->rxAddrIs(Platform::Ip6Addr());
   } else {
      udp->txDstAddrIs(Platform::IpAddr::broadcast());
      udp->rxAddrIs(Platform::IpAddr::ipAddrZero());
   }
   if (family.maxRxPayload)
      udp->maxRxPayloadIs(family.maxRxPayload);
   udp->txPortIs(family.serverPort);
   udp->rxPortIs(family.serverPort);
   udp->netNsIs(nsName_.str());
   udp->txTosIs(tosOf(dscp));
   udp->modeIs(Platform::Pam::modeOpen);
   udpPam_ = udp;

   if (family.rawTx) {
      Ptr<Platform::RawTxPam> raw = deps_.pams.rawTxPam("RawTxPam-" + vrf_.str());
      raw->ethProtocolIs(family.ipv6 ? Codec::EthLayout::typeIpv6 : Codec::EthLayout::typeIpv4);
      raw->netNsIs(nsName_.str());
      raw->modeIs(Platform::Pam::modeOpen);
      rawTxPam_ = raw;
   }

   std::string error;
   routeSocket_ = deps_.pams.routeSocket(nsName_.str(), error);
   if (!routeSocket_) {
      TRACE(0, " no netlink socket for vrf:", vrf_, " namespace ", nsName_, ": ", error);
      routeSocketError_ = std::move(error);
   }
   udpPamWatch_.on(&Platform::UdpPam::Reactor::handleActive, [this] { doPublishError(); });
   if (rawTxPam_) {
      rawTxPamWatch_.on(&Platform::RawTxPam::Reactor::handleActive, [this] { doPublishError(); });
      rawTxPamWatch_.notifierIs(rawTxPam_);
   }
   doPublishError();
   status_.vrfSocketsTriedIs(vrf_);
}

void VrfSockets::doPublishError() {
   const std::string error = this->error();
   if (error.empty()) {
      status_.vrfSocketErrorDel(vrf_);
   } else if (status_.vrfSocketError(vrf_) != error) {
      TRACE(0, " ", family_.name, " sockets of VRF ", vrf_, " are not open: ", error);
      status_.vrfSocketErrorIs(vrf_, error);
   }
   if (onStateChange_)
      onStateChange_();
}

void VrfSockets::dscpIs(uint8_t dscp) {
   udpPam_->txTosIs(tosOf(dscp));
   doPublishError();
}

const EgressRouteCache::Answer* VrfSockets::egressRoute(const Platform::IpGenAddr& server) {
   if (!routeSocket_)
      return nullptr;
   return &egressRoutes_.egressRoute(*routeSocket_, kernelTable_->routeGeneration(), server);
}

std::string VrfSockets::error() const {
   if (!udpPam_->active())
      return "UDP socket: " + (udpPam_->error().empty() ? "closed" : udpPam_->error());
   if (rawTxPam_ && !rawTxPam_->active())
      return "raw socket: " + (rawTxPam_->error().empty() ? "closed" : rawTxPam_->error());
   if (!routeSocket_)
      return "route socket: " + routeSocketError_;
   return {};
}

void VrfSockets::onStateIs(std::function<void()> onChange) {
   onStateChange_ = std::move(onChange);
}

void VrfSockets::onReadableIs(std::function<void()> onReadable) {
   udpPamWatch_.on(&Platform::UdpPam::Reactor::handleReadableCount, onReadable);
   udpPamWatch_.onAttached(std::move(onReadable));
   udpPamWatch_.notifierIs(udpPam_);
}

VrfSockets::~VrfSockets() {
   udpPamWatch_.notifierIs(nullptr);
   rawTxPamWatch_.notifierIs(nullptr);
   udpPam_->modeIs(Platform::Pam::modeClosed);
   if (rawTxPam_)
      rawTxPam_->modeIs(Platform::Pam::modeClosed);
   deps_.intfStatus.namespaceFollowDel(nsName_.str());
   status_.vrfSocketErrorDel(vrf_);
   status_.vrfSocketsTriedDel(vrf_);
}

const KernelNetInfo::KernelIntf* VrfSockets::deviceOf(uint32_t ifindex) const {
   const auto& devices = kernelTable_->interfaceByIndex();
   auto it = devices.find(ifindex);
   return it == devices.end() ? nullptr : it->second.get();
}

Ptr<const KernelNetInfo::KernelIntf> VrfSockets::kernelDevice(const Platform::IntfId& intf) const {
   // The interface status keeps each interface's ifindex, so this is two map lookups, not a
   // walk over the namespace's devices.
   Ptr<Interface::IntfStatusLocal> local =
       deps_.intfStatus.intfStatusLocal()->intfStatusLocal(intf);
   if (!local || local->vrf() != vrf_)
      return nullptr;
   return kernelTable_->interfaceByIndex(local->ifindex());
}

}  // namespace Ip::Helper::DhcpRelay
