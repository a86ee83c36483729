#include <gtest/gtest.h>

#include "platform/trace/Trace.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::UdpTestPam;

class DhcpVrfSmTest : public testing::Test {
 protected:
   DhcpVrfSmTest() {
      bed.vrfIs("red", "ns-red", true);
      bed.activeVrfIs("default", 1);
      bed.config->intfConfigIs(IntfId("Ethernet1"));
      // Ethernet2's kernel device is "eth2", so a device named "Ethernet2" is no interface.
      bed.deviceNames->deviceNameIs(IntfId("Ethernet2"), "eth2");
      bed.device("default", 7, "Ethernet1");
      bed.device("default", 8, "Ethernet2");
      sm = bed.relaySm();
      sm->handleInitialized();
   }
   DhcpVrfSm& vrfSm() { return *sm->dhcpVrfSm(VrfName::defaultVrf()); }
   Ptr<UdpTestPam> udp(const char* vrf = "default") {
      return bed.pams.udp.at(std::string("UdpSocket-") + vrf);
   }
   void receive(uint8_t op, uint32_t ifindex) {
      auto pkt = Platform::Pkt::create(300);
      std::fill(pkt->span().begin(), pkt->span().end(), 0);
      pkt->data()[0] = op;
      ASSERT_TRUE(
          udp()->inject({pkt, *IpAddr::parse("10.0.0.5"), 68, IpAddr::broadcast(), ifindex}));
   }

   RelayTestBed bed;
   std::unique_ptr<ProbeRelaySm> sm;
};

TEST_F(DhcpVrfSmTest, OpensItsSocketsInTheVrfsNamespace) {
   bed.activeVrfIs("red", 1);
   Ptr<UdpTestPam> u = udp("red");
   EXPECT_EQ(u->mode(), Platform::Pam::modeOpen);
   EXPECT_EQ(u->txDstAddr(), Platform::IpGenAddr(IpAddr::broadcast()));
   EXPECT_EQ(u->txPort(), 67);
   EXPECT_EQ(u->rxAddr(), Platform::IpGenAddr(IpAddr::ipAddrZero()));
   EXPECT_EQ(u->rxPort(), 67);
   EXPECT_EQ(u->netNs(), "ns-red");
   EXPECT_FALSE(u->ipv6());
   Ptr<Platform::RawTxTestPam> raw = bed.pams.raw.at("RawTxPam-red");
   EXPECT_EQ(raw->mode(), Platform::Pam::modeOpen);
   EXPECT_EQ(raw->ethProtocol(), 0x0800);
   EXPECT_EQ(raw->netNs(), "ns-red");
   DhcpVrfSm* red = sm->dhcpVrfSm(VrfName("red"));
   EXPECT_TRUE(red->initialized());
   EXPECT_EQ(red->udpPam(), Ptr<Platform::UdpPam>(u));
   // A second initialisation opens nothing new.
   red->handleInitialized();
   EXPECT_EQ(bed.pams.udp.at("UdpSocket-red"), u);
}

TEST_F(DhcpVrfSmTest, DscpSetsTheTosOfTheUdpSocketOnly) {
   EXPECT_EQ(udp()->txTos(), 0);
   bed.config->dscpV4Is(46);
   EXPECT_EQ(udp()->txTos(), 184);
   bed.config->dscpV4Is(63);
   EXPECT_EQ(udp()->txTos(), 252);
   // A socket opened later starts with the configured value.
   bed.activeVrfIs("red", 1);
   EXPECT_EQ(udp("red")->txTos(), 252);
}

TEST_F(DhcpVrfSmTest, ReadableWithoutPacketOnlyTraces) {
   Platform::TraceCapture trace;
   vrfSm().handleReadableCount();
   ASSERT_EQ(trace.lines().size(), 2u);
   EXPECT_NE(trace.lines()[1].find("handleReadableCount() no pkt, pam only set"),
             std::string::npos);
   EXPECT_TRUE(sm->received.empty());
   EXPECT_EQ(bed.status->totalRequestsReceived() + bed.status->totalRequestsDropped(), 0u);
}

