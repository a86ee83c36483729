#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/Config.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/addr/VrfName.h"

namespace Frontend {

// One entry of `servers:` or `servers-v6:`. Exactly one of address and hostname is
// set (hostname only for DHCPv4), and at most one of sourceInterface and
// sourceAddress.
struct ServerDoc {
   Platform::IpGenAddr address;
   std::string hostname;
   // The server's VRF; the interface's VRF when the file gives none.
   Platform::VrfName vrf = Platform::VrfName::defaultVrf();
   Platform::IntfId sourceInterface;
   Platform::IpGenAddr sourceAddress;

   bool operator==(const ServerDoc&) const = default;
};

struct InterfaceDoc {
   Platform::VrfName vrf = Platform::VrfName::defaultVrf();
   // In file order; the parser refuses duplicates.
   std::vector<ServerDoc> servers;
   std::vector<ServerDoc> serversV6;
   std::vector<Platform::Ip6Addr> ccapCores;
   bool smartRelay = false;
   bool informationOption = false;
   Ip::Helper::DhcpRelay::InfoOptionPolicy informationOptionPolicy =
       Ip::Helper::DhcpRelay::InfoOptionPolicy::drop;
   // Empty: the relay uses the interface name.
   std::string circuitId;
   bool routeInstall = false;

   bool operator==(const InterfaceDoc&) const = default;
};

struct RelayDoc {
   bool smartRelay = false;
   uint8_t dscpV4 = 0;
   uint8_t dscpV6 = 0;
   bool alwaysOn = false;
   bool clientLinkLayerAddress = false;
   // The relay's own DHCPv6 Remote-Id: an enterprise number and a MAC (absent: the
   // system's bridge MAC). 32473 is the number IANA keeps for documentation (RFC 5612):
   // an operator with an enterprise number of their own sets it.
   uint32_t remoteIdEnterprise = 32473;
   std::optional<Platform::EthAddr> remoteIdMac;

   bool operator==(const RelayDoc&) const = default;
};

struct SystemDoc {
   // Empty / unset: the front end asks the host.
   std::string hostname;
   std::optional<Platform::EthAddr> bridgeMac;

   bool operator==(const SystemDoc&) const = default;
};

struct Snooping6Doc {
   std::set<uint16_t> vlans;
   bool remoteIdOption = false;

   bool operator==(const Snooping6Doc&) const = default;
};

struct SnoopingDoc {
   // One switch for both families; v6 only chooses its own VLANs.
   bool enabled = false;
   std::set<uint16_t> vlans;
   bool informationOption = false;
   uint8_t circuitIdType = 0;
   // Without a type the circuit-id sub-option carries no type/length header.
   bool circuitIdTypeValid = false;
   // "%p:%v" (port:vlan) or "%h:%p" (host:port); the parser refuses anything else.
   std::string circuitIdFormat = "%p:%v";
   Snooping6Doc v6;

   bool operator==(const SnoopingDoc&) const = default;
};

enum class SwitchportMode { access, trunk };

struct PortDoc {
   SwitchportMode mode = SwitchportMode::access;
   // Each mode leaves the other mode's fields at these defaults, which are also
   // those of a port record that was never configured.
   uint16_t vlan = 1;
   uint16_t nativeVlan = 1;
   std::set<uint16_t> allowedVlans;

   bool operator==(const PortDoc&) const = default;
};

struct MetricsDoc {
   // Where the metrics endpoint listens, in the agent's own namespace; port 0: nowhere.
   Platform::IpGenAddr address;
   uint16_t port = 0;

   bool enabled() const { return port != 0; }
   // "192.0.2.1:9467", "[2001:db8::1]:9467": as the file writes it.
   std::string listenText() const { return Platform::endpointText(address, port); }

   bool operator==(const MetricsDoc&) const = default;
};

// Everything one configuration file says, validated, with defaults filled in.
struct ConfigDocument {
   // VRF name -> network namespace name; never holds "default".
   std::map<Platform::VrfName, Platform::NamespaceName> vrfs;
   SystemDoc system;
   RelayDoc relay;
   // System interface name -> kernel device name, only where they differ.
   std::map<Platform::IntfId, std::string> devices;
   std::map<Platform::IntfId, InterfaceDoc> interfaces;
   SnoopingDoc snooping;
   std::map<Platform::IntfId, PortDoc> ports;
   MetricsDoc metrics;

   // The kernel device of a system interface: its devices entry, else the same name.
   std::string deviceOf(const Platform::IntfId& intf) const {
      const auto named = devices.find(intf);
      return named != devices.end() ? named->second : intf.toString();
   }

   bool operator==(const ConfigDocument&) const = default;
};

}  // namespace Frontend
