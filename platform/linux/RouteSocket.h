#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/addr/IpGenAddr.h"
#include "platform/linux/Netlink.h"

namespace Platform {

// Where the kernel would send a packet: what `ip route get` answers.
struct EgressRoute {
   uint32_t ifindex = 0;
   IpGenAddr preferredSource;  // the source the kernel would choose; empty when it has none
   IpGenAddr gateway;          // empty for a destination on a connected subnet

   bool operator==(const EgressRoute&) const = default;
};

// A unicast route of the main table.
struct Route {
   IpGenAddr prefix;  // its family is the route's
   uint8_t prefixLen = 0;
   IpGenAddr via;            // empty: on-link through ifindex
   uint32_t ifindex = 0;     // 0: whichever device reaches `via`
   uint32_t preference = 0;  // the metric (RTA_PRIORITY); lower wins
   uint8_t protocol = 16;    // who installed it; 16 is "proto dhcp"
   // IPv6 only: seconds until the kernel removes the route by itself; 0: never. A listed
   // route shows what is left of it.
   uint32_t expires = 0;

   bool operator==(const Route&) const = default;
};

// Request/response route queries inside one network namespace. The socket is blocking
// with a short receive timeout: the kernel answers at once, so waiting means it never
// will. Answers are matched by sequence number and port, so a late answer to a request
// that timed out is never taken for the current one.
class RouteSocket {
 public:
   // "" and "default" are the agent's own namespace.
   static std::unique_ptr<RouteSocket> open(const std::string& nsName, std::string& error);

   int fd() const { return socket_->fd(); }

   std::optional<EgressRoute> egressIntf(const IpGenAddr& dst, std::string& error);
   // Replaces a route of the same prefix and metric (NLM_F_REPLACE | NLM_F_CREATE).
   bool routeAdd(const Route& route, std::string& error);
   // Deletes the route matching prefix, metric and protocol, and via and ifindex when set.
   bool routeDel(const Route& route, std::string& error);
   // The main table's unicast routes of a family (AF_INET or AF_INET6) installed by
   // `protocol`. A multipath route is listed without its next hops.
   std::vector<Route> routes(uint8_t protocol, int family, std::string& error);

   // Requests sent, and those the kernel gave no answer to (send or receive failed, or
   // it timed out): a refusal is an answer, a timeout says nothing about the routes.
   uint64_t requests() const { return requests_; }
   uint64_t unanswered() const { return unanswered_; }

 private:
   explicit RouteSocket(std::unique_ptr<NetlinkSocket> socket);

   // Sends the request and reads its answer to the end (acknowledgement, error or end
   // of dump), passing every other message of the answer to onMessage.
   template <class F>
   bool doRequest(nlmsghdr* nlh, std::string& error, F&& onMessage);
   bool doRouteChange(const Route& route, uint16_t type, uint16_t flags, std::string& error);

   std::unique_ptr<NetlinkSocket> socket_;
   std::vector<uint8_t> buffer_;
   uint64_t requests_ = 0;
   uint64_t unanswered_ = 0;
};

}  // namespace Platform
