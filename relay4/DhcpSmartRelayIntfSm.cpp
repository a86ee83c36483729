#include "relay4/DhcpSmartRelayIntfSm.h"

#include "codec/DhcpCodec.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::EthAddr;
using Platform::IntfId;
using Platform::IpAddr;
using Platform::IpAddrWithMask;

// --- one client -------------------------------------------------------------------------

DhcpSmartRelayIntfSm::ClientState::ClientState(DhcpSmartRelayIntfSm& sm,
                                               const Ptr<SmartRelayState>& state)
    : sm_(sm), state_(state) {
   notifierIs(state);
}

DhcpSmartRelayIntfSm::ClientState::~ClientState() = default;

void DhcpSmartRelayIntfSm::ClientState::handleInitialized() {
   const EthAddr& mac = state_->ethAddr();
   const IpAddrWithMask& primary = sm_.ipIntfStatus()->activeAddrWithMask();
   TRACE(4, " initialize the gateway ", "address for packets from ", mac, " to ", primary);
   state_->gatewayAddressIs(primary);
   TRACE(4, " creating an expiry timer");
   timer_.emplace(sm_.timerWheel_, [this] { handleTimer(); });
   Status& status = *sm_.status_;
   status.numSmartRelayedHostsInc();
   PLATFORM_ASSERT(status.numSmartRelayedHosts() <= status.numSmartRelayedHostsMax(),
                   "statusObj->numSmartRelayedHosts() <= statusObj->numSmartRelayedHostsMax()");
   TRACE(4, "Number of smart-relayed hosts: ", status.numSmartRelayedHosts());
   initialized_ = true;
}

void DhcpSmartRelayIntfSm::ClientState::handleDiscoverCount() {
   if (!initialized_)
      return;
   const EthAddr& mac = state_->ethAddr();
   // A multiple of 3, or 0 after a reset: the current gateway address had its chance.
   if (state_->discoversWithoutOffer() % 3 == 0) {
      const Ip::IpIntfStatus& intf = *sm_.ipIntfStatus();
      const IpAddrWithMask& primary = intf.activeAddrWithMask();
      const auto& secondaries = intf.activeSecondaryWithMask();
      if (state_->gatewayAddress() == primary) {
         TRACE(5, " the gateway address is the primary IP");
         // The administrator may take the last secondary away at any time: the client then
         // stays on the primary until one comes back.
         if (secondaries.empty()) {
            TRACE(5, " no secondary IP address on the interface; staying on the primary");
         } else {
            const IpAddrWithMask& next = *secondaries.begin();
            TRACE(5, " setting the gateway address for packets from ", mac, " to ", next);
            state_->gatewayAddressIs(next);
         }
      } else {
         TRACE(5, " the gateway address is not the primary IP");
         auto next = secondaries.upper_bound(state_->gatewayAddress());
         if (next != secondaries.end()) {
            TRACE(5, " setting the gateway address for packets from ", mac, " to ", *next);
            state_->gatewayAddressIs(*next);
         } else {
            TRACE(5, " no more secondary IP addresses on the interface");
            TRACE(5, " setting the gateway address for packets from ", mac, " to ", primary);
            state_->gatewayAddressIs(primary);
         }
      }
   }
   timer_->armAt(sm_.timerWheel_.clock().now() + state_->expiryTime());
   TRACE(6, " resetting the smart relay state expiry timer for ", mac, " to ", state_->expiryTime(),
         " seconds.");
}

void DhcpSmartRelayIntfSm::ClientState::handleTimer() {
   // Copied: the key goes with the state.
   const EthAddr mac = state_->ethAddr();
   TRACE(4, " deleting smart relay state for client: ", mac);
   sm_.dsrClientStateDel(mac);
}

void DhcpSmartRelayIntfSm::ClientState::doPrepareToDie() {
   if (!initialized_)
      return;
   initialized_ = false;
   timer_->cancel();
   Status& status = *sm_.status_;
   PLATFORM_ASSERT(status.numSmartRelayedHosts() != 0, "statusObj->numSmartRelayedHosts() != 0");
   status.numSmartRelayedHostsDec();
   TRACE(4, "Number of smart-relayed hosts: ", status.numSmartRelayedHosts());
}

