#include "agent/DhcpRelayAgent.h"

#include "frontend/kernel/KernelFrontEnd.h"
#include "model/ClientContext.h"
#include "model/CounterConfig.h"
#include "model/snooping/SnoopingConfig.h"
#include "model/snooping/SnoopingStatus.h"
#include "model/switch/Bridging.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/IpStatus.h"
#include "model/switch/MlagStatus.h"
#include "model/switch/SystemStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/addr/VrfName.h"
#include "platform/base/Assert.h"
#include "platform/loop/EventLoop.h"
#include "platform/store/Dir.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::MountMode;

Agent::Agent(Platform::AgentContext& ctx, std::unique_ptr<DhcpPamFactory> pamFactory)
    : ctx_(ctx), pamFactory_(std::move(pamFactory)) {}

Agent::~Agent() {
   // The roots' machines were built after the directories they watch, so they go
   // first; the remaining members are then released in reverse build order.
   if (dhcp6Root_) {
      dhcp6Root_->dhcpRelaySmv6Del();
      dhcp6Root_->dhcpVrfSelectSmv6Del();
   }
   if (dhcpRoot_) {
      dhcpRoot_->dhcpRelaySmDel();
      dhcpRoot_->dhcpVrfSelectSmDel();
   }
}

void Agent::doInit(Platform::StateStore& store) {
   // The host's activity loop is epoll-based already; tracing is ours to start.
   Platform::Trace::init(kAgentName);
   TRACE(1, "doInit");

   store.localEntityIs<Interface::AllIntfStatusDir>("AllIntfStatusDir", "interface/status/all");
   store.localEntityIs<Interface::AllIntfStatusLocalDir>("AllIntfStatusLocalDir",
                                                         "interface/status/local");
   store.localEntitiesCreated();

   auto group = store.mountGroup();
   // IP status, mounted on the agent's behalf by the IP-status mounter.
   group->mount<Ip::Status>("ip/status/", MountMode::read);
   group->mount<Ip6::Status>("ip6/status/", MountMode::read);

   group->mount<Ip::AllVrfStatusLocal>("ip/vrf/status/local", MountMode::read);
   group->mount<Platform::Dir>("ip6/multicastGroups/application", MountMode::write);
   group->mount<Config>("ip/helper/dhcprelay/config", MountMode::read);
   group->mount<CounterConfig>("ip/helper/dhcprelay/counterConfig", MountMode::read);
   group->mount<Status>("ip/helper/dhcprelay/status", MountMode::write);
   group->mount<Status>("ip/helper/dhcprelay/status6", MountMode::write);
   group->mount<MlagDhcpRelay::Status>("ip/helper/dhcprelay/mlagStatus", MountMode::read);
   group->mount<ClientContext>("ip/helper/dhcprelay/clientContext", MountMode::write);
   group->mount<Platform::Dir>("routing6/vrf/input", MountMode::writeImmediate);
   group->mount<Bridging::Config>("bridging/config", MountMode::read);
   group->mount<Bridging::VlanStatusDir>("bridging/vlan/status", MountMode::read);
   group->mount<Bridging::DhcpSnooping::Config>("bridging/dhcpsnooping/config", MountMode::read);
   group->mount<Bridging::DhcpSnooping::CounterConfig>("bridging/dhcpsnooping/counterConfig",
                                                       MountMode::read);
   group->mount<Bridging::DhcpSnooping::Status>("bridging/dhcpsnooping/status", MountMode::write);
   group->mount<Bridging::DhcpSnooping::Dhcp6Config>("bridging/dhcpsnooping/dhcp6Config",
                                                     MountMode::read);
   group->mount<Bridging::DhcpSnooping::CounterConfig>("bridging/dhcpsnooping/dhcp6CounterConfig",
                                                       MountMode::read);
   group->mount<Bridging::DhcpSnooping::Status>("bridging/dhcpsnooping/dhcp6Status",
                                                MountMode::write);
   group->mount<System::NetStatus>("sys/net/status", MountMode::read);
   group->mount<EntityMib::Status>("hardware/entmib/", MountMode::read);
   group->close([this, &store](Platform::StateStore::MountStatus status) {
      doMountsComplete(status, store);
   });
}

