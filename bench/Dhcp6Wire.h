#pragma once

// DHCPv6 pieces dhcp-loadgen and dhcp-reflector share that the agent's codec has no use for:
// the options only clients and servers send, DUIDs, and an option look-up over plain bytes.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "codec/Dhcp6Codec.h"
#include "codec/TlvWalker.h"
#include "platform/addr/EthAddr.h"
#include "platform/packet/ByteCursor.h"

namespace Bench {

constexpr uint16_t kDhcp6ClientPort = 546, kDhcp6ServerPort = 547;
constexpr uint16_t kDhcp6OptServerId = 2, kDhcp6OptOptionRequest = 6, kDhcp6OptElapsedTime = 8,
                   kDhcp6OptDnsServers = 23, kDhcp6OptDomainList = 24;
// IA_NA: IAID, T1, T2, then its options; IA Address: the address, preferred and valid
// lifetimes (RFC 8415 sections 21.4 and 21.6).
constexpr size_t kIaNaHeader = 12, kIaAddrBytes = 24;

// A DUID-LL of an Ethernet address (RFC 8415 section 11.4): type, hardware type, the MAC.
constexpr uint16_t kDuidLinkLayer = 3, kHwEthernet = 1;
constexpr size_t kDuidLinkLayerBytes = 4 + 6;

// The data of the first option `code` among `options`; nullopt when it is absent or the walk
// stops on a malformed option before it.
inline std::optional<std::span<const uint8_t>> findDhcp6Option(std::span<const uint8_t> options,
                                                               uint16_t code) {
   Codec::TlvWalker<Codec::Dhcp6OptionFormat> walker(options);
   Codec::Tlv tlv;
   while (walker.next(tlv) == Codec::TlvStep::Item)
      if (tlv.tag == code)
         return tlv.value;
   return std::nullopt;
}

// An option whose data is a DUID-LL of `mac`.
inline bool writeDuidOption(Platform::ByteWriter& out, uint16_t code,
                            const Platform::EthAddr& mac) {
   return out.write16(code) && out.write16(kDuidLinkLayerBytes) && out.write16(kDuidLinkLayer) &&
          out.write16(kHwEthernet) && out.bytes(mac.bytes());
}

// The MAC of a DUID-LL; nullopt for any other DUID.
inline std::optional<std::span<const uint8_t>> duidMac(std::span<const uint8_t> duid) {
   Platform::ByteReader in(duid);
   if (duid.size() != kDuidLinkLayerBytes || in.read16() != kDuidLinkLayer ||
       in.read16() != kHwEthernet)
      return std::nullopt;
   return in.bytes(6);
}

}  // namespace Bench