// --- the interface ----------------------------------------------------------------------

DhcpSmartRelayIntfSm::DhcpSmartRelayIntfSm(Platform::TimerWheel& timerWheel,
                                           const Ptr<Status>& status,
                                           const Ptr<const Ip::IpIntfStatus>& ipIntfStatus)
    : timerWheel_(timerWheel), status_(status) {
   PLATFORM_ASSERT(status_ && ipIntfStatus, "DhcpSmartRelayIntfSm inputs");
   notifierIs(ipIntfStatus);
}

DhcpSmartRelayIntfSm::~DhcpSmartRelayIntfSm() {
   for (auto& [mac, client] : clientState_)
      client.doPrepareToDie();
}

void DhcpSmartRelayIntfSm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   handleAddrChange();
   handleSecondaryChange();
}

std::optional<IpAddrWithMask> DhcpSmartRelayIntfSm::smartRelayRequest(const IntfId& intf,
                                                                      const EthAddr& clientMac,
                                                                      IpAddr ciaddr,
                                                                      const Platform::Pkt& pkt) {
   TRACE(6, " client being serviced by smart relay: ", clientMac);
   const Ip::IpIntfStatus& intfStatus = *ipIntfStatus();
   const IpAddrWithMask primary = intfStatus.activeAddrWithMask();

   if (getDhcpMsgType(pkt) == "DHCPREQUEST") {
      // RFC 2131 section 4.3.2: option 50 in SELECTING and INIT-REBOOT, ciaddr while
      // RENEWING or REBINDING.
      const IpAddr requested = getRequestedIpOption(pkt, bootRequest).value_or(ciaddr);
      if (requested.isZero()) {
         TRACE(6, " no requested address from ", clientMac, ", using the primary address ",
               primary);
         return primary;
      }
      const std::optional<IpAddrWithMask> prefix = trie_.longestMatch(requested);
      if (prefix) {
         auto entry = prefixIpLookupTbl_.find(*prefix);
         PLATFORM_ASSERT(
             entry != prefixIpLookupTbl_.end() && !entry->second->ipAddrWithMask().empty(),
             "trie prefix without addresses");
         TRACE(6, requested, " found a match ", *prefix);
         return *entry->second->ipAddrWithMask().begin();
      }
      TRACE(5, " No valid IP address found on client interface ( ", requested,
            " vrf: ", intfStatus.vrf(), " ). Dropping packet");
      pktDropped(*status_, bootRequest, intf, DropReason::smartRelayNoSubnet);
      return std::nullopt;
   }

   IpAddrWithMask gateway = primary;
   auto found = clientState_.find(clientMac);
   ClientState* client = found == clientState_.end() ? nullptr : &found->second;
   if (!client && status_->numSmartRelayedHosts() < Status::numSmartRelayedHostsMax()) {
      client = &dsrClientStateIs(clientMac, kExpiryTime);
      client->state().gatewayAddressIs(primary);
   }
   if (client) {
      SmartRelayState& state = client->state();
      const IpAddrWithMask& current = state.gatewayAddress();
      if (current != primary && !intfStatus.activeSecondaryWithMask().contains(current)) {
         TRACE(5, " giaddr not found ", "resetting discover count for ", clientMac, " on ", intf);
         // A count already at 0 would not notify, yet the address must move all the same.
         if (state.discoversWithoutOffer() == 0)
            client->handleDiscoverCount();
         else
            state.discoversWithoutOfferIs(0);
      }
      gateway = state.gatewayAddress();
      state.discoversWithoutOfferInc(1);
   }
   TRACE(6, " handled smart relay request for ", clientMac, " using gateway address: ", gateway);
   return gateway;
}

DhcpSmartRelayIntfSm::ClientState& DhcpSmartRelayIntfSm::dsrClientStateIs(const EthAddr& mac,
                                                                          double expiryTime) {
   auto [it, added] =
       clientState_.try_emplace(mac, *this, Platform::make<SmartRelayState>(mac, expiryTime));
   if (added)
      it->second.handleInitialized();
   return it->second;
}

