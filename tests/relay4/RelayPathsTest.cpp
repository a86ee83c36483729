#include <gtest/gtest.h>

#include "codec/DhcpCodec.h"
#include "codec/Frame.h"
#include "platform/packet/ByteCursor.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay::Test {
namespace {

using Platform::EthAddr;
using Platform::IpGenAddr;
using Platform::Pkt;

const EthAddr kRelayMac = mac(1);  // every interface's, as RelayTestBed::intfIs makes them
const EthAddr kBroadcastMac({0xff, 0xff, 0xff, 0xff, 0xff, 0xff});

IpAddr ipAt(const Bytes& frame, size_t off) {
   return IpAddr(Platform::ByteReader(std::span(frame).subspan(off)).read32().value_or(0));
}

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

// Option 82 as read back from a packet; `present` false when it carries none.
struct Opt82 {
   bool present = false;
   std::string circuit, remote, vrf;
   IpAddr override, link;
   bool operator==(const Opt82&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Opt82& o) {
   if (!o.present)
      return os << "(no option 82)";
   return os << "circuit=" << o.circuit << " remote=" << o.remote << " vrf=" << o.vrf
             << " override=" << o.override.toString() << " link=" << o.link.toString();
}

Opt82 opt82Of(const Pkt& pkt, size_t offset = 0) {
   Opt82 o;
   o.present = infoOptPresent(pkt, offset);
   EXPECT_TRUE(parseInfoOpt(pkt, o.circuit, o.remote, o.vrf, o.override, o.link, offset));
   return o;
}

Opt82 opt(std::string circuit, std::string vrf = {}, const char* override = nullptr,
          const char* link = nullptr, std::string remote = {}) {
   const auto addr = [](const char* a) { return a ? ip(a) : IpAddr(); };
   return {true, std::move(circuit), std::move(remote), std::move(vrf), addr(override), addr(link)};
}

// A message with an option 82 already in it, as a first hop or the relay itself writes it.
Bytes withOpt82(const Msg& m, const Opt82& o) {
   Ptr<Pkt> pkt = Pkt::copyOf(message(m));
   EXPECT_TRUE(
       preparePacket(*pkt, bootRequest, true, o.circuit, o.remote, o.vrf, o.override, o.link, 0));
   return {pkt->span().begin(), pkt->span().end()};
}

// Ethernet1 (10.0.0.1/24, secondary 10.0.1.1/24) and Ethernet2 (10.0.2.1/24) relay in the
// default VRF; Ethernet3 (10.0.3.1/24) is a source interface there; Ethernet7 (172.16.0.1)
// leads to the servers of VRF red. The kernel tables list every address, so they are the
// relay's own in their VRF.
class RelayPathsTest : public testing::Test {
 protected:
   void SetUp() override {
      bed.vrfIs("red", "ns-red", true);
      bed.activeVrfIs("default", 1);
      bed.activeVrfIs("red", 1);
      eth1 = bed.intfIs("Ethernet1", "default", {"10.0.0.1/24", "10.0.1.1/24"}, 5);
      bed.intfIs("Ethernet2", "default", {"10.0.2.1/24"}, 6);
      bed.intfIs("Ethernet3", "default", {"10.0.3.1/24"}, 8, false);
      bed.intfIs("Ethernet7", "red", {"172.16.0.1/24"}, 7, false);
      config1 = bed.config->intfConfig(IntfId("Ethernet1"));
      servers1 = bed.intfServerIpDir->drIntfServerIpIs(IntfId("Ethernet1"));
      sm = std::make_unique<PathRelaySm>(bed.inputs());
      sm->handleInitialized();
      sm->routes[ip("172.16.0.10").value()] = 7;
      udp = bed.pams.udp.at("UdpSocket-default");
      udpRed = bed.pams.udp.at("UdpSocket-red");
      raw = bed.pams.raw.at("RawTxPam-default");
   }

