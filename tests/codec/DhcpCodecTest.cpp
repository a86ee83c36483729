#include "codec/DhcpCodec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace Ip::Helper::DhcpRelay {
namespace {

using Bytes = std::vector<uint8_t>;
using Platform::IpAddr;
using Platform::Pkt;

// A BOOTREQUEST from 02:00:00:00:00:01 with the magic cookie and `options` written
// verbatim after it; `file` and `sname` content goes at the start of those fields.
Bytes dhcpMessage(const Bytes& options, const Bytes& file = {}, const Bytes& sname = {}) {
   Bytes msg(240, 0);
   const Bytes fixed = {1, 1, 6, 0, 0x11, 0x22, 0x33, 0x44};
   std::copy(fixed.begin(), fixed.end(), msg.begin());
   msg[28] = 0x02;
   msg[33] = 0x01;
   std::copy(sname.begin(), sname.end(), msg.begin() + 44);
   std::copy(file.begin(), file.end(), msg.begin() + 108);
   const Bytes cookie = {99, 130, 83, 99};
   std::copy(cookie.begin(), cookie.end(), msg.begin() + 236);
   msg.insert(msg.end(), options.begin(), options.end());
   return msg;
}

// `msg` with one byte changed: a damaged cookie or field next to an otherwise good message.
Bytes withByte(Bytes msg, size_t at, uint8_t value) {
   msg.at(at) = value;
   return msg;
}

Bytes bytesOf(const Pkt& pkt) {
   return Bytes(pkt.span().begin(), pkt.span().end());
}

Bytes concat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes& p : parts)
      out.insert(out.end(), p.begin(), p.end());
   return out;
}

// Every byte of the header holds its own offset, so a field read from the wrong place or in
// the wrong byte order shows up as a different number. The header exists only whole.
TEST(DhcpHdrTest, FieldsAreReadFromTheirOffsetsOfAWholeHeader) {
   const size_t cases[][3] = {
       // bytes, offset, exists
       {236, 0, 1}, {235, 0, 0}, {0, 0, 0}, {278, 42, 1}, {277, 42, 0}, {236, 237, 0}, {300, 64, 1},
   };
   for (const auto& [bytes, offset, exists] : cases)
      EXPECT_EQ(DhcpHdr::of(*Pkt::create(bytes), offset).has_value(), exists != 0)
          << bytes << " bytes at offset " << offset;

   Bytes frame(42 + 236);
   for (size_t i = 0; i < 236; ++i)
      frame[42 + i] = static_cast<uint8_t>(i);
   auto pkt = Pkt::copyOf(frame);
   const auto hdr = DhcpHdr::of(*pkt, 42);
   ASSERT_TRUE(hdr);
   EXPECT_EQ(std::tuple(hdr->bootpOp(), hdr->hops(), hdr->xid(), hdr->flags(), hdr->ciaddr(),
                        hdr->yiaddr(), hdr->giaddr(), hdr->chaddr().toString()),
             std::tuple(0, 3, 0x04050607u, 0x0a0b, IpAddr(0x0c0d0e0f), IpAddr(0x10111213),
                        IpAddr(0x18191a1b), "1c:1d:1e:1f:20:21"));
}

// Hops saturate instead of wrapping: a looping request must stay at the limit.
TEST(DhcpHdrTest, WritesTouchOnlyTheirFieldAndHopsSaturate) {
   const Bytes original = dhcpMessage({255});
   auto pkt = Pkt::copyOf(original);
   auto hdr = DhcpHdr::of(*pkt);
   ASSERT_TRUE(hdr);
   hdr->giaddrIs(*IpAddr::parse("192.0.2.10"));
   hdr->hopsIs(7);
   Bytes expected = original;
   expected[3] = 7;
   const Bytes giaddr = {192, 0, 2, 10};
   std::copy(giaddr.begin(), giaddr.end(), expected.begin() + 24);
   EXPECT_EQ(bytesOf(*pkt), expected);

   const uint8_t cases[][3] = {{0, 1, 1}, {254, 1, 255}, {255, 1, 255}, {200, 100, 255}, {3, 0, 3}};
   for (const auto& [start, inc, result] : cases) {
      hdr->hopsIs(start);
      hdr->hopsInc(inc);
      EXPECT_EQ(hdr->hops(), result) << int(start) << " + " << int(inc);
   }
}

