#include "platform/pam/EthDevPam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "codec/CaptureFilter.h"
#include "platform/pam/EthDevTestPam.h"
#include "platform/pam/LinuxEthDevPam.h"
#include "platform/pam/LinuxRawTxPam.h"
#include "platform/pam/RawTxTestPam.h"
#include "platform/pam/ReadableQueue.h"
#include "tests/support/PacketTestNet.h"
#include "tests/support/TestFrames.h"

namespace Platform {
namespace {

using namespace TestFrames;

Bytes bytesOf(const Pkt& pkt) {
   return {pkt.span().begin(), pkt.span().end()};
}

struct Captured {
   Bytes frame;
   std::optional<uint16_t> vlanId;
   uint32_t ifindex;
   bool operator==(const Captured&) const = default;
};

// A consumer that takes one frame per announcement, or (take = false) none.
class Taker : public EthDevPam::Reactor {
 public:
   explicit Taker(const Ptr<EthDevPam>& pam) : pam_(pam) { notifierIs(pam); }

   void handleReadableCount() override {
      ++announcements;
      if (!take)
         return;
      if (auto f = pam_->rxFrame())
         frames.push_back({bytesOf(*f->frame), f->vlanId, f->ifindex});
   }

   bool holds(const Bytes& frame) const {
      return std::ranges::any_of(frames, [&](const Captured& c) { return c.frame == frame; });
   }

   bool take = true;
   int announcements = 0;
   std::vector<Captured> frames;

 private:
   Ptr<EthDevPam> pam_;
};

class EthDevPamTest : public PacketTest::VethTest {
 protected:
   void SetUp() override {
      VethTest::SetUp();
      if (IsSkipped() || HasFatalFailure())
         return;
      pam_ = make<LinuxEthDevPam>(loop_, "a0", nsA_, Codec::dhcpCaptureFilter());
      pam_->modeIs(EthDevPam::modeOpen);
      ASSERT_TRUE(pam_->active()) << pam_->error();
      peer_ = std::make_unique<PacketTest::PeerSocket>(loop_, nsB_, "b0");
      ASSERT_TRUE(peer_->ok());
   }

