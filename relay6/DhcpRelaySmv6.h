#pragma once

#include <array>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "codec/Dhcp6Codec.h"
#include "model/Config.h"
#include "model/DropReason.h"
#include "model/PrefixBindingJournal.h"
#include "model/Status.h"
#include "model/VrfIpSrcIntfSrcIp.h"
#include "model/VrfWithCountDir.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/SystemStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/linux/RouteSocket.h"
#include "platform/loop/TimerWheel.h"
#include "platform/packet/Pkt.h"
#include "platform/pam/UdpPam.h"
#include "platform/store/StateStore.h"
#include "relay/DhcpPamFactory.h"
#include "relay/IntfLookupTable.h"
#include "relay/RelayVrfSet.h"
#include "relay6/Dhcp6DuidMacBinding.h"
#include "relay6/Dhcp6PacketSink.h"
#include "relay6/DhcpVrfSmv6.h"

namespace Ip::Helper::DhcpRelay {

struct Dhcp6RelayReply;

// The DHCPv6 relay's central machine, the IPv6 counterpart of DhcpRelaySm on the same core:
// it follows the relay configuration and the interfaces' IPv6 status, keeps one
// DhcpVrfSmv6 per VRF the relay needs (RelayVrfSet over activeVrfDirv6), the relaying
// interfaces of each VRF (which join the relay multicast group there), the (VRF, address)
// lookup table, and one IntfStatus per relaying interface in its own Status. An interface
// relays DHCPv6 from its first configured serverIp6 entry to its last.
//
// Every datagram the VRF sockets receive comes back through doProcessPacket: client
// messages and Relay-Forw go up wrapped in a Relay-Forw per server (the forward path),
// Relay-Repl come down unwrapped (the reply path). Every drop goes through doDropped.
class DhcpRelaySmv6 : public Dhcp6PacketSink,
                      private RelayVrfSet::Owner,
                      private Platform::UdpPam::SendDone {
 public:
   // A Relay-Forw already this many hops up is not relayed further (RFC 8415 HOP_COUNT_LIMIT).
   static constexpr uint8_t kHopCountLimit = 32;
   // Routes for delegated prefixes: "proto dhcp", and their metric.
   static constexpr uint8_t kPdRouteProtocol = 16;
   static constexpr uint32_t kPdRoutePreference = 19;
   // Prefix bindings one interface may keep: a flood of Replies cannot fill the routing table.
   static constexpr size_t kMaxPrefixBindingsPerIntf = 4096;

   struct Inputs {
      Ptr<const Config> config;
      // The agent-local DHCPv6 status the packet paths count into.
      Ptr<Status> status;
      Ptr<const Ip6::Status> ip6Status;
      Ptr<const Ip::AllVrfStatusLocal> vrfStatus;
      Ptr<const Interface::DeviceNameConfig> deviceIntfStatusDir;
      Ptr<const VrfWithCountDir> activeVrfDir;
      // The system MAC for the relay's Remote-Id.
      Ptr<const EntityMib::Status> entityMib;
      // The "dhcprelay" entry of the IPv6 multicast groups applications want joined.
      Ptr<Ip6::MulticastGroupsForApplications> mcGroups;
      Platform::StateStore* entityManager = nullptr;
      Interface::IntfStatusSource* intfStatusManagerRoot = nullptr;
      DhcpPamFactory* pamFactory = nullptr;
      Platform::TimerWheel* timerWheel = nullptr;
      // Told of every change to the prefix bindings; may be null.
      PrefixBindingJournal* bindingJournal = nullptr;
   };

   explicit DhcpRelaySmv6(Inputs inputs);
   virtual ~DhcpRelaySmv6();
   DhcpRelaySmv6(const DhcpRelaySmv6&) = delete;
   DhcpRelaySmv6& operator=(const DhcpRelaySmv6&) = delete;

   // Bindings a previous run kept, handed over before handleInitialized: each comes back
   // (with its route) once its interface relays in the binding's VRF with route
   // installation on, unless it has expired by then.
   void restoredBindingsIs(std::vector<SavedPrefixBinding> bindings);
   // Told of every change to the prefix bindings from now on; null: nobody.
   void bindingJournalIs(PrefixBindingJournal* journal) { in_.bindingJournal = journal; }
   // Start-up is over: the routes of restored bindings that did not come back are removed.
   void handleRestoreSettled();
   // What a restarted agent needs to find its bindings again: those in the status, and
   // those of a previous run still waiting for their interface.
   std::vector<SavedPrefixBinding> savedBindings() const;
   void handleInitialized();

   // Reactor entry points.
   void handleRelayConfig(const Platform::IntfId& intf);
   void handleServerIp6(const Platform::IntfId& intf);
   void handleCcapCores(const Platform::IntfId& intf);
   void handleRouteInstall(const Platform::IntfId& intf);
   void handleIp6IntfStatus(const Platform::IntfId& intf);
   void handleAlwaysOn();
   void handleVrfAdd(const Platform::VrfName& vrf) override;
   void handleVrfDel(const Platform::VrfName& vrf) override;

   void doProcessPacket(Platform::Pkt& pkt, const Platform::Ip6Addr& srcIp,
                        const Platform::Ip6Addr& dstIp, const Platform::IntfId& intf,
                        const Platform::VrfName& vrf) override;
   void doRelayHeld(Platform::Pkt& relayForw, uint8_t msgType, const Platform::IntfId& intf,
                    const Platform::Ip6Addr& linkAddr, const Platform::VrfName& vrf,
                    const Platform::EthAddr& mac) override;
   void doDroppedByOption79(uint8_t msgType, const Platform::IntfId& intf,
                            DropReason reason) override;

   // Queries.
   const Ptr<Status>& status() const { return in_.status; }
   DhcpVrfSmv6* dhcpVrfSmv6(const Platform::VrfName& vrf) const;
   const std::map<Platform::VrfName, std::unique_ptr<DhcpVrfSmv6>>& dhcpVrfSmv6s() const {
      return dhcpVrfSmv6_;
   }

 protected:
   // Where the kernel of a VRF's namespace sends a packet to `server`. Virtual so that
   // tests without namespaces can answer for the kernel.
   virtual std::optional<Platform::EgressRoute> egressRoute(DhcpVrfSmv6& sm,
                                                            const Platform::Ip6Addr& server);

 private:
   // Per interface with relay configuration: its configuration and, while it relays, its
   // IPv6 status and what the packet paths read of them.
   struct Intf {
      Platform::Watch<const IntfConfig> config;
      Platform::Watch<const Ip6::IntfStatus> ip6;
      bool relaying = false;
      Platform::VrfName vrf;  // the VRF its rows and intfsInVrf entry are under
      bool inVrf = false;
      Platform::Ip6Addr linkAddress;  // first global unicast address
      Platform::Ip6Addr linkLocal;    // first link-local address
      std::vector<Platform::Ip6Prefix> prefixes;
      std::vector<Platform::Ip6Addr> ccapCores;
      // Expiry of the bindings that expire.
      std::map<Platform::Ip6Prefix, std::unique_ptr<Platform::Timer>> pdTimers;
   };
   struct Forward;

   // --- interfaces
   Intf* intf(const Platform::IntfId& intf) const;
   void doUpdateStatusIntf(const Platform::IntfId& intf, Intf& state);
   void doIntfsInVrf(const Platform::IntfId& intf, Intf& state);
   void doRunControl();

   // --- forward path (ForwardPath.cpp)
   // The interface a message came in on, if it relays; otherwise the message is dropped.
   Intf* relayingIntf(uint8_t msgType, const Platform::IntfId& intf);
   void handleForwardReq(Platform::Pkt& pkt, const Platform::Ip6Addr& srcIp, uint8_t msgType,
                         const Platform::IntfId& intf, const Platform::VrfName& vrf);
   void forwardReqHelper(Forward& fwd);
   // --- option 79, the client's MAC (ClientLinkLayerAddr.cpp)
   bool wantsClientMac(uint8_t msgType) const;
   // The binding key of the client message at offset 0, and its DUID; nullopt, dropped, when
   // it has no DUID to key by.
   std::optional<Dhcp6DuidMacBindingKey> doClientMacKey(const Platform::Pkt& msg, uint8_t msgType,
                                                        const Platform::IntfId& intf,
                                                        std::span<const uint8_t>& duid);
   // Writes option 79 into the Relay-Forw when a frame showed the MAC already; otherwise the
   // VRF holds a copy for the frame, or the message is dropped. True: relay it now.
   bool doClientLinkLayerAddr(Platform::Pkt& relayForw, const Dhcp6DuidMacBindingKey& key,
                              std::span<const uint8_t> duid, uint8_t msgType,
                              const Platform::IntfId& intf, const Platform::Ip6Addr& linkAddr,
                              const Platform::VrfName& vrf);
   bool doClientMacIs(Platform::Pkt& relayForw, uint8_t msgType, const Platform::IntfId& intf,
                      const Platform::EthAddr& mac);
   bool forwardPacketHelper(Forward& fwd, const VrfIpSrcIntfSrcIp& server);
   // The first global unicast address of an interface; :: when it has none.
   static Platform::Ip6Addr globalAddressOf(const Ip6::IntfStatus& status);
   // Whether the address lies in one of the interface's IPv6 subnets.
   static bool inSubnets(const Intf& state, const Platform::Ip6Addr& addr);

   // --- reply path (ReplyPath.cpp)
   void handleRelayReply(Platform::Pkt& pkt, const Platform::Ip6Addr& srcIp,
                         const Platform::VrfName& vrf);
   bool isServerOf(const IntfConfig& config, const Platform::VrfName& vrf,
                   const Platform::Ip6Addr& srcIp) const;

   // Every drop: counted by reason under the received message's type, and one line for an
   // operator following clients.
   void doDropped(uint8_t msgType, const Platform::IntfId& intf, DropReason reason);
   // --- prefix-delegation routes (PrefixRoutes.cpp)
   static bool routeInstallOn(const Intf& state);
   static bool expires(const PrefixBindingAttrs& attrs);
   void doRouteInstallReply(const Platform::Pkt& msg, const Platform::IntfId& intf, Intf& state,
                            const Platform::Ip6Addr& nextHop, const Platform::Ip6Addr& srcIp,
                            const Platform::VrfName& srcVrf);
   void doRouteInstallRelease(const Platform::Pkt& msg, const Platform::IntfId& intf, Intf& state,
                              const Platform::Ip6Addr& srcIp);
   void dhcpRelaySmv6HandleBinding(const Platform::IntfId& intf, Intf& state,
                                   const Dhcp6Lease& lease, const Platform::Ip6Addr& nextHop,
                                   bool release);
   void dhcpRelaySmv6AddBinding(const Platform::IntfId& intf, Intf& state,
                                const Platform::Ip6Prefix& prefix, const PrefixBindingAttrs& attrs);
   void doBindingDel(const Platform::IntfId& intf, Intf& state, const Platform::Ip6Prefix& prefix);
   void delIntfPrefixBindings(const Platform::IntfId& intf, Intf& state);
   void clearPrefixBindingsFromOldVrf(const Platform::IntfId& intf, Intf& state);
   Platform::RouteSocket* pdRouteSocket(const Platform::VrfName& vrf);
   bool doAddPdRoute(const Platform::IntfId& intf, Intf& state, const Platform::Ip6Prefix& prefix,
                     const PrefixBindingAttrs& attrs);
   void doDelPdRoute(const Platform::IntfId& intf, const Platform::Ip6Prefix& prefix,
                     const PrefixBindingAttrs& attrs);
   static Platform::Route pdRoute(const Platform::Ip6Prefix& prefix,
                                  const PrefixBindingAttrs& attrs);
   void doSyncPdRoutes(const Platform::IntfId& intf, Intf& state);
   void doUpdateExpiryTime(const Platform::IntfId& intf, Intf& state,
                           const Platform::Ip6Prefix& prefix, const PrefixBindingAttrs& attrs);
   void handlePdTimeout(const Platform::IntfId& intf, const Platform::Ip6Prefix& prefix);
   void doBindingsChanged();
   // --- bindings of a previous run (PrefixRestore.cpp)
   void doRestoreBindings(const Platform::IntfId& intf, Intf& state);
   bool expired(const PrefixBindingAttrs& attrs) const;
   // A send is counted, forwarded or dropped, when the kernel has taken or refused it, which
   // may be after the VRF socket's whole receive batch: what it counts under waits here.
   struct PendingSend {
      uint8_t msgType = 0;
      Platform::IntfId intf;
   };
   uint32_t doPendingSend(uint8_t msgType, const Platform::IntfId& intf);
   void handleSendDone(uint32_t cookie, bool sent) override;

   Inputs in_;
   bool initialized_ = false;
   IntfLookupTable lookup_;
   RelayVrfSet vrfs_;
   std::map<Platform::VrfName, std::set<Platform::IntfId>> intfsInVrf_;
   std::map<Platform::VrfName, std::unique_ptr<DhcpVrfSmv6>> dhcpVrfSmv6_;
   std::map<Platform::IntfId, std::unique_ptr<Intf>> intfs_;
   size_t relayingCount_ = 0;
   // Cross-VRF servers of the message being forwarded: kept so that its capacity is reused.
   std::vector<const VrfIpSrcIntfSrcIp*> crossVrf_;
   // Only the socket announcing what it received has a batch open, so no more than one
   // batch and one send made at once wait at any time: a ring twice a batch never laps.
   std::array<PendingSend, 2 * Platform::UdpPam::kTxBatch> pending_;
   uint32_t nextPending_ = 0;
   // Bindings of a previous run waiting for their interface, until start-up is over.
   std::map<Platform::IntfId, std::vector<SavedPrefixBinding>> restored_;
   bool restoreSettled_ = false;
   Platform::Watch<const Config> config_;
   Platform::Watch<const Ip6::Status> ip6Status_;
};

}  // namespace Ip::Helper::DhcpRelay
