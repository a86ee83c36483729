#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/pam/EthDevPam.h"

namespace Platform {

// EthDevPam without a kernel: tests inject captured frames and read back, byte for byte,
// every frame sent.
class EthDevTestPam final : public EthDevPam {
 public:
   explicit EthDevTestPam(std::string device, std::string netNs = {}, uint32_t ifindex = 1)
       : EthDevPam(std::move(device), std::move(netNs)), ifindex_(ifindex) {}

   // Queues and announces a frame as if the device had captured it (`frame` without the
   // tag, `vlanId` the tag's VLAN id). False when the device is not open, which captures
   // nothing, or when the receive queue is full (counted in rxDropped).
   bool rxFrameInject(std::span<const uint8_t> frame, std::optional<uint16_t> vlanId = {});

   const std::vector<std::vector<uint8_t>>& sent() const { return sent_; }
   void sentDelAll() { sent_.clear(); }
   // Opens fail with this error from now on; empty: they succeed.
   void openErrorIs(std::string v) { openError_ = std::move(v); }

 private:
   bool doOpen(std::string& error) override;
   void doClose() override {}
   SendResult doSend(const Pkt& frame) override;

   const uint32_t ifindex_;
   std::vector<std::vector<uint8_t>> sent_;
   std::string openError_;
};

}  // namespace Platform
