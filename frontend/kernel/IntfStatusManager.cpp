#include "frontend/kernel/IntfStatusManager.h"

#include <vector>

#include "platform/base/Assert.h"
#include "platform/linux/NetNs.h"
#include "platform/trace/Trace.h"

namespace Frontend {

using KernelNetInfo::kernelTableOf;

using Platform::IntfId;
using Platform::isOwnNetNs;
using Platform::Ptr;
using Platform::StateStore;
using Platform::VrfName;

using Interface::IntfStatus;

// --- IntfStatusManager ------------------------------------------------------------------

IntfStatusManager::IntfStatusManager(IntfStatusManagerRoot& root, std::string nsName)
    : root_(root),
      nsName_(std::move(nsName)),
      watch_(kernelTableOf(root.store_, nsName_), [this] { doSync(); }) {
   doSync();
}

IntfStatusManager::~IntfStatusManager() {
   for (const IntfId& intf : intfs_)
      root_.doRelease(intf);
   if (!intfs_.empty())
      root_.doSyncAll(this);
}

void IntfStatusManager::doSync() {
   std::map<IntfId, const KernelNetInfo::KernelIntf*> want;
   // Entries carry the VRF; a table whose namespace no VRF has yields none.
   const VrfName vrf = root_.vrfOf(nsName_);
   if (!vrf.empty()) {
      for (const auto& [ifindex, device] : watch_.table()->interfaceByIndex()) {
         const IntfId intf = root_.deviceNames_->intfIdOf(device->deviceName());
         if (!intf.empty())
            want.emplace(intf, device.get());
      }
   }

   std::vector<IntfId> gone;
   for (const IntfId& intf : intfs_) {
      if (!want.count(intf))
         gone.push_back(intf);
   }
   for (const IntfId& intf : gone) {
      intfs_.erase(intf);
      root_.doRelease(intf);
   }

   for (const auto& [intf, device] : want) {
      if (!root_.doClaim(intf, this))
         continue;
      intfs_.insert(intf);
      Ptr<IntfStatus> status = root_.intfStatus_->intfStatusIs(intf);
      status->deviceNameIs(device->deviceName());
      status->operStatusIs(device->running() ? IntfStatus::OperStatus::up
                                             : IntfStatus::OperStatus::down);
      Ptr<Interface::IntfStatusLocal> local = root_.intfStatusLocal_->intfStatusLocalIs(intf);
      local->vrfIs(vrf);
      local->ifindexIs(device->ifindex());
   }

   // An interface let go here may be wanted by the device of another namespace.
   if (!gone.empty())
      root_.doSyncAll(this);
}

// --- IntfStatusManagerRoot --------------------------------------------------------------

IntfStatusManagerRoot::IntfStatusManagerRoot(StateStore& store,
                                             Ptr<Interface::AllIntfStatusDir> intfStatus,
                                             Ptr<Interface::AllIntfStatusLocalDir> intfStatusLocal)
    : store_(store),
      intfStatus_(std::move(intfStatus)),
      intfStatusLocal_(std::move(intfStatusLocal)),
      deviceNames_(store.publishedAs<Interface::DeviceNameConfig>("interface/config/deviceName")),
      vrfs_(store.publishedAs<Ip::AllVrfStatusLocal>("ip/vrf/status/local")) {
   PLATFORM_ASSERT(intfStatus_ && intfStatusLocal_ && deviceNames_ && vrfs_,
                   "interface status managers need the configuration published");
   deviceNamesReactor_.notifierIs(deviceNames_);
   vrfsReactor_.notifierIs(vrfs_);
}

IntfStatusManagerRoot::~IntfStatusManagerRoot() {
   // Out of the map first: a manager on its way out hands its interfaces to the others.
   while (!managers_.empty())
      managers_.extract(managers_.begin());
}

IntfStatusManager* IntfStatusManagerRoot::intfStatusManager(const std::string& nsName) {
   const std::string ns = canonical(nsName);
   if (auto it = managers_.find(ns); it != managers_.end())
      return it->second.get();
   TRACE(2, " following the devices of namespace ", ns);
   auto manager = std::make_unique<IntfStatusManager>(*this, ns);
   return managers_.emplace(ns, std::move(manager)).first->second.get();
}

void IntfStatusManagerRoot::intfStatusManagerDel(const std::string& nsName) {
   const std::string ns = canonical(nsName);
   if (managers_.extract(ns))
      TRACE(2, " no longer following the devices of namespace ", ns);
}

void IntfStatusManagerRoot::namespaceFollowDel(const std::string& nsName) {
   // The agent's own namespace holds the default VRF, which is always followed.
   if (!Platform::isOwnNetNs(nsName))
      intfStatusManagerDel(nsName);
}

void IntfStatusManagerRoot::VrfsReactor::onNotifierAttached() {
   for (const auto& [vrf, status] : notifier()->vrf())
      owner_.handleVrf(vrf);
}

void IntfStatusManagerRoot::handleVrf(const VrfName& vrf) {
   Ptr<const Ip::VrfStatusLocal> status = vrfs_->vrf(vrf);
   if (status) {
      auto& reactor = vrfReactors_[vrf];
      if (!reactor)
         reactor = std::make_unique<VrfReactor>(*this);
      reactor->notifierIs(status);
   } else {
      vrfReactors_.erase(vrf);
   }
   doSyncAll();
}

VrfName IntfStatusManagerRoot::vrfOf(const std::string& nsName) const {
   for (const auto& [vrf, status] : vrfs_->vrf()) {
      if (!status->nsName().empty() && canonical(status->nsName().str()) == nsName)
         return vrf;
   }
   return {};
}

bool IntfStatusManagerRoot::doClaim(const IntfId& intf, const IntfStatusManager* manager) {
   auto [it, added] = writer_.try_emplace(intf, manager);
   if (added || it->second == manager)
      return true;
   TRACE(3, " interface ", intf, " of namespace ", manager->nsName(), " left to namespace ",
         it->second->nsName());
   return false;
}

void IntfStatusManagerRoot::doRelease(const IntfId& intf) {
   writer_.erase(intf);
   intfStatus_->intfStatusDel(intf);
   intfStatusLocal_->intfStatusLocalDel(intf);
}

void IntfStatusManagerRoot::doSyncAll(const IntfStatusManager* except) {
   for (const auto& [ns, manager] : managers_) {
      if (manager.get() != except)
         manager->doSync();
   }
}

std::string IntfStatusManagerRoot::canonical(const std::string& nsName) {
   return isOwnNetNs(nsName) ? std::string("default") : nsName;
}

}  // namespace Frontend
