#include "platform/pam/ReadableQueue.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/packet/Pkt.h"

namespace Platform {
namespace {

using Queue = ReadableQueue<Ptr<Pkt>, 4>;

Ptr<Pkt> pktOf(uint8_t marker) {
   return Pkt::copyOf(std::vector<uint8_t>{marker});
}

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
}

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
   EXPECT_TRUE(extra);  // a refused item stays with the caller
   EXPECT_EQ(q.room(), 0u);
}

TEST(ReadableQueueTest, ClearingFromAHandlerEndsTheAnnouncements) {
   Queue q;
   for (uint8_t i = 1; i <= 3; ++i)
      ASSERT_TRUE(q.push(pktOf(i)));
   int calls = 0;
   q.announce([&] {
      ++calls;
      q.pop();
      q.clear();
   });
   EXPECT_EQ(calls, 1);
   EXPECT_EQ(q.size(), 0u);
   ASSERT_TRUE(q.push(pktOf(4)));
   q.announce([&] {
      ++calls;
      q.pop();
   });
   EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace Platform
