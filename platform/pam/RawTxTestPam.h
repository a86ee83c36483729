#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/pam/RawTxPam.h"

namespace Platform {

// RawTxPam without a kernel: records every frame sent, byte for byte, with its device.
class RawTxTestPam final : public RawTxPam {
 public:
   struct Sent {
      uint32_t ifindex;
      std::vector<uint8_t> bytes;
   };

   explicit RawTxTestPam(std::string name = "rawTx") : RawTxPam(std::move(name)) {}

   const std::vector<Sent>& sent() const { return sent_; }
   void sentDelAll() { sent_.clear(); }
   // Opens fail with this error from now on; empty: they succeed.
   void openErrorIs(std::string v) { openError_ = std::move(v); }

 private:
   bool doOpen(std::string& error) override;
   void doClose() override {}
   SendResult doSend(uint32_t ifindex, const Pkt& frame) override;

   std::vector<Sent> sent_;
   std::string openError_;
};

}  // namespace Platform
