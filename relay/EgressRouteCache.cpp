#include "relay/EgressRouteCache.h"

namespace Ip::Helper::DhcpRelay {

const EgressRouteCache::Answer& EgressRouteCache::egressRoute(Platform::RouteSocket& socket,
                                                              std::optional<uint64_t> generation,
                                                              const Platform::IpGenAddr& server) {
   if (generation != generation_) {
      answers_.clear();
      generation_ = generation;
   }
   if (auto it = answers_.find(server); it != answers_.end())
      return it->second;
   const uint64_t unanswered = socket.unanswered();
   fresh_.route = socket.egressIntf(server, fresh_.error);
   if (!generation || socket.unanswered() != unanswered)
      return fresh_;
   if (answers_.size() >= kMaxEntries)
      answers_.clear();
   return answers_.emplace(server, fresh_).first->second;
}

}  // namespace Ip::Helper::DhcpRelay
