#include "relay4/ClientBindings.h"

#include <algorithm>

#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

ClientBindings::ClientBindings(Platform::TimerWheel& wheel, const Ptr<ClientContext>& context,
                               const Ptr<Status>& status, size_t limit)
    : wheel_(wheel), context_(context), status_(status), limit_(limit) {
   // Bindings of an earlier run have no timers: they would never go.
   context_->crossVrfClientBindingDelAll();
   doCount();
}

ClientBindings::~ClientBindings() {
   expiry_.clear();
   context_->crossVrfClientBindingDelAll();
   doCount();
}

bool ClientBindings::bindingIs(const Platform::EthAddr& mac, const CrossVrfClientBinding& binding,
                               std::optional<uint32_t> leaseTime) {
   auto it = expiry_.find(mac);
   if (it == expiry_.end()) {
      if (expiry_.size() >= limit_) {
         TRACE(4, " client binding table full (", expiry_.size(), "); no binding for ", mac);
         status_->clientBindingsRefusedInc();
         return false;
      }
      it = expiry_.try_emplace(mac, wheel_, [this, mac] { handleExpiry(mac); }).first;
   }
   // RFC 2131 section 3.3: 0xffffffff is an infinite lease.
   const double lease =
       leaseTime && *leaseTime != 0xffffffff ? static_cast<double>(*leaseTime) : kLeaseCeiling;
   it->second.armIn(lease);
   context_->crossVrfClientBindingIs(mac, binding);
   TRACE(5, " client binding for ", mac, ": ", binding.toString(), " for ", lease, " s");
   doCount();
   return true;
}

void ClientBindings::bindingDel(const Platform::EthAddr& mac) {
   if (!expiry_.erase(mac))
      return;
   context_->crossVrfClientBindingDel(mac);
   TRACE(5, " client binding for ", mac, " removed");
   doCount();
}

std::optional<double> ClientBindings::expiry(const Platform::EthAddr& mac) const {
   auto it = expiry_.find(mac);
   if (it == expiry_.end())
      return std::nullopt;
   return it->second.deadline();
}

void ClientBindings::handleExpiry(const Platform::EthAddr& mac) {
   TRACE(5, " client binding for ", mac, " expired");
   // Copied: erasing the entry destroys the timer whose handler this is, and `mac` with it.
   const Platform::EthAddr key = mac;
   expiry_.erase(key);
   context_->crossVrfClientBindingDel(key);
   doCount();
}

void ClientBindings::doCount() {
   status_->numClientBindingsIs(static_cast<uint32_t>(expiry_.size()));
}

}  // namespace Ip::Helper::DhcpRelay
