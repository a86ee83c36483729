#include "frontend/kernel/KernelTableFollower.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/trace/Trace.h"

namespace Frontend {

using Platform::netlinkAttrs;
using Platform::netlinkHeader;

using Platform::EthAddr;
using Platform::EventLoop;
using Platform::forEachNetlinkMessage;
using Platform::Ip6Prefix;
using Platform::kNetlinkBufferSize;
using Platform::netlinkAddr;
using Platform::netlinkErrorText;
using Platform::NetlinkSocket;
using Platform::netlinkString;
using Platform::netlinkU32;
using Platform::Ptr;

using KernelNetInfo::KernelIntf;

namespace {

// Room for bursts of notifications (a bond or a VRF with many devices coming up at
// once) before the kernel drops any; memory is charged only as datagrams queue.
constexpr int kReceiveBufferBytes = 8 << 20;
// Datagrams read per wake-up: a busy namespace must not hold up the loop. The
// descriptor is level-triggered, so the rest is read on the next turn.
constexpr int kDatagramsPerTurn = 64;
constexpr double kDumpRetrySeconds = 1.0;
// Past this many devices waiting for their addresses, one dump of every device costs less
// than a round trip to the kernel for each.
constexpr size_t kDeviceDumpsMax = 32;

const char* dumpName(bool links) {
   return links ? "link" : "address";
}

// An IPv6 address may be used once duplicate address detection has passed: until then it
// may still turn out to be another node's, and a duplicate one is. IFA_FLAGS carries all 32
// bits; kernels before 3.14 send only the low 8 in the header, which hold these two.
bool usableIpv6(const ifaddrmsg& ifa, const nlattr* flagsAttr) {
   const uint32_t flags = netlinkU32(flagsAttr).value_or(ifa.ifa_flags);
   return !(flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED));
}

}  // namespace

KernelTableFollower::KernelTableFollower(EventLoop& loop, std::string nsName,
                                         Ptr<KernelNetInfo::Status> table)
    : loop_(loop),
      nsName_(std::move(nsName)),
      table_(std::move(table)),
      retryTimer_(loop.wheel(), [this] { handleRetryTimer(); }) {}

KernelTableFollower::~KernelTableFollower() {
   doClose();
}

bool KernelTableFollower::start(std::string& error) {
   error.clear();
   if (socket_)
      return true;
   socket_ = NetlinkSocket::open(nsName_, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR,
                                 true, error);
   // Route changes come on a socket of their own: a churning routing table must not
   // crowd out device and address changes, and losing some of its messages costs only a
   // step of the generation, not a full dump.
   routeWatch_ =
       socket_ ? NetlinkSocket::open(
                     nsName_, RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE | RTMGRP_IPV6_ROUTE, true, error)
               : nullptr;
   if (!routeWatch_) {
      TRACE(0, "cannot follow network namespace \"", nsName_, "\": ", error);
      socket_.reset();
      return false;
   }
   // Routes that use nexthop objects (as routing daemons install them) change with the
   // object, without a route message. Group 32 is beyond the bind mask; kernels before
   // 5.3 have no such group, and there routes carry their next hops themselves.
   std::string ignored;
   routeWatch_->netlinkOptionIs(NETLINK_ADD_MEMBERSHIP, RTNLGRP_NEXTHOP, ignored);
   routeWatch_->netlinkOptionIs(NETLINK_ADD_MEMBERSHIP, RTNLGRP_IPV6_RULE, ignored);
   // Strict checking makes the kernel honour a dump's ifindex (Linux 4.20); before it, a
   // device's address dump lists every device and only that one is taken.
   socket_->netlinkOptionIs(NETLINK_GET_STRICT_CHK, 1, ignored);
   socket_->receiveBufferIs(kReceiveBufferBytes);
   buffer_.resize(kNetlinkBufferSize);
   loop_.addFd(socket_->fd(), EPOLLIN, [this](uint32_t) { handleReadable(); });
   loop_.addFd(routeWatch_->fd(), EPOLLIN, [this](uint32_t) { handleRouteReadable(); });
   // Subscribed before dumping: whatever changes after a dump has passed a device
   // arrives as a notification.
   linkDumpDue_ = addressDumpDue_ = true;
   // Whatever was answered before nobody followed the namespace is not to be trusted.
   table_->routeGenerationInc();
   doNextDump();
   TRACE(2, "following network namespace \"", nsName_, "\"");
   return true;
}

