#include "relay/OwnAddresses.h"

#include <algorithm>

namespace Ip::Helper::DhcpRelay {

using Platform::IpGenAddr;

class OwnAddresses::TableReactor : public KernelNetInfo::Status::Reactor {
 public:
   TableReactor(OwnAddresses& owner, const Ptr<const KernelNetInfo::Status>& table)
       : owner_(owner) {
      notifierIs(table);
   }
   void handleInterfaceByIndex(uint32_t ifindex) override { owner_.handleDevice(ifindex); }

 private:
   OwnAddresses& owner_;
};

class OwnAddresses::DeviceReactor : public KernelNetInfo::KernelIntf::Reactor {
 public:
   DeviceReactor(OwnAddresses& owner, const Ptr<const KernelNetInfo::KernelIntf>& device)
       : owner_(owner) {
      notifierIs(device);
   }
   void handleIpv4() override { owner_.handleAddresses(*this); }
   void handleIpv6(const Platform::Ip6Prefix&) override { owner_.handleAddresses(*this); }

   // What this device contributes now, sorted.
   std::vector<IpGenAddr> addresses;

 private:
   OwnAddresses& owner_;
};

OwnAddresses::OwnAddresses(const Ptr<const KernelNetInfo::Status>& table) {
   tableReactor_ = std::make_unique<TableReactor>(*this, table);
   for (const auto& [ifindex, device] : table->interfaceByIndex())
      handleDevice(ifindex);
}

OwnAddresses::~OwnAddresses() = default;

void OwnAddresses::handleDevice(uint32_t ifindex) {
   Ptr<KernelNetInfo::KernelIntf> device = tableReactor_->notifier()->interfaceByIndex(ifindex);
   auto it = devices_.find(ifindex);
   if (it != devices_.end() && (!device || it->second->notifier() != device)) {
      countIs(it->second->addresses, {});
      devices_.erase(it);
      it = devices_.end();
   }
   if (device && it == devices_.end()) {
      auto& reactor = devices_[ifindex];
      reactor = std::make_unique<DeviceReactor>(*this, device);
      handleAddresses(*reactor);
   }
}

void OwnAddresses::handleAddresses(DeviceReactor& reactor) {
   const KernelNetInfo::KernelIntf& device = *reactor.notifier();
   std::vector<IpGenAddr> now;
   now.reserve(device.ipv4().size() + device.ipv6().size());
   for (const Platform::IpAddrWithMask& a : device.ipv4())
      now.emplace_back(a.address());
   for (const Platform::Ip6Prefix& a : device.ipv6())
      now.emplace_back(a.address());
   std::sort(now.begin(), now.end());
   now.erase(std::unique(now.begin(), now.end()), now.end());
   std::vector<IpGenAddr> gone, added;
   std::set_difference(reactor.addresses.begin(), reactor.addresses.end(), now.begin(), now.end(),
                       std::back_inserter(gone));
   std::set_difference(now.begin(), now.end(), reactor.addresses.begin(), reactor.addresses.end(),
                       std::back_inserter(added));
   reactor.addresses = std::move(now);
   countIs(gone, added);
}

void OwnAddresses::countIs(const std::vector<IpGenAddr>& gone,
                           const std::vector<IpGenAddr>& added) {
   for (const IpGenAddr& a : added)
      ++count_[a];
   for (const IpGenAddr& a : gone) {
      auto it = count_.find(a);
      if (it != count_.end() && --it->second == 0)
         count_.erase(it);
   }
}

}  // namespace Ip::Helper::DhcpRelay
