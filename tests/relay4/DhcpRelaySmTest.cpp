#include <gtest/gtest.h>

#include "platform/trace/Trace.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::IpAddrWithMask;

class DhcpRelaySmTest : public testing::Test {
 protected:
   // A relay interface with IP status in a VRF.
   Ptr<Ip::IpIntfStatus> relayIntfIs(const char* intf, const char* vrf, const char* primary) {
      bed.config->intfConfigIs(IntfId(intf));
      auto status = bed.ipStatus->ipIntfStatusIs(IntfId(intf));
      status->vrfIs(VrfName(vrf));
      status->activeAddrWithMaskIs(net(primary));
      return status;
   }
   IntfId owner(const char* vrf, const char* a) {
      return sm->intfLookupTbl(genVrfIpPair(VrfName(vrf), ip(a)));
   }
   void start() {
      sm = bed.relaySm();
      sm->handleInitialized();
   }

   RelayTestBed bed;
   std::unique_ptr<ProbeRelaySm> sm;
};

TEST_F(DhcpRelaySmTest, LookupTableFollowsTheRelayInterfacesAddresses) {
   auto eth1 = relayIntfIs("Ethernet1", "default", "10.0.0.1/24");
   eth1->activeSecondaryWithMaskIs(net("10.0.1.1/24"));
   // Addresses of an interface without relay configuration are not the relay's.
   bed.ipStatus->ipIntfStatusIs(IntfId("Ethernet9"))->activeAddrWithMaskIs(net("10.9.0.1/24"));
   start();
   EXPECT_EQ(owner("default", "10.0.0.1"), IntfId("Ethernet1"));
   EXPECT_EQ(owner("default", "10.0.1.1"), IntfId("Ethernet1"));
   EXPECT_TRUE(owner("default", "10.9.0.1").empty());
   EXPECT_EQ(sm->intfLookupTbl().all().size(), 2u);

   // Losing the primary keeps the rows of the secondaries only.
   eth1->activeAddrWithMaskIs(IpAddrWithMask());
   EXPECT_TRUE(owner("default", "10.0.0.1").empty());
   EXPECT_TRUE(owner("default", "0.0.0.0").empty());
   EXPECT_EQ(owner("default", "10.0.1.1"), IntfId("Ethernet1"));

   eth1->activeAddrWithMaskIs(net("10.0.0.2/24"));
   eth1->activeSecondaryWithMaskDel(net("10.0.1.1/24"));
   EXPECT_EQ(owner("default", "10.0.0.2"), IntfId("Ethernet1"));
   EXPECT_EQ(sm->intfLookupTbl().all().size(), 1u);

   // The same address in another VRF belongs to another interface without conflict.
   relayIntfIs("Ethernet2", "red", "10.0.0.2/24");
   EXPECT_EQ(owner("default", "10.0.0.2"), IntfId("Ethernet1"));
   EXPECT_EQ(owner("red", "10.0.0.2"), IntfId("Ethernet2"));

   // Rows go with the relay configuration, and with the IP status.
   bed.config->intfConfigDel(IntfId("Ethernet1"));
   EXPECT_TRUE(owner("default", "10.0.0.2").empty());
   bed.ipStatus->ipIntfStatusDel(IntfId("Ethernet2"));
   EXPECT_TRUE(sm->intfLookupTbl().all().empty());
   // Nor does a removed interface's status still drive rows.
   eth1->activeAddrWithMaskIs(net("10.0.0.3/24"));
   EXPECT_TRUE(sm->intfLookupTbl().all().empty());
}

TEST_F(DhcpRelaySmTest, MovingAnInterfaceToAnotherVrfMovesItsRows) {
   auto eth1 = relayIntfIs("Ethernet1", "default", "10.0.0.1/24");
   eth1->activeSecondaryWithMaskIs(net("10.0.1.1/24"));
   start();
   Platform::TraceCapture trace;
   eth1->vrfIs(VrfName("red"));
   EXPECT_TRUE(owner("default", "10.0.0.1").empty());
   EXPECT_TRUE(owner("default", "10.0.1.1").empty());
   EXPECT_EQ(owner("red", "10.0.0.1"), IntfId("Ethernet1"));
   EXPECT_EQ(owner("red", "10.0.1.1"), IntfId("Ethernet1"));
   EXPECT_EQ(sm->vrfNameFromIntfId(IntfId("Ethernet1")), VrfName("red"));
   EXPECT_TRUE(trace.contains("Ethernet1 has current VRF:default, new VRF: red"));
}

