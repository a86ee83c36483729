#include "codec/Frame.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "codec/TlvWalker.h"
#include "tests/support/TestFrames.h"

namespace Codec {
namespace {

using namespace Platform::TestFrames;
using Platform::EthAddr;
using Platform::Ip6Addr;
using Platform::IpAddr;
using Platform::Pkt;

Bytes hex(std::string_view s) {
   Bytes b;
   for (size_t i = 0; i + 1 < s.size(); i += 2)
      b.push_back(static_cast<uint8_t>(std::stoi(std::string(s.substr(i, 2)), nullptr, 16)));
   return b;
}

Bytes bytesOf(const Pkt& pkt) {
   return {pkt.span().begin(), pkt.span().end()};
}

// Crafted with scapy: Ether()/[Dot1Q()/]IP(id=0)/UDP()/payload, and the same over IPv6. The
// second frame of each family has a payload that makes the computed UDP checksum 0, sent as
// 0xffff. Our builders make no tagged frames (the first with IP options).
const struct KnownGood {
   bool ours;
   const char *src, *dst;
   uint16_t srcPort, dstPort;
   size_t l3, udp;
   const char* frame;
} kKnownGood[] = {
    {true, "10.0.0.1", "10.0.0.50", 67, 68, 14, 34,
     "02000000000a02000000000b080045000021000000004011669a0a0000010a00003200430044000da34e6f66"
     "666572"},
    {true, "10.0.0.1", "255.255.255.255", 67, 68, 14, 34,
     "02000000000a02000000000b08004500001e00000000401170cf0a000001ffffffff00430044000afffff552"},
    {true, "fe80::1", "ff02::1:2", 547, 546, 14, 54,
     "02000000000a02000000000b86dd6000000000111140fe800000000000000000000000000001ff0200000000"
     "00000000000000010002022302220011e54d616476657274697365"},
    {true, "fe80::1", "ff02::1:2", 547, 546, 14, 54,
     "02000000000a02000000000b86dd60000000000a1140fe800000000000000000000000000001ff0200000000"
     "0000000000000001000202230222000afffffe0d"},
    {false, "10.1.2.1", "10.9.9.9", 67, 67, 18, 42,
     "02000000000a02000000000b8100000a08004600002700070000101188ab0a0102010a090909010101000043"
     "0043000f240a72656c61796564"},
    {false, "fe80::b", "ff02::1:2", 546, 547, 18, 58,
     "02000000000a02000000000b8100000a86dd60000000000f1101fe80000000000000000000000000000bff02"
     "000000000000000000000001000202220223000f46b7736f6c69636974"},
};

// What our builder makes of a row's addresses and ports around `payload`; empty when refused,
// which must leave the packet as it was.
Bytes built(const KnownGood& c, const Bytes& payload) {
   const EthAddr dst({0x02, 0, 0, 0, 0, 0x0a}), src({0x02, 0, 0, 0, 0, 0x0b});
   auto pkt = Pkt::copyOf(payload, kUdp6FrameHeaders);
   const auto ip4 = IpAddr::parse(c.src);
   if (ip4 ? prependUdp4Frame(*pkt, {dst, src, *ip4, *IpAddr::parse(c.dst), c.srcPort, c.dstPort})
           : prependUdp6Frame(*pkt, {dst, src, *Ip6Addr::parse(c.src), *Ip6Addr::parse(c.dst),
                                     c.srcPort, c.dstPort}))
      return bytesOf(*pkt);
   EXPECT_EQ(bytesOf(*pkt), payload);
   return {};
}

// Each frame located (link padding is no part of the datagram), built up to the longest
// payload, and fixed after its payload was edited in place: a byte shorter, five longer, then
// as it was. Frames cut short are the locator fuzz corpus's to check, for every cut.
TEST(FrameTest, KnownGoodFramesLocateBuildAndFix) {
   for (const KnownGood& c : kKnownGood) {
      const Bytes frame = hex(c.frame);
      for (const Bytes& f : {frame, frame + Bytes(18, 0)}) {
         const FrameLayout at = locateFrame(f);
         ASSERT_TRUE(at) << frameErrorText(at.error);
         EXPECT_EQ(std::tuple(at.l3, at.udp, at.payload, at.datagramEnd(), at.srcPort, at.dstPort),
                   std::tuple(c.l3, c.udp, c.udp + 8, frame.size(), c.srcPort, c.dstPort))
             << c.frame;
         EXPECT_TRUE(frameChecksumsOk(f, at));
      }

      const FrameLayout at = locateFrame(frame);
      const Bytes payload(frame.begin() + static_cast<ptrdiff_t>(at.payload), frame.end());
      if (c.ours) {
         EXPECT_EQ(built(c, payload), frame);
         // IPv4's total length counts its own header and UDP's, IPv6's only UDP's.
         const size_t longest = 0xffff - (at.ipv6 ? 8 : 28);
         EXPECT_FALSE(built(c, Bytes(longest, 1)).empty());
         EXPECT_TRUE(built(c, Bytes(longest + 1, 1)).empty());
      }
      auto pkt = Pkt::copyOf(frame);
      for (size_t n : {payload.size() - 1, payload.size() + 5, payload.size()}) {
         Bytes edited = payload;
         edited.resize(n, '+');
         pkt->shrinkTail(pkt->bytes() - at.payload);
         pkt->growTail(n);
         pkt->write(at.payload, edited);
         ASSERT_TRUE(fixUdpFrame(pkt->span(), at));
         const FrameLayout again = locateFrame(pkt->span());
         EXPECT_EQ(again.payloadBytes, n);
         EXPECT_TRUE(frameChecksumsOk(pkt->span(), again)) << c.frame << " " << n;
      }
      EXPECT_EQ(bytesOf(*pkt), frame);
   }
}

Bytes with(Bytes frame, size_t off, uint16_t v, bool wide = true) {
   if (wide)
      frame[off++] = static_cast<uint8_t>(v >> 8);
   frame[off] = static_cast<uint8_t>(v);
   return frame;
}

TEST(FrameTest, JudgesBrokenFrames) {
   const Bytes v4 = hex(kKnownGood[0].frame);  // IP total length 33, UDP length 13
   const Bytes v6 = hex(kKnownGood[2].frame);  // payload and UDP length 17
   constexpr size_t ip = EthLayout::header;
   constexpr size_t udp4 = ip + Ipv4Layout::header, udp6 = ip + Ipv6Layout::header;
   constexpr size_t ihl = ip + Ipv4Layout::versionIhl, total = ip + Ipv4Layout::totalLength;
   constexpr size_t plen = ip + Ipv6Layout::payloadLength;
   const struct {
      const char* name;
      Bytes frame;
      FrameError error;
      bool checksumsOk = false;
   } cases[] = {
       {"ARP", eth(0x0806) + ipv4(kUdp, 68, 67, 1), FrameError::notIp},
       {"2 tags", eth(kIpv4, {0x8100000a, 0x8100000b}) + ipv4(kUdp, 68, 67, 1), FrameError::notIp},
       {"v6 type, v4 packet", eth(kIpv6) + ipv4(kUdp, 68, 67, 1), FrameError::notIp},
       {"v4 type, v6 packet", eth(kIpv4) + ipv6(kUdp, 546, 547, 1), FrameError::notIp},
       {"TCP", eth(kIpv4) + ipv4(6, 68, 67, 1), FrameError::notUdp},
       {"first fragment", eth(kIpv4) + ipv4(kUdp, 68, 67, 1, 0, 0x2000), FrameError::fragment},
       {"later fragment", eth(kIpv4) + ipv4(kUdp, 68, 67, 1, 0, 0x0010), FrameError::fragment},
       {"v6 fragment", eth(kIpv6) + ipv6(44, 546, 547, 1), FrameError::fragment},
       {"v6 extension header", eth(kIpv6) + ipv6(0, 546, 547, 1), FrameError::notUdp},
       {"IHL 4", with(v4, ihl, 0x44, false), FrameError::badHeaderLength},
       {"IHL past total", with(v4, total, 19), FrameError::badHeaderLength},
       {"no room for UDP", with(v4, total, 27), FrameError::badLength},
       {"total past frame", with(v4, total, 34), FrameError::tooShort},
       {"UDP shorter than IP", with(v4, udp4 + UdpLayout::length, 12), FrameError::badLength},
       {"UDP longer than IP", with(v4, udp4 + UdpLayout::length, 14), FrameError::badLength},
       {"jumbogram", with(v6, plen, 0), FrameError::badLength},
       {"v6 payload past frame", with(v6, plen, 18), FrameError::tooShort},
       {"UDP not v6 payload", with(v6, udp6 + UdpLayout::length, 16), FrameError::badLength},
       {"v4 payload damaged", with(v4, v4.size() - 1, 'R', false), FrameError::none},
       {"v4 TTL damaged", with(v4, ip + Ipv4Layout::ttl, 63, false), FrameError::none},
       {"v4 without UDP checksum", with(v4, udp4 + UdpLayout::checksum, 0), FrameError::none, true},
       {"v6 payload damaged", with(v6, v6.size() - 1, 'R', false), FrameError::none},
       {"v6 without UDP checksum", with(v6, udp6 + UdpLayout::checksum, 0), FrameError::none},
   };
   for (const auto& c : cases) {
      const FrameLayout at = locateFrame(c.frame);
      EXPECT_EQ(at.error, c.error) << c.name;
      EXPECT_EQ(frameChecksumsOk(c.frame, at), c.checksumsOk) << c.name;
   }
}

// Neighbour discovery as the DHCPv6 load tool answers it, crafted with scapy: Ether()/
// IPv6(hlim=255)/ICMPv6ND_NA(S=1, O=1)/ICMPv6NDOptDstLLAddr(), and a tagged ICMPv6ND_NS with
// its source link-layer address option.
const char kNeighborAdvert[] =
    "02000000000a02000000000b86dd6000000000203afffe80000000000000004c47fffe000001fe800000000000"
    "00000000000000000188008b7a60000000fe80000000000000004c47fffe000001020102000000000b";
const char kTaggedNeighborSolicit[] =
    "3333ff00000102000000000a8100000a86dd6000000000203afffe800000000000000000000000000001ff0200"
    "000000000000000001ff0000018700344400000000fe80000000000000004c47fffe000001010102000000000a";

TEST(FrameTest, Icmp6FramesLocateAndBuild) {
   const Bytes na = hex(kNeighborAdvert), ns = hex(kTaggedNeighborSolicit);
   constexpr size_t plen = EthLayout::header + Ipv6Layout::payloadLength;
   using Where = std::optional<std::tuple<size_t, size_t, size_t>>;
   const struct {
      const char* name;
      Bytes frame;
      Where where;
   } cases[] = {
       {"advertisement", na, std::tuple(14, 54, 32)},
       {"tagged solicitation, link padding", ns + Bytes(10, 0), std::tuple(18, 58, 32)},
       {"UDP", hex(kKnownGood[2].frame), std::nullopt},
       {"IPv4 type", with(na, EthLayout::type, EthLayout::typeIpv4), std::nullopt},
       {"checksum damaged", with(na, na.size() - 1, 0x0c, false), std::nullopt},
       {"payload past frame", with(na, plen, 33), std::nullopt},
       {"cut in the IPv6 header", Bytes(na.begin(), na.begin() + 50), std::nullopt},
   };
   for (const auto& c : cases) {
      const auto at = locateIcmp6(c.frame);
      EXPECT_EQ(at ? Where(std::tuple(at->l3, at->message, at->bytes)) : std::nullopt, c.where)
          << c.name;
   }

   // The builder computes the checksum whatever the message's field holds.
   Bytes message(na.begin() + kIcmp6FrameHeaders, na.end());
   message[Icmp6Layout::checksum] = message[Icmp6Layout::checksum + 1] = 0xee;
   const Icmp6Frame fields{EthAddr({0x02, 0, 0, 0, 0, 0x0a}), EthAddr({0x02, 0, 0, 0, 0, 0x0b}),
                           *Ip6Addr::parse("fe80::4c:47ff:fe00:1"), *Ip6Addr::parse("fe80::1")};
   for (const Bytes& m : {message, Bytes(3, 0), Bytes(0x10000, 0)}) {
      auto pkt = Pkt::copyOf(m, kIcmp6FrameHeaders);
      const bool built = prependIcmp6Frame(*pkt, fields);
      EXPECT_EQ(built, m.size() == message.size()) << m.size();
      EXPECT_EQ(bytesOf(*pkt), built ? na : m);
   }
}

// The whole walk as one line: every item as tag@offset/length=value bytes, then how it
// stopped and where, then a second `next` to show the stop is sticky.
template <class Format>
std::string walk(const std::vector<uint8_t>& bytes, size_t base = 0) {
   TlvWalker<Format> walker(bytes, base);
   std::string out;
   Tlv tlv;
   TlvStep step;
   while ((step = walker.next(tlv)) == TlvStep::Item) {
      out += std::to_string(tlv.tag) + "@" + std::to_string(tlv.offset) + "/" +
             std::to_string(tlv.length) + "=";
      for (uint8_t b : tlv.value)
         out += std::to_string(b) + ".";
      out += " ";
   }
   static constexpr const char* names[] = {"item", "end", "eod", "malformed"};
   out += names[static_cast<int>(step)];
   out += "@" + std::to_string(walker.stopOffset());
   if (walker.next(tlv) != step)
      out += " not sticky";
   return out;
}

constexpr auto opt = walk<Dhcp4OptionFormat>;
constexpr auto sub = walk<Dhcp4SubOptionFormat>;
constexpr auto opt6 = walk<Dhcp6OptionFormat>;

// DHCPv4 options have pad and end; their sub-options have neither, so 0 and 255 are ordinary
// codes there; DHCPv6 options have two-byte tags and lengths, big-endian.
TEST(TlvWalkerTest, WalksEachFormatToItsExactEnd) {
   const struct {
      const char* name;
      std::string (*walk)(const std::vector<uint8_t>&, size_t);
      std::vector<uint8_t> bytes;
      const char* expected;
      size_t base = 0;
   } cases[] = {
       {"empty", opt, {}, "eod@0"},
       {"pads only", opt, {0, 0, 0}, "eod@3"},
       {"end right away, bytes after it ignored", opt, {255, 53, 9}, "end@0"},
       {"pads skipped, offsets count them", opt, {0, 53, 1, 3, 0, 255}, "53@1/1=3. end@5"},
       {"offsets carry the base", opt, {0, 53, 1, 3, 255}, "53@241/1=3. end@244", 240},
       {"duplicates kept in wire order",
        opt,
        {54, 1, 7, 54, 2, 8, 9, 255},
        "54@0/1=7. 54@3/2=8.9. end@7"},
       {"zero-length option", opt, {80, 0, 255}, "80@0/0= end@2"},
       {"no end option", opt, {53, 1, 1}, "53@0/1=1. eod@3"},
       {"length runs one past the end", opt, {53, 1, 1, 54, 4, 1, 2, 3}, "53@0/1=1. malformed@3"},
       {"tag without its length byte", opt, {53, 1, 1, 54}, "53@0/1=1. malformed@3"},
       {"length 255 with nothing after it", opt, {82, 255}, "malformed@0"},
       {"sub-options: 0 and 255 are codes", sub, {0, 1, 7, 255, 0}, "0@0/1=7. 255@3/0= eod@5"},
       {"sub-options: a lone 0 is a cut-short item", sub, {1, 1, 9, 0}, "1@0/1=9. malformed@3"},
       {"sub-options: length past the end", sub, {1, 3, 9, 9}, "malformed@0"},
       {"v6: two items",
        opt6,
        {0x01, 0x02, 0x00, 0x02, 7, 8, 0x00, 0x00, 0x00, 0x00},
        "258@0/2=7.8. 0@6/0= eod@10"},
       {"v6: half a tag", opt6, {0x00, 0x01, 0x00, 0x00, 0x01}, "1@0/0= malformed@4"},
       {"v6: half a length", opt6, {0x00, 0x01, 0x00}, "malformed@0"},
       {"v6: length counts 256 and up", opt6, {0x00, 0x01, 0x01, 0x00, 1}, "malformed@0"},
   };
   for (const auto& c : cases)
      EXPECT_EQ(c.walk(c.bytes, c.base), c.expected) << c.name;
}

}  // namespace
}  // namespace Codec
