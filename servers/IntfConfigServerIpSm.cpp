#include "servers/IntfConfigServerIpSm.h"

#include "platform/Assert.h"
#include "platform/Trace.h"
#include "servers/IntfServerIpCount.h"

namespace Ip::Helper::DhcpRelay {

class IntfConfigServerIpSm::IntfConfigReactor : public IntfConfig::Reactor {
 public:
   IntfConfigReactor(IntfConfigServerIpSm& sm, const Ptr<const IntfConfig>& intfConfig) : sm_(sm) {
      notifierIs(intfConfig);
   }
   void handleServerIp(const VrfIpSrcIntfSrcIp& key) override { sm_.handleServerIpConfig(key); }

 private:
   IntfConfigServerIpSm& sm_;
};

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
   intfConfigReactor_ = std::make_unique<IntfConfigReactor>(*this, intfConfig_);
}

IntfConfigServerIpSm::~IntfConfigServerIpSm() = default;

void IntfConfigServerIpSm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   handleServerIpConfig();
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

}  // namespace Ip::Helper::DhcpRelay
