#include "servers/DhcpVrfSelectSmv4.h"

#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

DhcpVrfSelectSmv4::DhcpVrfSelectSmv4(const Ptr<const Ip::Status>& ipStatus,
                                     const Ptr<const IntfServerIpDir>& intfServerIpDir,
                                     const Ptr<VrfWithCountDir>& activeVrfDir)
    : DhcpVrfSelect(activeVrfDir), ipStatus_(ipStatus), intfServerIpDir_(intfServerIpDir) {
   ipStatusWatch_.on(&Ip::Status::Reactor::handleIpIntfStatus,
                     [this](const IntfId& intf) { handleIpIntfStatus(intf); });
   ipStatusWatch_.notifierIs(ipStatus_);
   serverDirWatch_.on(&IntfServerIpDir::Reactor::handleDrIntfServerIp,
                      [this](const IntfId& intf) { handleIntfServerIp(intf); });
   serverDirWatch_.notifierIs(intfServerIpDir_);
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
   auto it = serverSets_.find(intf);
   if (it != serverSets_.end() && it->second.watch.notifier() != servers) {
      // The set was deleted with its entries, so no entry was notified.
      doUncountServers(intf, it->second.counted);
      serverSets_.erase(it);
   }
   if (!servers)
      return;
   auto [set, added] = serverSets_.try_emplace(intf);
   ServerSet& reactor = set->second;
   if (added) {
      reactor.watch.on(
          &IntfServerIp::Reactor::handleServerIp,
          [this, &reactor](const VrfIpSrcIntfSrcIp& key) { handleServerIp(reactor, key); });
      reactor.watch.notifierIs(servers);
   }
   handleServerIp(reactor);
}

void DhcpVrfSelectSmv4::handleServerIp(ServerSet& reactor) {
   for (const auto& [key, count] : reactor.watch.notifier()->serverIp())
      handleServerIp(reactor, key);
}

void DhcpVrfSelectSmv4::handleServerIp(ServerSet& reactor, const VrfIpSrcIntfSrcIp& key) {
   if (!initialized_)
      return;
   const IntfServerIp& servers = *reactor.watch.notifier();
   const IntfId& intf = servers.intfId();
   TRACE(4, " for serverIp ", key, " on interface ", intf);
   const bool present = servers.serverIp(key) != 0;
   doCountServer(intf, reactor.counted, key, present, ipStatus_->ipIntfStatus(intf));
   if (!present && servers.serverIp().empty())
      intfsWithDhcpServerDel(intf);
}

void DhcpVrfSelectSmv4::handleIntfsWithDhcpServer(const IntfId& intf) {
   handleIntfsWithDhcpServerHelper(intf, __PRETTY_FUNCTION__);
}

}  // namespace Ip::Helper::DhcpRelay
