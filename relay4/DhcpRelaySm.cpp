#include "relay4/DhcpRelaySm.h"

#include "codec/DhcpCodec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::VrfName;

// Per relay interface: its configuration, and its addresses and VRF while it has IP status.
class DhcpRelaySm::KelDrIntfConfig {
 public:
   KelDrIntfConfig(DhcpRelaySm& sm, const Ptr<const IntfConfig>& config) : intf_(config->intfId()) {
      config_.on(&IntfConfig::Reactor::handleSmartRelay,
                 [&sm, this] { sm.handleSmartRelay(intf_); });
      config_.notifierIs(config);
      ipIntfStatus_.on(&Ip::IpIntfStatus::Reactor::handleActiveAddrWithMask,
                       [&sm, this] { sm.handleAddrChange(intf_); });
      ipIntfStatus_.on(
          &Ip::IpIntfStatus::Reactor::handleActiveSecondaryWithMask,
          [&sm, this](const Platform::IpAddrWithMask&) { sm.handleSecondaryChange(intf_); });
      ipIntfStatus_.on(&Ip::IpIntfStatus::Reactor::handleVrf, [&sm, this] { sm.handleVrf(intf_); });
   }
   const Ptr<const IntfConfig>& intfConfig() const { return config_.notifier(); }
   const Ptr<const Ip::IpIntfStatus>& ipIntfStatus() const { return ipIntfStatus_.notifier(); }
   void ipIntfStatusIs(const Ptr<const Ip::IpIntfStatus>& status) {
      ipIntfStatus_.notifierIs(status);
   }

   DhcpSmartRelayIntfSm* smartRelaySm() const { return smartRelaySm_.get(); }
   void smartRelaySmIs(Platform::TimerWheel& wheel, const Ptr<Status>& status) {
      smartRelaySm_ = std::make_unique<DhcpSmartRelayIntfSm>(wheel, status, ipIntfStatus());
      smartRelaySm_->handleInitialized();
   }
   void smartRelaySmDel() { smartRelaySm_.reset(); }

   // The VRF the interface's rows are under.
   VrfName vrf;

 private:
   const IntfId intf_;
   Platform::Watch<const IntfConfig> config_;
   Platform::Watch<const Ip::IpIntfStatus> ipIntfStatus_;
   std::unique_ptr<DhcpSmartRelayIntfSm> smartRelaySm_;
};

namespace {

const DhcpRelaySm::Inputs& checked(const DhcpRelaySm::Inputs& in) {
   PLATFORM_ASSERT(in.config && in.status && in.ipStatus && in.vrfStatus &&
                       in.deviceIntfStatusDir && in.packetQueues && in.activeVrfDir &&
                       in.intfServerIpDir && in.clientContext && in.entityManager &&
                       in.intfStatusManagerRoot && in.pamFactory && in.timerWheel,
                   "DhcpRelaySm inputs");
   return in;
}

}  // namespace

DhcpRelaySm::DhcpRelaySm(Inputs inputs)
    : in_(checked(inputs)), vrfs_(*this, in_.vrfStatus, in_.activeVrfDir) {
   config_.on(&Config::Reactor::handleIntfConfig, [this](const IntfId& i) { onIntfConfig(i); });
   config_.on(&Config::Reactor::handleSmartRelayGlobal, [this] { handleSmartRelayGlobal(); });
   config_.notifierIs(in_.config);
   ipStatus_.on(&Ip::Status::Reactor::handleIpIntfStatus,
                [this](const IntfId& i) { handleIpIntfStatus(i); });
   ipStatus_.notifierIs(in_.ipStatus);
   // The whole queue, on attachment too: packets may be waiting already.
   using WholeQueue = void (DhcpPacketQueues::Reactor::*)();
   packetQueues_.on(WholeQueue(&DhcpPacketQueues::Reactor::handleSnoopingToRelayPacket),
                    [this] { handleSnoopingToRelayPacket(); });
   packetQueues_.onAttached([this] { handleSnoopingToRelayPacket(); });
   packetQueues_.notifierIs(in_.packetQueues);
}

// Sockets close (with their machines) before the records they read go away.
DhcpRelaySm::~DhcpRelaySm() = default;

