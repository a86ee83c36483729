#include <gtest/gtest.h>

#include "tests/relay6/Relay6TestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::Ip6Addr;
using Platform::Ip6Prefix;

void put(Bytes& b, std::initializer_list<uint8_t> bytes) {
   b.insert(b.end(), bytes);
}
void putAddr(Bytes& b, const Ip6Addr& a) {
   b.insert(b.end(), a.bytes().begin(), a.bytes().end());
}
void putOption(Bytes& b, uint16_t code, const Bytes& data) {
   put(b, {uint8_t(code >> 8), uint8_t(code), uint8_t(data.size() >> 8), uint8_t(data.size())});
   b.insert(b.end(), data.begin(), data.end());
}
Bytes text(std::string_view s) {
   return Bytes(s.begin(), s.end());
}
// A Solicit with a client identifier.
Bytes solicit(uint8_t type = dhcp6Solicit) {
   Bytes b{type, 0x12, 0x34, 0x56};
   putOption(b, dhcp6OptClientId, {0, 3, 0, 1, 2, 0, 0, 0, 0, 0x42});
   return b;
}
Bytes relayMsg(uint8_t type, uint8_t hops, const Ip6Addr& link, const Ip6Addr& peer,
               const Bytes& inner, std::optional<std::string_view> interfaceId = {}) {
   Bytes b{type, hops};
   putAddr(b, link);
   putAddr(b, peer);
   if (interfaceId)
      putOption(b, dhcp6OptInterfaceId, text(*interfaceId));
   putOption(b, dhcp6OptRelayMsg, inner);
   return b;
}
// The kernel's answers without a kernel: a route to each server it knows, from `source`.
class TestRelay : public DhcpRelaySmv6 {
 public:
   using DhcpRelaySmv6::DhcpRelaySmv6;
   std::map<Ip6Addr, Platform::EgressRoute> routes;

 protected:
   std::optional<Platform::EgressRoute> egressRoute(DhcpVrfSmv6&, const Ip6Addr& server) override {
      auto it = routes.find(server);
      return it == routes.end() ? std::nullopt : std::optional(it->second);
   }
};

const Ip6Addr kClientLl = ip6("fe80::42");
const Ip6Addr kRelayGlobal = ip6("2001:db8:1::1");

class DhcpRelaySmv6Test : public testing::Test, public Relay6TestBed {
 protected:
   DhcpRelaySmv6Test() {
      bed.vrfIs("red", "ns-red", true);
      entityMib->systemMacAddrIs(mac(0x99));
   }
   // A relaying interface with its IPv6 addresses and kernel device in its VRF.
   Ptr<Ip6::IntfStatus> intfIs(const char* intf, const char* vrf, std::vector<const char*> addrs,
                               uint32_t ifindex) {
      auto status = ip6Status->intfIs(IntfId(intf));
      status->vrfIs(VrfName(vrf));
      for (const char* a : addrs)
         status->addrIs(*Ip6Prefix::parse(a));
      bed.device(bed.vrfs->vrf(VrfName(vrf))->nsName().str(), ifindex, intf)->upIs(true);
      return status;
   }
   void serverIs(const char* intf, const char* vrf, const char* addr, const char* src = "") {
      auto config = bed.config->intfConfigIs(IntfId(intf));
      config->serverIp6Is({VrfName(vrf), ip6(addr), IntfId(), src[0] ? ip6(src) : Ip6Addr()}, true);
      bed.activeVrfIs(vrf, 1);
   }
   void start() {
      sm = std::make_unique<TestRelay>(inputs());
      sm->handleInitialized();
   }
   Platform::UdpTestPam& udp(const char* vrf) {
      return *bed.pams.udp.at(std::string("UdpSocket-") + vrf);
   }
   void receive(const char* vrf, const Bytes& payload, const Ip6Addr& src, uint32_t ifindex,
                const Ip6Addr& dst = DhcpVrfSmv6::kAllRelayAgentsAndServers) {
      ASSERT_TRUE(udp(vrf).inject({Platform::Pkt::copyOf(payload), src, 547, dst, ifindex}));
   }
   uint64_t drops(DropReason r) const { return bed.status->drops(r); }
   // What `default`'s socket sent for one received message: nothing, with the drop counted,
   // when `dropped` names a reason.
   const Platform::UdpTestPam::Sent* relayed(const char* vrf, const Bytes& msg, const Ip6Addr& src,
                                             uint32_t ifindex, std::optional<DropReason> dropped) {
      udp("default").clearSent();
      const uint64_t before = dropped ? drops(*dropped) : 0;
      receive(vrf, msg, src, ifindex);
      if (dropped) {
         EXPECT_EQ(drops(*dropped), before + 1) << dropReasonName(*dropped);
         EXPECT_TRUE(udp("default").sent().empty());
         return nullptr;
      }
      EXPECT_EQ(udp("default").sent().size(), 1u) << vrf;
      return udp("default").sent().empty() ? nullptr : &udp("default").sent()[0];
   }

