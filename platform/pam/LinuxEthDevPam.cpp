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

#include "platform/base/Assert.h"
#include "platform/linux/NetNs.h"
#include "platform/loop/EventLoop.h"
#include "platform/packet/ByteCursor.h"
#include "platform/packet/InetHeaders.h"
#include "platform/trace/Trace.h"

namespace Platform {

namespace {

constexpr uint16_t kEthTypeIpv4 = 0x0800;
constexpr uint16_t kEthTypeIpv6 = 0x86dd;
constexpr uint16_t kEthTypeVlan = 0x8100;
constexpr uint16_t kVlanIdMask = 0x0fff;
constexpr uint32_t kEthTypeOffset = 12;
constexpr uint32_t kUntaggedL3 = kEthHeaderBytes;
constexpr uint32_t kTaggedL3 = 18;
constexpr uint8_t kIpProtoUdp = 17;

// Jump targets of the capture filter, resolved once the program is laid out. `next` is the
// following instruction.
enum Label : uint8_t {
   next,
   accept,
   reject,
   tagged,
   ipv4Untagged,
   ipv6Untagged,
   ipv4Tagged,
   ipv6Tagged,
   labelCount
};

// Classic BPF jumps are forward offsets of at most 255 instructions; writing them as labels
// keeps the program readable and the offsets right when it changes.
class FilterBuilder {
 public:
   void place(Label label) { at_[label] = code_.size(); }
   void stmt(uint16_t code, uint32_t k) { code_.push_back(BPF_STMT(code, k)); }
   void jump(uint16_t code, uint32_t k, Label ifTrue, Label ifFalse) {
      fixups_.push_back({code_.size(), ifTrue, ifFalse});
      code_.push_back(BPF_JUMP(code, k, 0, 0));
   }
   std::vector<sock_filter> finish() {
      for (const Fixup& f : fixups_) {
         code_[f.at].jt = offset(f.at, f.ifTrue);
         code_[f.at].jf = offset(f.at, f.ifFalse);
      }
      return std::move(code_);
   }

 private:
   struct Fixup {
      size_t at;
      Label ifTrue;
      Label ifFalse;
   };

   uint8_t offset(size_t from, Label label) const {
      if (label == next)
         return 0;
      const size_t to = at_[label];
      PLATFORM_ASSERT(to > from && to - from - 1 <= 255, "capture filter jump out of range");
      return static_cast<uint8_t>(to - from - 1);
   }

   std::vector<sock_filter> code_;
   std::vector<Fixup> fixups_;
   size_t at_[labelCount] = {};
};

// Accepts the frame when the 16-bit word loaded by `load` at `k` (source port), or the one
// after it (destination port), is one of two ports.
void emitPortPair(FilterBuilder& b, uint16_t load, uint32_t k, uint16_t portA, uint16_t portB) {
   for (uint32_t off : {k, k + 2}) {
      b.stmt(load, off);
      b.jump(BPF_JMP | BPF_JEQ | BPF_K, portA, accept, next);
      b.jump(BPF_JMP | BPF_JEQ | BPF_K, portB, accept, off == k ? next : reject);
   }
}

// IPv4 header at `l3`: UDP, first fragment (a later one carries no UDP header), port 67 or
// 68 at either end. The header's length comes from its IHL, so options are allowed.
void emitIpv4(FilterBuilder& b, uint32_t l3) {
   b.stmt(BPF_LD | BPF_B | BPF_ABS, l3 + 9);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kIpProtoUdp, next, reject);
   b.stmt(BPF_LD | BPF_H | BPF_ABS, l3 + 6);
   b.jump(BPF_JMP | BPF_JSET | BPF_K, 0x1fff, reject, next);
   b.stmt(BPF_LDX | BPF_B | BPF_MSH, l3);
   emitPortPair(b, BPF_LD | BPF_H | BPF_IND, l3, 67, 68);
}

// IPv6 header at `l3` directly followed by UDP, port 546 or 547 at either end. DHCPv6
// messages carry no extension headers.
void emitIpv6(FilterBuilder& b, uint32_t l3) {
   b.stmt(BPF_LD | BPF_B | BPF_ABS, l3 + 6);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kIpProtoUdp, next, reject);
   emitPortPair(b, BPF_LD | BPF_H | BPF_ABS, l3 + 40, 546, 547);
}

// The filter sees the frame as the socket will: a tag the kernel took off into the
// packet's metadata is not in the data, so such a frame looks untagged here. A tag still in
// the data moves the IP header 4 bytes on.
std::vector<sock_filter> dhcpCaptureFilter() {
   FilterBuilder b;
   b.stmt(BPF_LD | BPF_H | BPF_ABS, kEthTypeOffset);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kEthTypeVlan, tagged, next);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kEthTypeIpv4, ipv4Untagged, next);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kEthTypeIpv6, ipv6Untagged, reject);
   b.place(tagged);
   b.stmt(BPF_LD | BPF_H | BPF_ABS, kEthTypeOffset + 4);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kEthTypeIpv4, ipv4Tagged, next);
   b.jump(BPF_JMP | BPF_JEQ | BPF_K, kEthTypeIpv6, ipv6Tagged, reject);
   b.place(ipv4Untagged);
   emitIpv4(b, kUntaggedL3);
   b.place(ipv6Untagged);
   emitIpv6(b, kUntaggedL3);
   b.place(ipv4Tagged);
   emitIpv4(b, kTaggedL3);
   b.place(ipv6Tagged);
   emitIpv6(b, kTaggedL3);
   b.place(accept);
   // The whole frame: the kernel caps the snapshot at the frame's length.
   b.stmt(BPF_RET | BPF_K, 0x40000);
   b.place(reject);
   b.stmt(BPF_RET | BPF_K, 0);
   return b.finish();
}

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
   frame.moveRange(0, 4, kEthTypeOffset);
   frame.shrinkHead(4);
   return static_cast<uint16_t>(*tci & kVlanIdMask);
}

LinuxEthDevPam::LinuxEthDevPam(EventLoop& loop, std::string device, std::string netNs)
    : EthDevPam(std::move(device), std::move(netNs)), loop_(loop) {}

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

   std::vector<sock_filter> program = dhcpCaptureFilter();
   const sock_fprog fprog{static_cast<unsigned short>(program.size()), program.data()};
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
