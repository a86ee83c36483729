#include "codec/Dhcp6Codec.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace Ip::Helper::DhcpRelay {
namespace {

using Bytes = std::vector<uint8_t>;
using Platform::Ip6Addr;
using Platform::Pkt;

Bytes cat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes& p : parts)
      out.insert(out.end(), p.begin(), p.end());
   return out;
}
Bytes be16(size_t v) {
   return {uint8_t(v >> 8), uint8_t(v)};
}
Bytes text(std::string_view s) {
   return Bytes(s.begin(), s.end());
}
// Options and CableLabs sub-options share the layout.
Bytes opt(uint16_t code, const Bytes& data) {
   return cat({be16(code), be16(data.size()), data});
}
Bytes msg(uint8_t type, const Bytes& options) {
   return cat({{type, 0x12, 0x34, 0x56}, options});
}
Bytes addr(uint8_t last) {
   Bytes a = {0x20, 0x01, 0x0d, 0xb8};
   a.resize(15);
   a.push_back(last);
   return a;
}
Ip6Addr ip6(uint8_t last) {
   Ip6Addr::Bytes b{};
   const Bytes a = addr(last);
   std::copy(a.begin(), a.end(), b.begin());
   return Ip6Addr(b);
}
Bytes relay(uint8_t type, const Bytes& inner, const Bytes& options = {}) {
   return cat({{type, 1}, addr(0xaa), addr(0xbb), opt(9, inner), options});
}
Bytes vsi(uint32_t enterprise, const Bytes& subOptions) {
   return opt(17, cat({be16(enterprise >> 16), be16(enterprise & 0xffff), subOptions}));
}
Bytes cores(std::initializer_list<uint8_t> lasts) {
   Bytes out;
   for (uint8_t last : lasts)
      out = cat({out, addr(last)});
   return opt(61, out);
}
Bytes fromHex(std::string_view hex) {
   Bytes out;
   for (size_t i = 0; i + 1 < hex.size(); i += 2)
      out.push_back(uint8_t(std::stoul(std::string(hex.substr(i, 2)), nullptr, 16)));
   return out;
}
Bytes bytesOf(const Pkt& pkt) {
   return Bytes(pkt.span().begin(), pkt.span().end());
}

const Bytes kClientId = opt(1, {0, 3, 0, 1, 2, 0, 0, 0, 0, 1});
const Bytes kIaPd = opt(25, Bytes(12, 0));
const Bytes kIface = opt(18, text("Ethernet1:blue"));
const Bytes kRelayWithoutMsg = cat({{13, 1}, addr(0xaa), addr(0xbb), kIface});

// The whole Relay-Forw a client's Solicit becomes on the way to a server in another VRF,
// crafted with scapy (DHCP6_RelayForward / DHCP6OptRelayMsg / DHCP6OptRemoteID /
// DHCP6OptClientLinkLayerAddr / DHCP6OptIfaceId / DHCP6OptVSS).
TEST(Dhcp6CodecTest, RelayForwIsBuiltByteForByte) {
   const Bytes solicit = fromHex("011234560001000a00030001020000000001");
   auto pkt = Pkt::copyOf(solicit, 64, 128);
   const Platform::EthAddr mac({2, 0, 0, 0, 0x0a, 0x0b});
   ASSERT_TRUE(dhcp6WrapRelayForw(*pkt, 3, *Ip6Addr::parse("fe80::1")));
   ASSERT_TRUE(dhcp6AppendRemoteId(*pkt, 4491, mac, 7));
   ASSERT_TRUE(addDhcp6LinkLayerAddressOpt(*pkt, mac));
   ASSERT_TRUE(setIntfNameVrfInPkt(*pkt, "Ethernet1", "blue"));
   ASSERT_TRUE(dhcp6AppendVss(*pkt, "blue"));
   const Bytes scapy = fromHex(
       "0c0300000000000000000000000000000000fe8000000000000000000000000000010009001201123456"
       "0001000a00030001020000000001002500160000118b00030001020000000a0b0000000000000007004f"
       "00080001020000000a0b0012000e45746865726e6574313a626c75650044000500626c7565");
   EXPECT_EQ(bytesOf(*pkt), scapy);

   // The forward path's late header fields, and the Interface-Id of a 9-byte name in
   // "default": 9 + 1 + 7.
   dhcp6RelayHopCountIs(*pkt, 32);
   dhcp6RelayLinkAddressIs(*pkt, ip6(1));
   EXPECT_EQ(dhcp6RelayHdr(*pkt)->hopCount, 32);
   EXPECT_EQ(dhcp6RelayHdr(*pkt)->linkAddress, ip6(1));
   auto iface = Pkt::create(0);
   ASSERT_TRUE(setIntfNameVrfInPkt(*iface, "Ethernet9", "default"));
   EXPECT_EQ(bytesOf(*iface), opt(18, text("Ethernet9:default")));
}

