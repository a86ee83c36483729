#include "servers/DhcpVrfSelect.h"

#include <utility>

#include "model/switch/Ip6Status.h"
#include "model/switch/IpStatus.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"
#include "servers/ActiveVrfCount.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::VrfName;

template <class IntfStatusT>
DhcpVrfSelect<IntfStatusT>::DhcpVrfSelect(const Ptr<VrfWithCountDir>& activeVrfDir)
    : activeVrfDir_(activeVrfDir) {}

template <class IntfStatusT>
DhcpVrfSelect<IntfStatusT>::~DhcpVrfSelect() = default;

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::doInitialize() {
   // Counts left by an earlier agent mean nothing to this one: the replay that follows
   // rebuilds them.
   activeVrfDir_->vrfCountDelAll();
   activeVrfDir_->vrfCountIs(VrfName::defaultVrf())->countIs(0);
   initialized_ = true;
   intfsWithDhcpServer_.clear();
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::handleIpIntfStatusHelper(const IntfId& intf,
                                                          const Ptr<const IntfStatusT>& status,
                                                          bool hasServer, std::string_view caller) {
   if (status) {
      TRACE(3, "assign currentVrf to ", intf, caller, " vrf ", status->vrf());
      currentVrfIs(intf, status->vrf());
      if (hasServer)
         intfsWithDhcpServerIs(intf, status);
      else
         intfsWithDhcpServerDel(intf);
      return;
   }
   auto it = currentVrf_.find(intf);
   TRACE(3, "remove currentVrf of ", intf, caller, " vrf ",
         it == currentVrf_.end() ? VrfName() : it->second);
   // Leaving the set lowers the VRF currentVrf names, so it goes first.
   intfsWithDhcpServerDel(intf);
   currentVrf_.erase(intf);
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::handleIntfVrfHelper(const IntfId& intf) {
   auto member = intfsWithDhcpServer_.find(intf);
   auto current = currentVrf_.find(intf);
   PLATFORM_ASSERT(member != intfsWithDhcpServer_.end() && current != currentVrf_.end(), "vrf");
   const VrfName& vrf = member->second.notifier()->vrf();
   if (vrf == current->second) {
      TRACE(4, " No change in VRF for interface ", intf);
      return;
   }
   currentVrfIs(intf, vrf);
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::handleIntfsWithDhcpServerHelper(const IntfId& intf,
                                                                 std::string_view caller) {
   auto current = currentVrf_.find(intf);
   TRACE(3, " with intfId ", intf, caller, " vrf ",
         current == currentVrf_.end() ? VrfName() : current->second);
   PLATFORM_ASSERT(current != currentVrf_.end(), "vrf");
   const VrfName vrf = current->second;
   if (intfsWithDhcpServer_.contains(intf))
      activeVrfInc(*activeVrfDir_, vrf);
   else
      activeVrfDec(*activeVrfDir_, vrf);
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::currentVrfIs(const IntfId& intf, const VrfName& vrf) {
   auto [current, added] = currentVrf_.try_emplace(intf, vrf);
   if (added || current->second == vrf)
      return;
   const VrfName old = std::exchange(current->second, vrf);
   if (!intfsWithDhcpServer_.contains(intf))
      return;
   // Make before break: the relay has sockets in the new VRF before it may close the old
   // VRF's, so the interface is never without them.
   activeVrfInc(*activeVrfDir_, vrf);
   activeVrfDec(*activeVrfDir_, old);
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::intfsWithDhcpServerIs(const IntfId& intf,
                                                       const Ptr<const IntfStatusT>& status) {
   auto [it, added] = intfsWithDhcpServer_.try_emplace(intf);
   auto& watch = it->second;
   if (added)
      watch.on(&IntfStatusT::Reactor::handleVrf, [this, intf] { handleIntfVrfHelper(intf); });
   watch.notifierIs(status);
   if (added)
      handleIntfsWithDhcpServer(intf);
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::intfsWithDhcpServerDel(const IntfId& intf) {
   if (intfsWithDhcpServer_.erase(intf))
      handleIntfsWithDhcpServer(intf);
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::doCountServer(const IntfId& intf, CountedServers& counted,
                                               const VrfIpSrcIntfSrcIp& key, bool present,
                                               const Ptr<const IntfStatusT>& status) {
   if (!present) {
      if (counted.erase(key))
         activeVrfDec(*activeVrfDir_, key.vrf);
      return;
   }
   if (counted.insert(key).second)
      activeVrfInc(*activeVrfDir_, key.vrf);
   if (status) {
      currentVrfIs(intf, status->vrf());
      intfsWithDhcpServerIs(intf, status);
   }
}

template <class IntfStatusT>
void DhcpVrfSelect<IntfStatusT>::doUncountServers(const IntfId& intf,
                                                  const CountedServers& counted) {
   for (const VrfIpSrcIntfSrcIp& key : counted)
      activeVrfDec(*activeVrfDir_, key.vrf);
   intfsWithDhcpServerDel(intf);
}

template class DhcpVrfSelect<Ip::IpIntfStatus>;
template class DhcpVrfSelect<Ip6::IntfStatus>;

}  // namespace Ip::Helper::DhcpRelay
