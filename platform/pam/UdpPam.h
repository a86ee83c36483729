#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/base/Ptr.h"
#include "platform/packet/Pkt.h"
#include "platform/packet/PktPool.h"
#include "platform/pam/Pam.h"

namespace Platform {

// One received datagram. `dst` is the destination address of the IP header (a limited
// broadcast shows as 255.255.255.255, a multicast as its group) and `ifindex` the device
// it arrived on, in the socket's namespace.
struct UdpDatagram {
   Ptr<Pkt> pkt;
   IpGenAddr src;
   uint16_t srcPort = 0;
   IpGenAddr dst;
   uint32_t ifindex = 0;
};

// One send as the kernel part sees it: the payload and where it goes, taken from the
// socket's settings when send() was called.
struct UdpTx {
   const Pkt* payload = nullptr;
   IpGenAddr dst;
   uint16_t port = 0;
   IpGenAddr src;
   uint32_t ifindex = 0;
};

// A UDP socket of the agent (packet access object), as a record: the owner writes the
// settings, opens it with modeIs(modeOpen), and its reactor hears of each received
// datagram. The kernel part lives in LinuxUdpPam, and UdpTestPam stands in for it in
// tests; what both share (settings, the receive queue and how it is announced, the checks
// before a send) lives here and in ReadablePam, so the double cannot drift from the real
// thing. Reception follows ReadablePam: the handler takes one datagram with rxPkt().
//
// Settings take effect when the socket opens. The bind address and port, the family and the
// namespace cannot change on an open socket, so changing one reopens it (reactors see
// active go false and true); the rest apply to the open socket as well. Multicast
// memberships belong to one open socket: a reopened socket has none, and its owner joins
// again when active turns true.
class UdpPam : public ReadablePam<UdpDatagram> {
 public:
   PLATFORM_ENTITY_TYPE("Platform::UdpPam")

   static constexpr size_t kDefaultMaxRxPayload = 1500;
   // IPv6 multicast sends leave with this hop limit (the DHCPv6 relay hop-count limit) and
   // never loop back to the sending host.
   static constexpr int kMulticastHops = 32;
   // Sends that may wait for one system call together.
   static constexpr size_t kTxBatch = 64;

   class Reactor : public ReactorOf<const UdpPam> {
    public:
      virtual void handleReadableCount() {}
      virtual void handleActive() {}
   };

   // Hears what became of a send made with it (see send()), by the caller's cookie.
   class SendDone {
    public:
      virtual void handleSendDone(uint32_t cookie, bool sent) = 0;

    protected:
      ~SendDone() = default;
   };

   ~UdpPam() override = default;

   // Empty: any address of the family (0.0.0.0 or ::).
   const IpGenAddr& rxAddr() const { return rxAddr_; }
   void rxAddrIs(const IpGenAddr& v);
   uint16_t rxPort() const { return rxPort_; }
   void rxPortIs(uint16_t v);
   // A longer datagram is dropped, counted in rxTruncated, never delivered cut short.
   size_t maxRxPayload() const { return maxRxPayload_; }
   void maxRxPayloadIs(size_t v) { maxRxPayload_ = v; }
   const IpGenAddr& txDstAddr() const { return txDstAddr_; }
   void txDstAddrIs(const IpGenAddr& v) { txDstAddr_ = v; }
   uint16_t txPort() const { return txPort_; }
   void txPortIs(uint16_t v) { txPort_ = v; }
   // Source address of each send, any of the namespace's own; empty: the kernel's choice.
   const IpGenAddr& txSrcAddr() const { return txSrcAddr_; }
   void txSrcAddrIs(const IpGenAddr& v) { txSrcAddr_ = v; }
   // Device a send leaves by; 0: the routing table's choice. A limited broadcast and an
   // IPv6 link-local or link-scope multicast destination need it to reach the right link.
   uint32_t txIfindex() const { return txIfindex_; }
   void txIfindexIs(uint32_t v) { txIfindex_ = v; }
   // IPv4 TOS byte or IPv6 traffic class of every send.
   uint8_t txTos() const { return txTos_; }
   void txTosIs(uint8_t v);
   bool ipv6() const { return ipv6_; }
   void ipv6Is(bool v);
   // "" or "default": the agent's own namespace.
   const std::string& netNs() const { return netNs_; }
   void netNsIs(const std::string& v);

   // The oldest received datagram; nullopt when none is queued.
   std::optional<UdpDatagram> rxPkt() { return doTakeRx(); }

   // Sends the payload to txDstAddr:txPort. Failures are returned, counted and traced: a
   // full socket buffer (EAGAIN, ENOBUFS) as a drop, anything else as a failure.
   //
   // With `done`, the caller hears the outcome through it instead, and the send may wait:
   // while the socket announces what it received, such sends are copied and queued (true is
   // returned), and leave together in one system call once the announcements are over,
   // each outcome reaching its `done` then. Otherwise (no batch open, or kTxBatch queued
   // already) the send happens now and `done` hears before send() returns. A send refused
   // before the kernel always reaches `done` at once.
   bool send(const Pkt& payload, SendDone* done = nullptr, uint32_t cookie = 0);

   // Joins or leaves an IPv6 group on one device; only an open IPv6 socket has memberships.
   bool mcastGroupIs(uint32_t ifindex, const Ip6Addr& group, bool join, std::string& error);

   uint64_t rxDatagrams() const { return rxDatagrams_; }
   uint64_t txDatagrams() const { return txSent(); }

 protected:
   explicit UdpPam(std::string name) : ReadablePam(std::move(name)) {}

   virtual void doApplyTos() {}
   virtual SendResult doSend(const UdpTx& tx) = 0;
   // Sends each of `count` datagrams in order and sets its result; the kernel part may
   // hand them over in one call.
   virtual void doSendBatch(const UdpTx* txs, SendResult* results, size_t count);
   virtual bool doMcastGroup(uint32_t ifindex, const Ip6Addr& group, bool join,
                             std::string& error) = 0;

   // Appends to the receive queue without announcing; false (counted, traced) when full.
   // A datagram without packet information is counted in rxDropped by the kernel part.
   bool doQueueRx(UdpDatagram&& datagram);

   // Brackets the announcement of received datagrams: sends with a `done` made in between
   // are queued and leave when the batch closes.
   void doOpenTxBatch() { txBatchOpen_ = true; }
   void doCloseTxBatch();

 private:
   bool doCheckOpen(std::string& error) const override;
   void doNotifyActive() const override { notify(&Reactor::handleActive); }
   void doNotifyReadable() const override { notify(&Reactor::handleReadableCount); }
   std::string tracePlace() const override;
   void doApplySettings();

   IpGenAddr rxAddr_;
   uint16_t rxPort_ = 0;
   size_t maxRxPayload_ = kDefaultMaxRxPayload;
   IpGenAddr txDstAddr_;
   uint16_t txPort_ = 0;
   IpGenAddr txSrcAddr_;
   uint32_t txIfindex_ = 0;
   uint8_t txTos_ = 0;
   bool ipv6_ = false;
   std::string netNs_;

   uint64_t rxDatagrams_ = 0;

   struct QueuedTx {
      Ptr<Pkt> copy;  // the caller's packet may change or go once send() returns
      SendDone* done = nullptr;
      uint32_t cookie = 0;
   };
   bool txBatchOpen_ = false;
   size_t txQueued_ = 0;
   std::array<UdpTx, kTxBatch> txs_;
   std::array<QueuedTx, kTxBatch> queued_;
   std::array<SendResult, kTxBatch> results_;
   PktPool txPool_{0, 0, kTxBatch};
};

}  // namespace Platform
