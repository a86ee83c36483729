#include "servers/DhcpVrfSelectSmv4.h"

#include "platform/trace/Trace.h"
#include "servers/ActiveVrfCount.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

class DhcpVrfSelectSmv4::IpStatusReactor : public Ip::Status::Reactor {
 public:
   IpStatusReactor(DhcpVrfSelectSmv4& sm, const Ptr<const Ip::Status>& status) : sm_(sm) {
      notifierIs(status);
   }
   void handleIpIntfStatus(const IntfId& intf) override { sm_.handleIpIntfStatus(intf); }

 private:
   DhcpVrfSelectSmv4& sm_;
};

class DhcpVrfSelectSmv4::IntfServerIpDirReactor : public IntfServerIpDir::Reactor {
 public:
   IntfServerIpDirReactor(DhcpVrfSelectSmv4& sm, const Ptr<const IntfServerIpDir>& dir) : sm_(sm) {
      notifierIs(dir);
   }
   void handleDrIntfServerIp(const IntfId& intf) override { sm_.handleIntfServerIp(intf); }

 private:
   DhcpVrfSelectSmv4& sm_;
};

// Follows one interface's server set and remembers which entries' VRFs it has counted: an
// entry is notified again whenever its reference count changes (a second source naming the
// same server), and that must not count its VRF again.
class DhcpVrfSelectSmv4::IntfServerIpReactor : public IntfServerIp::Reactor {
 public:
   IntfServerIpReactor(DhcpVrfSelectSmv4& sm, const Ptr<const IntfServerIp>& servers) : sm_(sm) {
      notifierIs(servers);
   }
   void handleServerIp(const VrfIpSrcIntfSrcIp& key) override { sm_.handleServerIp(*this, key); }

   std::set<VrfIpSrcIntfSrcIp> counted;

 private:
   DhcpVrfSelectSmv4& sm_;
};

DhcpVrfSelectSmv4::DhcpVrfSelectSmv4(const Ptr<const Ip::Status>& ipStatus,
                                     const Ptr<const IntfServerIpDir>& intfServerIpDir,
                                     const Ptr<VrfWithCountDir>& activeVrfDir)
    : DhcpVrfSelect(activeVrfDir), ipStatus_(ipStatus), intfServerIpDir_(intfServerIpDir) {
   ipStatusReactor_ = std::make_unique<IpStatusReactor>(*this, ipStatus_);
   intfServerIpDirReactor_ = std::make_unique<IntfServerIpDirReactor>(*this, intfServerIpDir_);
}

DhcpVrfSelectSmv4::~DhcpVrfSelectSmv4() = default;

void DhcpVrfSelectSmv4::handleInitialized() {
   if (initialized_)
      return;
   doInitialize();
   handleIpIntfStatus();
   handleIntfServerIp();
}

void DhcpVrfSelectSmv4::handleIpIntfStatus() {
   for (const auto& [intf, status] : ipStatus_->ipIntfStatus())
      handleIpIntfStatus(intf);
}

void DhcpVrfSelectSmv4::handleIpIntfStatus(const IntfId& intf) {
   if (!initialized_)
      return;
   const Ptr<IntfServerIp> servers = intfServerIpDir_->drIntfServerIp(intf);
   handleIpIntfStatusHelper(intf, ipStatus_->ipIntfStatus(intf),
                            servers && !servers->serverIp().empty(), __PRETTY_FUNCTION__);
}

void DhcpVrfSelectSmv4::handleIntfServerIp() {
   for (const auto& [intf, servers] : intfServerIpDir_->drIntfServerIp())
      handleIntfServerIp(intf);
}

void DhcpVrfSelectSmv4::handleIntfServerIp(const IntfId& intf) {
   if (!initialized_)
      return;
   TRACE(4, " for ", intf);
   const Ptr<const IntfServerIp> servers = intfServerIpDir_->drIntfServerIp(intf);
   auto it = intfServerIpReactor_.find(intf);
   if (it != intfServerIpReactor_.end() && it->second->notifier() != servers) {
      // The set was deleted with its entries, so no entry was notified: its counts go here.
      for (const VrfIpSrcIntfSrcIp& key : it->second->counted)
         activeVrfDec(*activeVrfDir(), key.vrf);
      intfsWithDhcpServerDel(intf);
      intfServerIpReactor_.erase(it);
   }
   if (!servers)
      return;
   auto& reactor = intfServerIpReactor_[intf];
   if (!reactor)
      reactor = std::make_unique<IntfServerIpReactor>(*this, servers);
   handleServerIp(*reactor);
}

void DhcpVrfSelectSmv4::handleServerIp(IntfServerIpReactor& reactor) {
   for (const auto& [key, count] : reactor.notifier()->serverIp())
      handleServerIp(reactor, key);
}

void DhcpVrfSelectSmv4::handleServerIp(IntfServerIpReactor& reactor, const VrfIpSrcIntfSrcIp& key) {
   if (!initialized_)
      return;
   const IntfServerIp& servers = *reactor.notifier();
   const IntfId& intf = servers.intfId();
   TRACE(4, " for serverIp ", key, " on interface ", intf);
   if (servers.serverIp(key) != 0) {
      if (reactor.counted.insert(key).second)
         activeVrfInc(*activeVrfDir(), key.vrf);
      if (const Ptr<Ip::IpIntfStatus> status = ipStatus_->ipIntfStatus(intf)) {
         currentVrfIs(intf, status->vrf());
         intfsWithDhcpServerIs(intf, status);
      }
      return;
   }
   if (reactor.counted.erase(key))
      activeVrfDec(*activeVrfDir(), key.vrf);
   if (servers.serverIp().empty())
      intfsWithDhcpServerDel(intf);
}

void DhcpVrfSelectSmv4::handleIntfsWithDhcpServer(const IntfId& intf) {
   handleIntfsWithDhcpServerHelper(intf, __PRETTY_FUNCTION__);
}

}  // namespace Ip::Helper::DhcpRelay
