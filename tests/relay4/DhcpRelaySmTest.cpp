#include <gtest/gtest.h>

#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::IpAddrWithMask;

class DhcpRelaySmTest : public testing::Test {
 protected:
   IntfId owner(const char* vrf, const char* a) {
      return sm->intfLookupTbl(genVrfIpPair(VrfName(vrf), ip(a)));
   }
   void start() {
      sm = std::make_unique<DhcpRelaySm>(bed.inputs());
      sm->handleInitialized();
   }

   RelayTestBed bed;
   std::unique_ptr<DhcpRelaySm> sm;
};

TEST_F(DhcpRelaySmTest, LookupTableFollowsTheRelayInterfacesAddresses) {
   auto eth1 = bed.intfIs("Ethernet1", "default", {"10.0.0.1/24", "10.0.1.1/24"});
   // Addresses of an interface without relay configuration are not the relay's.
   bed.ipStatus->ipIntfStatusIs(IntfId("Ethernet9"))->activeAddrWithMaskIs(net("10.9.0.1/24"));
   start();
   EXPECT_EQ(owner("default", "10.0.0.1"), IntfId("Ethernet1"));
   EXPECT_EQ(owner("default", "10.0.1.1"), IntfId("Ethernet1"));
   EXPECT_TRUE(owner("default", "10.9.0.1").empty());
   EXPECT_EQ(sm->intfLookupTbl().size(), 2u);

   // Losing the primary keeps the rows of the secondaries only.
   eth1->activeAddrWithMaskIs(IpAddrWithMask());
   EXPECT_TRUE(owner("default", "10.0.0.1").empty());
   EXPECT_TRUE(owner("default", "0.0.0.0").empty());
   EXPECT_EQ(owner("default", "10.0.1.1"), IntfId("Ethernet1"));

   eth1->activeAddrWithMaskIs(net("10.0.0.2/24"));
   eth1->activeSecondaryWithMaskDel(net("10.0.1.1/24"));
   EXPECT_EQ(owner("default", "10.0.0.2"), IntfId("Ethernet1"));
   EXPECT_EQ(sm->intfLookupTbl().size(), 1u);

   // Moving to another VRF moves the rows.
   eth1->activeSecondaryWithMaskIs(net("10.0.1.1/24"));
   eth1->vrfIs(VrfName("blue"));
   EXPECT_TRUE(owner("default", "10.0.0.2").empty() && owner("default", "10.0.1.1").empty());
   EXPECT_EQ(owner("blue", "10.0.0.2"), IntfId("Ethernet1"));
   EXPECT_EQ(owner("blue", "10.0.1.1"), IntfId("Ethernet1"));
   EXPECT_EQ(sm->vrfNameFromIntfId(IntfId("Ethernet1")), VrfName("blue"));

   // The same address in another VRF belongs to another interface without conflict.
   bed.intfIs("Ethernet2", "red", {"10.0.0.2/24"});
   EXPECT_EQ(owner("blue", "10.0.0.2"), IntfId("Ethernet1"));
   EXPECT_EQ(owner("red", "10.0.0.2"), IntfId("Ethernet2"));

   // Rows go with the relay configuration, and with the IP status.
   bed.config->intfConfigDel(IntfId("Ethernet1"));
   EXPECT_TRUE(owner("blue", "10.0.0.2").empty());
   bed.ipStatus->ipIntfStatusDel(IntfId("Ethernet2"));
   EXPECT_TRUE(sm->intfLookupTbl().size() == 0);
   // Nor does a removed interface's status still drive rows.
   eth1->activeAddrWithMaskIs(net("10.0.0.3/24"));
   EXPECT_TRUE(sm->intfLookupTbl().size() == 0);
}