   void serverIs(const char* vrf, const char* addr, const char* srcIntf = "",
                 const char* srcIp = "") {
      servers1->serverIpIs(
          VrfIpSrcIntfSrcIp{VrfName(vrf), ip(addr), *srcIntf ? IntfId(srcIntf) : IntfId(),
                            *srcIp ? IpGenAddr(ip(srcIp)) : IpGenAddr()},
          1);
   }
   void receive(const Bytes& payload, IpAddr dst = IpAddr::broadcast(), IpAddr src = IpAddr(),
                const char* intf = "Ethernet1", const char* vrf = "default") {
      Ptr<Pkt> pkt = Pkt::copyOf(payload);
      sm->doProcessPacket(*pkt, src, dst, IntfId(intf), VrfName(vrf));
   }
   void replyIn(const Bytes& dhcp, const char* vrf = "default", const char* src = "192.168.1.10") {
      Ptr<Pkt> pkt = Pkt::copyOf(dhcp);
      sm->doProcessPacket(*pkt, ip(src), ip("10.0.0.1"), IntfId(), VrfName(vrf));
   }
   // Every copy sent to a server so far, in order, with the VRF whose socket sent it.
   std::vector<std::pair<std::string, Platform::UdpTestPam::Sent>> copies() const {
      std::vector<std::pair<std::string, Platform::UdpTestPam::Sent>> out;
      for (const auto& s : udp->sent())
         out.emplace_back("default", s);
      for (const auto& s : udpRed->sent())
         out.emplace_back("red", s);
      return out;
   }
   uint64_t drops(DropReason r) const {
      return v4Drops(*bed.status)[std::string(dropReasonName(r))];
   }

   RelayTestBed bed;
   Ptr<Ip::IpIntfStatus> eth1;
   Ptr<IntfConfig> config1;
   Ptr<IntfServerIp> servers1;
   std::unique_ptr<PathRelaySm> sm;
   Ptr<Platform::UdpTestPam> udp, udpRed;
   Ptr<Platform::RawTxTestPam> raw;
};

// --- one copy per server: socket, giaddr and option 82 ------------------------------------

struct CopyCase {
   const char* name;
   const char* vrf = "default";  // the server's
   const char* srcIntf = "";
   const char* srcIp = "";
   bool informationOption = false;
   InfoOptionPolicy policy = InfoOptionPolicy::drop;
   bool firstHopOption = false;  // the client's request arrives with a switch's option 82
   // Expected: the copy's VRF and giaddr, and its option 82; or the reason it was dropped.
   const char* sentIn = "default";
   const char* giaddr = "10.0.0.1";
   Opt82 option = {};
   std::optional<DropReason> dropped = {};
   // Copies counted as relayed from outside the interface's subnets.
   uint64_t nonSubnet = 0;
};

void PrintTo(const CopyCase& c, std::ostream* os) {
   *os << c.name;
}

const Opt82 kSwitch = opt("sw-port", {}, nullptr, nullptr, "sw-remote");

const CopyCase kCopyCases[] = {
    {.name = "Plain"},
    {.name = "CircuitId", .informationOption = true, .option = opt("port-7")},
    // Replies to a copy from another address find the client by the override address; the
    // server leases from the client's subnet by link selection.
    {.name = "SourceInterface",
     .srcIntf = "Ethernet3",
     .informationOption = true,
     .giaddr = "10.0.3.1",
     .option = opt("port-7", {}, "10.0.0.1", "10.0.0.0")},
    {.name = "SourceInterfaceNeedsTheOption",
     .srcIntf = "Ethernet3",
     .dropped = DropReason::srcIntfNeedsInfoOption},
    {.name = "SourceInterfaceInAnotherVrf",
     .srcIntf = "Ethernet7",
     .informationOption = true,
     .dropped = DropReason::srcIntfInactive},
    // The locating sub-options go even without the information option: otherwise the reply
    // to 10.9.9.9 finds no client (or, for another interface's address, the wrong one).
    {.name = "SourceAddressElsewhere",
     .srcIp = "10.9.9.9",
     .giaddr = "10.9.9.9",
     .option = opt({}, {}, "10.0.0.1", "10.0.0.0"),
     .nonSubnet = 1},
    {.name = "SourceAddressOfAnotherRelayInterface",
     .srcIp = "10.0.2.1",
     .informationOption = true,
     .giaddr = "10.0.2.1",
     .option = opt("port-7", {}, "10.0.0.1", "10.0.0.0"),
     .nonSubnet = 1},
    {.name = "SourceAddressOfTheInterface", .srcIp = "10.0.1.1", .giaddr = "10.0.1.1"},
    {.name = "CrossVrf",
     .vrf = "red",
     .informationOption = true,
     .sentIn = "red",
     .giaddr = "172.16.0.1",
     .option = opt("port-7", "default", "10.0.0.1", "10.0.0.0"),
     .nonSubnet = 1},
    {.name = "CrossVrfNeedsTheOption",
     .vrf = "red",
     .dropped = DropReason::crossVrfNeedsInfoOption},
    // A first hop's option 82 with giaddr zero: untrusted by default.
    {.name = "FirstHopUntrusted",
     .informationOption = true,
     .firstHopOption = true,
     .dropped = DropReason::option82Untrusted},
    // Kept first-hop options: CopiesToSeveralServersEachCarryTheirOwnOption.
    {.name = "FirstHopReplaced",
     .informationOption = true,
     .policy = InfoOptionPolicy::replace,
     .firstHopOption = true,
     .option = opt("port-7")},
    {.name = "FirstHopRemoved", .policy = InfoOptionPolicy::replace, .firstHopOption = true},
};

class CopyTest : public RelayPathsTest, public testing::WithParamInterface<CopyCase> {};

TEST_P(CopyTest, OneServer) {
   const CopyCase& c = GetParam();
   config1->informationOptionIs(c.informationOption);
   config1->informationOptionPolicyIs(c.policy);
   config1->circuitIdIs("port-7");
   serverIs(c.vrf, c.vrf == std::string("red") ? "172.16.0.10" : "192.168.1.10", c.srcIntf,
            c.srcIp);
   const Msg m{.hops = 2};
   receive(c.firstHopOption ? withOpt82(m, kSwitch) : message(m));
   const auto sent = copies();
   if (c.dropped) {
      EXPECT_TRUE(sent.empty());
      EXPECT_EQ(drops(*c.dropped), 1u);
      EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->requestsDropped(), 1u);
      return;
   }
   ASSERT_EQ(sent.size(), 1u);
   const auto& [vrf, s] = sent[0];
   Ptr<Pkt> copy = Pkt::copyOf(s.bytes);
   EXPECT_EQ(vrf, c.sentIn);
   EXPECT_EQ(DhcpHdr::of(*copy)->giaddr(), ip(c.giaddr));
   EXPECT_EQ(s.src, IpGenAddr(ip(c.giaddr)));
   EXPECT_EQ(s.port, 67);
   EXPECT_EQ(copy->data()[3], 3);
   EXPECT_EQ(opt82Of(*copy), c.option);
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 1u);
   EXPECT_EQ(bed.status->totalRequestsForwardedWithNonSubnetIp(), c.nonSubnet);
}

