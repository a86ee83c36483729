#include "bench/loadgen/LoadProtocol.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>

namespace Bench {

namespace {

// Locally administered, unicast; the last three bytes number the simulated client.
constexpr uint8_t kMacPrefix[3] = {0x02, 0x4c, 0x47};

}  // namespace

bool LoadLink::send(std::span<const uint8_t> frame) const {
   sockaddr_ll to{};
   to.sll_family = AF_PACKET;
   to.sll_protocol = htons(etherType_);
   to.sll_ifindex = ifindex_;
   return sendto(fd_, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) ==
          static_cast<ssize_t>(frame.size());
}

Platform::EthAddr clientMac(uint32_t client) {
   return Platform::EthAddr({kMacPrefix[0], kMacPrefix[1], kMacPrefix[2],
                             static_cast<uint8_t>(client >> 16), static_cast<uint8_t>(client >> 8),
                             static_cast<uint8_t>(client)});
}

std::optional<uint32_t> clientOfMac(std::span<const uint8_t> mac) {
   if (mac.size() != 6 || !std::equal(kMacPrefix, kMacPrefix + 3, mac.begin()))
      return std::nullopt;
   return uint32_t{mac[3]} << 16 | uint32_t{mac[4]} << 8 | mac[5];
}

}  // namespace Bench
