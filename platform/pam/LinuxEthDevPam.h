#pragma once

#include <linux/filter.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/loop/WatchedFd.h"
#include "platform/packet/PktPool.h"
#include "platform/pam/EthDevPam.h"

namespace Platform {

class EventLoop;

// EthDevPam on an AF_PACKET socket bound to the device inside its namespace. The classic
// BPF program its creator hands it (Codec::dhcpCaptureFilter: the platform knows no layer
// above Ethernet) runs in the kernel and keeps out every frame the agent does not want, so
// it wakes up only for those; the kernel reports a VLAN tag it took off the frame in
// PACKET_AUXDATA. Frames are read in batches into pooled buffers, so capturing
// allocates nothing once the pool has grown to its working size.
class LinuxEthDevPam final : public EthDevPam {
 public:
   // Longest frame captured whole; a longer one is counted in rxTruncated and dropped.
   static constexpr size_t kMaxRxFrame = 2048;

   LinuxEthDevPam(EventLoop& loop, std::string device, std::string netNs,
                  std::vector<sock_filter> filter);

   // The device's index while open, 0 otherwise.
   uint32_t ifindex() const { return ifindex_; }

 private:
   static constexpr size_t kRxBatch = 32;

   bool doOpen(std::string& error) override;
   void doClose() override;
   SendResult doSend(const Pkt& frame) override;
   void doResumeRx() override;

   void handleReadable();
   void doReadBatch();
   void doConsumeError();

   EventLoop& loop_;
   std::vector<sock_filter> filter_;
   WatchedFd socket_;
   uint32_t ifindex_ = 0;
   bool rxPaused_ = false;

   PktPool pool_;
   // Buffers of the next read; a slot is refilled from the pool once its frame is queued.
   std::array<Ptr<Pkt>, kRxBatch> rxPkts_;
   std::array<mmsghdr, kRxBatch> rxMsgs_{};
   std::array<iovec, kRxBatch> rxIovs_{};
   std::array<sockaddr_ll, kRxBatch> rxAddrs_{};
   struct alignas(cmsghdr) RxControl {
      uint8_t bytes[CMSG_SPACE(sizeof(tpacket_auxdata))];
   };
   std::array<RxControl, kRxBatch> rxControls_{};
};

// The VLAN id of a captured frame, leaving the frame without that tag. `kernelTci` is the
// tag the kernel already took off (PACKET_AUXDATA); without one, an 802.1Q tag still in the
// frame data is the frame's tag and is cut out. Empty for an untagged frame.
std::optional<uint16_t> ethFrameVlanTake(Pkt& frame, std::optional<uint16_t> kernelTci);

}  // namespace Platform
