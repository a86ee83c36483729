#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/addr/IpGenAddr.h"
#include "platform/linux/RouteSocket.h"

namespace Ip::Helper::DhcpRelay {

// The kernel's answers to "how is this server reached" in one namespace, so that relayed
// copies do not each wait for a netlink round trip. Every answer was given at one route
// generation of the namespace's kernel table; a lookup at another generation forgets them
// all and asks again. "No route" is remembered like a route; a request the kernel did not
// answer (a timeout) is not.
class EgressRouteCache {
 public:
   // Servers are few; past this many the answers are dropped and gathered again.
   static constexpr size_t kMaxEntries = 1024;

   struct Answer {
      std::optional<Platform::EgressRoute> route;
      std::string error;  // why there is no route
   };

   // Valid until the next call. Without a generation (nobody follows the namespace's
   // routes) every lookup asks the kernel.
   const Answer& egressRoute(Platform::RouteSocket& socket, std::optional<uint64_t> generation,
                             const Platform::IpGenAddr& server);
   size_t size() const { return answers_.size(); }

 private:
   std::optional<uint64_t> generation_;
   std::unordered_map<Platform::IpGenAddr, Answer> answers_;
   // The latest request's answer: reused, so that asking does not allocate either.
   Answer fresh_;
};

}  // namespace Ip::Helper::DhcpRelay
