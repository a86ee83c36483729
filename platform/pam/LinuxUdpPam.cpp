#include "platform/pam/LinuxUdpPam.h"

#include <arpa/inet.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/NetNs.h"
#include "platform/linux/SockAddr.h"
#include "platform/loop/EventLoop.h"
#include "platform/trace/Trace.h"

namespace Platform {

namespace {

std::string errnoText(const std::string& what) {
   return what + ": " + std::strerror(errno);
}

}  // namespace

LinuxUdpPam::LinuxUdpPam(std::string name, EventLoop& loop) : UdpPam(std::move(name)), loop_(loop) {
   for (size_t i = 0; i < kRxBatch; ++i) {
      msghdr& hdr = rxMsgs_[i].msg_hdr;
      hdr.msg_name = &rxNames_[i];
      hdr.msg_iov = &rxIovs_[i];
      hdr.msg_iovlen = 1;
      hdr.msg_control = rxControls_[i].bytes.data();
   }
}

bool LinuxUdpPam::doOpen(std::string& error) {
   // The socket belongs to the namespace it was created in; creating it anywhere else would
   // serve the wrong VRF.
   Fd fd = socketIn(netNs(), ipv6() ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
                    IPPROTO_UDP, error);
   if (!fd)
      return false;
   const int on = 1;
   auto option = [&](int level, int name, const char* what) {
      if (::setsockopt(fd.get(), level, name, &on, sizeof on) == 0)
         return true;
      error = errnoText(what);
      return false;
   };
   if (!option(SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR") ||
       !option(SOL_SOCKET, SO_BROADCAST, "SO_BROADCAST"))
      return false;
   // The agent opens a separate IPv4 socket where it wants IPv4: mapped addresses arriving
   // on an IPv6 one would only confuse the IPv6 relay.
   if (ipv6() ? !option(IPPROTO_IPV6, IPV6_V6ONLY, "IPV6_V6ONLY") ||
                    !option(IPPROTO_IPV6, IPV6_RECVPKTINFO, "IPV6_RECVPKTINFO")
              : !option(IPPROTO_IP, IP_PKTINFO, "IP_PKTINFO"))
      return false;
   if (!doSetTos(fd.get(), error))
      return false;
   if (ipv6()) {
      // Our own multicast sends must not come back to us as if a client had sent them, and
      // a copy to a site-scope group (All_DHCP_Servers) must get past the link's router.
      const int loop = 0;
      const int hops = kMulticastHops;
      if (::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &loop, sizeof loop) < 0 ||
          ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops) < 0) {
         error = errnoText("IPV6_MULTICAST_LOOP/HOPS");
         return false;
      }
   }
   sockaddr_in6 addr;
   const socklen_t len = toSockaddr(ipv6(), rxAddr(), rxPort(), 0, addr);
   if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), len) < 0) {
      const int err = errno;
      const std::string where =
          rxAddr().isEmpty() ? (ipv6() ? "::" : "0.0.0.0") : rxAddr().toString();
      error = "bind " + where + " port " + std::to_string(rxPort()) + ": " + std::strerror(err);
      return false;
   }
   rxPaused_ = false;
   socket_ =
       WatchedFd(loop_, std::move(fd), EPOLLIN, [this](uint32_t events) { handleEvents(events); });
   return true;
}

void LinuxUdpPam::doClose() {
   socket_.reset();
   for (auto& pkt : rxPkts_)
      pkt.reset();
}

bool LinuxUdpPam::doSetTos(int fd, std::string& error) {
   const int tos = txTos();
   const bool ok = ipv6() ? ::setsockopt(fd, IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof tos) == 0
                          : ::setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) == 0;
   if (!ok)
      error = errnoText(ipv6() ? "IPV6_TCLASS" : "IP_TOS");
   return ok;
}

void LinuxUdpPam::doApplyTos() {
   std::string error;
   if (!doSetTos(socket_.get(), error))
      TRACE(1, name(), " cannot set TOS ", txTos(), ": ", error);
}

