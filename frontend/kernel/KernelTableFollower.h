#pragma once

#include <linux/rtnetlink.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "model/switch/KernelNetInfo.h"
#include "platform/base/Ptr.h"
#include "platform/linux/Netlink.h"
#include "platform/loop/EventLoop.h"
#include "platform/loop/TimerWheel.h"

namespace Frontend {

using Platform::EventLoop;
using Platform::Ip6Prefix;
using Platform::IpAddrWithMask;
using Platform::NetlinkSocket;
using Platform::Ptr;
using Platform::Timer;
using Platform::TimerWheel;

// Keeps a KernelNetInfo::Status table equal to the devices and addresses of one network
// namespace: a dump of links and addresses at start, then the kernel's notifications on
// the event loop. Each record changes only where the kernel's view changed, so reactors
// see one notification per real change.
//
// - running: IFF_RUNNING, which the kernel sets on an up device whose operational state
//   is "up" or "unknown" (netif_oper_up); drivers that do not report an operational
//   state leave it unknown with the carrier on. A dormant or carrier-less device is not
//   running.
// - ipv4: the order of an address dump, which is the device's primary addresses in the
//   order they were added, then its secondaries; the first is the device's primary
//   address. Deleting a primary can promote a secondary and move it (or, with
//   promote_secondaries off, delete the whole subnet's secondaries), so an IPv4
//   notification is answered with a dump of that device's addresses (the kernel filters
//   by ifindex on a strictly checked socket), and the device's list is replaced whole
//   from it. Many devices waiting at once get one dump of everything instead.
// - ipv6: the address notifications are applied as they come, and only addresses that
//   passed duplicate address detection are kept: a tentative one (detection running) or a
//   duplicate one (detection failed) is left out, or taken out if it was kept. The kernel
//   notifies the address again when detection passes, and it appears then.
// - A device moved to another namespace is a deletion here (RTM_DELLINK).
// - Lost notifications (ENOBUFS, a truncated datagram) start a full dump whose result
//   is applied as a difference.
// - routeGeneration moves on with every batch of IPv4 route, rule or nexthop
//   notifications (read on a socket of their own, lost ones included), every link or
//   address notification, lost notifications, start and stop. Routes are only counted,
//   never dumped or kept.
//
// Table reactors run inside the follower's receive path: they must not stop or destroy
// the follower synchronously (post that to the loop).
class KernelTableFollower {
 public:
   KernelTableFollower(EventLoop& loop, std::string nsName, Ptr<KernelNetInfo::Status> table);
   // Unregisters and closes; the table is left as it is and nothing is notified.
   ~KernelTableFollower();
   KernelTableFollower(const KernelTableFollower&) = delete;
   KernelTableFollower& operator=(const KernelTableFollower&) = delete;

   // Opens the socket inside the namespace and starts the first dumps; the table is
   // complete once inSync() holds.
   bool start(std::string& error);
   // For when the namespace goes away: closes the socket and deletes every entry of
   // the table (each deletion notifies). start() may be called again afterwards.
   void stop();

   bool started() const { return socket_ != nullptr; }
   // No dump running or due: the table holds everything notified so far.
   bool inSync() const;
   // Times notifications were lost and a full dump had to replace them.
   uint64_t resyncs() const { return resyncs_; }
   // The socket, -1 when stopped; tests shrink its receive buffer to lose notifications.
   int fd() const { return socket_ ? socket_->fd() : -1; }

 private:
   enum class Dump : uint8_t { None, Links, Addresses, DeviceAddresses };
   struct DumpedAddresses {
      std::vector<IpAddrWithMask> ipv4;
      std::set<Ip6Prefix> ipv6;
   };

   void handleReadable();
   void handleRouteReadable();
   void handleMessage(const nlmsghdr* nlh);
   void handleDumpMessage(const nlmsghdr* nlh);
   void handleRetryTimer();
   // The header of a link message about a device itself; null (traced when malformed)
   // otherwise.
   const ifinfomsg* deviceHeader(const nlmsghdr* nlh) const;
   void doLink(const nlmsghdr* nlh);
   void doDelLink(const nlmsghdr* nlh);
   void doAddress(const nlmsghdr* nlh, bool fromDump);
   void doLost();
   void doNextDump();
   void doFinishDump();
   void doFailDump();
   // The dump is due again.
   void doRedue(Dump dump);
   void doApplyLinkDump();
   // `device` 0: every device.
   void doApplyAddressDump(uint32_t device);
   void doClose();

   EventLoop& loop_;
   const std::string nsName_;
   const Ptr<KernelNetInfo::Status> table_;
   std::unique_ptr<NetlinkSocket> socket_;
   // Route, rule and nexthop notifications, only counted into the route generation.
   std::unique_ptr<NetlinkSocket> routeWatch_;
   std::vector<uint8_t> buffer_;
   // A failed dump request is retried after a pause, not in a loop.
   Timer retryTimer_;

   Dump dump_ = Dump::None;
   uint32_t dumpSeq_ = 0;
   // The running dump's result cannot be trusted (the kernel flagged it, or
   // notifications were lost meanwhile); it is dropped and run again.
   bool dumpStale_ = false;
   bool linkDumpDue_ = false;
   bool addressDumpDue_ = false;
   // Devices whose addresses are to be dumped, and the one being dumped.
   std::set<uint32_t> deviceDumpsDue_;
   uint32_t dumpDevice_ = 0;
   // Devices seen by the running link dump or notified meanwhile: the rest are gone.
   std::set<uint32_t> linksSeen_;
   std::map<uint32_t, DumpedAddresses> addressesSeen_;
   // Devices with address notifications during the running address dump: the dump may
   // predate them, so they are dumped again.
   std::set<uint32_t> addressesTouched_;
   uint64_t resyncs_ = 0;
};

}  // namespace Frontend