void KernelTableFollower::stop() {
   doClose();
   table_->interfaceByIndexDelAll();
   table_->routeGenerationInc();
   TRACE(2, "stopped following network namespace \"", nsName_, "\"");
}

bool KernelTableFollower::inSync() const {
   return socket_ && dump_ == Dump::None && !linkDumpDue_ && !addressDumpDue_ &&
          deviceDumpsDue_.empty();
}

void KernelTableFollower::doClose() {
   retryTimer_.cancel();
   for (std::unique_ptr<NetlinkSocket>* s : {&socket_, &routeWatch_}) {
      if (*s) {
         loop_.removeFd((*s)->fd());
         s->reset();
      }
   }
   dump_ = Dump::None;
   dumpStale_ = linkDumpDue_ = addressDumpDue_ = false;
   deviceDumpsDue_.clear();
   linksSeen_.clear();
   addressesSeen_.clear();
   addressesTouched_.clear();
}

void KernelTableFollower::handleReadable() {
   for (int i = 0; i < kDatagramsPerTurn && socket_; ++i) {
      const ssize_t n = socket_->receive(buffer_);
      if (n == -EAGAIN || n == -EWOULDBLOCK) {
         // Only with the queue empty: a resynchronising dump must not be followed by
         // notifications older than itself.
         doNextDump();
         return;
      }
      if (n == 0 || n == -EINTR)
         continue;
      if (n == -ENOBUFS || n == -EMSGSIZE) {
         doLost();
         continue;
      }
      if (n < 0) {
         TRACE(0, "netlink receive failed in \"", nsName_,
               "\": ", std::strerror(static_cast<int>(-n)));
         return;
      }
      forEachNetlinkMessage({buffer_.data(), static_cast<size_t>(n)}, [this](const nlmsghdr* nlh) {
         if (socket_)
            handleMessage(nlh);
      });
   }
}

void KernelTableFollower::handleRouteReadable() {
   // What changed does not matter, only that something did: one step per batch.
   bool changed = false;
   for (int i = 0; i < kDatagramsPerTurn && routeWatch_; ++i) {
      const ssize_t n = routeWatch_->receive(buffer_);
      if (n == -EAGAIN || n == -EWOULDBLOCK)
         break;
      if (n > 0 || n == -ENOBUFS || n == -EMSGSIZE) {
         changed = true;
      } else if (n < 0 && n != -EINTR) {
         TRACE(0, "netlink receive failed in \"", nsName_,
               "\": ", std::strerror(static_cast<int>(-n)));
         break;
      }
   }
   if (changed)
      table_->routeGenerationInc();
}

void KernelTableFollower::handleMessage(const nlmsghdr* nlh) {
   // This socket sends nothing but dumps, so a message addressed to its port is a dump
   // part; one of an earlier, abandoned dump is dropped.
   if (nlh->nlmsg_pid == socket_->portId()) {
      if (dump_ != Dump::None && nlh->nlmsg_seq == dumpSeq_)
         handleDumpMessage(nlh);
      return;
   }
   switch (nlh->nlmsg_type) {
      case RTM_NEWLINK:
         doLink(nlh);
         break;
      case RTM_DELLINK:
         doDelLink(nlh);
         break;
      case RTM_NEWADDR:
      case RTM_DELADDR:
         doAddress(nlh, false);
         break;
      default:
         return;
   }
   // Devices and addresses count too: they decide the source address and which routes
   // are usable, and a device going down removes its routes without a message for each.
   table_->routeGenerationInc();
}