TEST_F(DhcpRelaySmTest, RelayInterfacesHaveAnIntfStatus) {
   bed.config->intfConfigIs(IntfId("Ethernet1"));
   start();
   EXPECT_TRUE(bed.status->intfStatus(IntfId("Ethernet1")));
   bed.config->intfConfigIs(IntfId("Ethernet2"));
   EXPECT_TRUE(bed.status->intfStatus(IntfId("Ethernet2")));
   bed.config->intfConfigDel(IntfId("Ethernet1"));
   EXPECT_FALSE(bed.status->intfStatus(IntfId("Ethernet1")));
   EXPECT_NE(sm->kelDrIntfConfig(IntfId("Ethernet2")), nullptr);
   EXPECT_EQ(sm->kelDrIntfConfig(IntfId("Ethernet1")), nullptr);
}

TEST_F(DhcpRelaySmTest, NothingHappensBeforeInitialisation) {
   sm = bed.relaySm();
   relayIntfIs("Ethernet1", "default", "10.0.0.1/24");
   bed.activeVrfIs("default", 1);
   EXPECT_TRUE(sm->intfLookupTbl().all().empty());
   EXPECT_TRUE(sm->dhcpVrfSm().empty());
   EXPECT_FALSE(bed.status->intfStatus(IntfId("Ethernet1")));
   sm->handleInitialized();
   EXPECT_EQ(owner("default", "10.0.0.1"), IntfId("Ethernet1"));
   EXPECT_NE(sm->dhcpVrfSm(VrfName("default")), nullptr);
   EXPECT_TRUE(bed.status->intfStatus(IntfId("Ethernet1")));
}

TEST_F(DhcpRelaySmTest, SocketsFollowTheVrfsInUse) {
   bed.vrfIs("red", "ns-red", false);
   // As the VRF selection enters it: the default VRF is never counted, yet always has
   // sockets.
   bed.activeVrfIs("default", 0);
   bed.activeVrfIs("red", 1);
   start();
   ASSERT_NE(sm->dhcpVrfSm(VrfName("default")), nullptr);
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("default"))->nsName(), NamespaceName("default"));
   // No sockets in a namespace that does not exist yet.
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("red")), nullptr);

   bed.vrfs->vrf(VrfName("red"))->stateIs(Ip::VrfStatusLocal::State::active);
   ASSERT_NE(sm->dhcpVrfSm(VrfName("red")), nullptr);
   EXPECT_EQ(bed.pams.udp.at("UdpSocket-red")->netNs(), "ns-red");

   // A VRF that leaves the VRF status loses its sockets, and they close.
   Ptr<Platform::UdpTestPam> redUdp = bed.pams.udp.at("UdpSocket-red");
   bed.vrfs->vrfDel(VrfName("red"));
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("red")), nullptr);
   EXPECT_EQ(redUdp->mode(), Platform::Pam::modeClosed);
   // ... and does not come back while it has no namespace, however much it is used.
   bed.activeVrfIs("red", 2);
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("red")), nullptr);
   bed.vrfIs("red", "ns-red2", true);
   ASSERT_NE(sm->dhcpVrfSm(VrfName("red")), nullptr);
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("red"))->nsName(), NamespaceName("ns-red2"));

   // A namespace change reopens the sockets in the new namespace.
   bed.vrfs->vrf(VrfName("red"))->nsNameIs(NamespaceName("ns-red3"));
   ASSERT_NE(sm->dhcpVrfSm(VrfName("red")), nullptr);
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("red"))->nsName(), NamespaceName("ns-red3"));

   // The default VRF keeps its sockets whatever its status says.
   bed.vrfs->vrf(VrfName("default"))->stateIs(Ip::VrfStatusLocal::State::inactive);
   EXPECT_NE(sm->dhcpVrfSm(VrfName("default")), nullptr);

   // Sockets go when nothing needs the VRF any more.
   bed.activeVrfIs("red", 0);
   EXPECT_EQ(sm->dhcpVrfSm(VrfName("red")), nullptr);
   bed.activeVrfDir->vrfCountDel(VrfName("default"));
   EXPECT_TRUE(sm->dhcpVrfSm().empty());
}

