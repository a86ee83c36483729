#include "model/DhcpPacketQueues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::Pkt;
using Platform::Ptr;
using Platform::TraceCapture;

DhcpPacketInfo packetInfo(const char* intf, size_t bytes = 300) {
   return DhcpPacketInfo{Pkt::create(bytes), IntfId(intf), true, static_cast<uint32_t>(bytes), {}};
}

// Behaves as every consumer of the snooping-to-relay queue must: a per-entry
// notification only tells it that something may be queued; it always takes the
// head, so packets are handled in arrival order whichever notification comes.
class TestConsumer : public DhcpPacketQueues::Reactor {
 public:
   explicit TestConsumer(Ptr<DhcpPacketQueues> queues) : queues_(std::move(queues)) {}

   void attach() { notifierIs(queues_); }
   void initialize() {
      initialized_ = true;
      handleSnoopingToRelayPacket();
   }

   void handleSnoopingToRelayPacket(uint32_t index) override {
      TRACE(8, " for key ", index);
      if (!queues_->snoopingToRelayQueue(index)) {
         TRACE(8, "Packet was dequeued from SnoopingToRelay queue, ignoring notification");
         return;
      }
      TRACE(8, "Packet was enqueued to SnoopingToRelay queue");
      processed.push_back(queues_->snoopingToRelayQueueDeq());
   }
   void handleSnoopingToRelayPacket() override {
      if (!initialized_)
         return;
      for (DhcpPacketInfo info = queues_->snoopingToRelayQueueDeq(); !!info;
           info = queues_->snoopingToRelayQueueDeq()) {
         processed.push_back(info);
      }
   }

   std::vector<DhcpPacketInfo> processed;

 private:
   Ptr<DhcpPacketQueues> queues_;
   bool initialized_ = false;
};

// Records which handler ran, to check that each queue is wired to its own handlers.
class HandlerLog : public DhcpPacketQueues::Reactor {
 public:
   void handleSnoopingToRelayPacket(uint32_t index) override {
      calls.push_back("s2r " + std::to_string(index));
   }
   void handleRelayToSnoopingPacket(uint32_t index) override {
      calls.push_back("r2s " + std::to_string(index));
   }
   void handleSnoopingToRelayPacket() override { calls.push_back("s2r all"); }
   void handleRelayToSnoopingPacket() override { calls.push_back("r2s all"); }

   std::vector<std::string> calls;
};

class DhcpPacketQueuesTest : public ::testing::Test {
 protected:
   Ptr<DhcpPacketQueues> queues = Platform::make<DhcpPacketQueues>("DhcpPacketQueues");
   TraceCapture trace;
};

TEST_F(DhcpPacketQueuesTest, PacketsQueuedBeforeTheConsumerAreProcessedOldestFirst) {
   const DhcpPacketInfo first = packetInfo("Ethernet1");
   const DhcpPacketInfo second = packetInfo("Ethernet2");
   for (bool attachFirst : {true, false}) {
      queues->snoopingToRelayQueueEnq(first);
      queues->snoopingToRelayQueueEnq(second);
      TestConsumer consumer(queues);
      if (attachFirst) {
         // Attached but not initialized: the whole-queue handler must leave the queue alone.
         consumer.attach();
         EXPECT_EQ(queues->snoopingToRelayQueue().size(), 2u);
         consumer.initialize();
      } else {
         // Initialized first: attaching drains.
         consumer.initialize();
         consumer.attach();
      }
      EXPECT_EQ(consumer.processed, (std::vector<DhcpPacketInfo>{first, second})) << attachFirst;
      EXPECT_TRUE(queues->snoopingToRelayQueue().empty());
   }
}

TEST_F(DhcpPacketQueuesTest, PerEntryNotificationTakesTheHeadNotTheNotifiedIndex) {
   const DhcpPacketInfo older = packetInfo("Ethernet1");
   const uint32_t olderIndex = queues->snoopingToRelayQueueEnq(older);
   TestConsumer consumer(queues);
   consumer.attach();

   const DhcpPacketInfo newer = packetInfo("Ethernet2");
   const uint32_t newerIndex = queues->snoopingToRelayQueueEnq(newer);
   EXPECT_TRUE(trace.contains("handleSnoopingToRelayPacket(uint32_t) for key " +
                              std::to_string(newerIndex)));
   EXPECT_TRUE(trace.contains("Packet was enqueued to SnoopingToRelay queue"));
   ASSERT_EQ(consumer.processed.size(), 1u);
   EXPECT_EQ(consumer.processed[0], older);
   // The notified entry stays queued for the next notification or drain.
   EXPECT_FALSE(!queues->snoopingToRelayQueue(newerIndex));
   EXPECT_TRUE(!queues->snoopingToRelayQueue(olderIndex));

   consumer.initialize();
   ASSERT_EQ(consumer.processed.size(), 2u);
   EXPECT_EQ(consumer.processed[1], newer);
}

