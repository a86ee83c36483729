#include <gtest/gtest.h>

#include <tuple>

#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::UdpTestPam;

// What the socket machine hands over, recorded.
struct Sink : DhcpPacketSink {
   struct Received {
      IpAddr src, dst;
      IntfId intf;
      VrfName vrf;
   };
   void doProcessPacket(Platform::Pkt&, IpAddr srcIp, IpAddr dstIp, const IntfId& intf,
                        const VrfName& vrf) override {
      received.push_back({srcIp, dstIp, intf, vrf});
   }
   std::vector<Received> received;
};

// VRF red's socket machine on its own, with Ethernet1 (ifindex 7) and a device "Ethernet2"
// (ifindex 8) that is no interface: Ethernet2's kernel device is "eth2".
class DhcpVrfSmTest : public testing::Test {
 protected:
   DhcpVrfSmTest() {
      bed.vrfIs("red", "ns-red", true);
      bed.deviceNames->deviceNameIs(IntfId("Ethernet2"), "eth2");
      bed.device("ns-red", 7, "Ethernet1");
      bed.device("ns-red", 8, "Ethernet2");
      bed.status->intfStatusIs(IntfId("Ethernet1"));
   }
   std::unique_ptr<DhcpVrfSm> open() {
      return std::make_unique<DhcpVrfSm>(
          VrfName("red"), NamespaceName("ns-red"), bed.config,
          VrfSockets::Deps{bed.pams, bed.store, *bed.managers, bed.deviceNames}, *bed.status, sink);
   }
   Ptr<UdpTestPam> udp() { return bed.pams.udp.at("UdpSocket-red"); }
   void receive(uint8_t op, uint32_t ifindex) {
      auto pkt = Platform::Pkt::create(300);
      std::fill(pkt->span().begin(), pkt->span().end(), 0);
      pkt->data()[0] = op;
      ASSERT_TRUE(udp()->inject({pkt, ip("10.0.0.5"), 68, IpAddr::broadcast(), ifindex}));
   }

   RelayTestBed bed;
   Sink sink;
};

TEST_F(DhcpVrfSmTest, SocketsInTheNamespaceWithTheConfiguredDscp) {
   bed.config->dscpV4Is(46);
   auto sm = open();
   Ptr<UdpTestPam> u = udp();
   EXPECT_EQ(std::tuple(u->mode(), u->txDstAddr(), u->txPort(), u->rxAddr(), u->rxPort(),
                        u->netNs(), u->ipv6(), u->txTos()),
             std::tuple(Platform::Pam::modeOpen, Platform::IpGenAddr(IpAddr::broadcast()), 67,
                        Platform::IpGenAddr(IpAddr()), 67, "ns-red", false, 184));
   Ptr<Platform::RawTxTestPam> raw = bed.pams.raw.at("RawTxPam-red");
   EXPECT_EQ(std::tuple(raw->ethProtocol(), raw->netNs()), std::tuple(0x0800, "ns-red"));
   // The DSCP follows the configuration; only the UDP socket carries it.
   bed.config->dscpV4Is(63);
   EXPECT_EQ(u->txTos(), 252);
   // A second initialisation opens nothing new.
   sm->handleInitialized();
   EXPECT_EQ(udp(), u);
}

TEST_F(DhcpVrfSmTest, EachDatagramGoesOnWithItsInterfaceOrIsDropped) {
   auto sm = open();
   receive(bootRequest, 7);
   ASSERT_EQ(sink.received.size(), 1u);
   EXPECT_EQ(sink.received[0].intf, IntfId("Ethernet1"));
   EXPECT_EQ(sink.received[0].vrf, VrfName("red"));
   EXPECT_EQ(sink.received[0].src, ip("10.0.0.5"));
   EXPECT_EQ(sink.received[0].dst, IpAddr::broadcast());
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsReceived(), 1u);
   // No kernel device has this index: dropped, counted without an interface.
   receive(bootRequest, 99);
   EXPECT_EQ(bed.status->drops(DropReason::unknownIfindex), 1u);
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);
   // A device that is no interface: a request is dropped without counting, a reply goes on
   // without an interface name.
   receive(bootRequest, 8);
   EXPECT_EQ(bed.status->drops(DropReason::unknownDevice), 1u);
   EXPECT_EQ(bed.status->totalRequestsReceived(), 1u);
   receive(bootReply, 8);
   ASSERT_EQ(sink.received.size(), 2u);
   EXPECT_TRUE(sink.received[1].intf.empty());
   EXPECT_EQ(bed.status->totalRepliesReceived(), 1u);
}

TEST_F(DhcpVrfSmTest, DeletionClosesOnceAndStopsFollowingTheNamespace) {
   auto sm = open();
   // While the sockets exist the namespace's devices have interface status.
   EXPECT_TRUE(bed.allIntfStatus->intfStatus(IntfId("Ethernet1")));
   Ptr<UdpTestPam> u = udp();
   Ptr<Platform::RawTxTestPam> raw = bed.pams.raw.at("RawTxPam-red");
   sm->handleDel();
   EXPECT_FALSE(sm->initialized());
   EXPECT_EQ(u->mode(), Platform::Pam::modeClosed);
   EXPECT_EQ(raw->mode(), Platform::Pam::modeClosed);
   EXPECT_FALSE(bed.allIntfStatus->intfStatus(IntfId("Ethernet1")));
   EXPECT_FALSE(u->inject({Platform::Pkt::create(300), IpAddr(), 68, IpAddr(), 7}));

   sm->handleDel();  // a second time: nothing to do
   sm->handleReadableCount();
   EXPECT_TRUE(sink.received.empty());
   // Dropping the machine without handleDel closes just the same.
   auto again = open();
   sm.reset();
   again.reset();
   EXPECT_EQ(udp()->mode(), Platform::Pam::modeClosed);
   EXPECT_FALSE(bed.allIntfStatus->intfStatus(IntfId("Ethernet1")));
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
