#include "platform/packet/Pkt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/packet/ByteCursor.h"
#include "platform/packet/PktPool.h"

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

std::vector<uint8_t> vec(std::span<const uint8_t> s) {
   return {s.begin(), s.end()};
}

// A refused edit changes nothing; bytes taken back come zeroed, not as the header or
// trailer that was dropped. References share one packet; the sanitizer build reports a
// leak or a mismatched free if the single-block allocation is released wrongly.
TEST(PktTest, HeadAndTailEditsStopExactlyAtTheBufferEnds) {
   EXPECT_EQ(layout(*Pkt::create(3, 2, 5)), "head=2 tail=5 [ 0 0 0 ]");
   EXPECT_EQ(layout(*Pkt::create(0)), "head=64 tail=512 [ ]");
   auto pkt = numbered(4, 2, 2);
   ASSERT_TRUE(pkt->shrinkHead(2));
   ASSERT_TRUE(pkt->shrinkTail(1));
   EXPECT_EQ(layout(*pkt), "head=4 tail=3 [ 3 ]");
   EXPECT_EQ((std::vector{pkt->growHead(5), pkt->growTail(4), pkt->growTail(kHuge),
                          pkt->shrinkHead(2), pkt->shrinkHead(kHuge), pkt->shrinkTail(2)}),
             std::vector<bool>(6, false));
   EXPECT_EQ(layout(*pkt), "head=4 tail=3 [ 3 ]");

   ASSERT_TRUE(pkt->growHead(4));
   ASSERT_TRUE(pkt->growTail(3));
   EXPECT_EQ(layout(*pkt), "head=0 tail=0 [ 0 0 0 0 3 0 0 0 ]");
   EXPECT_FALSE(pkt->growHead(1) || pkt->growTail(1));
   ASSERT_TRUE(pkt->shrinkTail(8));
   EXPECT_EQ(layout(*pkt), "head=0 tail=8 [ ]");
   {
      Ptr<Pkt> second = pkt;
      EXPECT_EQ(pkt->refCount(), 2u);
      ASSERT_TRUE(second->growTail(2));
   }
   EXPECT_EQ(pkt->refCount(), 1u);
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
   const std::tuple<size_t, size_t, size_t> beyond[] = {
       {0, 3, 4}, {3, 0, 4}, {7, 0, 0}, {0, 7, 0}, {1, 0, kHuge}, {kHuge, 0, 2}, {0, kHuge, 2}};
   for (const auto& [from, to, n] : beyond)
      EXPECT_FALSE(pkt->moveRange(from, to, n)) << from << " " << to << " " << n;
   EXPECT_EQ(layout(*pkt), "head=1 tail=2 [ 1 2 3 4 5 6 ]");
}

TEST(PktTest, BoundedAccessStaysInsideTheData) {
   auto pkt = numbered(4, 4, 4);
   EXPECT_EQ(std::vector({pkt->at(3), pkt->at(4), pkt->at(kHuge)}),
             (std::vector<std::optional<uint8_t>>{4, std::nullopt, std::nullopt}));

   const std::vector<uint8_t> two{0xaa, 0xbb};
   EXPECT_EQ((std::vector{pkt->write(2, two), pkt->write(3, two), pkt->write(kHuge, two),
                          pkt->write(4, {})}),
             (std::vector{true, false, false, true}));
   EXPECT_EQ(layout(*pkt), "head=4 tail=4 [ 1 2 170 187 ]");

   EXPECT_EQ(vec(pkt->sub(2, 2)), two);
   EXPECT_TRUE(pkt->sub(4, 0).empty() && pkt->sub(3, 2).empty() && pkt->sub(5, 0).empty() &&
               pkt->sub(1, kHuge).empty());
}

