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
      vrf_(root.vrfOf(nsName_)),
      watch_(kernelTableOf(root.store_, nsName_), *this) {
   doSync(doScopeAll());
}

IntfStatusManager::~IntfStatusManager() {
   for (const IntfId& intf : intfs_)
      root_.doRelease(intf);
   if (!intfs_.empty())
      root_.doSyncAll(intfs_, this);
}

void IntfStatusManager::handleDeviceName(uint32_t, const std::string& oldName,
                                         const KernelNetInfo::KernelIntf* device) {
   std::set<IntfId> scope;
   for (const std::string* name : {&oldName, device ? &device->deviceName() : nullptr}) {
      if (IntfId intf = name ? root_.deviceIndex_.intfIdOf(*name) : IntfId(); !intf.empty())
         scope.insert(intf);
   }
   doSync(scope);
}

void IntfStatusManager::handleDeviceAttr(const KernelNetInfo::KernelIntf& device) {
   if (IntfId intf = root_.deviceIndex_.intfIdOf(device.deviceName()); !intf.empty())
      doSync({intf});
}

std::set<IntfId> IntfStatusManager::doScopeAll() const {
   std::set<IntfId> scope = intfs_;
   for (const auto& [ifindex, device] : watch_.table()->interfaceByIndex()) {
      if (IntfId intf = root_.deviceIndex_.intfIdOf(device->deviceName()); !intf.empty())
         scope.insert(intf);
   }
   return scope;
}

void IntfStatusManager::doVrfIs(const VrfName& vrf) {
   if (vrf == vrf_)
      return;
   vrf_ = vrf;
   doSync(doScopeAll());
}

// Interfaces whose device went are let go first, then the others are written, each in
// interface order; only then may the other namespaces take what was let go.
void IntfStatusManager::doSync(const std::set<IntfId>& scope) {
   std::vector<std::pair<IntfId, const KernelNetInfo::KernelIntf*>> want;
   std::vector<IntfId> gone;
   for (const IntfId& intf : scope) {
      const KernelNetInfo::KernelIntf* device = nullptr;
      if (!vrf_.empty()) {
         if (const std::string name = root_.deviceIndex_.deviceOf(intf); !name.empty())
            device = watch_.deviceNamed(name);
      }
      if (device)
         want.emplace_back(intf, device);
      else if (intfs_.contains(intf))
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
      local->vrfIs(vrf_);
      local->ifindexIs(device->ifindex());
   }

   // An interface let go here may be wanted by the device of another namespace.
   if (!gone.empty())
      root_.doSyncAll(scope, this);
}

// --- IntfStatusManagerRoot --------------------------------------------------------------

IntfStatusManagerRoot::IntfStatusManagerRoot(StateStore& store,
                                             Ptr<Interface::AllIntfStatusDir> intfStatus,
                                             Ptr<Interface::AllIntfStatusLocalDir> intfStatusLocal)
    : store_(store),
      intfStatus_(std::move(intfStatus)),
      intfStatusLocal_(std::move(intfStatusLocal)),
      deviceNames_(store.publishedAs<Interface::DeviceNameConfig>("interface/config/deviceName")),
      vrfs_(store.publishedAs<Ip::AllVrfStatusLocal>("ip/vrf/status/local")),
      deviceIndex_(deviceNames_.get()) {
   PLATFORM_ASSERT(intfStatus_ && intfStatusLocal_ && deviceNames_ && vrfs_,
                   "interface status managers need the configuration published");
   deviceNamesWatch_.on(&Interface::DeviceNameConfig::Reactor::handleDeviceName,
                        [this](const IntfId& intf) { handleDeviceName(intf); });
   deviceNamesWatch_.notifierIs(deviceNames_);
   vrfsWatch_.on(&Ip::AllVrfStatusLocal::Reactor::handleVrf,
                 [this](const VrfName& vrf) { handleVrf(vrf); });
   vrfsWatch_.onAttached([this] {
      for (const auto& [vrf, status] : vrfs_->vrf())
         handleVrf(vrf);
   });
   vrfsWatch_.notifierIs(vrfs_);
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

void IntfStatusManagerRoot::handleVrf(const VrfName& vrf) {
   Ptr<const Ip::VrfStatusLocal> status = vrfs_->vrf(vrf);
   if (status) {
      auto [it, added] = vrfWatches_.try_emplace(vrf);
      if (added)
         it->second.on(&Ip::VrfStatusLocal::Reactor::handleNsName, [this, vrf] { doNsOfVrf(vrf); });
      it->second.notifierIs(status);
   } else {
      vrfWatches_.erase(vrf);
   }
   doNsOfVrf(vrf);
}

void IntfStatusManagerRoot::handleDeviceName(const IntfId& intf) {
   doSyncAll(deviceIndex_.update(*deviceNames_, intf));
}

void IntfStatusManagerRoot::doNsOfVrf(const VrfName& vrf) {
   std::string ns;
   if (Ptr<const Ip::VrfStatusLocal> status = vrfs_->vrf(vrf); status && !status->nsName().empty())
      ns = canonical(status->nsName().str());
   std::set<std::string> touched;
   if (auto it = nsOfVrf_.find(vrf); it != nsOfVrf_.end()) {
      if (it->second == ns)
         return;
      touched.insert(it->second);
      auto& vrfs = vrfsOfNs_[it->second];
      vrfs.erase(vrf);
      if (vrfs.empty())
         vrfsOfNs_.erase(it->second);
      nsOfVrf_.erase(it);
   }
   if (!ns.empty()) {
      touched.insert(ns);
      nsOfVrf_.emplace(vrf, ns);
      vrfsOfNs_[ns].insert(vrf);
   }
   for (const std::string& n : touched) {
      if (auto it = managers_.find(n); it != managers_.end())
         it->second->doVrfIs(vrfOf(n));
   }
}

VrfName IntfStatusManagerRoot::vrfOf(const std::string& nsName) const {
   auto it = vrfsOfNs_.find(nsName);
   return it == vrfsOfNs_.end() ? VrfName() : *it->second.begin();
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

void IntfStatusManagerRoot::doSyncAll(const std::set<IntfId>& scope,
                                      const IntfStatusManager* except) {
   for (const auto& [ns, manager] : managers_) {
      if (manager.get() != except)
         manager->doSync(scope);
   }
}

std::string IntfStatusManagerRoot::canonical(const std::string& nsName) {
   return isOwnNetNs(nsName) ? std::string("default") : nsName;
}

}  // namespace Frontend
