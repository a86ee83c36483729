#include "relay/RelayVrfSet.h"

namespace Ip::Helper::DhcpRelay {

using Platform::VrfName;

RelayVrfSet::RelayVrfSet(Owner& owner, const Ptr<const Ip::AllVrfStatusLocal>& vrfStatus,
                         const Ptr<const VrfWithCountDir>& activeVrfDir)
    : owner_(owner), vrfStatus_(vrfStatus), activeVrfDir_(activeVrfDir) {
   vrfsWatch_.on(&Ip::AllVrfStatusLocal::Reactor::handleVrf,
                 [this](const VrfName& vrf) { handleAllVrfStatus(vrf); });
   vrfsWatch_.notifierIs(vrfStatus_);
   activeDirWatch_.on(&VrfWithCountDir::Reactor::handleVrfCount,
                      [this](const VrfName& vrf) { handleActiveVrfDir(vrf); });
   activeDirWatch_.notifierIs(activeVrfDir_);
}

RelayVrfSet::~RelayVrfSet() = default;

void RelayVrfSet::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   for (const auto& [vrf, status] : vrfStatus_->vrf())
      handleAllVrfStatus(vrf);
   for (const auto& [vrf, count] : activeVrfDir_->vrfCount())
      handleActiveVrfDir(vrf);
}

void RelayVrfSet::handleAllVrfStatus(const VrfName& vrf) {
   if (!initialized_)
      return;
   if (Ptr<Ip::VrfStatusLocal> status = vrfStatus_->vrf(vrf)) {
      auto& watch = vrfWatch_[vrf];
      if (!watch.notifier()) {
         watch.on(&Ip::VrfStatusLocal::Reactor::handleState, [this, vrf] { handleVrfStatus(vrf); });
         // Sockets cannot follow a VRF into another namespace: they are opened again there.
         watch.on(&Ip::VrfStatusLocal::Reactor::handleNsName, [this, vrf] {
            owner_.handleVrfDel(vrf);
            handleVrfStatus(vrf);
         });
         watch.notifierIs(status);
      }
   } else {
      vrfWatch_.erase(vrf);
   }
   handleVrfStatus(vrf);
}

void RelayVrfSet::handleVrfStatus(const VrfName& vrf) {
   if (!initialized_)
      return;
   if (usable(vrf)) {
      if (needed(vrf))
         owner_.handleVrfAdd(vrf);
   } else if (!vrf.isDefault()) {
      owner_.handleVrfDel(vrf);
   }
}

void RelayVrfSet::handleActiveVrfDir(const VrfName& vrf) {
   if (!initialized_)
      return;
   if (Ptr<VrfWithCount> count = activeVrfDir_->vrfCount(vrf)) {
      auto& watch = countWatch_[vrf];
      if (!watch.notifier()) {
         watch.on(&VrfWithCount::Reactor::handleCount, [this, vrf] { handleActiveVrfDir(vrf); });
         watch.notifierIs(count);
      }
   } else {
      countWatch_.erase(vrf);
   }
   if (needed(vrf)) {
      if (usable(vrf))
         owner_.handleVrfAdd(vrf);
   } else {
      owner_.handleVrfDel(vrf);
   }
}

void RelayVrfSet::defaultPinnedIs(bool pinned) {
   if (pinned == defaultPinned_)
      return;
   defaultPinned_ = pinned;
   handleActiveVrfDir(VrfName::defaultVrf());
}

bool RelayVrfSet::needed(const VrfName& vrf) const {
   Ptr<VrfWithCount> count = activeVrfDir_->vrfCount(vrf);
   return count && ((vrf.isDefault() && defaultPinned_) || count->count() > 0);
}

bool RelayVrfSet::usable(const VrfName& vrf) const {
   if (vrf.isDefault())
      return true;
   Ptr<Ip::VrfStatusLocal> status = vrfStatus_->vrf(vrf);
   return status && status->state() == Ip::VrfStatusLocal::State::active;
}

Platform::NamespaceName RelayVrfSet::nsName(const VrfName& vrf) const {
   Ptr<Ip::VrfStatusLocal> status = vrf.isDefault() ? nullptr : vrfStatus_->vrf(vrf);
   return status ? status->nsName() : Platform::NamespaceName(VrfName::defaultVrf().str());
}

}  // namespace Ip::Helper::DhcpRelay