// Out of room, or a name the reply could not split back: refused, nothing written.
TEST(Dhcp6CodecTest, BuildersRefuseWholeAndChangeNothing) {
   const Platform::EthAddr mac;
   const Bytes solicit = msg(1, kClientId);
   auto tight = Pkt::copyOf(solicit, 37, 11);
   EXPECT_FALSE(dhcp6WrapRelayForw(*tight, 0, ip6(1)));
   EXPECT_FALSE(dhcp6AppendRemoteId(*tight, 4491, mac, 1));
   EXPECT_FALSE(addDhcp6LinkLayerAddressOpt(*tight, mac));
   EXPECT_FALSE(setIntfNameVrfInPkt(*tight, "Ethernet1", "blue"));
   EXPECT_FALSE(dhcp6AppendVss(*tight, "a-long-vrf"));
   auto roomy = Pkt::copyOf(solicit);
   EXPECT_FALSE(setIntfNameVrfInPkt(*roomy, "Eth:1", "blue"));
   EXPECT_FALSE(setIntfNameVrfInPkt(*roomy, "", "blue"));
   EXPECT_EQ(bytesOf(*tight), solicit);
   EXPECT_EQ(bytesOf(*roomy), solicit);
}

TEST(Dhcp6CodecTest, RelayReplyIsReadOrRefusedWithItsReason) {
   const Bytes reply = msg(7, kClientId);
   const Bytes good = relay(13, reply, cat({opt(37, Bytes(22, 1)), kIface}));
   struct Case {
      Bytes pkt;
      Dhcp6ReplyError error;
   } const cases[] = {
       {Bytes(good.begin(), good.begin() + 33), Dhcp6ReplyError::tooShort},
       {Bytes(good.begin(), good.end() - 1), Dhcp6ReplyError::malformed},
       {kRelayWithoutMsg, Dhcp6ReplyError::noRelayMessage},
       {relay(13, reply), Dhcp6ReplyError::noInterfaceId},
       {good, Dhcp6ReplyError::none},
   };
   for (const Case& c : cases) {
      Dhcp6RelayReply out;
      Dhcp6ReplyError error;
      EXPECT_EQ(dhcp6ParseRelayReply(*Pkt::copyOf(c.pkt), out, error),
                c.error == Dhcp6ReplyError::none);
      EXPECT_EQ(error, c.error) << c.pkt.size();
   }

   auto pkt = Pkt::copyOf(good);
   Dhcp6RelayReply out;
   Dhcp6ReplyError error;
   ASSERT_TRUE(dhcp6ParseRelayReply(*pkt, out, error));
   EXPECT_EQ(out.hdr.peerAddress, ip6(0xbb));
   EXPECT_TRUE(out.hasRemoteId);
   EXPECT_EQ(Bytes(out.interfaceId.begin(), out.interfaceId.end()), text("Ethernet1:blue"));
   ASSERT_TRUE(dhcp6UnwrapRelayMessage(*pkt, out.relayMsgOffset, out.relayMsgLength));
   EXPECT_EQ(bytesOf(*pkt), reply);
   EXPECT_EQ(dhcp6ClientDuid(*pkt).size(), 10u);
   EXPECT_EQ(dhcp6TransactionId(*pkt), 0x123456u);
}

