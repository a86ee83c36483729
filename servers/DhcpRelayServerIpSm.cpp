#include "servers/DhcpRelayServerIpSm.h"

#include "platform/trace/Trace.h"

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

class DhcpRelayServerIpSm::RecordDirReactor : public ResolutionRecordDir::Reactor {
 public:
   RecordDirReactor(DhcpRelayServerIpSm& sm, const Ptr<const ResolutionRecordDir>& dir) : sm_(sm) {
      notifierIs(dir);
   }
   void handleRecord(const std::string& hostname) override { sm_.handleNamelookRecord(hostname); }

 private:
   DhcpRelayServerIpSm& sm_;
};

class DhcpRelayServerIpSm::HostnameMapReactor : public HostnameToIntfNameMap::Reactor {
 public:
   HostnameMapReactor(DhcpRelayServerIpSm& sm, const Ptr<const HostnameToIntfNameMap>& map)
       : sm_(sm) {
      notifierIs(map);
   }
   void handleHostnameToIntfName(const std::string& hostname) override {
      sm_.handleNamelookRecord(hostname);
   }

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
   recordDirReactor_ = std::make_unique<RecordDirReactor>(*this, namelookRecord_);
   hostnameMapReactor_ = std::make_unique<HostnameMapReactor>(*this, hostnameToIntfNameMap_);
}

DhcpRelayServerIpSm::~DhcpRelayServerIpSm() {
   // Whoever still holds the directories may change them while the machines go; with the
   // reactors gone first no half-deleted machine is reached.
   hostnameMapReactor_.reset();
   recordDirReactor_.reset();
   configReactor_.reset();
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