// Relay interfaces have an interface status (and so counters) from initialisation on, and
// only while configured.
TEST_F(DhcpRelaySmTest, NothingHappensBeforeInitialisation) {
   sm = std::make_unique<DhcpRelaySm>(bed.inputs());
   bed.intfIs("Ethernet1", "default", {"10.0.0.1/24"});
   bed.activeVrfIs("default", 1);
   EXPECT_TRUE(sm->intfLookupTbl().size() == 0);
   EXPECT_TRUE(sm->dhcpVrfSm().empty());
   EXPECT_FALSE(bed.status->intfStatus(IntfId("Ethernet1")));
   sm->handleInitialized();
   EXPECT_EQ(owner("default", "10.0.0.1"), IntfId("Ethernet1"));
   EXPECT_NE(sm->dhcpVrfSm(VrfName("default")), nullptr);
   EXPECT_TRUE(bed.status->intfStatus(IntfId("Ethernet1")));
   bed.config->intfConfigIs(IntfId("Ethernet2"));
   EXPECT_TRUE(bed.status->intfStatus(IntfId("Ethernet2")));
   bed.config->intfConfigDel(IntfId("Ethernet1"));
   EXPECT_FALSE(bed.status->intfStatus(IntfId("Ethernet1")));
   EXPECT_NE(sm->kelDrIntfConfig(IntfId("Ethernet2")), nullptr);
   EXPECT_EQ(sm->kelDrIntfConfig(IntfId("Ethernet1")), nullptr);
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

// A message that passes them reaches its path: a request is relayed to the one server, a
// reply (giaddr zero here) is dropped by the reply path.
TEST_F(DhcpRelaySmTest, ChecksOnEveryMessage) {
   bed.intfIs("Ethernet1", "default", {"10.0.0.1/24"});
   bed.intfServerIpDir->drIntfServerIpIs(IntfId("Ethernet1"))
       ->serverIpIs(VrfIpSrcIntfSrcIp{VrfName("default"), ip("192.168.1.10"), {}, {}}, 1);
   bed.activeVrfIs("default", 1);
   start();
   const auto udp = bed.pams.udp.at("UdpSocket-default");
   struct Case {
      size_t bytes;
      uint8_t op;
      uint8_t hops;
      const char* src;
      const char* intf;
      std::optional<DropReason> dropped;  // none: relayed
   };
   const Case cases[] = {
       {236, bootRequest, 0, "0.0.0.0", "Ethernet1", {}},
       {235, bootRequest, 0, "0.0.0.0", "Ethernet1", DropReason::tooShort},
       {0, bootRequest, 0, "0.0.0.0", "Ethernet1", DropReason::tooShort},
       {300, bootRequest, 254, "0.0.0.0", "Ethernet1", {}},
       {300, bootRequest, 255, "0.0.0.0", "Ethernet1", DropReason::hopLimit},
       {300, bootReply, 255, "0.0.0.0", "Ethernet1", DropReason::hopLimit},
       {300, bootReply, 0, "0.0.0.0", "", DropReason::zeroGiaddr},
       {300, 3, 0, "0.0.0.0", "Ethernet1", DropReason::unknownOp},
       // Our own broadcast heard again; the same source on another link is someone else.
       {300, bootRequest, 0, "10.0.0.1", "Ethernet1", DropReason::ownEcho},
       {300, bootRequest, 0, "10.0.0.1", "Ethernet2", DropReason::notConfigured},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.bytes << " bytes op " << int(c.op) << " hops "
                                      << int(c.hops) << " from " << c.src << " on " << c.intf);
      std::map<std::string, uint64_t> drops = v4Drops(*bed.status);
      if (c.dropped)
         ++drops[std::string(dropReasonName(*c.dropped))];
      const size_t sent = udp->sent().size();
      const uint64_t intfDropped = bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped();
      auto pkt = Platform::Pkt::create(c.bytes);
      std::fill(pkt->span().begin(), pkt->span().end(), 0);
      if (c.bytes > 3) {
         pkt->data()[0] = c.op;
         pkt->data()[3] = c.hops;
      }
      sm->doProcessPacket(*pkt, ip(c.src), IpAddr::broadcast(), *c.intf ? IntfId(c.intf) : IntfId(),
                          VrfName::defaultVrf());
      EXPECT_EQ(udp->sent().size() - sent, c.dropped ? 0u : 1u);
      if (!c.dropped) {
         EXPECT_EQ(DhcpHdr::of(*Platform::Pkt::copyOf(udp->sent().back().bytes))->giaddr(),
                   ip("10.0.0.1"));
      }
      // A request dropped on its interface counts there too.
      EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped() - intfDropped,
                c.dropped && c.op == bootRequest && c.bytes && c.intf == std::string("Ethernet1"));
      EXPECT_EQ(v4Drops(*bed.status), drops);
   }
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
