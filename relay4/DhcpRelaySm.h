#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "codec/DhcpHdr.h"
#include "model/ClientContext.h"
#include "model/Config.h"
#include "model/DhcpPacketQueues.h"
#include "model/DropReason.h"
#include "model/IntfServerIpDir.h"
#include "model/Status.h"
#include "model/VrfIpPair.h"
#include "model/VrfWithCountDir.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/IpStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/addr/IntfId.h"
#include "platform/linux/RouteSocket.h"
#include "platform/loop/TimerWheel.h"
#include "platform/packet/Pkt.h"
#include "platform/store/StateStore.h"
#include "relay/DhcpPamFactory.h"
#include "relay/IntfLookupTable.h"
#include "relay/MessageTrace.h"
#include "relay/RelayVrfSet.h"
#include "relay4/ClientBindings.h"
#include "relay4/DhcpPacketSink.h"
#include "relay4/DhcpSmartRelayIntfSm.h"
#include "relay4/DhcpVrfSm.h"

namespace Ip::Helper::DhcpRelay {

// The DHCPv4 relay's central machine. It follows the relay configuration and the
// interfaces' IP status, and keeps current what the packet paths read: which relay
// interface owns an address in a VRF (intfLookupTbl), one socket machine per VRF in use
// (dhcpVrfSm, kept by the shared RelayVrfSet) and one IntfStatus per relay interface. Every
// datagram the VRF sockets receive comes back here through doProcessPacket.
//
// The packet paths decide before they write: for a request, each server's copy is planned
// (socket, giaddr, option 82) or refused with a reason, then sent; every drop goes through
// pktDropped with its DropReason.
//
// Notifications are ignored until handleInitialized, which replays the current state
// through the same handlers.
class DhcpRelaySm : public DhcpPacketSink, private RelayVrfSet::Owner {
 public:
   static constexpr uint8_t kHopsMax = 254;

   // What the machine reads and writes; all must be set.
   struct Inputs {
      Ptr<const Config> config;
      // The agent-local status the packet paths count into.
      Ptr<Status> status;
      Ptr<const Ip::Status> ipStatus;
      Ptr<const Ip::AllVrfStatusLocal> vrfStatus;
      Ptr<const Interface::DeviceNameConfig> deviceIntfStatusDir;
      Ptr<const DhcpPacketQueues> packetQueues;
      Ptr<const VrfWithCountDir> activeVrfDir;
      Ptr<const IntfServerIpDir> intfServerIpDir;
      Ptr<ClientContext> clientContext;
      Platform::StateStore* entityManager = nullptr;
      Interface::IntfStatusSource* intfStatusManagerRoot = nullptr;
      DhcpPamFactory* pamFactory = nullptr;
      // The agent's wheel: smart relay's and the client bindings' timers.
      Platform::TimerWheel* timerWheel = nullptr;
   };

   // Per relay interface (one IntfConfig): follows its configuration and, while the
   // interface has IP status, its addresses and VRF.
   class KelDrIntfConfig;

   explicit DhcpRelaySm(Inputs inputs);
   virtual ~DhcpRelaySm();
   DhcpRelaySm(const DhcpRelaySm&) = delete;
   DhcpRelaySm& operator=(const DhcpRelaySm&) = delete;

   void handleInitialized();

   // Reactor entry points.
   void onIntfConfig(const Platform::IntfId& intf);
   void handleIpIntfStatus(const Platform::IntfId& intf);
   void handleAddrChange(const Platform::IntfId& intf) { handleIpIntfStatus(intf); }
   void handleSecondaryChange(const Platform::IntfId& intf) { handleIpIntfStatus(intf); }
   void handleVrf(const Platform::IntfId& intf);
   void handleSmartRelayGlobal();
   // Creates or deletes the interface's smart-relay machine: it runs while smart relay is on
   // for the interface (its own flag or the global one) and the interface has IP status.
   void handleSmartRelay(const Platform::IntfId& intf);
   void handleAllVrfStatus(const Platform::VrfName& vrf) { vrfs_.handleAllVrfStatus(vrf); }
   void handleVrfStatus(const Platform::VrfName& vrf) { vrfs_.handleVrfStatus(vrf); }
   void handleActiveVrfDir(const Platform::VrfName& vrf) { vrfs_.handleActiveVrfDir(vrf); }
   void handleVrfAdd(const Platform::VrfName& vrf) override;
   void handleVrfDel(const Platform::VrfName& vrf) override;
   // Packets handed over by DHCP snooping; their path is built with the snooping queues.
   virtual void handleSnoopingToRelayPacket() {}

