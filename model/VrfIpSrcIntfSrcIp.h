#pragma once

#include <compare>
#include <functional>
#include <string>

#include "model/Hash.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/addr/VrfName.h"

namespace Ip::Helper::DhcpRelay {

// One configured DHCP server of an interface. The source interface and source
// address overrides are part of the key: the same server may be configured twice
// with different sources, and each is a separate relay target.
struct VrfIpSrcIntfSrcIp {
   Platform::VrfName vrf;
   Platform::IpGenAddr ip;
   Platform::IntfId srcIntf;
   Platform::IpGenAddr srcIp;

   // "vrf=red ip=10.0.0.1 srcIntf=Loopback0 srcIp="; an unset override prints empty.
   std::string toString() const;
   auto operator<=>(const VrfIpSrcIntfSrcIp&) const = default;
};

// A server configured by name; resolved to addresses before relaying.
struct VrfHostnameSrcIntfSrcIp {
   Platform::VrfName vrf;
   std::string hostname;
   Platform::IntfId srcIntf;
   Platform::IpGenAddr srcIp;

   // "vrf=red hostname=dhcp.example.com srcIntf= srcIp=10.0.0.2"
   std::string toString() const;
   auto operator<=>(const VrfHostnameSrcIntfSrcIp&) const = default;
};

}  // namespace Ip::Helper::DhcpRelay

template <>
struct std::hash<Ip::Helper::DhcpRelay::VrfIpSrcIntfSrcIp> {
   size_t operator()(const Ip::Helper::DhcpRelay::VrfIpSrcIntfSrcIp& k) const noexcept {
      using Ip::Helper::DhcpRelay::hashCombine;
      size_t h = std::hash<Platform::VrfName>{}(k.vrf);
      h = hashCombine(h, k.ip);
      h = hashCombine(h, k.srcIntf);
      return hashCombine(h, k.srcIp);
   }
};

template <>
struct std::hash<Ip::Helper::DhcpRelay::VrfHostnameSrcIntfSrcIp> {
   size_t operator()(const Ip::Helper::DhcpRelay::VrfHostnameSrcIntfSrcIp& k) const noexcept {
      using Ip::Helper::DhcpRelay::hashCombine;
      size_t h = std::hash<Platform::VrfName>{}(k.vrf);
      h = hashCombine(h, k.hostname);
      h = hashCombine(h, k.srcIntf);
      return hashCombine(h, k.srcIp);
   }
};
