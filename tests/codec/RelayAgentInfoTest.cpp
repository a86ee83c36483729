#include <gtest/gtest.h>

#include <string>
#include <vector>

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

struct Values {
   std::string circuitId = "";
   std::string remoteId = "";
   std::string vrfName = "";
   std::string serverIdOverride = "0.0.0.0";
   std::string linkSelection = "0.0.0.0";
};

bool add(Pkt& pkt, const Values& v, size_t dhcpOffset = 0) {
   return preparePacket(pkt, bootRequest, true, v.circuitId, v.remoteId, v.vrfName,
                        *IpAddr::parse(v.serverIdOverride), *IpAddr::parse(v.linkSelection),
                        dhcpOffset);
}

bool strip(Pkt& pkt, size_t dhcpOffset = 0) {
   return preparePacket(pkt, bootReply, true, {}, {}, {}, {}, {}, dhcpOffset);
}

// parseInfoOpt's outputs as one line, or "refused".
std::string parsed(const Pkt& pkt) {
   std::string circuitId = "stale", remoteId = "stale", vrfName = "stale";
   IpAddr override(1), link(1);
   if (!parseInfoOpt(pkt, circuitId, remoteId, vrfName, override, link, 0))
      return "refused";
   return "circuit=" + circuitId + " remote=" + remoteId + " vrf=" + vrfName +
          " override=" + override.toString() + " link=" + link.toString();
}

const Bytes kClientOptions = {53, 1, 1, 55, 2, 1, 3};
const Bytes kEndAndPads = {255, 0, 0, 0};

// The expected option bytes are written out from the RFCs by hand: code, length, then
// the sub-options as (code, length, value) in ascending code order.
TEST(RelayAgentInfoTest, AddedOptionBytes) {
   struct Case {
      const char* name;
      Values values;
      Bytes option;
   };
   const Case cases[] = {
       {"every sub-option",
        {"Vlan10", "sw1", "blue", "10.1.2.1", "10.1.2.0"},
        {82,  32,                                // RFC 3046
         1,   6,  'V', 'l', 'a', 'n', '1', '0',  // circuit-id
         2,   3,  's', 'w', '1',                 // remote-id
         5,   4,  10,  1,   2,   0,              // RFC 3527 link selection
         11,  4,  10,  1,   2,   1,              // RFC 5107 server identifier override
         151, 5,  0,   'b', 'l', 'u', 'e'}},     // RFC 6607 VSS, type 0 NVT ASCII
       {"circuit-id alone", {"c"}, {82, 3, 1, 1, 'c'}},
       {"remote-id alone", {"", "r1"}, {82, 4, 2, 2, 'r', '1'}},
       {"link selection alone", {"", "", "", "0.0.0.0", "192.0.2.0"}, {82, 6, 5, 4, 192, 0, 2, 0}},
       {"cross-VRF without circuit-id",
        {"", "", "red", "192.0.2.1", "192.0.2.0"},
        {82, 18, 5, 4, 192, 0, 2, 0, 11, 4, 192, 0, 2, 1, 151, 4, 0, 'r', 'e', 'd'}},
       {"nothing set: no option", {}, {}},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(dhcpMessage(concat({kClientOptions, kEndAndPads})));
      ASSERT_TRUE(add(*pkt, c.values)) << c.name;
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(concat({kClientOptions, c.option, kEndAndPads})))
          << c.name;
   }
}

TEST(RelayAgentInfoTest, AddThenRemoveRestoresTheMessage) {
   const Values values{"Vlan10", "sw1", "blue", "10.1.2.1", "10.1.2.0"};
   struct Case {
      const char* name;
      Bytes msg;
      size_t dhcpOffset;
   };
   Bytes frame(42, 0xee);
   const Bytes inFrame = concat({frame, dhcpMessage({53, 1, 3, 255})});
   const Case cases[] = {
       {"end right after the cookie", dhcpMessage({255}), 0},
       {"padding after the end option", dhcpMessage(concat({kClientOptions, kEndAndPads})), 0},
       {"pads between options", dhcpMessage({0, 53, 1, 3, 0, 0, 61, 2, 1, 2, 255}), 0},
       {"options in a lent file", dhcpMessage({52, 1, 1, 255}, {53, 1, 3, 255}), 0},
       {"message inside a frame", inFrame, 42},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(c.msg);
      ASSERT_TRUE(add(*pkt, values, c.dhcpOffset)) << c.name;
      EXPECT_EQ(pkt->bytes(), c.msg.size() + 34) << c.name;
      EXPECT_EQ(Bytes(pkt->span().begin(), pkt->span().begin() + c.dhcpOffset + 240),
                Bytes(c.msg.begin(), c.msg.begin() + c.dhcpOffset + 240))
          << c.name << ": header untouched";
      ASSERT_TRUE(strip(*pkt, c.dhcpOffset)) << c.name;
      EXPECT_EQ(bytesOf(*pkt), c.msg) << c.name;
   }
}

