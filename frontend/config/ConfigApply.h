#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "frontend/config/ConfigDocument.h"
#include "model/Config.h"
#include "model/snooping/SnoopingConfig.h"
#include "model/switch/Bridging.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/SystemStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/base/Ptr.h"

namespace Frontend {

// The records the configuration file is the source of; every one must be set.
struct Targets {
   Platform::Ptr<Ip::Helper::DhcpRelay::Config> relay;
   Platform::Ptr<Bridging::DhcpSnooping::Config> snooping;
   Platform::Ptr<Bridging::DhcpSnooping::Dhcp6Config> snooping6;
   // Only the VRF -> namespace names; the namespace follower owns each entry's state.
   Platform::Ptr<Ip::AllVrfStatusLocal> vrfs;
   Platform::Ptr<System::NetStatus> netStatus;
   Platform::Ptr<EntityMib::Status> entityMib;
   Platform::Ptr<Bridging::Config> bridging;
   Platform::Ptr<Interface::DeviceNameConfig> deviceNames;
};

// Brings every target to what `doc` says through the records' mutators, so that a
// reload notifies exactly what changed: applying the same document twice notifies
// nothing the second time. The default VRF always has its entry, named after the
// agent's own namespace. `applied`, the document applied to the targets last, lets a
// reload pass over the interfaces it leaves as they were without looking at their
// servers (a switch has thousands of interfaces, each with many servers).
void applyConfig(const ConfigDocument& doc, Targets& targets,
                 const ConfigDocument* applied = nullptr);

// What the host says when the file does not: the host name, and the MAC address of
// the Ethernet device with the lowest ifindex in the agent's namespace (zero when none).
std::string hostHostname();
Platform::EthAddr hostBridgeMac();

// One kernel device, as far as choosing the bridge MAC goes.
struct HostLink {
   uint32_t ifindex;
   uint16_t type;  // ARPHRD_*
   Platform::EthAddr mac;
};
// The MAC of the Ethernet device with the lowest ifindex that has one (zero when none).
Platform::EthAddr lowestEthernetMac(const std::vector<HostLink>& links);

}  // namespace Frontend
