#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "platform/addr/IpAddr.h"
#include "platform/addr/IpGenAddr.h"

namespace Platform {

// Addresses in the kernel's form and back.
in_addr toInAddr(IpAddr a);
in6_addr toIn6Addr(const Ip6Addr& a);
Ip6Addr fromIn6Addr(const in6_addr& a);

// The address a socket binds, or a send goes to, in the kernel's form: IPv6 when `ipv6`
// (the unspecified address when `addr` is none), else IPv4 (any when `addr` is none).
// `scope` is used by the kernel only for destinations that need one (link-local,
// link-scoped multicast).
socklen_t toSockaddr(bool ipv6, const IpGenAddr& addr, uint16_t port, uint32_t scope,
                     sockaddr_in6& out);

}  // namespace Platform