// A refused edit leaves every byte where it was, so the caller can drop or forward the
// packet as received. The option's 255-byte length limit and the packet's tail room sit
// among the refusals.
TEST(RelayAgentInfoTest, AddRefusalsAndTheLargestOptionThatFits) {
   const Values small{"Vlan10"};
   struct Case {
      const char* name;
      Bytes msg;
      Values values;
      bool fits = false;
      size_t tailroom = 512;
   };
   const Case cases[] = {
       {"no cookie", Bytes(300, 0), small},
       {"cookie one bit off", Codec::Test::withByte(dhcpMessage({255}), 236, 98), small},
       {"shorter than the header", Bytes(200, 0), small},
       {"no end option", dhcpMessage(kClientOptions), small},
       {"option runs past the end", dhcpMessage({53, 1, 3, 12, 40, 'h', 255}), small},
       {"lent file malformed", dhcpMessage({52, 1, 1, 255}, {12, 200}), small},
       {"circuit-id of 256 bytes", dhcpMessage({255}), {std::string(256, 'c')}},
       {"circuit-id of 254 bytes: 256-byte option", dhcpMessage({255}), {std::string(254, 'c')}},
       {"one 253-byte circuit-id", dhcpMessage({255}), {std::string(253, 'c')}, true},
       {"sub-options add up to 256",
        dhcpMessage({255}),
        {std::string(200, 'c'), std::string(52, 'r')}},
       {"sub-options add up to 255",
        dhcpMessage({255}),
        {std::string(200, 'c'), std::string(51, 'r')},
        true},
       {"VRF name over the VRF name limit", dhcpMessage({255}), {"", "", std::string(101, 'v')}},
       {"longest VRF name", dhcpMessage({255}), {"", "", std::string(100, 'v')}, true},
       // "Vlan10" makes a 10-byte option.
       {"tail room one byte short", dhcpMessage({53, 1, 1, 255}), small, false, 9},
       {"tail room just enough", dhcpMessage({53, 1, 1, 255}), small, true, 10},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(c.msg, 64, c.tailroom);
      EXPECT_EQ(add(*pkt, c.values), c.fits) << c.name;
      if (c.fits) {
         EXPECT_EQ(parsed(*pkt), "circuit=" + c.values.circuitId + " remote=" + c.values.remoteId +
                                     " vrf=" + c.values.vrfName + " override=0.0.0.0 link=0.0.0.0")
             << c.name;
      } else {
         EXPECT_EQ(bytesOf(*pkt), c.msg) << c.name;
         EXPECT_EQ(pkt->tailroom(), c.tailroom) << c.name;
      }
   }
}

// RFC 3046 sections 2.1 and 2.1.1: a relay never adds a second option 82, so a message
// that already has one (from a trusted downstream element) is forwarded unchanged. With
// the information option off nothing is added or removed; other ops are refused.
TEST(RelayAgentInfoTest, EditsThatLeaveTheMessageAlone) {
   const Bytes downstream = {82, 4, 1, 2, 'p', '1'};
   struct Case {
      const char* name;
      Bytes msg;
      uint8_t op;
      bool flag;
      bool ok;
   };
   const Case cases[] = {
       {"option 82 already there", dhcpMessage(concat({kClientOptions, downstream, {255}})),
        bootRequest, true, true},
       {"option 82 in a lent file", dhcpMessage({52, 1, 1, 255}, concat({downstream, {255}})),
        bootRequest, true, true},
       {"add with the flag off", dhcpMessage({53, 1, 1, 255}), bootRequest, false, true},
       {"strip with the flag off", dhcpMessage({53, 1, 5, 82, 3, 1, 1, 'c', 255}), bootReply, false,
        true},
       {"op 3", dhcpMessage({53, 1, 1, 255}), 3, true, false},
       {"op 0", dhcpMessage({53, 1, 1, 255}), 0, true, false},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(c.msg);
      EXPECT_EQ(preparePacket(*pkt, c.op, c.flag, "Vlan10", "", "red", *IpAddr::parse("10.0.0.1"),
                              *IpAddr::parse("10.0.0.0"), 0),
                c.ok)
          << c.name;
      EXPECT_EQ(bytesOf(*pkt), c.msg) << c.name;
   }
   EXPECT_TRUE(infoOptPresent(*Pkt::copyOf(cases[0].msg)));
   EXPECT_TRUE(infoOptPresent(*Pkt::copyOf(cases[1].msg)));
   EXPECT_FALSE(infoOptPresent(*Pkt::copyOf(dhcpMessage(kClientOptions))));
}

