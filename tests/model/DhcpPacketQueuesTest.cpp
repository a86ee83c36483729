#include "model/DhcpPacketQueues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::Pkt;
using Platform::Ptr;
using Meta = SnoopingToRelayQueueMetadata;

DhcpPacketInfo packetInfo(size_t bytes = 300) {
   return DhcpPacketInfo{
       Pkt::create(bytes), IntfId("Ethernet1"), true, static_cast<uint32_t>(bytes), {}};
}

class DhcpPacketQueuesTest : public ::testing::Test {
 protected:
   Ptr<DhcpPacketQueues> queues = Platform::make<DhcpPacketQueues>("DhcpPacketQueues");
};

// Attaching offers what is already queued through the whole-queue handlers; an entry
// enqueued later is announced by its index.
TEST_F(DhcpPacketQueuesTest, EachQueueNotifiesOnlyItsOwnHandlers) {
   // An announced entry is already in the queue.
   struct HandlerLog : DhcpPacketQueues::Reactor {
      void handleSnoopingToRelayPacket(uint32_t i) override {
         calls.push_back("s2r " + std::to_string(i) +
                         (!notifier()->snoopingToRelayQueue(i) ? "?" : ""));
      }
      void handleRelayToSnoopingPacket(uint32_t i) override {
         calls.push_back("r2s " + std::to_string(i) +
                         (!notifier()->relayToSnoopingQueue(i) ? "?" : ""));
      }
      void handleSnoopingToRelayPacket() override { calls.push_back("s2r all"); }
      void handleRelayToSnoopingPacket() override { calls.push_back("r2s all"); }
      std::vector<std::string> calls;
   } log;
   log.notifierIs(queues);
   queues->snoopingToRelayQueueEnq(packetInfo());
   queues->relayToSnoopingQueueEnq(packetInfo());
   queues->relayToSnoopingQueueEnq(packetInfo());
   // Dequeues and single deletions are the consumer's own doing: no notification.
   queues->snoopingToRelayQueueDeq();
   queues->relayToSnoopingQueueDel(0);
   queues->relayToSnoopingQueueDelAll();
   queues->relayToSnoopingQueueDelAll();  // already empty: no change
   queues->snoopingToRelayQueueMetadataIs({5, 7});
   queues->snoopingToRelayQueueMetadataIs({5, 7});
   EXPECT_EQ(log.calls, (std::vector<std::string>{"s2r all", "r2s all", "s2r 0", "r2s 0", "r2s 1",
                                                  "r2s all", "s2r all"}));
   EXPECT_TRUE(queues->relayToSnoopingQueue().empty());
}

TEST_F(DhcpPacketQueuesTest, IndicesGrowAndHeadFollowsTheOldestEntry) {
   // Missing entries give empty records.
   EXPECT_TRUE(!queues->snoopingToRelayQueueDeq());
   EXPECT_TRUE(!queues->relayToSnoopingQueueDeq());
   EXPECT_TRUE(!queues->snoopingToRelayQueue(0));
   queues->snoopingToRelayQueueDel(42);
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{0, 0}));
   DhcpPacketInfo info = packetInfo();
   for (uint32_t i = 0; i < 3; ++i)
      EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), i);
   EXPECT_EQ(info.packet->refCount(), 4u);
   queues->snoopingToRelayQueueDeq();
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{1, 3}));
   queues->snoopingToRelayQueueDel(2);
   queues->snoopingToRelayQueueDeq();
   // Emptied: head moves to the index the next entry will get; indices do not restart.
   // Removed entries released their packets.
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{3, 3}));
   EXPECT_EQ(info.packet->refCount(), 1u);
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), 3u);

   // A restored `next` ahead of the tail is honoured; one behind it is not.
   queues->snoopingToRelayQueueMetadataIs({3, 10});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), 10u);
   queues->snoopingToRelayQueueMetadataIs({3, 2});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), 11u);

   queues->snoopingToRelayQueueDelAll();
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{12, 12}));
   EXPECT_EQ(info.packet->refCount(), 1u);
   // The other queue keeps its own indices.
   EXPECT_EQ(queues->relayToSnoopingQueueEnq(info), 0u);

   // An exhausted index space is fatal, also when only the tail exhausts it, whatever `next`
   // was restored to.
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   constexpr uint32_t last = std::numeric_limits<uint32_t>::max() - 1;
   queues->snoopingToRelayQueueMetadataIs({last, last});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), last);
   EXPECT_DEATH(queues->snoopingToRelayQueueEnq(info), "linkqueue index space full");
   queues->snoopingToRelayQueueMetadataIs({last, 0});
   EXPECT_DEATH(queues->snoopingToRelayQueueEnq(info), "linkqueue index space full");
}

TEST_F(DhcpPacketQueuesTest, OrderAndLookupSurviveRingWrapAndGrowth) {
   PacketLinkQueue q;
   std::vector<DhcpPacketInfo> sent;
   uint32_t head = 0;
   // Keep a backlog that wraps the ring several times, then grows it while wrapped.
   for (int round = 0; round < 40; ++round) {
      for (int i = 0; i < 3; ++i) {
         sent.push_back(packetInfo());
         q.enq(sent.back());
      }
      for (int i = 0; i < 2; ++i)
         EXPECT_EQ(q.deq(), sent[head++]);
   }
   // Deleting from the middle leaves a gap that lookups must step over.
   const uint32_t gap = head + 5;
   EXPECT_TRUE(q.del(gap));
   EXPECT_FALSE(q.del(gap));
   EXPECT_TRUE(!q.entry(gap));
   std::vector<uint32_t> order;
   q.forEach([&](uint32_t index, const DhcpPacketInfo& info) {
      order.push_back(index);
      EXPECT_EQ(info, sent[index]);
      EXPECT_EQ(q.entry(index), sent[index]);
   });
   ASSERT_EQ(order.size(), q.size());
   EXPECT_EQ(q.size(), sent.size() - head - 1);
   EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
   EXPECT_EQ(order.front(), head);
}

// Queued entries are told apart by the packet they hold, not by its bytes.
TEST(DhcpPacketInfoTest, EqualityIsPacketIdentityPlusFields) {
   const DhcpPacketInfo a = packetInfo();
   DhcpPacketInfo other = a;
   EXPECT_EQ(a, other);
   other.srcIp6Addr = *Platform::Ip6Addr::parse("fe80::1");
   EXPECT_NE(a, other);
   other = a;
   other.packet = Pkt::copyOf(a.packet->span());
   EXPECT_NE(a, other);
   EXPECT_TRUE(!DhcpPacketInfo{} && !!a);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
