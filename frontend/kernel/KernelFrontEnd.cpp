#include "frontend/kernel/KernelFrontEnd.h"

#include <algorithm>
#include <set>
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

// --- KernelTableWatch ---------------------------------------------------------------

KernelTableWatch::DeviceReactor::DeviceReactor(KernelTableWatch& owner,
                                               Ptr<const KernelNetInfo::KernelIntf> device)
    : owner_(owner) {
   notifierIs(device);
}

void KernelTableWatch::TableReactor::handleInterfaceByIndex(uint32_t ifindex) {
   owner_.doDevice(ifindex);
   owner_.onChange_();
}

KernelTableWatch::KernelTableWatch(Ptr<const KernelNetInfo::Status> table,
                                   std::function<void()> onChange)
    : onChange_(std::move(onChange)), tableReactor_(*this) {
   tableReactor_.notifierIs(table);
   for (const auto& [ifindex, device] : table->interfaceByIndex())
      doDevice(ifindex);
}

KernelTableWatch::~KernelTableWatch() = default;

void KernelTableWatch::doDevice(uint32_t ifindex) {
   Ptr<const KernelNetInfo::KernelIntf> device = table()->interfaceByIndex(ifindex);
   if (!device) {
      devices_.erase(ifindex);
      return;
   }
   auto& reactor = devices_[ifindex];
   if (!reactor || reactor->notifier() != device)
      reactor = std::make_unique<DeviceReactor>(*this, device);
}

// --- KernelFrontEnd ---------------------------------------------------------------------

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
   deviceNamesReactor_.notifierIs(deviceNames_);
   vrfsReactor_.notifierIs(vrfs_);
}

KernelFrontEnd::~KernelFrontEnd() = default;

void KernelFrontEnd::VrfsReactor::onNotifierAttached() {
   for (const auto& [vrf, status] : notifier()->vrf())
      owner_.handleVrf(vrf);
}

void KernelFrontEnd::handleVrf(const VrfName& vrf) {
   Ptr<Ip::VrfStatusLocal> status = vrfs_->vrf(vrf);
   auto it = vrfReactors_.find(vrf);
   if (status && it == vrfReactors_.end()) {
      auto reactor = std::make_unique<VrfReactor>(*this);
      reactor->notifierIs(status);
      vrfReactors_.emplace(vrf, std::move(reactor));
   } else if (!status && it != vrfReactors_.end()) {
      vrfReactors_.erase(it);
   }
   doBindAll();
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

// Brings the bindings to the configuration. A namespace serves one VRF at a time: a VRF
// that asks for a namespace another VRF holds waits until it is free, which happens in
// the middle of a reload that swaps two VRFs' namespaces.
void KernelFrontEnd::doBindAll() {
   std::map<VrfName, std::string> wanted;
   for (const auto& [vrf, reactor] : vrfReactors_) {
      const std::string& ns = reactor->notifier()->nsName().str();
      // A VRF is created before its namespace is set.
      if (!ns.empty())
         wanted.emplace(vrf, isOwnNetNs(ns) ? std::string("default") : ns);
   }
   std::vector<std::string> stale;
   for (const auto& [ns, binding] : bindings_) {
      auto it = wanted.find(binding.vrf);
      if (it == wanted.end() || it->second != ns)
         stale.push_back(ns);
   }
   for (const std::string& ns : stale)
      doUnbind(ns);
   for (const auto& [vrf, ns] : wanted) {
      // Published for every configured namespace, so readers can attach before it is used.
      kernelTableOf(store_, ns);
      auto it = bindings_.find(ns);
      if (it == bindings_.end())
         doBind(vrf, ns);
      else if (it->second.vrf != vrf)
         TRACE(1, " VRF ", vrf, " waits for namespace ", ns, ", which VRF ", it->second.vrf,
               " uses");
   }
}

void KernelFrontEnd::doBind(const VrfName& vrf, const std::string& nsName) {
   Binding& b = bindings_[nsName];
   b.vrf = vrf;
   b.table = kernelTableOf(store_, nsName);
   b.watch = std::make_unique<KernelTableWatch>(b.table, [this] { doSyncLater(); });
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

void KernelFrontEnd::doSyncLater() {
   if (syncPending_)
      return;
   syncPending_ = true;
   loop_.post([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired() && syncPending_)
         doSync();
   });
}

void KernelFrontEnd::doSync() {
   syncPending_ = false;
   struct Source {
      const KernelNetInfo::KernelIntf* device;
      VrfName vrf;
   };
   // The default VRF's namespace goes first, so that it keeps a device name that other
   // namespaces have too ("lo" is in every one); the others follow in VRF name order.
   std::vector<const Binding*> active;
   for (const auto& [ns, binding] : bindings_) {
      if (binding.follower)
         active.push_back(&binding);
   }
   std::sort(active.begin(), active.end(), [](const Binding* a, const Binding* b) {
      return std::make_pair(!a->vrf.isDefault(), a->vrf) <
             std::make_pair(!b->vrf.isDefault(), b->vrf);
   });
   std::map<IntfId, Source> want;
   for (const Binding* b : active) {
      for (const auto& [ifindex, device] : b->table->interfaceByIndex()) {
         const IntfId intf = deviceNames_->intfIdOf(device->deviceName());
         if (intf.empty())
            continue;
         if (!want.try_emplace(intf, Source{device.get(), b->vrf}).second)
            TRACE(3, " device ", device->deviceName(), " of VRF ", b->vrf, " ignored: VRF ",
                  want.at(intf).vrf, " has one of that name");
      }
   }

   std::vector<IntfId> gone;
   for (const auto& [intf, status] : ipStatus_->ipIntfStatus()) {
      if (!want.count(intf))
         gone.push_back(intf);
   }
   for (const IntfId& intf : gone)
      ipStatus_->ipIntfStatusDel(intf);
   gone.clear();
   for (const auto& [intf, status] : ip6Status_->intf()) {
      if (!want.count(intf))
         gone.push_back(intf);
   }
   for (const IntfId& intf : gone)
      ip6Status_->intfDel(intf);

   for (const auto& [intf, source] : want)
      doSyncIntf(intf, *source.device, source.vrf);
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
