#pragma once

#include <string>
#include <utility>

#include "platform/linux/Fd.h"
#include "platform/pam/RawTxPam.h"

namespace Platform {

// RawTxPam on an AF_PACKET socket of the namespace that is never bound: each send names
// its device, and with no protocol the socket receives nothing, so it needs no reading.
class LinuxRawTxPam final : public RawTxPam {
 public:
   explicit LinuxRawTxPam(std::string name) : RawTxPam(std::move(name)) {}

 private:
   bool doOpen(std::string& error) override;
   void doClose() override;
   SendResult doSend(uint32_t ifindex, const Pkt& frame) override;

   Fd fd_;
};

}  // namespace Platform
