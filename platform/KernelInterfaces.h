#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/EthAddr.h"
#include "platform/Ip6Addr.h"
#include "platform/IpAddr.h"

namespace Platform {

// One network device as the kernel shows it at the moment of asking.
struct KernelInterface {
   uint32_t ifindex = 0;
   std::string device;
   std::optional<EthAddr> mac;  // none for devices without a 6-byte hardware address
   bool up = false;             // administratively up
   bool running = false;        // carrier present
   std::vector<IpAddrWithMask> ipv4;
   std::vector<Ip6Prefix> ipv6;
};

// The devices of a network namespace ("" or "default": the agent's own), sorted by
// ifindex. An empty result with a non-empty error means the namespace could not be
// read; an empty namespace would still list its loopback device.
std::vector<KernelInterface> listKernelInterfaces(const std::string& nsName, std::string& error);

}  // namespace Platform
