#pragma once

#include <map>
#include <memory>

#include "model/VrfWithCountDir.h"
#include "model/switch/VrfStatus.h"
#include "platform/addr/VrfName.h"

namespace Ip::Helper::DhcpRelay {

// Which VRFs a relay family keeps sockets in, for both families: a VRF has them while it is
// needed (its count in the family's active-VRF directory is above zero; "default" always)
// and usable (its namespace exists; "default" always). The owner hears when a VRF's
// socket machine should come and go and keeps the machines itself. A VRF whose namespace
// changes goes and comes back, since sockets cannot follow it into the new namespace.
class RelayVrfSet {
 public:
   class Owner {
    public:
      virtual void handleVrfAdd(const Platform::VrfName& vrf) = 0;
      virtual void handleVrfDel(const Platform::VrfName& vrf) = 0;

    protected:
      ~Owner() = default;
   };

   RelayVrfSet(Owner& owner, const Ptr<const Ip::AllVrfStatusLocal>& vrfStatus,
               const Ptr<const VrfWithCountDir>& activeVrfDir);
   ~RelayVrfSet();
   RelayVrfSet(const RelayVrfSet&) = delete;
   RelayVrfSet& operator=(const RelayVrfSet&) = delete;

   // Until this runs nothing is reported; it then reports every VRF that qualifies.
   void handleInitialized();

   void handleAllVrfStatus(const Platform::VrfName& vrf);
   void handleVrfStatus(const Platform::VrfName& vrf);
   void handleActiveVrfDir(const Platform::VrfName& vrf);

   // Whether "default" has sockets (it is never counted in the active-VRF directory): the
   // DHCPv4 relay always listens there; the DHCPv6 relay only while it runs, so that a host
   // relaying no DHCPv6 leaves its port to others.
   void defaultPinnedIs(bool pinned);

   bool usable(const Platform::VrfName& vrf) const;
   bool needed(const Platform::VrfName& vrf) const;
   // The VRF's namespace; the agent's own for "default".
   Platform::NamespaceName nsName(const Platform::VrfName& vrf) const;

 private:
   Owner& owner_;
   Ptr<const Ip::AllVrfStatusLocal> vrfStatus_;
   Ptr<const VrfWithCountDir> activeVrfDir_;
   bool initialized_ = false;
   bool defaultPinned_ = true;
   Platform::Watch<const Ip::AllVrfStatusLocal> vrfsWatch_;
   Platform::Watch<const VrfWithCountDir> activeDirWatch_;
   std::map<Platform::VrfName, Platform::Watch<const Ip::VrfStatusLocal>> vrfWatch_;
   std::map<Platform::VrfName, Platform::Watch<const VrfWithCount>> countWatch_;
};

}  // namespace Ip::Helper::DhcpRelay
