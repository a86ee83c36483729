#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpAddr.h"

namespace Platform {

// An address of either family, or none: configuration such as a server list or a
// source-address override holds either family, and "not set" is a value of its own.
// Empty sorts first, then all IPv4 addresses, then all IPv6 addresses.
class IpGenAddr {
 public:
   IpGenAddr() = default;
   IpGenAddr(IpAddr a) : addr_(a) {}
   IpGenAddr(Ip6Addr a) : addr_(a) {}

   // Either family's text; the empty string gives the empty address, so toString
   // and parse round-trip for every value.
   static std::optional<IpGenAddr> parse(std::string_view text);

   bool isEmpty() const { return std::holds_alternative<std::monostate>(addr_); }
   bool isV4() const { return std::holds_alternative<IpAddr>(addr_); }
   bool isV6() const { return std::holds_alternative<Ip6Addr>(addr_); }
   IpAddr v4() const;
   Ip6Addr v6() const;
   std::string toString() const;
   // The family's own piece, pointing into this value; the empty address is an empty text, as
   // toString prints it.
   TraceArg traceArg() const {
      if (const auto* a = std::get_if<IpAddr>(&addr_))
         return a->traceArg();
      if (const auto* a = std::get_if<Ip6Addr>(&addr_))
         return a->traceArg();
      return TraceArg::ofText("");
   }

   auto operator<=>(const IpGenAddr&) const = default;

 private:
   std::variant<std::monostate, IpAddr, Ip6Addr> addr_;

   friend struct std::hash<IpGenAddr>;
};

// "192.0.2.1:9467", "[2001:db8::1]:9467": an endpoint as configuration files write it.
inline std::string endpointText(const IpGenAddr& address, uint16_t port) {
   const std::string a = address.toString();
   return (address.isV6() ? "[" + a + "]" : a) + ":" + std::to_string(port);
}

}  // namespace Platform

template <>
struct std::hash<Platform::IpGenAddr> {
   size_t operator()(const Platform::IpGenAddr& a) const noexcept {
      return std::hash<decltype(a.addr_)>{}(a.addr_);
   }
};
