#include "platform/linux/SockAddr.h"

#include <arpa/inet.h>

#include <cstring>

namespace Platform {

in_addr toInAddr(IpAddr a) {
   in_addr out{};
   out.s_addr = a.toNetwork();
   return out;
}

in6_addr toIn6Addr(const Ip6Addr& a) {
   in6_addr out{};
   std::memcpy(out.s6_addr, a.bytes().data(), sizeof out.s6_addr);
   return out;
}

Ip6Addr fromIn6Addr(const in6_addr& a) {
   Ip6Addr::Bytes bytes;
   std::memcpy(bytes.data(), a.s6_addr, bytes.size());
   return Ip6Addr(bytes);
}

socklen_t toSockaddr(bool ipv6, const IpGenAddr& addr, uint16_t port, uint32_t scope,
                     sockaddr_in6& out) {
   out = sockaddr_in6{};
   if (ipv6) {
      out.sin6_family = AF_INET6;
      out.sin6_port = htons(port);
      if (addr.isV6())
         out.sin6_addr = toIn6Addr(addr.v6());
      out.sin6_scope_id = scope;
      return sizeof(sockaddr_in6);
   }
   auto& in = reinterpret_cast<sockaddr_in&>(out);
   in.sin_family = AF_INET;
   in.sin_port = htons(port);
   in.sin_addr = addr.isV4() ? toInAddr(addr.v4()) : in_addr{htonl(INADDR_ANY)};
   return sizeof(sockaddr_in);
}

}  // namespace Platform
