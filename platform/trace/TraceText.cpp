#include "platform/trace/TraceText.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <span>

namespace Platform::TraceText {

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr char kHexDigits[] = "0123456789abcdef";

template <class T>
void appendNumber(std::string& out, T value) {
   char buf[32];
   const auto result = std::to_chars(buf, buf + sizeof(buf), value);
   out.append(buf, result.ptr);
}

void appendEscaped(std::string& out, std::string_view text) {
   size_t clean = 0;
   for (size_t i = 0; i < text.size(); ++i) {
      const auto c = static_cast<unsigned char>(text[i]);
      if (c >= 0x20 && c != 0x7f)
         continue;
      out.append(text.substr(clean, i - clean));
      const char escape[] = {'\\', 'x', kHexDigits[c >> 4], kHexDigits[c & 0xf]};
      out.append(escape, sizeof(escape));
      clean = i + 1;
   }
   out.append(text.substr(clean));
}

void appendHexBytes(std::string& out, std::span<const uint8_t> bytes) {
   if (bytes.empty()) {
      out += '-';
      return;
   }
   for (size_t i = 0; i < bytes.size(); ++i) {
      if (i != 0)
         out += ':';
      out += kHexDigits[bytes[i] >> 4];
      out += kHexDigits[bytes[i] & 0xf];
   }
}

}  // namespace

void appendPiece(std::string& out, const TraceArg& piece) {
   switch (piece.kind) {
      case TraceArg::Kind::Signed:
         appendNumber(out, piece.signedValue);
         return;
      case TraceArg::Kind::Unsigned:
         appendNumber(out, piece.unsignedValue);
         return;
      case TraceArg::Kind::Real:
         appendNumber(out, piece.realValue);
         return;
      case TraceArg::Kind::Bool:
         out += piece.boolValue ? "true" : "false";
         return;
      case TraceArg::Kind::Text:
         appendEscaped(out, piece.textView());
         return;
      case TraceArg::Kind::Ip4:
         appendIp4Text(out, static_cast<uint32_t>(piece.unsignedValue));
         return;
      case TraceArg::Kind::Ip4WithMask:
         appendIp4Text(out, static_cast<uint32_t>(piece.unsignedValue));
         out += '/';
         appendNumber(out, piece.unsignedValue >> 32);
         return;
      case TraceArg::Kind::Mac:
         appendMacText(out, piece.unsignedValue);
         return;
      case TraceArg::Kind::Hex32: {
         char text[10] = {'0', 'x'};
         for (int i = 0; i < 8; ++i)
            text[2 + i] = kHexDigits[(piece.unsignedValue >> (28 - 4 * i)) & 0xf];
         out.append(text, sizeof text);
         return;
      }
      case TraceArg::Kind::Ip6:
         appendIp6Text(out, piece.bytes);
         return;
      case TraceArg::Kind::Ip6WithLen:
         appendIp6Text(out, piece.bytes);
         out += '/';
         appendNumber(out, piece.prefixLen);
         return;
      case TraceArg::Kind::HexBytes:
         appendHexBytes(out, piece.byteView());
         return;
   }
}

void appendPrefix(std::string& out, int64_t realtimeNs, int level) {
   // Lines come in bursts within one second: format the date and time of day once per second.
   static int64_t cachedSecond = INT64_MIN;
   static char cached[80];
   static size_t cachedSize = 0;

   int64_t second = realtimeNs / kNsPerSecond;
   int64_t fraction = realtimeNs % kNsPerSecond;
   if (fraction < 0) {
      fraction += kNsPerSecond;
      --second;
   }
   if (second != cachedSecond) {
      const auto t = static_cast<time_t>(second);
      struct tm parts;
      int n;
      if (gmtime_r(&t, &parts)) {
         n = std::snprintf(cached, sizeof(cached), "%04d-%02d-%02dT%02d:%02d:%02d",
                           parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                           parts.tm_min, parts.tm_sec);
      } else {
         n = std::snprintf(cached, sizeof(cached), "(time out of range)");
      }
      cachedSecond = second;
      cachedSize = static_cast<size_t>(n);
   }
   out.append(cached, cachedSize);
   char tail[] = ".000000Z 0 ";
   auto micros = fraction / 1000;
   for (int i = 6; i >= 1; --i) {
      tail[i] = static_cast<char>('0' + micros % 10);
      micros /= 10;
   }
   tail[9] = static_cast<char>('0' + level);
   out.append(tail, sizeof(tail) - 1);
}

}  // namespace Platform::TraceText
