#include "platform/pam/RawTxTestPam.h"

namespace Platform {

bool RawTxTestPam::doOpen(std::string& error) {
   error = openError_;
   return openError_.empty();
}

RawTxPam::SendResult RawTxTestPam::doSend(uint32_t ifindex, const Pkt& frame) {
   sent_.push_back({ifindex, {frame.span().begin(), frame.span().end()}});
   return SendResult::sent;
}

}  // namespace Platform