void DhcpSmartRelayIntfSm::dsrClientStateDel(const EthAddr& mac) {
   auto it = clientState_.find(mac);
   if (it == clientState_.end())
      return;
   it->second.doPrepareToDie();
   clientState_.erase(it);
}

Ptr<SmartRelayState> DhcpSmartRelayIntfSm::dsrClientState(const EthAddr& mac) const {
   auto it = clientState_.find(mac);
   return it == clientState_.end() ? nullptr : Ptr<SmartRelayState>(&it->second.state());
}

DhcpSmartRelayIntfSm::ClientState* DhcpSmartRelayIntfSm::clientState(const EthAddr& mac) {
   auto it = clientState_.find(mac);
   return it == clientState_.end() ? nullptr : &it->second;
}

void DhcpSmartRelayIntfSm::handleAddrChange() {
   if (!initialized_)
      return;
   const IpAddrWithMask primary = ipIntfStatus()->activeAddrWithMask();
   if (primary == primaryAddrWithMask_)
      return;
   // A promoted secondary, or a primary demoted to secondary, stays in the table.
   const auto& secondaries = ipIntfStatus()->activeSecondaryWithMask();
   if (!primaryAddrWithMask_.address().isZero() && !secondaries.contains(primaryAddrWithMask_))
      updateTrieIpLookupTbl(primaryAddrWithMask_, false);
   if (!primary.address().isZero()) {
      TRACE(3, " adding new entry for primary IP address: ", primary);
      updateTrieIpLookupTbl(primary, true);
   }
   primaryAddrWithMask_ = primary;
}

void DhcpSmartRelayIntfSm::handleSecondaryChange(const IpAddrWithMask& addr) {
   if (!initialized_)
      return;
   if (ipIntfStatus()->activeSecondaryWithMask().contains(addr)) {
      TRACE(3, " adding secondary IP to prefix collection: ", addr);
      updateTrieIpLookupTbl(addr, true);
   } else if (addr != primaryAddrWithMask_) {
      TRACE(3, " removing from prefix collection: ", addr);
      updateTrieIpLookupTbl(addr, false);
   }
}

void DhcpSmartRelayIntfSm::handleSecondaryChange() {
   TRACE(3, " for interface ", ipIntfStatus()->intfId());
   for (const IpAddrWithMask& addr : ipIntfStatus()->activeSecondaryWithMask())
      handleSecondaryChange(addr);
}

void DhcpSmartRelayIntfSm::updateTrieIpLookupTbl(const IpAddrWithMask& addrWithMask, bool add) {
   PLATFORM_ASSERT(addrWithMask.address() != IpAddr::ipAddrZero(),
                   "addrWithMask.address() != Vexa::IpAddr::ipAddrZero()");
   const IpAddrWithMask prefix = addrWithMask.prefix();
   if (add) {
      Ptr<IpPrefixToAddr>& entry = prefixIpLookupTbl_[prefix];
      if (!entry) {
         TRACE(3, " adding to trie: ", prefix);
         trie_.insert(prefix);
         TRACE(3, " adding to prefixIpLookupTbl: ", prefix);
         entry = Platform::make<IpPrefixToAddr>(prefix);
      }
      entry->ipAddrWithMaskIs(addrWithMask);
      return;
   }
   auto it = prefixIpLookupTbl_.find(prefix);
   if (it == prefixIpLookupTbl_.end())
      return;
   TRACE(3, " removing the old entry from prefixIpLookupTbl address: ", addrWithMask);
   it->second->ipAddrWithMaskDel(addrWithMask);
   if (it->second->ipAddrWithMask().empty()) {
      TRACE(3, " last entry, removing from trie and prefixIpLookupTbl: ", prefix);
      trie_.remove(prefix);
      prefixIpLookupTbl_.erase(it);
   }
}

}  // namespace Ip::Helper::DhcpRelay