void DhcpRelaySm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   bindings_.emplace(*in_.timerWheel, in_.clientContext, in_.status);
   for (const auto& [intf, config] : in_.config->intfConfig())
      onIntfConfig(intf);
   vrfs_.handleInitialized();
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
   updateIntfStatus(intf);
   handleIpIntfStatus(intf);
   in_.status->runControlIs(!kelDrIntfConfig_.empty());
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
   for (const VrfIpPair& row : lookup_.rows(intf))
      TRACE(4, " delete ( ", row, " ) from lookup table");
   lookup_.rowsDel(intf);
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
      lookup_.rowIs(genVrfIpPair(vrf, primary), intf);
   }
   for (const Platform::IpAddrWithMask& secondary : status->activeSecondaryWithMask()) {
      TRACE(4, " adding secondary ip ( ", secondary.address(), ":vrf=", vrf, " ) to lookup table");
      lookup_.rowIs(genVrfIpPair(vrf, secondary.address()), intf);
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
      TRACE(2, " create smart relay SM for interface ", intf);
      reactor->smartRelaySmIs(*in_.timerWheel, in_.status);
   }
   // On Linux addresses come and go under the relay: without a secondary there is nowhere
   // to move a client to, so the interface relays from its primary until one appears.
   if (Ptr<IntfStatus> entry = in_.status->intfStatus(intf)) {
      const bool idle = wanted && status->activeSecondaryWithMask().empty();
      if (idle && !entry->smartRelayNoSecondary())
         TRACE(1, " smart relay on ", intf, " has no secondary address: relaying from the primary");
      entry->smartRelayNoSecondaryIs(idle);
   }
}

DhcpSmartRelayIntfSm* DhcpRelaySm::smartRelaySm(const IntfId& intf) const {
   KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   return reactor ? smartRelaySmOf(*reactor) : nullptr;
}

DhcpSmartRelayIntfSm* DhcpRelaySm::smartRelaySmOf(const KelDrIntfConfig& reactor) {
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

DhcpRelaySm::KelDrIntfConfig* DhcpRelaySm::kelDrIntfConfig(const IntfId& intf) const {
   auto it = kelDrIntfConfig_.find(intf);
   return it == kelDrIntfConfig_.end() ? nullptr : it->second.get();
}

const VrfName* DhcpRelaySm::rowsVrf(const IntfId& intf) const {
   const KelDrIntfConfig* reactor = kelDrIntfConfig(intf);
   return reactor ? &reactor->vrf : nullptr;
}

VrfName DhcpRelaySm::vrfNameFromIntfId(const IntfId& intf) const {
   Ptr<Ip::IpIntfStatus> status = in_.ipStatus->ipIntfStatus(intf);
   return status ? status->vrf() : VrfName();
}

// --- VRFs ------------------------------------------------------------------------------

void DhcpRelaySm::handleVrfAdd(const VrfName& vrf) {
   if (dhcpVrfSm(vrf) || !vrfs_.usable(vrf))
      return;
   const Platform::NamespaceName nsName = vrfs_.nsName(vrf);
   TRACE(2, " vrf ", vrf, " namespace ", nsName);
   dhcpVrfSm_[vrf] = std::make_unique<DhcpVrfSm>(
       vrf, nsName, in_.config,
       VrfSockets::Deps{*in_.pamFactory, *in_.entityManager, *in_.intfStatusManagerRoot,
                        in_.deviceIntfStatusDir},
       *in_.status, *this);
}

void DhcpRelaySm::handleVrfDel(const VrfName& vrf) {
   auto node = dhcpVrfSm_.extract(vrf);
   if (!node)
      return;
   TRACE(2, " vrf ", vrf);
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
   if (MessageTrace::on())
      msgTrace_.arrivedIs(intf, vrf, op == bootReply ? srcIp : IpAddr());

   // Our own broadcast on a link comes back to our socket on that link.
   const IntfId* owner = lookup_.find(vrf.str(), srcIp);
   if (owner && *owner == intf) {
      TRACE(7, " dropping packet received from",
            " the interface that sent it. Packet IP SA=", srcIp, " interface=", intf);
      doDropped(op, intf, DropReason::ownEcho);
      return;
   }
   std::optional<DhcpHdr> hdr = DhcpHdr::of(pkt);
   if (!hdr) {
      TRACE(5, " packet of ", pkt.bytes(), " bytes is shorter than the DHCP header on ", intf,
            ". Dropping packet.");
      doDropped(op, intf, DropReason::tooShort);
      return;
   }
   if (MessageTrace::on())
      msgTrace_.messageIs(getDhcpMsgType(pkt, 0), hdr->chaddr(), hdr->xid());
   if (hdr->hops() > kHopsMax) {
      TRACE(5, " hops greater than.", kHopsMax, ". Dropping packet.");
      doDropped(op, intf, DropReason::hopLimit);
      return;
   }
   DhcpVrfSm* sm = dhcpVrfSm(vrf);
   if (!sm) {
      TRACE(5, " No vrfSm for vrf ", vrf, ". Dropping packet.");
      doDropped(op, intf, DropReason::noVrfSocket);
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
         status.dropsInc(DropReason::unknownOp);
         msgTrace_.dropped(DropReason::unknownOp);
         return;
   }
}

}  // namespace Ip::Helper::DhcpRelay
