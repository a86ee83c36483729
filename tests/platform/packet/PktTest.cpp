#include "platform/packet/Pkt.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Platform {
namespace {

constexpr size_t kHuge = std::numeric_limits<size_t>::max();

// A packet holding 1..n, so every byte's position is visible after an edit.
Ptr<Pkt> numbered(size_t n, size_t headroom, size_t tailroom) {
   std::vector<uint8_t> bytes(n);
   for (size_t i = 0; i < n; ++i)
      bytes[i] = static_cast<uint8_t>(i + 1);
   return Pkt::copyOf(bytes, headroom, tailroom);
}

// The room on both sides and the data as one value: comparing it before and after a
// refused edit shows that nothing at all changed.
std::string layout(const Pkt& pkt) {
   std::string s =
       "head=" + std::to_string(pkt.headroom()) + " tail=" + std::to_string(pkt.tailroom()) + " [";
   for (uint8_t b : pkt.span())
      s += " " + std::to_string(b);
   return s + " ]";
}

TEST(PktTest, CreateAndCopy) {
   auto pkt = Pkt::create(3, 2, 5);
   EXPECT_EQ(layout(*pkt), "head=2 tail=5 [ 0 0 0 ]");
   EXPECT_EQ(pkt->toString(), "Pkt(bytes=3)");
   EXPECT_EQ(layout(*Pkt::create(0)), "head=64 tail=512 [ ]");
   EXPECT_EQ(layout(*numbered(3, 0, 0)), "head=0 tail=0 [ 1 2 3 ]");
}

// A refused edit changes nothing; bytes taken back come zeroed, not as the header or
// trailer that was dropped.
TEST(PktTest, HeadAndTailEditsStopExactlyAtTheBufferEnds) {
   auto pkt = numbered(4, 2, 2);
   ASSERT_TRUE(pkt->shrinkHead(2));
   ASSERT_TRUE(pkt->shrinkTail(1));
   EXPECT_EQ(layout(*pkt), "head=4 tail=3 [ 3 ]");
   EXPECT_FALSE(pkt->growHead(5));
   EXPECT_FALSE(pkt->growTail(4));
   EXPECT_FALSE(pkt->growTail(kHuge));
   EXPECT_FALSE(pkt->shrinkHead(2));
   EXPECT_FALSE(pkt->shrinkHead(kHuge));
   EXPECT_FALSE(pkt->shrinkTail(2));
   EXPECT_EQ(layout(*pkt), "head=4 tail=3 [ 3 ]");

   ASSERT_TRUE(pkt->growHead(4));
   ASSERT_TRUE(pkt->growTail(3));
   EXPECT_EQ(layout(*pkt), "head=0 tail=0 [ 0 0 0 0 3 0 0 0 ]");
   EXPECT_FALSE(pkt->growHead(1));
   EXPECT_FALSE(pkt->growTail(1));
   ASSERT_TRUE(pkt->shrinkTail(8));
   EXPECT_EQ(layout(*pkt), "head=0 tail=8 [ ]");
   ASSERT_TRUE(pkt->growTail(2));
   ASSERT_TRUE(pkt->shrinkHead(2));
   EXPECT_EQ(layout(*pkt), "head=2 tail=6 [ ]");
}

TEST(PktTest, MoveRangeOpensAndClosesGaps) {
   auto pkt = numbered(6, 1, 2);
   ASSERT_TRUE(pkt->growTail(2));
   ASSERT_TRUE(pkt->moveRange(2, 4, 4));  // overlapping, destination later
   EXPECT_EQ(layout(*pkt), "head=1 tail=0 [ 1 2 3 4 3 4 5 6 ]");
   ASSERT_TRUE(pkt->moveRange(4, 2, 4));  // overlapping, destination earlier
   ASSERT_TRUE(pkt->shrinkTail(2));
   EXPECT_EQ(layout(*pkt), "head=1 tail=2 [ 1 2 3 4 5 6 ]");
   EXPECT_TRUE(pkt->moveRange(6, 6, 0));

   // The room around the data does not count: a move may not reach into it.
   EXPECT_FALSE(pkt->moveRange(0, 3, 4));
   EXPECT_FALSE(pkt->moveRange(3, 0, 4));
   EXPECT_FALSE(pkt->moveRange(7, 0, 0));
   EXPECT_FALSE(pkt->moveRange(0, 7, 0));
   EXPECT_FALSE(pkt->moveRange(1, 0, kHuge));
   EXPECT_FALSE(pkt->moveRange(kHuge, 0, 2));
   EXPECT_FALSE(pkt->moveRange(0, kHuge, 2));
   EXPECT_EQ(layout(*pkt), "head=1 tail=2 [ 1 2 3 4 5 6 ]");
}

TEST(PktTest, BoundedAccessStaysInsideTheData) {
   auto pkt = numbered(4, 4, 4);
   EXPECT_EQ(pkt->at(3), 4);
   EXPECT_EQ(pkt->at(4), std::nullopt);
   EXPECT_EQ(pkt->at(kHuge), std::nullopt);

   const std::vector<uint8_t> two{0xaa, 0xbb};
   EXPECT_TRUE(pkt->write(2, two));
   EXPECT_FALSE(pkt->write(3, two));
   EXPECT_FALSE(pkt->write(kHuge, two));
   EXPECT_TRUE(pkt->write(4, {}));
   EXPECT_EQ(layout(*pkt), "head=4 tail=4 [ 1 2 170 187 ]");

   const auto tail = pkt->sub(2, 2);
   EXPECT_EQ(std::vector<uint8_t>(tail.begin(), tail.end()), two);
   EXPECT_TRUE(pkt->sub(4, 0).empty());
   EXPECT_TRUE(pkt->sub(3, 2).empty());
   EXPECT_TRUE(pkt->sub(5, 0).empty());
   EXPECT_TRUE(pkt->sub(1, kHuge).empty());
}

TEST(PktTest, ReferencesShareOnePacketUntilTheLastIsReleased) {
   Ptr<Pkt> first = Pkt::create(4);
   {
      Ptr<Pkt> second = first;
      EXPECT_EQ(first->refCount(), 2u);
      ASSERT_TRUE(second->growTail(2));
      EXPECT_EQ(first->bytes(), 6u);
   }
   EXPECT_EQ(first->refCount(), 1u);
   // The sanitizer build reports a leak or a mismatched free here if the single-block
   // allocation is released wrongly.
   first.reset();
}

}  // namespace
}  // namespace Platform
