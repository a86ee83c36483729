#pragma once

#include <map>
#include <memory>

#include "model/IntfServerIpDir.h"
#include "model/VrfWithCountDir.h"
#include "model/switch/IpStatus.h"
#include "platform/addr/IntfId.h"
#include "servers/DhcpVrfSelect.h"

namespace Ip::Helper::DhcpRelay {

// Derives the VRFs the DHCPv4 relay needs sockets in (activeVrfDirv4) from the server
// directory and the interfaces' IP status: the VRF of every server entry, and the VRF of every
// interface that has servers (to hear its clients). A VRF's count is the number of such
// entries and interfaces; "default" is always listed.
class DhcpVrfSelectSmv4 : public DhcpVrfSelect<Ip::IpIntfStatus> {
 public:
   DhcpVrfSelectSmv4(const Ptr<const Ip::Status>& ipStatus,
                     const Ptr<const IntfServerIpDir>& intfServerIpDir,
                     const Ptr<VrfWithCountDir>& activeVrfDir);
   ~DhcpVrfSelectSmv4() override;

   // Until this runs notifications are ignored; it then rebuilds the directory from the IP
   // status and the server sets.
   void handleInitialized();

 private:
   // One interface's server set, and which entries' VRFs it has counted.
   struct ServerSet {
      Platform::Watch<const IntfServerIp> watch;
      CountedServers counted;
   };

   void handleIpIntfStatus(const Platform::IntfId& intf);
   void handleIpIntfStatus();
   void handleIntfServerIp(const Platform::IntfId& intf);
   void handleIntfServerIp();
   void handleServerIp(ServerSet& set, const VrfIpSrcIntfSrcIp& key);
   void handleServerIp(ServerSet& set);
   void handleIntfsWithDhcpServer(const Platform::IntfId& intf) override;

   Ptr<const Ip::Status> ipStatus_;
   Ptr<const IntfServerIpDir> intfServerIpDir_;
   Platform::Watch<const Ip::Status> ipStatusWatch_;
   Platform::Watch<const IntfServerIpDir> serverDirWatch_;
   std::map<Platform::IntfId, ServerSet> serverSets_;
};

}  // namespace Ip::Helper::DhcpRelay
