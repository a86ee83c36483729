#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <set>
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
      SCOPED_TRACE("input \"" + std::string(text) + "\"");
      const std::optional<T> parsed = T::parse(text);
      if (!parsed) {
         ADD_FAILURE() << "refused";
         continue;
      }
      EXPECT_EQ(parsed->toString(), printed);
      const std::optional<T> again = T::parse(parsed->toString());
      if (!again) {
         ADD_FAILURE() << "printed form refused";
         continue;
      }
      EXPECT_EQ(*again, *parsed);
      EXPECT_EQ(std::hash<T>{}(*again), std::hash<T>{}(*parsed));
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

TEST(IpAddrTest, ParseAndPrint) {
   checkParse<IpAddr>({{"10.0.0.1", "10.0.0.1"},
                       {"0.0.0.0", "0.0.0.0"},
                       {"255.255.255.255", "255.255.255.255"},
                       {"192.168.100.200", "192.168.100.200"}},
                      {"", "10.0.0", "10.1", "10.0.0.1.5", "10.0.0.256", "010.0.0.1", " 10.0.0.1",
                       "10.0.0.1 ", "10.0.0.1/24", "::1", "1111111111111111.1"});
}

TEST(IpAddrTest, ByteOrderAndOrdering) {
   const IpAddr a = ip("10.1.2.3");
   EXPECT_EQ(a.value(), 0x0a010203u);
   EXPECT_EQ(a.toNetwork(), htonl(0x0a010203u));
   EXPECT_EQ(IpAddr::fromNetwork(htonl(0x0a010203u)), a);
   EXPECT_TRUE(IpAddr::ipAddrZero().isZero());
   EXPECT_FALSE(a.isZero());
   EXPECT_EQ(IpAddr::broadcast(), ip("255.255.255.255"));
   // Numeric, not textual, order.
   EXPECT_LT(ip("9.0.0.0"), ip("10.0.0.0"));
   EXPECT_LT(ip("10.0.0.255"), ip("10.0.1.0"));
}

TEST(IpAddrWithMaskTest, ParseAndPrint) {
   checkParse<IpAddrWithMask>(
       {{"10.0.0.1/24", "10.0.0.1/24"},
        {"0.0.0.0/0", "0.0.0.0/0"},
        {"10.0.0.1/32", "10.0.0.1/32"},
        {"10.0.0.1/024", "10.0.0.1/24"}},
       {"10.0.0.1", "10.0.0.1/", "/24", "10.0.0.1/33", "10.0.0.1/-1", "10.0.0.1/+8", "10.0.0.1/2x",
        "10.0.0.1/24/8", "10.0.0.1/0008", "10.0.0/8"});
}

TEST(IpAddrWithMaskTest, SubnetContainsAndOrder) {
   const auto any = ipm("10.1.2.3/0");
   EXPECT_EQ(any.subnet(), IpAddr::ipAddrZero());
   EXPECT_TRUE(any.contains(ip("255.255.255.255")));
   EXPECT_TRUE(any.contains(ip("0.0.0.0")));

   const auto host = ipm("10.1.2.3/32");
   EXPECT_EQ(host.subnet(), ip("10.1.2.3"));
   EXPECT_TRUE(host.contains(ip("10.1.2.3")));
   EXPECT_FALSE(host.contains(ip("10.1.2.2")));

   const auto net = ipm("10.1.2.3/23");
   EXPECT_EQ(net.address(), ip("10.1.2.3"));
   EXPECT_EQ(net.maskLen(), 23);
   EXPECT_EQ(net.mask(), ip("255.255.254.0"));
   EXPECT_EQ(net.subnet(), ip("10.1.2.0"));
   EXPECT_TRUE(net.contains(ip("10.1.3.255")));
   EXPECT_FALSE(net.contains(ip("10.1.4.0")));
   EXPECT_FALSE(net.contains(ip("10.1.1.255")));

   // Ordered by address first, then by mask length.
   EXPECT_LT(ipm("10.0.0.1/8"), ipm("10.0.0.1/24"));
   EXPECT_LT(ipm("10.0.0.1/24"), ipm("10.0.0.2/8"));
}

