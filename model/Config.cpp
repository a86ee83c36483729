#include "model/Config.h"

namespace Ip::Helper::DhcpRelay {

Ptr<IntfConfig> Config::intfConfigIs(const Platform::IntfId& intf) {
   auto it = intfConfig_.find(intf);
   if (it != intfConfig_.end())
      return it->second;
   Ptr<IntfConfig> c = Platform::make<IntfConfig>(intf);
   intfConfig_.emplace(intf, c);
   notify(&Reactor::handleIntfConfig, intf);
   return c;
}

}  // namespace Ip::Helper::DhcpRelay