INSTANTIATE_TEST_SUITE_P(RelayPaths, CopyTest, testing::ValuesIn(kCopyCases),
                         [](const auto& info) { return std::string(info.param.name); });

// One packet serves every copy: each server sees its own giaddr, option 82 and option 54. A
// first hop's option is kept, with the locating sub-options added where a reply needs them.
TEST_F(RelayPathsTest, CopiesToSeveralServersEachCarryTheirOwnOption) {
   config1->informationOptionIs(true);
   config1->informationOptionPolicyIs(InfoOptionPolicy::keep);
   serverIs("default", "192.168.1.10");
   serverIs("default", "192.168.1.11", "Ethernet3");
   serverIs("red", "172.16.0.10");
   serverIs("red", "172.16.0.11");  // no route: that copy alone is dropped
   receive(withOpt82({.serverId = ip("10.0.0.1")}, kSwitch));
   const auto sent = copies();
   ASSERT_EQ(sent.size(), 3u);
   std::vector<Opt82> options;
   std::vector<IpAddr> serverIds, giaddrs;
   for (const auto& [vrf, s] : sent) {
      Ptr<Pkt> copy = Pkt::copyOf(s.bytes);
      options.push_back(opt82Of(*copy));
      serverIds.push_back(*getServerId(*copy));
      giaddrs.push_back(DhcpHdr::of(*copy)->giaddr());
   }
   EXPECT_EQ(giaddrs, (std::vector<IpAddr>{ip("10.0.0.1"), ip("10.0.3.1"), ip("172.16.0.1")}));
   EXPECT_EQ(options,
             (std::vector<Opt82>{kSwitch, opt("sw-port", {}, "10.0.0.1", "10.0.0.0", "sw-remote"),
                                 opt("sw-port", "default", "10.0.0.1", "10.0.0.0", "sw-remote")}));
   // Option 54 names the real server only where the client saw the relay as its server.
   EXPECT_EQ(serverIds, (std::vector<IpAddr>{ip("10.0.0.1"), ip("10.0.0.1"), ip("172.16.0.10")}));
   EXPECT_EQ(drops(DropReason::noEgressRoute), 1u);
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 3u);
   // The egress address is outside the client's subnets.
   EXPECT_EQ(bed.status->totalRequestsForwardedWithNonSubnetIp(), 1u);
}

