#include "relay6/DhcpRelaySmv6.h"

#include "codec/Dhcp6Codec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::VrfName;

namespace {

const DhcpRelaySmv6::Inputs& checked(const DhcpRelaySmv6::Inputs& in) {
   PLATFORM_ASSERT(in.config && in.status && in.ip6Status && in.vrfStatus &&
                       in.deviceIntfStatusDir && in.activeVrfDir && in.entityMib && in.mcGroups &&
                       in.entityManager && in.intfStatusManagerRoot && in.pamFactory &&
                       in.timerWheel,
                   "DhcpRelaySmv6 inputs");
   return in;
}

bool hasServerIp6(const IntfConfig& config) {
   for (const auto& [server, configured] : config.serverIp6()) {
      if (configured)
         return true;
   }
   return false;
}

}  // namespace

DhcpRelaySmv6::DhcpRelaySmv6(Inputs inputs)
    : in_(checked(inputs)), vrfs_(*this, in_.vrfStatus, in_.activeVrfDir) {
   config_.on(&Config::Reactor::handleIntfConfig,
              [this](const IntfId& i) { handleRelayConfig(i); });
   config_.on(&Config::Reactor::handleAlwaysOn, [this] { handleAlwaysOn(); });
   config_.notifierIs(in_.config);
   ip6Status_.on(&Ip6::Status::Reactor::handleIntf,
                 [this](const IntfId& i) { handleIp6IntfStatus(i); });
   ip6Status_.notifierIs(in_.ip6Status);
}

// Sockets close (with their machines) before the records they read go away.
DhcpRelaySmv6::~DhcpRelaySmv6() {
   dhcpVrfSmv6_.clear();
   in_.mcGroups->mcaddrDel(DhcpVrfSmv6::kAllRelayAgentsAndServers);
}

void DhcpRelaySmv6::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   for (const auto& [intf, config] : in_.config->intfConfig())
      handleRelayConfig(intf);
   handleAlwaysOn();
   vrfs_.handleInitialized();
}

// --- interfaces -----------------------------------------------------------------------------

DhcpRelaySmv6::Intf* DhcpRelaySmv6::intf(const IntfId& intf) const {
   auto it = intfs_.find(intf);
   return it == intfs_.end() ? nullptr : it->second.get();
}

void DhcpRelaySmv6::handleRelayConfig(const IntfId& id) {
   if (!initialized_)
      return;
   TRACE(4, " for ", id);
   const Ptr<IntfConfig> config = in_.config->intfConfig(id);
   if (!config) {
      if (Intf* state = intf(id)) {
         state->config.notifierIs(nullptr);
         handleServerIp6(id);
         intfs_.erase(id);
      }
      return;
   }
   auto& state = intfs_[id];
   if (!state) {
      state = std::make_unique<Intf>();
      state->config.on(&IntfConfig::Reactor::handleServerIp6,
                       [this, id](const VrfIpSrcIntfSrcIp&) { handleServerIp6(id); });
      state->config.on(&IntfConfig::Reactor::handleCcapCores,
                       [this, id](const Ip6Addr&) { handleCcapCores(id); });
      state->config.on(&IntfConfig::Reactor::handleRouteInstall,
                       [this, id] { handleRouteInstall(id); });
      state->ip6.on(&Ip6::IntfStatus::Reactor::handleAddr,
                    [this, id](const Platform::Ip6Prefix&) { handleIp6IntfStatus(id); });
      state->ip6.on(&Ip6::IntfStatus::Reactor::handleVrf, [this, id] { handleIp6IntfStatus(id); });
   }
   if (state->config.notifier() != config)
      state->config.notifierIs(config);
   handleServerIp6(id);
   handleCcapCores(id);
}

// First and last server of an interface: it relays from the one to the other.
void DhcpRelaySmv6::handleServerIp6(const IntfId& id) {
   Intf* state = intf(id);
   if (!initialized_ || !state)
      return;
   const Ptr<const IntfConfig>& config = state->config.notifier();
   const bool relaying = config && hasServerIp6(*config);
   if (relaying == state->relaying)
      return;
   state->relaying = relaying;
   if (relaying) {
      ++relayingCount_;
      TRACE(2, "First serverIp6 address added for interface: ", id);
   } else {
      --relayingCount_;
      TRACE(2, "Last serverIp6 address removed for interface: ", id);
   }
   doUpdateStatusIntf(id, *state);
   handleIp6IntfStatus(id);
}

void DhcpRelaySmv6::handleCcapCores(const IntfId& id) {
   Intf* state = intf(id);
   if (!initialized_ || !state)
      return;
   state->ccapCores.clear();
   if (const Ptr<const IntfConfig>& config = state->config.notifier()) {
      for (const auto& [core, configured] : config->ccapCores()) {
         if (configured)
            state->ccapCores.push_back(core);
      }
   }
}