   // Every DHCPv4 datagram a VRF socket receives: the checks common to all messages, then
   // the request or reply path by the BOOTP op.
   void doProcessPacket(Platform::Pkt& pkt, Platform::IpAddr srcIp, Platform::IpAddr dstIp,
                        const Platform::IntfId& intf, const Platform::VrfName& vrf) override;

   // Queries for the packet paths.
   const Ptr<const Config>& dhcpRelayConfig() const { return in_.config; }
   const Ptr<const Ip::Status>& ipStatus() const { return in_.ipStatus; }
   const Ptr<Status>& status() const { return in_.status; }
   const Ptr<ClientContext>& dhcpClientContext() const { return in_.clientContext; }
   const Ptr<const IntfServerIpDir>& intfServerIpDir() const { return in_.intfServerIpDir; }
   // The relay interface owning the address in the VRF; empty when none does.
   Platform::IntfId intfLookupTbl(const VrfIpPair& key) const { return lookup_.owner(key); }
   const IntfLookupTable& intfLookupTbl() const { return lookup_; }
   DhcpVrfSm* dhcpVrfSm(const Platform::VrfName& vrf) const;
   const std::map<Platform::VrfName, std::unique_ptr<DhcpVrfSm>>& dhcpVrfSm() const {
      return dhcpVrfSm_;
   }
   KelDrIntfConfig* kelDrIntfConfig(const Platform::IntfId& intf) const;
   // The interface's smart-relay machine; null while it runs none.
   DhcpSmartRelayIntfSm* smartRelaySm(const Platform::IntfId& intf) const;
   // The interface's VRF from its IP status; empty without one.
   Platform::VrfName vrfNameFromIntfId(const Platform::IntfId& intf) const;
   const ClientBindings& clientBindings() const { return *bindings_; }

 protected:
   // The request path: a BOOTREQUEST that passed the common checks. It chooses between
   // handleRequest, handleRenew and the path of requests other agents relayed.
   virtual void doProcessRequest(DhcpVrfSm& sm, DhcpHdr& hdr, Platform::Pkt& pkt,
                                 Platform::IpAddr srcIp, Platform::IpAddr dstIp,
                                 const Platform::IntfId& intf);
   // A client request: one copy per configured server, same-VRF servers first.
   virtual void handleRequest(DhcpVrfSm& sm, DhcpHdr& hdr, Platform::Pkt& pkt,
                              const Platform::IntfId& intf);
   // A client's unicast renewal to the relay's own address on its link: forwarded to the
   // server recorded in the client's binding.
   virtual void handleRenew(DhcpVrfSm& sm, DhcpHdr& hdr, Platform::Pkt& pkt,
                            const Platform::IntfId& intf);
   // A server reply received in `vrf`: sent to the client as a whole frame.
   virtual void handleReply(DhcpVrfSm& sm, DhcpHdr& hdr, Platform::Pkt& pkt,
                            const Platform::VrfName& vrf, Platform::IpAddr srcIp);

   // Where the kernel of the VRF's namespace sends a packet to `server`. Virtual so that
   // tests without namespaces can answer for the kernel.
   virtual std::optional<Platform::EgressRoute> egressRoute(DhcpVrfSm& sm, Platform::IpAddr server);
   // Whether the address is one of the relay's own in the VRF's namespace. Virtual for the
   // same reason.
   virtual bool ownAddress(const DhcpVrfSm& sm, Platform::IpAddr addr) const;

   // Counts a copy relayed from `addr` as coming from outside the interface's subnets or
   // from another VRF than the server's.
   void checkAddrBelongsToIntf(Status& status, const Platform::IntfId& intf, Platform::IpAddr addr,
                               const Platform::VrfName& vrf) const;
   // Whether a configured source interface can carry requests to a server in `vrf`.
   bool sourceIntfActive(const Platform::IntfId& srcIntf, const Ip::Status& ipStatus,
                         const Platform::VrfName& vrf) const;
   // Turns the DHCP payload into an Ethernet/IPv4/UDP frame for the client, in place in the
   // packet's head room. False, packet unusable for sending, when it cannot.
   bool buildReplyPkt(Platform::Pkt& pkt, const Platform::EthAddr& srcMac, Platform::IpAddr srcIp);

