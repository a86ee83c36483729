#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Platform {

// One piece of a line before any formatting: what the ring stores and the text sink formats.
struct TraceArg {
   // Addresses and byte strings stay binary until a sink formats them: the ring stores their
   // bytes, not text.
   enum class Kind : uint8_t {
      Signed,
      Unsigned,
      Real,
      Bool,
      Text,
      Ip4,
      Ip4WithMask,
      Mac,
      Hex32,
      Ip6,
      Ip6WithLen,
      HexBytes
   };

   Kind kind;
   union {
      int64_t signedValue;
      uint64_t unsignedValue;
      double realValue;
      bool boolValue;
      const char* text;
      // Ip6 and Ip6WithLen: the 16 address bytes; HexBytes: `size` bytes.
      const uint8_t* bytes;
   };
   union {
      size_t size;        // Text and HexBytes
      uint8_t prefixLen;  // Ip6WithLen
   };

   static TraceArg ofSigned(int64_t v) {
      TraceArg a{Kind::Signed, {}, 0};
      a.signedValue = v;
      return a;
   }
   // Unsigned numbers and the address pieces, which are numbers formatted their own way.
   static TraceArg ofUnsigned(uint64_t v, Kind kind = Kind::Unsigned) {
      TraceArg a{kind, {}, 0};
      a.unsignedValue = v;
      return a;
   }
   static TraceArg ofReal(double v) {
      TraceArg a{Kind::Real, {}, 0};
      a.realValue = v;
      return a;
   }
   static TraceArg ofBool(bool v) {
      TraceArg a{Kind::Bool, {}, 0};
      a.boolValue = v;
      return a;
   }
   // Text and the byte pieces point at the caller's bytes, as a view does: a piece is consumed
   // before the statement that made it ends.
   static TraceArg ofText(std::string_view v) {
      TraceArg a{Kind::Text, {}, v.size()};
      a.text = v.data();
      return a;
   }
   static TraceArg ofIp4(uint32_t hostOrder) { return ofUnsigned(hostOrder, Kind::Ip4); }
   static TraceArg ofIp4WithMask(uint32_t hostOrder, uint8_t maskLen) {
      return ofUnsigned(uint64_t{maskLen} << 32 | hostOrder, Kind::Ip4WithMask);
   }
   // The six bytes in transmission order, the first in the most significant of the 48 bits.
   static TraceArg ofMac(uint64_t bits48) { return ofUnsigned(bits48, Kind::Mac); }
   // "0x0000002a": identifiers read in hexadecimal, such as a DHCP transaction id.
   static TraceArg ofHex32(uint32_t v) { return ofUnsigned(v, Kind::Hex32); }
   // An IPv6 address as its 16 bytes in network order.
   static TraceArg ofIp6(const uint8_t* bytes16) {
      TraceArg a{Kind::Ip6, {}, 0};
      a.bytes = bytes16;
      return a;
   }
   static TraceArg ofIp6WithLen(const uint8_t* bytes16, uint8_t prefixLen) {
      TraceArg a{Kind::Ip6WithLen, {}, 0};
      a.bytes = bytes16;
      a.prefixLen = prefixLen;
      return a;
   }
   // "00:01:00:01:2a:..." (nothing: "-"): opaque identifiers such as a DHCPv6 DUID. The ring
   // stores them raw and cuts them to fit a record as it cuts text.
   static TraceArg ofHexBytes(std::span<const uint8_t> v) {
      TraceArg a{Kind::HexBytes, {}, v.size()};
      a.bytes = v.data();
      return a;
   }
   std::string_view textView() const { return {text, size}; }
   std::span<const uint8_t> byteView() const { return {bytes, size}; }
};

// The text forms of the address pieces, shared by the address types and every sink.
void appendIp4Text(std::string& out, uint32_t hostOrder);
void appendMacText(std::string& out, uint64_t bits48);
// The RFC 5952 form inet_ntop gives: lowercase, the longest run of zero groups (the first of
// equal ones) as "::", an IPv4-mapped address with its IPv4 part dotted.
void appendIp6Text(std::string& out, const uint8_t* bytes16);

}  // namespace Platform
