#include <gtest/gtest.h>

#include "codec/DhcpCodec.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::EthAddr;
using Platform::IpAddrWithMask;
using Platform::Pkt;

constexpr uint8_t kDiscover = 1, kOffer = 2, kRequest = 3;

// Ethernet1 with primary P = 10.0.0.1/24 and secondaries S1 = 10.0.1.1/24 < S2 = 10.0.2.1/24
// (added in the other order: the set's order counts, not the kernel's), smart relay on, and
// one server in its VRF.
class SmartRelayTest : public testing::Test {
 protected:
   void SetUp() override {
      bed.activeVrfIs("default", 1);
      eth1 = bed.intfIs("Ethernet1", "default", {"10.0.0.1/24", "10.0.2.1/24", "10.0.1.1/24"}, 5);
      config1 = bed.config->intfConfig(IntfId("Ethernet1"));
      config1->smartRelayIs(true);
      bed.intfServerIpDir->drIntfServerIpIs(IntfId("Ethernet1"))
          ->serverIpIs(VrfIpSrcIntfSrcIp{VrfName("default"), ip("192.168.1.10"), {}, {}}, 1);
      sm = std::make_unique<DhcpRelaySm>(bed.inputs());
      sm->handleInitialized();
      udp = bed.pams.udp.at("UdpSocket-default");
   }

   DhcpSmartRelayIntfSm* smart() const { return sm->smartRelaySm(IntfId("Ethernet1")); }

   // The giaddr of the copy the server got; zero when none was sent. The copy leaves from
   // the same address.
   IpAddr relay(const Msg& m) {
      const size_t before = udp->sent().size();
      Ptr<Pkt> pkt = Pkt::copyOf(message(m));
      sm->doProcessPacket(*pkt, IpAddr(), IpAddr::broadcast(), IntfId("Ethernet1"),
                          VrfName("default"));
      if (udp->sent().size() == before)
         return IpAddr();
      const auto& sent = udp->sent().back();
      Ptr<Pkt> copy = Pkt::copyOf(sent.bytes);
      const IpAddr giaddr = DhcpHdr::of(*copy)->giaddr();
      EXPECT_EQ(sent.src, Platform::IpGenAddr(giaddr));
      return giaddr;
   }
   IpAddr discover(const EthAddr& client) { return relay({.type = kDiscover, .client = client}); }
   void offer(const EthAddr& client, IpAddr giaddr = ip("10.0.0.1")) {
      Ptr<Pkt> pkt = Pkt::copyOf(
          message({.op = bootReply, .type = kOffer, .client = client, .giaddr = giaddr}));
      sm->doProcessPacket(*pkt, ip("192.168.1.10"), giaddr, IntfId(), VrfName("default"));
   }
   uint32_t hosts() const { return bed.status->numSmartRelayedHosts(); }

   RelayTestBed bed;
   Ptr<IntfConfig> config1;
   Ptr<Ip::IpIntfStatus> eth1;
   std::unique_ptr<DhcpRelaySm> sm;
   Ptr<Platform::UdpTestPam> udp;
};

const IpAddr P = ip("10.0.0.1"), S1 = ip("10.0.1.1"), S2 = ip("10.0.2.1");

TEST_F(SmartRelayTest, DiscoversMoveThroughTheSecondariesEveryThirdAndWrapToThePrimary) {
   const std::vector<IpAddr> expected{P, P, P, S1, S1, S1, S2, S2, S2, P, P, P, S1};
   std::vector<IpAddr> seen;
   for (size_t i = 0; i < expected.size(); ++i) {
      seen.push_back(discover(mac(1)));
      // Clients are independent: a second one starts on the primary whatever the first does.
      if (i == 4) {
         EXPECT_EQ(discover(mac(2)), P);
      }
   }
   EXPECT_EQ(seen, expected);
   EXPECT_EQ(bed.status->totalRequestsForwarded(), expected.size() + 1);
}