// The names are behaviour (traces and the smart relay's DHCPREQUEST test read them);
// the ends of the table and the values around it are where an off-by-one shows. Then
// where option 53 is looked for, and what makes it unreadable. Option 52 lends `file`
// (1), `sname` (2) or both (3, file first: RFC 2131 section 4.1).
TEST(DhcpOptionReadTest, MessageType) {
   struct Case {
      const char* name;
      Bytes msg;
      const char* expected;
      size_t dhcpOffset = 0;
   };
   const Bytes ack = {53, 1, 5, 255};
   const Bytes nak = {53, 1, 6, 255};
   const Case cases[] = {
       {"type 0", dhcpMessage({53, 1, 0, 255}), "DHCPUNKNOWN"},
       {"type 1", dhcpMessage({53, 1, 1, 255}), "DHCPDISCOVER"},
       {"type 2", dhcpMessage({53, 1, 2, 255}), "DHCPOFFER"},
       {"type 8", dhcpMessage({53, 1, 8, 255}), "DHCPINFORM"},
       {"type 18", dhcpMessage({53, 1, 18, 255}), "DHCPTLS"},
       {"type 19", dhcpMessage({53, 1, 19, 255}), "DHCPUNKNOWN"},
       {"type 255", dhcpMessage({53, 1, 255, 255}), "DHCPUNKNOWN"},
       {"pads before it", dhcpMessage({0, 0, 53, 1, 3, 255}), "DHCPREQUEST"},
       {"no end option", dhcpMessage({53, 1, 3}), "DHCPREQUEST"},
       {"no option 53", dhcpMessage({54, 4, 1, 2, 3, 4, 255}), "BOOTP"},
       {"no cookie", Bytes(300, 0), "BOOTP"},
       {"cookie one bit off", withByte(dhcpMessage({53, 1, 3, 255}), 239, 98), "BOOTP"},
       {"header only", Bytes(236, 0), "BOOTP"},
       {"one byte short of a header", Bytes(235, 0), "DHCPMALFORMED"},
       {"after the end option", dhcpMessage({255, 53, 1, 3}), "BOOTP"},
       {"two bytes long", dhcpMessage({53, 2, 3, 3, 255}), "DHCPMALFORMED"},
       {"twice", dhcpMessage({53, 1, 3, 53, 1, 3, 255}), "DHCPMALFORMED"},
       {"option before it runs past the end", dhcpMessage({12, 9, 1, 2}), "DHCPMALFORMED"},
       {"option after it runs past the end", dhcpMessage({53, 1, 3, 12, 9, 1}), "DHCPMALFORMED"},
       {"in file, lent", dhcpMessage({52, 1, 1, 255}, ack), "DHCPACK"},
       {"in sname, lent", dhcpMessage({52, 1, 2, 255}, {}, ack), "DHCPACK"},
       {"in file, not lent", dhcpMessage({255}, ack), "BOOTP"},
       {"in sname, only file lent", dhcpMessage({52, 1, 1, 255}, {}, ack), "BOOTP"},
       {"in sname, both lent", dhcpMessage({52, 1, 3, 255}, {255}, nak), "DHCPNAK"},
       {"in both lent fields", dhcpMessage({52, 1, 3, 255}, ack, nak), "DHCPMALFORMED"},
       {"in the options field and in file", dhcpMessage({53, 1, 3, 52, 1, 1, 255}, nak),
        "DHCPMALFORMED"},
       {"overload value 4", dhcpMessage({52, 1, 4, 53, 1, 3, 255}), "DHCPMALFORMED"},
       {"overload twice", dhcpMessage({52, 1, 1, 52, 1, 1, 255}, ack), "DHCPMALFORMED"},
       {"lent file cut short", dhcpMessage({52, 1, 1, 53, 1, 3, 255}, {12, 200}), "DHCPMALFORMED"},
       {"option 52 inside file lends nothing", dhcpMessage({52, 1, 1, 255}, {52, 1, 2, 255}, ack),
        "BOOTP"},
       {"message inside a frame", concat({Bytes(42, 0xee), dhcpMessage({53, 1, 1, 255})}),
        "DHCPDISCOVER", 42},
   };
   for (const Case& c : cases)
      EXPECT_EQ(getDhcpMsgType(*Pkt::copyOf(c.msg), c.dhcpOffset), c.expected) << c.name;
}

