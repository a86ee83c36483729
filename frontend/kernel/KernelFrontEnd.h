#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "frontend/kernel/DeviceNameIndex.h"
#include "frontend/kernel/KernelTableWatch.h"
#include "frontend/kernel/NamespaceWatcher.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/IpStatus.h"
#include "model/switch/KernelNetInfo.h"
#include "model/switch/VrfStatus.h"
#include "platform/store/StateStore.h"

namespace Platform {
class EventLoop;
}

namespace Frontend {

using Platform::EventLoop;
using Platform::IntfId;
using Platform::Ip6Prefix;
using Platform::Ptr;
using Platform::StateStore;
using Platform::VrfName;

// The kernel side of the system, living in the daemon beside the configuration front end:
// - publishes "ip/status" and "ip6/status";
// - follows each configured VRF ("ip/vrf/status/local") into its network namespace: while
//   the namespace exists, the VRF is active and a follower keeps the namespace's kernel
//   table current; when the namespace goes or the VRF leaves it, following stops, the
//   table is emptied and the VRF is inactive;
// - derives from all tables the IPv4 and IPv6 status of every system interface whose
//   kernel device is in a followed namespace ("interface/config/deviceName" maps devices
//   to interfaces).
//
// Derived records change by differences only: an interface that still exists is updated
// in place, never deleted and created again. The derivation runs once per loop turn after
// the tables changed, so a device that leaves one namespace and appears in another within
// one turn (the kernel sends both notifications under one lock) just changes its VRF.
// Each change costs what it touches: the interfaces whose devices changed are noted as
// they change and only those are derived again; a VRF that changes namespace rebinds only
// itself and whichever VRF was waiting for the namespace it left.
class KernelFrontEnd {
 public:
   // Keeps one namespace's kernel table current from construction to destruction.
   class Follower {
    public:
      virtual ~Follower() = default;
   };
   // Null, with the reason in `error`, when the namespace cannot be followed.
   using FollowerFactory = std::function<std::unique_ptr<Follower>(
       EventLoop& loop, const std::string& nsName, const Ptr<KernelNetInfo::Status>& table,
       std::string& error)>;
   // Netlink through KernelTableFollower.
   static std::unique_ptr<Follower> kernelTableFollower(EventLoop& loop, const std::string& nsName,
                                                        const Ptr<KernelNetInfo::Status>& table,
                                                        std::string& error);

   // What tests replace: how tables are filled and where namespaces are found.
   struct Seams {
      FollowerFactory follower;
      std::string netNsDir;
      NamespaceWatcher::Probe isNamespace;
   };
   static Seams kernelSeams();

   // "ip/vrf/status/local" and "interface/config/deviceName" must be published already.
   KernelFrontEnd(EventLoop& loop, StateStore& store);
   KernelFrontEnd(EventLoop& loop, StateStore& store, Seams seams);
   ~KernelFrontEnd();
   KernelFrontEnd(const KernelFrontEnd&) = delete;
   KernelFrontEnd& operator=(const KernelFrontEnd&) = delete;

   const Ptr<Ip::Status>& ipStatus() const { return ipStatus_; }
   const Ptr<Ip6::Status>& ip6Status() const { return ip6Status_; }
   const NamespaceWatcher& namespaceWatcher() const { return watcher_; }

 private:
   // A namespace bound to one VRF. Members are released watch first, so emptying the
   // table on the way out notifies nobody here.
   struct Binding final : KernelTableWatch::Handler {
      Binding(KernelFrontEnd& owner, const VrfName& vrf, Ptr<KernelNetInfo::Status> table);
      void handleDeviceName(uint32_t ifindex, const std::string& oldName,
                            const KernelNetInfo::KernelIntf* device) override {
         owner.handleDevice(*this, ifindex, oldName, device);
      }
      void handleDeviceAttr(const KernelNetInfo::KernelIntf& device) override {
         owner.doDirty(device.deviceName());
      }
      // Which binding's device stands for an interface when several namespaces have one
      // of its name: the default VRF's, then by VRF name.
      bool ranksBefore(const Binding& other) const;

      KernelFrontEnd& owner;
      const VrfName vrf;
      Ptr<KernelNetInfo::Status> table;
      std::unique_ptr<Follower> follower;  // null while the VRF is inactive
      std::unique_ptr<KernelTableWatch> watch;
   };
   // A device of some bound namespace, under the name it has there.
   struct Candidate {
      const Binding* binding;
      uint32_t ifindex;
      bool operator<(const Candidate& o) const;
   };

   void handleVrf(const VrfName& vrf);
   void handleNamespace(const std::string& nsName, bool exists);
   void handleDeviceNameConfig(const IntfId& intf);
   void handleDevice(const Binding& binding, uint32_t ifindex, const std::string& oldName,
                     const KernelNetInfo::KernelIntf* device);
   // Brings the bindings to the VRF's namespace in the configuration. A namespace serves
   // one VRF at a time.
   void doBindVrf(const VrfName& vrf);
   void doBind(const VrfName& vrf, const std::string& nsName);
   void doUnbind(const std::string& nsName);
   void doActivate(const std::string& nsName);
   void doDeactivate(Binding& binding);
   void doStateIs(const VrfName& vrf, Ip::VrfStatusLocal::State state);
   // The interface a device of that name stands for is derived again at the end of the turn.
   void doDirty(const std::string& deviceName);
   void doDirtyAll(const Binding& binding);
   void doSyncLater();
   void doSync();
   std::optional<Candidate> doChoose(const IntfId& intf) const;
   void doSyncIntf(const IntfId& intf, const KernelNetInfo::KernelIntf& device, const VrfName& vrf);

   EventLoop& loop_;
   StateStore& store_;
   Seams seams_;
   Ptr<Ip::Status> ipStatus_;
   Ptr<Ip6::Status> ip6Status_;
   Ptr<Ip::AllVrfStatusLocal> vrfs_;
   Ptr<const Interface::DeviceNameConfig> deviceNames_;
   DeviceNameIndex deviceIndex_;
   NamespaceWatcher watcher_;
   bool syncPending_ = false;
   // Posted work finds the front end gone through this.
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
   std::map<std::string, Binding> bindings_;  // by namespace
   // The namespace each VRF asks for, and the VRFs asking for each namespace.
   std::map<VrfName, std::string> nsOfVrf_;
   std::map<std::string, std::set<VrfName>> vrfsOfNs_;
   // Every device of every bound namespace by name, the one that stands for an
   // interface first.
   std::map<std::string, std::set<Candidate>> devicesByName_;
   std::set<IntfId> dirty_;
   std::map<VrfName, Platform::Watch<const Ip::VrfStatusLocal>> vrfWatches_;
   Platform::Watch<const Interface::DeviceNameConfig> deviceNamesWatch_;
   Platform::Watch<const Ip::AllVrfStatusLocal> vrfsWatch_;
};

}  // namespace Frontend
