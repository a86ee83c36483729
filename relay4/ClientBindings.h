#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>

#include "model/ClientContext.h"
#include "model/Status.h"
#include "platform/addr/EthAddr.h"
#include "platform/loop/TimerWheel.h"

namespace Ip::Helper::DhcpRelay {

// The clients whose unicast renewals the relay forwards itself (ClientContext): those that
// took one of the relay's addresses for their server, because their server sits in another
// VRF or is reached from a source interface or address. A binding lives as long as the
// lease the server granted (option 51 of the ACK), at most kLeaseCeiling when the lease is
// missing or infinite, and the table holds at most `limit` bindings (by default
// Status::numClientBindingsMax()):
// past that, new clients get no binding (counted in clientBindingsRefused) and renew by
// broadcast once their unicast renewals go unanswered.
class ClientBindings {
 public:
   static constexpr double kLeaseCeiling = 86400.0;

   ClientBindings(Platform::TimerWheel& wheel, const Ptr<ClientContext>& context,
                  const Ptr<Status>& status, size_t limit = Status::numClientBindingsMax());
   ~ClientBindings();
   ClientBindings(const ClientBindings&) = delete;
   ClientBindings& operator=(const ClientBindings&) = delete;

   // Records or refreshes the client's binding; false when the table is full.
   bool bindingIs(const Platform::EthAddr& mac, const CrossVrfClientBinding& binding,
                  std::optional<uint32_t> leaseTime);
   void bindingDel(const Platform::EthAddr& mac);
   size_t size() const { return expiry_.size(); }
   // When the binding expires; nullopt without one.
   std::optional<double> expiry(const Platform::EthAddr& mac) const;

 private:
   void handleExpiry(const Platform::EthAddr& mac);
   void doCount();

   Platform::TimerWheel& wheel_;
   Ptr<ClientContext> context_;
   Ptr<Status> status_;
   const size_t limit_;
   std::unordered_map<Platform::EthAddr, Platform::Timer> expiry_;
};

}  // namespace Ip::Helper::DhcpRelay
