#include "platform/trace/TraceArg.h"

#include <arpa/inet.h>

namespace Platform {

namespace {

void appendDecimal(std::string& out, unsigned v) {
   char digits[3];
   size_t n = 0;
   do {
      digits[n++] = static_cast<char>('0' + v % 10);
      v /= 10;
   } while (v != 0);
   while (n != 0)
      out += digits[--n];
}

}  // namespace

void appendIp4Text(std::string& out, uint32_t hostOrder) {
   for (int shift = 24; shift >= 0; shift -= 8) {
      appendDecimal(out, (hostOrder >> shift) & 0xff);
      if (shift != 0)
         out += '.';
   }
}

void appendMacText(std::string& out, uint64_t bits48) {
   static constexpr char kHex[] = "0123456789abcdef";
   for (int shift = 40; shift >= 0; shift -= 8) {
      const unsigned byte = (bits48 >> shift) & 0xff;
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
      if (shift != 0)
         out += ':';
   }
}

void appendIp6Text(std::string& out, const uint8_t* bytes16) {
   char text[INET6_ADDRSTRLEN];
   inet_ntop(AF_INET6, bytes16, text, sizeof(text));
   out += text;
}

}  // namespace Platform
