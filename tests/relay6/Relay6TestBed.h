#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "codec/Dhcp6Codec.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/SystemStatus.h"
#include "relay6/DhcpRelaySmv6.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {

inline Platform::Ip6Addr ip6(const char* text) {
   return *Platform::Ip6Addr::parse(text);
}

// The options of a relay message, code by code, in order.
inline std::vector<std::pair<uint16_t, Bytes>> options(const Bytes& msg) {
   std::vector<std::pair<uint16_t, Bytes>> out;
   for (size_t at = Dhcp6Layout::relayHeader; at + 4 <= msg.size();) {
      const size_t len = size_t(msg[at + 2] << 8 | msg[at + 3]);
      out.emplace_back(uint16_t(msg[at] << 8 | msg[at + 1]),
                       Bytes(msg.begin() + long(at + 4), msg.begin() + long(at + 4 + len)));
      at += 4 + len;
   }
   return out;
}

// The relay test bed with what the DHCPv6 relay reads besides it.
struct Relay6TestBed {
   DhcpRelaySmv6::Inputs inputs() {
      return {bed.config,      bed.status,         ip6Status, bed.vrfs,
              bed.deviceNames, bed.activeVrfDir,   entityMib, mcGroups,
              &bed.store,      bed.managers.get(), &bed.pams, &bed.wheel};
   }

   RelayTestBed bed;
   Ptr<Ip6::Status> ip6Status = make<Ip6::Status>("ip6");
   Ptr<EntityMib::Status> entityMib = make<EntityMib::Status>("entmib");
   Ptr<Ip6::MulticastGroupsForApplications> mcGroups =
       make<Ip6::MulticastGroupsForApplications>("dhcprelay");
};

}  // namespace Ip::Helper::DhcpRelay::Test
