// Cost of one datagram through DhcpRelaySmv6::doProcessPacket, on the socket doubles of the
// unit tests: a client Solicit wrapped in a Relay-Forw for one server of its own VRF, and the
// server's Relay-Repl unwrapped into the Advertise for the client. As in the DHCPv4 bench,
// each iteration restores the received bytes into one recycled packet, runs the path and
// forgets what the double recorded; "relayAllocs" leaves out what the doubles spend on
// recording a send and copying an injected frame, so it counts the relay's own allocations
// per message. With option 79 on, each Solicit is also captured as a frame, before or after
// the socket's copy, so a DUID-to-MAC binding comes and goes per message.

#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <vector>

#include "bench/AllocationCounter.h"
#include "codec/Dhcp6Codec.h"
#include "codec/Frame.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/SystemStatus.h"
#include "relay6/DhcpRelaySmv6.h"
#include "tests/relay4/RelayTestBed.h"

namespace {

using namespace Ip::Helper::DhcpRelay;
using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::Pkt;
using Platform::VrfName;
using Bytes = std::vector<uint8_t>;

constexpr size_t kHeadroom = 64;

Ip6Addr ip6(const char* text) {
   return *Ip6Addr::parse(text);
}

void option(Bytes& b, uint16_t code, const Bytes& data) {
   b.insert(b.end(),
            {uint8_t(code >> 8), uint8_t(code), uint8_t(data.size() >> 8), uint8_t(data.size())});
   b.insert(b.end(), data.begin(), data.end());
}

// A client message of a real client's size: client id, elapsed time, IA_NA, option request.
Bytes message(uint8_t type) {
   Bytes b{type, 0x12, 0x34, 0x56};
   option(b, dhcp6OptClientId, {0, 3, 0, 1, 2, 0, 0, 0, 0, 0x42});
   option(b, 8, {0, 0});
   option(b, dhcp6OptIaNa, Bytes(12, 0));
   option(b, 6, {0, 23, 0, 24});
   return b;
}

// Ethernet1 (ifindex 5) relays to 2001:db8:2::2 in its own VRF, from a configured source
// address, so no route is looked up on the way.
struct Relay {
   explicit Relay(bool option79 = false) {
      bed.config->clientLinkLayerAddrOptIs(option79);
      bed.activeVrfIs("default", 1);
      auto status = ip6Status->intfIs(IntfId("Ethernet1"));
      status->addrIs(*Platform::Ip6Prefix::parse("fe80::1/64"));
      status->addrIs(*Platform::Ip6Prefix::parse("2001:db8:1::1/64"));
      bed.device("default", 5, "Ethernet1")->upIs(true);
      bed.config->intfConfigIs(IntfId("Ethernet1"))
          ->serverIp6Is({VrfName("default"), ip6("2001:db8:2::2"), {}, ip6("2001:db8:1::1")}, true);
      sm = std::make_unique<DhcpRelaySmv6>(DhcpRelaySmv6::Inputs{
          bed.config, bed.status, ip6Status, bed.vrfs, bed.deviceNames, bed.activeVrfDir, entityMib,
          mcGroups, &bed.store, bed.managers.get(), &bed.pams, &bed.wheel});
      sm->handleInitialized();
      udp = bed.pams.udp.at("UdpSocket-default");
      if (option79)
         capture = bed.pams.eth.at("Ethernet1");
   }