void LinuxUdpPam::handleEvents(uint32_t events) {
   if (events & EPOLLERR) {
      // Reported even while reading is paused: collecting the error clears it, so the loop
      // does not wake for it again.
      int soError = 0;
      socklen_t len = sizeof soError;
      ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &soError, &len);
      TRACE(5, name(), " socket error: ", std::strerror(soError));
   }
   if (!(events & EPOLLIN) || rxQueueRoom() == 0)
      return;
   // Announcing may release this object; the reference keeps it until this event is done.
   Ptr<const UdpPam> self(this);
   doOpenTxBatch();
   doReceiveBatch();
   doAnnounceRx();
   doCloseTxBatch();
   // Stop reading while the consumer leaves the queue full; the level-triggered descriptor
   // would otherwise wake the loop on every turn. rxPkt() resumes it.
   if (socket_ && rxQueueRoom() == 0 && !rxPaused_) {
      rxPaused_ = true;
      socket_.eventsIs(0);
      TRACE(5, name(), " receive queue full, reading paused");
   }
}

void LinuxUdpPam::doResumeRx() {
   if (!socket_ || !rxPaused_)
      return;
   rxPaused_ = false;
   socket_.eventsIs(EPOLLIN);
}

void LinuxUdpPam::doReceiveBatch() {
   const size_t want = std::min(kRxBatch, rxQueueRoom());
   const size_t payload = maxRxPayload();
   for (size_t i = 0; i < want; ++i) {
      // A slot keeps its packet until a datagram is queued in it, so only used slots cost a
      // pool take; a packet of an older size is replaced.
      Ptr<Pkt>& pkt = rxPkts_[i];
      if (!pkt || pkt->bytes() != payload)
         pkt = pool_.take(payload);
      rxIovs_[i] = iovec{pkt->data(), pkt->bytes()};
      msghdr& hdr = rxMsgs_[i].msg_hdr;
      hdr.msg_namelen = sizeof(sockaddr_in6);
      hdr.msg_controllen = kControlBytes;
      hdr.msg_flags = 0;
   }
   const int got = ::recvmmsg(socket_.get(), rxMsgs_.data(), static_cast<unsigned>(want),
                              MSG_DONTWAIT, nullptr);
   if (got < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
         TRACE(5, name(), " recvmmsg: ", std::strerror(errno));
      return;
   }
   for (size_t i = 0; i < static_cast<size_t>(got); ++i) {
      Ptr<Pkt>& pkt = rxPkts_[i];
      msghdr& hdr = rxMsgs_[i].msg_hdr;
      const size_t len = rxMsgs_[i].msg_len;
      UdpDatagram datagram;
      const sockaddr_in6& name6 = rxNames_[i];
      if (name6.sin6_family == AF_INET6) {
         datagram.src = fromIn6Addr(name6.sin6_addr);
         datagram.srcPort = ntohs(name6.sin6_port);
      } else {
         const auto& name4 = reinterpret_cast<const sockaddr_in&>(name6);
         datagram.src = IpAddr::fromNetwork(name4.sin_addr.s_addr);
         datagram.srcPort = ntohs(name4.sin_port);
      }
      if (hdr.msg_flags & MSG_TRUNC) {
         rxTruncatedInc();
         TRACE(5, name(), " dropped a datagram longer than ", payload, " bytes from ", datagram.src,
               ":", datagram.srcPort);
         pkt.reset();  // its bytes were overwritten: the slot takes a fresh one next time
         continue;
      }
      for (cmsghdr* c = CMSG_FIRSTHDR(&hdr); c; c = CMSG_NXTHDR(&hdr, c)) {
         if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            datagram.dst = IpAddr::fromNetwork(info.ipi_addr.s_addr);
            datagram.ifindex = static_cast<uint32_t>(info.ipi_ifindex);
         } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            datagram.dst = fromIn6Addr(info.ipi6_addr);
            datagram.ifindex = info.ipi6_ifindex;
         }
      }
      if (datagram.dst.isEmpty()) {
         // Without the device the relay cannot tell which link the datagram belongs to.
         rxDroppedInc();
         TRACE(5, name(), " dropped a datagram without packet information from ", datagram.src, ":",
               datagram.srcPort);
         pkt.reset();
         continue;
      }
      pkt->shrinkTail(pkt->bytes() - len);
      datagram.pkt = std::move(pkt);
      doQueueRx(std::move(datagram));
   }
}

