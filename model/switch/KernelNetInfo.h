#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <set>
#include <vector>

#include "platform/addr/EthAddr.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpAddr.h"
#include "platform/store/Entity.h"
#include "platform/store/StateStore.h"

namespace KernelNetInfo {

// One kernel network device, as netlink reports it.
class KernelIntf : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("KernelNetInfo::KernelIntf")
   explicit KernelIntf(uint32_t ifindex) : Entity(std::to_string(ifindex)), ifindex_(ifindex) {}

   class Reactor : public Platform::ReactorOf<const KernelIntf> {
    public:
      virtual void handleDeviceName() {}
      virtual void handleMac() {}
      virtual void handleUp() {}
      virtual void handleRunning() {}
      virtual void handleIpv4() {}
      virtual void handleIpv6(const Platform::Ip6Prefix& /*addr*/) {}
   };

   uint32_t ifindex() const { return ifindex_; }
   const std::string& deviceName() const { return deviceName_; }
   void deviceNameIs(const std::string& v) { attrIs(deviceName_, v, &Reactor::handleDeviceName); }
   const Platform::EthAddr& mac() const { return mac_; }
   void macIs(const Platform::EthAddr& v) { attrIs(mac_, v, &Reactor::handleMac); }
   bool up() const { return up_; }
   void upIs(bool v) { attrIs(up_, v, &Reactor::handleUp); }
   // Operationally up: the kernel reports the link running (carrier present).
   bool running() const { return running_; }
   void runningIs(bool v) { attrIs(running_, v, &Reactor::handleRunning); }
   // IPv4 addresses in the kernel's order: primary addresses in the order they were
   // added, then secondaries; the first is the device's primary address. Replaced
   // whole, since a removal can promote a secondary and reorder the rest.
   const std::vector<Platform::IpAddrWithMask>& ipv4() const { return ipv4_; }
   void ipv4Is(const std::vector<Platform::IpAddrWithMask>& v) {
      attrIs(ipv4_, v, &Reactor::handleIpv4);
   }
   // The IPv6 addresses that may be used, with their prefix length: those still in
   // duplicate address detection (tentative) or found duplicate are not listed, so whatever
   // reads these may take any of them as a source or link address.
   const std::set<Platform::Ip6Prefix>& ipv6() const { return ipv6_; }
   void ipv6Is(const Platform::Ip6Prefix& a) { setEntryIs(ipv6_, a, &Reactor::handleIpv6); }
   void ipv6Del(const Platform::Ip6Prefix& a) { setEntryDel(ipv6_, a, &Reactor::handleIpv6); }

 private:
   uint32_t ifindex_;
   std::string deviceName_;
   Platform::EthAddr mac_;
   bool up_ = false;
   bool running_ = false;
   std::vector<Platform::IpAddrWithMask> ipv4_;
   std::set<Platform::Ip6Prefix> ipv6_;
};

// Kernel devices by ifindex: packets arrive with an ifindex, and this is how the
// relay finds the device, and from it the interface, they came in on.
//
// routeGeneration changes whenever the namespace's routes, rules or nexthops (either family), its
// devices or their addresses may have changed (or notifications of them were lost): an
// answer the kernel gave about routing holds while it stays the same. Routes themselves
// are not kept.
class Status : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("KernelNetInfo::Status")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Status> {
    public:
      virtual void handleInterfaceByIndex(uint32_t /*ifindex*/) {}
      virtual void handleRouteGeneration() {}
   };

   const std::map<uint32_t, Platform::Ptr<KernelIntf>>& interfaceByIndex() const {
      return interfaceByIndex_;
   }
   Platform::Ptr<KernelIntf> interfaceByIndex(uint32_t ifindex) const {
      return mapEntryOr(interfaceByIndex_, ifindex, nullptr);
   }
   Platform::Ptr<KernelIntf> interfaceByIndexIs(uint32_t ifindex) {
      return mapEntryCreate(interfaceByIndex_, ifindex, &Reactor::handleInterfaceByIndex);
   }
   void interfaceByIndexDel(uint32_t ifindex) {
      mapEntryDel(interfaceByIndex_, ifindex, &Reactor::handleInterfaceByIndex);
   }
   void interfaceByIndexDelAll() {
      mapEntryDelAll(interfaceByIndex_, &Reactor::handleInterfaceByIndex);
   }
   uint64_t routeGeneration() const { return routeGeneration_; }
   void routeGenerationIs(uint64_t v) {
      attrIs(routeGeneration_, v, &Reactor::handleRouteGeneration);
   }
   void routeGenerationInc() { routeGenerationIs(routeGeneration_ + 1); }

 private:
   std::map<uint32_t, Platform::Ptr<KernelIntf>> interfaceByIndex_;
   uint64_t routeGeneration_ = 0;
};

// Where the kernel table of a namespace is published: "kni/ns/<ns>/status", with
// "default" for the agent's own namespace.
std::string kernelTablePath(const std::string& nsName);

// The kernel table of a namespace, published empty by whichever side asks first: the
// front end that fills it and the agent's readers may start in either order and still
// share one table.
Platform::Ptr<Status> kernelTableOf(Platform::StateStore& store, const std::string& nsName);

}  // namespace KernelNetInfo