   std::unique_ptr<TestRelay> sm;
};

// The wire form of a Relay-Forw: header, the message in option 9, our Remote-Id right behind
// it, Interface-Id, and option 68 only on copies to servers in another VRF, which go last.
TEST_F(DhcpRelaySmv6Test, ClientMessageGoesUpWrappedToEveryServer) {
   intfIs("Ethernet1", "default", {"fe80::1/64", "2001:db8:1::1/64"}, 11);
   intfIs("Ethernet2", "default", {"2001:db8:2::1/64"}, 12);
   intfIs("Ethernet3", "red", {"2001:db8:3::1/64"}, 13);
   serverIs("Ethernet1", "red", "2001:db8:3::2");
   serverIs("Ethernet1", "default", "2001:db8:2::2", "2001:db8:2::1");
   serverIs("Ethernet1", "default", "ff05::1:3", "2001:db8:2::1");
   start();
   EXPECT_EQ(udp("default").mcastGroups().count({11, DhcpVrfSmv6::kAllRelayAgentsAndServers}), 1u);
   EXPECT_TRUE(bed.status->runControl());

   receive("default", solicit(), kClientLl, 11);
   const auto& same = udp("default").sent();
   const auto& cross = udp("red").sent();
   ASSERT_EQ(same.size(), 2u);
   ASSERT_EQ(cross.size(), 0u) << "no route socket in unit tests: no egress in red";
   EXPECT_EQ(drops(DropReason::noEgressRoute), 1u);
   // Source addresses name the link when configured; a multicast server gets the hop limit.
   for (const auto& [copy, dst, hops] :
        {std::tuple{same[0], ip6("2001:db8:2::2"), 0}, {same[1], ip6("ff05::1:3"), 32}}) {
      EXPECT_EQ(copy.dst, Platform::IpGenAddr(dst));
      EXPECT_EQ(copy.port, 547);
      EXPECT_EQ(copy.src, Platform::IpGenAddr(ip6("2001:db8:2::1")));
      Bytes expected;
      put(expected, {dhcp6RelayForw, uint8_t(hops)});
      putAddr(expected, ip6("2001:db8:2::1"));
      putAddr(expected, kClientLl);
      putOption(expected, dhcp6OptRelayMsg, solicit());
      const Platform::EthAddr system = mac(0x99);
      Bytes remoteId{0, 0, 0x7e, 0xd9, 0, 3, 0, 1};
      remoteId.insert(remoteId.end(), system.bytes().begin(), system.bytes().end());
      remoteId.resize(remoteId.size() + 8);  // the interface identifier, checked below
      putOption(expected, dhcp6OptRemoteId, remoteId);
      putOption(expected, dhcp6OptInterfaceId, text("Ethernet1:default"));
      ASSERT_EQ(copy.bytes.size(), expected.size());
      const long idAt = long(38 + solicit().size() + 4 + 14);  // the Remote-Id's identifier
      std::copy_n(copy.bytes.begin() + idAt, 8, expected.begin() + idAt);
      EXPECT_EQ(copy.bytes, expected);
   }
   EXPECT_EQ(bed.status->totalRequestsReceived(), 1u);
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 2u);

   // Copies the kernel refuses, heard of once the receive batch is over, are drops.
   udp("default").sendFailsIs(true);
   receive("default", solicit(), kClientLl, 11);
   EXPECT_EQ(drops(DropReason::sendFailed), 2u);
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 2u);
}