   Ptr<LinuxEthDevPam> pam_;
   std::unique_ptr<PacketTest::PeerSocket> peer_;
};

TEST_F(EthDevPamTest, CapturesOnlyDhcpAndDhcpv6FramesWithTheirVlan) {
   Taker taker(pam_);
   const Bytes request = ipv4(kUdp, 68, 67, 1);
   const Bytes solicit = ipv6(kUdp, 546, 547, 2);
   // An empty `captured` is a frame the filter keeps out.
   struct Case {
      Bytes sent;
      Bytes captured;
      std::optional<uint16_t> vlanId;
   };
   const std::vector<Case> cases = {
       {eth(kIpv4) + request, eth(kIpv4) + request, {}},
       // A server's reply, with IP options moving the UDP header.
       {eth(kIpv4) + ipv4(kUdp, 67, 68, 3, 2), eth(kIpv4) + ipv4(kUdp, 67, 68, 3, 2), {}},
       {eth(kIpv4) + ipv4(kUdp, 1024, 53, 4), {}, {}},
       {eth(0x0806) + ipv4(kUdp, 68, 67, 5), {}, {}},
       {eth(kIpv4) + ipv4(6, 68, 67, 6), {}, {}},
       // A later fragment has no UDP header, whatever its bytes look like.
       {eth(kIpv4) + ipv4(kUdp, 68, 67, 7, 0, 0x0010), {}, {}},
       // VLAN 10 with priority bits; the kernel takes the tag off before the filter.
       {eth(kIpv4, {0x8100600a}) + request, eth(kIpv4) + request, 10},
       // A priority tag is a tag with VLAN id 0.
       {eth(kIpv4, {0x8100a000}) + request, eth(kIpv4) + request, 0},
       {eth(kIpv6) + solicit, eth(kIpv6) + solicit, {}},
       {eth(kIpv6) + ipv6(kUdp, 547, 546, 8), eth(kIpv6) + ipv6(kUdp, 547, 546, 8), {}},
       {eth(kIpv6) + ipv6(kUdp, 5353, 53, 9), {}, {}},
       {eth(kIpv6) + ipv6(58, 546, 547, 10), {}, {}},
       // Stacked tags: the kernel takes the outer one, so the filter finds the inner one in
       // the data, and the frame keeps it.
       {eth(kIpv4, {0x88a80064, 0x8100000a}) + request, eth(kIpv4, {0x8100000a}) + request, 100},
       {eth(kIpv6, {0x88a80064, 0x8100000a}) + solicit, eth(kIpv6, {0x8100000a}) + solicit, 100},
       {eth(kIpv4, {0x88a80064, 0x8100000a}) + ipv4(kUdp, 1024, 53, 11), {}, {}},
   };
   std::vector<Captured> expected;
   for (const Case& c : cases) {
      ASSERT_TRUE(peer_->send(c.sent));
      if (!c.captured.empty())
         expected.push_back({c.captured, c.vlanId, ifindexA_});
   }
   // Frames cross the pair in order: once the last one is in, every earlier one has been
   // captured or filtered out.
   const Bytes last = eth(kIpv4) + ipv4(kUdp, 68, 67, 99);
   ASSERT_TRUE(peer_->send(last));
   expected.push_back({last, {}, ifindexA_});
   ASSERT_TRUE(turnUntil([&] { return taker.holds(last); }));
   EXPECT_EQ(taker.frames, expected);
   EXPECT_EQ(pam_->readableCount(), expected.size());
   EXPECT_EQ(pam_->rxFrames(), expected.size());
}

TEST_F(EthDevPamTest, SendsOnTheDeviceAndCapturesNothingTheHostSends) {
   Taker taker(pam_);
   const Bytes reply = eth(kIpv4, {0x8100000a}) + ipv4(kUdp, 67, 68, 1);
   ASSERT_TRUE(pam_->send(*Pkt::copyOf(reply)));
   // Another sender of the same host (the relay's UDP or raw socket).
   PacketTest::PeerSocket local(loop_, nsA_, "a0");
   ASSERT_TRUE(local.ok());
   ASSERT_TRUE(local.send(eth(kIpv4) + ipv4(kUdp, 67, 68, 3)));
   const Bytes last = eth(kIpv4) + ipv4(kUdp, 68, 67, 2);
   ASSERT_TRUE(peer_->send(last));
   ASSERT_TRUE(turnUntil([&] { return taker.holds(last); }));
   EXPECT_EQ(taker.frames.size(), 1u);
   // The far end sees the frame with its tag taken off by its own kernel.
   EXPECT_TRUE(turnUntil([&] { return peer_->received(eth(kIpv4) + ipv4(kUdp, 67, 68, 1)); }));
   EXPECT_EQ(pam_->txFrames(), 1u);

   EXPECT_FALSE(pam_->send(*Pkt::copyOf(Bytes(13, 0xff))));
   pam_->modeIs(EthDevPam::modeClosed);
   EXPECT_FALSE(pam_->active());
   EXPECT_FALSE(pam_->send(*Pkt::copyOf(reply)));
   EXPECT_EQ(pam_->txFailed(), 2u);
}

TEST_F(EthDevPamTest, LeavesFramesWithTheKernelWhileTheQueueIsFull) {
   Taker idle(pam_);
   idle.take = false;
   constexpr uint32_t kSent = EthDevPam::kRxQueueCapacity + 6;
   for (uint32_t i = 0; i < kSent; ++i)
      ASSERT_TRUE(peer_->send(eth(kIpv4) + ipv4(kUdp, 68, 67, i)));
   ASSERT_TRUE(turnUntil([&] { return pam_->rxFrames() == EthDevPam::kRxQueueCapacity; }));
   for (int i = 0; i < 5; ++i)
      loop_.runOnce(0);
   EXPECT_EQ(pam_->rxFrames(), EthDevPam::kRxQueueCapacity);
   // A handler that takes nothing stops the announcements of its wake-up.
   EXPECT_LT(idle.announcements, static_cast<int>(EthDevPam::kRxQueueCapacity));

   uint32_t next = 0;
   auto takeAll = [&] {
      while (auto f = pam_->rxFrame())
         EXPECT_EQ(bytesOf(*f->frame), eth(kIpv4) + ipv4(kUdp, 68, 67, next++));
   };
   takeAll();
   ASSERT_TRUE(turnUntil([&] { return pam_->rxFrames() == kSent; }));
   takeAll();
   EXPECT_EQ(next, kSent);
   EXPECT_EQ(pam_->rxDropped(), 0u);
}

// Opening in a missing namespace fails closed as every socket does (ResourceTest).
TEST_F(EthDevPamTest, ADeviceThatAppearsLaterOpensOnRetry) {
   auto later = make<LinuxEthDevPam>(loop_, "c0", nsA_, Codec::dhcpCaptureFilter());
   later->modeIs(EthDevPam::modeOpen);
   EXPECT_FALSE(later->active());
   EXPECT_NE(later->error().find("c0"), std::string::npos) << later->error();
   ASSERT_EQ(PacketTest::ip("-n " + nsA_ + " link add c0 type veth peer name c1"), 0);
   later->modeIs(EthDevPam::modeOpen);
   EXPECT_TRUE(later->active()) << later->error();
   EXPECT_TRUE(later->error().empty());
   EXPECT_EQ(later->ifindex(), PacketTest::ifindexOf(nsA_, "c0"));
   later->modeIs(EthDevPam::modeClosed);
   EXPECT_EQ(later->ifindex(), 0u);
}

TEST(EthFrameVlanTakeTest, CutsOnlyATagTheKernelLeftInTheFrame) {
   const Bytes request = ipv4(kUdp, 68, 67, 1);

   auto inData = Pkt::copyOf(eth(kIpv4, {0x8100e00a}) + request);
   EXPECT_EQ(ethFrameVlanTake(*inData, std::nullopt), 10);
   EXPECT_EQ(bytesOf(*inData), eth(kIpv4) + request);

   // With the kernel's tag, a tag still in the data is an inner one and stays.
   const Bytes stacked = eth(kIpv4, {0x8100000a}) + request;
   auto kernel = Pkt::copyOf(stacked);
   EXPECT_EQ(ethFrameVlanTake(*kernel, 0x2064), 100);
   EXPECT_EQ(bytesOf(*kernel), stacked);

   // Untagged, and a tag with no ethertype after it.
   for (const Bytes& untouched : {eth(kIpv4) + request, eth(0x8100) + Bytes{0, 10}}) {
      auto pkt = Pkt::copyOf(untouched);
      EXPECT_EQ(ethFrameVlanTake(*pkt, std::nullopt), std::nullopt);
      EXPECT_EQ(bytesOf(*pkt), untouched);
   }
}

// Only the double reaches these parts of every EthDevPam: the kernel part stops reading while
// the queue is full, and a closed socket fails its sends in the kernel anyway. The double's own
// recording is for the tests that use it.
TEST(EthDevTestPamTest, AFullQueueDropsAndAClosedDeviceForgetsAndRefuses) {
   auto pam = make<EthDevTestPam>("eth1", "vrf1", 7);
   pam->modeIs(EthDevPam::modeOpen);
   const Bytes frame = eth(kIpv6) + ipv6(kUdp, 546, 547, 2);
   for (size_t i = 0; i < EthDevPam::kRxQueueCapacity; ++i)
      ASSERT_TRUE(pam->rxFrameInject(frame));
   EXPECT_FALSE(pam->rxFrameInject(frame));
   EXPECT_EQ(pam->rxDropped(), 1u);
   EXPECT_EQ(pam->readableCount(), EthDevPam::kRxQueueCapacity);
   EXPECT_TRUE(pam->rxFrame());
   EXPECT_TRUE(pam->rxFrameInject(frame));

   pam->modeIs(EthDevPam::modeClosed);
   EXPECT_FALSE(pam->rxFrame());
   EXPECT_FALSE(pam->rxFrameInject(frame));
   EXPECT_FALSE(pam->send(*Pkt::copyOf(frame)));
   EXPECT_TRUE(pam->sent().empty());
}

// Any frame will do: the socket sends it as it is. Ethertype 0x88b5 is for local
// experiments, so no stack reacts to it.
Bytes frame(uint8_t marker) {
   return eth(0x88b5) + Bytes(46, marker);
}

using RawTxPamTest = PacketTest::VethTest;

TEST_F(RawTxPamTest, SendsOnTheNamedDeviceOfItsNamespaceOnly) {
   auto pam = make<LinuxRawTxPam>("rawTx");
   struct ActiveLog : RawTxPam::Reactor {
      void handleActive() override { log.push_back(notifier()->active()); }
      std::vector<bool> log;
   } active;
   active.notifierIs(pam);
   pam->ethProtocolIs(0x88b5);
   pam->netNsIs(nsA_);
   pam->modeIs(RawTxPam::modeOpen);
   ASSERT_TRUE(pam->active()) << pam->error();
   // The frame leaves as it is.
   PacketTest::PeerSocket peerB(loop_, nsB_, "b0");
   ASSERT_TRUE(peerB.ok());
   EXPECT_TRUE(pam->send(ifindexA_, *Pkt::copyOf(frame(1))));
   EXPECT_TRUE(turnUntil([&] { return peerB.received(frame(1)); }));
   EXPECT_EQ(pam->txFrames(), 1u);
   // No such device in the namespace; no frame shorter than its header.
   const uint64_t failed = pam->txFailed();
   EXPECT_FALSE(pam->send(ifindexA_ + 1000, *Pkt::copyOf(frame(2))));
   EXPECT_FALSE(pam->send(ifindexA_, *Pkt::copyOf(Bytes(13, 0xff))));
   EXPECT_EQ(pam->txFailed(), failed + 2);

   // Moving namespace reopens it there: b0's index is only meaningful in B.
   pam->netNsIs(nsB_);
   ASSERT_TRUE(pam->active()) << pam->error();
   EXPECT_EQ(active.log, (std::vector<bool>{true, false, true}));
   PacketTest::PeerSocket peerA(loop_, nsA_, "a0");
   ASSERT_TRUE(peerA.ok());
   EXPECT_TRUE(pam->send(PacketTest::ifindexOf(nsB_, "b0"), *Pkt::copyOf(frame(3))));
   EXPECT_TRUE(turnUntil([&] { return peerA.received(frame(3)); }));

   pam->modeIs(RawTxPam::modeClosed);
   EXPECT_FALSE(pam->send(ifindexA_, *Pkt::copyOf(frame(4))));
   EXPECT_EQ(active.log.back(), false);
}

// What the double records is what the relay's reply tests read; here, that it refuses what
// the kernel would, so that they cannot pass on a send the kernel would refuse.
TEST(RawTxTestPamTest, RefusesASendWithoutDeviceOrOpenSocket) {
   auto pam = make<RawTxTestPam>();
   pam->modeIs(RawTxPam::modeOpen);
   EXPECT_FALSE(pam->send(0, *Pkt::copyOf(frame(1))));
   pam->modeIs(RawTxPam::modeClosed);
   EXPECT_FALSE(pam->send(3, *Pkt::copyOf(frame(2))));
   EXPECT_TRUE(pam->sent().empty());
   EXPECT_EQ(pam->txFailed(), 2u);
}

using Queue = ReadableQueue<Ptr<Pkt>, 4>;

Ptr<Pkt> pktOf(uint8_t marker) {
   return Pkt::copyOf(Bytes{marker});
}

// A handler that takes nothing ends a wake-up's announcements, and so does one that
// clears the queue.
TEST(ReadableQueueTest, AnnouncesEachItemOnceUntilAHandlerTakesNothing) {
   Queue q;
   for (uint8_t i = 1; i <= 3; ++i)
      ASSERT_TRUE(q.push(pktOf(i)));
   std::vector<uint8_t> taken;
   int calls = 0;
   bool take = false;
   auto announceOne = [&] {
      ++calls;
      if (take)
         taken.push_back(*(*q.pop())->at(0));
   };
   q.announce(announceOne);
   EXPECT_EQ(calls, 1);
   // The next wake-up goes on with the items not yet announced.
   take = true;
   q.announce(announceOne);
   EXPECT_EQ(calls, 3);
   EXPECT_EQ(taken, (std::vector<uint8_t>{1, 2}));
   q.announce(announceOne);
   EXPECT_EQ(calls, 3);
   // Announced or not, pop hands out the oldest.
   EXPECT_EQ(*(*q.pop())->at(0), 3);
   EXPECT_FALSE(q.pop());

   ASSERT_TRUE(q.push(pktOf(4)));
   q.announce(announceOne);
   EXPECT_EQ(calls, 4);

   for (uint8_t i = 5; i <= 7; ++i)
      ASSERT_TRUE(q.push(pktOf(i)));
   q.announce([&] {
      ++calls;
      q.pop();
      q.clear();
   });
   EXPECT_EQ(calls, 5);
   EXPECT_EQ(q.size(), 0u);
   ASSERT_TRUE(q.push(pktOf(8)));
   q.announce(announceOne);
   EXPECT_EQ(calls, 6);
}

// A refused item stays with the caller.
TEST(ReadableQueueTest, KeepsNoReferenceToWhatLeftIt) {
   Queue q;
   Ptr<Pkt> a = pktOf(1);
   Ptr<Pkt> b = pktOf(2);
   ASSERT_TRUE(q.push(Ptr<Pkt>(a)));
   ASSERT_TRUE(q.push(Ptr<Pkt>(b)));
   EXPECT_EQ(a->refCount(), 2u);
   EXPECT_TRUE(q.pop());
   EXPECT_EQ(a->refCount(), 1u);
   q.clear();
   EXPECT_EQ(b->refCount(), 1u);

   for (uint8_t i = 0; i < Queue::kCapacity; ++i)
      ASSERT_TRUE(q.push(pktOf(i)));
   Ptr<Pkt> extra = pktOf(9);
   EXPECT_FALSE(q.push(std::move(extra)));
   EXPECT_TRUE(extra);
   EXPECT_EQ(q.room(), 0u);
}

}  // namespace
}  // namespace Platform