TEST(Dhcp6CodecTest, InterfaceIdSplitsAtTheFirstSeparator) {
   const std::pair<const char*, const char*> cases[] = {
       {"Ethernet1:blue", "Ethernet1|blue"},
       {"Ethernet1:", "Ethernet1|"},
       {"Eth1:a:b", "Eth1|a:b"},
       {":blue", nullptr},
       {"Ethernet1", nullptr},
       {"", nullptr},
   };
   for (const auto& [data, expected] : cases) {
      const Bytes bytes = text(data);
      const auto names = dhcp6SplitInterfaceId(bytes);
      EXPECT_EQ(names ? std::string(names->intf) + "|" + std::string(names->vrf) : "null",
                expected ? expected : "null");
   }
}

Bytes nested(size_t depth, Bytes inner) {
   while (depth-- > 0)
      inner = relay(13, inner, kIface);
   return inner;
}

// A case without `out` leaves the packet as it was. Cores are 2001:db8::1 (and ::2).
TEST(Dhcp6CodecTest, CcapCoresAreInsertedOrEditedAndEveryLengthFollows) {
   const Bytes tail = opt(3, Bytes(12, 7));
   const auto reply = [&](const Bytes& options) { return msg(7, cat({kClientId, options, tail})); };
   // CableLabs' option 17 with sub-option 61 listing the cores.
   const auto ours = [](std::initializer_list<uint8_t> lasts) { return vsi(4491, cores(lasts)); };
   const Bytes plain = msg(7, kClientId);
   const Bytes withOpt17 = msg(7, cat({kClientId, ours({1})}));  // 28 more
   const std::vector<Ip6Addr> two = {ip6(1), ip6(2)};
   struct Case {
      const char* name;
      Bytes in;
      Bytes out;
      int delta;
      std::vector<Ip6Addr> cores = {ip6(1)};
   } const cases[] = {
       {"no option 17", plain, withOpt17, 28},
       {"advertise, two cores", msg(2, kClientId), msg(2, cat({kClientId, ours({1, 2})})), 44, two},
       {"first option 17 of another enterprise", reply(cat({vsi(9, cores({5})), ours({5})})),
        reply(cat({vsi(9, cores({5})), ours({1, 2})})), 16, two},
       {"three cores become one", reply(vsi(4491, cat({cores({5, 6, 7}), opt(62, {9, 9})}))),
        reply(vsi(4491, cat({cores({1}), opt(62, {9, 9})}))), -32},
       {"option 17 without sub-option 61", reply(vsi(4491, opt(62, {9}))),
        reply(vsi(4491, cat({opt(62, {9}), cores({1})}))), 20},
       {"nested two deep", nested(2, plain), nested(2, withOpt17), 28},
       {"nested as deep as relays go", nested(32, plain), nested(32, withOpt17), 28},
       {"nested deeper", nested(33, plain), {}, 0},
       {"relay-repl without option 9", kRelayWithoutMsg, {}, 0},
       {"solicit", msg(1, kClientId), {}, 0},
       {"option past the end before 17", cat({plain, {0, 17, 0, 9, 0}}), {}, 0},
       {"sub-option past option 17's end", reply(vsi(4491, {0, 62, 0, 1})), {}, 0},
       {"no cores", plain, {}, 0, {}},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(c.in, 0, 64);
      bool ok = false;
      EXPECT_EQ(searchAndSetCcapCoresInPkt(*pkt, c.cores, "Ethernet1", 0, pkt->bytes(), ok),
                c.delta)
          << c.name;
      EXPECT_TRUE(ok) << c.name;
      EXPECT_EQ(bytesOf(*pkt), c.out.empty() ? c.in : c.out) << c.name;
   }

   // Without tail room a growth is refused whole; shrinking needs none.
   for (const Case& c : {cases[3], cases[5]}) {
      auto pkt = Pkt::copyOf(c.in, 0, 0);
      bool ok = false;
      searchAndSetCcapCoresInPkt(*pkt, c.cores, "Ethernet1", 0, pkt->bytes(), ok);
      EXPECT_EQ(ok, c.delta < 0) << c.name;
      EXPECT_EQ(bytesOf(*pkt), ok ? c.out : c.in) << c.name;
   }
}

