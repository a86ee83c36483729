#include "frontend/kernel/DeviceNameIndex.h"

#include <vector>

namespace Frontend {

DeviceNameIndex::DeviceNameIndex(const Interface::DeviceNameConfig* config) {
   if (!config)
      return;
   for (const auto& [intf, device] : config->deviceName())
      doAdd(intf, device);
}

IntfId DeviceNameIndex::intfIdOf(const std::string& device) const {
   if (auto it = intfsOf_.find(device); it != intfsOf_.end())
      return *it->second.begin();
   auto id = IntfId::parse(device);
   if (!id || deviceOf_.contains(*id))
      return {};
   return *id;
}

std::string DeviceNameIndex::deviceOf(const IntfId& intf) const {
   auto it = deviceOf_.find(intf);
   std::string device = it == deviceOf_.end() ? intf.toString() : it->second;
   return intfIdOf(device) == intf ? device : std::string();
}

std::set<IntfId> DeviceNameIndex::update(const Interface::DeviceNameConfig& config,
                                         const IntfId& intf) {
   // Only these names can change hands: the entry's old device, its new one, and the
   // interface's own name, which stands for a device only while the entry is absent.
   std::vector<std::string> names{intf.toString()};
   if (auto it = deviceOf_.find(intf); it != deviceOf_.end())
      names.push_back(it->second);
   auto now = config.deviceName().find(intf);
   if (now != config.deviceName().end())
      names.push_back(now->second);

   std::set<IntfId> affected{intf};
   auto collect = [&] {
      for (const std::string& name : names) {
         if (IntfId owner = intfIdOf(name); !owner.empty())
            affected.insert(owner);
      }
   };
   collect();
   doDel(intf);
   if (now != config.deviceName().end())
      doAdd(intf, now->second);
   collect();
   return affected;
}

void DeviceNameIndex::doAdd(const IntfId& intf, const std::string& device) {
   deviceOf_[intf] = device;
   intfsOf_[device].insert(intf);
}

void DeviceNameIndex::doDel(const IntfId& intf) {
   auto it = deviceOf_.find(intf);
   if (it == deviceOf_.end())
      return;
   auto owners = intfsOf_.find(it->second);
   owners->second.erase(intf);
   if (owners->second.empty())
      intfsOf_.erase(owners);
   deviceOf_.erase(it);
}

}  // namespace Frontend
