#pragma once

#include <map>
#include <memory>
#include <set>
#include <string_view>

#include "model/VrfIpSrcIntfSrcIp.h"
#include "model/VrfWithCountDir.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/VrfName.h"

namespace Ip::Helper::DhcpRelay {

// What the IPv4 and IPv6 VRF selections share: the VRF each interface was last seen in
// (currentVrf), the interfaces that have servers and an IP status (intfsWithDhcpServer), each
// followed for VRF changes, and the counting of those interfaces' VRFs in the active VRF
// directory. IntfStatusT is the family's per-interface status record; it gives intfId(),
// vrf() and a Reactor with handleVrf().
//
// A machine derives from it, names itself in `caller` (its __PRETTY_FUNCTION__, so a trace
// line tells which family wrote it) and counts its server entries' VRFs itself.
template <class IntfStatusT>
class DhcpVrfSelect {
 public:
   DhcpVrfSelect(const DhcpVrfSelect&) = delete;
   DhcpVrfSelect& operator=(const DhcpVrfSelect&) = delete;

   const Ptr<VrfWithCountDir>& activeVrfDir() const { return activeVrfDir_; }
   const std::map<Platform::IntfId, Platform::VrfName>& currentVrf() const { return currentVrf_; }
   bool intfsWithDhcpServer(const Platform::IntfId& intf) const {
      return intfsWithDhcpServer_.contains(intf);
   }
   size_t intfsWithDhcpServerCount() const { return intfsWithDhcpServer_.size(); }
   bool initialized() const { return initialized_; }

 protected:
   explicit DhcpVrfSelect(const Ptr<VrfWithCountDir>& activeVrfDir);
   virtual ~DhcpVrfSelect();

   // Fired when intfsWithDhcpServer gains or loses `intf`; the machine passes its own
   // signature on to handleIntfsWithDhcpServerHelper.
   virtual void handleIntfsWithDhcpServer(const Platform::IntfId& intf) = 0;

   // The directory starts over with only "default" (count 0); then notifications count.
   void doInitialize();

   // `status` is the interface's status record, null when it has none.
   void handleIpIntfStatusHelper(const Platform::IntfId& intf, const Ptr<const IntfStatusT>& status,
                                 bool hasServer, std::string_view caller);
   void handleIntfVrfHelper(const Platform::IntfId& intf);
   void handleIntfsWithDhcpServerHelper(const Platform::IntfId& intf, std::string_view caller);

   // While the interface has servers its VRF's count includes it, so a new VRF takes the
   // interface's share from the old one, whoever notices the change first (the status's own
   // reactor, or a server change reading the status).
   void currentVrfIs(const Platform::IntfId& intf, const Platform::VrfName& vrf);
   // Membership changes fire handleIntfsWithDhcpServer; a new status record for a member
   // only moves the VRF reactor onto it.
   void intfsWithDhcpServerIs(const Platform::IntfId& intf, const Ptr<const IntfStatusT>& status);
   void intfsWithDhcpServerDel(const Platform::IntfId& intf);

   // The server entries of one interface whose VRFs are counted. An entry may be notified
   // again without a change of its own (another source naming the same server), or be
   // configured but off, and a record deleted whole notifies none of its entries: what was
   // counted is known only from here.
   using CountedServers = std::set<VrfIpSrcIntfSrcIp>;
   // Counts the entry's VRF once while it is present, taking the interface (with its
   // `status`, when it has one) into intfsWithDhcpServer; uncounts it once it is not.
   void doCountServer(const Platform::IntfId& intf, CountedServers& counted,
                      const VrfIpSrcIntfSrcIp& key, bool present,
                      const Ptr<const IntfStatusT>& status);
   // The interface's server record went whole: everything it counted goes with it.
   void doUncountServers(const Platform::IntfId& intf, const CountedServers& counted);

   bool initialized_ = false;

 private:
   Ptr<VrfWithCountDir> activeVrfDir_;
   std::map<Platform::IntfId, Platform::VrfName> currentVrf_;
   std::map<Platform::IntfId, Platform::Watch<const IntfStatusT>> intfsWithDhcpServer_;
};

}  // namespace Ip::Helper::DhcpRelay
