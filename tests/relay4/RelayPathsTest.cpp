#include <gtest/gtest.h>

#include "codec/DhcpCodec.h"
#include "platform/trace/Trace.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::EthAddr;
using Platform::IpAddrWithMask;
using Platform::Pkt;

const EthAddr kRelayMac({0x02, 0x00, 0x00, 0x00, 0x00, 0x01});

// The relay with the kernel's routing answers supplied by the test.
class PathRelaySm : public DhcpRelaySm {
 public:
   using DhcpRelaySm::DhcpRelaySm;
   std::optional<Platform::EgressRoute> egressRoute(DhcpVrfSm&, IpAddr server) override {
      auto it = routes.find(server.value());
      if (it == routes.end())
         return std::nullopt;
      return Platform::EgressRoute{it->second, {}, {}};
   }
   std::map<uint32_t, uint32_t> routes;
};

Ptr<Pkt> pktOf(const Bytes& b) {
   return Pkt::copyOf(b);
}

// Ones-complement sum of 16-bit words: 0xffff over data that holds its own valid checksum.
uint16_t onesSum(const uint8_t* p, size_t n, uint32_t sum = 0) {
   for (size_t i = 0; i < n; i += 2)
      sum += (p[i] << 8) | (i + 1 < n ? p[i + 1] : 0);
   while (sum >> 16)
      sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<uint16_t>(sum);
}

class RelayPathsTest : public testing::Test {
 protected:
   void SetUp() override {
      bed.vrfIs("red", "ns-red", true);
      bed.activeVrfIs("default", 1);
      bed.activeVrfIs("red", 1);
      eth1 = relayIntfIs("Ethernet1", "default", "10.0.0.1/24");
      config1 = bed.config->intfConfig(IntfId("Ethernet1"));
      servers1 = bed.intfServerIpDir->drIntfServerIpIs(IntfId("Ethernet1"));
      bed.device("default", 5, "Ethernet1")->macIs(kRelayMac);
      // The interface towards the servers of VRF red: no relay on it.
      auto eth7 = bed.ipStatus->ipIntfStatusIs(IntfId("Ethernet7"));
      eth7->vrfIs(VrfName("red"));
      eth7->activeAddrWithMaskIs(*IpAddrWithMask::parse("172.16.0.1/24"));
      bed.device("ns-red", 7, "Ethernet7")->ipv4Is({*IpAddrWithMask::parse("172.16.0.1/24")});

      sm = std::make_unique<PathRelaySm>(bed.inputs());
      sm->handleInitialized();
      sm->routes[ip("172.16.0.10").value()] = 7;
      udp = bed.pams.udp.at("UdpSocket-default");
      udpRed = bed.pams.udp.at("UdpSocket-red");
      raw = bed.pams.raw.at("RawTxPam-default");
   }

   Ptr<Ip::IpIntfStatus> relayIntfIs(const char* intf, const char* vrf, const char* primary) {
      bed.config->intfConfigIs(IntfId(intf));
      auto status = bed.ipStatus->ipIntfStatusIs(IntfId(intf));
      status->vrfIs(VrfName(vrf));
      status->activeAddrWithMaskIs(*IpAddrWithMask::parse(primary));
      return status;
   }
   void serverIs(const char* vrf, const char* addr) {
      servers1->serverIpIs(VrfIpSrcIntfSrcIp{VrfName(vrf), ip(addr), {}, {}}, 1);
   }
   Ptr<Pkt> receive(const Msg& m, IpAddr dst = IpAddr::broadcast(), const char* vrf = "default",
                    IpAddr src = IpAddr(), const char* intf = "Ethernet1") {
      Ptr<Pkt> pkt = pktOf(message(m));
      sm->doProcessPacket(*pkt, src, dst, IntfId(intf), VrfName(vrf));
      return pkt;
   }
   Ptr<Pkt> sentPkt(const Platform::UdpTestPam::Sent& s) { return pktOf(s.bytes); }

   RelayTestBed bed;
   Ptr<Ip::IpIntfStatus> eth1;
   Ptr<IntfConfig> config1;
   Ptr<IntfServerIp> servers1;
   std::unique_ptr<PathRelaySm> sm;
   Ptr<Platform::UdpTestPam> udp, udpRed;
   Ptr<Platform::RawTxTestPam> raw;
};

