#include "platform/linux/RouteSocket.h"

#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Platform {

namespace {

// Requests here are a header, a rtmsg and at most five attributes.
using RequestBuffer = std::array<uint8_t, 256>;

int familyOf(const IpGenAddr& a) {
   return a.isV4() ? AF_INET : AF_INET6;
}

uint8_t maxPrefixLen(int family) {
   return family == AF_INET ? 32 : 128;
}

IpGenAddr zeroOf(int family) {
   return family == AF_INET ? IpGenAddr(IpAddr()) : IpGenAddr(Ip6Addr());
}

// The kernel refuses an IPv4 destination with host bits set ("Invalid prefix for
// given prefix length"); the network is what a route names.
IpGenAddr networkOf(const IpGenAddr& a, uint8_t len) {
   if (a.isV4())
      return IpAddrWithMask(a.v4(), len).subnet();
   Ip6Addr::Bytes bytes = a.v6().bytes();
   for (size_t i = 0; i < bytes.size(); ++i) {
      const int keep = std::clamp(static_cast<int>(len) - static_cast<int>(i) * 8, 0, 8);
      bytes[i] &= static_cast<uint8_t>(0xff00u >> keep);
   }
   return Ip6Addr(bytes);
}

void putAddr(nlmsghdr* nlh, uint16_t type, const IpGenAddr& a) {
   if (a.isV4()) {
      const uint32_t networkOrder = a.v4().toNetwork();
      mnl_attr_put(nlh, type, sizeof(networkOrder), &networkOrder);
   } else {
      mnl_attr_put(nlh, type, 16, a.v6().bytes().data());
   }
}

rtmsg* putRouteRequest(RequestBuffer& buffer, uint16_t type, uint16_t flags, int family) {
   nlmsghdr* nlh = mnl_nlmsg_put_header(buffer.data());
   nlh->nlmsg_type = type;
   nlh->nlmsg_flags = NLM_F_REQUEST | flags;
   auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
   rtm->rtm_family = static_cast<uint8_t>(family);
   return rtm;
}

nlmsghdr* headerOf(RequestBuffer& buffer) {
   return reinterpret_cast<nlmsghdr*>(buffer.data());
}

}  // namespace

RouteSocket::RouteSocket(std::unique_ptr<NetlinkSocket> socket)
    : socket_(std::move(socket)), buffer_(kNetlinkBufferSize) {}

std::unique_ptr<RouteSocket> RouteSocket::open(const std::string& nsName, std::string& error) {
   auto socket = NetlinkSocket::open(nsName, 0, false, error);
   if (!socket)
      return nullptr;
   const timeval timeout{1, 0};
   if (::setsockopt(socket->fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) < 0) {
      error = std::string("cannot set the netlink receive timeout: ") + std::strerror(errno);
      return nullptr;
   }
   // Optional: the kernel's own reason for a refusal, and acknowledgements that do
   // not echo the request back.
   std::string ignored;
   socket->netlinkOptionIs(NETLINK_EXT_ACK, 1, ignored);
   socket->netlinkOptionIs(NETLINK_CAP_ACK, 1, ignored);
   return std::unique_ptr<RouteSocket>(new RouteSocket(std::move(socket)));
}

template <class F>
bool RouteSocket::doRequest(nlmsghdr* nlh, std::string& error, F&& onMessage) {
   error.clear();
   const uint32_t seq = socket_->nextSeq();
   nlh->nlmsg_seq = seq;
   ++requests_;
   if (!socket_->send(nlh, error)) {
      ++unanswered_;
      return false;
   }
   bool finished = false;
   bool ok = true;
   while (!finished) {
      const ssize_t n = socket_->receive(buffer_);
      if (n == 0 || n == -EINTR)
         continue;
      if (n == -EAGAIN || n == -EWOULDBLOCK) {
         error = "the kernel did not answer a netlink request within 1 s";
         ++unanswered_;
         return false;
      }
      if (n < 0) {
         error = std::string("netlink receive failed: ") + std::strerror(static_cast<int>(-n));
         ++unanswered_;
         return false;
      }
      forEachNetlinkMessage({buffer_.data(), static_cast<size_t>(n)}, [&](const nlmsghdr* m) {
         if (finished || m->nlmsg_seq != seq || m->nlmsg_pid != socket_->portId())
            return;
         if (m->nlmsg_type == NLMSG_ERROR) {
            finished = true;
            if (netlinkErrno(m) != 0) {
               ok = false;
               error = netlinkErrorText(m);
            }
         } else if (m->nlmsg_type == NLMSG_DONE) {
            finished = true;
            if (const int* status = netlinkHeader<int>(m); status && *status < 0) {
               ok = false;
               error = std::strerror(-*status);
            }
         } else {
            onMessage(m);
         }
      });
   }
   return ok;
}

