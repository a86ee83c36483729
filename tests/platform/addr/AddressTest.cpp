#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpAddr.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/addr/PrefixTrie.h"
#include "platform/addr/VrfName.h"

namespace Platform {
namespace {

// Each accepted text must print as given, and parse back from its printed form to an
// equal value with an equal hash: configuration round trips and hashed tables rely on
// both. Each rejected text must be refused.
template <class T>
void checkParse(std::initializer_list<std::pair<std::string_view, std::string_view>> accepted,
                std::initializer_list<std::string_view> rejected) {
   for (const auto& [text, printed] : accepted) {
      const std::optional<T> parsed = T::parse(text);
      ASSERT_TRUE(parsed) << "\"" << text << "\" refused";
      EXPECT_EQ(parsed->toString(), printed);
      const std::optional<T> again = T::parse(printed);
      ASSERT_TRUE(again) << "printed form \"" << printed << "\" refused";
      EXPECT_EQ(*again, *parsed) << text;
      EXPECT_EQ(std::hash<T>{}(*again), std::hash<T>{}(*parsed)) << text;
   }
   for (const auto& text : rejected) {
      const std::optional<T> parsed = T::parse(text);
      EXPECT_FALSE(parsed) << "\"" << text << "\" accepted as " << parsed->toString();
   }
}

IpAddr ip(std::string_view s) {
   return IpAddr::parse(s).value();
}
Ip6Addr ip6(std::string_view s) {
   return Ip6Addr::parse(s).value();
}
IpAddrWithMask ipm(std::string_view s) {
   return IpAddrWithMask::parse(s).value();
}
Ip6Prefix ip6p(std::string_view s) {
   return Ip6Prefix::parse(s).value();
}

TEST(AddressTest, ParseAndPrint) {
   checkParse<IpAddr>({{"10.0.0.1", "10.0.0.1"},
                       {"0.0.0.0", "0.0.0.0"},
                       {"255.255.255.255", "255.255.255.255"},
                       {"192.168.100.200", "192.168.100.200"}},
                      {"", "10.0.0", "10.1", "10.0.0.1.5", "10.0.0.256", "010.0.0.1", " 10.0.0.1",
                       "10.0.0.1 ", "10.0.0.1/24", "::1", "1111111111111111.1"});
   checkParse<IpAddrWithMask>(
       {{"10.0.0.1/24", "10.0.0.1/24"},
        {"0.0.0.0/0", "0.0.0.0/0"},
        {"10.0.0.1/32", "10.0.0.1/32"},
        {"10.0.0.1/024", "10.0.0.1/24"}},
       {"10.0.0.1", "10.0.0.1/", "/24", "10.0.0.1/33", "10.0.0.1/-1", "10.0.0.1/+8", "10.0.0.1/2x",
        "10.0.0.1/24/8", "10.0.0.1/0008", "10.0.0/8"});
   checkParse<Ip6Addr>(
       {{"2001:db8::1", "2001:db8::1"},
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        {"::", "::"},
        {"fe80::1", "fe80::1"},
        {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
        {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"}},
       {"", "2001:db8::1::2", "2001:db8::g", "1:2:3:4:5:6:7:8:9", "10.0.0.1", "fe80::1%eth0",
        "2001:db8::/32", "2001:0db8:0000:0000:0000:0000:0000:0000:0001:0002"});
   checkParse<Ip6Prefix>({{"2001:db8::/32", "2001:db8::/32"},
                          {"::/0", "::/0"},
                          {"2001:db8::1/128", "2001:db8::1/128"},
                          {"2001:db8::1/64", "2001:db8::1/64"}},
                         {"2001:db8::", "2001:db8::/", "/64", "2001:db8::/129", "2001:db8::/1280",
                          "2001:db8::/6 4", "10.0.0.0/8"});
   checkParse<IpGenAddr>({{"", ""},
                          {"10.0.0.1", "10.0.0.1"},
                          {"2001:db8::1", "2001:db8::1"},
                          {"::ffff:10.0.0.1", "::ffff:10.0.0.1"}},
                         {"10.0.0.1:", "10.0.0.1/24", "host.example", "::g", " "});
   checkParse<EthAddr>({{"00:1c:73:aa:bb:cc", "00:1c:73:aa:bb:cc"},
                        {"00:1C:73:AA:bb:Cc", "00:1c:73:aa:bb:cc"},
                        {"001c.73aa.bbcc", "00:1c:73:aa:bb:cc"},
                        {"001C.73AA.BBCC", "00:1c:73:aa:bb:cc"},
                        {"ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"}},
                       {"", "00:1c:73:aa:bb", "00:1c:73:aa:bb:cc:dd", "0:1c:73:aa:bb:cc",
                        "00:1c:73:aab:b:cc", "00-1c-73-aa-bb-cc", "00:1c:73:aa:bb:cg",
                        "001c:73aa:bbcc", "001c.73aa.bbc", "001c.73aa.bbcc.", "001c73.aabbcc"});
   EXPECT_TRUE(EthAddr().isZero() && !EthAddr().isBroadcast());
   EXPECT_TRUE(EthAddr::parse("ff:ff:ff:ff:ff:ff")->isBroadcast());
   EXPECT_FALSE(EthAddr::parse("00:00:00:00:00:01")->isZero());
}

TEST(AddressTest, ByteOrderAndOrdering) {
   const IpAddr a = ip("10.1.2.3");
   EXPECT_EQ(a.value(), 0x0a010203u);
   EXPECT_EQ(a.toNetwork(), htonl(0x0a010203u));
   EXPECT_EQ(IpAddr::fromNetwork(htonl(0x0a010203u)), a);
   EXPECT_TRUE(IpAddr::ipAddrZero().isZero() && !a.isZero());
   EXPECT_EQ(IpAddr::broadcast(), ip("255.255.255.255"));
   // Numeric, not textual, order; with a mask by address first, then by mask length.
   EXPECT_LT(ip("9.0.0.0"), ip("10.0.0.0"));
   EXPECT_LT(ip("10.0.0.255"), ip("10.0.1.0"));
   EXPECT_LT(ipm("10.0.0.1/8"), ipm("10.0.0.1/24"));
   EXPECT_LT(ipm("10.0.0.1/24"), ipm("10.0.0.2/8"));
   EXPECT_LT(ip6("2001:db8::1"), ip6("2001:db8::2"));
   EXPECT_LT(ip6("::ffff"), ip6("1::"));

   const auto net = ipm("10.1.2.3/23");
   EXPECT_EQ(net.mask(), ip("255.255.254.0"));
   EXPECT_EQ(net.subnet(), ip("10.1.2.0"));
   EXPECT_EQ(ipm("10.1.2.3/0").subnet(), IpAddr::ipAddrZero());
   EXPECT_EQ(ipm("10.1.2.3/32").subnet(), ip("10.1.2.3"));
}

// At the ends of the mask range and on both sides of byte and bit boundaries.
TEST(AddressTest, SubnetsContainExactlyTheirAddresses) {
   struct Case {
      std::string_view prefix, address;
      bool contained;
   };
   for (const Case& c : std::initializer_list<Case>{
            {"10.1.2.3/0", "255.255.255.255", true},
            {"10.1.2.3/0", "0.0.0.0", true},
            {"10.1.2.3/32", "10.1.2.3", true},
            {"10.1.2.3/32", "10.1.2.2", false},
            {"10.1.2.3/23", "10.1.3.255", true},
            {"10.1.2.3/23", "10.1.4.0", false},
            {"10.1.2.3/23", "10.1.1.255", false},
            {"::/0", "ffff::1", true},
            {"2001:db8::1/128", "2001:db8::1", true},
            {"2001:db8::1/128", "2001:db8::", false},
            {"2001:db8:0:1:8000::/65", "2001:db8:0:1:ffff::1", true},
            {"2001:db8:0:1:8000::/65", "2001:db8:0:1:7fff::1", false},
            {"2001:db8:0:1:8000::/65", "2001:db8:0:2:8000::", false},
            {"fe80::/10", "febf::1", true},
            {"fe80::/10", "fec0::1", false},
            {"2001:db8::/32", "2001:db8:ffff::", true},
            {"2001:db8::/32", "2001:db9::", false},
        }) {
      const bool v6 = c.prefix.find(':') != std::string_view::npos;
      EXPECT_EQ(
          v6 ? ip6p(c.prefix).contains(ip6(c.address)) : ipm(c.prefix).contains(ip(c.address)),
          c.contained)
          << c.prefix << " " << c.address;
   }
}

TEST(AddressTest, Ip6Classification) {
   struct Row {
      std::string_view text;
      bool zero, linkLocal, multicast, global;
   };
   for (const Row& r : std::initializer_list<Row>{{"::", true, false, false, false},
                                                  {"::1", false, false, false, false},
                                                  {"fe80::1", false, true, false, false},
                                                  {"febf:ffff::1", false, true, false, false},
                                                  {"fec0::1", false, false, false, true},
                                                  {"ff02::1:2", false, false, true, false},
                                                  {"2001:db8::1", false, false, false, true},
                                                  {"fd00::1", false, false, false, true}}) {
      const Ip6Addr a = ip6(r.text);
      EXPECT_EQ(
          std::vector<bool>({a.isZero(), a.isLinkLocal(), a.isMulticast(), a.isGlobalUnicast()}),
          std::vector<bool>({r.zero, r.linkLocal, r.multicast, r.global}))
          << r.text;
   }
}

TEST(IpGenAddrTest, FamiliesAndOrdering) {
   const IpGenAddr none;
   const IpGenAddr v4 = ip("10.0.0.1");
   const IpGenAddr v6 = ip6("::1");
   EXPECT_TRUE(none.isEmpty());
   EXPECT_FALSE(none.isV4() || none.isV6());
   EXPECT_TRUE(v4.isV4());
   EXPECT_EQ(v4.v4(), ip("10.0.0.1"));
   EXPECT_TRUE(v6.isV6());
   EXPECT_EQ(v6.v6(), ip6("::1"));
   // The same 32 bits in the other family are a different address.
   EXPECT_NE(IpGenAddr(ip("0.0.0.1")), IpGenAddr(ip6("::1")));
   EXPECT_NE(none, IpGenAddr(IpAddr::ipAddrZero()));
   EXPECT_LT(none, v4);
   EXPECT_LT(IpGenAddr(IpAddr::broadcast()), IpGenAddr(Ip6Addr()));
   EXPECT_DEATH(none.v4(), "IpGenAddr::v4 on an address that is not IPv4");
   EXPECT_DEATH(v4.v6(), "IpGenAddr::v6 on an address that is not IPv6");
   EXPECT_EQ((std::unordered_set<IpGenAddr>{v4, ip("10.0.0.1"), v6, none}.size()), 3u);
}

// Names have a length limit each; construction past it throws its own text.
TEST(NameTest, ParseAndPrintWithinTheirLimits) {
   const std::string long64(64, 'E');
   checkParse<IntfId>({{"Ethernet1", "Ethernet1"},
                       {"Ethernet1/1", "Ethernet1/1"},
                       {"Port-Channel5", "Port-Channel5"},
                       {"Management1.100", "Management1.100"},
                       {"et_1", "et_1"},
                       {long64, long64}},
                      {"", long64 + "E", "Ethernet 1", "Ethernet1:1", "Ethernet1\n",
                       "Eth\xc3\xa9rnet", std::string_view("Eth\0x", 5)});
   const std::string vrf100(100, 'v');
   checkParse<VrfName>({{"default", "default"}, {"red", "red"}, {"", ""}, {vrf100, vrf100}},
                       {vrf100 + "v"});
   const std::string ns150(150, 'n');
   checkParse<NamespaceName>({{"ns-red", "ns-red"}, {ns150, ns150}}, {ns150 + "n"});

   EXPECT_NO_THROW(VrfName{vrf100});
   EXPECT_THROW(VrfName{vrf100 + "v"}, std::range_error);
   EXPECT_NO_THROW(NamespaceName{ns150});
   EXPECT_THROW(NamespaceName{ns150 + "n"}, std::range_error);

   // Only the name "default" is the default VRF.
   EXPECT_EQ(VrfName::defaultVrf(), VrfName("default"));
   EXPECT_TRUE(VrfName("default").isDefault());
   EXPECT_FALSE(VrfName().isDefault() || VrfName("red").isDefault());
   EXPECT_TRUE(IntfId().empty());
   // Interface ids of different lengths order as strings do, whatever is stored past the name.
   EXPECT_LT(IntfId("Ethernet1"), IntfId("Ethernet10"));
   EXPECT_LT(IntfId("Ethernet10"), IntfId("Ethernet2"));

   for (uint16_t id : {1, 10, 4094})
      EXPECT_EQ(IntfId::vlan(id).vlanId(), id);
   EXPECT_EQ(IntfId::vlan(10), IntfId("Vlan10"));
   for (std::string_view name : {"Vlan0", "Vlan4095", "Vlan65536", "Vlan010", "Vlan", "vlan10",
                                 "Vlan10.5", "Vlan-1", "Ethernet10"}) {
      EXPECT_EQ(IntfId(name).vlanId(), std::nullopt) << name;
   }
}

// Host bits do not matter: 10.1.2.77/24 is 10.1.2.0/24. Removal keeps the other prefixes,
// whether the removed one lies on their path or is a leaf, and churn leaves the trie as good
// as new.
TEST(PrefixTrieTest, LongestMatchAmongNestedPrefixesThroughInsertAndRemove) {
   PrefixTrie trie;
   EXPECT_FALSE(trie.longestMatch(ip("10.1.2.3")));
   EXPECT_TRUE(trie.insert(ipm("10.0.0.0/8")));
   EXPECT_TRUE(trie.insert(ipm("10.1.2.0/24")));
   EXPECT_FALSE(trie.insert(ipm("10.1.2.77/24")));
   EXPECT_TRUE(trie.insert(ipm("10.1.2.128/25")));
   EXPECT_TRUE(trie.insert(ipm("10.1.2.3/32")));
   EXPECT_EQ(trie.size(), 4u);
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.3")), ipm("10.1.2.3/32"));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.4")), ipm("10.1.2.0/24"));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.200")), ipm("10.1.2.128/25"));
   EXPECT_EQ(trie.longestMatch(ip("10.200.0.1")), ipm("10.0.0.0/8"));
   EXPECT_FALSE(trie.longestMatch(ip("11.0.0.1")));
   EXPECT_FALSE(trie.contains(ipm("10.1.0.0/16")));
   EXPECT_TRUE(trie.insert(ipm("0.0.0.0/0")));
   EXPECT_EQ(trie.longestMatch(ip("11.0.0.1")), ipm("0.0.0.0/0"));
   EXPECT_TRUE(trie.contains(ipm("0.0.0.0/0")));

   trie = PrefixTrie();
   trie.insert(ipm("10.1.2.0/24"));
   trie.insert(ipm("10.1.2.128/25"));
   trie.insert(ipm("10.1.0.0/16"));
   EXPECT_TRUE(trie.remove(ipm("10.1.2.0/24")));
   EXPECT_FALSE(trie.remove(ipm("10.1.2.0/24")));
   EXPECT_FALSE(trie.remove(ipm("10.1.3.0/24")));
   EXPECT_FALSE(trie.remove(ipm("0.0.0.0/0")));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.4")), ipm("10.1.0.0/16"));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.200")), ipm("10.1.2.128/25"));
   EXPECT_TRUE(trie.remove(ipm("10.1.2.128/25")));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.200")), ipm("10.1.0.0/16"));
   EXPECT_TRUE(trie.remove(ipm("10.1.0.0/16")));
   EXPECT_TRUE(trie.empty());
   EXPECT_FALSE(trie.longestMatch(ip("10.1.2.200")));
   for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(trie.insert(ipm("192.168.7.0/24")));
      ASSERT_TRUE(trie.insert(ipm("192.168.0.0/16")));
      ASSERT_EQ(trie.longestMatch(ip("192.168.7.9")), ipm("192.168.7.0/24"));
      ASSERT_TRUE(trie.remove(ipm("192.168.7.0/24")));
      ASSERT_EQ(trie.longestMatch(ip("192.168.7.9")), ipm("192.168.0.0/16"));
      ASSERT_TRUE(trie.remove(ipm("192.168.0.0/16")));
      ASSERT_FALSE(trie.longestMatch(ip("192.168.7.9")));
   }
}

}  // namespace
}  // namespace Platform
