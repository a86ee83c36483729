#include "platform/pam/EthDevPam.h"

#include <utility>

#include "platform/packet/EthHeader.h"
#include "platform/trace/Trace.h"

namespace Platform {

namespace {

// The shortest frame a device takes: both MAC addresses and the ethertype.

}  // namespace

EthDevPam::EthDevPam(std::string device, std::string netNs)
    : ReadablePam(device), device_(std::move(device)), netNs_(std::move(netNs)) {}

std::string EthDevPam::traceName() const {
   return device_ + " in namespace \"" + netNs_ + "\"";
}

bool EthDevPam::doQueueRx(EthFrame&& frame) {
   if (rxQueueRoom() == 0) {
      rxDroppedInc();
      TRACE(5, device_, " receive queue full, dropped ", frame.frame->bytes(), " bytes");
      return false;
   }
   TRACE(8, device_, " captured ", frame.frame->bytes(), " bytes, vlan ",
         frame.vlanId ? int{*frame.vlanId} : -1);
   doPushRx(std::move(frame));
   ++rxFrames_;
   return true;
}

bool EthDevPam::send(const Pkt& frame) {
   const char* refusal = nullptr;
   if (!active())
      refusal = "device not open";
   else if (frame.bytes() < kEthHeaderBytes)
      refusal = "shorter than an Ethernet header";
   if (refusal) {
      TRACE(5, device_, " cannot send ", frame.bytes(), " bytes: ", refusal);
      return doCountTx(SendResult::failed);
   }
   if (!doCountTx(doSend(frame)))
      return false;
   TRACE(8, device_, " sent ", frame.bytes(), " bytes");
   return true;
}

}  // namespace Platform
