#include "model/Status.h"

#include "platform/base/Assert.h"

namespace Ip::Helper::DhcpRelay {

void Status::numSmartRelayedHostsInc() {
   ++numSmartRelayedHosts_;
   notify(&Reactor::handleNumSmartRelayedHosts);
}

void Status::numSmartRelayedHostsDec() {
   PLATFORM_ASSERT(numSmartRelayedHosts_ > 0, "numSmartRelayedHosts decremented below zero");
   --numSmartRelayedHosts_;
   notify(&Reactor::handleNumSmartRelayedHosts);
}

}  // namespace Ip::Helper::DhcpRelay