void DhcpRelaySmv6::doUpdateStatusIntf(const IntfId& id, Intf& state) {
   if (state.relaying) {
      in_.status->intfStatusIs(id);
      TRACE(3, "   added ", id, " to status.");
   } else {
      // Its routes go with its bindings, before the status that holds them.
      delIntfPrefixBindings(id, state);
      state.pdTimers.clear();
      in_.status->intfStatusDel(id);
      TRACE(3, "   removed ", id, " from status.");
   }
   doRunControl();
}

void DhcpRelaySmv6::handleAlwaysOn() {
   if (!initialized_)
      return;
   doRunControl();
}

// The default VRF is never counted among the VRFs in use: it keeps its socket while the
// relay runs.
void DhcpRelaySmv6::doRunControl() {
   const bool run = relayingCount_ > 0 || in_.config->alwaysOn();
   vrfs_.defaultPinnedIs(run);
   if (run == in_.status->runControl())
      return;
   TRACE(2, "   changed run control to ", run ? "true " : "false ");
   in_.status->runControlIs(run);
}

// Addresses and VRF: the lookup rows, the link addresses the paths use, and the VRF's set of
// relaying interfaces, all rebuilt whole so that a packet never sees half of a change.
void DhcpRelaySmv6::handleIp6IntfStatus(const IntfId& id) {
   if (!initialized_)
      return;
   Intf* state = intf(id);
   for (const VrfIpPair& row : lookup_.rows(id))
      TRACE(4, "   deleting ip ( ", row, " ) from lookup table");
   lookup_.rowsDel(id);
   if (!state)
      return;
   const Ptr<Ip6::IntfStatus> status = state->relaying ? in_.ip6Status->intf(id) : nullptr;
   if (state->ip6.notifier() != status)
      state->ip6.notifierIs(status);
   const Ip6Addr linkLocalBefore = state->linkLocal;
   state->linkAddress = state->linkLocal = Ip6Addr();
   state->prefixes.clear();
   if (status) {
      const VrfName& vrf = status->vrf();
      for (const Platform::Ip6Prefix& prefix : status->addr()) {
         const Ip6Addr addr = prefix.address();
         state->prefixes.push_back(prefix);
         if (addr.isLinkLocal() && state->linkLocal.isZero())
            state->linkLocal = addr;
         else if (addr.isGlobalUnicast() && state->linkAddress.isZero())
            state->linkAddress = addr;
         TRACE(4, "   adding ip ( ", vrf, ", ", addr, " ) to lookup table");
         lookup_.rowIs(genVrfIpPair(vrf, addr), id);
      }
   }
   doIntfsInVrf(id, *state);
   // A device that came back (down and up, or made again) gets its link-local address anew
   // and has none of its routes left; other address changes leave them alone.
   if (state->inVrf && !state->linkLocal.isZero() && state->linkLocal != linkLocalBefore)
      doSyncPdRoutes(id, *state);
}

void DhcpRelaySmv6::doIntfsInVrf(const IntfId& id, Intf& state) {
   const Ptr<const Ip6::IntfStatus>& status = state.ip6.notifier();
   const bool member = state.relaying && status;
   if (state.inVrf && (!member || status->vrf() != state.vrf)) {
      TRACE(3, "deleting from ", state.vrf, " intfsInVrf ", id);
      auto it = intfsInVrf_.find(state.vrf);
      if (it != intfsInVrf_.end()) {
         it->second.erase(id);
         if (it->second.empty())
            intfsInVrf_.erase(it);
      }
      if (DhcpVrfSmv6* sm = dhcpVrfSmv6(state.vrf))
         sm->handleIntfsInVrf(id, false);
      state.inVrf = false;
      clearPrefixBindingsFromOldVrf(id, state);
   }
   if (member && !state.inVrf) {
      state.vrf = status->vrf();
      TRACE(3, "adding to ", state.vrf, " intfsInVrf ", id);
      intfsInVrf_[state.vrf].insert(id);
      if (DhcpVrfSmv6* sm = dhcpVrfSmv6(state.vrf))
         sm->handleIntfsInVrf(id, true);
      state.inVrf = true;
      doRestoreBindings(id, state);
   }
   if (!intfsInVrf_.empty())
      in_.mcGroups->mcaddrIs(DhcpVrfSmv6::kAllRelayAgentsAndServers);
   else
      in_.mcGroups->mcaddrDel(DhcpVrfSmv6::kAllRelayAgentsAndServers);
}

Ip6Addr DhcpRelaySmv6::globalAddressOf(const Ip6::IntfStatus& status) {
   for (const Platform::Ip6Prefix& prefix : status.addr()) {
      if (prefix.address().isGlobalUnicast())
         return prefix.address();
   }
   return Ip6Addr();
}