TEST(PktPoolTest, HandsOutAPacketAgainOnlyOnceThePoolHoldsItAlone) {
   PktPool pool(16, 32, 2);
   Ptr<Pkt> a = pool.take(100);
   ASSERT_TRUE(a->growHead(8) && a->growTail(20));
   std::fill(a->span().begin(), a->span().end(), 0x55);
   Ptr<Pkt> b = pool.take(100);
   EXPECT_NE(a.get(), b.get());

   // Released, the same block comes back laid out and zeroed as if new.
   Pkt* const first = a.get();
   a.reset();
   Ptr<Pkt> again = pool.take(60);
   EXPECT_EQ(again.get(), first);
   EXPECT_EQ(layout(*again), layout(*Pkt::create(60, 16, 32 + 40)));
   EXPECT_EQ(pool.created(), 2u);
   // A layout the buffer cannot hold is refused without change.
   EXPECT_FALSE(again->reset(120, 32));
   EXPECT_EQ(again->bytes(), 60u);

   // A free packet too small for the size asked is replaced; beyond the limit packets are
   // still handed out, just not kept.
   again.reset();
   Ptr<Pkt> big = pool.take(400);
   EXPECT_EQ(big->tailroom(), 32u);
   EXPECT_EQ(pool.created(), 3u);
   EXPECT_TRUE(pool.take(10));
   EXPECT_EQ(pool.size(), 2u);
   EXPECT_EQ(pool.created(), 4u);
}

// Reads are big-endian and stop exactly at the end; a read that does not fit consumes nothing.
TEST(ByteReaderTest, ReadsInNetworkOrderUpToTheExactEnd) {
   const std::array<uint8_t, 7> data{0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde};
   ByteReader r(data);
   EXPECT_FALSE(r.bytes(8) || r.bytes(kHuge) || r.skip(8) || r.skip(kHuge) || r.sub(8));
   EXPECT_EQ(r.read32(), 0x12345678u);
   EXPECT_EQ(r.read32(), std::nullopt);
   EXPECT_EQ(r.read16(), 0x9abc);
   EXPECT_EQ(r.read16(), std::nullopt);
   EXPECT_EQ(r.read8(), 0xde);
   EXPECT_EQ(r.offset(), 7u);
   EXPECT_EQ(r.remaining(), 0u);
   EXPECT_EQ(r.read8(), std::nullopt);
   EXPECT_TRUE(r.bytes(0).value().empty());
   EXPECT_EQ(ByteReader().read8(), std::nullopt);

   // An option (code 1, length 2) followed by a byte the inner parse must not reach.
   const std::array<uint8_t, 5> option{1, 2, 0xaa, 0xbb, 0xcc};
   ByteReader outer(option);
   ASSERT_TRUE(outer.skip(1));
   auto inner = outer.sub(outer.read8().value());
   ASSERT_TRUE(inner);
   EXPECT_EQ(outer.offset(), 4u);
   EXPECT_EQ(inner->remaining(), 2u);
   EXPECT_EQ(inner->read32(), std::nullopt);
   EXPECT_EQ(vec(inner->bytes(2).value()), (std::vector<uint8_t>{0xaa, 0xbb}));
   EXPECT_EQ(inner->read8(), std::nullopt);
   EXPECT_EQ(outer.read8(), 0xcc);
   EXPECT_EQ(outer.sub(1), std::nullopt);
}

// Writes are big-endian and stop exactly at the end; a write that does not fit writes nothing.
TEST(ByteWriterTest, WritesInNetworkOrderUpToTheExactEnd) {
   std::array<uint8_t, 9> out{};
   ByteWriter w(out);
   EXPECT_TRUE(w.write32(0x12345678));
   EXPECT_TRUE(w.write16(0x9abc));
   EXPECT_TRUE(w.write8(0xde));
   EXPECT_FALSE(w.write32(0xffffffff));
   EXPECT_FALSE(w.bytes(std::array<uint8_t, 3>{9, 9, 9}));
   EXPECT_EQ(w.offset(), 7u);
   EXPECT_EQ(vec(out), (std::vector<uint8_t>{0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0, 0}));
   EXPECT_TRUE(w.bytes(std::array<uint8_t, 2>{0xf0, 0x0d}));
   EXPECT_EQ(w.remaining(), 0u);
   EXPECT_FALSE(w.write8(0));
   EXPECT_TRUE(w.bytes({}));
   EXPECT_EQ(vec(w.written()), vec(out));
   EXPECT_EQ(out[8], 0x0d);
}

}  // namespace
}  // namespace Platform