TEST(Dhcp6CodecTest, GapsOpenAndCloseAtAnOffset) {
   struct Case {
      size_t offset;
      int delta;
      const char* out;  // nullptr: refused
   } const cases[] = {
       {2, 2, "abcdcdef"}, {5, 1, "abcdeff"}, {0, 0, "abcdef"}, {4, -2, "abef"},
       {6, -6, ""},        {7, 1, nullptr},   {1, -2, nullptr}, {2, 3, nullptr},
   };
   for (const auto& [offset, delta, out] : cases) {
      auto pkt = Pkt::copyOf(text("abcdef"), 0, 2);
      EXPECT_EQ(preparePktForCcap(*pkt, offset, delta), out != nullptr) << offset << delta;
      EXPECT_EQ(bytesOf(*pkt), text(out ? out : "abcdef")) << offset << " " << delta;
   }
}

TEST(Dhcp6CodecTest, RouteInstallFindsTheInnermostReplyOrReleaseWithIaOptions) {
   const Bytes reply = msg(7, cat({kClientId, kIaPd}));
   struct Case {
      const char* name;
      Bytes in;
      size_t start = 0, end = 0;  // 0: nothing found
   } const cases[] = {
       {"reply", reply, 4, reply.size()},
       {"release with IA_NA", msg(8, opt(3, Bytes(12, 0))), 4, 20},
       {"two relays", nested(2, reply), 80, 76 + reply.size()},
       {"relay-forw", relay(12, msg(8, kIaPd)), 42, 58},
       {"reply without IA", nested(1, msg(7, kClientId))},
       {"solicit", msg(1, kIaPd)},
       {"relay-repl without option 9", kRelayWithoutMsg},
       {"IA_PD behind a cut-short option", cat({msg(7, {0, 1, 0, 30}), kIaPd})},
   };
   for (const Case& c : cases) {
      uint16_t start = 0, end = 0;
      EXPECT_EQ(dhcpRelaySmv6ParseMsgForRouteInstall(*Pkt::copyOf(c.in), 0, start, end), c.end != 0)
          << c.name;
      EXPECT_EQ(start, c.start) << c.name;
      EXPECT_EQ(end, c.end) << c.name;
   }
}

// Leases of every IA_NA and IA_PD, in message order; what cannot be read is skipped.
TEST(Dhcp6CodecTest, IanaPdLeasesAreReadWithTheirLifetimes) {
   const Bytes t1t2 = Bytes(12, 0);
   auto iaaddr = [](uint8_t last, uint32_t pref, uint32_t valid) {
      return opt(5,
                 cat({addr(last), be16(pref >> 16), be16(pref), be16(valid >> 16), be16(valid)}));
   };
   auto iaprefix = [](uint8_t len, uint8_t last, uint32_t pref, uint32_t valid) {
      return opt(
          26,
          cat({be16(pref >> 16), be16(pref), be16(valid >> 16), be16(valid), {len}, addr(last)}));
   };
   const Bytes options =
       cat({opt(1, {1, 2}), opt(3, cat({t1t2, iaaddr(0x11, 100, 200), opt(13, {0, 0})})),
            opt(25, cat({t1t2, iaprefix(56, 0, 0, 0xffffffff), iaprefix(129, 1, 1, 1),
                         iaprefix(64, 2, 5, 6)})),
            opt(25, {1, 2, 3}), opt(3, cat({t1t2, {0, 5, 0, 2, 9, 9}}))});
   const Bytes reply = msg(7, options);
   std::array<Dhcp6Lease, 8> leases;
   const size_t n =
       dhcpRelaySmv6HandleIanaPd(*Pkt::copyOf(reply), 4, uint16_t(reply.size()), leases);
   const std::vector<Dhcp6Lease> got(leases.begin(), leases.begin() + long(n));
   const std::vector<Dhcp6Lease> want{{Platform::Ip6Prefix(ip6(0x11), 128), 100, 200},
                                      {Platform::Ip6Prefix(ip6(0), 56), 0, 0xffffffff},
                                      {Platform::Ip6Prefix(ip6(2), 64), 5, 6}};
   EXPECT_EQ(got, want);
   // No more than the room given.
   std::array<Dhcp6Lease, 2> two;
   EXPECT_EQ(dhcpRelaySmv6HandleIanaPd(*Pkt::copyOf(reply), 4, uint16_t(reply.size()), two), 2u);
   EXPECT_EQ(two[1], want[1]);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
