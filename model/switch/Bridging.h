#pragma once

#include <cstdint>
#include <map>
#include <set>

#include "platform/addr/IntfId.h"
#include "platform/store/Entity.h"

namespace Bridging {

// Layer-2 settings of one switch port; snooping uses them to tell on which VLANs
// a port carries DHCP traffic and how a reply must be tagged.
class SwitchIntfConfig : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::SwitchIntfConfig")
   enum class SwitchportMode : uint8_t { access, trunk, routed };

   explicit SwitchIntfConfig(const Platform::IntfId& intf)
       : Entity(intf.toString()), intfId_(intf) {}

   class Reactor : public Platform::ReactorOf<const SwitchIntfConfig> {
    public:
      virtual void handleSwitchportMode() {}
      virtual void handleAccessVlan() {}
      virtual void handleNativeVlan() {}
      virtual void handleAllowedVlans(uint16_t /*vlan*/) {}
   };

   const Platform::IntfId& intfId() const { return intfId_; }
   SwitchportMode switchportMode() const { return switchportMode_; }
   void switchportModeIs(SwitchportMode v) {
      attrIs(switchportMode_, v, &Reactor::handleSwitchportMode);
   }
   uint16_t accessVlan() const { return accessVlan_; }
   void accessVlanIs(uint16_t v) { attrIs(accessVlan_, v, &Reactor::handleAccessVlan); }
   uint16_t nativeVlan() const { return nativeVlan_; }
   void nativeVlanIs(uint16_t v) { attrIs(nativeVlan_, v, &Reactor::handleNativeVlan); }
   const std::set<uint16_t>& allowedVlans() const { return allowedVlans_; }
   void allowedVlansIs(uint16_t vlan) {
      setEntryIs(allowedVlans_, vlan, &Reactor::handleAllowedVlans);
   }
   void allowedVlansDel(uint16_t vlan) {
      setEntryDel(allowedVlans_, vlan, &Reactor::handleAllowedVlans);
   }

 private:
   Platform::IntfId intfId_;
   SwitchportMode switchportMode_ = SwitchportMode::access;
   uint16_t accessVlan_ = 1;
   uint16_t nativeVlan_ = 1;
   std::set<uint16_t> allowedVlans_;
};

class Config : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::Config")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const Config> {
    public:
      virtual void handleSwitchIntfConfig(const Platform::IntfId& /*intf*/) {}
   };

   PLATFORM_RECORDS(switchIntfConfig, SwitchIntfConfig, Platform::IntfId, SwitchIntfConfig)
};

// The ports currently forwarding on one VLAN: where snooping floods a reply whose
// client port it does not know.
class VlanStatus : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::VlanStatus")
   explicit VlanStatus(uint16_t vlan) : Entity(std::to_string(vlan)), vlanId_(vlan) {}

   class Reactor : public Platform::ReactorOf<const VlanStatus> {
    public:
      virtual void handleVlanPortStatus(const Platform::IntfId& /*intf*/) {}
   };

   uint16_t vlanId() const { return vlanId_; }
   const std::set<Platform::IntfId>& vlanPortStatus() const { return vlanPortStatus_; }
   void vlanPortStatusIs(const Platform::IntfId& intf) {
      setEntryIs(vlanPortStatus_, intf, &Reactor::handleVlanPortStatus);
   }
   void vlanPortStatusDel(const Platform::IntfId& intf) {
      setEntryDel(vlanPortStatus_, intf, &Reactor::handleVlanPortStatus);
   }

 private:
   uint16_t vlanId_;
   std::set<Platform::IntfId> vlanPortStatus_;
};

class VlanStatusDir : public Platform::Entity {
 public:
   PLATFORM_ENTITY_TYPE("Bridging::VlanStatusDir")
   using Entity::Entity;

   class Reactor : public Platform::ReactorOf<const VlanStatusDir> {
    public:
      virtual void handleVlanStatus(uint16_t /*vlan*/) {}
   };

   const std::map<uint16_t, Platform::Ptr<VlanStatus>>& vlanStatus() const { return vlanStatus_; }
   Platform::Ptr<VlanStatus> vlanStatus(uint16_t vlan) const {
      return mapEntryOr(vlanStatus_, vlan, nullptr);
   }
   Platform::Ptr<VlanStatus> vlanStatusIs(uint16_t vlan) {
      return mapEntryCreate(vlanStatus_, vlan, &Reactor::handleVlanStatus);
   }
   void vlanStatusDel(uint16_t vlan) { mapEntryDel(vlanStatus_, vlan, &Reactor::handleVlanStatus); }
   void vlanStatusDelAll() { mapEntryDelAll(vlanStatus_, &Reactor::handleVlanStatus); }

 private:
   std::map<uint16_t, Platform::Ptr<VlanStatus>> vlanStatus_;
};

}  // namespace Bridging
