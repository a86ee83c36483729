#pragma once

#include <memory>

#include "model/Config.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "model/Namelook.h"

namespace Ip::Helper::DhcpRelay {

using Namelook::ResolutionRecord;
using Namelook::ResolutionRecordDir;
using Namelook::ResolutionRequestDir;

// Holds one reference in the interface's IntfServerIp for each server address configured on
// the interface, and for each host name entry one reference per address the name currently
// resolves to. A host name entry also holds one resolution request for the name and lists the
// interface in the host name map, so that later changes of the name's addresses reach it
// (IntfServerIpNamelookSm). Lives exactly as long as the interface's IntfConfig.
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
   // address once, then every host name.
   void handleInitialized();
   // The interface is leaving the configuration: gives back its resolution requests and its
   // places in the host name map. Its IntfServerIp goes whole right after, so its counts are
   // left as they are.
   void doLeave();

   const Ptr<const IntfConfig>& intfConfig() const { return intfConfig_; }
   const Ptr<IntfServerIp>& intfServerIp() const { return intfServerIp_; }
   const Ptr<ResolutionRequestDir>& namelookRequest() const { return namelookRequest_; }
   const Ptr<const ResolutionRecordDir>& namelookRecord() const { return namelookRecord_; }
   const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap() const {
      return hostnameToIntfNameMap_;
   }
   bool initialized() const { return initialized_; }

 private:
   void handleServerIpConfig(const VrfIpSrcIntfSrcIp& key);
   void handleServerIpConfig();
   void handleServerHostname(const VrfHostnameSrcIntfSrcIp& key);
   void handleServerHostname();
   // Whether another configured entry of the interface names the same host.
   bool namedByAnotherEntry(const VrfHostnameSrcIntfSrcIp& key) const;

   Ptr<const IntfConfig> intfConfig_;
   Ptr<ResolutionRequestDir> namelookRequest_;
   Ptr<const ResolutionRecordDir> namelookRecord_;
   Ptr<IntfServerIp> intfServerIp_;
   Ptr<HostnameToIntfNameMap> hostnameToIntfNameMap_;
   bool initialized_ = false;
   bool leaving_ = false;
   Platform::Watch<const IntfConfig> intfConfigWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