// A request goes out from an address of the subnet that holds the requested address, as
// addresses come and go; one in no subnet of the interface is dropped.
TEST_F(SmartRelayTest, RequestsGoOutFromTheSubnetOfTheRequestedAddress) {
   eth1->activeSecondaryWithMaskIs(net("10.0.2.129/25"));
   const Msg request{.type = kRequest, .client = mac(7)};
   auto from = [&](const char* addr) {
      Msg m = request;
      m.requested = ip(addr);
      return relay(m);
   };
   EXPECT_EQ(from("10.0.1.77"), S1);
   EXPECT_EQ(from("10.0.0.9"), P);
   // The longest prefix wins over the /24 that also holds the address.
   EXPECT_EQ(from("10.0.2.200"), ip("10.0.2.129"));
   EXPECT_EQ(from("10.0.2.5"), S2);
   // RENEWING / REBINDING: no option 50, the address is in ciaddr.
   Msg renewing = request;
   renewing.ciaddr = ip("10.0.1.5");
   EXPECT_EQ(relay(renewing), S1);
   // Neither: the primary.
   EXPECT_EQ(relay(request), P);
   // Requests never make client state.
   EXPECT_EQ(hosts(), 0u);
   EXPECT_EQ(smart()->clientCount(), 0u);
   EXPECT_EQ(from("10.9.9.9"), IpAddr());
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped(), 1u);

   eth1->activeSecondaryWithMaskIs(net("10.0.9.1/24"));  // keeps smart relay on throughout
   eth1->activeSecondaryWithMaskIs(net("10.0.1.2/24"));
   // Removing one address keeps its subnet; requests into it go out from the one left.
   eth1->activeSecondaryWithMaskDel(net("10.0.1.1/24"));
   EXPECT_EQ(from("10.0.1.50"), ip("10.0.1.2"));
   eth1->activeSecondaryWithMaskDel(net("10.0.1.2/24"));
   EXPECT_EQ(from("10.0.1.50"), IpAddr());
   // A new primary replaces the old one's subnet; a secondary promoted to primary keeps its.
   eth1->activeAddrWithMaskIs(net("10.0.7.1/24"));
   EXPECT_EQ(from("10.0.0.50"), IpAddr());
   EXPECT_EQ(from("10.0.7.50"), ip("10.0.7.1"));
   eth1->activeAddrWithMaskIs(net("10.0.2.1/24"));
   eth1->activeSecondaryWithMaskDel(net("10.0.2.1/24"));
   EXPECT_EQ(from("10.0.2.50"), ip("10.0.2.1"));
   EXPECT_EQ(from("10.0.7.50"), IpAddr());
}

TEST_F(SmartRelayTest, SilenceExpiresTheClientAndEachDiscoverRearmsTheTimer) {
   for (int i = 0; i < 4; ++i)
      discover(mac(1));
   ASSERT_EQ(discover(mac(1)), S1);
   const double start = bed.clock.now();
   EXPECT_EQ(smart()->clientState(mac(1))->timer()->deadline(), start + 600.0);

   bed.advance(599.0);
   ASSERT_EQ(discover(mac(1)), S1);  // re-arms: 600 s from now
   bed.advance(599.0);
   EXPECT_EQ(hosts(), 1u);
   ASSERT_NE(smart()->dsrClientState(mac(1)), nullptr);
   EXPECT_EQ(smart()->dsrClientState(mac(1))->discoversWithoutOffer(), 6u);

   bed.advance(1.0);
   EXPECT_EQ(smart()->dsrClientState(mac(1)), nullptr);
   EXPECT_EQ(hosts(), 0u);
   EXPECT_EQ(bed.wheel.armedCount(), 0u);
   EXPECT_EQ(discover(mac(1)), P);
   EXPECT_EQ(hosts(), 1u);
}

TEST_F(SmartRelayTest, ClientWhoseGatewayAddressLeftTheInterfaceMovesOn) {
   for (int i = 0; i < 4; ++i)
      discover(mac(1));  // now on S1, one DISCOVER counted
   eth1->activeSecondaryWithMaskDel(net("10.0.1.1/24"));
   // The count restarts on the next greater secondary: three DISCOVERs there.
   EXPECT_EQ(discover(mac(1)), S2);
   EXPECT_EQ(discover(mac(1)), S2);
   eth1->activeSecondaryWithMaskDel(net("10.0.2.1/24"));
   // None greater: the primary.
   EXPECT_EQ(discover(mac(1)), P);
   EXPECT_EQ(discover(mac(1)), P);

   // A primary that changes sends its clients on from the old one likewise.
   eth1->activeSecondaryWithMaskIs(net("10.0.3.1/24"));
   discover(mac(1));  // third on P: moves to 10.0.3.1
   eth1->activeSecondaryWithMaskDel(net("10.0.3.1/24"));
   eth1->activeAddrWithMaskIs(net("10.0.5.1/24"));
   eth1->activeSecondaryWithMaskIs(net("10.0.9.1/24"));
   EXPECT_EQ(discover(mac(1)), ip("10.0.9.1"));
}