TEST_F(DhcpVrfSmTest, ReceivedDatagramsGoToTheRelayWithTheirInterface) {
   receive(bootRequest, 7);
   ASSERT_EQ(sm->received.size(), 1u);
   const auto& r = sm->received[0];
   EXPECT_EQ(r.intf, IntfId("Ethernet1"));
   EXPECT_EQ(r.vrf, VrfName::defaultVrf());
   EXPECT_EQ(r.src, *IpAddr::parse("10.0.0.5"));
   EXPECT_EQ(r.dst, IpAddr::broadcast());
   EXPECT_EQ(r.bytes.size(), 300u);
   EXPECT_EQ(bed.status->totalRequestsReceived(), 1u);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsReceived(), 1u);
   // One datagram per notification: the queue announces the next one by itself.
   receive(bootRequest, 7);
   receive(bootRequest, 7);
   EXPECT_EQ(sm->received.size(), 3u);
}

TEST_F(DhcpVrfSmTest, DatagramsFromUnknownDevices) {
   Platform::TraceCapture trace;
   // No kernel device has this index: dropped and counted without an interface.
   receive(bootRequest, 99);
   EXPECT_TRUE(sm->received.empty());
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped(), 0u);
   EXPECT_TRUE(trace.contains(" Interface for ifindex 99 does not exist. Dropping packet."));

   // A device that is no switch interface: a request is dropped without counting...
   receive(bootRequest, 8);
   EXPECT_TRUE(sm->received.empty());
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);
   EXPECT_EQ(bed.status->totalRequestsReceived(), 0u);
   EXPECT_TRUE(trace.contains(" Interface for kernel device Ethernet2 does not exist."));

   // ... and a reply goes on with no interface name.
   receive(bootReply, 8);
   ASSERT_EQ(sm->received.size(), 1u);
   EXPECT_TRUE(sm->received[0].intf.empty());
   EXPECT_EQ(bed.status->totalRepliesReceived(), 1u);
}

TEST_F(DhcpVrfSmTest, DeletionClosesOnceAndReleasesOnlyOtherNamespaces) {
   bed.activeVrfIs("red", 1);
   // The managers write the interface status of their namespace's devices.
   bed.device("ns-red", 3, "Ethernet5");
   EXPECT_TRUE(bed.allIntfStatus->intfStatus(IntfId("Ethernet5")));
   EXPECT_TRUE(bed.allIntfStatus->intfStatus(IntfId("Ethernet1")));

   DhcpVrfSm& red = *sm->dhcpVrfSm(VrfName("red"));
   Ptr<UdpTestPam> redUdp = udp("red");
   Ptr<Platform::RawTxTestPam> redRaw = bed.pams.raw.at("RawTxPam-red");
   red.handleDel();
   EXPECT_FALSE(red.initialized());
   EXPECT_EQ(redUdp->mode(), Platform::Pam::modeClosed);
   EXPECT_EQ(redRaw->mode(), Platform::Pam::modeClosed);
   EXPECT_FALSE(red.udpPam());
   EXPECT_FALSE(bed.allIntfStatus->intfStatus(IntfId("Ethernet5")));
   // Closed sockets no longer reach the relay.
   EXPECT_FALSE(redUdp->inject({Platform::Pkt::create(300), IpAddr(), 68, IpAddr(), 3}));

   Platform::TraceCapture trace;
   red.handleDel();
   EXPECT_EQ(trace.lines().size(), 1u);
   red.handleReadableCount();
   EXPECT_TRUE(sm->received.empty());

   vrfSm().handleDel();
   EXPECT_TRUE(bed.allIntfStatus->intfStatus(IntfId("Ethernet1")));
   EXPECT_TRUE(bed.managers->intfStatusManager("default"));
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
