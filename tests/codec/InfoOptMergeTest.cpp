#include <gtest/gtest.h>

#include <string>

#include "codec/DhcpCodec.h"
#include "tests/codec/DhcpMessages.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Codec::Test::Bytes;
using Codec::Test::bytesOf;
using Codec::Test::concat;
using Codec::Test::dhcpMessage;
using Platform::IpAddr;
using Platform::Pkt;
using Platform::Ptr;

const Bytes kType = {53, 1, 1};
const Bytes kEnd = {255, 0, 0, 0};
// A first hop's option: circuit-id "sw", remote-id "r1".
const Bytes kSwitch = {82, 8, 1, 2, 's', 'w', 2, 2, 'r', '1'};
// The relay's sub-options for a copy to VRF "blue": link selection 10.0.0.0, override
// 10.0.0.1, VRF name (VSS type 0).
const Bytes kOwn = {5, 4, 10, 0, 0, 0, 11, 4, 10, 0, 0, 1, 151, 5, 0, 'b', 'l', 'u', 'e'};

Ptr<Pkt> packet(const Bytes& options) {
   Ptr<Pkt> pkt = Pkt::copyOf(dhcpMessage(options));
   return pkt;
}

bool merge(Pkt& pkt) {
   return mergeInfoOpt(pkt, "blue", *IpAddr::parse("10.0.0.1"), *IpAddr::parse("10.0.0.0"), 0);
}

// The relay's sub-options go into the first hop's option (or a new one), replacing any the
// first hop wrote with their codes, and come out again leaving the first hop's as it was.
TEST(InfoOptMergeTest, MergeThenStrip) {
   struct Case {
      const char* name;
      Bytes before;  // options after the message type
      Bytes merged;
      Bytes stripped;
   };
   const Bytes ownOnly = concat({{82, static_cast<uint8_t>(kOwn.size())}, kOwn});
   const Bytes switchWithOwn = concat({{82, static_cast<uint8_t>(8 + kOwn.size())},
                                       Bytes(kSwitch.begin() + 2, kSwitch.end()),
                                       kOwn});
   const Case cases[] = {
       {"no option yet", {}, ownOnly, {}},
       {"a first hop's option", kSwitch, switchWithOwn, kSwitch},
       // The first hop's own link selection gives way to the relay's.
       {"a first hop's link selection",
        {82, 14, 1, 2, 's', 'w', 2, 2, 'r', '1', 5, 4, 192, 0, 2, 0},
        switchWithOwn,
        kSwitch},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      Ptr<Pkt> pkt = packet(concat({kType, c.before, kEnd}));
      ASSERT_TRUE(merge(*pkt));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(concat({kType, c.merged, kEnd})));
      ASSERT_TRUE(stripOwnInfoSubOptions(*pkt, 0));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(concat({kType, c.stripped, kEnd})));
   }
}

TEST(InfoOptMergeTest, RefusedEditsLeaveThePacketAsItWas) {
   const Bytes big = concat({{82, 250, 1, 248}, Bytes(248, 'x')});
   const Bytes cases[] = {
       concat({kType, big, kEnd}),                 // no room for the relay's 19 bytes
       concat({kType, kSwitch, kSwitch, kEnd}),    // two options 82
       concat({kType, {82, 3, 1, 5, 'x'}, kEnd}),  // sub-options that cannot be walked
   };
   for (const Bytes& options : cases) {
      Ptr<Pkt> pkt = packet(options);
      EXPECT_FALSE(merge(*pkt));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(options));
   }
   // Nothing to take out is no failure.
   Ptr<Pkt> plain = packet(concat({kType, kEnd}));
   EXPECT_TRUE(stripOwnInfoSubOptions(*plain, 0));
   EXPECT_EQ(bytesOf(*plain), dhcpMessage(concat({kType, kEnd})));
}

TEST(InfoOptMergeTest, LeaseTime) {
   EXPECT_EQ(getLeaseTime(*packet(concat({kType, {51, 4, 0, 0, 0x0e, 0x10}, kEnd}))), 3600u);
   EXPECT_FALSE(getLeaseTime(*packet(concat({kType, {51, 2, 0, 1}, kEnd}))));
   EXPECT_FALSE(getLeaseTime(*packet(concat({kType, kEnd}))));
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
