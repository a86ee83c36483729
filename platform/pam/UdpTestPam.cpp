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
   // As the socket does: what the announcement sends with a `done` leaves afterwards. A
   // handler may release this object; the reference keeps it until the batch is out.
   Ptr<UdpTestPam> self(this);
   doOpenTxBatch();
   doAnnounceRx();
   doCloseTxBatch();
   return true;
}

UdpPam::SendResult UdpTestPam::doSend(const UdpTx& tx) {
   if (sendFails_)
      return SendResult::failed;
   const auto bytes = tx.payload->span();
   sent_.push_back(
       Sent{{bytes.begin(), bytes.end()}, tx.src, tx.dst, tx.port, txTos(), tx.ifindex});
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
