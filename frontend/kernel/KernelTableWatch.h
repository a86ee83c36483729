#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "model/switch/KernelNetInfo.h"
#include "platform/base/Ptr.h"

namespace Frontend {

using Platform::Ptr;

// Follows a kernel table device by device and tells its owner what changed, so that
// whoever derives records from the table touches only the devices concerned: a device
// that appeared, went or was renamed, or any other attribute of one. Also finds devices
// by name, which is how interfaces find theirs.
//
// The devices the table holds when the watch starts are not reported: the owner reads
// them from the table.
class KernelTableWatch {
 public:
   class Handler {
    public:
      virtual ~Handler() = default;
      // `oldName` is empty for a device that appeared; `device` is null for one that went.
      virtual void handleDeviceName(uint32_t ifindex, const std::string& oldName,
                                    const KernelNetInfo::KernelIntf* device) = 0;
      virtual void handleDeviceAttr(const KernelNetInfo::KernelIntf& device) = 0;
   };

   KernelTableWatch(Ptr<const KernelNetInfo::Status> table, Handler& handler);
   ~KernelTableWatch();
   KernelTableWatch(const KernelTableWatch&) = delete;
   KernelTableWatch& operator=(const KernelTableWatch&) = delete;

   const Ptr<const KernelNetInfo::Status>& table() const { return tableReactor_.notifier(); }
   // The device of that name with the lowest ifindex (a table holds two only while a
   // resynchronising dump is under way); null when there is none.
   const KernelNetInfo::KernelIntf* deviceNamed(const std::string& name) const;

 private:
   class DeviceReactor : public KernelNetInfo::KernelIntf::Reactor {
    public:
      DeviceReactor(KernelTableWatch& owner, Ptr<const KernelNetInfo::KernelIntf> device);
      void handleDeviceName() override { owner_.doRename(notifier()->ifindex()); }
      void handleMac() override { doAttr(); }
      void handleUp() override { doAttr(); }
      void handleRunning() override { doAttr(); }
      void handleIpv4() override { doAttr(); }
      void handleIpv6(const Platform::Ip6Prefix&) override { doAttr(); }

      // The name the owner was last told.
      std::string name;

    private:
      void doAttr() { owner_.handler_.handleDeviceAttr(*notifier()); }
      KernelTableWatch& owner_;
   };
   class TableReactor : public KernelNetInfo::Status::Reactor {
    public:
      explicit TableReactor(KernelTableWatch& owner) : owner_(owner) {}
      void handleInterfaceByIndex(uint32_t ifindex) override { owner_.doDevice(ifindex); }

    private:
      KernelTableWatch& owner_;
   };

   // Follows the device's own changes too, or stops following a removed one.
   void doDevice(uint32_t ifindex);
   void doRename(uint32_t ifindex);
   DeviceReactor& doFollow(uint32_t ifindex, Ptr<const KernelNetInfo::KernelIntf> device);

   Handler& handler_;
   std::map<uint32_t, std::unique_ptr<DeviceReactor>> devices_;
   std::set<std::pair<std::string, uint32_t>> byName_;
   TableReactor tableReactor_;
};

}  // namespace Frontend