// --- request path -----------------------------------------------------------------------

TEST_F(RelayPathsTest, HopCountOnRelayedRequests) {
   serverIs("default", "192.168.1.10");
   receive({.hops = 255});
   EXPECT_TRUE(udp->sent().empty());
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);

   receive({.hops = 254});
   ASSERT_EQ(udp->sent().size(), 1u);
   const auto& s = udp->sent()[0];
   EXPECT_EQ(s.bytes[3], 255);
   EXPECT_EQ(s.dst, Platform::IpGenAddr(ip("192.168.1.10")));
   EXPECT_EQ(s.src, Platform::IpGenAddr(ip("10.0.0.1")));
   EXPECT_EQ(s.port, 67);
   EXPECT_EQ(DhcpHdr::of(*sentPkt(s))->giaddr(), ip("10.0.0.1"));
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 1u);
}

TEST_F(RelayPathsTest, RequestsRelayedByOtherAgents) {
   serverIs("default", "192.168.1.10");
   Platform::TraceCapture trace;
   // A re-broadcast leaves with the hop count no relay accepts, so it stops at the next.
   receive({.hops = 3, .giaddr = ip("10.0.0.77")});
   ASSERT_EQ(udp->sent().size(), 1u);
   EXPECT_EQ(udp->sent()[0].dst, Platform::IpGenAddr(IpAddr::broadcast()));
   EXPECT_EQ(udp->sent()[0].bytes[3], 255);
   EXPECT_TRUE(trace.contains("setting hops to maximum value."));
   EXPECT_TRUE(trace.contains(" forward previously relayed packet to 255.255.255.255"));
   // Unicast to us from another agent goes on to where it was sent, one hop further,
   // untouched otherwise (the giaddr stays the other agent's).
   receive({.hops = 3, .giaddr = ip("10.0.0.77")}, ip("192.168.9.9"));
   ASSERT_EQ(udp->sent().size(), 2u);
   EXPECT_EQ(udp->sent()[1].dst, Platform::IpGenAddr(ip("192.168.9.9")));
   EXPECT_EQ(udp->sent()[1].bytes[3], 4);
   EXPECT_EQ(DhcpHdr::of(*sentPkt(udp->sent()[1]))->giaddr(), ip("10.0.0.77"));
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 2u);

   // Our own giaddr: we relayed it already.
   receive({.giaddr = ip("10.0.0.1")});
   EXPECT_EQ(udp->sent().size(), 2u);
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);
   EXPECT_TRUE(trace.contains(" dropping request packet already handled ( giaddr=10.0.0.1"));
}

TEST_F(RelayPathsTest, UnicastToOurOwnAddressIsARenewalOnlyOnItsLink) {
   serverIs("default", "192.168.1.10");
   relayIntfIs("Ethernet2", "default", "10.0.2.1/24");
   Platform::TraceCapture trace;
   receive({}, ip("10.0.0.1"), "default", ip("10.0.0.50"));
   EXPECT_TRUE(udp->sent().empty());
   EXPECT_TRUE(
       trace.contains(" No existing client context, Dropping unicast DHCPRENEW request "
                      "for client 02:00:00:00:00:42"));
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);

   receive({}, ip("10.0.2.1"), "default", ip("10.0.0.50"));
   ASSERT_EQ(udp->sent().size(), 1u);
   EXPECT_EQ(udp->sent()[0].dst, Platform::IpGenAddr(ip("192.168.1.10")));
}

TEST_F(RelayPathsTest, CrossVrfServerNeedsTheInformationOption) {
   serverIs("default", "192.168.1.10");
   serverIs("red", "172.16.0.10");
   Platform::TraceCapture trace;
   receive({});
   ASSERT_EQ(udp->sent().size(), 1u);
   EXPECT_TRUE(udpRed->sent().empty());
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 1u);
   EXPECT_EQ(bed.status->totalRequestsDropped(), 1u);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped(), 1u);
   EXPECT_TRUE(trace.contains(" Not relaying packet across vrf for intf Ethernet1"));
   // Without option 82 configured nothing is added to the same-VRF copy.
   EXPECT_FALSE(infoOptPresent(*sentPkt(udp->sent()[0])));
}