TEST_F(DhcpPacketQueuesTest, NotificationForAnAlreadyDrainedIndexIsIgnored) {
   // A reactor attached first drains the queue inside the enqueue, so the consumer's
   // notification names an index that is gone by the time it runs.
   struct Drainer : DhcpPacketQueues::Reactor {
      Ptr<DhcpPacketQueues> queues;
      void handleSnoopingToRelayPacket(uint32_t) override {
         while (!!queues->snoopingToRelayQueueDeq()) {
         }
      }
      using DhcpPacketQueues::Reactor::handleSnoopingToRelayPacket;
   } drainer;
   drainer.queues = queues;
   drainer.notifierIs(queues);
   TestConsumer consumer(queues);
   consumer.initialize();
   consumer.attach();

   const uint32_t index = queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1"));
   EXPECT_TRUE(trace.contains(" for key " + std::to_string(index)));
   EXPECT_TRUE(
       trace.contains("Packet was dequeued from SnoopingToRelay queue, ignoring notification"));
   EXPECT_FALSE(trace.contains("Packet was enqueued to SnoopingToRelay queue"));
   EXPECT_TRUE(consumer.processed.empty());
}

TEST_F(DhcpPacketQueuesTest, EachQueueNotifiesOnlyItsOwnHandlers) {
   HandlerLog log;
   log.notifierIs(queues);
   EXPECT_EQ(log.calls, (std::vector<std::string>{"s2r all", "r2s all"}));
   log.calls.clear();

   queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1"));
   queues->relayToSnoopingQueueEnq(packetInfo("Ethernet2"));
   queues->relayToSnoopingQueueEnq(packetInfo("Ethernet3"));
   // Dequeues and single deletions are the consumer's own doing: no notification.
   queues->snoopingToRelayQueueDeq();
   queues->relayToSnoopingQueueDel(0);
   EXPECT_EQ(log.calls, (std::vector<std::string>{"s2r 0", "r2s 0", "r2s 1"}));
   log.calls.clear();

   queues->relayToSnoopingQueueDelAll();
   queues->relayToSnoopingQueueDelAll();  // already empty: no change
   queues->snoopingToRelayQueueMetadataIs({5, 7});
   queues->snoopingToRelayQueueMetadataIs({5, 7});
   EXPECT_EQ(log.calls, (std::vector<std::string>{"r2s all", "s2r all"}));
   EXPECT_TRUE(queues->relayToSnoopingQueue().empty());
}

TEST_F(DhcpPacketQueuesTest, IndicesGrowAndHeadFollowsTheOldestEntry) {
   // Missing entries give empty records.
   EXPECT_TRUE(!queues->snoopingToRelayQueueDeq());
   EXPECT_TRUE(!queues->relayToSnoopingQueueDeq());
   EXPECT_TRUE(!queues->snoopingToRelayQueue(0));
   queues->snoopingToRelayQueueDel(42);
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (SnoopingToRelayQueueMetadata{0, 0}));
   for (uint32_t i = 0; i < 3; ++i) {
      EXPECT_EQ(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")), i);
   }
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (SnoopingToRelayQueueMetadata{0, 3}));
   queues->snoopingToRelayQueueDeq();
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata().head, 1u);
   queues->snoopingToRelayQueueDel(2);
   queues->snoopingToRelayQueueDeq();
   // Emptied: head moves to the index the next entry will get; indices do not restart.
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (SnoopingToRelayQueueMetadata{3, 3}));
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")), 3u);

   // A restored `next` ahead of the tail is honoured; one behind it is not.
   queues->snoopingToRelayQueueMetadataIs({3, 10});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")), 10u);
   queues->snoopingToRelayQueueMetadataIs({3, 2});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")), 11u);
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata().next, 12u);

   queues->snoopingToRelayQueueDelAll();
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (SnoopingToRelayQueueMetadata{12, 12}));
   // The other queue keeps its own indices.
   EXPECT_EQ(queues->relayToSnoopingQueueEnq(packetInfo("Ethernet1")), 0u);
}