TEST_F(DhcpRelaySmv6Test, CrossVrfCopyCarriesTheClientVrfLast) {
   intfIs("Ethernet1", "default", {"fe80::1/64", "2001:db8:1::1/64"}, 11);
   intfIs("Ethernet3", "red", {"2001:db8:3::1/64"}, 13);
   serverIs("Ethernet1", "red", "2001:db8:3::2", "2001:db8:3::1");
   serverIs("Ethernet1", "default", "2001:db8:1::2", "2001:db8:1::1");
   start();
   receive("default", solicit(), kClientLl, 11);
   ASSERT_EQ(udp("default").sent().size(), 1u);
   ASSERT_EQ(udp("red").sent().size(), 1u);
   const auto own = options(udp("default").sent()[0].bytes);
   const auto crossed = options(udp("red").sent()[0].bytes);
   ASSERT_EQ(crossed.size(), own.size() + 1);
   EXPECT_EQ(own.back().first, dhcp6OptInterfaceId);
   const Bytes vss = {0, 'd', 'e', 'f', 'a', 'u', 'l', 't'};
   EXPECT_EQ(crossed.back(), (std::pair<uint16_t, Bytes>{dhcp6OptVss, vss}));
   EXPECT_EQ(bed.status->totalRequestsForwardedWithCrossVrfIp(), 1u);
}

// What is dropped on the way up, each for its reason, and the hop counts that pass.
TEST_F(DhcpRelaySmv6Test, ForwardPathDropsAndHopCounts) {
   intfIs("Ethernet1", "default", {"fe80::1/64", "2001:db8:1::1/64"}, 11);
   intfIs("Ethernet2", "default", {"fe80::2/64"}, 12);        // no global address
   intfIs("Ethernet4", "default", {"2001:db8:4::1/64"}, 14);  // does not relay
   serverIs("Ethernet1", "default", "2001:db8:2::2");
   serverIs("Ethernet2", "default", "2001:db8:2::2");
   start();
   sm->routes[ip6("2001:db8:2::2")] = {12, ip6("2001:db8:2::1"), {}};
   using enum DropReason;
   auto forw = [](uint8_t hops, const Ip6Addr& link) {
      return relayMsg(dhcp6RelayForw, hops, link, kClientLl, solicit());
   };
   struct Case {
      Bytes msg;
      uint32_t ifindex;
      std::optional<DropReason> dropped;
      uint8_t hops = 0;
      Ip6Addr linkAddr = kRelayGlobal;
      Ip6Addr src = kClientLl;
   } cases[] = {
       {solicit(), 12, noGlobalAddress},
       {solicit(), 14, notConfigured},
       {{dhcp6Reply, 1, 2, 3}, 11, serverMessage},
       {{1, 2}, 11, tooShort},
       {forw(32, Ip6Addr()), 11, hopLimit},
       {forw(31, Ip6Addr()), 11, {}, 32},
       // A downstream relay with a global address names the link itself.
       {forw(0, ip6("2001:db8:9::1")), 11, {}, 1, Ip6Addr(), ip6("2001:db8:1::9")},
   };
   for (const Case& c : cases) {
      const auto* up = relayed("default", c.msg, c.src, c.ifindex, c.dropped);
      if (!up)
         continue;
      // The route's source is the kernel's own choice: the send leaves it to the kernel.
      EXPECT_TRUE(up->src.isEmpty());
      EXPECT_EQ(up->bytes[1], c.hops);
      EXPECT_EQ(Bytes(up->bytes.begin() + 2, up->bytes.begin() + 18),
                Bytes(c.linkAddr.bytes().begin(), c.linkAddr.bytes().end()));
   }
}

