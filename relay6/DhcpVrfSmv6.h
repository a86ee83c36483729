#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "model/Config.h"
#include "model/Status.h"
#include "model/switch/IntfStatusDir.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/VrfName.h"
#include "platform/loop/TimerWheel.h"
#include "relay/EgressRouteCache.h"
#include "relay/VrfSockets.h"
#include "relay6/Dhcp6PacketSink.h"
#include "relay6/DhcpPacketSmv6.h"
#include "relay6/DuidMacBindings.h"

namespace Ip::Helper::DhcpRelay {

// The DHCPv6 relay's sockets in one VRF: the UDP socket on port 547 in the VRF's namespace
// (VrfSockets), through which client messages, Relay-Forw from downstream relays and
// Relay-Repl from servers arrive and all DHCPv6 relay traffic of the VRF leaves; and the
// relay multicast group (All_DHCP_Relay_Agents_and_Servers) joined on every relaying
// interface of the VRF, joined again when the interface's device comes back with a new
// index or the socket is reopened. With the client link-layer address option on, it also
// captures the client frames of every relaying interface's device (one DhcpPacketSmv6
// each, made again when the device comes back with a new index) for the DUID-to-MAC
// bindings. Initialised on construction; handleDel, or the destructor, undoes it.
class DhcpVrfSmv6 {
 public:
   static constexpr uint16_t kServerPort = 547;
   static constexpr uint16_t kClientPort = 546;
   // The largest DHCPv6 payload received; a longer datagram is dropped whole (tooLong).
   static constexpr size_t kMaxRxPayload = 1200;
   static const RelayFamily kFamily;
   static const Platform::Ip6Addr kAllRelayAgentsAndServers;  // ff02::1:2

   DhcpVrfSmv6(const Platform::VrfName& vrfName, const Platform::NamespaceName& nsName,
               const Ptr<const Config>& config, const VrfSockets::Deps& deps, Status& status,
               Dhcp6PacketSink& sink, Platform::TimerWheel& wheel);
   ~DhcpVrfSmv6();
   DhcpVrfSmv6(const DhcpVrfSmv6&) = delete;
   DhcpVrfSmv6& operator=(const DhcpVrfSmv6&) = delete;

   void handleInitialized();
   void handleDscpV6();
   void handleReadableCount();
   void handleDel();
   // An interface entered (true) or left the VRF's relaying interfaces.
   void handleIntfsInVrf(const Platform::IntfId& intf, bool member);
   void handleClientLinkLayerAddrOptOn();

   const Platform::VrfName& vrfName() const { return vrfName_; }
   bool initialized() const { return sockets_.has_value(); }
   Platform::UdpPam* udpPam() const { return sockets_ ? sockets_->udpPam().get() : nullptr; }
   const VrfSockets* sockets() const { return sockets_ ? &*sockets_ : nullptr; }
   // How the kernel reaches `server` in this VRF (VrfSockets::egressRoute).
   const EgressRouteCache::Answer* egressRoute(const Platform::Ip6Addr& server) {
      return sockets_ ? sockets_->egressRoute(server) : nullptr;
   }
   DuidMacBindings& duidMacBindings() { return duidMacBindings_; }
   const DuidMacBindings& duidMacBindings() const { return duidMacBindings_; }
   // The interfaces whose frames are captured, each with "open" or why its capture is not.
   std::map<Platform::IntfId, std::string> captureStates() const;

 private:
   struct Member {
      uint32_t joined = 0;  // ifindex the group is joined on
      Platform::Watch<const Interface::IntfStatusLocal> local;
      std::unique_ptr<DhcpPacketSmv6> packetSm;  // the device's capture, for option 79
   };

   void doClose();
   void doSyncMcast(const Platform::IntfId& intf, Member& member);
   void doSyncMcastAll();
   void doLeave(const Platform::IntfId& intf, Member& member);
   void handleIntfStatusLocal(const Platform::IntfId& intf);
   void handleDevicePam(const Platform::IntfId& intf, Member& member);

   const Platform::VrfName vrfName_;
   const Platform::NamespaceName nsName_;
   Ptr<const Config> dhcpRelayConfig_;
   VrfSockets::Deps deps_;
   Status& status_;
   Dhcp6PacketSink& sink_;
   uint64_t truncatedSeen_ = 0;
   std::optional<VrfSockets> sockets_;
   DuidMacBindings duidMacBindings_;
   std::map<Platform::IntfId, Member> members_;
   Platform::Watch<const Config> configWatch_;
   Platform::Watch<const Interface::AllIntfStatusLocalDir> localDirWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
