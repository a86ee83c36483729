#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/trace/TraceArg.h"

namespace Platform {

// IPv4 address, kept in host order so masks and comparisons are plain integer
// operations; conversion to network order happens only at the socket boundary.
class IpAddr {
 public:
   constexpr IpAddr() = default;
   constexpr explicit IpAddr(uint32_t hostOrder) : value_(hostOrder) {}

   static IpAddr fromNetwork(uint32_t networkOrder);
   static constexpr IpAddr ipAddrZero() { return IpAddr(); }
   static constexpr IpAddr broadcast() { return IpAddr(0xffffffffu); }
   // Dotted quad only: shorthand forms like "10.1" are rejected because they are
   // almost always typing errors in configuration.
   static std::optional<IpAddr> parse(std::string_view text);

   constexpr uint32_t value() const { return value_; }
   uint32_t toNetwork() const;
   constexpr bool isZero() const { return value_ == 0; }
   std::string toString() const;
   TraceArg traceArg() const { return TraceArg::ofIp4(value_); }

   constexpr auto operator<=>(const IpAddr&) const = default;

 private:
   uint32_t value_ = 0;
};

// An address together with its mask length, as configured on an interface: the host
// bits are kept, because the relay needs the interface's own address as well as the
// subnet it serves.
class IpAddrWithMask {
 public:
   constexpr IpAddrWithMask() = default;
   IpAddrWithMask(IpAddr address, uint8_t maskLen);

   // "a.b.c.d/len" with len 0..32; the length is required.
   static std::optional<IpAddrWithMask> parse(std::string_view text);

   constexpr IpAddr address() const { return address_; }
   constexpr uint8_t maskLen() const { return maskLen_; }
   IpAddr mask() const;
   IpAddr subnet() const { return IpAddr(address_.value() & mask().value()); }
   bool contains(IpAddr a) const { return (a.value() & mask().value()) == subnet().value(); }
   // The subnet with its length and no host bits ("10.1.2.0/24" for "10.1.2.3/24").
   IpAddrWithMask prefix() const { return IpAddrWithMask(subnet(), maskLen_); }
   std::string toString() const;
   TraceArg traceArg() const { return TraceArg::ofIp4WithMask(address_.value(), maskLen_); }

   constexpr auto operator<=>(const IpAddrWithMask&) const = default;

 private:
   IpAddr address_;
   uint8_t maskLen_ = 0;
};

// The length written after the '/' of an address: decimal digits only, at most max.
std::optional<uint8_t> parsePrefixLen(std::string_view text, uint8_t max);

}  // namespace Platform

template <>
struct std::hash<Platform::IpAddr> {
   size_t operator()(const Platform::IpAddr& a) const noexcept {
      return std::hash<uint32_t>{}(a.value());
   }
};

template <>
struct std::hash<Platform::IpAddrWithMask> {
   size_t operator()(const Platform::IpAddrWithMask& a) const noexcept {
      return std::hash<uint64_t>{}(uint64_t{a.address().value()} << 8 | a.maskLen());
   }
};
