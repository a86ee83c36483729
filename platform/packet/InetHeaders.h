#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Platform {

// Fixed sizes of the headers in front of a DHCP message on the wire.
inline constexpr size_t kEthHeaderBytes = 14;
inline constexpr size_t kIpv4HeaderBytes = 20;  // without IP options
inline constexpr size_t kUdpHeaderBytes = 8;

// The Internet checksum (RFC 1071). inetSum adds big-endian 16-bit words, an odd last
// byte padded with zero, onto `sum`, so that a pseudo-header can be summed first;
// inetChecksum folds the carries and complements.
inline uint32_t inetSum(std::span<const uint8_t> bytes, uint32_t sum = 0) {
   for (size_t i = 0; i + 1 < bytes.size(); i += 2)
      sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
   if (bytes.size() % 2)
      sum += static_cast<uint32_t>(bytes.back() << 8);
   return sum;
}

inline uint16_t inetChecksum(uint32_t sum) {
   while (sum >> 16)
      sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<uint16_t>(~sum);
}

}  // namespace Platform
