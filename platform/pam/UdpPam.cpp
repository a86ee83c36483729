#include "platform/pam/UdpPam.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/linux/NetNs.h"
#include "platform/trace/Trace.h"

namespace Platform {

namespace {

const char* familyName(bool ipv6) {
   return ipv6 ? "IPv6" : "IPv4";
}

bool familyMismatch(const IpGenAddr& a, bool ipv6) {
   return !a.isEmpty() && a.isV6() != ipv6;
}

}  // namespace

void UdpPam::rxAddrIs(const IpGenAddr& v) {
   if (rxAddr_ == v)
      return;
   rxAddr_ = v;
   doApplySettings();
}

void UdpPam::rxPortIs(uint16_t v) {
   if (rxPort_ == v)
      return;
   rxPort_ = v;
   doApplySettings();
}

void UdpPam::ipv6Is(bool v) {
   if (ipv6_ == v)
      return;
   ipv6_ = v;
   doApplySettings();
}

void UdpPam::netNsIs(const std::string& v) {
   if (netNs_ == v)
      return;
   // "" and "default" name the same namespace: no reason to reopen.
   const bool same = isOwnNetNs(netNs_) && isOwnNetNs(v);
   netNs_ = v;
   if (!same)
      doApplySettings();
}

void UdpPam::txTosIs(uint8_t v) {
   if (txTos_ == v)
      return;
   txTos_ = v;
   if (active())
      doApplyTos();
}

void UdpPam::doApplySettings() {
   if (active())
      TRACE(3, name(), " reopens for new settings");
   doReopen();
}

bool UdpPam::doCheckOpen(std::string& error) const {
   if (!familyMismatch(rxAddr_, ipv6_))
      return true;
   error = "receive address " + rxAddr_.toString() + " is not " + familyName(ipv6_);
   return false;
}

std::string UdpPam::tracePlace() const {
   return " on " + rxAddr_.toString() + ":" + std::to_string(rxPort_) + " in namespace \"" +
          netNs_ + "\"";
}

// Datagrams received and sent are not traced one by one here: the relay traces each with
// what it means, and the ring keeps every level, so a line here would cost every packet twice.
bool UdpPam::doQueueRx(UdpDatagram&& datagram) {
   if (!doPushRx(std::move(datagram))) {
      rxDroppedInc();
      TRACE(5, name(), " receive queue full, dropped a datagram");
      return false;
   }
   ++rxDatagrams_;
   return true;
}

bool UdpPam::send(const Pkt& payload, SendDone* done, uint32_t cookie) {
   const char* refusal = nullptr;
   if (!active())
      refusal = "socket not open";
   else if (txDstAddr_.isEmpty() || familyMismatch(txDstAddr_, ipv6_))
      refusal = "no destination of the socket's family";
   else if (familyMismatch(txSrcAddr_, ipv6_))
      refusal = "source address not of the socket's family";
   if (refusal) {
      TRACE(5, name(), " cannot send to ", txDstAddr_, ":", txPort_, ": ", refusal);
      doCountTx(SendResult::failed);
      if (done)
         done->handleSendDone(cookie, false);
      return false;
   }
   UdpTx tx{&payload, txDstAddr_, txPort_, txSrcAddr_, txIfindex_};
   if (done && txBatchOpen_ && txQueued_ < kTxBatch) {
      QueuedTx& queued = queued_[txQueued_];
      queued.copy = txPool_.take(payload.bytes());
      std::copy(payload.data(), payload.data() + payload.bytes(), queued.copy->data());
      queued.done = done;
      queued.cookie = cookie;
      tx.payload = queued.copy.get();
      txs_[txQueued_++] = tx;
      return true;
   }
   const bool sent = doCountTx(doSend(tx));
   if (done)
      done->handleSendDone(cookie, sent);
   return sent;
}

void UdpPam::doSendBatch(const UdpTx* txs, SendResult* results, size_t count) {
   for (size_t i = 0; i < count; ++i)
      results[i] = doSend(txs[i]);
}

void UdpPam::doCloseTxBatch() {
   txBatchOpen_ = false;
   const size_t count = txQueued_;
   if (count == 0)
      return;
   doSendBatch(txs_.data(), results_.data(), count);
   // What the outcomes set off sends at once: the queue is free for the next batch.
   txQueued_ = 0;
   for (size_t i = 0; i < count; ++i) {
      QueuedTx& queued = queued_[i];
      const bool sent = doCountTx(results_[i]);
      queued.done->handleSendDone(queued.cookie, sent);
      queued.copy.reset();
   }
}

bool UdpPam::mcastGroupIs(uint32_t ifindex, const Ip6Addr& group, bool join, std::string& error) {
   if (!active() || !ipv6_)
      error = "no open IPv6 socket";
   else if (!group.isMulticast())
      error = group.toString() + " is not a multicast group";
   else if (doMcastGroup(ifindex, group, join, error))
      return true;
   TRACE(1, name(), join ? " cannot join " : " cannot leave ", group, " on ifindex ", ifindex, ": ",
         error);
   return false;
}

}  // namespace Platform