// Addresses change under the relay on Linux: an interface that loses its secondaries (or has
// no address at all) keeps the agent running.
TEST_F(SmartRelayTest, WithoutSecondariesOrAddressesTheRelayKeepsRunning) {
   discover(mac(1));
   eth1->activeSecondaryWithMaskDel(net("10.0.1.1/24"));
   eth1->activeSecondaryWithMaskDel(net("10.0.2.1/24"));
   EXPECT_TRUE(bed.status->intfStatus(IntfId("Ethernet1"))->smartRelayNoSecondary());
   for (int i = 0; i < 7; ++i)
      EXPECT_EQ(discover(mac(1)), P);
   // Counted straight from the state machine: the client sent three times since the move.
   smart()->clientState(mac(1))->state().discoversWithoutOfferIs(3);
   EXPECT_EQ(smart()->dsrClientState(mac(1))->gatewayAddress(), net("10.0.0.1/24"));

   eth1->activeSecondaryWithMaskIs(net("10.0.1.1/24"));
   EXPECT_FALSE(bed.status->intfStatus(IntfId("Ethernet1"))->smartRelayNoSecondary());
   eth1->activeAddrWithMaskIs(Platform::IpAddrWithMask());
   eth1->activeSecondaryWithMaskDel(net("10.0.1.1/24"));
   EXPECT_EQ(discover(mac(1)), IpAddr());
   EXPECT_EQ(bed.status->drops(DropReason::noAddress), 1u);
}

TEST_F(SmartRelayTest, HostCountFollowsClientStates) {
   discover(mac(1));
   discover(mac(2));
   discover(mac(3));
   discover(mac(3));
   EXPECT_EQ(hosts(), 3u);

   // An offer ends the client's search: its state goes, its next DISCOVER starts on P.
   for (int i = 0; i < 2; ++i)
      discover(mac(1));
   offer(mac(1));
   EXPECT_EQ(bed.status->totalRepliesForwarded(), 1u);
   EXPECT_EQ(hosts(), 2u);
   EXPECT_EQ(smart()->dsrClientState(mac(1)), nullptr);
   EXPECT_EQ(discover(mac(1)), P);
   EXPECT_EQ(hosts(), 3u);

   // Turning smart relay off deletes every client of the interface.
   config1->smartRelayIs(false);
   EXPECT_EQ(smart(), nullptr);
   EXPECT_EQ(hosts(), 0u);
   EXPECT_EQ(bed.wheel.armedCount(), 0u);
   EXPECT_EQ(discover(mac(2)), P);

   // The global flag stands in for the interface's own.
   bed.config->smartRelayGlobalIs(true);
   ASSERT_NE(smart(), nullptr);
   discover(mac(2));
   EXPECT_EQ(hosts(), 1u);
   config1->smartRelayIs(true);
   bed.config->smartRelayGlobalIs(false);
   ASSERT_NE(smart(), nullptr);
   EXPECT_EQ(hosts(), 1u);
   // No IP status, no machine; the relay configuration going does the same.
   bed.ipStatus->ipIntfStatusDel(IntfId("Ethernet1"));
   EXPECT_EQ(smart(), nullptr);
   EXPECT_EQ(hosts(), 0u);
   bed.ipStatus->ipIntfStatusIs(IntfId("Ethernet1"));
   ASSERT_NE(smart(), nullptr);
   smart()->dsrClientStateIs(mac(9), 600.0);
   EXPECT_EQ(hosts(), 1u);
   bed.config->intfConfigDel(IntfId("Ethernet1"));
   EXPECT_EQ(sm->smartRelaySm(IntfId("Ethernet1")), nullptr);
   EXPECT_EQ(hosts(), 0u);
}

TEST_F(SmartRelayTest, ClientsBeyondTheLimitGetThePrimaryAndNoState) {
   const uint32_t max = Status::numSmartRelayedHostsMax();
   for (uint32_t n = 1; n < max; ++n)
      smart()->dsrClientStateIs(mac(1000000 + n), 600.0);
   // The last one still fits and moves on like any other.
   for (int i = 0; i < 4; ++i)
      discover(mac(1));
   EXPECT_EQ(hosts(), max);
   EXPECT_EQ(smart()->dsrClientState(mac(1))->gatewayAddress(), net("10.0.1.1/24"));
   for (int i = 0; i < 4; ++i)
      EXPECT_EQ(discover(mac(2)), P);
   EXPECT_EQ(smart()->dsrClientState(mac(2)), nullptr);
   EXPECT_EQ(hosts(), max);
   // Room again once one expires.
   offer(mac(1));
   EXPECT_EQ(hosts(), max - 1);
   discover(mac(2));
   EXPECT_NE(smart()->dsrClientState(mac(2)), nullptr);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