// A Relay-Repl goes down unwrapped: to the client on 546 from the interface's link-local
// address, or to the next relay on 547; what cannot be delivered is dropped for its reason.
TEST_F(DhcpRelaySmv6Test, ReplyPathDeliversOrDrops) {
   intfIs("Ethernet1", "default", {"fe80::1/64", "2001:db8:1::1/64"}, 11);
   intfIs("Ethernet3", "red", {"2001:db8:3::1/64"}, 13);
   serverIs("Ethernet1", "default", "2001:db8:2::2", "2001:db8:1::1");
   serverIs("Ethernet1", "red", "2001:db8:3::2", "2001:db8:3::1");
   start();
   const Bytes reply = {dhcp6Reply, 0x12, 0x34, 0x56};
   const Bytes inner = relayMsg(dhcp6RelayRepl, 0, Ip6Addr(), ip6("fe80::77"), reply);
   // The server's Relay-Repl to our Relay-Forw for the client.
   auto repl = [&](std::optional<std::string_view> interfaceId, const Bytes& msg,
                   const Ip6Addr& link = kRelayGlobal) {
      return relayMsg(dhcp6RelayRepl, 0, link, kClientLl, msg, interfaceId);
   };
   const char* const own = "Ethernet1:default";
   const Ip6Addr server = ip6("2001:db8:2::2");
   using enum DropReason;
   struct Case {
      const char* vrf;
      Bytes msg;
      Ip6Addr src;
      std::optional<DropReason> dropped = {};
      uint16_t port = 546;
      Bytes delivered = {};
   } cases[] = {
       {"default", repl(own, reply), server, {}, 546, reply},
       {"default", repl(own, inner), server, {}, 547, inner},
       // Our cross-VRF server answers in its own VRF; any other host there may not.
       {"red", repl(own, reply), ip6("2001:db8:3::2"), {}, 546, reply},
       {"red", repl(own, reply), ip6("2001:db8:3::66"), unknownServer},
       {"default", repl("Ethernet1:red", reply), server, intfChangedVrf},
       {"default", repl(own, reply, Ip6Addr()), server, zeroLinkAddress},
       {"default", repl({}, reply), server, noInterfaceId},
       {"default", repl("Ethernet1", reply), server, badInterfaceId},
       {"default", repl("Ethernet9:default", reply), server, unknownInterface},
       {"default", Bytes(20, dhcp6RelayRepl), server, tooShort},
   };
   for (const Case& c : cases) {
      const auto* out =
          relayed(c.vrf, c.msg, c.src, c.vrf == std::string_view("red") ? 13 : 11, c.dropped);
      if (!out)
         continue;
      EXPECT_EQ(out->bytes, c.delivered);
      EXPECT_EQ(out->port, c.port);
      EXPECT_EQ(out->ifindex, 11u);
      EXPECT_EQ(out->dst, Platform::IpGenAddr(kClientLl));
      // To a link-local peer the kernel sends from the device's link-local address.
      EXPECT_TRUE(out->src.isEmpty());
   }
   EXPECT_EQ(bed.status->totalRepliesForwarded(), 3u);
}

