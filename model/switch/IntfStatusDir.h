#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "platform/addr/IntfId.h"
#include "platform/addr/VrfName.h"
#include "platform/store/Entity.h"

namespace Interface {

using Platform::Ptr;

// An interface's kernel device and link state.
class IntfStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Interface::IntfStatus")
   enum class OperStatus : uint8_t { down, up };

   explicit IntfStatus(const Platform::IntfId& intf) : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfStatus> {
    public:
      virtual void handleDeviceName() {}
      virtual void handleOperStatus() {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   const std::string& deviceName() const { return deviceName_; }
   void deviceNameIs(const std::string& v) { attrIs(deviceName_, v, &Reactor::handleDeviceName); }
   OperStatus operStatus() const { return operStatus_; }
   void operStatusIs(OperStatus v) { attrIs(operStatus_, v, &Reactor::handleOperStatus); }

 private:
   Platform::IntfId intfId_;
   std::string deviceName_;
   OperStatus operStatus_ = OperStatus::down;
};

class AllIntfStatusDir : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Interface::AllIntfStatusDir")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const AllIntfStatusDir> {
    public:
      virtual void handleIntfStatus(const Platform::IntfId& /*intf*/) {}
   };

   PLATFORM_RECORDS(intfStatus, IntfStatus, Platform::IntfId, IntfStatus)
};

// What only this host knows about an interface: its VRF and kernel index.
class IntfStatusLocal : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Interface::IntfStatusLocal")
   explicit IntfStatusLocal(const Platform::IntfId& intf)
       : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const IntfStatusLocal> {
    public:
      virtual void handleVrf() {}
      virtual void handleIfindex() {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   const Platform::VrfName& vrf() const { return vrf_; }
   void vrfIs(const Platform::VrfName& v) { attrIs(vrf_, v, &Reactor::handleVrf); }
   // Zero while the interface has no kernel device.
   uint32_t ifindex() const { return ifindex_; }
   void ifindexIs(uint32_t v) { attrIs(ifindex_, v, &Reactor::handleIfindex); }

 private:
   Platform::IntfId intfId_;
   Platform::VrfName vrf_ = Platform::VrfName::defaultVrf();
   uint32_t ifindex_ = 0;
};

class AllIntfStatusLocalDir : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Interface::AllIntfStatusLocalDir")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const AllIntfStatusLocalDir> {
    public:
      virtual void handleIntfStatusLocal(const Platform::IntfId& /*intf*/) {}
   };

   PLATFORM_RECORDS(intfStatusLocal, IntfStatusLocal, Platform::IntfId, IntfStatusLocal)
};

// System interface name -> kernel device name, where the two differ (from the
// configuration file). Any other interface's device has the interface's name.
class DeviceNameConfig : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Interface::DeviceNameConfig")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const DeviceNameConfig> {
    public:
      virtual void handleDeviceName(const Platform::IntfId& /*intf*/) {}
   };

   const std::map<Platform::IntfId, std::string>& deviceName() const { return deviceName_; }
   void deviceNameIs(const Platform::IntfId& intf, const std::string& dev) {
      auto it = deviceName_.find(intf);
      if (it != deviceName_.end() && it->second == dev)
         return;
      if (it != deviceName_.end())
         doUnindex(intf, it->second);
      intfsOf_[dev].insert(intf);
      mapEntryIs(deviceName_, intf, dev, &Reactor::handleDeviceName);
   }
   void deviceNameDel(const Platform::IntfId& intf) {
      auto it = deviceName_.find(intf);
      if (it == deviceName_.end())
         return;
      doUnindex(intf, it->second);
      mapEntryDel(deviceName_, intf, &Reactor::handleDeviceName);
   }

   // The kernel device of a system interface.
   std::string deviceOf(const Platform::IntfId& intf) const {
      auto it = deviceName_.find(intf);
      return it == deviceName_.end() ? intf.toString() : it->second;
   }
   // The system interface whose kernel device this is; empty when no interface maps to it
   // (a device named like an interface that the file maps elsewhere, or a name that is no
   // valid interface name). Asked for every received packet: lookups, no walk, no copy.
   Platform::IntfId intfIdOf(std::string_view device) const {
      auto mapped = intfsOf_.find(device);
      if (mapped != intfsOf_.end())
         return *mapped->second.begin();
      auto id = Platform::IntfId::parse(device);
      if (!id || deviceName_.count(*id))
         return {};
      return *id;
   }

 private:
   void doUnindex(const Platform::IntfId& intf, const std::string& dev) {
      auto it = intfsOf_.find(dev);
      if (it == intfsOf_.end())
         return;
      it->second.erase(intf);
      if (it->second.empty())
         intfsOf_.erase(it);
   }

   std::map<Platform::IntfId, std::string> deviceName_;
   // The reverse of deviceName_; several interfaces name one device only in the middle of a
   // reload, and the lowest interface wins as the walk over deviceName_ used to pick.
   std::map<std::string, std::set<Platform::IntfId>, std::less<>> intfsOf_;
};

// Whoever writes the interface status of a namespace's devices (the kernel front end on
// Linux). A machine that keeps sockets in a namespace asks for its interfaces to be
// followed while it does; the agent's own namespace is always followed.
class IntfStatusSource {
 public:
   virtual ~IntfStatusSource() = default;
   // Each interface's VRF and kernel ifindex.
   virtual const Platform::Ptr<AllIntfStatusLocalDir>& intfStatusLocal() const = 0;
   virtual void namespaceFollowIs(const std::string& nsName) = 0;
   virtual void namespaceFollowDel(const std::string& nsName) = 0;
};

}  // namespace Interface