// Option 54 read, and rewritten in place wherever it was found; refused, packet unchanged,
// where it cannot be read. Then options 50 and 51, read where option 54 is.
TEST(DhcpOptionReadTest, ServerIdReadAndRewrittenRequestedAddressAndLeaseTime) {
   struct Case {
      const char* name;
      Bytes msg;
      const char* read;       // "none": not readable, and so not rewritten
      ptrdiff_t valueAt = 0;  // where the rewritten 4 bytes go
   };
   const Case cases[] = {
       {"options field", dhcpMessage({53, 1, 3, 54, 4, 10, 0, 0, 1, 255}), "10.0.0.1", 240 + 5},
       {"lent file", dhcpMessage({52, 1, 1, 255}, {0, 54, 4, 10, 0, 0, 1, 255}), "10.0.0.1",
        108 + 3},
       {"lent sname", dhcpMessage({52, 1, 2, 255}, {}, {54, 4, 192, 0, 2, 1, 255}), "192.0.2.1",
        44 + 2},
       {"no option 54", dhcpMessage({53, 1, 1, 255}), "none"},
       {"option 54 of 3 bytes", dhcpMessage({54, 3, 10, 0, 0, 255}), "none"},
       {"option 54 of 5 bytes", dhcpMessage({54, 5, 10, 0, 0, 1, 0, 255}), "none"},
       {"option 54 twice", dhcpMessage({54, 4, 10, 0, 0, 1, 54, 4, 10, 0, 0, 2, 255}), "none"},
       {"malformed area", dhcpMessage({54, 4, 10, 0, 0, 1, 60, 30, 1}), "none"},
       {"no cookie", Bytes(300, 0), "none"},
   };
   const IpAddr relay = *IpAddr::parse("198.51.100.9");
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      auto pkt = Pkt::copyOf(c.msg);
      const auto addr = getServerId(*pkt);
      EXPECT_EQ(addr ? addr->toString() : "none", c.read);
      EXPECT_EQ(setServerId(*pkt, relay), addr.has_value());
      Bytes expected = c.msg;
      if (addr) {
         const Bytes value = {198, 51, 100, 9};
         std::copy(value.begin(), value.end(), expected.begin() + c.valueAt);
      }
      EXPECT_EQ(bytesOf(*pkt), expected);
   }

   auto pkt =
       Pkt::copyOf(dhcpMessage({53, 1, 3, 50, 4, 10, 0, 0, 7, 51, 4, 0, 0, 0x0e, 0x10, 255}));
   EXPECT_EQ(getRequestedIpOption(*pkt, bootRequest), IpAddr::parse("10.0.0.7"));
   EXPECT_EQ(getRequestedIpOption(*pkt, bootReply), std::nullopt) << "servers never send it";
   EXPECT_EQ(getLeaseTime(*pkt), 3600u);
   EXPECT_FALSE(getLeaseTime(*Pkt::copyOf(dhcpMessage({53, 1, 3, 51, 2, 0, 1, 255}))));
   EXPECT_FALSE(getLeaseTime(*Pkt::copyOf(dhcpMessage({53, 1, 3, 255}))));
}

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

