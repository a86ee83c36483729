#pragma once

#include <map>

#include "model/Config.h"
#include "model/VrfWithCountDir.h"
#include "model/switch/Ip6Status.h"
#include "platform/addr/IntfId.h"
#include "servers/DhcpVrfSelect.h"

namespace Ip::Helper::DhcpRelay {

// Derives the VRFs the DHCPv6 relay needs sockets in (activeVrfDirv6) from the interfaces'
// serverIp6 configuration and their IPv6 status: the VRF of every configured server, and the
// VRF of every interface that has servers (to hear its clients). IPv6 servers are only ever
// addresses, so the configuration is read directly, with no derived server directory between.
class DhcpVrfSelectSmv6 : public DhcpVrfSelect<Ip6::IntfStatus> {
 public:
   DhcpVrfSelectSmv6(const Ptr<const Config>& dhcpRelayConfig,
                     const Ptr<const Ip6::Status>& ipStatus,
                     const Ptr<VrfWithCountDir>& activeVrfDir);
   ~DhcpVrfSelectSmv6() override;

   // Until this runs notifications are ignored; it then rebuilds the directory from the
   // IPv6 status and the configuration.
   void handleInitialized();

 private:
   // One interface's configuration, and which of its serverIp6 entries' VRFs it has counted.
   struct ServerSet {
      Platform::Watch<const IntfConfig> watch;
      CountedServers counted;
   };

   void handleIpIntfStatus(const Platform::IntfId& intf);
   void handleIpIntfStatus();
   void handleRelayConfig(const Platform::IntfId& intf);
   void handleRelayConfig();
   void handleServerIp6(ServerSet& set, const VrfIpSrcIntfSrcIp& key);
   void handleServerIp6(ServerSet& set);
   void handleIntfsWithDhcpServer(const Platform::IntfId& intf) override;

   Ptr<const Config> dhcpRelayConfig_;
   Ptr<const Ip6::Status> ipStatus_;
   Platform::Watch<const Ip6::Status> ipStatusWatch_;
   Platform::Watch<const Config> configWatch_;
   std::map<Platform::IntfId, ServerSet> serverSets_;
};

}  // namespace Ip::Helper::DhcpRelay
