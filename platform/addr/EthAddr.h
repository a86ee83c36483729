#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/trace/TraceArg.h"

namespace Platform {

// Ethernet address as its 6 wire bytes.
class EthAddr {
 public:
   using Bytes = std::array<uint8_t, 6>;

   constexpr EthAddr() = default;
   constexpr explicit EthAddr(const Bytes& bytes) : bytes_(bytes) {}

   // "aa:bb:cc:dd:ee:ff" as the kernel prints it, or "aabb.ccdd.eeff" as switch
   // configuration writes it; either case of hex digits.
   static std::optional<EthAddr> parse(std::string_view text);

   constexpr const Bytes& bytes() const { return bytes_; }
   bool isZero() const { return *this == EthAddr(); }
   bool isBroadcast() const { return *this == EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}); }
   std::string toString() const;
   TraceArg traceArg() const { return TraceArg::ofMac(bits48()); }
   // The address as a number, the first byte most significant.
   uint64_t bits48() const;

   constexpr auto operator<=>(const EthAddr&) const = default;

 private:
   Bytes bytes_{};
};

}  // namespace Platform

template <>
struct std::hash<Platform::EthAddr> {
   size_t operator()(const Platform::EthAddr& a) const noexcept {
      uint64_t v = 0;
      for (uint8_t b : a.bytes())
         v = v << 8 | b;
      return std::hash<uint64_t>{}(v);
   }
};
