#include "relay/OwnAddresses.h"

#include <algorithm>

namespace Ip::Helper::DhcpRelay {

using Platform::IpGenAddr;

OwnAddresses::OwnAddresses(const Ptr<const KernelNetInfo::Status>& table) {
   table_.on(&KernelNetInfo::Status::Reactor::handleInterfaceByIndex,
             [this](uint32_t ifindex) { handleDevice(ifindex); });
   table_.notifierIs(table);
   for (const auto& [ifindex, device] : table->interfaceByIndex())
      handleDevice(ifindex);
}

OwnAddresses::~OwnAddresses() = default;

void OwnAddresses::handleDevice(uint32_t ifindex) {
   Ptr<KernelNetInfo::KernelIntf> device = table_.notifier()->interfaceByIndex(ifindex);
   auto it = devices_.find(ifindex);
   if (it != devices_.end() && (!device || it->second.watch.notifier() != device)) {
      countIs(it->second.addresses, {});
      devices_.erase(it);
      it = devices_.end();
   }
   if (device && it == devices_.end()) {
      Device& d = devices_[ifindex];
      d.watch.on(&KernelNetInfo::KernelIntf::Reactor::handleIpv4,
                 [this, &d] { handleAddresses(d); });
      d.watch.on(&KernelNetInfo::KernelIntf::Reactor::handleIpv6,
                 [this, &d](const Platform::Ip6Prefix&) { handleAddresses(d); });
      d.watch.notifierIs(device);
      handleAddresses(d);
   }
}

void OwnAddresses::handleAddresses(Device& reactor) {
   const KernelNetInfo::KernelIntf& device = *reactor.watch.notifier();
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
