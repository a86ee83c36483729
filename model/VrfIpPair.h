#pragma once

#include <compare>
#include <functional>
#include <string>

#include "model/Hash.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/addr/VrfName.h"

namespace Ip::Helper::DhcpRelay {

// An address is only meaningful inside its VRF: the same server or gateway address
// can exist in several VRFs, so every cross-VRF binding names both.
struct VrfIpPair {
   Platform::VrfName vrf;
   Platform::IpGenAddr addr;

   std::string toString() const { return vrf.str() + ":" + addr.toString(); }
   auto operator<=>(const VrfIpPair&) const = default;
};

inline VrfIpPair genVrfIpPair(const Platform::VrfName& vrf, const Platform::IpGenAddr& addr) {
   return VrfIpPair{vrf, addr};
}

}  // namespace Ip::Helper::DhcpRelay

template <>
struct std::hash<Ip::Helper::DhcpRelay::VrfIpPair> {
   size_t operator()(const Ip::Helper::DhcpRelay::VrfIpPair& p) const noexcept {
      return Ip::Helper::DhcpRelay::hashCombine(std::hash<Platform::VrfName>{}(p.vrf), p.addr);
   }
};