TEST_F(RelayPathsTest, InterfaceWithoutAddressDropsEveryRequest) {
   serverIs("default", "192.168.1.10");
   serverIs("red", "172.16.0.10");
   eth1->activeAddrWithMaskIs(IpAddrWithMask());
   Platform::TraceCapture trace;
   receive({});
   receive({}, ip("10.0.0.9"));
   EXPECT_TRUE(udp->sent().empty());
   EXPECT_TRUE(udpRed->sent().empty());
   EXPECT_EQ(bed.status->totalRequestsDropped(), 2u);
   EXPECT_TRUE(trace.contains(
       " No valid IP address found on client interface ( Ethernet1 ). Dropping packet"));
}

TEST_F(RelayPathsTest, CrossVrfCopyCarriesWhatTheReplyNeeds) {
   config1->informationOptionIs(true);
   config1->circuitIdIs("port-7");
   serverIs("default", "192.168.1.10");
   serverIs("red", "172.16.0.10");
   receive({.hops = 2, .serverId = ip("10.0.0.1")});

   ASSERT_EQ(udp->sent().size(), 1u);
   ASSERT_EQ(udpRed->sent().size(), 1u);
   std::string circuit, remote, vrf;
   IpAddr override, link;
   // Same VRF: circuit-id only, option 54 as the client sent it.
   Ptr<Pkt> own = sentPkt(udp->sent()[0]);
   ASSERT_TRUE(parseInfoOpt(*own, circuit, remote, vrf, override, link, 0));
   EXPECT_EQ(circuit, "port-7");
   EXPECT_TRUE(vrf.empty());
   EXPECT_TRUE(override.isZero());
   EXPECT_EQ(getServerId(*own), ip("10.0.0.1"));
   EXPECT_EQ(own->data()[3], 3);

   // Other VRF: one option 82 (a second would not parse) with the client's VRF, our
   // address as server identifier override and the client subnet; option 54 names the
   // real server; giaddr and source are our address in the server's VRF.
   const auto& s = udpRed->sent()[0];
   Ptr<Pkt> cross = sentPkt(s);
   ASSERT_TRUE(parseInfoOpt(*cross, circuit, remote, vrf, override, link, 0));
   EXPECT_EQ(circuit, "port-7");
   EXPECT_EQ(remote, "");
   EXPECT_EQ(vrf, "default");
   EXPECT_EQ(override, ip("10.0.0.1"));
   EXPECT_EQ(link, ip("10.0.0.0"));
   EXPECT_EQ(getServerId(*cross), ip("172.16.0.10"));
   EXPECT_EQ(DhcpHdr::of(*cross)->giaddr(), ip("172.16.0.1"));
   EXPECT_EQ(cross->data()[3], 3);
   EXPECT_EQ(s.src, Platform::IpGenAddr(ip("172.16.0.1")));
   EXPECT_EQ(s.dst, Platform::IpGenAddr(ip("172.16.0.10")));
   EXPECT_EQ(s.port, 67);
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 2u);
   // The egress address is outside the client's subnets.
   EXPECT_EQ(bed.status->totalRequestsForwardedWithNonSubnetIp(), 1u);
   EXPECT_EQ(bed.status->totalRequestsForwardedWithCrossVrfIp(), 0u);

   // No route towards the server in its VRF: that copy alone is dropped.
   sm->routes.clear();
   Platform::TraceCapture trace;
   receive({});
   EXPECT_EQ(udp->sent().size(), 2u);
   EXPECT_EQ(udpRed->sent().size(), 1u);
   EXPECT_TRUE(
       trace.contains("No egress interfaces found for destIp172.16.0.10 in server vrf red"));
}

TEST_F(RelayPathsTest, SourceAddressCounters) {
   auto eth = eth1;
   eth->activeSecondaryWithMaskIs(*IpAddrWithMask::parse("10.0.1.1/24"));
   servers1->serverIpIs(
       VrfIpSrcIntfSrcIp{VrfName("default"), ip("192.168.1.10"), {}, ip("10.0.1.1")}, 1);
   receive({});
   ASSERT_EQ(udp->sent().size(), 1u);
   EXPECT_EQ(udp->sent()[0].src, Platform::IpGenAddr(ip("10.0.1.1")));
   EXPECT_EQ(bed.status->totalRequestsForwardedWithNonSubnetIp(), 0u);
   EXPECT_EQ(bed.status->totalRequestsForwardedWithCrossVrfIp(), 0u);

   servers1->serverIpIs(
       VrfIpSrcIntfSrcIp{VrfName("default"), ip("192.168.1.10"), {}, ip("10.9.9.9")}, 1);
   receive({});
   EXPECT_EQ(bed.status->totalRequestsForwardedWithNonSubnetIp(), 1u);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsForwardedWithNonSubnetIp(), 1u);
   EXPECT_EQ(bed.status->totalRequestsForwardedWithCrossVrfIp(), 0u);
}

