#include "servers/DhcpRelayServerIpSm.h"

#include "platform/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

class DhcpRelayServerIpSm::ConfigReactor : public Config::Reactor {
 public:
   ConfigReactor(DhcpRelayServerIpSm& sm, const Ptr<const Config>& config) : sm_(sm) {
      notifierIs(config);
   }
   void handleIntfConfig(const IntfId& intf) override { sm_.handleIntfConfig(intf); }

 private:
   DhcpRelayServerIpSm& sm_;
};

DhcpRelayServerIpSm::DhcpRelayServerIpSm(const Ptr<const Config>& config,
                                         const Ptr<ResolutionRequestDir>& namelookRequest,
                                         const Ptr<const ResolutionRecordDir>& namelookRecord,
                                         const Ptr<IntfServerIpDir>& intfServerIpDir,
                                         const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap)
    : config_(config),
      namelookRequest_(namelookRequest),
      namelookRecord_(namelookRecord),
      intfServerIpDir_(intfServerIpDir),
      hostnameToIntfNameMap_(hostnameToIntfNameMap) {
   configReactor_ = std::make_unique<ConfigReactor>(*this, config_);
}

DhcpRelayServerIpSm::~DhcpRelayServerIpSm() = default;

void DhcpRelayServerIpSm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   handleIntfConfig();
}

void DhcpRelayServerIpSm::handleIntfConfig() {
   for (const auto& [intf, intfConfig] : config_->intfConfig())
      handleIntfConfig(intf);
}

void DhcpRelayServerIpSm::handleIntfConfig(const IntfId& intf) {
   if (!initialized_)
      return;
   TRACE(4, " for ", intf);
   if (const Ptr<IntfConfig> intfConfig = config_->intfConfig(intf)) {
      TRACE(3, " Adding IntfServerIp for ", intf);
      const Ptr<IntfServerIp> intfServerIp = intfServerIpDir_->drIntfServerIpIs(intf);
      auto& sm = intfConfigServerIpSm_[intf];
      if (sm)
         return;
      sm = std::make_unique<IntfConfigServerIpSm>(intfConfig, namelookRequest_, namelookRecord_,
                                                  intfServerIp, hostnameToIntfNameMap_);
      sm->handleInitialized();
   } else {
      TRACE(3, " Removing IntfServerIp for ", intf);
      intfConfigServerIpSm_.erase(intf);
      intfServerIpDir_->drIntfServerIpDel(intf);
   }
}

}  // namespace Ip::Helper::DhcpRelay
