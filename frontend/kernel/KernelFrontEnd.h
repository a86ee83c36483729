#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

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

// Calls `onChange` after any change of a kernel table: a device added or removed, or any
// attribute of one of its devices. Whoever derives records from a table recomputes them
// whole and writes only the differences, which is simpler than following each attribute
// and cheap at the rate kernel state changes.
class KernelTableWatch {
 public:
   KernelTableWatch(Ptr<const KernelNetInfo::Status> table, std::function<void()> onChange);
   ~KernelTableWatch();
   KernelTableWatch(const KernelTableWatch&) = delete;
   KernelTableWatch& operator=(const KernelTableWatch&) = delete;

   const Ptr<const KernelNetInfo::Status>& table() const { return tableReactor_.notifier(); }

 private:
   class DeviceReactor : public KernelNetInfo::KernelIntf::Reactor {
    public:
      DeviceReactor(KernelTableWatch& owner, Ptr<const KernelNetInfo::KernelIntf> device);
      void handleDeviceName() override { owner_.onChange_(); }
      void handleMac() override { owner_.onChange_(); }
      void handleUp() override { owner_.onChange_(); }
      void handleRunning() override { owner_.onChange_(); }
      void handleIpv4() override { owner_.onChange_(); }
      void handleIpv6(const Ip6Prefix&) override { owner_.onChange_(); }

    private:
      KernelTableWatch& owner_;
   };
   class TableReactor : public KernelNetInfo::Status::Reactor {
    public:
      explicit TableReactor(KernelTableWatch& owner) : owner_(owner) {}
      void handleInterfaceByIndex(uint32_t ifindex) override;

    private:
      KernelTableWatch& owner_;
   };

   // Follows the device's own changes too, or stops following a removed one.
   void doDevice(uint32_t ifindex);

   std::function<void()> onChange_;
   std::map<uint32_t, std::unique_ptr<DeviceReactor>> devices_;
   TableReactor tableReactor_;
};

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
   class VrfsReactor : public Ip::AllVrfStatusLocal::Reactor {
    public:
      explicit VrfsReactor(KernelFrontEnd& owner) : owner_(owner) {}
      void handleVrf(const VrfName& vrf) override { owner_.handleVrf(vrf); }
      void onNotifierAttached() override;

    private:
      KernelFrontEnd& owner_;
   };
   class VrfReactor : public Ip::VrfStatusLocal::Reactor {
    public:
      explicit VrfReactor(KernelFrontEnd& owner) : owner_(owner) {}
      void handleNsName() override { owner_.doBindAll(); }

    private:
      KernelFrontEnd& owner_;
   };
   class DeviceNamesReactor : public Interface::DeviceNameConfig::Reactor {
    public:
      explicit DeviceNamesReactor(KernelFrontEnd& owner) : owner_(owner) {}
      void handleDeviceName(const IntfId&) override { owner_.doSyncLater(); }

    private:
      KernelFrontEnd& owner_;
   };
   // A namespace bound to one VRF. Members are released watch first, so emptying the
   // table on the way out notifies nobody here.
   struct Binding {
      VrfName vrf;
      Ptr<KernelNetInfo::Status> table;
      std::unique_ptr<Follower> follower;  // null while the VRF is inactive
      std::unique_ptr<KernelTableWatch> watch;
   };

   void handleVrf(const VrfName& vrf);
   void handleNamespace(const std::string& nsName, bool exists);
   void doBindAll();
   void doBind(const VrfName& vrf, const std::string& nsName);
   void doUnbind(const std::string& nsName);
   void doActivate(const std::string& nsName);
   void doDeactivate(Binding& binding);
   void doStateIs(const VrfName& vrf, Ip::VrfStatusLocal::State state);
   void doSyncLater();
   void doSync();
   void doSyncIntf(const IntfId& intf, const KernelNetInfo::KernelIntf& device, const VrfName& vrf);

   EventLoop& loop_;
   StateStore& store_;
   Seams seams_;
   Ptr<Ip::Status> ipStatus_;
   Ptr<Ip6::Status> ip6Status_;
   Ptr<Ip::AllVrfStatusLocal> vrfs_;
   Ptr<const Interface::DeviceNameConfig> deviceNames_;
   NamespaceWatcher watcher_;
   bool syncPending_ = false;
   // Posted work finds the front end gone through this.
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
   std::map<std::string, Binding> bindings_;  // by namespace
   std::map<VrfName, std::unique_ptr<VrfReactor>> vrfReactors_;
   DeviceNamesReactor deviceNamesReactor_{*this};
   VrfsReactor vrfsReactor_{*this};
};

}  // namespace Frontend