void KernelTableFollower::handleDumpMessage(const nlmsghdr* nlh) {
   // The kernel marks the parts of a dump that a concurrent change made inconsistent.
   if (nlh->nlmsg_flags & NLM_F_DUMP_INTR)
      dumpStale_ = true;
   switch (nlh->nlmsg_type) {
      case NLMSG_DONE: {
         const int* status = netlinkHeader<int>(nlh);
         if (status && *status < 0) {
            TRACE(0, dumpName(dump_ == Dump::Links), " dump failed in \"", nsName_,
                  "\": ", std::strerror(-*status));
            doFailDump();
            return;
         }
         doFinishDump();
         return;
      }
      case NLMSG_ERROR:
         TRACE(0, dumpName(dump_ == Dump::Links), " dump refused in \"", nsName_,
               "\": ", netlinkErrorText(nlh));
         doFailDump();
         return;
      case RTM_NEWLINK:
         if (dump_ == Dump::Links)
            doLink(nlh);
         return;
      case RTM_NEWADDR:
         if (dump_ == Dump::Addresses || dump_ == Dump::DeviceAddresses)
            doAddress(nlh, true);
         return;
      default:
         return;
   }
}

void KernelTableFollower::handleRetryTimer() {
   doNextDump();
}

const ifinfomsg* KernelTableFollower::deviceHeader(const nlmsghdr* nlh) const {
   const auto* ifi = netlinkHeader<ifinfomsg>(nlh);
   if (!ifi || ifi->ifi_index <= 0) {
      TRACE(1, "malformed link message dropped in \"", nsName_, "\"");
      return nullptr;
   }
   // Bridge port messages (AF_BRIDGE) share the types: a device joining or leaving a
   // bridge. Only AF_UNSPEC ones describe the device itself.
   return ifi->ifi_family == AF_UNSPEC ? ifi : nullptr;
}

void KernelTableFollower::doLink(const nlmsghdr* nlh) {
   const ifinfomsg* ifi = deviceHeader(nlh);
   if (!ifi)
      return;
   auto attrs = netlinkAttrs<IFLA_IFNAME + 1>(nlh, sizeof(ifinfomsg));
   auto name = netlinkString(attrs[IFLA_IFNAME]);
   if (!name) {
      TRACE(1, "link message without a name dropped in \"", nsName_, "\"");
      return;
   }
   EthAddr mac;
   if (const nlattr* a = attrs[IFLA_ADDRESS]; a && mnl_attr_get_payload_len(a) == 6) {
      EthAddr::Bytes bytes;
      std::memcpy(bytes.data(), mnl_attr_get_payload(a), bytes.size());
      mac = EthAddr(bytes);
   }
   const auto ifindex = static_cast<uint32_t>(ifi->ifi_index);
   if (dump_ == Dump::Links)
      linksSeen_.insert(ifindex);

   Ptr<KernelIntf> intf = table_->interfaceByIndex(ifindex);
   if (!intf) {
      TRACE(3, "device ", ifindex, " \"", *name, "\" appears in \"", nsName_, "\"");
      intf = table_->interfaceByIndexIs(ifindex);
   }
   intf->deviceNameIs(std::string(*name));
   intf->macIs(mac);
   intf->upIs(ifi->ifi_flags & IFF_UP);
   intf->runningIs(ifi->ifi_flags & IFF_RUNNING);
}

void KernelTableFollower::doDelLink(const nlmsghdr* nlh) {
   const ifinfomsg* ifi = deviceHeader(nlh);
   if (!ifi)
      return;
   const auto ifindex = static_cast<uint32_t>(ifi->ifi_index);
   linksSeen_.erase(ifindex);
   if (table_->interfaceByIndex(ifindex)) {
      TRACE(3, "device ", ifindex, " leaves \"", nsName_, "\"");
      table_->interfaceByIndexDel(ifindex);
   }
}

