#include "platform/addr/Ip6Addr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "platform/addr/IpAddr.h"
#include "platform/base/Assert.h"

namespace Platform {

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text) {
   // inet_pton needs a terminated string; anything longer than the longest form is
   // not an address.
   char buf[INET6_ADDRSTRLEN];
   if (text.size() >= sizeof(buf))
      return std::nullopt;
   text.copy(buf, text.size());
   buf[text.size()] = '\0';
   Bytes bytes;
   if (inet_pton(AF_INET6, buf, bytes.data()) != 1)
      return std::nullopt;
   return Ip6Addr(bytes);
}

bool Ip6Addr::isZero() const {
   return std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}

bool Ip6Addr::isLoopback() const {
   return std::all_of(bytes_.begin(), bytes_.end() - 1, [](uint8_t b) { return b == 0; }) &&
          bytes_[15] == 1;
}

std::string Ip6Addr::toString() const {
   std::string out;
   appendIp6Text(out, bytes_.data());
   return out;
}

Ip6Prefix::Ip6Prefix(Ip6Addr address, uint8_t len) : address_(address), len_(len) {
   PLATFORM_ASSERT(len <= 128, "IPv6 prefix length above 128");
}

std::optional<Ip6Prefix> Ip6Prefix::parse(std::string_view text) {
   const auto slash = text.find('/');
   if (slash == std::string_view::npos)
      return std::nullopt;
   const auto address = Ip6Addr::parse(text.substr(0, slash));
   if (!address)
      return std::nullopt;
   const auto len = parsePrefixLen(text.substr(slash + 1), 128);
   if (!len)
      return std::nullopt;
   return Ip6Prefix(*address, *len);
}

bool Ip6Prefix::contains(Ip6Addr a) const {
   const auto& mine = address_.bytes();
   const auto& theirs = a.bytes();
   const size_t whole = len_ / 8;
   if (!std::equal(mine.begin(), mine.begin() + whole, theirs.begin()))
      return false;
   const unsigned rest = len_ % 8;
   if (rest == 0)
      return true;
   const auto mask = static_cast<uint8_t>(0xff << (8 - rest));
   return (mine[whole] & mask) == (theirs[whole] & mask);
}

std::string Ip6Prefix::toString() const {
   return address_.toString() + "/" + std::to_string(len_);
}

}  // namespace Platform

size_t std::hash<Platform::Ip6Addr>::operator()(const Platform::Ip6Addr& a) const noexcept {
   uint64_t hi;
   uint64_t lo;
   std::memcpy(&hi, a.bytes().data(), 8);
   std::memcpy(&lo, a.bytes().data() + 8, 8);
   return std::hash<uint64_t>{}(hi ^ (lo * 0x9e3779b97f4a7c15ull));
}