// --- reply path -----------------------------------------------------------------------

class ReplyPathTest : public RelayPathsTest {
 protected:
   // The DHCP payload a server sends, with the option 82 this relay added.
   Bytes serverReply(const Msg& m, std::string_view vrfName = {}, IpAddr override = IpAddr()) {
      Ptr<Pkt> pkt = pktOf(message(m));
      EXPECT_TRUE(preparePacket(*pkt, bootRequest, true, "Ethernet1", {}, vrfName, override,
                                ip("10.0.0.0"), 0));
      return {pkt->span().begin(), pkt->span().end()};
   }
   // The frame expected on the wire, checksums left zero.
   Bytes frame(const Bytes& dhcp, const EthAddr& dstMac, IpAddr srcIp, IpAddr dstIp) {
      Bytes f;
      f.insert(f.end(), dstMac.bytes().begin(), dstMac.bytes().end());
      f.insert(f.end(), kRelayMac.bytes().begin(), kRelayMac.bytes().end());
      const uint16_t ipLen = static_cast<uint16_t>(28 + dhcp.size());
      const uint16_t udpLen = static_cast<uint16_t>(8 + dhcp.size());
      f.insert(f.end(), {0x08, 0x00, 0x45, 0, uint8_t(ipLen >> 8), uint8_t(ipLen), 0, 0, 0, 0, 64,
                         17, 0, 0});
      f.resize(f.size() + 8);
      put32(f, 26, srcIp.value());
      put32(f, 30, dstIp.value());
      f.insert(f.end(), {0, 67, 0, 68, uint8_t(udpLen >> 8), uint8_t(udpLen), 0, 0});
      f.insert(f.end(), dhcp.begin(), dhcp.end());
      return f;
   }
   // Checks both checksums on their own terms and zeroes them for the byte comparison.
   Bytes verifiedChecksums(Bytes f) {
      EXPECT_EQ(onesSum(&f[14], 20), 0xffff) << "IPv4 header checksum";
      const size_t udpLen = f.size() - 34;
      uint32_t pseudo = onesSum(&f[26], 8) + 17 + static_cast<uint32_t>(udpLen);
      EXPECT_NE(f[40] | f[41], 0) << "UDP checksum present";
      EXPECT_EQ(onesSum(&f[34], udpLen, pseudo), 0xffff) << "UDP checksum";
      f[24] = f[25] = f[40] = f[41] = 0;
      return f;
   }
   void replyIn(const Bytes& dhcp, const char* vrf = "default", const char* src = "192.168.1.10") {
      Ptr<Pkt> pkt = pktOf(dhcp);
      sm->doProcessPacket(*pkt, ip(src), ip("10.0.0.1"), IntfId(), VrfName(vrf));
   }
};

TEST_F(ReplyPathTest, BroadcastAndUnicastFrames) {
   config1->informationOptionIs(true);
   const Msg ack{.op = bootReply,
                 .type = 5,
                 .hops = 1,
                 .flags = 0x8000,
                 .yiaddr = ip("10.0.0.50"),
                 .giaddr = ip("10.0.0.1"),
                 .serverId = ip("192.168.1.10")};
   replyIn(serverReply(ack));
   ASSERT_EQ(raw->sent().size(), 1u);
   EXPECT_EQ(raw->sent()[0].ifindex, 5u);
   // Option 82 gone, option 54 as the server sent it, one hop more.
   Msg expected = ack;
   expected.hops = 2;
   EXPECT_EQ(verifiedChecksums(raw->sent()[0].bytes),
             frame(message(expected), EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), ip("10.0.0.1"),
                   IpAddr::broadcast()));

   Msg unicast = ack;
   unicast.flags = 0;
   replyIn(serverReply(unicast));
   ASSERT_EQ(raw->sent().size(), 2u);
   unicast.hops = 2;
   EXPECT_EQ(verifiedChecksums(raw->sent()[1].bytes),
             frame(message(unicast), kClientMac, ip("10.0.0.1"), ip("10.0.0.50")));

   // No address yet: IP broadcast, but still to the client's MAC.
   Msg noAddr = unicast;
   noAddr.yiaddr = IpAddr();
   noAddr.hops = 1;
   replyIn(serverReply(noAddr));
   ASSERT_EQ(raw->sent().size(), 3u);
   noAddr.hops = 2;
   EXPECT_EQ(verifiedChecksums(raw->sent()[2].bytes),
             frame(message(noAddr), kClientMac, ip("10.0.0.1"), IpAddr::broadcast()));
   EXPECT_EQ(bed.status->totalRepliesForwarded(), 3u);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->repliesForwarded(), 3u);
}

