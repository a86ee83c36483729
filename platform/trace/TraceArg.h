#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Platform {

// One piece of a line before any formatting: what the ring stores and the text sink formats.
struct TraceArg {
   // Addresses stay binary until a sink formats them: the ring stores 8 bytes, not text.
   enum class Kind : uint8_t { Signed, Unsigned, Real, Bool, Text, Ip4, Ip4WithMask, Mac, Hex32 };

   Kind kind;
   union {
      int64_t signedValue;
      uint64_t unsignedValue;
      double realValue;
      bool boolValue;
      const char* text;
   };
   size_t textSize;

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
   std::string_view textView() const { return {text, textSize}; }
};

// The text forms of the address pieces, shared by the address types and every sink.
void appendIp4Text(std::string& out, uint32_t hostOrder);
void appendMacText(std::string& out, uint64_t bits48);

}  // namespace Platform
