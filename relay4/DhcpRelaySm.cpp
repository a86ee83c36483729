#include "relay4/DhcpRelaySm.h"

#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::VrfName;

class DhcpRelaySm::ConfigReactor : public Config::Reactor {
 public:
   ConfigReactor(DhcpRelaySm& sm, const Ptr<const Config>& config) : sm_(sm) { notifierIs(config); }
   void handleIntfConfig(const IntfId& intf) override { sm_.onIntfConfig(intf); }
   void handleSmartRelayGlobal() override { sm_.handleSmartRelayGlobal(); }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::IpStatusReactor : public Ip::Status::Reactor {
 public:
   IpStatusReactor(DhcpRelaySm& sm, const Ptr<const Ip::Status>& status) : sm_(sm) {
      notifierIs(status);
   }
   void handleIpIntfStatus(const IntfId& intf) override { sm_.handleIpIntfStatus(intf); }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::AllVrfStatusReactor : public Ip::AllVrfStatusLocal::Reactor {
 public:
   AllVrfStatusReactor(DhcpRelaySm& sm, const Ptr<const Ip::AllVrfStatusLocal>& vrfs) : sm_(sm) {
      notifierIs(vrfs);
   }
   void handleVrf(const VrfName& vrf) override { sm_.handleAllVrfStatus(vrf); }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::VrfStatusReactor : public Ip::VrfStatusLocal::Reactor {
 public:
   VrfStatusReactor(DhcpRelaySm& sm, const Ptr<const Ip::VrfStatusLocal>& vrf) : sm_(sm) {
      notifierIs(vrf);
   }
   void handleState() override { sm_.handleVrfStatus(notifier()->vrf()); }
   // Sockets cannot follow a VRF into another namespace: they are opened again there.
   void handleNsName() override {
      const VrfName vrf = notifier()->vrf();
      sm_.handleVrfDel(vrf);
      sm_.handleVrfStatus(vrf);
   }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::ActiveVrfDirReactor : public VrfWithCountDir::Reactor {
 public:
   ActiveVrfDirReactor(DhcpRelaySm& sm, const Ptr<const VrfWithCountDir>& dir) : sm_(sm) {
      notifierIs(dir);
   }
   void handleVrfCount(const VrfName& vrf) override { sm_.handleActiveVrfDir(vrf); }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::VrfWithCountReactor : public VrfWithCount::Reactor {
 public:
   VrfWithCountReactor(DhcpRelaySm& sm, const Ptr<const VrfWithCount>& count) : sm_(sm) {
      notifierIs(count);
   }
   void handleCount() override { sm_.handleActiveVrfDir(notifier()->vrfName()); }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::PacketQueuesReactor : public DhcpPacketQueues::Reactor {
 public:
   PacketQueuesReactor(DhcpRelaySm& sm, const Ptr<const DhcpPacketQueues>& queues) : sm_(sm) {
      notifierIs(queues);
   }
   void handleSnoopingToRelayPacket() override { sm_.handleSnoopingToRelayPacket(); }

 private:
   DhcpRelaySm& sm_;
};

// The interface's addresses and VRF, followed while it has IP status.
class DhcpRelaySm::IpIntfStatusReactor : public Ip::IpIntfStatus::Reactor {
 public:
   IpIntfStatusReactor(DhcpRelaySm& sm, const Ptr<const Ip::IpIntfStatus>& status) : sm_(sm) {
      notifierIs(status);
   }
   void handleActiveAddrWithMask() override { sm_.handleAddrChange(notifier()->intfId()); }
   void handleActiveSecondaryWithMask(const Platform::IpAddrWithMask&) override {
      sm_.handleSecondaryChange(notifier()->intfId());
   }
   void handleVrf() override { sm_.handleVrf(notifier()->intfId()); }

 private:
   DhcpRelaySm& sm_;
};

class DhcpRelaySm::KelDrIntfConfig : public IntfConfig::Reactor {
 public:
   KelDrIntfConfig(DhcpRelaySm& sm, const Ptr<const IntfConfig>& config) : sm_(sm) {
      notifierIs(config);
   }
   const Ptr<const IntfConfig>& intfConfig() const { return notifier(); }
   const Ptr<const Ip::IpIntfStatus> ipIntfStatus() const {
      return ipIntfStatus_ ? ipIntfStatus_->notifier() : nullptr;
   }
   void ipIntfStatusIs(const Ptr<const Ip::IpIntfStatus>& status) {
      if (status == ipIntfStatus())
         return;
      ipIntfStatus_ = status ? std::make_unique<IpIntfStatusReactor>(sm_, status) : nullptr;
   }
   void handleSmartRelay() override { sm_.handleSmartRelay(notifier()->intfId()); }

   DhcpSmartRelayIntfSm* smartRelaySm() const { return smartRelaySm_.get(); }
   void smartRelaySmIs(Platform::TimerWheel& wheel, const Ptr<Status>& status) {
      smartRelaySm_ = std::make_unique<DhcpSmartRelayIntfSm>(wheel, status, ipIntfStatus());
      smartRelaySm_->handleInitialized();
   }
   void smartRelaySmDel() { smartRelaySm_.reset(); }

   // The VRF the interface's rows are under.
   VrfName vrf;

 private:
   DhcpRelaySm& sm_;
   std::unique_ptr<IpIntfStatusReactor> ipIntfStatus_;
   std::unique_ptr<DhcpSmartRelayIntfSm> smartRelaySm_;
};

DhcpRelaySm::DhcpRelaySm(Inputs inputs) : in_(std::move(inputs)) {
   PLATFORM_ASSERT(in_.config && in_.status && in_.ipStatus && in_.vrfStatus &&
                       in_.deviceIntfStatusDir && in_.packetQueues && in_.activeVrfDir &&
                       in_.intfServerIpDir && in_.clientContext && in_.entityManager &&
                       in_.intfStatusManagerRoot && in_.pamFactory,
                   "DhcpRelaySm inputs");
   configReactor_ = std::make_unique<ConfigReactor>(*this, in_.config);
   ipStatusReactor_ = std::make_unique<IpStatusReactor>(*this, in_.ipStatus);
   allVrfStatusReactor_ = std::make_unique<AllVrfStatusReactor>(*this, in_.vrfStatus);
   activeVrfDirReactor_ = std::make_unique<ActiveVrfDirReactor>(*this, in_.activeVrfDir);
   packetQueuesReactor_ = std::make_unique<PacketQueuesReactor>(*this, in_.packetQueues);
}

DhcpRelaySm::~DhcpRelaySm() {
   // Sockets close before the records they read go away.
   for (auto& [vrf, sm] : dhcpVrfSm_)
      sm->handleDel();
}

void DhcpRelaySm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   for (const auto& [intf, config] : in_.config->intfConfig())
      onIntfConfig(intf);
   for (const auto& [vrf, status] : in_.vrfStatus->vrf())
      handleAllVrfStatus(vrf);
   for (const auto& [vrf, count] : in_.activeVrfDir->vrfCount())
      handleActiveVrfDir(vrf);
}

// --- interfaces -----------------------------------------------------------------------

void DhcpRelaySm::onIntfConfig(const IntfId& intf) {
   if (!initialized_)
      return;
   Ptr<IntfConfig> config = in_.config->intfConfig(intf);
   if (config) {
      auto& reactor = kelDrIntfConfig_[intf];
      if (!reactor) {
         TRACE(3, " relay configured on interface ", intf);
         reactor = std::make_unique<KelDrIntfConfig>(*this, config);
      }
   } else if (auto node = kelDrIntfConfig_.extract(intf)) {
      TRACE(3, " relay no longer configured on interface ", intf);
      if (node.mapped()->smartRelaySm()) {
         TRACE(2, " delete smart relay SM for interface ", intf);
         node.mapped()->smartRelaySmDel();
      }
   }
   handleIpIntfStatus(intf);
   updateIntfStatus(intf);
}

void DhcpRelaySm::updateIntfStatus(const IntfId& intf) {
   if (!in_.config || !in_.status) {
      TRACE(1, "Unable to update DhcpRelay intfStatus for interface: ", intf,
            " Missing DhcpRelay config or status ", "object in state machine. ");
      return;
   }
   if (in_.config->intfConfig(intf))
      in_.status->intfStatusIs(intf);
   else
      in_.status->intfStatusDel(intf);
}

void DhcpRelaySm::handleIpIntfStatus(const IntfId& intf) {
   if (!initialized_)
      return;
   // Rows are rebuilt whole so that a packet never sees half of an interface's addresses.
   for (auto it = intfLookupTbl_.begin(); it != intfLookupTbl_.end();) {
      auto next = std::next(it);
      if (it->second == intf) {
         TRACE(4, " delete ( ", it->first, " ) from lookup table");
         intfLookupTblDel(it->first);
      }
      it = next;
   }
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   if (!reactor)
      return;
   Ptr<Ip::IpIntfStatus> status = in_.ipStatus->ipIntfStatus(intf);
   reactor->ipIntfStatusIs(status);
   if (!status) {
      handleSmartRelay(intf);
      return;
   }
   reactor->vrf = status->vrf();
   const VrfName& vrf = reactor->vrf;
   const IpAddr primary = status->activeAddrWithMask().address();
   if (!primary.isZero()) {
      TRACE(4, " adding ( ", primary, ":vrf=", vrf, " ) to lookup table");
      intfLookupTblIs(genVrfIpPair(vrf, primary), intf);
   }
   for (const Platform::IpAddrWithMask& secondary : status->activeSecondaryWithMask()) {
      TRACE(4, " adding secondary ip ( ", secondary.address(), ":vrf=", vrf, " ) to lookup table");
      intfLookupTblIs(genVrfIpPair(vrf, secondary.address()), intf);
   }
   handleSmartRelay(intf);
}

void DhcpRelaySm::handleSmartRelayGlobal() {
   if (!initialized_)
      return;
   for (const auto& [intf, reactor] : kelDrIntfConfig_)
      handleSmartRelay(intf);
}

void DhcpRelaySm::handleSmartRelay(const IntfId& intf) {
   if (!initialized_)
      return;
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   if (!reactor)
      return;
   const Ptr<const Ip::IpIntfStatus> status = reactor->ipIntfStatus();
   const bool wanted =
       status && (reactor->intfConfig()->smartRelay() || in_.config->smartRelayGlobal());
   DhcpSmartRelayIntfSm* current = reactor->smartRelaySm();
   if (current && (!wanted || current->ipIntfStatus() != status)) {
      TRACE(2, " delete smart relay SM for interface ", intf);
      reactor->smartRelaySmDel();
      current = nullptr;
   }
   if (wanted && !current) {
      PLATFORM_ASSERT(in_.timerWheel, "DhcpRelaySm inputs: timerWheel");
      TRACE(2, " create smart relay SM for interface ", intf);
      reactor->smartRelaySmIs(*in_.timerWheel, in_.status);
   }
}

DhcpSmartRelayIntfSm* DhcpRelaySm::smartRelaySm(const IntfId& intf) const {
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   return reactor ? smartRelaySm(*reactor) : nullptr;
}

DhcpSmartRelayIntfSm* DhcpRelaySm::smartRelaySm(const KelDrIntfConfig& reactor) {
   return reactor.smartRelaySm();
}

void DhcpRelaySm::handleVrf(const IntfId& intf) {
   if (!initialized_)
      return;
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   Ptr<const Ip::IpIntfStatus> status = reactor ? reactor->ipIntfStatus() : nullptr;
   if (!status) {
      TRACE(3, " dhcp intf status not present for ", intf);
      return;
   }
   if (status->vrf() == reactor->vrf) {
      TRACE(4, " No change in VRF for interface ", intf);
      return;
   }
   TRACE(3, intf, " has current VRF:", reactor->vrf, ", new VRF: ", status->vrf());
   handleIpIntfStatus(intf);
}

void DhcpRelaySm::intfLookupTblIs(const VrfIpPair& key, const IntfId& intf) {
   intfLookupTbl_[key] = intf;
}

void DhcpRelaySm::intfLookupTblDel(const VrfIpPair& key) {
   intfLookupTbl_.erase(key);
}

IntfId DhcpRelaySm::intfLookupTbl(const VrfIpPair& key) const {
   auto it = intfLookupTbl_.find(key);
   return it == intfLookupTbl_.end() ? IntfId() : it->second;
}

DhcpRelaySm::KelDrIntfConfig* DhcpRelaySm::kelDrIntfConfig(const IntfId& intf) const {
   auto it = kelDrIntfConfig_.find(intf);
   return it == kelDrIntfConfig_.end() ? nullptr : it->second.get();
}

VrfName DhcpRelaySm::vrfNameFromIntfId(const IntfId& intf) const {
   Ptr<Ip::IpIntfStatus> status = in_.ipStatus->ipIntfStatus(intf);
   return status ? status->vrf() : VrfName();
}

// --- VRFs ------------------------------------------------------------------------------

void DhcpRelaySm::handleAllVrfStatus(const VrfName& vrf) {
   if (!initialized_)
      return;
   Ptr<Ip::VrfStatusLocal> status = in_.vrfStatus->vrf(vrf);
   if (status) {
      auto& reactor = vrfStatusReactor_[vrf];
      if (!reactor)
         reactor = std::make_unique<VrfStatusReactor>(*this, status);
   } else {
      vrfStatusReactor_.erase(vrf);
   }
   handleVrfStatus(vrf);
}

void DhcpRelaySm::handleVrfStatus(const VrfName& vrf) {
   if (!initialized_)
      return;
   if (vrfUsable(vrf)) {
      if (vrfNeeded(vrf))
         handleVrfAdd(vrf);
   } else if (!vrf.isDefault()) {
      handleVrfDel(vrf);
   }
}

void DhcpRelaySm::handleActiveVrfDir(const VrfName& vrf) {
   if (!initialized_)
      return;
   Ptr<VrfWithCount> count = in_.activeVrfDir->vrfCount(vrf);
   if (count) {
      auto& reactor = vrfWithCountReactor_[vrf];
      if (!reactor)
         reactor = std::make_unique<VrfWithCountReactor>(*this, count);
   } else {
      vrfWithCountReactor_.erase(vrf);
   }
   if (vrfNeeded(vrf))
      handleVrfAdd(vrf);
   else
      handleVrfDel(vrf);
}

// The default VRF is entered with count 0 and always has relay sockets; any other
// VRF has them while something counts on it.
bool DhcpRelaySm::vrfNeeded(const VrfName& vrf) const {
   Ptr<VrfWithCount> count = in_.activeVrfDir->vrfCount(vrf);
   return count && (vrf.isDefault() || count->count() > 0);
}

bool DhcpRelaySm::vrfUsable(const VrfName& vrf) const {
   if (vrf.isDefault())
      return true;
   Ptr<Ip::VrfStatusLocal> status = in_.vrfStatus->vrf(vrf);
   return status && status->state() == Ip::VrfStatusLocal::State::active;
}

void DhcpRelaySm::handleVrfAdd(const VrfName& vrf) {
   if (dhcpVrfSm(vrf) || !vrfUsable(vrf))
      return;
   Ptr<Ip::VrfStatusLocal> status = in_.vrfStatus->vrf(vrf);
   const Platform::NamespaceName nsName = vrf.isDefault() || !status
                                              ? Platform::NamespaceName(VrfName::defaultVrf().str())
                                              : status->nsName();
   TRACE(2, " vrf ", vrf, " namespace ", nsName);
   dhcpVrfSmIs(vrf, nsName);
}

void DhcpRelaySm::handleVrfDel(const VrfName& vrf) {
   if (!dhcpVrfSm(vrf))
      return;
   TRACE(2, " vrf ", vrf);
   dhcpVrfSmDel(vrf);
}

void DhcpRelaySm::dhcpVrfSmIs(const VrfName& vrf, const Platform::NamespaceName& nsName) {
   dhcpVrfSm_[vrf] = std::make_unique<DhcpVrfSm>(vrf, nsName, in_.config, in_.deviceIntfStatusDir,
                                                 *in_.intfStatusManagerRoot, *in_.entityManager,
                                                 *in_.pamFactory, *this);
}

void DhcpRelaySm::dhcpVrfSmDel(const VrfName& vrf) {
   auto node = dhcpVrfSm_.extract(vrf);
   if (node)
      node.mapped()->handleDel();
}

DhcpVrfSm* DhcpRelaySm::dhcpVrfSm(const VrfName& vrf) const {
   auto it = dhcpVrfSm_.find(vrf);
   return it == dhcpVrfSm_.end() ? nullptr : it->second.get();
}

// --- packets ---------------------------------------------------------------------------

void DhcpRelaySm::doProcessPacket(Platform::Pkt& pkt, IpAddr srcIp, IpAddr dstIp,
                                  const IntfId& intf, const VrfName& vrf) {
   Status& status = *in_.status;
   const uint8_t op = pkt.bytes() ? pkt.data()[0] : 0;

   // Our own broadcast on a link comes back to our socket on that link.
   auto owner = intfLookupTbl_.find(genVrfIpPair(vrf, srcIp));
   if (owner != intfLookupTbl_.end() && owner->second == intf) {
      TRACE(7, " dropping packet received from",
            " the interface that sent it. Packet IP SA=", srcIp, " interface=", intf);
      pktDropped(status, op, intf);
      return;
   }
   std::optional<DhcpHdr> hdr = DhcpHdr::of(pkt);
   if (!hdr) {
      TRACE(5, " packet of ", pkt.bytes(), " bytes is shorter than the DHCP header on ", intf,
            ". Dropping packet.");
      pktDropped(status, op, intf);
      return;
   }
   if (hdr->hops() > kHopsMax) {
      TRACE(5, " hops greater than.", kHopsMax, ". Dropping packet.");
      pktDropped(status, op, intf);
      return;
   }
   DhcpVrfSm* sm = dhcpVrfSm(vrf);
   if (!sm) {
      TRACE(5, " No vrfSm for vrf ", vrf, ". Dropping packet.");
      pktDropped(status, op, intf);
      return;
   }
   switch (op) {
      case bootRequest:
         doProcessRequest(*sm, *hdr, pkt, srcIp, dstIp, intf);
         return;
      case bootReply:
         handleReply(*sm, *hdr, pkt, vrf, srcIp);
         return;
      default:
         TRACE(5, " unknown bootp op.", " Dropping packet.");
         return;
   }
}

}  // namespace Ip::Helper::DhcpRelay