 private:
   struct RequestContext;
   struct CopyPlan;
   struct OptionPlan;

   // --- requests (RequestPath.cpp)
   // A request from another relay agent sent to one of our addresses: relayed to the
   // receiving interface's servers with its giaddr and option 82 as they came.
   void handleRelayedRequest(DhcpVrfSm& sm, DhcpHdr& hdr, Platform::Pkt& pkt,
                             const Platform::IntfId& intf);
   // Applies the interface's policy to an option 82 a first hop put in; false when the
   // request is dropped (counted).
   bool doFirstHopOption(RequestContext& ctx);
   std::optional<CopyPlan> planOwnVrfCopy(RequestContext& ctx, const VrfIpSrcIntfSrcIp& server);
   std::optional<CopyPlan> planCrossVrfCopy(RequestContext& ctx, const VrfIpSrcIntfSrcIp& server);
   // False when the copy was not sent (counted); `abandon` is set when no further copy of
   // the request may go either.
   bool doSendCopy(RequestContext& ctx, const CopyPlan& plan, bool& abandon);
   // giaddr from a configured source interface, when it can carry the copy.
   bool doSourceIntf(RequestContext& ctx, const VrfIpSrcIntfSrcIp& server, CopyPlan& plan);
   bool doApplyOption(RequestContext& ctx, const OptionPlan& option);
   void doDrop(const RequestContext& ctx, DropReason reason);
   // Every drop of a message the relay handles: counted by reason, and one line for an
   // operator following clients.
   void doDropped(uint8_t op, const Platform::IntfId& intf, DropReason reason);

   // --- replies (ReplyPath.cpp)
   // Takes out of the reply the option 82 the relay put in, or the relay's own sub-options
   // of a first hop's option that travelled up; leaves anything else.
   bool doStripOwnOption(Platform::Pkt& pkt, const IntfConfig& config,
                         const Platform::IntfId& clientIntf, bool ownSubOptions);
   // Whether `srcIp` is a server the interface relays to in `vrf`.
   bool isServerOf(const Platform::IntfId& intf, const Platform::VrfName& vrf,
                   Platform::IpAddr srcIp) const;

   // The primary address of the interface a route leaves by; zero when it has none.
   Platform::IpAddr getEgressIp(DhcpVrfSm& sm, uint32_t ifindex) const;
   // The kernel device of a system interface in the VRF's namespace.
   Ptr<const KernelNetInfo::KernelIntf> kernelIntfOf(const DhcpVrfSm& sm,
                                                     const Platform::IntfId& intf) const;
   void updateIntfStatus(const Platform::IntfId& intf);
   // The same for an interface's reactor already at hand, without a second lookup.
   static DhcpSmartRelayIntfSm* smartRelaySmOf(const KelDrIntfConfig& reactor);
   // The VRF a relay interface's lookup rows are under; null for no relay interface.
   const Platform::VrfName* rowsVrf(const Platform::IntfId& intf) const;

   Inputs in_;
   bool initialized_ = false;
   IntfLookupTable lookup_;
   MessageTrace msgTrace_;
   RelayVrfSet vrfs_;
   std::optional<ClientBindings> bindings_;
   // Outputs of parseInfoOpt, kept so that their capacity is reused from reply to reply.
   std::string replyCircuitId_;
   std::string replyRemoteId_;
   std::string replyVrfName_;
   std::map<Platform::VrfName, std::unique_ptr<DhcpVrfSm>> dhcpVrfSm_;
   std::map<Platform::IntfId, std::unique_ptr<KelDrIntfConfig>> kelDrIntfConfig_;
   Platform::Watch<const Config> config_;
   Platform::Watch<const Ip::Status> ipStatus_;
   Platform::Watch<const DhcpPacketQueues> packetQueues_;
};

}  // namespace Ip::Helper::DhcpRelay
