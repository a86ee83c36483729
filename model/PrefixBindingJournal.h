#pragma once

#include <map>
#include <vector>

#include "model/Status.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"

namespace Ip::Helper::DhcpRelay {

// One prefix binding as it was kept, for an agent that starts again.
struct SavedPrefixBinding {
   Platform::IntfId intf;
   Platform::Ip6Prefix prefix;
   PrefixBindingAttrs attrs;
};

// Hears that the DHCPv6 relay's prefix bindings changed, so that they are kept where a
// restarted agent finds them again: the routes they placed outlive the agent.
class PrefixBindingJournal {
 public:
   virtual void handlePrefixBindingsChanged() = 0;

 protected:
   ~PrefixBindingJournal() = default;
};

}  // namespace Ip::Helper::DhcpRelay
