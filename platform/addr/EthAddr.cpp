#include "platform/addr/EthAddr.h"

namespace Platform {

namespace {

std::optional<uint8_t> hexDigit(char c) {
   if (c >= '0' && c <= '9')
      return static_cast<uint8_t>(c - '0');
   if (c >= 'a' && c <= 'f')
      return static_cast<uint8_t>(c - 'a' + 10);
   if (c >= 'A' && c <= 'F')
      return static_cast<uint8_t>(c - 'A' + 10);
   return std::nullopt;
}

// Reads the 12 hex digits of an address whose separator sits after every `group`
// digits; every other position must be a digit.
std::optional<EthAddr> parseGrouped(std::string_view text, size_t group, char separator) {
   constexpr size_t digits = 12;
   if (text.size() != digits + digits / group - 1)
      return std::nullopt;
   EthAddr::Bytes bytes{};
   size_t digit = 0;
   for (size_t i = 0; i < text.size(); ++i) {
      if ((i + 1) % (group + 1) == 0) {
         if (text[i] != separator)
            return std::nullopt;
         continue;
      }
      const auto nibble = hexDigit(text[i]);
      if (!nibble)
         return std::nullopt;
      bytes[digit / 2] = static_cast<uint8_t>(bytes[digit / 2] << 4 | *nibble);
      ++digit;
   }
   return EthAddr(bytes);
}

}  // namespace

std::optional<EthAddr> EthAddr::parse(std::string_view text) {
   if (const auto a = parseGrouped(text, 2, ':'))
      return a;
   return parseGrouped(text, 4, '.');
}

uint64_t EthAddr::bits48() const {
   uint64_t bits = 0;
   for (const uint8_t b : bytes_)
      bits = bits << 8 | b;
   return bits;
}

std::string EthAddr::toString() const {
   std::string text;
   appendMacText(text, bits48());
   return text;
}

}  // namespace Platform
