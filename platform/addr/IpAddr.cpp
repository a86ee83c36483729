#include "platform/addr/IpAddr.h"

#include <arpa/inet.h>

#include <charconv>

#include "platform/base/Assert.h"

namespace Platform {

IpAddr IpAddr::fromNetwork(uint32_t networkOrder) {
   return IpAddr(ntohl(networkOrder));
}

uint32_t IpAddr::toNetwork() const {
   return htonl(value_);
}

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
   // inet_pton needs a terminated string; anything longer than a dotted quad is not one.
   char buf[INET_ADDRSTRLEN];
   if (text.size() >= sizeof(buf))
      return std::nullopt;
   text.copy(buf, text.size());
   buf[text.size()] = '\0';
   in_addr addr;
   if (inet_pton(AF_INET, buf, &addr) != 1)
      return std::nullopt;
   return fromNetwork(addr.s_addr);
}

std::string IpAddr::toString() const {
   std::string text;
   appendIp4Text(text, value_);
   return text;
}

IpAddrWithMask::IpAddrWithMask(IpAddr address, uint8_t maskLen)
    : address_(address), maskLen_(maskLen) {
   PLATFORM_ASSERT(maskLen <= 32, "IPv4 mask length above 32");
}

std::optional<IpAddrWithMask> IpAddrWithMask::parse(std::string_view text) {
   const auto slash = text.find('/');
   if (slash == std::string_view::npos)
      return std::nullopt;
   const auto address = IpAddr::parse(text.substr(0, slash));
   if (!address)
      return std::nullopt;
   const auto len = parsePrefixLen(text.substr(slash + 1), 32);
   if (!len)
      return std::nullopt;
   return IpAddrWithMask(*address, *len);
}

IpAddr IpAddrWithMask::mask() const {
   // Shifting a 32-bit value by 32 is undefined, so /0 is spelled out.
   return IpAddr(maskLen_ == 0 ? 0 : ~uint32_t{0} << (32 - maskLen_));
}

std::string IpAddrWithMask::toString() const {
   return address_.toString() + "/" + std::to_string(maskLen_);
}

std::optional<uint8_t> parsePrefixLen(std::string_view text, uint8_t max) {
   // from_chars alone would accept a prefix of digits and ignore the rest.
   unsigned len = 0;
   const char* last = text.data() + text.size();
   const auto [end, ec] = std::from_chars(text.data(), last, len);
   if (text.empty() || text.size() > 3 || ec != std::errc() || end != last || len > max) {
      return std::nullopt;
   }
   return static_cast<uint8_t>(len);
}

}  // namespace Platform
