#pragma once

#include <map>
#include <memory>

#include "model/Config.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "platform/IntfId.h"
#include "platform/Namelook.h"
#include "servers/IntfConfigServerIpSm.h"

namespace Ip::Helper::DhcpRelay {

// Keeps IntfServerIpDir in step with the relay configuration: every interface with an
// IntfConfig has an IntfServerIp and an IntfConfigServerIpSm counting its servers into it.
// An interface leaving the configuration takes its IntfServerIp with it at once, whatever
// its counts.
class DhcpRelayServerIpSm {
 public:
   DhcpRelayServerIpSm(const Ptr<const Config>& config,
                       const Ptr<ResolutionRequestDir>& namelookRequest,
                       const Ptr<const ResolutionRecordDir>& namelookRecord,
                       const Ptr<IntfServerIpDir>& intfServerIpDir,
                       const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap);
   ~DhcpRelayServerIpSm();
   DhcpRelayServerIpSm(const DhcpRelayServerIpSm&) = delete;
   DhcpRelayServerIpSm& operator=(const DhcpRelayServerIpSm&) = delete;

   // Until this runs configuration changes are ignored; it then replays the configuration.
   void handleInitialized();

   const std::map<Platform::IntfId, std::unique_ptr<IntfConfigServerIpSm>>& intfConfigServerIpSm()
       const {
      return intfConfigServerIpSm_;
   }
   bool initialized() const { return initialized_; }

 private:
   class ConfigReactor;

   void handleIntfConfig(const Platform::IntfId& intf);
   void handleIntfConfig();

   Ptr<const Config> config_;
   Ptr<ResolutionRequestDir> namelookRequest_;
   Ptr<const ResolutionRecordDir> namelookRecord_;
   Ptr<IntfServerIpDir> intfServerIpDir_;
   Ptr<HostnameToIntfNameMap> hostnameToIntfNameMap_;
   std::map<Platform::IntfId, std::unique_ptr<IntfConfigServerIpSm>> intfConfigServerIpSm_;
   bool initialized_ = false;
   std::unique_ptr<ConfigReactor> configReactor_;
};

}  // namespace Ip::Helper::DhcpRelay
