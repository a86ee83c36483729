#include "servers/IntfConfigServerIpSm.h"

#include <string>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"
#include "servers/IntfServerIpCount.h"

namespace Ip::Helper::DhcpRelay {

IntfConfigServerIpSm::IntfConfigServerIpSm(const Ptr<const IntfConfig>& intfConfig,
                                           const Ptr<ResolutionRequestDir>& namelookRequest,
                                           const Ptr<const ResolutionRecordDir>& namelookRecord,
                                           const Ptr<IntfServerIp>& intfServerIp,
                                           const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap)
    : intfConfig_(intfConfig),
      namelookRequest_(namelookRequest),
      namelookRecord_(namelookRecord),
      intfServerIp_(intfServerIp),
      hostnameToIntfNameMap_(hostnameToIntfNameMap) {
   PLATFORM_ASSERT(intfServerIp_, "intfServerIp()");
   intfConfigWatch_.on(&IntfConfig::Reactor::handleServerIp,
                       [this](const VrfIpSrcIntfSrcIp& key) { handleServerIpConfig(key); });
   intfConfigWatch_.on(&IntfConfig::Reactor::handleServerHostname,
                       [this](const VrfHostnameSrcIntfSrcIp& key) { handleServerHostname(key); });
   intfConfigWatch_.notifierIs(intfConfig_);
}

IntfConfigServerIpSm::~IntfConfigServerIpSm() = default;

void IntfConfigServerIpSm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   handleServerIpConfig();
   handleServerHostname();
}

void IntfConfigServerIpSm::doLeave() {
   if (!initialized_ || leaving_)
      return;
   leaving_ = true;
   // Entries set to false hold nothing any more.
   for (const auto& [key, configured] : intfConfig_->serverHostname())
      if (configured)
         handleServerHostname(key);
}

bool IntfConfigServerIpSm::namedByAnotherEntry(const VrfHostnameSrcIntfSrcIp& key) const {
   if (leaving_)
      return false;
   for (const auto& [other, configured] : intfConfig_->serverHostname()) {
      if (configured && other.hostname == key.hostname && !(other == key))
         return true;
   }
   return false;
}

void IntfConfigServerIpSm::handleServerIpConfig() {
   for (const auto& [key, enabled] : intfConfig_->serverIp())
      handleServerIpConfig(key);
}

void IntfConfigServerIpSm::handleServerIpConfig(const VrfIpSrcIntfSrcIp& key) {
   if (!initialized_)
      return;
   TRACE(4, " for ", key);
   // An entry set to false counts as removed; the front end deletes entries rather than
   // writing false, so each removal matches the increment of its addition.
   if (intfConfig_->serverIp(key))
      intfServerIpInc(intfServerIp_, key);
   else
      intfServerIpDec(intfServerIp_, key);
}

void IntfConfigServerIpSm::handleServerHostname() {
   for (const auto& [key, configured] : intfConfig_->serverHostname())
      handleServerHostname(key);
}

void IntfConfigServerIpSm::handleServerHostname(const VrfHostnameSrcIntfSrcIp& key) {
   if (!initialized_)
      return;
   const std::string& hostname = key.hostname;
   // The addresses are read before the request changes: the resolver may answer a new request,
   // or drop a record whose last request went, while it is notified. Addresses it delivers from
   // here on reach this interface through IntfServerIpNamelookSm, since the interface is listed
   // in the host name map first.
   const Ptr<const ResolutionRecord> record = namelookRecord_->record(hostname);
   std::vector<Platform::IpAddr> resolved;
   if (record)
      resolved.assign(record->ipAddress().begin(), record->ipAddress().end());

   const bool configured = !leaving_ && intfConfig_->serverHostname(key);
   if (configured) {
      TRACE(3, " adding ", key);
      hostnameToIntfNameMap_->hostnameToIntfNameIs(hostname)->intfIdCollIs(intfConfig_->intfId());
      const uint32_t count = namelookRequest_->request(hostname) + 1;
      namelookRequest_->requestIs(hostname, count);
      TRACE(3, "Adding ", hostname, " to Namelook: Reference count = ", count);
   } else {
      TRACE(3, " removing ", key);
      const Ptr<HostnameToIntfName> hostnameIntfColl =
          hostnameToIntfNameMap_->hostnameToIntfName(hostname);
      PLATFORM_ASSERT(hostnameIntfColl, "hostnameIntfColl");
      // Entries that differ in VRF or source may name one host: the interface stays in the
      // name's index while any of them is still configured.
      if (!namedByAnotherEntry(key))
         hostnameIntfColl->intfIdCollDel(intfConfig_->intfId());
      if (hostnameIntfColl->intfIdColl().empty()) {
         TRACE(3, " removing hostnameIntfColl");
         hostnameToIntfNameMap_->hostnameToIntfNameDel(hostname);
      }
      // A name without a request reads 0, so the unsigned subtraction gives 4294967295.
      const uint32_t count = namelookRequest_->request(hostname) - 1;
      if (count != 0) {
         namelookRequest_->requestIs(hostname, count);
         TRACE(3, hostname, ": Reference count = ", count);
      } else {
         namelookRequest_->requestDel(hostname);
         TRACE(3, "Removing ", hostname, " from Namelook.");
      }
   }

   // A leaving interface's IntfServerIp is deleted whole, not counted down.
   if (!record || leaving_)
      return;
   TRACE(3, " record exists for ", hostname);
   for (const Platform::IpAddr ip : resolved)
      hostnameServerRef(intfServerIp_, key, ip, configured);
}

}  // namespace Ip::Helper::DhcpRelay
