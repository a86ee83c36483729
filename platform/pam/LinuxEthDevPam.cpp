#include "platform/pam/LinuxEthDevPam.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/linux/NetNs.h"
#include "platform/loop/EventLoop.h"
#include "platform/packet/ByteCursor.h"
#include "platform/packet/EthHeader.h"
#include "platform/trace/Trace.h"

namespace Platform {

namespace {

constexpr uint16_t kVlanIdMask = 0x0fff;

std::optional<uint16_t> kernelTci(msghdr& h) {
   for (cmsghdr* c = CMSG_FIRSTHDR(&h); c; c = CMSG_NXTHDR(&h, c)) {
      if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
          c->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata)))
         continue;
      tpacket_auxdata aux;
      std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
      // The flag tells a priority tag (TCI 0 with VLAN id 0) from no tag at all.
      if (aux.tp_status & TP_STATUS_VLAN_VALID)
         return aux.tp_vlan_tci;
   }
   return std::nullopt;
}

}  // namespace

std::optional<uint16_t> ethFrameVlanTake(Pkt& frame, std::optional<uint16_t> kernelTci) {
   if (kernelTci)
      return static_cast<uint16_t>(*kernelTci & kVlanIdMask);
   ByteReader r(frame.span());
   r.skip(kEthTypeOffset);
   const auto type = r.read16();
   const auto tci = r.read16();
   // A tag needs the ethertype it wraps after it to be a frame at all.
   if (!type || *type != kEthTypeVlan || !tci || r.remaining() < 2)
      return std::nullopt;
   // Moving the two MAC addresses over the tag leaves the rest of the frame in place.
   frame.moveRange(0, kVlanTagBytes, kEthTypeOffset);
   frame.shrinkHead(kVlanTagBytes);
   return static_cast<uint16_t>(*tci & kVlanIdMask);
}

LinuxEthDevPam::LinuxEthDevPam(EventLoop& loop, std::string device, std::string netNs,
                               std::vector<sock_filter> filter)
    : EthDevPam(std::move(device), std::move(netNs)), loop_(loop), filter_(std::move(filter)) {}

bool LinuxEthDevPam::doOpen(std::string& error) {
   if (device().empty() || device().size() >= IFNAMSIZ) {
      error = "invalid device name \"" + device() + "\"";
      return false;
   }
   // Protocol 0 receives nothing: frames start arriving at the bind below, once the filter
   // is in place, instead of every frame of every device queueing meanwhile.
   Fd fd = socketIn(netNs(), AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, error);
   if (!fd)
      return false;
   auto fail = [&](const std::string& what) {
      error = what + ": " + std::strerror(errno);
      return false;
   };

   // The socket belongs to the namespace, so the device is looked up there.
   ifreq ifr{};
   std::memcpy(ifr.ifr_name, device().data(), device().size());
   if (::ioctl(fd.get(), SIOCGIFINDEX, &ifr) < 0)
      return fail("no device " + device());
   const int ifindex = ifr.ifr_ifindex;

   // An empty program is refused here too, so the socket never captures unfiltered.
   sock_fprog fprog{static_cast<unsigned short>(filter_.size()), filter_.data()};
   if (::setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) < 0)
      return fail("cannot attach the capture filter");
   const int one = 1;
   if (::setsockopt(fd.get(), SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) < 0)
      return fail("cannot enable PACKET_AUXDATA");
   // What this host sends on the device (the relay's UDP and raw sockets) would otherwise
   // come back as captured frames; the kernel already spares a socket its own sends.
   if (::setsockopt(fd.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) < 0)
      return fail("cannot enable PACKET_IGNORE_OUTGOING");

   sockaddr_ll addr{};
   addr.sll_family = AF_PACKET;
   addr.sll_protocol = htons(ETH_P_ALL);
   addr.sll_ifindex = ifindex;
   if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0)
      return fail("cannot bind to " + device());

   ifindex_ = static_cast<uint32_t>(ifindex);
   rxPaused_ = false;
   socket_ = WatchedFd(loop_, std::move(fd), EPOLLIN, [this](uint32_t) { handleReadable(); });
   return true;
}

void LinuxEthDevPam::doClose() {
   socket_.reset();
   ifindex_ = 0;
   rxPaused_ = false;
}

EthDevPam::SendResult LinuxEthDevPam::doSend(const Pkt& frame) {
   // The bound socket sends on its device; the kernel takes the protocol from the frame.
   const ssize_t n = ::send(socket_.get(), frame.data(), frame.bytes(), 0);
   if (n == static_cast<ssize_t>(frame.bytes()))
      return SendResult::sent;
   const int err = n < 0 ? errno : EMSGSIZE;
   const bool full = err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS;
   TRACE(5, device(), full ? " dropped " : " cannot send ", frame.bytes(),
         " bytes: ", std::strerror(err));
   return full ? SendResult::dropped : SendResult::failed;
}

void LinuxEthDevPam::doResumeRx() {
   if (!rxPaused_)
      return;
   rxPaused_ = false;
   socket_.eventsIs(EPOLLIN);
}

void LinuxEthDevPam::handleReadable() {
   // Epoll reports a socket error even to a paused socket; unread, it would fire on every
   // turn.
   if (rxPaused_) {
      doConsumeError();
      return;
   }
   // A handler may release this object; the checks after the announcements read members.
   Ptr<const EthDevPam> self(this);
   doReadBatch();
   doAnnounceRx();
   if (socket_ && rxQueueRoom() == 0) {
      rxPaused_ = true;
      socket_.eventsIs(0);
   }
}

void LinuxEthDevPam::doReadBatch() {
   const size_t want = std::min(kRxBatch, rxQueueRoom());
   for (size_t i = 0; i < want; ++i) {
      if (!rxPkts_[i])
         rxPkts_[i] = pool_.take(kMaxRxFrame);
      rxIovs_[i] = {rxPkts_[i]->data(), rxPkts_[i]->bytes()};
      msghdr& h = rxMsgs_[i].msg_hdr;
      h.msg_name = &rxAddrs_[i];
      h.msg_namelen = sizeof rxAddrs_[i];
      h.msg_iov = &rxIovs_[i];
      h.msg_iovlen = 1;
      h.msg_control = rxControls_[i].bytes;
      h.msg_controllen = sizeof rxControls_[i].bytes;
      h.msg_flags = 0;
   }
   const int n = ::recvmmsg(socket_.get(), rxMsgs_.data(), static_cast<unsigned>(want), 0, nullptr);
   if (n < 0) {
      // The device going down (ENETDOWN) lands here once; the socket resumes when it
      // comes back up.
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
         TRACE(1, device(), " receive failed: ", std::strerror(errno));
      return;
   }
   for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
      msghdr& h = rxMsgs_[i].msg_hdr;
      Ptr<Pkt> pkt = std::move(rxPkts_[i]);
      if (h.msg_flags & MSG_TRUNC) {
         rxTruncatedInc();
         TRACE(5, device(), " dropped a frame longer than ", kMaxRxFrame, " bytes");
         continue;
      }
      pkt->shrinkTail(pkt->bytes() - rxMsgs_[i].msg_len);
      const std::optional<uint16_t> vlanId = ethFrameVlanTake(*pkt, kernelTci(h));
      doQueueRx(EthFrame{std::move(pkt), vlanId, static_cast<uint32_t>(rxAddrs_[i].sll_ifindex)});
   }
}

void LinuxEthDevPam::doConsumeError() {
   int err = 0;
   socklen_t len = sizeof err;
   if (::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err != 0)
      TRACE(1, device(), " socket error: ", std::strerror(err));
}

}  // namespace Platform