// --- requests that are not plain client requests -----------------------------------------

TEST_F(RelayPathsTest, HopsAndGiaddrsOfOtherAgents) {
   serverIs("default", "192.168.1.10");
   serverIs("red", "172.16.0.10");
   // Our own giaddr: we relayed it already.
   receive(message({.giaddr = ip("10.0.0.1")}));
   EXPECT_EQ(drops(DropReason::alreadyRelayed), 1u);
   EXPECT_TRUE(copies().empty());

   // Another agent's broadcast leaves with the hop count no relay accepts.
   receive(message({.hops = 3, .giaddr = ip("10.0.0.77")}));
   ASSERT_EQ(udp->sent().size(), 1u);
   EXPECT_EQ(udp->sent()[0].dst, IpGenAddr(IpAddr::broadcast()));
   EXPECT_EQ(udp->sent()[0].bytes, message({.hops = 255, .giaddr = ip("10.0.0.77")}));
   // Sent to us, it names us as that agent's server: relayed to the interface's servers in
   // its VRF, byte for byte (giaddr and option as they came) but one hop more; it cannot
   // cross VRFs.
   receive(withOpt82({.hops = 3, .giaddr = ip("10.0.0.77")}, kSwitch), ip("10.0.0.1"),
           ip("10.0.0.77"));
   ASSERT_EQ(udp->sent().size(), 2u);
   EXPECT_EQ(udp->sent()[1].dst, IpGenAddr(ip("192.168.1.10")));
   EXPECT_EQ(udp->sent()[1].bytes, withOpt82({.hops = 4, .giaddr = ip("10.0.0.77")}, kSwitch));
   EXPECT_TRUE(udpRed->sent().empty());
   EXPECT_EQ(drops(DropReason::relayedCrossVrf), 1u);
   // Sent elsewhere, it goes on to where it was sent.
   receive(message({.hops = 3, .giaddr = ip("10.0.0.77")}), ip("192.168.9.9"));
   ASSERT_EQ(udp->sent().size(), 3u);
   EXPECT_EQ(udp->sent()[2].dst, IpGenAddr(ip("192.168.9.9")));
   EXPECT_EQ(bed.status->totalRequestsForwarded(), 3u);
}

TEST_F(RelayPathsTest, UnicastToOurOwnAddressIsARenewalOnlyOnItsLink) {
   serverIs("default", "192.168.1.10");
   receive(message({}), ip("10.0.0.1"), ip("10.0.0.50"));
   EXPECT_TRUE(udp->sent().empty());
   EXPECT_EQ(drops(DropReason::noClientBinding), 1u);
   receive(message({}), ip("10.0.2.1"), ip("10.0.0.50"));
   ASSERT_EQ(udp->sent().size(), 1u);
   EXPECT_EQ(udp->sent()[0].dst, IpGenAddr(ip("192.168.1.10")));
}

// --- replies ----------------------------------------------------------------------------

// What a server sends back: the reply with the option 82 of the copy it answered.
Bytes serverReply(const Msg& m, const std::optional<Opt82>& o) {
   return o ? withOpt82(m, *o) : message(m);
}

const Msg kAck{.op = bootReply,
               .type = 5,
               .flags = 0x8000,
               .yiaddr = ip("10.0.0.50"),
               .giaddr = ip("10.0.0.1"),
               .serverId = ip("192.168.1.10")};

struct ReplyCase {
   const char* name;
   std::optional<Opt82> option = {};
   const char* giaddr = "10.0.0.1";
   const char* vrf = "default";  // where it arrives
   const char* src = "192.168.1.10";
   std::optional<DropReason> dropped = {};
   // Delivered: out of Ethernet1 from this address, option 54 and option 82 as given; a
   // client binding for unicast renewals when `bound`.
   const char* from = "10.0.0.1";
   const char* serverId = "192.168.1.10";
   Opt82 leftOption = {};
   bool bound = false;
};

void PrintTo(const ReplyCase& c, std::ostream* os) {
   *os << c.name;
}

