#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "model/Status.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/KernelNetInfo.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/VrfName.h"
#include "platform/linux/RouteSocket.h"
#include "platform/pam/RawTxPam.h"
#include "platform/pam/UdpPam.h"
#include "platform/store/StateStore.h"
#include "relay/DhcpPamFactory.h"
#include "relay/EgressRouteCache.h"
#include "relay/OwnAddresses.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// What differs between the families' sockets.
struct RelayFamily {
   std::string_view name;  // in socket names: "UdpSocket-<vrf>"
   uint16_t serverPort;    // 67 or 547: the port clients, relays and servers all send to
   bool ipv6;
   bool rawTx;           // replies that must leave as whole frames (clients without address)
   size_t maxRxPayload;  // 0: the socket's default
};

// One VRF's sockets for one relay family, all inside the VRF's network namespace: the UDP
// socket on the server port, a raw transmit socket when the family needs one, a route
// socket, and what turns an arrival ifindex into a system interface (the namespace's kernel
// table and the interface status, which the kernel front end is asked to follow while the
// sockets exist). Everything is opened by the constructor and closed by the destructor.
//
// The family's Status hears of the sockets as long as they exist: they count as tried
// (vrfSocketsTried) from the constructor on, and why one is not open is kept in
// vrfSocketError, so an operator sees a VRF that cannot relay, not only a trace of it.
class VrfSockets {
 public:
   struct Deps {
      DhcpPamFactory& pams;
      Platform::StateStore& store;
      Interface::IntfStatusSource& intfStatus;
      Ptr<const Interface::DeviceNameConfig> deviceNames;
   };
   VrfSockets(const RelayFamily& family, const Platform::VrfName& vrf,
              const Platform::NamespaceName& nsName, const Deps& deps, uint8_t dscp,
              Status& status);
   ~VrfSockets();
   VrfSockets(const VrfSockets&) = delete;
   VrfSockets& operator=(const VrfSockets&) = delete;

   const Ptr<Platform::UdpPam>& udpPam() const { return udpPam_; }
   // Null unless the family sends whole frames.
   const Ptr<Platform::RawTxPam>& rawTxPam() const { return rawTxPam_; }
   // Null when the namespace's route socket could not be opened (traced).
   Platform::RouteSocket* routeSocket() const { return routeSocket_.get(); }
   const Ptr<const KernelNetInfo::Status>& kernelTable() const { return kernelTable_; }
   // Whether the address belongs to any device of the namespace.
   bool ownAddress(const Platform::IpGenAddr& addr) const { return ownAddresses_.contains(addr); }

   // The kernel device an arrival ifindex names; null when the namespace has none.
   const KernelNetInfo::KernelIntf* deviceOf(uint32_t ifindex) const;
   // The system interface of a device name; empty for a device that is none.
   Platform::IntfId intfOf(const std::string& deviceName) const {
      return deps_.deviceNames->intfIdOf(deviceName);
   }
   // The kernel device of a system interface in this VRF; null when it has none here.
   Ptr<const KernelNetInfo::KernelIntf> kernelDevice(const Platform::IntfId& intf) const;

   // The DSCP of every send (the upper six bits of the TOS byte or traffic class).
   void dscpIs(uint8_t dscp);
   // How the kernel reaches `server` in this namespace, asked again only once its routes,
   // rules, devices or addresses changed; null without a route socket.
   const EgressRouteCache::Answer* egressRoute(const Platform::IpGenAddr& server);
   // Runs `onReadable` for every readable notification of the UDP socket from now on, and
   // once at once (a datagram may have arrived already).
   void onReadableIs(std::function<void()> onReadable);
   // Why a socket of the VRF is not open (the first one that is not), empty while all are;
   // `onChange` runs (after the status is brought up to date) whenever one opens or closes.
   std::string error() const;
   void onStateIs(std::function<void()> onChange);

 private:
   void doPublishError();

   const RelayFamily& family_;
   const Platform::VrfName vrf_;
   const Platform::NamespaceName nsName_;
   Deps deps_;
   Status& status_;
   // Before the sockets: a datagram may arrive while they open.
   EgressRouteCache egressRoutes_;
   std::function<void()> onStateChange_;
   Ptr<const KernelNetInfo::Status> kernelTable_;
   OwnAddresses ownAddresses_;
   Ptr<Platform::UdpPam> udpPam_;
   Ptr<Platform::RawTxPam> rawTxPam_;
   std::unique_ptr<Platform::RouteSocket> routeSocket_;
   std::string routeSocketError_;
   Platform::Watch<Platform::UdpPam> udpPamWatch_;
   Platform::Watch<Platform::RawTxPam> rawTxPamWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
