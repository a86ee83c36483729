#pragma once

#include <map>
#include <memory>
#include <string>

#include "model/Config.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "model/Namelook.h"
#include "platform/addr/IntfId.h"
#include "servers/IntfConfigServerIpSm.h"
#include "servers/IntfServerIpNamelookSm.h"

namespace Ip::Helper::DhcpRelay {

// Keeps IntfServerIpDir in step with the relay configuration: every interface with an
// IntfConfig has an IntfServerIp and an IntfConfigServerIpSm counting its servers into it.
// An interface leaving the configuration takes its IntfServerIp with it at once, whatever
// its counts, and gives back its host names' resolution requests. Every host name that some
// interface names and that has a resolution record has an IntfServerIpNamelookSm carrying the
// record's address changes to those interfaces.
//
// Destroying it changes no record: the reactors go first, so nothing it owns is notified
// while the machines are deleted.
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
   const std::map<std::string, std::unique_ptr<IntfServerIpNamelookSm>>& intfServerIpNamelookSm()
       const {
      return intfServerIpNamelookSm_;
   }
   bool initialized() const { return initialized_; }

 private:
   void handleIntfConfig(const Platform::IntfId& intf);
   void handleIntfConfig();
   void handleNamelookRecord(const std::string& hostname);

   Ptr<const Config> config_;
   Ptr<ResolutionRequestDir> namelookRequest_;
   Ptr<const ResolutionRecordDir> namelookRecord_;
   Ptr<IntfServerIpDir> intfServerIpDir_;
   Ptr<HostnameToIntfNameMap> hostnameToIntfNameMap_;
   std::map<Platform::IntfId, std::unique_ptr<IntfConfigServerIpSm>> intfConfigServerIpSm_;
   std::map<std::string, std::unique_ptr<IntfServerIpNamelookSm>> intfServerIpNamelookSm_;
   bool initialized_ = false;
   Platform::Watch<const Config> configWatch_;
   Platform::Watch<const ResolutionRecordDir> records_;
   Platform::Watch<const HostnameToIntfNameMap> hostnames_;
};

}  // namespace Ip::Helper::DhcpRelay