bool DhcpRelaySmv6::inSubnets(const Intf& state, const Ip6Addr& addr) {
   for (const Platform::Ip6Prefix& prefix : state.prefixes) {
      if (prefix.contains(addr))
         return true;
   }
   return false;
}

// --- VRFs -----------------------------------------------------------------------------------

void DhcpRelaySmv6::handleVrfAdd(const VrfName& vrf) {
   if (dhcpVrfSmv6(vrf) || !vrfs_.usable(vrf)) {
      TRACE(5, " ", vrf, " already exists ");
      return;
   }
   const Platform::NamespaceName nsName = vrfs_.nsName(vrf);
   TRACE(2, " vrf ", vrf, " namespace ", nsName);
   auto sm = std::make_unique<DhcpVrfSmv6>(
       vrf, nsName, in_.config,
       VrfSockets::Deps{*in_.pamFactory, *in_.entityManager, *in_.intfStatusManagerRoot,
                        in_.deviceIntfStatusDir},
       *in_.status, *this, *in_.timerWheel);
   DhcpVrfSmv6& added = *sm;
   dhcpVrfSmv6_[vrf] = std::move(sm);
   if (auto it = intfsInVrf_.find(vrf); it != intfsInVrf_.end()) {
      for (const IntfId& intf : it->second) {
         added.handleIntfsInVrf(intf, true);
         if (Intf* state = this->intf(intf))
            doSyncPdRoutes(intf, *state);
      }
   }
}

void DhcpRelaySmv6::handleVrfDel(const VrfName& vrf) {
   auto node = dhcpVrfSmv6_.extract(vrf);
   if (!node) {
      TRACE(5, " ", vrf, " does not exist ");
      return;
   }
   TRACE(2, " vrf ", vrf);
   node.mapped()->handleDel();
}

DhcpVrfSmv6* DhcpRelaySmv6::dhcpVrfSmv6(const VrfName& vrf) const {
   auto it = dhcpVrfSmv6_.find(vrf);
   return it == dhcpVrfSmv6_.end() ? nullptr : it->second.get();
}

// --- packets --------------------------------------------------------------------------------

void DhcpRelaySmv6::doProcessPacket(Platform::Pkt& pkt, const Ip6Addr& srcIp,
                                    const Ip6Addr& /*dstIp*/, const IntfId& intf,
                                    const VrfName& vrf) {
   if (pkt.bytes() < Dhcp6Layout::clientHeader) {
      TRACE(5, " packet of ", pkt.bytes(), " bytes is shorter than the DHCPv6 header on ", intf,
            ". Dropping packet.");
      doDropped(pkt.bytes() ? pkt.data()[0] : 0, intf, DropReason::tooShort);
      return;
   }
   const uint8_t type = pkt.data()[0];
   switch (type) {
      case dhcp6Advertise:
      case dhcp6Reply:
      case dhcp6Reconfigure:
         TRACE(5, "   received msg-type ", type, ". ", "Dropping packet.");
         doDropped(type, intf, DropReason::serverMessage);
         return;
      case dhcp6RelayRepl:
         handleRelayReply(pkt, srcIp, vrf);
         return;
      default:
         handleForwardReq(pkt, srcIp, type, intf, vrf);
         return;
   }
}

void DhcpRelaySmv6::doDropped(uint8_t msgType, const IntfId& intf, DropReason reason) {
   pkt6Dropped(*in_.status, msgType, intf, reason);
   if (Platform::Trace::keeps(5))
      TRACE_PLAIN(5, dhcp6MsgTypeName(msgType), " on ", intf, ": dropped (", dropReasonName(reason),
                  ")");
}

uint32_t DhcpRelaySmv6::doPendingSend(uint8_t msgType, const IntfId& intf) {
   const uint32_t cookie = nextPending_;
   nextPending_ = (nextPending_ + 1) % pending_.size();
   pending_[cookie] = PendingSend{msgType, intf};
   return cookie;
}

void DhcpRelaySmv6::handleSendDone(uint32_t cookie, bool sent) {
   const PendingSend& send = pending_[cookie];
   if (sent)
      pkt6Forwarded(*in_.status, send.msgType, send.intf);
   else
      doDropped(send.msgType, send.intf, DropReason::sendFailed);
}

std::optional<Platform::EgressRoute> DhcpRelaySmv6::egressRoute(DhcpVrfSmv6& sm,
                                                                const Ip6Addr& server) {
   const EgressRouteCache::Answer* answer = sm.egressRoute(server);
   if (!answer)
      return std::nullopt;
   if (!answer->route)
      TRACE(5, " no route to ", server, " in vrf ", sm.vrfName(), ": ", answer->error);
   return answer->route;
}

}  // namespace Ip::Helper::DhcpRelay
