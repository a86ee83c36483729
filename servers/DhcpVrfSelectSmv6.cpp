#include "servers/DhcpVrfSelectSmv6.h"

#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

DhcpVrfSelectSmv6::DhcpVrfSelectSmv6(const Ptr<const Config>& dhcpRelayConfig,
                                     const Ptr<const Ip6::Status>& ipStatus,
                                     const Ptr<VrfWithCountDir>& activeVrfDir)
    : DhcpVrfSelect(activeVrfDir), dhcpRelayConfig_(dhcpRelayConfig), ipStatus_(ipStatus) {
   ipStatusWatch_.on(&Ip6::Status::Reactor::handleIntf,
                     [this](const IntfId& intf) { handleIpIntfStatus(intf); });
   ipStatusWatch_.notifierIs(ipStatus_);
   configWatch_.on(&Config::Reactor::handleIntfConfig,
                   [this](const IntfId& intf) { handleRelayConfig(intf); });
   configWatch_.notifierIs(dhcpRelayConfig_);
}

DhcpVrfSelectSmv6::~DhcpVrfSelectSmv6() = default;

void DhcpVrfSelectSmv6::handleInitialized() {
   if (initialized_)
      return;
   doInitialize();
   handleIpIntfStatus();
   handleRelayConfig();
}

void DhcpVrfSelectSmv6::handleIpIntfStatus() {
   for (const auto& [intf, status] : ipStatus_->intf())
      handleIpIntfStatus(intf);
}

void DhcpVrfSelectSmv6::handleIpIntfStatus(const IntfId& intf) {
   if (!initialized_)
      return;
   auto set = serverSets_.find(intf);
   handleIpIntfStatusHelper(intf, ipStatus_->intf(intf),
                            set != serverSets_.end() && !set->second.counted.empty(),
                            __PRETTY_FUNCTION__);
}

void DhcpVrfSelectSmv6::handleRelayConfig() {
   for (const auto& [intf, config] : dhcpRelayConfig_->intfConfig())
      handleRelayConfig(intf);
}

void DhcpVrfSelectSmv6::handleRelayConfig(const IntfId& intf) {
   if (!initialized_)
      return;
   TRACE(4, " for ", intf);
   const Ptr<const IntfConfig> config = dhcpRelayConfig_->intfConfig(intf);
   auto it = serverSets_.find(intf);
   if (it != serverSets_.end() && it->second.watch.notifier() != config) {
      // The configuration was deleted with its entries, so no entry was notified.
      doUncountServers(intf, it->second.counted);
      serverSets_.erase(it);
   }
   if (!config)
      return;
   auto [set, added] = serverSets_.try_emplace(intf);
   ServerSet& reactor = set->second;
   if (added) {
      reactor.watch.on(
          &IntfConfig::Reactor::handleServerIp6,
          [this, &reactor](const VrfIpSrcIntfSrcIp& key) { handleServerIp6(reactor, key); });
      reactor.watch.notifierIs(config);
   }
   handleServerIp6(reactor);
}

void DhcpVrfSelectSmv6::handleServerIp6(ServerSet& reactor) {
   for (const auto& [key, configured] : reactor.watch.notifier()->serverIp6())
      handleServerIp6(reactor, key);
}

void DhcpVrfSelectSmv6::handleServerIp6(ServerSet& reactor, const VrfIpSrcIntfSrcIp& key) {
   if (!initialized_)
      return;
   const IntfConfig& config = *reactor.watch.notifier();
   const IntfId& intf = config.intfId();
   TRACE(4, " for serverIp6 ", key, " on interface ", intf, " vrf name ", key.vrf);
   const bool present = config.serverIp6(key);
   doCountServer(intf, reactor.counted, key, present, ipStatus_->intf(intf));
   if (!present && reactor.counted.empty())
      intfsWithDhcpServerDel(intf);
}

void DhcpVrfSelectSmv6::handleIntfsWithDhcpServer(const IntfId& intf) {
   handleIntfsWithDhcpServerHelper(intf, __PRETTY_FUNCTION__);
}

}  // namespace Ip::Helper::DhcpRelay