void LinuxUdpPam::doBuildMsg(const UdpTx& tx, TxSlot& slot, msghdr& msg) {
   msg = msghdr{};
   msg.msg_name = &slot.dst;
   msg.msg_namelen = toSockaddr(ipv6(), tx.dst, tx.port, tx.ifindex, slot.dst);
   slot.iov = iovec{const_cast<uint8_t*>(tx.payload->data()), tx.payload->bytes()};
   msg.msg_iov = &slot.iov;
   msg.msg_iovlen = 1;
   // The source goes with each send (ipi_spec_dst / ipi6_addr, ip(7), ipv6(7)), so one
   // socket sends from whichever of the namespace's addresses the relay picks, and the
   // device (ipi_ifindex) steers broadcasts and link-scoped sends to their link. An IPv6
   // destination that takes a scope id (link-local, link-scope multicast) has its device in
   // the address already, which spares the kernel a control message per send.
   const bool scoped = ipv6() && tx.dst.isV6() &&
                       (tx.dst.v6().isLinkLocal() ||
                        (tx.dst.v6().isMulticast() && (tx.dst.v6().bytes()[1] & 0xf) <= 2));
   if (tx.src.isEmpty() && (tx.ifindex == 0 || scoped))
      return;
   msg.msg_control = slot.control.bytes.data();
   if (ipv6()) {
      msg.msg_controllen = CMSG_SPACE(sizeof(in6_pktinfo));
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = IPPROTO_IPV6;
      c->cmsg_type = IPV6_PKTINFO;
      c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
      in6_pktinfo info{};
      if (!tx.src.isEmpty())
         info.ipi6_addr = toIn6Addr(tx.src.v6());
      info.ipi6_ifindex = tx.ifindex;
      std::memcpy(CMSG_DATA(c), &info, sizeof info);
   } else {
      msg.msg_controllen = CMSG_SPACE(sizeof(in_pktinfo));
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = IPPROTO_IP;
      c->cmsg_type = IP_PKTINFO;
      c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
      in_pktinfo info{};
      if (!tx.src.isEmpty())
         info.ipi_spec_dst = toInAddr(tx.src.v4());
      info.ipi_ifindex = static_cast<int>(tx.ifindex);
      std::memcpy(CMSG_DATA(c), &info, sizeof info);
   }
}

LinuxUdpPam::SendResult LinuxUdpPam::doFailed(const UdpTx& tx, int err) const {
   const bool full = err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS;
   TRACE(5, name(), full ? " dropped " : " cannot send ", tx.payload->bytes(), " bytes from ",
         tx.src, " to ", tx.dst, ":", tx.port, ": ", std::strerror(err));
   return full ? SendResult::dropped : SendResult::failed;
}

LinuxUdpPam::SendResult LinuxUdpPam::doSend(const UdpTx& tx) {
   TxSlot slot;
   msghdr msg;
   doBuildMsg(tx, slot, msg);
   if (::sendmsg(socket_.get(), &msg, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
      return SendResult::sent;
   return doFailed(tx, errno);
}

void LinuxUdpPam::doSendBatch(const UdpTx* txs, SendResult* results, size_t count) {
   for (size_t i = 0; i < count; ++i)
      doBuildMsg(txs[i], txSlots_[i], txMsgs_[i].msg_hdr);
   // sendmmsg stops at the first datagram the kernel refuses and reports the datagrams sent
   // before it; the refused one fails alone, with its own error, and the rest go on.
   size_t next = 0;
   while (next < count) {
      const int sent = ::sendmmsg(socket_.get(), txMsgs_.data() + next,
                                  static_cast<unsigned>(count - next), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent > 0) {
         for (int k = 0; k < sent; ++k)
            results[next++] = SendResult::sent;
      } else {
         results[next] = doFailed(txs[next], errno);
         ++next;
      }
   }
}

bool LinuxUdpPam::doMcastGroup(uint32_t ifindex, const Ip6Addr& group, bool join,
                               std::string& error) {
   ipv6_mreq req{};
   req.ipv6mr_multiaddr = toIn6Addr(group);
   req.ipv6mr_interface = ifindex;
   if (::setsockopt(socket_.get(), IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &req,
                    sizeof req) == 0)
      return true;
   error = errnoText(join ? "IPV6_JOIN_GROUP" : "IPV6_LEAVE_GROUP");
   return false;
}

}  // namespace Platform
