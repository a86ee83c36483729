#include "codec/DhcpHdr.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/codec/DhcpMessages.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Codec::Test::Bytes;
using Platform::Pkt;

TEST(DhcpHdrTest, ExistsOnlyWithTheWholeFixedHeader) {
   struct Case {
      size_t bytes;
      size_t dhcpOffset;
      bool exists;
   };
   const Case cases[] = {
       {236, 0, true},   {235, 0, false},   {0, 0, false},   {278, 42, true},
       {277, 42, false}, {236, 237, false}, {300, 64, true},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::create(c.bytes);
      EXPECT_EQ(DhcpHdr::of(*pkt, c.dhcpOffset).has_value(), c.exists)
          << c.bytes << " bytes at offset " << c.dhcpOffset;
   }
}

// Every byte of the header holds its own offset, so a field read from the wrong place
// or in the wrong byte order shows up as a different number.
TEST(DhcpHdrTest, FieldsAreReadFromTheirOffsetsInNetworkOrder) {
   Bytes frame(42 + 236);
   for (size_t i = 0; i < 236; ++i)
      frame[42 + i] = static_cast<uint8_t>(i);
   auto pkt = Pkt::copyOf(frame);
   const auto hdr = DhcpHdr::of(*pkt, 42);
   ASSERT_TRUE(hdr);
   EXPECT_EQ(hdr->bootpOp(), 0);
   EXPECT_EQ(hdr->hops(), 3);
   EXPECT_EQ(hdr->xid(), 0x04050607u);
   EXPECT_EQ(hdr->flags(), 0x0a0b);
   EXPECT_EQ(hdr->ciaddr().toString(), "12.13.14.15");
   EXPECT_EQ(hdr->yiaddr().toString(), "16.17.18.19");
   EXPECT_EQ(hdr->giaddr().toString(), "24.25.26.27");
   EXPECT_EQ(hdr->chaddr().toString(), "1c:1d:1e:1f:20:21");
}

// Hops saturate instead of wrapping: a looping request must stay at the limit.
TEST(DhcpHdrTest, WritesTouchOnlyTheirFieldAndHopsSaturate) {
   const Bytes original = Codec::Test::dhcpMessage({255});
   auto pkt = Pkt::copyOf(original);
   auto hdr = DhcpHdr::of(*pkt);
   ASSERT_TRUE(hdr);
   hdr->giaddrIs(*Platform::IpAddr::parse("192.0.2.10"));
   hdr->hopsIs(7);
   Bytes expected = original;
   expected[3] = 7;
   const Bytes giaddr = {192, 0, 2, 10};
   std::copy(giaddr.begin(), giaddr.end(), expected.begin() + 24);
   EXPECT_EQ(Codec::Test::bytesOf(*pkt), expected);

   const uint8_t cases[][3] = {{0, 1, 1}, {254, 1, 255}, {255, 1, 255}, {200, 100, 255}, {3, 0, 3}};
   for (const auto& [start, inc, result] : cases) {
      hdr->hopsIs(start);
      hdr->hopsInc(inc);
      EXPECT_EQ(hdr->hops(), result) << int(start) << " + " << int(inc);
   }
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