// The expected option bytes are written out from the RFCs by hand: code, length, then the
// sub-options as (code, length, value) in ascending code order, right before the end option
// wherever the options end; taking the option out again restores the message byte for byte.
TEST(RelayAgentInfoTest, AddedOptionBytesAndTheirRemoval) {
   const Values every{"Vlan10", "sw1", "blue", "10.1.2.1", "10.1.2.0"};
   const Bytes everyOption = {82,  32,                                // RFC 3046
                              1,   6,  'V', 'l', 'a', 'n', '1', '0',  // circuit-id
                              2,   3,  's', 'w', '1',                 // remote-id
                              5,   4,  10,  1,   2,   0,              // RFC 3527 link selection
                              11,  4,  10,  1,   2,   1,  // RFC 5107 server identifier override
                              151, 5,  0,   'b', 'l', 'u', 'e'};  // RFC 6607 VSS, type 0 NVT ASCII
   struct Case {
      const char* name;
      Values values;
      Bytes option;
      Bytes before = kClientOptions;  // the options ahead of the added one
      Bytes after = kEndAndPads;
      Bytes file = {};
      size_t dhcpOffset = 0;
   };
   const Case cases[] = {
       {"every sub-option", every, everyOption},
       {"circuit-id alone", {"c"}, {82, 3, 1, 1, 'c'}},
       {"remote-id alone", {"", "r1"}, {82, 4, 2, 2, 'r', '1'}},
       {"link selection alone", {"", "", "", "0.0.0.0", "192.0.2.0"}, {82, 6, 5, 4, 192, 0, 2, 0}},
       {"cross-VRF without circuit-id",
        {"", "", "red", "192.0.2.1", "192.0.2.0"},
        {82, 18, 5, 4, 192, 0, 2, 0, 11, 4, 192, 0, 2, 1, 151, 4, 0, 'r', 'e', 'd'}},
       {"nothing set: no option", {}, {}},
       {"end right after the cookie", every, everyOption, {}, {255}},
       {"pads between options", every, everyOption, {0, 53, 1, 3, 0, 0, 61, 2, 1, 2}, {255}},
       {"options in a lent file", every, everyOption, {52, 1, 1}, {255}, {53, 1, 3, 255}},
       {"message inside a frame", every, everyOption, {53, 1, 3}, {255}, {}, 42},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      const Bytes frame(c.dhcpOffset, 0xee);
      const Bytes msg = concat({frame, dhcpMessage(concat({c.before, c.after}), c.file)});
      auto pkt = Pkt::copyOf(msg);
      ASSERT_TRUE(add(*pkt, c.values, c.dhcpOffset));
      EXPECT_EQ(bytesOf(*pkt),
                concat({frame, dhcpMessage(concat({c.before, c.option, c.after}), c.file)}));
      ASSERT_TRUE(strip(*pkt, c.dhcpOffset));
      EXPECT_EQ(bytesOf(*pkt), msg);
   }
}

