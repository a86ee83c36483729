#pragma once

#include <memory>
#include <string>

#include "model/Config.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/KernelNetInfo.h"
#include "platform/addr/VrfName.h"
#include "platform/linux/RouteSocket.h"
#include "platform/pam/RawTxPam.h"
#include "platform/pam/UdpPam.h"
#include "platform/store/StateStore.h"
#include "relay4/DhcpPamFactory.h"
#include "relay4/EgressRouteCache.h"

namespace Ip::Helper::DhcpRelay {

class DhcpRelaySm;

// Everything the DHCPv4 relay needs to take packets off and put packets on the wire in one
// VRF: the server-port UDP socket, a raw transmit socket and a netlink route socket, all in
// the VRF's namespace, and the namespace's kernel table that turns the arrival ifindex of
// a datagram into a switch interface. Every received datagram goes to
// DhcpRelaySm::doProcessPacket. Initialised on construction; handleDel undoes it.
class DhcpVrfSm {
 public:
   static constexpr uint16_t kServerPort = 67;

   DhcpVrfSm(const Platform::VrfName& vrfName, const Platform::NamespaceName& nsName,
             const Ptr<const Config>& config,
             const Ptr<const Interface::DeviceNameConfig>& deviceIntfStatusDir,
             Interface::IntfStatusSource& netNsIntfStatusManagerRoot,
             Platform::StateStore& entityManager, DhcpPamFactory& pamFactory,
             DhcpRelaySm& dhcpRelaySm);
   ~DhcpVrfSm();
   DhcpVrfSm(const DhcpVrfSm&) = delete;
   DhcpVrfSm& operator=(const DhcpVrfSm&) = delete;

   void handleInitialized();
   void handleDscp();
   void handleReadableCount();
   void handleDel();

   const Platform::VrfName& vrfName() const { return vrfName_; }
   const Platform::NamespaceName& nsName() const { return nsName_; }
   bool initialized() const { return initialized_; }
   const Ptr<Platform::UdpPam>& udpPam() const { return udpPam_; }
   const Ptr<Platform::RawTxPam>& rawTxPam() const { return rawTxPam_; }
   const Ptr<const Config>& dhcpRelayConfig() const { return dhcpRelayConfig_; }
   // The namespace's route socket; null when it could not be opened (traced).
   Platform::RouteSocket* netlinkSocket() const { return netlinkSocket_.get(); }
   // How the kernel reaches `server` in this VRF, asked again only once the namespace's
   // routes, rules, devices or addresses changed; null without a route socket.
   const EgressRouteCache::Answer* egressRoute(Platform::IpAddr server);
   // The namespace's kernel devices by ifindex.
   const Ptr<const KernelNetInfo::Status>& kernelTable() const { return kniRoot_; }

 private:
   class ConfigReactor;
   class UdpPamReactor;
   class RawTxPamReactor;

   const Platform::VrfName vrfName_;
   const Platform::NamespaceName nsName_;
   Ptr<const Config> dhcpRelayConfig_;
   Ptr<const Interface::DeviceNameConfig> deviceIntfStatusDir_;
   Interface::IntfStatusSource& netNsIntfStatusManagerRoot_;
   Platform::StateStore& entityManager_;
   DhcpPamFactory& pamFactory_;
   DhcpRelaySm& dhcpRelaySm_;

   Ptr<const KernelNetInfo::Status> kniRoot_;
   Ptr<Platform::UdpPam> udpPam_;
   Ptr<Platform::RawTxPam> rawTxPam_;
   std::unique_ptr<Platform::RouteSocket> netlinkSocket_;
   EgressRouteCache egressRoutes_;
   std::unique_ptr<ConfigReactor> configReactor_;
   std::unique_ptr<UdpPamReactor> udpPamReactor_;
   std::unique_ptr<RawTxPamReactor> rawTxPamReactor_;
   bool initialized_ = false;
};

}  // namespace Ip::Helper::DhcpRelay
