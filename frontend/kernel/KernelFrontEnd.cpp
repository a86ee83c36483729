#include "frontend/kernel/KernelFrontEnd.h"

#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "frontend/kernel/KernelTableFollower.h"
#include "platform/base/Assert.h"
#include "platform/linux/NetNs.h"
#include "platform/loop/EventLoop.h"
#include "platform/trace/Trace.h"

namespace Frontend {

using Platform::EventLoop;
using Platform::IntfId;
using Platform::Ip6Prefix;
using Platform::IpAddrWithMask;
using Platform::isOwnNetNs;
using Platform::make;
using Platform::Ptr;
using Platform::StateStore;
using Platform::VrfName;

using VrfState = Ip::VrfStatusLocal::State;

using KernelNetInfo::kernelTableOf;

namespace {

class NetlinkFollower : public KernelFrontEnd::Follower {
 public:
   NetlinkFollower(EventLoop& loop, const std::string& nsName,
                   const Ptr<KernelNetInfo::Status>& table)
       : follower_(loop, nsName, table) {}
   KernelTableFollower& follower() { return follower_; }

 private:
   KernelTableFollower follower_;
};

}  // namespace

std::unique_ptr<KernelFrontEnd::Follower> KernelFrontEnd::kernelTableFollower(
    EventLoop& loop, const std::string& nsName, const Ptr<KernelNetInfo::Status>& table,
    std::string& error) {
   auto f = std::make_unique<NetlinkFollower>(loop, nsName, table);
   if (!f->follower().start(error))
      return nullptr;
   return f;
}

KernelFrontEnd::Seams KernelFrontEnd::kernelSeams() {
   return {kernelTableFollower, NamespaceWatcher::kNetNsDir, NamespaceWatcher::isNamespaceMount};
}

KernelFrontEnd::KernelFrontEnd(EventLoop& loop, StateStore& store)
    : KernelFrontEnd(loop, store, kernelSeams()) {}

KernelFrontEnd::KernelFrontEnd(EventLoop& loop, StateStore& store, Seams seams)
    : loop_(loop),
      store_(store),
      seams_(std::move(seams)),
      ipStatus_(make<Ip::Status>("status")),
      ip6Status_(make<Ip6::Status>("status")),
      vrfs_(store.publishedAs<Ip::AllVrfStatusLocal>("ip/vrf/status/local")),
      deviceNames_(store.publishedAs<Interface::DeviceNameConfig>("interface/config/deviceName")),
      deviceIndex_(deviceNames_.get()),
      watcher_(
          loop, [this](const std::string& nsName, bool exists) { handleNamespace(nsName, exists); },
          seams_.netNsDir, seams_.isNamespace) {
   PLATFORM_ASSERT(vrfs_ && deviceNames_,
                   "the configuration is published before the kernel front end starts");
   store_.publish("ip/status", ipStatus_);
   store_.publish("ip6/status", ip6Status_);
   // Without the watcher only the default VRF can become active; the relay still serves it.
   if (std::string error; !watcher_.start(error))
      TRACE(0, " network namespaces are not followed: ", error);
   deviceNamesWatch_.on(&Interface::DeviceNameConfig::Reactor::handleDeviceName,
                        [this](const IntfId& intf) { handleDeviceNameConfig(intf); });
   deviceNamesWatch_.notifierIs(deviceNames_);
   vrfsWatch_.on(&Ip::AllVrfStatusLocal::Reactor::handleVrf,
                 [this](const VrfName& vrf) { handleVrf(vrf); });
   vrfsWatch_.onAttached([this] {
      for (const auto& [vrf, status] : vrfs_->vrf())
         handleVrf(vrf);
   });
   vrfsWatch_.notifierIs(vrfs_);
}

KernelFrontEnd::~KernelFrontEnd() = default;

void KernelFrontEnd::handleVrf(const VrfName& vrf) {
   Ptr<Ip::VrfStatusLocal> status = vrfs_->vrf(vrf);
   auto it = vrfWatches_.find(vrf);
   if (status && it == vrfWatches_.end()) {
      auto& watch = vrfWatches_[vrf];
      watch.on(&Ip::VrfStatusLocal::Reactor::handleNsName, [this, vrf] { doBindVrf(vrf); });
      watch.notifierIs(status);
   } else if (!status && it != vrfWatches_.end()) {
      vrfWatches_.erase(it);
   }
   doBindVrf(vrf);
}

void KernelFrontEnd::handleNamespace(const std::string& nsName, bool exists) {
   auto it = bindings_.find(nsName);
   if (it == bindings_.end())
      return;
   if (exists) {
      doActivate(nsName);
   } else if (it->second.follower) {
      doDeactivate(it->second);
      TRACE(1, " VRF ", it->second.vrf, " is not active: namespace ", nsName, " does not exist");
   }
}

void KernelFrontEnd::handleDeviceNameConfig(const IntfId& intf) {
   for (const IntfId& affected : deviceIndex_.update(*deviceNames_, intf))
      dirty_.insert(affected);
   doSyncLater();
}

void KernelFrontEnd::handleDevice(const Binding& binding, uint32_t ifindex,
                                  const std::string& oldName,
                                  const KernelNetInfo::KernelIntf* device) {
   if (auto it = devicesByName_.find(oldName); it != devicesByName_.end()) {
      it->second.erase({&binding, ifindex});
      if (it->second.empty())
         devicesByName_.erase(it);
   }
   doDirty(oldName);
   if (device) {
      devicesByName_[device->deviceName()].insert({&binding, ifindex});
      doDirty(device->deviceName());
   }
}

// A namespace that another VRF holds is waited for; it frees up in the middle of a reload
// that swaps two VRFs' namespaces. Whatever this VRF lets go of passes to the first VRF, by
// name, that waits for it, and all binding is done in VRF name order.
void KernelFrontEnd::doBindVrf(const VrfName& vrf) {
   std::string wanted;
   if (auto it = vrfWatches_.find(vrf); it != vrfWatches_.end()) {
      const std::string& ns = it->second.notifier()->nsName().str();
      // A VRF is created before its namespace is set.
      if (!ns.empty())
         wanted = isOwnNetNs(ns) ? std::string("default") : ns;
   }
   std::string left;
   if (auto it = nsOfVrf_.find(vrf); it != nsOfVrf_.end()) {
      if (it->second == wanted)
         return;
      left = it->second;
      auto& waiting = vrfsOfNs_[left];
      waiting.erase(vrf);
      if (waiting.empty())
         vrfsOfNs_.erase(left);
      nsOfVrf_.erase(it);
   }
   std::set<VrfName> bind;
   if (!wanted.empty()) {
      nsOfVrf_.emplace(vrf, wanted);
      vrfsOfNs_[wanted].insert(vrf);
      bind.insert(vrf);
   }
   if (auto it = bindings_.find(left);
       !left.empty() && it != bindings_.end() && it->second.vrf == vrf) {
      doUnbind(left);
      if (auto waiting = vrfsOfNs_.find(left); waiting != vrfsOfNs_.end())
         bind.insert(*waiting->second.begin());
   }
   for (const VrfName& v : bind) {
      const std::string& ns = nsOfVrf_.at(v);
      // Published for every configured namespace, so readers can attach before it is used.
      kernelTableOf(store_, ns);
      auto it = bindings_.find(ns);
      if (it == bindings_.end())
         doBind(v, ns);
      else if (it->second.vrf != v)
         TRACE(1, " VRF ", v, " waits for namespace ", ns, ", which VRF ", it->second.vrf, " uses");
   }
}

KernelFrontEnd::Binding::Binding(KernelFrontEnd& owner, const VrfName& vrf,
                                 Ptr<KernelNetInfo::Status> table)
    : owner(owner), vrf(vrf), table(std::move(table)) {}

bool KernelFrontEnd::Binding::ranksBefore(const Binding& other) const {
   if (vrf.isDefault() != other.vrf.isDefault())
      return vrf.isDefault();
   return vrf < other.vrf;
}

bool KernelFrontEnd::Candidate::operator<(const Candidate& o) const {
   if (binding != o.binding)
      return binding->ranksBefore(*o.binding);
   return ifindex < o.ifindex;
}

void KernelFrontEnd::doBind(const VrfName& vrf, const std::string& nsName) {
   Binding& b =
       bindings_.try_emplace(nsName, *this, vrf, kernelTableOf(store_, nsName)).first->second;
   b.watch = std::make_unique<KernelTableWatch>(b.table, b);
   for (const auto& [ifindex, device] : b.table->interfaceByIndex())
      handleDevice(b, ifindex, {}, device.get());
   if (watcher_.exists(nsName)) {
      doActivate(nsName);
      return;
   }
   doStateIs(vrf, VrfState::inactive);
   TRACE(1, " VRF ", vrf, " is not active: namespace ", nsName, " does not exist");
}

void KernelFrontEnd::doUnbind(const std::string& nsName) {
   auto it = bindings_.find(nsName);
   Binding& b = it->second;
   doDeactivate(b);
   TRACE(1, " VRF ", b.vrf, " no longer follows namespace ", nsName);
   // The table is empty: no device of it is left among the candidates.
   bindings_.erase(it);
}

void KernelFrontEnd::doActivate(const std::string& nsName) {
   Binding& b = bindings_.at(nsName);
   if (b.follower)
      return;
   std::string error;
   b.follower = seams_.follower(loop_, nsName, b.table, error);
   if (!b.follower) {
      b.table->interfaceByIndexDelAll();
      TRACE(0, " VRF ", b.vrf, " is not active: namespace ", nsName,
            " cannot be followed: ", error);
      return;
   }
   doDirtyAll(b);
   doSyncLater();
   doStateIs(b.vrf, VrfState::active);
   TRACE(1, " VRF ", b.vrf, " is active: namespace ", nsName);
}

// The VRF goes inactive before its interfaces go, the reverse of activation, so that the
// relay stops using the VRF before it loses the addresses it was using.
void KernelFrontEnd::doDeactivate(Binding& b) {
   doStateIs(b.vrf, VrfState::inactive);
   b.follower.reset();
   b.table->interfaceByIndexDelAll();
   doSync();
}

void KernelFrontEnd::doStateIs(const VrfName& vrf, VrfState state) {
   // A VRF removed from the configuration has no record left to mark.
   if (Ptr<Ip::VrfStatusLocal> status = vrfs_->vrf(vrf))
      status->stateIs(state);
}

void KernelFrontEnd::doDirty(const std::string& deviceName) {
   if (IntfId intf = deviceIndex_.intfIdOf(deviceName); !intf.empty()) {
      dirty_.insert(intf);
      doSyncLater();
   }
}

void KernelFrontEnd::doDirtyAll(const Binding& binding) {
   for (const auto& [ifindex, device] : binding.table->interfaceByIndex())
      doDirty(device->deviceName());
}

void KernelFrontEnd::doSyncLater() {
   if (syncPending_)
      return;
   syncPending_ = true;
   loop_.post([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired() && syncPending_)
         doSync();
   });
}

