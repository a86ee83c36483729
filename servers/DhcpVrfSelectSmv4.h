#pragma once

#include <map>
#include <memory>
#include <set>

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
   class IpStatusReactor;
   class IntfServerIpDirReactor;
   class IntfServerIpReactor;

   void handleIpIntfStatus(const Platform::IntfId& intf);
   void handleIpIntfStatus();
   void handleIntfServerIp(const Platform::IntfId& intf);
   void handleIntfServerIp();
   void handleServerIp(IntfServerIpReactor& reactor, const VrfIpSrcIntfSrcIp& key);
   void handleServerIp(IntfServerIpReactor& reactor);
   void handleIntfsWithDhcpServer(const Platform::IntfId& intf) override;

   Ptr<const Ip::Status> ipStatus_;
   Ptr<const IntfServerIpDir> intfServerIpDir_;
   std::unique_ptr<IpStatusReactor> ipStatusReactor_;
   std::unique_ptr<IntfServerIpDirReactor> intfServerIpDirReactor_;
   std::map<Platform::IntfId, std::unique_ptr<IntfServerIpReactor>> intfServerIpReactor_;
};

}  // namespace Ip::Helper::DhcpRelay
