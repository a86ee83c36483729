#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <span>

#include "codec/Dhcp6Codec.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/base/Ptr.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// Joins the two copies of one client message, the UDP socket's and the captured frame's:
// the client's DUID fields and the message's transaction id. Stored inline, so that a key
// is built per message without allocating.
struct Dhcp6DuidMacBindingKey {
   // A DUID-EN's identifier: the longest DUID less its type and enterprise number.
   static constexpr size_t kMaxEntId = kDhcp6MaxDuid - 6;

   uint16_t duidType = 0;
   uint16_t hwType = 0;
   Platform::EthAddr llAddr;
   std::array<uint8_t, 16> uuid{};
   uint32_t entno = 0;
   uint8_t entIdLength = 0;
   std::array<uint8_t, kMaxEntId> entId{};  // zero past entIdLength, so arrays compare
   uint32_t xid = 0;                        // 24 bits

   static Dhcp6DuidMacBindingKey of(const Dhcp6Duid& duid, uint32_t xid) {
      Dhcp6DuidMacBindingKey key;
      key.duidType = duid.type;
      key.hwType = duid.hwType;
      key.llAddr = duid.llAddr;
      std::copy_n(duid.uuid.begin(), std::min(duid.uuid.size(), key.uuid.size()), key.uuid.begin());
      key.entno = duid.entno;
      key.entIdLength = static_cast<uint8_t>(std::min(duid.entId.size(), kMaxEntId));
      std::copy_n(duid.entId.begin(), key.entIdLength, key.entId.begin());
      key.xid = xid & 0xffffff;
      return key;
   }

   auto operator<=>(const Dhcp6DuidMacBindingKey&) const = default;
};

// What the relay knows of one client message while only one of its copies has come: the
// client's MAC from the frame, or the Relay-Forw built from the socket's copy, held until
// the frame shows the MAC.
struct Dhcp6DuidMacBinding {
   // Seen by the sweep since the last captured frame for the key; cleared by it.
   bool keepAlive = true;
   Platform::EthAddr llAddr;  // zero: not known
   Platform::Ptr<Platform::Pkt> cachedPkt;
   uint8_t rcvdMsgType = 0;
   Platform::IntfId intfIdName;  // the interface the copy came in on
   Platform::Ip6Addr intfIpAddr;
   double createdAt = 0;  // monotonic seconds
   // The client's DUID as it came (the key leaves out a DUID-LLT's time), for an operator.
   uint8_t duidLength = 0;
   std::array<uint8_t, kDhcp6MaxDuid> duidBytes{};

   void keepAliveIs(bool v) { keepAlive = v; }
   std::span<const uint8_t> duid() const { return {duidBytes.data(), duidLength}; }
   void duidIs(std::span<const uint8_t> v) {
      duidLength = static_cast<uint8_t>(std::min(v.size(), duidBytes.size()));
      std::copy_n(v.begin(), duidLength, duidBytes.begin());
   }
};

}  // namespace Ip::Helper::DhcpRelay
