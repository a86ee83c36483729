#include "frontend/kernel/KernelTableWatch.h"

namespace Frontend {

using KernelNetInfo::KernelIntf;

KernelTableWatch::DeviceReactor::DeviceReactor(KernelTableWatch& owner,
                                               Ptr<const KernelIntf> device)
    : name(device->deviceName()), owner_(owner) {
   notifierIs(device);
}

KernelTableWatch::KernelTableWatch(Ptr<const KernelNetInfo::Status> table, Handler& handler)
    : handler_(handler), tableReactor_(*this) {
   tableReactor_.notifierIs(table);
   for (const auto& [ifindex, device] : table->interfaceByIndex())
      doFollow(ifindex, device);
}

KernelTableWatch::~KernelTableWatch() = default;

const KernelIntf* KernelTableWatch::deviceNamed(const std::string& name) const {
   auto it = byName_.lower_bound({name, 0});
   if (it == byName_.end() || it->first != name)
      return nullptr;
   return devices_.at(it->second)->notifier().get();
}

KernelTableWatch::DeviceReactor& KernelTableWatch::doFollow(uint32_t ifindex,
                                                            Ptr<const KernelIntf> device) {
   auto& reactor = devices_[ifindex];
   reactor = std::make_unique<DeviceReactor>(*this, std::move(device));
   byName_.emplace(reactor->name, ifindex);
   return *reactor;
}

void KernelTableWatch::doDevice(uint32_t ifindex) {
   Ptr<const KernelIntf> device = table()->interfaceByIndex(ifindex);
   std::string oldName;
   if (auto it = devices_.find(ifindex); it != devices_.end()) {
      if (it->second->notifier() == device)
         return;
      oldName = std::move(it->second->name);
      byName_.erase({oldName, ifindex});
      devices_.erase(it);
   } else if (!device) {
      return;
   }
   if (device)
      doFollow(ifindex, device);
   handler_.handleDeviceName(ifindex, oldName, device.get());
}

void KernelTableWatch::doRename(uint32_t ifindex) {
   DeviceReactor& reactor = *devices_.at(ifindex);
   const std::string& now = reactor.notifier()->deviceName();
   if (now == reactor.name)
      return;
   std::string oldName = std::exchange(reactor.name, now);
   byName_.erase({oldName, ifindex});
   byName_.emplace(reactor.name, ifindex);
   handler_.handleDeviceName(ifindex, oldName, reactor.notifier().get());
}

}  // namespace Frontend