std::optional<EgressRoute> RouteSocket::egressIntf(const IpGenAddr& dst, std::string& error) {
   if (dst.isEmpty()) {
      error = "no destination to look up a route for";
      return std::nullopt;
   }
   const int family = familyOf(dst);
   RequestBuffer request{};
   rtmsg* rtm = putRouteRequest(request, RTM_GETROUTE, NLM_F_ACK, family);
   rtm->rtm_dst_len = maxPrefixLen(family);
   putAddr(headerOf(request), RTA_DST, dst);

   std::optional<EgressRoute> result;
   const bool ok = doRequest(headerOf(request), error, [&](const nlmsghdr* m) {
      if (m->nlmsg_type != RTM_NEWROUTE || !netlinkHeader<rtmsg>(m))
         return;
      auto attrs = netlinkAttrs<RTA_PREFSRC + 1>(m, sizeof(rtmsg));
      EgressRoute route;
      route.ifindex = netlinkU32(attrs[RTA_OIF]).value_or(0);
      route.preferredSource = netlinkAddr(attrs[RTA_PREFSRC], family).value_or(IpGenAddr());
      route.gateway = netlinkAddr(attrs[RTA_GATEWAY], family).value_or(IpGenAddr());
      result = route;
   });
   if (!ok)
      return std::nullopt;
   if (!result)
      error = "the kernel answered without a route to " + dst.toString();
   return result;
}

bool RouteSocket::routeAdd(const Route& route, std::string& error) {
   return doRouteChange(route, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE, error);
}

bool RouteSocket::routeDel(const Route& route, std::string& error) {
   return doRouteChange(route, RTM_DELROUTE, 0, error);
}

bool RouteSocket::doRouteChange(const Route& route, uint16_t type, uint16_t flags,
                                std::string& error) {
   if (route.prefix.isEmpty()) {
      error = "a route needs a destination prefix";
      return false;
   }
   const int family = familyOf(route.prefix);
   if (route.prefixLen > maxPrefixLen(family)) {
      error = "prefix length " + std::to_string(route.prefixLen) + " too long for " +
              route.prefix.toString();
      return false;
   }
   if (!route.via.isEmpty() && familyOf(route.via) != family) {
      error =
          "gateway " + route.via.toString() + " is not of the family of " + route.prefix.toString();
      return false;
   }
   RequestBuffer request{};
   rtmsg* rtm = putRouteRequest(request, type, NLM_F_ACK | flags, family);
   rtm->rtm_dst_len = route.prefixLen;
   rtm->rtm_table = RT_TABLE_MAIN;
   rtm->rtm_protocol = route.protocol;
   rtm->rtm_type = RTN_UNICAST;
   // A deletion matches routes of any scope, as `ip route del` does.
   if (type == RTM_DELROUTE)
      rtm->rtm_scope = RT_SCOPE_NOWHERE;
   else
      rtm->rtm_scope = route.via.isEmpty() ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
   nlmsghdr* nlh = headerOf(request);
   putAddr(nlh, RTA_DST, networkOf(route.prefix, route.prefixLen));
   if (!route.via.isEmpty())
      putAddr(nlh, RTA_GATEWAY, route.via);
   if (route.ifindex != 0)
      mnl_attr_put_u32(nlh, RTA_OIF, route.ifindex);
   mnl_attr_put_u32(nlh, RTA_PRIORITY, route.preference);
   if (type == RTM_NEWROUTE && route.expires != 0 && family == AF_INET6)
      mnl_attr_put_u32(nlh, RTA_EXPIRES, route.expires);
   return doRequest(nlh, error, [](const nlmsghdr*) {});
}

std::vector<Route> RouteSocket::routes(uint8_t protocol, int family, std::string& error) {
   if (family != AF_INET && family != AF_INET6) {
      error = "routes are listed for AF_INET or AF_INET6, not family " + std::to_string(family);
      return {};
   }
   RequestBuffer request{};
   putRouteRequest(request, RTM_GETROUTE, NLM_F_DUMP, family);

   std::vector<Route> out;
   const bool ok = doRequest(headerOf(request), error, [&](const nlmsghdr* m) {
      const auto* rtm = netlinkHeader<rtmsg>(m);
      if (m->nlmsg_type != RTM_NEWROUTE || !rtm || rtm->rtm_family != family)
         return;
      auto attrs = netlinkAttrs<RTA_EXPIRES + 1>(m, sizeof(rtmsg));
      // rtm_table holds only table numbers below 256; RTA_TABLE holds them all.
      const uint32_t table = netlinkU32(attrs[RTA_TABLE]).value_or(rtm->rtm_table);
      if (table != RT_TABLE_MAIN || rtm->rtm_protocol != protocol || rtm->rtm_type != RTN_UNICAST ||
          rtm->rtm_dst_len > maxPrefixLen(family))
         return;
      Route route;
      route.prefix = netlinkAddr(attrs[RTA_DST], family).value_or(zeroOf(family));
      route.prefixLen = rtm->rtm_dst_len;
      route.via = netlinkAddr(attrs[RTA_GATEWAY], family).value_or(IpGenAddr());
      route.ifindex = netlinkU32(attrs[RTA_OIF]).value_or(0);
      route.preference = netlinkU32(attrs[RTA_PRIORITY]).value_or(0);
      route.protocol = rtm->rtm_protocol;
      // The kernel reports what is left in clock ticks (rta_cacheinfo, rtnetlink(7)).
      if (const nlattr* info = attrs[RTA_CACHEINFO];
          info && mnl_attr_get_payload_len(info) >= sizeof(rta_cacheinfo)) {
         rta_cacheinfo cache;
         std::memcpy(&cache, mnl_attr_get_payload(info), sizeof cache);
         const long ticks = ::sysconf(_SC_CLK_TCK);
         route.expires = ticks > 0 ? static_cast<uint32_t>((cache.rta_expires + ticks - 1) /
                                                           static_cast<uint64_t>(ticks))
                                   : 0;
      }
      out.push_back(route);
   });
   if (!ok)
      return {};
   return out;
}

}  // namespace Platform
