#pragma once

#include <memory>
#include <optional>

#include "model/Config.h"
#include "model/Status.h"
#include "platform/addr/VrfName.h"
#include "relay/EgressRouteCache.h"
#include "relay/VrfSockets.h"
#include "relay4/DhcpPacketSink.h"

namespace Ip::Helper::DhcpRelay {

// Everything the DHCPv4 relay needs to take packets off and put packets on the wire in one
// VRF: the server-port UDP socket, a raw transmit socket and a route socket in the VRF's
// namespace (VrfSockets), and the IPv4 reading of what arrives: one datagram per readable
// notification, its arrival device turned into a system interface, counted and handed to
// the packet paths. Initialised on construction; handleDel, or the destructor, undoes it.
class DhcpVrfSm {
 public:
   static constexpr uint16_t kServerPort = 67;
   static const RelayFamily kFamily;

   DhcpVrfSm(const Platform::VrfName& vrfName, const Platform::NamespaceName& nsName,
             const Ptr<const Config>& config, const VrfSockets::Deps& deps, Status& status,
             DhcpPacketSink& sink);
   ~DhcpVrfSm();
   DhcpVrfSm(const DhcpVrfSm&) = delete;
   DhcpVrfSm& operator=(const DhcpVrfSm&) = delete;

   void handleInitialized();
   void handleDscp();
   void handleReadableCount();
   void handleDel();

   const Platform::VrfName& vrfName() const { return vrfName_; }
   const Platform::NamespaceName& nsName() const { return nsName_; }
   bool initialized() const { return sockets_.has_value(); }
   // The sockets; null (and empty) once handleDel ran.
   Platform::UdpPam* udpPam() const { return sockets_ ? sockets_->udpPam().get() : nullptr; }
   Platform::RawTxPam* rawTxPam() const { return sockets_ ? sockets_->rawTxPam().get() : nullptr; }
   Platform::RouteSocket* netlinkSocket() const {
      return sockets_ ? sockets_->routeSocket() : nullptr;
   }
   const VrfSockets* sockets() const { return sockets_ ? &*sockets_ : nullptr; }
   const Ptr<const Config>& dhcpRelayConfig() const { return dhcpRelayConfig_; }
   // How the kernel reaches `server` in this VRF (VrfSockets::egressRoute); null without
   // sockets or a route socket.
   const EgressRouteCache::Answer* egressRoute(Platform::IpAddr server) {
      return sockets_ ? sockets_->egressRoute(server) : nullptr;
   }

 private:
   void doClose();

   const Platform::VrfName vrfName_;
   const Platform::NamespaceName nsName_;
   Ptr<const Config> dhcpRelayConfig_;
   VrfSockets::Deps deps_;
   Status& status_;
   DhcpPacketSink& sink_;
   std::optional<VrfSockets> sockets_;
   Platform::Watch<const Config> configWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
