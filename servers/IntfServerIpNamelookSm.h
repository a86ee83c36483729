#pragma once

#include <memory>

#include "model/Config.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "model/Namelook.h"
#include "platform/addr/IpAddr.h"

namespace Ip::Helper::DhcpRelay {

// Follows the addresses of one resolved host name and gives every interface whose
// configuration names it one reference per naming entry (VRF, source interface, source address)
// for each address the name gains, and takes it back when the name loses the address.
//
// It replays nothing when created: an interface that names the host takes its references for
// the addresses already resolved itself, and a new record starts empty.
class IntfServerIpNamelookSm {
 public:
   IntfServerIpNamelookSm(const Ptr<const Config>& config,
                          const Ptr<const Namelook::ResolutionRecord>& record,
                          const Ptr<const HostnameToIntfNameMap>& hostnameToIntfNameMap,
                          const Ptr<IntfServerIpDir>& intfServerIpDir);
   ~IntfServerIpNamelookSm();
   IntfServerIpNamelookSm(const IntfServerIpNamelookSm&) = delete;
   IntfServerIpNamelookSm& operator=(const IntfServerIpNamelookSm&) = delete;

   const Ptr<const Namelook::ResolutionRecord>& record() const { return record_; }

 private:
   void handleRecordUpdate(Platform::IpAddr ip);

   Ptr<const Config> config_;
   Ptr<const Namelook::ResolutionRecord> record_;
   Ptr<const HostnameToIntfNameMap> hostnameToIntfNameMap_;
   Ptr<IntfServerIpDir> intfServerIpDir_;
   Platform::Watch<const Namelook::ResolutionRecord> recordWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