// A refused edit leaves every byte where it was, so the caller can drop or forward the
// packet as received. The option's 255-byte length limit and the packet's tail room sit
// among the refusals; a message without cookie, or with an option running past the end, is
// refused unchanged in the option edit fuzz corpus.
TEST(RelayAgentInfoTest, AddRefusalsAndTheLargestOptionThatFits) {
   const Values small{"Vlan10"};
   const std::string c200(200, 'c');
   struct Case {
      const char* name;
      Bytes msg;
      Values values;
      bool fits = false;
      size_t tailroom = 512;
   };
   const Case cases[] = {
       {"cookie one bit off", withByte(dhcpMessage({255}), 236, 98), small},
       {"shorter than the header", Bytes(200, 0), small},
       {"no end option", dhcpMessage(kClientOptions), small},
       {"lent file malformed", dhcpMessage({52, 1, 1, 255}, {12, 200}), small},
       {"circuit-id of 256 bytes", dhcpMessage({255}), {std::string(256, 'c')}},
       {"circuit-id of 254 bytes: 256-byte option", dhcpMessage({255}), {std::string(254, 'c')}},
       {"one 253-byte circuit-id", dhcpMessage({255}), {std::string(253, 'c')}, true},
       {"sub-options add up to 256", dhcpMessage({255}), {c200, std::string(52, 'r')}},
       {"sub-options add up to 255", dhcpMessage({255}), {c200, std::string(51, 'r')}, true},
       {"VRF name over the VRF name limit", dhcpMessage({255}), {"", "", std::string(101, 'v')}},
       {"longest VRF name", dhcpMessage({255}), {"", "", std::string(100, 'v')}, true},
       // "Vlan10" makes a 10-byte option.
       {"tail room one byte short", dhcpMessage({53, 1, 1, 255}), small, false, 9},
       {"tail room just enough", dhcpMessage({53, 1, 1, 255}), small, true, 10},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      auto pkt = Pkt::copyOf(c.msg, 64, c.tailroom);
      EXPECT_EQ(add(*pkt, c.values), c.fits);
      if (c.fits) {
         EXPECT_EQ(parsed(*pkt), "circuit=" + c.values.circuitId + " remote=" + c.values.remoteId +
                                     " vrf=" + c.values.vrfName + " override=0.0.0.0 link=0.0.0.0");
      } else {
         EXPECT_EQ(bytesOf(*pkt), c.msg);
         EXPECT_EQ(pkt->tailroom(), c.tailroom);
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

// Every sub-option the relay writes is read back from its own option in the option edit fuzz
// corpus; here, what a server may send back besides.
TEST(RelayAgentInfoTest, ParseReply) {
   const char* const empty = "circuit= remote= vrf= override=0.0.0.0 link=0.0.0.0";
   struct Case {
      const char* name;
      Bytes msg;
      const char* expected;
   };
   const Case cases[] = {
       {"sub-options in another order, unknown ones skipped",
        dhcpMessage({82, 16, 151, 3, 0, 'r', 'd', 9, 3, 1, 2, 3, 11, 4, 10, 0, 0, 1, 255}),
        "circuit= remote= vrf=rd override=10.0.0.1 link=0.0.0.0"},
       {"no option 82: empty, still usable", dhcpMessage({53, 1, 5, 255}), empty},
       {"BOOTP reply", Bytes(300, 0), empty},
       {"empty option 82", dhcpMessage({82, 0, 255}), empty},
       {"VSS global VPN: no VRF", dhcpMessage({82, 3, 151, 1, 255, 255}), empty},
       {"empty circuit-id sub-option", dhcpMessage({82, 2, 1, 0, 255}), empty},
       {"option 82 twice", dhcpMessage({82, 3, 1, 1, 'a', 82, 3, 1, 1, 'b', 255}), "refused"},
       {"circuit-id twice", dhcpMessage({82, 6, 1, 1, 'a', 1, 1, 'b', 255}), "refused"},
       {"override twice", dhcpMessage({82, 12, 11, 4, 10, 0, 0, 1, 11, 4, 10, 0, 0, 2, 255}),
        "refused"},
       {"link selection of 3 bytes", dhcpMessage({82, 5, 5, 3, 10, 0, 0, 255}), "refused"},
       {"override of 5 bytes", dhcpMessage({82, 7, 11, 5, 10, 0, 0, 1, 0, 255}), "refused"},
       {"VSS type 1 (VPN-ID)", dhcpMessage({82, 10, 151, 8, 1, 0, 0, 1, 0, 0, 0, 1, 255}),
        "refused"},
       {"VSS without a type", dhcpMessage({82, 2, 151, 0, 255}), "refused"},
       {"VSS global VPN with data", dhcpMessage({82, 4, 151, 2, 255, 'x', 255}), "refused"},
       {"VRF name over the limit",
        dhcpMessage(concat({{82, 104, 151, 102, 0}, Bytes(101, 'v'), {255}})), "refused"},
       {"sub-option runs past the option", dhcpMessage({82, 4, 1, 3, 'a', 'b', 255}), "refused"},
       {"sub-option header cut short", dhcpMessage({82, 4, 1, 1, 'a', 2, 255}), "refused"},
       {"option area malformed after option 82", dhcpMessage({82, 3, 1, 1, 'a', 60, 40, 1, 2}),
        "refused"},
   };
   for (const Case& c : cases)
      EXPECT_EQ(parsed(*Pkt::copyOf(c.msg)), c.expected) << c.name;
}

const Bytes kType = {53, 1, 1};
const Bytes kEnd = {255, 0, 0, 0};
Bytes option82(const Bytes& subOptions) {
   return concat({{82, static_cast<uint8_t>(subOptions.size())}, subOptions});
}
// A first hop's option: circuit-id "sw", remote-id "r1".
const Bytes kSwitchSubOptions = {1, 2, 's', 'w', 2, 2, 'r', '1'};
const Bytes kSwitch = option82(kSwitchSubOptions);
// The relay's sub-options for a copy to VRF "blue": link selection 10.0.0.0, override
// 10.0.0.1, VRF name (VSS type 0).
const Bytes kOwn = {5, 4, 10, 0, 0, 0, 11, 4, 10, 0, 0, 1, 151, 5, 0, 'b', 'l', 'u', 'e'};

bool merge(Pkt& pkt) {
   return mergeInfoOpt(pkt, "blue", *IpAddr::parse("10.0.0.1"), *IpAddr::parse("10.0.0.0"), 0);
}

// The relay's sub-options go into the first hop's option (or a new one), replacing any the
// first hop wrote with their codes, and come out again leaving the first hop's as it was.
// Nothing to take out is no failure.
TEST(InfoOptMergeTest, MergeThenStrip) {
   struct Case {
      const char* name;
      Bytes before;  // options after the message type
      Bytes merged;
      Bytes stripped;
   };
   const Bytes switchWithOwn = option82(concat({kSwitchSubOptions, kOwn}));
   const Case cases[] = {
       {"no option yet", {}, option82(kOwn), {}},
       {"a first hop's option", kSwitch, switchWithOwn, kSwitch},
       // The first hop's own link selection gives way to the relay's.
       {"a first hop's link selection", option82(concat({kSwitchSubOptions, {5, 4, 192, 0, 2, 0}})),
        switchWithOwn, kSwitch},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      auto pkt = Pkt::copyOf(dhcpMessage(concat({kType, c.before, kEnd})));
      ASSERT_TRUE(merge(*pkt));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(concat({kType, c.merged, kEnd})));
      ASSERT_TRUE(stripOwnInfoSubOptions(*pkt, 0));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(concat({kType, c.stripped, kEnd})));
      ASSERT_TRUE(stripOwnInfoSubOptions(*pkt, 0));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(concat({kType, c.stripped, kEnd})));
   }

   const Bytes big = concat({{82, 250, 1, 248}, Bytes(248, 'x')});
   const Bytes refused[] = {
       concat({kType, big, kEnd}),                 // no room for the relay's 19 bytes
       concat({kType, kSwitch, kSwitch, kEnd}),    // two options 82
       concat({kType, {82, 3, 1, 5, 'x'}, kEnd}),  // sub-options that cannot be walked
   };
   for (const Bytes& options : refused) {
      auto pkt = Pkt::copyOf(dhcpMessage(options));
      EXPECT_FALSE(merge(*pkt));
      EXPECT_EQ(bytesOf(*pkt), dhcpMessage(options));
   }
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