const ReplyCase kReplyCases[] = {
    {.name = "Plain"},
    {.name = "OwnOptionStripped", .option = opt("port-7")},
    {.name = "UnknownGiaddr", .giaddr = "10.0.0.99", .dropped = DropReason::unknownGiaddr},
    {.name = "CrossVrfFromNoServer",
     .option = opt("port-7", "default", "10.0.0.1", "10.0.0.0"),
     .giaddr = "172.16.0.1",
     .vrf = "red",
     .src = "172.16.0.66",
     .dropped = DropReason::unknownServer},
    {.name = "CrossVrfToAnotherGiaddr",
     .option = opt("port-7", "default", "10.0.0.1", "10.0.0.0"),
     .giaddr = "172.16.0.99",
     .vrf = "red",
     .src = "172.16.0.10",
     .dropped = DropReason::giaddrNotOwn},
    {.name = "CrossVrfToAnUnknownOverride",
     .option = opt("port-7", "default", "10.0.0.77", "10.0.0.0"),
     .giaddr = "172.16.0.1",
     .vrf = "red",
     .src = "172.16.0.10",
     .dropped = DropReason::unknownOverride},
    {.name = "CrossVrfWithoutOverride",
     .option = opt("port-7", "default"),
     .giaddr = "10.0.0.1",
     .dropped = DropReason::noServerIdOverride},
    // Replies to copies from a source interface or address come back to that address and
    // are found by the override, also when it is another relay interface's address.
    {.name = "SourceInterface",
     .option = opt("port-7", {}, "10.0.0.1", "10.0.0.0"),
     .giaddr = "10.0.3.1",
     .serverId = "10.0.0.1",
     .bound = true},
    {.name = "SourceAddressOfAnotherRelayInterface",
     .option = opt({}, {}, "10.0.0.1", "10.0.0.0"),
     .giaddr = "10.0.2.1",
     .serverId = "10.0.0.1",
     .bound = true},
    // Across VRFs: option 54 names the relay again, the client is bound, and a first hop's
    // option goes back down as it came up, without the relay's sub-options.
    {.name = "CrossVrfFirstHopOptionGoesBackDown",
     .option = opt("sw-port", "default", "10.0.0.1", "10.0.0.0", "sw-remote"),
     .giaddr = "172.16.0.1",
     .vrf = "red",
     .src = "172.16.0.10",
     .serverId = "10.0.0.1",
     .leftOption = kSwitch,
     .bound = true},
};

class ReplyTest : public RelayPathsTest, public testing::WithParamInterface<ReplyCase> {};

TEST_P(ReplyTest, OneReply) {
   const ReplyCase& c = GetParam();
   config1->circuitIdIs("port-7");
   serverIs("default", "192.168.1.10");
   serverIs("red", "172.16.0.10");
   Msg m = kAck;
   m.giaddr = ip(c.giaddr);
   replyIn(serverReply(m, c.option), c.vrf, c.src);
   const CrossVrfClientBinding* binding = bed.clientContext->crossVrfClientBinding(kClientMac);
   if (c.dropped) {
      EXPECT_TRUE(raw->sent().empty());
      EXPECT_EQ(drops(*c.dropped), 1u);
      EXPECT_EQ(binding, nullptr);
      return;
   }
   ASSERT_EQ(raw->sent().size(), 1u);
   EXPECT_EQ(raw->sent()[0].ifindex, 5u);
   const Bytes& frame = raw->sent()[0].bytes;
   const Codec::FrameLayout at = Codec::locateFrame(frame);
   ASSERT_TRUE(at);
   Ptr<Pkt> dhcp = Pkt::copyOf(Bytes(frame.begin() + at.payload, frame.end()));
   EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 6), Bytes(6, 0xff));
   EXPECT_EQ(ipAt(frame, at.l3 + Codec::Ipv4Layout::src), ip(c.from));
   EXPECT_EQ(getServerId(*dhcp), ip(c.serverId));
   EXPECT_EQ(opt82Of(*dhcp), c.leftOption);
   EXPECT_EQ(dhcp->data()[3], 1);
   EXPECT_EQ(binding != nullptr, c.bound);
   EXPECT_EQ(bed.status->intfStatus(IntfId("Ethernet1"))->repliesForwarded(), 1u);
}

