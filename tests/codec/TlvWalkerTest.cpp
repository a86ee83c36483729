#include "codec/TlvWalker.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Codec {
namespace {

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
