#pragma once

#include <memory>

#include "model/Config.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "platform/Namelook.h"

namespace Ip::Helper::DhcpRelay {

using Platform::ResolutionRecord;
using Platform::ResolutionRecordDir;
using Platform::ResolutionRequestDir;

// Holds one reference in the interface's IntfServerIp for each server address configured on
// the interface. Lives exactly as long as the interface's IntfConfig. Servers configured by
// host name reach the same IntfServerIp through the resolution directories and the host name
// map, which the machine carries for that purpose.
class IntfConfigServerIpSm {
 public:
   IntfConfigServerIpSm(const Ptr<const IntfConfig>& intfConfig,
                        const Ptr<ResolutionRequestDir>& namelookRequest,
                        const Ptr<const ResolutionRecordDir>& namelookRecord,
                        const Ptr<IntfServerIp>& intfServerIp,
                        const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap);
   ~IntfConfigServerIpSm();
   IntfConfigServerIpSm(const IntfConfigServerIpSm&) = delete;
   IntfConfigServerIpSm& operator=(const IntfConfigServerIpSm&) = delete;

   // Until this runs configuration changes are ignored; it then counts every configured
   // address once.
   void handleInitialized();

   const Ptr<const IntfConfig>& intfConfig() const { return intfConfig_; }
   const Ptr<IntfServerIp>& intfServerIp() const { return intfServerIp_; }
   const Ptr<ResolutionRequestDir>& namelookRequest() const { return namelookRequest_; }
   const Ptr<const ResolutionRecordDir>& namelookRecord() const { return namelookRecord_; }
   const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap() const {
      return hostnameToIntfNameMap_;
   }
   bool initialized() const { return initialized_; }

 private:
   class IntfConfigReactor;

   void handleServerIpConfig(const VrfIpSrcIntfSrcIp& key);
   void handleServerIpConfig();

   Ptr<const IntfConfig> intfConfig_;
   Ptr<ResolutionRequestDir> namelookRequest_;
   Ptr<const ResolutionRecordDir> namelookRecord_;
   Ptr<IntfServerIp> intfServerIp_;
   Ptr<HostnameToIntfNameMap> hostnameToIntfNameMap_;
   bool initialized_ = false;
   std::unique_ptr<IntfConfigReactor> intfConfigReactor_;
};

}  // namespace Ip::Helper::DhcpRelay
