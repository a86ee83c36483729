#include "model/switch/KernelNetInfo.h"

#include "platform/base/Assert.h"
#include "platform/linux/NetNs.h"

namespace KernelNetInfo {

std::string kernelTablePath(const std::string& nsName) {
   return "kni/ns/" + (Platform::isOwnNetNs(nsName) ? std::string("default") : nsName) + "/status";
}

Platform::Ptr<Status> kernelTableOf(Platform::StateStore& store, const std::string& nsName) {
   const std::string path = kernelTablePath(nsName);
   if (Platform::Ptr<Platform::Entity> e = store.published(path)) {
      Platform::Ptr<Status> table = Platform::ptrCast<Status>(e);
      PLATFORM_ASSERT(table, "a kernel table path holds another type");
      return table;
   }
   auto table = Platform::make<Status>("status");
   store.publish(path, table);
   return table;
}

}  // namespace KernelNetInfo
