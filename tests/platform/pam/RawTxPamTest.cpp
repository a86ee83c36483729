#include "platform/pam/RawTxPam.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pam/LinuxRawTxPam.h"
#include "platform/pam/RawTxTestPam.h"
#include "tests/support/PacketTestNet.h"

namespace Platform {
namespace {

using PacketTest::Bytes;

// Any frame will do: the socket sends it as it is. Ethertype 0x88b5 is for local
// experiments, so no stack reacts to it.
Bytes frame(uint8_t marker) {
   Bytes b{0x02, 0, 0, 0, 0, 0x0b, 0x02, 0, 0, 0, 0, 0x0a, 0x88, 0xb5};
   for (int i = 0; i < 46; ++i)
      b.push_back(static_cast<uint8_t>(marker + i));
   return b;
}

class ActiveLog : public RawTxPam::Reactor {
 public:
   explicit ActiveLog(const Ptr<RawTxPam>& pam) { notifierIs(pam); }
   void handleActive() override { log.push_back(notifier()->active()); }
   std::vector<bool> log;
};

using RawTxPamTest = PacketTest::VethTest;

TEST_F(RawTxPamTest, SendsOnTheNamedDeviceOfItsNamespaceOnly) {
   auto pam = make<LinuxRawTxPam>("rawTx");
   ActiveLog active(pam);
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

}  // namespace
}  // namespace Platform
