#include <gtest/gtest.h>

#include "codec/Frame.h"
#include "tests/relay6/Relay6TestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::EthAddr;
using Platform::Ip6Addr;

Bytes hexBytes(std::string_view hex) {
   Bytes out;
   for (size_t i = 0; i + 1 < hex.size(); i += 2)
      out.push_back(uint8_t(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
   return out;
}
const Bytes kDuidLl = hexBytes("0003000102000000000c");

Bytes message(uint8_t type, uint32_t xid, const Bytes& duid = kDuidLl) {
   Bytes b{type, uint8_t(xid >> 16), uint8_t(xid >> 8), uint8_t(xid)};
   if (!duid.empty()) {
      b.insert(b.end(), {0, dhcp6OptClientId, 0, uint8_t(duid.size())});
      b.insert(b.end(), duid.begin(), duid.end());
   }
   return b;
}
std::optional<Dhcp6DuidMacBindingKey> key(const Bytes& duid, uint32_t xid) {
   const auto parsed = dhcp6ParseDuid(duid);
   return parsed ? std::optional(Dhcp6DuidMacBindingKey::of(*parsed, xid)) : std::nullopt;
}

// A key names the client by its DUID's fields (not a DUID-LLT's time) and the message by its
// transaction id; a DUID whose length does not fit its type names nobody.
TEST(DuidMacBindingKeyTest, NamesClientAndMessage) {
   const Bytes llt = hexBytes("000100010000000102000000000c");
   const Bytes lltLater = hexBytes("000100010000009902000000000c");
   const Bytes uuid = hexBytes("0004000102030405060708090a0b0c0d0e0f");
   const Bytes en = hexBytes("00020000a6b9abcdef");
   const Bytes enLonger = hexBytes("00020000a6b9abcdef00");
   for (const Bytes& bad : {hexBytes("0003000102000000000c00"), hexBytes("00010001020000000c00"),
                            hexBytes("0004000102030405060708090a0b0c0d0e"),
                            hexBytes("0005000102000000000c"), hexBytes("00020000a6"), Bytes{}})
      EXPECT_FALSE(key(bad, 1)) << bad.size();
   struct Case {
      Bytes a;
      uint32_t xidA;
      Bytes b;
      uint32_t xidB;
      bool same;
   } cases[] = {
       {llt, 1, lltLater, 1, true}, {llt, 1, llt, 2, false},     {llt, 1, kDuidLl, 1, false},
       {uuid, 7, uuid, 7, true},    {en, 7, enLonger, 7, false}, {en, 0x1000007, en, 7, true},
   };
   for (const Case& c : cases)
      EXPECT_EQ(key(c.a, c.xidA) == key(c.b, c.xidB), c.same) << c.a.size() << " " << c.b.size();
}

const EthAddr kFrameMac = mac(0x0c01);

class ClientLinkLayerAddrTest : public testing::Test, public Relay6TestBed {
 protected:
   ClientLinkLayerAddrTest() {
      auto status = ip6Status->intfIs(IntfId("Ethernet1"));
      status->vrfIs(VrfName("default"));
      status->addrIs(*Platform::Ip6Prefix::parse("2001:db8:1::1/64"));
      bed.device("default", 11, "Ethernet1")->upIs(true);
      bed.config->intfConfigIs(IntfId("Ethernet1"))
          ->serverIp6Is({VrfName("default"), ip6("2001:db8:2::2"), {}, ip6("2001:db8:1::1")}, true);
      bed.activeVrfIs("default", 1);
      bed.config->clientLinkLayerAddrOptIs(true);
      sm = std::make_unique<DhcpRelaySmv6>(inputs());
      sm->handleInitialized();
   }
   Platform::UdpTestPam& udp() { return *bed.pams.udp.at("UdpSocket-default"); }
   Platform::EthDevTestPam& capture() { return *bed.pams.eth.at("Ethernet1"); }
   void receive(const Bytes& msg) {
      ASSERT_TRUE(udp().inject({Platform::Pkt::copyOf(msg), ip6("fe80::c"), 546,
                                DhcpVrfSmv6::kAllRelayAgentsAndServers, 11}));
   }
   void frame(const Bytes& msg, EthAddr src = kFrameMac) {
      auto pkt = Platform::Pkt::copyOf(msg);
      ASSERT_TRUE(
          Codec::prependUdp6Frame(*pkt, {EthAddr({0x33, 0x33, 0, 1, 0, 2}), src, ip6("fe80::c"),
                                         DhcpVrfSmv6::kAllRelayAgentsAndServers, 546, 547}));
      ASSERT_TRUE(capture().rxFrameInject(pkt->span()));
   }
   const DuidMacBindings& bindings() const {
      return sm->dhcpVrfSmv6(VrfName("default"))->duidMacBindings();
   }
   uint64_t drops(DropReason r) const { return bed.status->drops(r); }
   // Both option-79 counters, the global one and the interface's.
   std::pair<uint64_t, uint64_t> option79Drops() const {
      return {bed.status->totalRequestsDroppedByOption79(),
              bed.status->intfStatus(IntfId("Ethernet1"))->requestsDroppedByOption79()};
   }

   std::unique_ptr<DhcpRelaySmv6> sm;
};

// Whichever copy comes first, the Relay-Forw goes up once, with option 79 (Ethernet, the
// frame's source) right after our Remote-Id, and leaves no binding behind.
TEST_F(ClientLinkLayerAddrTest, EitherArrivalOrderRelaysOnceWithTheFramesMac) {
   for (const bool socketFirst : {true, false}) {
      for (const uint8_t type : {dhcp6Solicit, dhcp6Request}) {
         udp().clearSent();
         const Bytes msg = message(type, socketFirst ? 0x100 + type : 0x200 + type);
         if (socketFirst) {
            receive(msg);
            EXPECT_TRUE(udp().sent().empty());
            EXPECT_EQ(bindings().dhcp6DuidMacBindings().size(), 1u);
         }
         frame(msg);
         if (!socketFirst)
            receive(msg);
         ASSERT_EQ(udp().sent().size(), 1u) << socketFirst;
         const auto opts = options(udp().sent()[0].bytes);
         ASSERT_EQ(opts.size(), 4u);
         EXPECT_EQ(opts[0], (std::pair<uint16_t, Bytes>{dhcp6OptRelayMsg, msg}));
         EXPECT_EQ(opts[1].first, dhcp6OptRemoteId);
         Bytes option79{0, 1};
         option79.insert(option79.end(), kFrameMac.bytes().begin(), kFrameMac.bytes().end());
         EXPECT_EQ(opts[2], (std::pair<uint16_t, Bytes>{dhcp6OptClientLinkLayerAddr, option79}));
         EXPECT_EQ(opts[3].first, dhcp6OptInterfaceId);
         EXPECT_TRUE(bindings().dhcp6DuidMacBindings().empty());
      }
   }
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 4u);
}

// A retransmission while the first copy waits is dropped; the held copy is dropped once no
// frame came for a whole sweep period (5 to 10 s), and a frame keeps its binding alive.
TEST_F(ClientLinkLayerAddrTest, HeldCopyWaitsAtMostTwoSweeps) {
   receive(message(dhcp6Solicit, 1));
   receive(message(dhcp6Solicit, 1));
   EXPECT_EQ(drops(DropReason::clientMacPending), 1u);
   EXPECT_EQ(option79Drops(), std::pair(1ul, 1ul));
   frame(message(dhcp6Solicit, 2));  // learned, never asked for
   bed.advance(DuidMacBindings::kSweepSeconds);
   frame(message(dhcp6Solicit, 2));
   EXPECT_EQ(bindings().dhcp6DuidMacBindings().size(), 2u);
   bed.advance(DuidMacBindings::kSweepSeconds);
   EXPECT_EQ(bindings().dhcp6DuidMacBindings().size(), 1u) << "the refreshed binding stays";
   EXPECT_EQ(drops(DropReason::noClientLinkLayerAddress), 1u);
   EXPECT_EQ(option79Drops(), std::pair(2ul, 2ul));
   EXPECT_EQ(bed.status->totalRequestsDropped(), 2u);
   bed.advance(DuidMacBindings::kSweepSeconds);
   EXPECT_TRUE(bindings().dhcp6DuidMacBindings().empty());
   EXPECT_EQ(bed.status->totalRequestsDropped(), 2u);
   EXPECT_TRUE(udp().sent().empty());
   EXPECT_FALSE(bed.wheel.nextDeadline() < Platform::kNever) << "no sweep without bindings";
}

// A full table learns no more MACs and holds no more copies; what it holds still completes.
TEST_F(ClientLinkLayerAddrTest, BindingLimitRefusesNewClients) {
   for (uint32_t xid = 0; xid < DuidMacBindings::kMaxBindings; ++xid)
      frame(message(dhcp6Solicit, xid));
   frame(message(dhcp6Solicit, 0xfffff));
   receive(message(dhcp6Solicit, 0xffffe));
   EXPECT_EQ(bindings().refused(), 2u);
   EXPECT_EQ(drops(DropReason::duidMacBindingLimit), 1u);
   EXPECT_EQ(option79Drops(), std::pair(1ul, 1ul));
   receive(message(dhcp6Solicit, 7));
   EXPECT_EQ(udp().sent().size(), 1u);
   EXPECT_EQ(bindings().dhcp6DuidMacBindings().size(), DuidMacBindings::kMaxBindings - 1);
}

// Only Solicit and Request wait for a MAC, and only those with a DUID to key by; only their
// frames teach one.
TEST_F(ClientLinkLayerAddrTest, WhichMessagesAndFramesTakePart) {
   receive(message(dhcp6Renew, 1));
   ASSERT_EQ(udp().sent().size(), 1u);
   EXPECT_EQ(options(udp().sent()[0].bytes).size(), 3u) << "no option 79";
   receive(message(dhcp6Solicit, 2, {}));
   receive(message(dhcp6Request, 3, hexBytes("0003000102")));
   EXPECT_EQ(drops(DropReason::noClientId), 1u);
   EXPECT_EQ(drops(DropReason::badDuid), 1u);
   frame(message(dhcp6Renew, 4));
   frame(message(dhcp6Solicit, 5, hexBytes("0003000102")));
   frame(message(dhcp6Solicit, 6), EthAddr({0x33, 0x33, 0, 0, 0, 1}));
   Bytes v4 = message(dhcp6Solicit, 7);
   auto pkt = Platform::Pkt::copyOf(v4);
   ASSERT_TRUE(Codec::prependUdp4Frame(*pkt, {{}, kFrameMac, {}, {}, 68, 67}));
   ASSERT_TRUE(capture().rxFrameInject(pkt->span()));
   EXPECT_TRUE(bindings().dhcp6DuidMacBindings().empty());
   EXPECT_EQ(option79Drops(), std::pair(0ul, 0ul));
}

// Captures follow the interface's device and the option; turning the option off drops what
// is held.
TEST_F(ClientLinkLayerAddrTest, CapturesFollowDevicesAndTheOption) {
   receive(message(dhcp6Solicit, 1));
   bed.config->clientLinkLayerAddrOptIs(false);
   EXPECT_FALSE(capture().active());
   EXPECT_TRUE(bindings().dhcp6DuidMacBindings().empty());
   EXPECT_EQ(drops(DropReason::noClientLinkLayerAddress), 1u);
   receive(message(dhcp6Solicit, 2));
   EXPECT_EQ(udp().sent().size(), 1u) << "relayed at once, without option 79";

   bed.config->clientLinkLayerAddrOptIs(true);
   const Ptr<Platform::EthDevTestPam> first = bed.pams.eth.at("Ethernet1");
   EXPECT_TRUE(first->active());
   KernelNetInfo::kernelTableOf(bed.store, "default")->interfaceByIndexDel(11);
   bed.device("default", 21, "Ethernet1")->upIs(true);
   EXPECT_FALSE(first->active());
   EXPECT_TRUE(capture().active()) << "a capture of the new device";
   bed.config->intfConfig(IntfId("Ethernet1"))->serverIp6DelAll();
   EXPECT_FALSE(capture().active()) << "the interface stopped relaying";
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