void KernelTableFollower::doAddress(const nlmsghdr* nlh, bool fromDump) {
   const auto* ifa = netlinkHeader<ifaddrmsg>(nlh);
   if (!ifa)
      return;
   const int family = ifa->ifa_family;
   if (family != AF_INET && family != AF_INET6)
      return;
   auto attrs = netlinkAttrs<IFA_FLAGS + 1>(nlh, sizeof(ifaddrmsg));
   // IFA_LOCAL is the device's own address; IFA_ADDRESS is the peer's on a
   // point-to-point link and the same address otherwise (IPv6 often sends only it).
   auto addr = netlinkAddr(attrs[IFA_LOCAL], family);
   if (!addr)
      addr = netlinkAddr(attrs[IFA_ADDRESS], family);
   if (!addr || ifa->ifa_prefixlen > (family == AF_INET ? 32 : 128) || ifa->ifa_index == 0) {
      TRACE(1, "malformed address message dropped in \"", nsName_, "\"");
      return;
   }
   const uint32_t ifindex = ifa->ifa_index;
   if (fromDump) {
      DumpedAddresses& seen = addressesSeen_[ifindex];
      if (family == AF_INET)
         seen.ipv4.emplace_back(addr->v4(), ifa->ifa_prefixlen);
      else if (usableIpv6(*ifa, attrs[IFA_FLAGS]))
         seen.ipv6.emplace(addr->v6(), ifa->ifa_prefixlen);
      return;
   }
   if (dump_ == Dump::Addresses || dump_ == Dump::DeviceAddresses)
      addressesTouched_.insert(ifindex);
   if (family == AF_INET) {
      deviceDumpsDue_.insert(ifindex);
      return;
   }
   Ptr<KernelIntf> intf = table_->interfaceByIndex(ifindex);
   if (!intf)
      return;
   const Ip6Prefix prefix(addr->v6(), ifa->ifa_prefixlen);
   // The kernel notifies again when detection ends: without the flag once it passed, with
   // IFA_F_DADFAILED when it failed.
   const bool deleted = nlh->nlmsg_type == RTM_DELADDR;
   const bool added = !deleted && usableIpv6(*ifa, attrs[IFA_FLAGS]);
   TRACE(4,
         added     ? "added "
         : deleted ? "deleted "
                   : "not usable (duplicate address detection) ",
         prefix, " on ", intf->deviceName(), " in \"", nsName_, "\"");
   if (added)
      intf->ipv6Is(prefix);
   else
      intf->ipv6Del(prefix);
}

void KernelTableFollower::doLost() {
   ++resyncs_;
   table_->routeGenerationInc();
   TRACE(1, "netlink notifications lost in \"", nsName_, "\": dumping everything again");
   linkDumpDue_ = addressDumpDue_ = true;
   if (dump_ != Dump::None)
      dumpStale_ = true;
}

void KernelTableFollower::doNextDump() {
   if (!socket_ || dump_ != Dump::None || retryTimer_.armed())
      return;
   if (deviceDumpsDue_.size() > kDeviceDumpsMax)
      addressDumpDue_ = true;
   if (!linkDumpDue_ && !addressDumpDue_ && deviceDumpsDue_.empty())
      return;
   const Dump next = linkDumpDue_      ? Dump::Links
                     : addressDumpDue_ ? Dump::Addresses
                                       : Dump::DeviceAddresses;
   const uint32_t device = next == Dump::DeviceAddresses ? *deviceDumpsDue_.begin() : 0;
   alignas(nlmsghdr) std::array<uint8_t, 64> request{};
   nlmsghdr* nlh = mnl_nlmsg_put_header(request.data());
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   nlh->nlmsg_seq = socket_->nextSeq();
   if (next == Dump::Links) {
      nlh->nlmsg_type = RTM_GETLINK;
      auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
      ifi->ifi_family = AF_UNSPEC;
   } else {
      nlh->nlmsg_type = RTM_GETADDR;
      auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
      ifa->ifa_family = AF_UNSPEC;
      ifa->ifa_index = device;
   }
   const bool links = next == Dump::Links;
   std::string error;
   if (!socket_->send(nlh, error)) {
      TRACE(0, dumpName(links), " dump not started in \"", nsName_, "\": ", error);
      retryTimer_.armIn(kDumpRetrySeconds);
      return;
   }
   if (links) {
      linkDumpDue_ = false;
   } else if (next == Dump::Addresses) {
      // Covers whatever the devices waiting for their own dump wait for.
      addressDumpDue_ = false;
      deviceDumpsDue_.clear();
   } else {
      deviceDumpsDue_.erase(device);
   }
   dump_ = next;
   dumpDevice_ = device;
   dumpSeq_ = nlh->nlmsg_seq;
   dumpStale_ = false;
   linksSeen_.clear();
   addressesSeen_.clear();
   addressesTouched_.clear();
   TRACE(4, dumpName(links), " dump started in \"", nsName_, "\"");
}

