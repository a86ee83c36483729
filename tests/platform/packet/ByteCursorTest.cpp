#include "platform/packet/ByteCursor.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

namespace Platform {
namespace {

constexpr size_t kHuge = std::numeric_limits<size_t>::max();

std::vector<uint8_t> vec(std::span<const uint8_t> s) {
   return {s.begin(), s.end()};
}

// Reads are big-endian and stop exactly at the end; a read that does not fit consumes nothing.
TEST(ByteReaderTest, ReadsInNetworkOrderUpToTheExactEnd) {
   const std::array<uint8_t, 7> data{0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde};
   ByteReader r(data);
   EXPECT_EQ(r.bytes(8), std::nullopt);
   EXPECT_EQ(r.bytes(kHuge), std::nullopt);
   EXPECT_FALSE(r.skip(8));
   EXPECT_FALSE(r.skip(kHuge));
   EXPECT_EQ(r.sub(8), std::nullopt);
   EXPECT_EQ(r.read32(), 0x12345678u);
   EXPECT_EQ(r.read32(), std::nullopt);
   EXPECT_EQ(r.read16(), 0x9abc);
   EXPECT_EQ(r.read16(), std::nullopt);
   EXPECT_EQ(r.read8(), 0xde);
   EXPECT_EQ(r.offset(), 7u);
   EXPECT_EQ(r.remaining(), 0u);
   EXPECT_EQ(r.read8(), std::nullopt);
   const auto none = r.bytes(0);
   ASSERT_TRUE(none);
   EXPECT_TRUE(none->empty());
   EXPECT_EQ(ByteReader().read8(), std::nullopt);
}

TEST(ByteReaderTest, SubReaderIsConfinedAndAdvancesTheOuterOne) {
   // An option (code 1, length 2) followed by a byte the inner parse must not reach.
   const std::array<uint8_t, 5> data{1, 2, 0xaa, 0xbb, 0xcc};
   ByteReader r(data);
   ASSERT_TRUE(r.skip(1));
   auto inner = r.sub(r.read8().value());
   ASSERT_TRUE(inner);
   EXPECT_EQ(r.offset(), 4u);
   EXPECT_EQ(inner->remaining(), 2u);
   EXPECT_EQ(inner->read32(), std::nullopt);
   const auto value = inner->bytes(2);
   ASSERT_TRUE(value);
   EXPECT_EQ(vec(*value), (std::vector<uint8_t>{0xaa, 0xbb}));
   EXPECT_EQ(inner->read8(), std::nullopt);
   EXPECT_EQ(r.read8(), 0xcc);
   EXPECT_EQ(r.sub(1), std::nullopt);
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
