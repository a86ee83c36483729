#pragma once

#include <memory>

#include "agent/Roots.h"
#include "counters/DhcpRelayCountersSm.h"
#include "frontend/kernel/IntfStatusManager.h"
#include "frontend/resolver/NamelookSm.h"
#include "model/Config.h"
#include "model/DhcpPacketQueues.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "model/Namelook.h"
#include "model/Status.h"
#include "model/VrfWithCountDir.h"
#include "model/switch/KernelNetInfo.h"
#include "platform/loop/TimerWheel.h"
#include "platform/store/AgentHost.h"
#include "relay/DhcpPamFactory.h"
#include "servers/DhcpRelayServerIpSm.h"

namespace Ip::Helper::DhcpRelay {

// The DHCP relay agent: issues its mounts at start-up and, once they complete,
// builds every root and state machine of the DHCPv4 and DHCPv6 relay and of DHCP
// snooping. Members are declared in the order they are built, so they are
// released in the reverse order.
class Agent : public Platform::Agent {
 public:
   static constexpr const char* kAgentName = "DhcpRelayAgent";

   // `pamFactory` opens the relay's sockets; tests pass one that opens doubles.
   Agent(Platform::AgentContext& ctx, std::unique_ptr<DhcpPamFactory> pamFactory);
   ~Agent() override;

   void doInit(Platform::StateStore& store) override;
   void doMountsComplete(Platform::StateStore::MountStatus status,
                         Platform::StateStore& entityManager) override;
   bool hasBackupSupport() const override { return false; }
   int fwkType() const override { return Platform::kFwkTypeLinuxHost; }

   const Ptr<const KernelNetInfo::Status>& kernelIntfDir() const { return kernelIntfDir_; }
   Frontend::IntfStatusManagerRoot* intfStatusManagerRoot() const {
      return intfStatusManagerRoot_.get();
   }
   Platform::TimerWheel* timerWheel() const { return timerWheel_; }
   const Ptr<Status>& localDhcpRelayStatus() const { return localDhcpRelayStatus_; }
   const Ptr<Root>& dhcpRoot() const { return dhcpRoot_; }
   const Ptr<ResolutionRecordDir>& namelookRecord() const { return namelookRecord_; }
   const Ptr<ResolutionRequestDir>& namelookRequest() const { return namelookRequest_; }
   Frontend::NamelookSm* namelookSm() const { return namelookSm_.get(); }
   const Ptr<DhcpPacketQueues>& dhcpPacketQueues() const { return dhcpPacketQueues_; }
   const Ptr<DhcpPacketQueues>& dhcp6PacketQueues() const { return dhcp6PacketQueues_; }
   const Ptr<IntfServerIpDir>& dhcpRelayIntfServerIp() const { return dhcpRelayIntfServerIp_; }
   const Ptr<HostnameToIntfNameMap>& hostnameToIntfNameMap() const {
      return hostnameToIntfNameMap_;
   }
   DhcpRelayServerIpSm* dhcpRelayServerIpSm() const { return dhcpRelayServerIpSm_.get(); }
   DhcpRelayCountersSm* dhcpRelayCountersSm() const { return dhcpRelayCountersSm_.get(); }
   // The DHCPv6 relay counts into a Status of its own, published beside the DHCPv4 one.
   const Ptr<Status>& localDhcp6RelayStatus() const { return localDhcp6RelayStatus_; }
   DhcpRelayCountersSm* dhcp6RelayCountersSm() const { return dhcp6RelayCountersSm_.get(); }
   const Ptr<VrfWithCountDir>& activeVrfDirv4() const { return activeVrfDirv4_; }
   const Ptr<Rootv6>& dhcp6Root() const { return dhcp6Root_; }
   const Ptr<VrfWithCountDir>& activeVrfDirv6() const { return activeVrfDirv6_; }
   const Ptr<Bridging::DhcpSnooping::Root>& dhcpSnoopingRoot() const { return dhcpSnoopingRoot_; }
   bool objectGraphBuilt() const { return dhcpSnoopingRoot_ != nullptr; }

 private:
   Platform::AgentContext& ctx_;
   std::unique_ptr<DhcpPamFactory> pamFactory_;
   Ptr<const KernelNetInfo::Status> kernelIntfDir_;
   std::unique_ptr<Frontend::IntfStatusManagerRoot> intfStatusManagerRoot_;
   // The agent's one timer wheel is the host's: the event loop drives it.
   Platform::TimerWheel* timerWheel_ = nullptr;
   Ptr<Status> localDhcpRelayStatus_;
   Ptr<Root> dhcpRoot_;
   Ptr<ResolutionRecordDir> namelookRecord_;
   Ptr<ResolutionRequestDir> namelookRequest_;
   std::unique_ptr<Frontend::NamelookSm> namelookSm_;
   Ptr<DhcpPacketQueues> dhcpPacketQueues_;
   Ptr<DhcpPacketQueues> dhcp6PacketQueues_;
   Ptr<IntfServerIpDir> dhcpRelayIntfServerIp_;
   Ptr<HostnameToIntfNameMap> hostnameToIntfNameMap_;
   std::unique_ptr<DhcpRelayServerIpSm> dhcpRelayServerIpSm_;
   std::unique_ptr<DhcpRelayCountersSm> dhcpRelayCountersSm_;
   Ptr<Status> localDhcp6RelayStatus_;
   std::unique_ptr<DhcpRelayCountersSm> dhcp6RelayCountersSm_;
   Ptr<VrfWithCountDir> activeVrfDirv4_;
   Ptr<Rootv6> dhcp6Root_;
   Ptr<VrfWithCountDir> activeVrfDirv6_;
   Ptr<Bridging::DhcpSnooping::Root> dhcpSnoopingRoot_;
};

std::unique_ptr<Platform::Agent> agentFactory(Platform::AgentContext& ctx);

}  // namespace Ip::Helper::DhcpRelay