void Agent::doMountsComplete(Platform::StateStore::MountStatus status,
                             Platform::StateStore& entityManager) {
   PLATFORM_ASSERT(status == Platform::StateStore::mountSuccess_,
                   "status == Statebase::mountSuccess_");
   TRACE(1, "Getting newly mounted entities");

   auto mcGroups = entityManager.entity<Platform::Dir>("ip6/multicastGroups/application");
   Ptr<Ip6::MulticastGroupsForApplications> mcGroupsApp =
       mcGroups ? mcGroups->entryIs<Ip6::MulticastGroupsForApplications>("dhcprelay") : nullptr;
   PLATFORM_ASSERT(mcGroupsApp, "mcGroupsApp");

   // The agent's own network namespace is the default VRF's; the name is checked
   // against the platform's limit before any per-namespace state is mounted.
   const Platform::NamespaceName defaultNs(Platform::VrfName::defaultVrf().toString());

   TRACE(1, "Assigning agent properties.");
   kernelIntfDir_ = KernelNetInfo::kernelTableOf(entityManager, defaultNs.toString());
   intfStatusManagerRoot_ = std::make_unique<Frontend::IntfStatusManagerRoot>(
       entityManager, entityManager.entity<Interface::AllIntfStatusDir>("interface/status/all"),
       entityManager.entity<Interface::AllIntfStatusLocalDir>("interface/status/local"));
   intfStatusManagerRoot_->intfStatusManager(defaultNs.toString());
   timerWheel_ = &ctx_.loop.wheel();
   localDhcpRelayStatus_ =
       entityManager.localEntityIs<Status>("LocalDhcpRelayStatus", "agent/dhcprelay/localStatus");
   dhcpRoot_ = Platform::make<Root>("DhcpRoot");
   namelookRecord_ = Platform::make<ResolutionRecordDir>("NamelookRecord");
   namelookRequest_ = Platform::make<ResolutionRequestDir>("NamelookRequest");
   namelookSm_ = std::make_unique<Frontend::NamelookSm>(namelookRecord_, namelookRequest_,
                                                        ctx_.loop, *timerWheel_);
   namelookSm_->handleInitialized();
   dhcpPacketQueues_ = Platform::make<DhcpPacketQueues>("DhcpPacketQueues");
   dhcp6PacketQueues_ = Platform::make<DhcpPacketQueues>("Dhcp6PacketQueues");
   dhcpRelayIntfServerIp_ = Platform::make<IntfServerIpDir>("DhcpRelayIntfServerIp");
   hostnameToIntfNameMap_ = Platform::make<HostnameToIntfNameMap>("HostnameToIntfNameMap");
   auto config = entityManager.entityConst<Config>("ip/helper/dhcprelay/config");
   dhcpRelayServerIpSm_ = std::make_unique<DhcpRelayServerIpSm>(
       config, namelookRequest_, namelookRecord_, dhcpRelayIntfServerIp_, hostnameToIntfNameMap_);
   dhcpRelayServerIpSm_->handleInitialized();
   dhcpRelayCountersSm_ = std::make_unique<DhcpRelayCountersSm>(
       entityManager.entityConst<CounterConfig>("ip/helper/dhcprelay/counterConfig"),
       entityManager.entity<Status>("ip/helper/dhcprelay/status"), localDhcpRelayStatus_,
       *timerWheel_);
   dhcpRelayCountersSm_->handleInitialized();
   localDhcp6RelayStatus_ =
       entityManager.localEntityIs<Status>("LocalDhcp6RelayStatus", "agent/dhcprelay/localStatus6");
   dhcp6RelayCountersSm_ = std::make_unique<DhcpRelayCountersSm>(
       entityManager.entityConst<CounterConfig>("ip/helper/dhcprelay/counterConfig"),
       entityManager.entity<Status>("ip/helper/dhcprelay/status6"), localDhcp6RelayStatus_,
       *timerWheel_);
   dhcp6RelayCountersSm_->handleInitialized();
   activeVrfDirv4_ = Platform::make<VrfWithCountDir>("ActiveVrfDirv4");
   dhcpRoot_->dhcpVrfSelectSmIs(entityManager.entityConst<Ip::Status>("ip/status"),
                                dhcpRelayIntfServerIp_, activeVrfDirv4_);
   dhcpRoot_->dhcpRelaySmIs({
       .config = config,
       .status = localDhcpRelayStatus_,
       .ipStatus = entityManager.entityConst<Ip::Status>("ip/status"),
       .vrfStatus = entityManager.entityConst<Ip::AllVrfStatusLocal>("ip/vrf/status/local"),
       .deviceIntfStatusDir = entityManager.publishedAs<const Interface::DeviceNameConfig>(
           "interface/config/deviceName"),
       .packetQueues = dhcpPacketQueues_,
       .activeVrfDir = activeVrfDirv4_,
       .intfServerIpDir = dhcpRelayIntfServerIp_,
       .clientContext = entityManager.entity<ClientContext>("ip/helper/dhcprelay/clientContext"),
       .entityManager = &entityManager,
       .intfStatusManagerRoot = intfStatusManagerRoot_.get(),
       .pamFactory = pamFactory_.get(),
       .timerWheel = timerWheel_,
   });
   dhcp6Root_ = Platform::make<Rootv6>("Dhcp6Root");
   activeVrfDirv6_ = Platform::make<VrfWithCountDir>("ActiveVrfDirv6");
   dhcp6Root_->dhcpVrfSelectSmv6Is(config, entityManager.entityConst<Ip6::Status>("ip6/status"),
                                   activeVrfDirv6_);
   dhcp6Root_->dhcpRelaySmv6Is({
       .config = config,
       .status = localDhcp6RelayStatus_,
       .ip6Status = entityManager.entityConst<Ip6::Status>("ip6/status"),
       .vrfStatus = entityManager.entityConst<Ip::AllVrfStatusLocal>("ip/vrf/status/local"),
       .deviceIntfStatusDir = entityManager.publishedAs<const Interface::DeviceNameConfig>(
           "interface/config/deviceName"),
       .activeVrfDir = activeVrfDirv6_,
       .entityMib = entityManager.entityConst<EntityMib::Status>("hardware/entmib"),
       .mcGroups = mcGroupsApp,
       .entityManager = &entityManager,
       .intfStatusManagerRoot = intfStatusManagerRoot_.get(),
       .pamFactory = pamFactory_.get(),
       .timerWheel = timerWheel_,
   });
   dhcpSnoopingRoot_ = Platform::make<Bridging::DhcpSnooping::Root>("DhcpSnoopingRoot");
}

std::unique_ptr<Platform::Agent> agentFactory(Platform::AgentContext& ctx) {
   return std::make_unique<Agent>(ctx, std::make_unique<LinuxDhcpPamFactory>(ctx.loop));
}

}  // namespace Ip::Helper::DhcpRelay