void KernelTableFollower::doFinishDump() {
   const Dump done = std::exchange(dump_, Dump::None);
   if (dumpStale_) {
      TRACE(2, dumpName(done == Dump::Links), " dump in \"", nsName_,
            "\" overtaken by changes: running it again");
      doRedue(done);
   } else if (done == Dump::Links) {
      doApplyLinkDump();
   } else {
      doApplyAddressDump(dumpDevice_);
   }
   linksSeen_.clear();
   addressesSeen_.clear();
   addressesTouched_.clear();
}

void KernelTableFollower::doFailDump() {
   const Dump failed = std::exchange(dump_, Dump::None);
   linksSeen_.clear();
   addressesSeen_.clear();
   addressesTouched_.clear();
   // A device that went meanwhile has no addresses to dump (its deletion came first).
   if (failed == Dump::DeviceAddresses && !table_->interfaceByIndex(dumpDevice_))
      return;
   doRedue(failed);
   retryTimer_.armIn(kDumpRetrySeconds);
}

void KernelTableFollower::doRedue(Dump dump) {
   if (dump == Dump::Links)
      linkDumpDue_ = true;
   else if (dump == Dump::Addresses)
      addressDumpDue_ = true;
   else
      deviceDumpsDue_.insert(dumpDevice_);
}

void KernelTableFollower::doApplyLinkDump() {
   std::vector<uint32_t> gone;
   for (const auto& [ifindex, intf] : table_->interfaceByIndex()) {
      if (!linksSeen_.contains(ifindex))
         gone.push_back(ifindex);
   }
   for (uint32_t ifindex : gone) {
      TRACE(3, "device ", ifindex, " gone from \"", nsName_, "\"");
      table_->interfaceByIndexDel(ifindex);
   }
}

void KernelTableFollower::doApplyAddressDump(uint32_t device) {
   // Snapshot first: reactors run inside the loop below. A kernel without strict
   // checking answers a device's dump with every device: only that one is taken.
   std::vector<Ptr<KernelIntf>> intfs;
   if (device != 0) {
      if (Ptr<KernelIntf> intf = table_->interfaceByIndex(device);
          intf && !addressesTouched_.contains(device))
         intfs.push_back(intf);
   } else {
      for (const auto& [ifindex, intf] : table_->interfaceByIndex()) {
         if (!addressesTouched_.contains(ifindex))
            intfs.push_back(intf);
      }
   }
   const DumpedAddresses none;
   std::vector<Ip6Prefix> gone;
   for (const Ptr<KernelIntf>& intf : intfs) {
      auto it = addressesSeen_.find(intf->ifindex());
      const DumpedAddresses& seen = it == addressesSeen_.end() ? none : it->second;
      intf->ipv4Is(seen.ipv4);
      gone.clear();
      for (const Ip6Prefix& prefix : intf->ipv6()) {
         if (!seen.ipv6.contains(prefix))
            gone.push_back(prefix);
      }
      for (const Ip6Prefix& prefix : gone)
         intf->ipv6Del(prefix);
      for (const Ip6Prefix& prefix : seen.ipv6)
         intf->ipv6Is(prefix);
   }
   // The dump may predate what was notified meanwhile: those devices are dumped again.
   if (device == 0)
      deviceDumpsDue_.insert(addressesTouched_.begin(), addressesTouched_.end());
   else if (addressesTouched_.contains(device))
      deviceDumpsDue_.insert(device);
}

}  // namespace Frontend
