#include "platform/pam/RawTxPam.h"

#include "platform/linux/NetNs.h"
#include "platform/packet/EthHeader.h"
#include "platform/trace/Trace.h"

namespace Platform {

namespace {

// The shortest frame a device takes: both MAC addresses and the ethertype.

}  // namespace

void RawTxPam::netNsIs(const std::string& v) {
   if (netNs_ == v)
      return;
   // "" and "default" name the same namespace: no reason to reopen.
   const bool same = isOwnNetNs(netNs_) && isOwnNetNs(v);
   netNs_ = v;
   if (same)
      return;
   if (active())
      TRACE(3, name(), " reopens in namespace \"", netNs_, "\"");
   doReopen();
}

std::string RawTxPam::tracePlace() const {
   return " in namespace \"" + netNs_ + "\"";
}

bool RawTxPam::send(uint32_t ifindex, const Pkt& frame) {
   const char* refusal = nullptr;
   if (!active())
      refusal = "socket not open";
   else if (ifindex == 0)
      refusal = "no device";
   else if (frame.bytes() < kEthHeaderBytes)
      refusal = "shorter than an Ethernet header";
   if (refusal) {
      TRACE(5, name(), " cannot send ", frame.bytes(), " bytes on ifindex ", ifindex, ": ",
            refusal);
      return doCountTx(SendResult::failed);
   }
   if (!doCountTx(doSend(ifindex, frame)))
      return false;
   TRACE(8, name(), " sent ", frame.bytes(), " bytes on ifindex ", ifindex);
   return true;
}

}  // namespace Platform
