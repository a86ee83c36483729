#include "servers/IntfServerIpNamelookSm.h"

#include "platform/trace/Trace.h"
#include "servers/IntfServerIpCount.h"

namespace Ip::Helper::DhcpRelay {

using Namelook::ResolutionRecord;
using Platform::IntfId;
using Platform::IpAddr;

IntfServerIpNamelookSm::IntfServerIpNamelookSm(
    const Ptr<const Config>& config, const Ptr<const ResolutionRecord>& record,
    const Ptr<const HostnameToIntfNameMap>& hostnameToIntfNameMap,
    const Ptr<IntfServerIpDir>& intfServerIpDir)
    : config_(config),
      record_(record),
      hostnameToIntfNameMap_(hostnameToIntfNameMap),
      intfServerIpDir_(intfServerIpDir) {
   recordWatch_.on(&ResolutionRecord::Reactor::handleIpAddress,
                   [this](IpAddr ip) { handleRecordUpdate(ip); });
   recordWatch_.notifierIs(record_);
}

IntfServerIpNamelookSm::~IntfServerIpNamelookSm() = default;

void IntfServerIpNamelookSm::handleRecordUpdate(IpAddr ip) {
   TRACE(4, " for ", ip);
   const std::string& hostname = record_->hostname();
   const Ptr<HostnameToIntfName> intfs = hostnameToIntfNameMap_->hostnameToIntfName(hostname);
   if (!intfs)
      return;
   const bool resolved = record_->ipAddress().contains(ip);
   for (const IntfId& intf : intfs->intfIdColl()) {
      const Ptr<IntfConfig> intfConfig = config_->intfConfig(intf);
      if (!intfConfig) {
         TRACE(3, "No intf config for", intf);
         continue;
      }
      const Ptr<IntfServerIp> intfServerIp = intfServerIpDir_->drIntfServerIpIs(intf);
      for (const auto& [key, configured] : intfConfig->serverHostname()) {
         // An entry set to false gave its references back when it changed, so the
         // record's changes no longer concern it.
         if (key.hostname != hostname || !configured)
            continue;
         TRACE(3, hostname, " with ip ", ip, " configured in vrf ", key.vrf);
         hostnameServerRef(intfServerIp, key, ip, resolved);
      }
   }
}

}  // namespace Ip::Helper::DhcpRelay
