#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "frontend/kernel/DeviceNameIndex.h"
#include "frontend/kernel/KernelTableWatch.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/VrfStatus.h"
#include "platform/store/StateStore.h"

namespace Frontend {

using Platform::IntfId;
using Platform::Ptr;
using Platform::StateStore;
using Platform::VrfName;

class IntfStatusManagerRoot;

// Writes, for every device of one namespace's kernel table that maps to a system
// interface, the interface's Interface::IntfStatus (device name, operational status: up
// while the kernel reports the device running) and Interface::IntfStatusLocal (VRF of the
// namespace, ifindex). Entries change by differences only and are removed when the device
// goes, or with the manager. A change of one device touches only the interfaces it stood
// or stands for.
class IntfStatusManager final : public KernelTableWatch::Handler {
 public:
   IntfStatusManager(IntfStatusManagerRoot& root, std::string nsName);
   ~IntfStatusManager() override;
   IntfStatusManager(const IntfStatusManager&) = delete;
   IntfStatusManager& operator=(const IntfStatusManager&) = delete;

   const std::string& nsName() const { return nsName_; }
   // The interfaces whose entries this manager writes.
   const std::set<IntfId>& intfs() const { return intfs_; }

 private:
   friend class IntfStatusManagerRoot;

   void handleDeviceName(uint32_t ifindex, const std::string& oldName,
                         const KernelNetInfo::KernelIntf* device) override;
   void handleDeviceAttr(const KernelNetInfo::KernelIntf& device) override;
   // Brings the entries of these interfaces to the table.
   void doSync(const std::set<IntfId>& scope);
   // Every interface a device of the table stands for.
   std::set<IntfId> doScopeAll() const;
   void doVrfIs(const VrfName& vrf);

   IntfStatusManagerRoot& root_;
   const std::string nsName_;
   // Entries carry the VRF; a table whose namespace no VRF has yields none.
   VrfName vrf_;
   std::set<IntfId> intfs_;
   KernelTableWatch watch_;
};

// The interface status managers of the agent, one per namespace, and what they share: the
// two status directories they write, the device name map and the VRFs.
//
// An interface name can come from devices in two namespaces ("lo" is in every one): the
// manager that wrote it first keeps it, and another takes it over when it lets go.
class IntfStatusManagerRoot final : public Interface::IntfStatusSource {
 public:
   // "interface/config/deviceName" and "ip/vrf/status/local" must be published already.
   IntfStatusManagerRoot(StateStore& store, Ptr<Interface::AllIntfStatusDir> intfStatus,
                         Ptr<Interface::AllIntfStatusLocalDir> intfStatusLocal);
   // Removes every entry the managers wrote.
   ~IntfStatusManagerRoot() override;
   IntfStatusManagerRoot(const IntfStatusManagerRoot&) = delete;
   IntfStatusManagerRoot& operator=(const IntfStatusManagerRoot&) = delete;

   // Each interface's VRF and kernel ifindex, as the managers keep them.
   const Ptr<Interface::AllIntfStatusLocalDir>& intfStatusLocal() const override {
      return intfStatusLocal_;
   }
   void namespaceFollowIs(const std::string& nsName) override { intfStatusManager(nsName); }
   void namespaceFollowDel(const std::string& nsName) override;

   // Creates the manager of a namespace ("" and "default": the agent's own), or returns it.
   IntfStatusManager* intfStatusManager(const std::string& nsName);
   // Deletes the manager and the entries it wrote.
   void intfStatusManagerDel(const std::string& nsName);

 private:
   friend class IntfStatusManager;

   void handleVrf(const VrfName& vrf);
   void handleDeviceName(const IntfId& intf);
   // Follows the namespace the VRF names into the managers of the namespaces it leaves
   // and enters.
   void doNsOfVrf(const VrfName& vrf);
   // The VRF whose namespace this is; empty when no VRF has it.
   VrfName vrfOf(const std::string& nsName) const;
   bool doClaim(const IntfId& intf, const IntfStatusManager* manager);
   void doRelease(const IntfId& intf);
   void doSyncAll(const std::set<IntfId>& scope, const IntfStatusManager* except = nullptr);
   static std::string canonical(const std::string& nsName);

   StateStore& store_;
   Ptr<Interface::AllIntfStatusDir> intfStatus_;
   Ptr<Interface::AllIntfStatusLocalDir> intfStatusLocal_;
   Ptr<const Interface::DeviceNameConfig> deviceNames_;
   Ptr<const Ip::AllVrfStatusLocal> vrfs_;
   DeviceNameIndex deviceIndex_;
   // The namespace of each VRF that has one, and the VRFs of each namespace (several only
   // in the middle of a reload; the first by name counts).
   std::map<VrfName, std::string> nsOfVrf_;
   std::map<std::string, std::set<VrfName>> vrfsOfNs_;
   std::map<IntfId, const IntfStatusManager*> writer_;
   std::map<std::string, std::unique_ptr<IntfStatusManager>> managers_;
   std::map<VrfName, Platform::Watch<const Ip::VrfStatusLocal>> vrfWatches_;
   Platform::Watch<const Interface::DeviceNameConfig> deviceNamesWatch_;
   Platform::Watch<const Ip::AllVrfStatusLocal> vrfsWatch_;
};

}  // namespace Frontend
