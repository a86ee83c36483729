#include "relay/RelayVrfSet.h"

namespace Ip::Helper::DhcpRelay {

using Platform::VrfName;

class RelayVrfSet::VrfsReactor : public Ip::AllVrfStatusLocal::Reactor {
 public:
   VrfsReactor(RelayVrfSet& set, const Ptr<const Ip::AllVrfStatusLocal>& vrfs) : set_(set) {
      notifierIs(vrfs);
   }
   void handleVrf(const VrfName& vrf) override { set_.handleAllVrfStatus(vrf); }

 private:
   RelayVrfSet& set_;
};

class RelayVrfSet::VrfReactor : public Ip::VrfStatusLocal::Reactor {
 public:
   VrfReactor(RelayVrfSet& set, const Ptr<const Ip::VrfStatusLocal>& vrf) : set_(set) {
      notifierIs(vrf);
   }
   void handleState() override { set_.handleVrfStatus(notifier()->vrf()); }
   void handleNsName() override {
      const VrfName vrf = notifier()->vrf();
      set_.owner_.handleVrfDel(vrf);
      set_.handleVrfStatus(vrf);
   }

 private:
   RelayVrfSet& set_;
};

class RelayVrfSet::ActiveDirReactor : public VrfWithCountDir::Reactor {
 public:
   ActiveDirReactor(RelayVrfSet& set, const Ptr<const VrfWithCountDir>& dir) : set_(set) {
      notifierIs(dir);
   }
   void handleVrfCount(const VrfName& vrf) override { set_.handleActiveVrfDir(vrf); }

 private:
   RelayVrfSet& set_;
};

class RelayVrfSet::CountReactor : public VrfWithCount::Reactor {
 public:
   CountReactor(RelayVrfSet& set, const Ptr<const VrfWithCount>& count) : set_(set) {
      notifierIs(count);
   }
   void handleCount() override { set_.handleActiveVrfDir(notifier()->vrfName()); }

 private:
   RelayVrfSet& set_;
};

RelayVrfSet::RelayVrfSet(Owner& owner, const Ptr<const Ip::AllVrfStatusLocal>& vrfStatus,
                         const Ptr<const VrfWithCountDir>& activeVrfDir)
    : owner_(owner), vrfStatus_(vrfStatus), activeVrfDir_(activeVrfDir) {
   vrfsReactor_ = std::make_unique<VrfsReactor>(*this, vrfStatus_);
   activeDirReactor_ = std::make_unique<ActiveDirReactor>(*this, activeVrfDir_);
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
      auto& reactor = vrfReactor_[vrf];
      if (!reactor)
         reactor = std::make_unique<VrfReactor>(*this, status);
   } else {
      vrfReactor_.erase(vrf);
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
      auto& reactor = countReactor_[vrf];
      if (!reactor)
         reactor = std::make_unique<CountReactor>(*this, count);
   } else {
      countReactor_.erase(vrf);
   }
   if (needed(vrf)) {
      if (usable(vrf))
         owner_.handleVrfAdd(vrf);
   } else {
      owner_.handleVrfDel(vrf);
   }
}

bool RelayVrfSet::needed(const VrfName& vrf) const {
   Ptr<VrfWithCount> count = activeVrfDir_->vrfCount(vrf);
   return count && (vrf.isDefault() || count->count() > 0);
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
