#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "model/switch/KernelNetInfo.h"
#include "platform/addr/IpGenAddr.h"

namespace Ip::Helper::DhcpRelay {

using Platform::Ptr;

// Every address of every device in one namespace's kernel table, counted, so that a packet
// path can ask in one lookup whether an address is the agent's own in that VRF: relay
// interfaces, but also the device a cross-VRF copy left by, a loopback, or any other. The
// kernel table is followed device by device, so a change costs that device's addresses.
class OwnAddresses {
 public:
   explicit OwnAddresses(const Ptr<const KernelNetInfo::Status>& table);
   ~OwnAddresses();
   OwnAddresses(const OwnAddresses&) = delete;
   OwnAddresses& operator=(const OwnAddresses&) = delete;

   bool contains(const Platform::IpGenAddr& addr) const { return count_.contains(addr); }
   size_t size() const { return count_.size(); }

 private:
   struct Device {
      Platform::Watch<const KernelNetInfo::KernelIntf> watch;
      // What the device contributes now, sorted.
      std::vector<Platform::IpGenAddr> addresses;
   };

   void handleDevice(uint32_t ifindex);
   void handleAddresses(Device& device);
   void countIs(const std::vector<Platform::IpGenAddr>& gone,
                const std::vector<Platform::IpGenAddr>& added);

   std::unordered_map<Platform::IpGenAddr, uint32_t> count_;
   Platform::Watch<const KernelNetInfo::Status> table_;
   std::map<uint32_t, Device> devices_;
};

}  // namespace Ip::Helper::DhcpRelay