TEST(RelayAgentInfoTest, RemoveEveryInstance) {
   struct Case {
      const char* name;
      Bytes msg;
      bool ok;
      Bytes expected;
   };
   const Bytes pads7 = {0, 0, 0, 0, 0, 0, 0};
   const Case cases[] = {
       {"none", dhcpMessage(concat({kClientOptions, kEndAndPads})), true,
        dhcpMessage(concat({kClientOptions, kEndAndPads}))},
       {"no options at all", Bytes(300, 0), true, Bytes(300, 0)},
       {"first option", dhcpMessage({82, 3, 1, 1, 'c', 53, 1, 5, 255, 0}), true,
        dhcpMessage({53, 1, 5, 255, 0})},
       {"two, back to back", dhcpMessage({82, 1, 9, 82, 0, 53, 1, 5, 255}), true,
        dhcpMessage({53, 1, 5, 255})},
       {"two, apart, no end option", dhcpMessage({82, 1, 9, 53, 1, 5, 82, 2, 1, 0}), true,
        dhcpMessage({53, 1, 5})},
       {"after the end option it is padding", dhcpMessage({53, 1, 5, 255, 82, 1, 9}), true,
        dhcpMessage({53, 1, 5, 255, 82, 1, 9})},
       {"in a lent file: padded out",
        dhcpMessage({52, 1, 1, 255}, {53, 1, 5, 82, 5, 1, 3, 'a', 'b', 'c', 255}), true,
        dhcpMessage({52, 1, 1, 255}, concat({{53, 1, 5}, pads7, {255}}))},
       {"malformed", dhcpMessage({82, 3, 1, 1, 'c', 53, 9, 5, 255}), false,
        dhcpMessage({82, 3, 1, 1, 'c', 53, 9, 5, 255})},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(c.msg);
      EXPECT_EQ(strip(*pkt), c.ok) << c.name;
      EXPECT_EQ(bytesOf(*pkt), c.expected) << c.name;
   }
}

TEST(RelayAgentInfoTest, ParseReply) {
   struct Case {
      const char* name;
      Bytes options;
      const char* expected;
   };
   const Case cases[] = {
       {"every sub-option",
        {82, 32, 1, 6,  'V', 'l', 'a', 'n', '1', '0', 2, 3, 's', 'w', '1', 5,   4,  10,
         1,  2,  0, 11, 4,   10,  1,   2,   1,   151, 5, 0, 'b', 'l', 'u', 'e', 255},
        "circuit=Vlan10 remote=sw1 vrf=blue override=10.1.2.1 link=10.1.2.0"},
       {"sub-options in another order, unknown ones skipped",
        {82, 16, 151, 3, 0, 'r', 'd', 9, 3, 1, 2, 3, 11, 4, 10, 0, 0, 1, 255},
        "circuit= remote= vrf=rd override=10.0.0.1 link=0.0.0.0"},
       {"no option 82: empty, still usable",
        {53, 1, 5, 255},
        "circuit= remote= vrf= override=0.0.0.0 link=0.0.0.0"},
       {"empty option 82", {82, 0, 255}, "circuit= remote= vrf= override=0.0.0.0 link=0.0.0.0"},
       {"VSS global VPN: no VRF",
        {82, 3, 151, 1, 255, 255},
        "circuit= remote= vrf= override=0.0.0.0 link=0.0.0.0"},
       {"empty circuit-id sub-option",
        {82, 2, 1, 0, 255},
        "circuit= remote= vrf= override=0.0.0.0 link=0.0.0.0"},
       {"option 82 twice", {82, 3, 1, 1, 'a', 82, 3, 1, 1, 'b', 255}, "refused"},
       {"circuit-id twice", {82, 6, 1, 1, 'a', 1, 1, 'b', 255}, "refused"},
       {"override twice", {82, 12, 11, 4, 10, 0, 0, 1, 11, 4, 10, 0, 0, 2, 255}, "refused"},
       {"link selection of 3 bytes", {82, 5, 5, 3, 10, 0, 0, 255}, "refused"},
       {"override of 5 bytes", {82, 7, 11, 5, 10, 0, 0, 1, 0, 255}, "refused"},
       {"VSS type 1 (VPN-ID)", {82, 10, 151, 8, 1, 0, 0, 1, 0, 0, 0, 1, 255}, "refused"},
       {"VSS without a type", {82, 2, 151, 0, 255}, "refused"},
       {"VSS global VPN with data", {82, 4, 151, 2, 255, 'x', 255}, "refused"},
       {"sub-option runs past the option", {82, 4, 1, 3, 'a', 'b', 255}, "refused"},
       {"sub-option header cut short", {82, 4, 1, 1, 'a', 2, 255}, "refused"},
       {"option area malformed after option 82", {82, 3, 1, 1, 'a', 60, 40, 1, 2}, "refused"},
   };
   for (const Case& c : cases)
      EXPECT_EQ(parsed(*Pkt::copyOf(dhcpMessage(c.options))), c.expected) << c.name;

   auto longName =
       Pkt::copyOf(dhcpMessage(concat({{82, 104, 151, 102, 0}, Bytes(101, 'v'), {255}})));
   EXPECT_EQ(parsed(*longName), "refused") << "VRF name over the limit";
   EXPECT_EQ(parsed(*Pkt::copyOf(Bytes(300, 0))),
             "circuit= remote= vrf= override=0.0.0.0 link=0.0.0.0")
       << "BOOTP reply";
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