TEST_F(ReplyPathTest, RepliesNotForUsAreDropped) {
   Platform::TraceCapture trace;
   replyIn(serverReply({.op = bootReply, .type = 5, .giaddr = ip("10.0.0.99")}));
   replyIn(serverReply({.op = bootReply, .type = 5, .giaddr = IpAddr()}));
   EXPECT_TRUE(raw->sent().empty());
   EXPECT_EQ(bed.status->totalRepliesDropped(), 2u);
   EXPECT_TRUE(trace.contains(" no interface associated with giaddr=10.0.0.99. Dropping packet."));
   EXPECT_TRUE(trace.contains(" giaddr is zero on reply packet. Dropping packet."));
}

TEST_F(ReplyPathTest, CrossVrfReplyRestoresServerIdAndBindsTheRenewal) {
   config1->informationOptionIs(true);
   serverIs("red", "172.16.0.10");
   const Msg ack{.op = bootReply,
                 .type = 5,
                 .hops = 0,
                 .flags = 0x8000,
                 .yiaddr = ip("10.0.0.50"),
                 .giaddr = ip("172.16.0.1"),
                 .serverId = ip("172.16.0.10")};
   replyIn(serverReply(ack, "default", ip("10.0.0.1")), "red", "172.16.0.10");
   ASSERT_EQ(raw->sent().size(), 1u);
   EXPECT_EQ(raw->sent()[0].ifindex, 5u);
   Msg expected = ack;
   expected.hops = 1;
   expected.serverId = ip("10.0.0.1");
   EXPECT_EQ(verifiedChecksums(raw->sent()[0].bytes),
             frame(message(expected), EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), ip("10.0.0.1"),
                   IpAddr::broadcast()));
   const CrossVrfClientBinding* binding = bed.clientContext->crossVrfClientBinding(kClientMac);
   ASSERT_NE(binding, nullptr);
   EXPECT_EQ(binding->toString(),
             "ingress=default:10.0.0.1 egress=red:172.16.0.1 server=red:172.16.0.10 "
             "subnet=10.0.0.0");

   // The client renews by unicast to the address it was given as server.
   receive({.hops = 1, .serverId = ip("10.0.0.1")}, ip("10.0.0.1"), "default", ip("10.0.0.50"));
   ASSERT_EQ(udpRed->sent().size(), 1u);
   const auto& s = udpRed->sent()[0];
   EXPECT_EQ(s.dst, Platform::IpGenAddr(ip("172.16.0.10")));
   EXPECT_EQ(s.src, Platform::IpGenAddr(ip("172.16.0.1")));
   Ptr<Pkt> renew = sentPkt(s);
   EXPECT_EQ(renew->data()[3], 2);
   std::string circuit, remote, vrf;
   IpAddr override, link;
   ASSERT_TRUE(parseInfoOpt(*renew, circuit, remote, vrf, override, link, 0));
   EXPECT_EQ(vrf, "default");
   EXPECT_EQ(override, ip("10.0.0.1"));
   EXPECT_EQ(link, ip("10.0.0.0"));

   // A cross-VRF reply without the override it needs is not sent.
   Platform::TraceCapture trace;
   replyIn(serverReply(ack, "default"), "red", "172.16.0.10");
   EXPECT_EQ(raw->sent().size(), 1u);
   EXPECT_EQ(bed.status->totalRepliesDropped(), 1u);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
