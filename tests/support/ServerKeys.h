#pragma once

// What the tests of the server sets and the VRF selections share: server keys written
// briefly, and an active VRF directory as one line.

#include <string>

#include "model/VrfIpSrcIntfSrcIp.h"
#include "model/VrfWithCountDir.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/addr/VrfName.h"

namespace Ip::Helper::DhcpRelay::TestKeys {

// `ip` IPv4 or IPv6; empty srcIntf and srcIp are not configured.
inline VrfIpSrcIntfSrcIp server(const char* vrf, const char* ip, const char* srcIntf = "",
                                const char* srcIp = "") {
   return {Platform::VrfName(vrf), *Platform::IpGenAddr::parse(ip),
           *srcIntf ? Platform::IntfId(srcIntf) : Platform::IntfId(),
           *Platform::IpGenAddr::parse(srcIp)};
}

// "vrf:count" of every active VRF, in name order.
inline std::string vrfCounts(const VrfWithCountDir& dir) {
   std::string out;
   for (const auto& [vrf, entry] : dir.vrfCount())
      out += (out.empty() ? "" : " ") + vrf.str() + ":" + std::to_string(entry->count());
   return out;
}

}  // namespace Ip::Helper::DhcpRelay::TestKeys
