#pragma once

#include <map>
#include <optional>
#include <unordered_map>

#include "model/SmartRelay.h"
#include "model/Status.h"
#include "model/switch/IpStatus.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/IpAddr.h"
#include "platform/addr/PrefixTrie.h"
#include "platform/loop/TimerWheel.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// Smart relay on one interface with several subnets. A plain relay always puts the primary
// address in giaddr, so servers offer only from the primary subnet; here a client that gets
// no offer moves on: after every third unanswered DHCPDISCOVER its messages go out from the
// next secondary address, and back to the primary after the last. A DHCPREQUEST goes out
// from the interface address whose subnet holds the address the client asks for.
//
// Lives while smart relay is on for the interface; follows the interface's addresses
// (it is a reactor of its IP status) and owns the state of every client it serves.
class DhcpSmartRelayIntfSm : public Ip::IpIntfStatus::Reactor {
 public:
   static constexpr double kExpiryTime = 600.0;

   // Per client: initialises the client's state and moves its gateway address on as its
   // DISCOVER count grows; forgets the client when the count stays still for expiryTime.
   class ClientState : public SmartRelayState::Reactor {
    public:
      ClientState(DhcpSmartRelayIntfSm& sm, const Ptr<SmartRelayState>& state);
      ~ClientState() override;
      ClientState(const ClientState&) = delete;
      ClientState& operator=(const ClientState&) = delete;

      void handleInitialized();
      void handleDiscoversWithoutOffer() override { handleDiscoverCount(); }
      void handleDiscoverCount();
      void handleTimer();
      // Before the state goes: stops the timer and gives back the host count.
      void doPrepareToDie();

      SmartRelayState& state() const { return *state_; }
      bool initialized() const { return initialized_; }
      const Platform::Timer* timer() const { return timer_ ? &*timer_ : nullptr; }

    private:
      DhcpSmartRelayIntfSm& sm_;
      Ptr<SmartRelayState> state_;
      std::optional<Platform::Timer> timer_;
      bool initialized_ = false;
   };

   DhcpSmartRelayIntfSm(Platform::TimerWheel& timerWheel, const Ptr<Status>& status,
                        const Ptr<const Ip::IpIntfStatus>& ipIntfStatus);
   ~DhcpSmartRelayIntfSm() override;
   DhcpSmartRelayIntfSm(const DhcpSmartRelayIntfSm&) = delete;
   DhcpSmartRelayIntfSm& operator=(const DhcpSmartRelayIntfSm&) = delete;

   void handleInitialized();

   // The gateway address (giaddr) for a client message from `clientMac` received on `intf`.
   // nullopt: the message is dropped, already counted and traced.
   std::optional<Platform::IpAddrWithMask> smartRelayRequest(const Platform::IntfId& intf,
                                                             const Platform::EthAddr& clientMac,
                                                             Platform::IpAddr ciaddr,
                                                             const Platform::Pkt& pkt);

   ClientState& dsrClientStateIs(const Platform::EthAddr& mac, double expiryTime);
   void dsrClientStateDel(const Platform::EthAddr& mac);
   Ptr<SmartRelayState> dsrClientState(const Platform::EthAddr& mac) const;
   ClientState* clientState(const Platform::EthAddr& mac);
   size_t clientCount() const { return clientState_.size(); }

   // Reactions to the interface's addresses.
   void handleActiveAddrWithMask() override { handleAddrChange(); }
   void handleActiveSecondaryWithMask(const Platform::IpAddrWithMask& addr) override {
      handleSecondaryChange(addr);
   }
   void handleAddrChange();
   void handleSecondaryChange(const Platform::IpAddrWithMask& addr);
   void handleSecondaryChange();
   void updateTrieIpLookupTbl(const Platform::IpAddrWithMask& addrWithMask, bool add);

   const Ptr<const Ip::IpIntfStatus>& ipIntfStatus() const { return notifier(); }
   double expiryTime() const { return expiryTime_; }
   const Platform::IpAddrWithMask& primaryAddrWithMask() const { return primaryAddrWithMask_; }
   const Platform::PrefixTrie& trie() const { return trie_; }
   const std::map<Platform::IpAddrWithMask, Ptr<IpPrefixToAddr>>& prefixIpLookupTbl() const {
      return prefixIpLookupTbl_;
   }

 private:
   Platform::TimerWheel& timerWheel_;
   Ptr<Status> status_;
   double expiryTime_ = kExpiryTime;
   Platform::IpAddrWithMask primaryAddrWithMask_;
   // The client's record is reached through its reactor: one map entry per client, and the
   // reactor with its timer lives in the entry itself, so a client costs few allocations.
   std::unordered_map<Platform::EthAddr, ClientState> clientState_;
   Platform::PrefixTrie trie_;
   std::map<Platform::IpAddrWithMask, Ptr<IpPrefixToAddr>> prefixIpLookupTbl_;
   bool initialized_ = false;
};

}  // namespace Ip::Helper::DhcpRelay
