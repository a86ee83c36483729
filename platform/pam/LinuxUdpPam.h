#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <string>

#include "platform/loop/WatchedFd.h"
#include "platform/packet/PktPool.h"
#include "platform/pam/UdpPam.h"

namespace Platform {

class EventLoop;

// The kernel's UDP socket behind a UdpPam. Each readable event takes up to kRxBatch
// datagrams in one recvmmsg into pooled packets, queues them and announces them, and the
// sends queued meanwhile leave in one sendmmsg; the
// descriptor is level-triggered, so whatever is left in the socket is read on the next
// loop turn, after the other descriptors have had theirs.
//
// The socket is bound to the wildcard address or rxAddr with SO_REUSEADDR and receives
// packet information (IP_PKTINFO / IPV6_RECVPKTINFO): that is how a limited broadcast
// from a client without an address (0.0.0.0:68 to 255.255.255.255:67) is received and
// told apart, and how the device it came in on is known. An IPv6 socket is IPv6 only.
class LinuxUdpPam final : public UdpPam {
 public:
   static constexpr size_t kRxBatch = 32;

   LinuxUdpPam(std::string name, EventLoop& loop);

   const PktPool& pktPool() const { return pool_; }

 private:
   // Packet information is the only control message the socket asks for; the second
   // slot leaves room should the kernel add one.
   static constexpr size_t kControlBytes = 2 * CMSG_SPACE(sizeof(in6_pktinfo));
   struct alignas(cmsghdr) Control {
      std::array<unsigned char, kControlBytes> bytes;
   };

   bool doOpen(std::string& error) override;
   void doClose() override;
   void doApplyTos() override;
   SendResult doSend(const UdpTx& tx) override;
   void doSendBatch(const UdpTx* txs, SendResult* results, size_t count) override;
   bool doMcastGroup(uint32_t ifindex, const Ip6Addr& group, bool join,
                     std::string& error) override;
   void doResumeRx() override;

   // What one send's message points at.
   struct TxSlot {
      sockaddr_in6 dst;
      iovec iov;
      Control control;
   };
   void doBuildMsg(const UdpTx& tx, TxSlot& slot, msghdr& msg);
   SendResult doFailed(const UdpTx& tx, int err) const;

   void handleEvents(uint32_t events);
   void doReceiveBatch();
   bool doSetTos(int fd, std::string& error);

   EventLoop& loop_;
   WatchedFd socket_;
   bool rxPaused_ = false;
   PktPool pool_;

   // recvmmsg's arguments, set up once per batch slot: receiving allocates nothing.
   std::array<Ptr<Pkt>, kRxBatch> rxPkts_;
   std::array<mmsghdr, kRxBatch> rxMsgs_{};
   std::array<iovec, kRxBatch> rxIovs_{};
   std::array<sockaddr_in6, kRxBatch> rxNames_{};
   std::array<Control, kRxBatch> rxControls_{};
   // sendmmsg's, for a batch of queued sends.
   std::array<TxSlot, kTxBatch> txSlots_{};
   std::array<mmsghdr, kTxBatch> txMsgs_{};
};

}  // namespace Platform