   Ip::Helper::DhcpRelay::Test::RelayTestBed bed;
   Ptr<Ip6::Status> ip6Status = Platform::make<Ip6::Status>("ip6");
   Ptr<EntityMib::Status> entityMib = Platform::make<EntityMib::Status>("entmib");
   Ptr<Ip6::MulticastGroupsForApplications> mcGroups =
       Platform::make<Ip6::MulticastGroupsForApplications>("dhcprelay");
   std::unique_ptr<DhcpRelaySmv6> sm;
   Ptr<Platform::UdpTestPam> udp;
   Ptr<Platform::EthDevTestPam> capture;
};

// The captured frame of a client message, and when it arrives.
struct Captured {
   Bytes frame;
   bool first = false;
};

void relayLoop(benchmark::State& state, const Bytes& received, const Ip6Addr& src,
               uint8_t expectedType, std::optional<Captured> captured = {}) {
   Relay relay(captured.has_value());
   Ptr<Pkt> pkt = Pkt::copyOf(received, kHeadroom);
   const VrfName vrf("default");
   const IntfId intf("Ethernet1");
   const Ip6Addr dst = DhcpVrfSmv6::kAllRelayAgentsAndServers;
   const auto process = [&] {
      if (captured && captured->first)
         relay.capture->rxFrameInject(captured->frame);
      relay.sm->doProcessPacket(*pkt, src, dst, intf, vrf);
      if (captured && !captured->first)
         relay.capture->rxFrameInject(captured->frame);
   };
   process();
   if (relay.udp->sent().size() != 1 || relay.udp->sent()[0].bytes[0] != expectedType) {
      state.SkipWithError("the relay did not send what it should: the setup no longer fits");
      return;
   }
   relay.udp->clearSent();
   size_t costPerSend = Bench::allocations();
   relay.udp->send(*pkt);
   costPerSend = Bench::allocations() - costPerSend;
   relay.udp->clearSent();
   size_t costPerFrame = Bench::allocations();
   if (captured)
      Platform::Pkt::copyOf(captured->frame);
   costPerFrame = Bench::allocations() - costPerFrame;

   size_t sent = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      pkt->reset(received.size(), kHeadroom);
      pkt->write(0, received);
      process();
      sent += relay.udp->sent().size();
      relay.udp->clearSent();
   }
   const size_t allocs = Bench::allocations() - before;
   if (sent != static_cast<size_t>(state.iterations())) {
      state.SkipWithError("some iteration sent nothing");
      return;
   }
   const size_t doubles = sent * costPerSend + (captured ? state.iterations() * costPerFrame : 0);
   state.counters["relayAllocs"] = benchmark::Counter(static_cast<double>(allocs - doubles),
                                                      benchmark::Counter::kAvgIterations);
}

void BM_Solicit(benchmark::State& state) {
   relayLoop(state, message(dhcp6Solicit), ip6("fe80::42"), dhcp6RelayForw);
}
BENCHMARK(BM_Solicit);

void BM_SolicitOption79(benchmark::State& state) {
   const Bytes solicit = message(dhcp6Solicit);
   auto frame = Pkt::copyOf(solicit);
   Codec::prependUdp6Frame(*frame, {Platform::EthAddr({0x33, 0x33, 0, 1, 0, 2}),
                                    Platform::EthAddr({2, 0, 0, 0, 0, 0x42}), ip6("fe80::42"),
                                    DhcpVrfSmv6::kAllRelayAgentsAndServers, 546, 547});
   const Bytes bytes(frame->span().begin(), frame->span().end());
   relayLoop(state, solicit, ip6("fe80::42"), dhcp6RelayForw, Captured{bytes, state.range(0) != 0});
}
BENCHMARK(BM_SolicitOption79)->ArgName("frameFirst")->Arg(0)->Arg(1);

void BM_RelayReplAdvertise(benchmark::State& state) {
   Bytes repl{dhcp6RelayRepl, 0};
   const Ip6Addr link = ip6("2001:db8:1::1"), peer = ip6("fe80::42");
   repl.insert(repl.end(), link.bytes().begin(), link.bytes().end());
   repl.insert(repl.end(), peer.bytes().begin(), peer.bytes().end());
   const std::string_view id = "Ethernet1:default";
   option(repl, dhcp6OptInterfaceId, Bytes(id.begin(), id.end()));
   option(repl, dhcp6OptRelayMsg, message(dhcp6Advertise));
   relayLoop(state, repl, ip6("2001:db8:2::2"), dhcp6Advertise);
}
BENCHMARK(BM_RelayReplAdvertise);

}  // namespace
