#include "platform/pam/UdpTestPam.h"

#include <cerrno>
#include <cstring>

#include "platform/trace/Trace.h"

namespace Platform {

bool UdpTestPam::inject(UdpDatagram datagram) {
   if (!active() || !datagram.pkt)
      return false;
   if (datagram.pkt->bytes() > maxRxPayload()) {
      rxTruncatedInc();
      TRACE(5, name(), " dropped an injected datagram longer than ", maxRxPayload(), " bytes");
      return false;
   }
   if (!doQueueRx(std::move(datagram)))
      return false;
   doAnnounceRx();
   return true;
}

UdpPam::SendResult UdpTestPam::doSend(const Pkt& payload) {
   if (sendFails_)
      return SendResult::failed;
   const auto bytes = payload.span();
   sent_.push_back(Sent{
       {bytes.begin(), bytes.end()}, txSrcAddr(), txDstAddr(), txPort(), txTos(), txIfindex()});
   return SendResult::sent;
}

bool UdpTestPam::doMcastGroup(uint32_t ifindex, const Ip6Addr& group, bool join,
                              std::string& error) {
   const auto key = std::make_pair(ifindex, group);
   // The kernel's answers to a second join and to leaving a group never joined.
   if (join ? mcastGroups_.count(key) != 0 : mcastGroups_.count(key) == 0) {
      error = join ? "IPV6_JOIN_GROUP: " + std::string(std::strerror(EADDRINUSE))
                   : "IPV6_LEAVE_GROUP: " + std::string(std::strerror(EADDRNOTAVAIL));
      return false;
   }
   if (join)
      mcastGroups_.insert(key);
   else
      mcastGroups_.erase(key);
   mcastChanges_.push_back(McastChange{ifindex, group, join});
   return true;
}

}  // namespace Platform