TEST_F(DhcpPacketQueuesTest, OrderAndLookupSurviveRingWrapAndGrowth) {
   PacketLinkQueue q;
   std::vector<DhcpPacketInfo> sent;
   uint32_t expectedHead = 0;
   // Keep a backlog that wraps the ring several times, then grows it while wrapped.
   for (int round = 0; round < 40; ++round) {
      for (int i = 0; i < 3; ++i) {
         sent.push_back(packetInfo("Ethernet1", 100 + sent.size()));
         q.enq(sent.back());
      }
      for (int i = 0; i < 2; ++i) {
         EXPECT_EQ(q.deq(), sent[expectedHead]);
         ++expectedHead;
      }
   }
   ASSERT_EQ(q.size(), sent.size() - expectedHead);
   for (uint32_t index = expectedHead; index < sent.size(); ++index) {
      EXPECT_EQ(q.entry(index), sent[index]) << index;
   }

   // Deleting from the middle leaves a gap that lookups must step over.
   const uint32_t gap = expectedHead + 5;
   EXPECT_TRUE(q.del(gap));
   EXPECT_FALSE(q.del(gap));
   EXPECT_TRUE(!q.entry(gap));
   EXPECT_EQ(q.entry(gap + 1), sent[gap + 1]);
   EXPECT_EQ(q.entry(gap - 1), sent[gap - 1]);
   std::vector<uint32_t> order;
   q.forEach([&](uint32_t index, const DhcpPacketInfo& info) {
      order.push_back(index);
      EXPECT_EQ(info, sent[index]);
   });
   ASSERT_EQ(order.size(), q.size());
   EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
   EXPECT_EQ(order.front(), expectedHead);
}

TEST_F(DhcpPacketQueuesTest, RemovedEntriesReleaseTheirPackets) {
   DhcpPacketInfo info = packetInfo("Ethernet1");
   const Pkt* pkt = info.packet.get();
   for (int i = 0; i < 3; ++i)
      queues->snoopingToRelayQueueEnq(info);
   EXPECT_EQ(pkt->refCount(), 4u);
   queues->snoopingToRelayQueueDeq();
   queues->snoopingToRelayQueueDel(2);
   EXPECT_EQ(pkt->refCount(), 2u);
   queues->snoopingToRelayQueueDelAll();
   EXPECT_EQ(pkt->refCount(), 1u);
}

TEST_F(DhcpPacketQueuesTest, ExhaustedIndexSpaceIsFatal) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   constexpr uint32_t last = std::numeric_limits<uint32_t>::max() - 1;
   queues->snoopingToRelayQueueMetadataIs({last, last});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")), last);
   EXPECT_DEATH(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")),
                "linkqueue index space full");
   // The tail alone can exhaust the space too, whatever `next` was restored to.
   queues->snoopingToRelayQueueMetadataIs({last, 0});
   EXPECT_DEATH(queues->snoopingToRelayQueueEnq(packetInfo("Ethernet1")),
                "linkqueue index space full");
}

TEST(DhcpPacketInfoTest, EqualityIsPacketIdentityPlusFields) {
   const DhcpPacketInfo a = packetInfo("Ethernet1");
   DhcpPacketInfo same = a;
   EXPECT_EQ(a, same);
   DhcpPacketInfo otherPacket = a;
   otherPacket.packet = Pkt::copyOf(a.packet->span());
   EXPECT_NE(a, otherPacket);
   same.srcIp6Addr = *Ip6Addr::parse("fe80::1");
   EXPECT_NE(a, same);
   EXPECT_TRUE(!DhcpPacketInfo{});
   EXPECT_FALSE(!a);
}

TEST(DhcpPacketInfoTest, PrintedForm) {
   DhcpPacketInfo info = packetInfo("Ethernet1/2", 300);
   info.srcIp6Addr = *Ip6Addr::parse("fe80::1");
   EXPECT_EQ(
       info.toString(),
       "Value('Ip::Helper::DhcpRelay::DhcpPacketInfo', ** {'packet': " + info.packet->toString() +
           ", 'intfId': Ethernet1/2, 'fromSnooping': True, 'rcvdDhcpLen': 300, "
           "'srcIp6Addr': fe80::1})");
   EXPECT_NE(DhcpPacketInfo{}.toString().find("'packet': None"), std::string::npos);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