// The relay group is joined on each relaying interface's device, again when the device comes
// back under another index, and left when the interface stops relaying.
// Bindings come from the interface's servers' Replies, expire with the valid lifetime, and
// go with a Release from the client they route to; other senders change nothing.
TEST_F(DhcpRelaySmv6Test, PrefixBindingsFollowRepliesReleasesAndLifetimes) {
   intfIs("Ethernet1", "default", {"fe80::1/64", "2001:db8:1::1/64"}, 11);
   intfIs("Ethernet2", "default", {"2001:db8:2::1/64"}, 12);
   serverIs("Ethernet1", "default", "2001:db8:2::2");
   bed.config->intfConfigIs(IntfId("Ethernet1"))->routeInstallIs(true);
   start();
   auto leases = [](uint8_t type, std::initializer_list<std::pair<const char*, uint32_t>> pd) {
      Bytes ia(12, 0);
      for (const auto& [prefix, valid] : pd) {
         const Ip6Prefix p = *Ip6Prefix::parse(prefix);
         Bytes opt{0,
                   0,
                   0,
                   1,
                   uint8_t(valid >> 24),
                   uint8_t(valid >> 16),
                   uint8_t(valid >> 8),
                   uint8_t(valid),
                   p.len()};
         putAddr(opt, p.address());
         putOption(ia, dhcp6OptIaPrefix, opt);
      }
      Bytes msg = solicit(type);
      putOption(msg, dhcp6OptIaPd, ia);
      return msg;
   };
   auto reply = [&](const char* from, std::initializer_list<std::pair<const char*, uint32_t>> pd) {
      receive("default",
              relayMsg(dhcp6RelayRepl, 0, kRelayGlobal, kClientLl, leases(dhcp6Reply, pd),
                       "Ethernet1:default"),
              ip6(from), 12, kRelayGlobal);
   };
   auto bound = [&] {
      std::map<std::string, uint32_t> out;
      for (const auto& [prefix, b] : bed.status->intfStatus(IntfId("Ethernet1"))->prefixBinding())
         out[prefix.toString()] = b->addrAttrs().validLifetime;
      return out;
   };
   using Bound = std::map<std::string, uint32_t>;
   reply("2001:db8:2::66", {{"2001:db8:a0::/48", 60}});
   EXPECT_EQ(bound(), Bound{}) << "not a server of the interface";
   reply("2001:db8:2::2", {{"2001:db8:a0::/48", 60}, {"2001:db8:a1::/48", 0xffffffff}});
   EXPECT_EQ(bound(), (Bound{{"2001:db8:a0::/48", 60}, {"2001:db8:a1::/48", 0xffffffff}}));
   const auto& attrs = bed.status->intfStatus(IntfId("Ethernet1"))
                           ->prefixBinding(*Ip6Prefix::parse("2001:db8:a1::/48"))
                           ->addrAttrs();
   EXPECT_EQ(attrs.nextHop, kClientLl);
   EXPECT_EQ(attrs.vrf, VrfName("default"));

   // A Release counts only from the client the route goes to.
   receive("default", leases(dhcp6Release, {{"2001:db8:a1::/48", 0}}), ip6("fe80::77"), 11);
   EXPECT_EQ(bound().size(), 2u);
   receive("default", leases(dhcp6Release, {{"2001:db8:a1::/48", 0}}), kClientLl, 11);
   EXPECT_EQ(bound(), (Bound{{"2001:db8:a0::/48", 60}}));
   // Renewed, the lifetime starts again; then it runs out.
   bed.advance(50);
   reply("2001:db8:2::2", {{"2001:db8:a0::/48", 60}});
   bed.advance(50);
   EXPECT_EQ(bound().size(), 1u);
   bed.advance(11);
   EXPECT_EQ(bound(), Bound{});
}

TEST_F(DhcpRelaySmv6Test, MulticastMembershipFollowsDevicesAndRelaying) {
   const auto group = DhcpVrfSmv6::kAllRelayAgentsAndServers;
   intfIs("Ethernet1", "default", {"2001:db8:1::1/64"}, 11);
   serverIs("Ethernet1", "default", "2001:db8:2::2");
   start();
   using Groups = std::set<std::pair<uint32_t, Ip6Addr>>;
   EXPECT_EQ(udp("default").mcastGroups(), (Groups{{11, group}}));
   EXPECT_EQ(mcGroups->mcaddr(), std::set<Ip6Addr>{group});

   auto table = KernelNetInfo::kernelTableOf(bed.store, "default");
   table->interfaceByIndexDel(11);
   bed.device("default", 21, "Ethernet1")->upIs(true);
   EXPECT_EQ(udp("default").mcastGroups(), (Groups{{21, group}}));

   bed.config->intfConfig(IntfId("Ethernet1"))->serverIp6DelAll();
   EXPECT_EQ(udp("default").mcastGroups(), Groups{});
   EXPECT_TRUE(mcGroups->mcaddr().empty());
   EXPECT_FALSE(bed.status->intfStatus(IntfId("Ethernet1")));
   EXPECT_FALSE(bed.status->runControl());
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
