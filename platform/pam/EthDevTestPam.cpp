#include "platform/pam/EthDevTestPam.h"

namespace Platform {

bool EthDevTestPam::rxFrameInject(std::span<const uint8_t> frame, std::optional<uint16_t> vlanId) {
   if (!active())
      return false;
   if (!doQueueRx(EthFrame{Pkt::copyOf(frame), vlanId, ifindex_}))
      return false;
   doAnnounceRx();
   return true;
}

bool EthDevTestPam::doOpen(std::string& error) {
   error = openError_;
   return openError_.empty();
}

EthDevPam::SendResult EthDevTestPam::doSend(const Pkt& frame) {
   sent_.emplace_back(frame.span().begin(), frame.span().end());
   return SendResult::sent;
}

}  // namespace Platform