// --- checks common to every received message -------------------------------------------

class DoProcessPacketTest : public DhcpRelaySmTest {
 protected:
   void SetUp() override {
      relayIntfIs("Ethernet1", "default", "10.0.0.1/24");
      bed.activeVrfIs("default", 1);
      start();
      sm->processPackets = true;
   }
   void process(size_t bytes, uint8_t op, uint8_t hops = 0, const char* src = "0.0.0.0") {
      auto pkt = Platform::Pkt::create(bytes);
      std::fill(pkt->span().begin(), pkt->span().end(), 0);
      if (bytes > 0)
         pkt->data()[0] = op;
      if (bytes > 3)
         pkt->data()[3] = hops;
      sm->doProcessPacket(*pkt, ip(src), IpAddr::broadcast(), IntfId("Ethernet1"),
                          VrfName::defaultVrf());
   }
   uint64_t requestsDropped() { return bed.status->totalRequestsDropped(); }
};

TEST_F(DoProcessPacketTest, ShortMessagesAreDroppedAndCounted) {
   process(235, bootRequest);
   EXPECT_EQ(sm->requests, 0);
   EXPECT_EQ(requestsDropped(), 1u);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped(), 1u);
   process(236, bootRequest);
   EXPECT_EQ(sm->requests, 1);
   EXPECT_EQ(requestsDropped(), 1u);
   process(0, bootRequest);
   EXPECT_EQ(sm->requests, 1);
}

TEST_F(DoProcessPacketTest, HopLimit) {
   Platform::TraceCapture trace;
   process(300, bootRequest, 255);
   EXPECT_EQ(sm->requests, 0);
   EXPECT_EQ(requestsDropped(), 1u);
   EXPECT_TRUE(trace.contains(" hops greater than.254. Dropping packet."));
   process(300, bootRequest, 254);
   EXPECT_EQ(sm->requests, 1);
   process(300, bootReply, 255);
   EXPECT_EQ(sm->replies, 0);
   EXPECT_EQ(bed.status->totalRepliesDropped(), 1u);
}

TEST_F(DoProcessPacketTest, DispatchByOp) {
   Platform::TraceCapture trace;
   process(300, 3);
   process(300, 0);
   EXPECT_EQ(sm->requests + sm->replies, 0);
   EXPECT_TRUE(trace.contains(" unknown bootp op. Dropping packet."));
   process(300, bootReply);
   EXPECT_EQ(sm->replies, 1);
   process(300, bootRequest);
   EXPECT_EQ(sm->requests, 1);
}

TEST_F(DoProcessPacketTest, OwnTransmissionHeardAgainIsDropped) {
   Platform::TraceCapture trace;
   process(300, bootRequest, 0, "10.0.0.1");
   EXPECT_EQ(sm->requests, 0);
   EXPECT_EQ(requestsDropped(), 1u);
   EXPECT_TRUE(trace.contains("Packet IP SA=10.0.0.1 interface=Ethernet1"));
   // The same address heard on another interface is another relay's, or a client's.
   auto pkt = Platform::Pkt::create(300);
   std::fill(pkt->span().begin(), pkt->span().end(), 0);
   pkt->data()[0] = bootRequest;
   sm->doProcessPacket(*pkt, ip("10.0.0.1"), IpAddr::broadcast(), IntfId("Ethernet2"),
                       VrfName::defaultVrf());
   EXPECT_EQ(sm->requests, 1);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
