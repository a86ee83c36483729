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

// IPv6 address as its 16 wire bytes, so it is copied straight in and out of packets
// and ordered the way it is written.
class Ip6Addr {
 public:
   using Bytes = std::array<uint8_t, 16>;

   constexpr Ip6Addr() = default;
   constexpr explicit Ip6Addr(const Bytes& bytes) : bytes_(bytes) {}

   static std::optional<Ip6Addr> parse(std::string_view text);

   constexpr const Bytes& bytes() const { return bytes_; }
   bool isZero() const;
   bool isLoopback() const;
   bool isLinkLocal() const { return bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80; }
   bool isMulticast() const { return bytes_[0] == 0xff; }
   // Any address usable beyond the link. Unique local addresses count: a site that
   // numbers its links from fc00::/7 still needs them chosen as link addresses.
   bool isGlobalUnicast() const {
      return !isZero() && !isLoopback() && !isLinkLocal() && !isMulticast();
   }
   std::string toString() const;
   // Points at the address's own bytes: the trace formats them only if a sink keeps the line.
   TraceArg traceArg() const { return TraceArg::ofIp6(bytes_.data()); }

   constexpr auto operator<=>(const Ip6Addr&) const = default;

 private:
   Bytes bytes_{};
};

// An address and a prefix length 0..128. The host bits are kept for the same reason
// as in IpAddrWithMask: an interface address is written this way.
class Ip6Prefix {
 public:
   constexpr Ip6Prefix() = default;
   Ip6Prefix(Ip6Addr address, uint8_t len);

   // "addr/len"; the length is required.
   static std::optional<Ip6Prefix> parse(std::string_view text);

   constexpr Ip6Addr address() const { return address_; }
   constexpr uint8_t len() const { return len_; }
   bool contains(Ip6Addr a) const;
   std::string toString() const;
   TraceArg traceArg() const { return TraceArg::ofIp6WithLen(address_.bytes().data(), len_); }

   constexpr auto operator<=>(const Ip6Prefix&) const = default;

 private:
   Ip6Addr address_;
   uint8_t len_ = 0;
};

}  // namespace Platform

template <>
struct std::hash<Platform::Ip6Addr> {
   size_t operator()(const Platform::Ip6Addr& a) const noexcept;
};

template <>
struct std::hash<Platform::Ip6Prefix> {
   size_t operator()(const Platform::Ip6Prefix& p) const noexcept {
      return std::hash<Platform::Ip6Addr>{}(p.address()) * 31 + p.len();
   }
};