INSTANTIATE_TEST_SUITE_P(RelayPaths, ReplyTest, testing::ValuesIn(kReplyCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The frame's addresses by the broadcast flag and yiaddr, and both checksums.
TEST_F(RelayPathsTest, ReplyFrames) {
   struct Case {
      uint16_t flags;
      const char* yiaddr;
      EthAddr dstMac;
      const char* dstIp;
   };
   const Case cases[] = {{0x8000, "10.0.0.50", kBroadcastMac, "255.255.255.255"},
                         {0, "10.0.0.50", kClientMac, "10.0.0.50"},
                         {0, "0.0.0.0", kClientMac, "255.255.255.255"}};
   for (const Case& c : cases) {
      Msg m = kAck;
      m.flags = c.flags;
      m.yiaddr = ip(c.yiaddr);
      replyIn(message(m));
      const Bytes& f = raw->sent().back().bytes;
      EXPECT_EQ(Bytes(f.begin(), f.begin() + 6),
                Bytes(c.dstMac.bytes().begin(), c.dstMac.bytes().end()));
      EXPECT_EQ(Bytes(f.begin() + 6, f.begin() + 12),
                Bytes(kRelayMac.bytes().begin(), kRelayMac.bytes().end()));
      const Codec::FrameLayout at = Codec::locateFrame(f);
      EXPECT_EQ(ipAt(f, at.l3 + Codec::Ipv4Layout::dst), ip(c.dstIp));
      EXPECT_TRUE(Codec::frameChecksumsOk(f, at));
   }
   EXPECT_EQ(raw->sent().size(), 3u);
}

// The ACK of a copy that used the override binds the client: its unicast renewals go to
// its server, for as long as its lease; a NAK ends the binding.
TEST_F(RelayPathsTest, BindingsFollowTheLease) {
   config1->informationOptionIs(true);
   serverIs("red", "172.16.0.10");
   Msg ack = kAck;
   ack.giaddr = ip("172.16.0.1");
   Bytes reply = withOpt82(ack, opt("Ethernet1", "default", "10.0.0.1", "10.0.0.0"));
   // Option 51: a one-hour lease, right before the end option.
   reply.insert(reply.begin() + 249, {51, 4, 0, 0, 0x0e, 0x10});
   reply.resize(reply.size() - 6);
   replyIn(reply, "red", "172.16.0.10");
   ASSERT_TRUE(sm->clientBindings().expiry(kClientMac));
   EXPECT_EQ(*sm->clientBindings().expiry(kClientMac), bed.clock.now() + 3600);
   EXPECT_EQ(bed.status->numClientBindings(), 1u);

   receive(message({.hops = 1, .serverId = ip("10.0.0.1")}), ip("10.0.0.1"), ip("10.0.0.50"));
   ASSERT_EQ(udpRed->sent().size(), 1u);
   const auto& s = udpRed->sent()[0];
   EXPECT_EQ(s.dst, IpGenAddr(ip("172.16.0.10")));
   EXPECT_EQ(s.src, IpGenAddr(ip("172.16.0.1")));
   Ptr<Pkt> renew = Pkt::copyOf(s.bytes);
   EXPECT_EQ(renew->data()[3], 2);
   EXPECT_EQ(opt82Of(*renew), opt("Ethernet1", "default", "10.0.0.1", "10.0.0.0"));

   bed.advance(3601);
   EXPECT_EQ(bed.clientContext->crossVrfClientBinding(kClientMac), nullptr);
   EXPECT_EQ(bed.status->numClientBindings(), 0u);

   replyIn(reply, "red", "172.16.0.10");
   ack.type = 6;  // DHCPNAK
   replyIn(withOpt82(ack, opt("Ethernet1", "default", "10.0.0.1", "10.0.0.0")), "red",
           "172.16.0.10");
   EXPECT_EQ(bed.clientContext->crossVrfClientBinding(kClientMac), nullptr);
}

TEST(ClientBindingsTest, BoundedAndLastingAtMostTheCeiling) {
   RelayTestBed bed;
   ClientBindings bindings(bed.wheel, bed.clientContext, bed.status, 2);
   const CrossVrfClientBinding b{};
   EXPECT_TRUE(bindings.bindingIs(mac(1), b, 0xffffffff));
   EXPECT_TRUE(bindings.bindingIs(mac(2), b, std::nullopt));
   EXPECT_TRUE(bindings.bindingIs(mac(2), b, 60));  // a refresh takes no new room
   EXPECT_FALSE(bindings.bindingIs(mac(3), b, 60));
   EXPECT_EQ(bed.status->clientBindingsRefused(), 1u);
   EXPECT_EQ(*bindings.expiry(mac(1)), bed.clock.now() + ClientBindings::kLeaseCeiling);
   bed.advance(61);
   EXPECT_EQ(bindings.size(), 1u);
   EXPECT_TRUE(bindings.bindingIs(mac(3), b, 60));
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay::Test