TEST(Ip6AddrTest, ParseAndPrint) {
   checkParse<Ip6Addr>(
       {{"2001:db8::1", "2001:db8::1"},
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        {"::", "::"},
        {"fe80::1", "fe80::1"},
        {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
        {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"}},
       {"", "2001:db8::1::2", "2001:db8::g", "1:2:3:4:5:6:7:8:9", "10.0.0.1", "fe80::1%eth0",
        "2001:db8::/32", "2001:0db8:0000:0000:0000:0000:0000:0000:0001:0002"});
}

TEST(Ip6AddrTest, Classification) {
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
      SCOPED_TRACE(std::string(r.text));
      const Ip6Addr a = ip6(r.text);
      EXPECT_EQ(a.isZero(), r.zero);
      EXPECT_EQ(a.isLinkLocal(), r.linkLocal);
      EXPECT_EQ(a.isMulticast(), r.multicast);
      EXPECT_EQ(a.isGlobalUnicast(), r.global);
   }
   EXPECT_LT(ip6("2001:db8::1"), ip6("2001:db8::2"));
   EXPECT_LT(ip6("::ffff"), ip6("1::"));
}

TEST(Ip6PrefixTest, ParseAndPrint) {
   checkParse<Ip6Prefix>({{"2001:db8::/32", "2001:db8::/32"},
                          {"::/0", "::/0"},
                          {"2001:db8::1/128", "2001:db8::1/128"},
                          {"2001:db8::1/64", "2001:db8::1/64"}},
                         {"2001:db8::", "2001:db8::/", "/64", "2001:db8::/129", "2001:db8::/1280",
                          "2001:db8::/6 4", "10.0.0.0/8"});
}

TEST(Ip6PrefixTest, ContainsAtByteAndBitBoundaries) {
   EXPECT_TRUE(ip6p("::/0").contains(ip6("ffff::1")));
   EXPECT_TRUE(ip6p("2001:db8::1/128").contains(ip6("2001:db8::1")));
   EXPECT_FALSE(ip6p("2001:db8::1/128").contains(ip6("2001:db8::")));

   const auto p = ip6p("2001:db8:0:1:8000::/65");
   EXPECT_EQ(p.len(), 65);
   EXPECT_TRUE(p.contains(ip6("2001:db8:0:1:ffff::1")));
   EXPECT_FALSE(p.contains(ip6("2001:db8:0:1:7fff::1")));
   EXPECT_FALSE(p.contains(ip6("2001:db8:0:2:8000::")));

   EXPECT_TRUE(ip6p("fe80::/10").contains(ip6("febf::1")));
   EXPECT_FALSE(ip6p("fe80::/10").contains(ip6("fec0::1")));
   EXPECT_TRUE(ip6p("2001:db8::/32").contains(ip6("2001:db8:ffff::")));
   EXPECT_FALSE(ip6p("2001:db8::/32").contains(ip6("2001:db9::")));
}

TEST(IpGenAddrTest, ParseAndPrint) {
   checkParse<IpGenAddr>({{"", ""},
                          {"10.0.0.1", "10.0.0.1"},
                          {"2001:db8::1", "2001:db8::1"},
                          {"::ffff:10.0.0.1", "::ffff:10.0.0.1"}},
                         {"10.0.0.1:", "10.0.0.1/24", "host.example", "::g", " "});
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
}

TEST(EthAddrTest, ParseAndPrint) {
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

TEST(NameTest, ParseAndPrint) {
   const std::string vrf100(100, 'v');
   const std::string vrf101(101, 'v');
   checkParse<VrfName>({{"default", "default"}, {"red", "red"}, {"", ""}, {vrf100, vrf100}},
                       {vrf101});
   const std::string ns150(150, 'n');
   const std::string ns151(151, 'n');
   checkParse<NamespaceName>({{"ns-red", "ns-red"}, {ns150, ns150}}, {ns151});
}

TEST(NameTest, OverLongConstructionThrowsItsOwnText) {
   auto thrown = [](auto construct) {
      try {
         construct();
      } catch (const std::range_error& e) {
         return std::string(e.what());
      }
      return std::string("no exception");
   };
   EXPECT_NO_THROW(VrfName(std::string(100, 'v')));
   EXPECT_EQ(thrown([] { VrfName(std::string(101, 'v')); }),
             "VrfName::bytes > VrfName::maxLength not allowed");
   EXPECT_NO_THROW(NamespaceName(std::string(150, 'n')));
   EXPECT_EQ(thrown([] { NamespaceName(std::string(151, 'n')); }),
             "NamespaceName::bytes > 150 not allowed");
}

TEST(NameTest, OnlyTheNameDefaultIsTheDefaultVrf) {
   EXPECT_EQ(VrfName::defaultVrf(), VrfName("default"));
   EXPECT_TRUE(VrfName("default").isDefault());
   EXPECT_FALSE(VrfName().isDefault());
   EXPECT_FALSE(VrfName("red").isDefault());
}

TEST(IntfIdTest, ParseAndPrint) {
   const std::string long64(64, 'E');
   const std::string long65(65, 'E');
   checkParse<IntfId>({{"Ethernet1", "Ethernet1"},
                       {"Ethernet1/1", "Ethernet1/1"},
                       {"Port-Channel5", "Port-Channel5"},
                       {"Vlan10", "Vlan10"},
                       {"Loopback0", "Loopback0"},
                       {"Management1.100", "Management1.100"},
                       {"et_1", "et_1"},
                       {long64, long64}},
                      {"", long65, "Ethernet 1", "Ethernet1:1", "Ethernet1\n", "Eth\xc3\xa9rnet",
                       std::string_view("Eth\0x", 5)});
   EXPECT_TRUE(IntfId().empty());
}

TEST(IntfIdTest, VlanIds) {
   for (uint16_t id : {1, 10, 4094})
      EXPECT_EQ(IntfId::vlan(id).vlanId(), id);
   EXPECT_EQ(IntfId::vlan(10), IntfId("Vlan10"));
   for (std::string_view name : {"Vlan0", "Vlan4095", "Vlan65536", "Vlan010", "Vlan", "vlan10",
                                 "Vlan10.5", "Vlan-1", "Ethernet10"}) {
      EXPECT_EQ(IntfId(name).vlanId(), std::nullopt) << name;
   }
}

TEST(ValueTypeTest, UsableAsOrderedAndHashedKeys) {
   // Interface ids of different lengths must order as strings do, whatever is stored
   // past the name.
   std::set<IntfId> ordered{IntfId("Ethernet2"), IntfId("Ethernet10"), IntfId("Ethernet1")};
   std::string names;
   for (const auto& i : ordered)
      names += i.toString() + " ";
   EXPECT_EQ(names, "Ethernet1 Ethernet10 Ethernet2 ");

   std::unordered_set<IpGenAddr> addrs{ip("10.0.0.1"), ip("10.0.0.1"), ip6("::1"), IpGenAddr()};
   EXPECT_EQ(addrs.size(), 3u);
}

}  // namespace
}  // namespace Platform
