#include "servers/DhcpRelayServerIpSm.h"

#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

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
   configWatch_.on(&Config::Reactor::handleIntfConfig,
                   [this](const IntfId& intf) { handleIntfConfig(intf); });
   configWatch_.notifierIs(config_);
   records_.on(&ResolutionRecordDir::Reactor::handleRecord,
               [this](const std::string& hostname) { handleNamelookRecord(hostname); });
   records_.notifierIs(namelookRecord_);
   hostnames_.on(&HostnameToIntfNameMap::Reactor::handleHostnameToIntfName,
                 [this](const std::string& hostname) { handleNamelookRecord(hostname); });
   hostnames_.notifierIs(hostnameToIntfNameMap_);
}

DhcpRelayServerIpSm::~DhcpRelayServerIpSm() {
   // Whoever still holds the directories may change them while the machines go; with the
   // reactors gone first no half-deleted machine is reached.
   hostnames_.notifierIs(nullptr);
   records_.notifierIs(nullptr);
   configWatch_.notifierIs(nullptr);
   intfServerIpNamelookSm_.clear();
   intfConfigServerIpSm_.clear();
}

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
      if (auto it = intfConfigServerIpSm_.find(intf); it != intfConfigServerIpSm_.end()) {
         it->second->doLeave();
         intfConfigServerIpSm_.erase(it);
      }
      intfServerIpDir_->drIntfServerIpDel(intf);
   }
}

void DhcpRelayServerIpSm::handleNamelookRecord(const std::string& hostname) {
   if (!initialized_)
      return;
   TRACE(4, " for ", hostname);
   const Ptr<ResolutionRecord> record = namelookRecord_->record(hostname);
   if (record && hostnameToIntfNameMap_->hostnameToIntfName(hostname)) {
      TRACE(3, " Adding ", hostname, " serverIpNamelookSm");
      auto& sm = intfServerIpNamelookSm_[hostname];
      if (!sm || sm->record() != record)
         sm = std::make_unique<IntfServerIpNamelookSm>(config_, record, hostnameToIntfNameMap_,
                                                       intfServerIpDir_);
   } else {
      TRACE(3, " Removing ", hostname, " serverIpNamelookSm");
      intfServerIpNamelookSm_.erase(hostname);
   }
}

}  // namespace Ip::Helper::DhcpRelay