// The device that stands for an interface: of the devices named like it in active
// namespaces, the first by namespace rank and then by ifindex. The others are traced.
std::optional<KernelFrontEnd::Candidate> KernelFrontEnd::doChoose(const IntfId& intf) const {
   const std::string name = deviceIndex_.deviceOf(intf);
   auto it = name.empty() ? devicesByName_.end() : devicesByName_.find(name);
   if (it == devicesByName_.end())
      return std::nullopt;
   std::optional<Candidate> chosen;
   for (const Candidate& c : it->second) {
      if (!c.binding->follower)
         continue;
      if (!chosen)
         chosen = c;
      else
         TRACE(3, " device ", name, " of VRF ", c.binding->vrf, " ignored: VRF ",
               chosen->binding->vrf, " has one of that name");
   }
   return chosen;
}

// Interfaces that lose their device go first, then the others are brought up to date, each
// in interface order, as a derivation of everything would.
void KernelFrontEnd::doSync() {
   syncPending_ = false;
   const std::set<IntfId> dirty = std::move(dirty_);
   dirty_.clear();
   std::vector<std::pair<IntfId, Candidate>> want;
   std::vector<IntfId> gone;
   for (const IntfId& intf : dirty) {
      if (std::optional<Candidate> c = doChoose(intf))
         want.emplace_back(intf, *c);
      else
         gone.push_back(intf);
   }
   for (const IntfId& intf : gone)
      ipStatus_->ipIntfStatusDel(intf);
   for (const IntfId& intf : gone)
      ip6Status_->intfDel(intf);
   for (const auto& [intf, c] : want) {
      Ptr<const KernelNetInfo::KernelIntf> device = c.binding->table->interfaceByIndex(c.ifindex);
      doSyncIntf(intf, *device, c.binding->vrf);
   }
}
// Stale addresses go before the VRF and the new addresses are set, so no reactor sees an
// address in two roles (a promoted secondary) or under the wrong VRF.
void KernelFrontEnd::doSyncIntf(const IntfId& intf, const KernelNetInfo::KernelIntf& device,
                                const VrfName& vrf) {
   const std::vector<IpAddrWithMask>& ipv4 = device.ipv4();
   const IpAddrWithMask primary = ipv4.empty() ? IpAddrWithMask() : ipv4.front();
   const std::set<IpAddrWithMask> secondaries(ipv4.begin() + (ipv4.empty() ? 0 : 1), ipv4.end());

   Ptr<Ip::IpIntfStatus> v4 = ipStatus_->ipIntfStatusIs(intf);
   std::vector<IpAddrWithMask> staleV4;
   for (const IpAddrWithMask& a : v4->activeSecondaryWithMask()) {
      if (!secondaries.count(a))
         staleV4.push_back(a);
   }
   for (const IpAddrWithMask& a : staleV4)
      v4->activeSecondaryWithMaskDel(a);
   v4->vrfIs(vrf);
   v4->activeAddrWithMaskIs(primary);
   for (const IpAddrWithMask& a : secondaries)
      v4->activeSecondaryWithMaskIs(a);

   Ptr<Ip6::IntfStatus> v6 = ip6Status_->intfIs(intf);
   std::vector<Ip6Prefix> staleV6;
   for (const Ip6Prefix& a : v6->addr()) {
      if (!device.ipv6().count(a))
         staleV6.push_back(a);
   }
   for (const Ip6Prefix& a : staleV6)
      v6->addrDel(a);
   v6->vrfIs(vrf);
   for (const Ip6Prefix& a : device.ipv6())
      v6->addrIs(a);
}

}  // namespace Frontend
