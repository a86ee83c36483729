#include "model/switch/IntfStatusDir.h"

namespace Interface {

std::string DeviceNameConfig::deviceOf(const Platform::IntfId& intf) const {
   auto it = deviceName_.find(intf);
   return it == deviceName_.end() ? intf.toString() : it->second;
}

Platform::IntfId DeviceNameConfig::intfIdOf(const std::string& device) const {
   for (const auto& [intf, dev] : deviceName_) {
      if (dev == device)
         return intf;
   }
   auto id = Platform::IntfId::parse(device);
   if (!id || deviceName_.count(*id))
      return {};
   return *id;
}

}  // namespace Interface
