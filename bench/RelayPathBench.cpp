// Cost of one datagram through DhcpRelaySm::doProcessPacket, on the socket doubles of the unit
// tests: a client DISCOVER relayed to one server of its own VRF, bare and with option 82, and a
// server OFFER turned into the frame for the client. Each iteration restores the received
// bytes into one recycled packet (what a receive costs: a copy), runs the path and forgets what
// the double recorded, so nothing grows from iteration to iteration.
//
// Counters, per iteration: "allocs" counts every heap allocation in the loop, the double's
// included; "relayAllocs" takes away what the double spends recording a send (a copy of the
// bytes sent, measured on the double itself before the loop), leaving the relay's own.
// BM_Harness times the loop without the relay, to subtract from the others.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "bench/AllocationCounter.h"
#include "codec/DhcpCodec.h"
#include "codec/DhcpHdr.h"
#include "codec/Frame.h"
#include "tests/relay4/RelayTestBed.h"

namespace {

using namespace Ip::Helper::DhcpRelay;
using Platform::EthAddr;
using Platform::IntfId;
using Platform::IpAddr;
using Platform::Pkt;
using Platform::VrfName;
using Bytes = std::vector<uint8_t>;

constexpr size_t kHeadroom = 64;
const EthAddr kClientMac({0x02, 0x00, 0x00, 0x00, 0x00, 0x42});
const EthAddr kRelayMac({0x02, 0x00, 0x00, 0x00, 0x00, 0x01});

IpAddr ip(const char* text) {
   return *IpAddr::parse(text);
}

void put32(Bytes& b, size_t off, uint32_t v) {
   for (int i = 0; i < 4; ++i)
      b[off + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// A 300-byte BOOTP message of a client with one DHCP message type and, for a reply, the
// server identifier.
Bytes message(uint8_t op, uint8_t type, IpAddr yiaddr, IpAddr giaddr) {
   Bytes b(240, 0);
   b[0] = op;
   b[1] = 1;
   b[2] = 6;
   put32(b, 4, 0x12345678);
   put32(b, 16, yiaddr.value());
   put32(b, 24, giaddr.value());
   std::copy(kClientMac.bytes().begin(), kClientMac.bytes().end(), b.begin() + 28);
   put32(b, 236, DhcpLayout::cookieValue);
   b.insert(b.end(), {53, 1, type});
   if (op == bootReply) {
      b.insert(b.end(), {54, 4, 0, 0, 0, 0});
      put32(b, b.size() - 4, ip("192.168.1.10").value());
   }
   b.push_back(255);
   b.resize(300, 0);
   return b;
}

// Relay interface Ethernet1 (10.0.0.1/24, ifindex 5) in the default VRF with one server,
// 192.168.1.10, in the same VRF: no route lookup on the way.
struct Relay {
   explicit Relay(bool infoOption) {
      bed.activeVrfIs("default", 1);
      config = bed.config->intfConfigIs(IntfId("Ethernet1"));
      config->informationOptionIs(infoOption);
      auto status = bed.ipStatus->ipIntfStatusIs(IntfId("Ethernet1"));
      status->vrfIs(VrfName("default"));
      status->activeAddrWithMaskIs(*Platform::IpAddrWithMask::parse("10.0.0.1/24"));
      bed.intfServerIpDir->drIntfServerIpIs(IntfId("Ethernet1"))
          ->serverIpIs(VrfIpSrcIntfSrcIp{VrfName("default"), ip("192.168.1.10"), {}, {}}, 1);
      bed.device("default", 5, "Ethernet1")->macIs(kRelayMac);
      sm = std::make_unique<DhcpRelaySm>(bed.inputs());
      sm->handleInitialized();
      udp = bed.pams.udp.at("UdpSocket-default");
      raw = bed.pams.raw.at("RawTxPam-default");
   }

   Test::RelayTestBed bed;
   Ptr<IntfConfig> config;
   std::unique_ptr<DhcpRelaySm> sm;
   Ptr<Platform::UdpTestPam> udp;
   Ptr<Platform::RawTxTestPam> raw;
};

// As a receive would leave it: the datagram after the usual head room. Allocation-free once
// the packet has been created with room for the largest datagram.
void restore(Pkt& pkt, const Bytes& datagram) {
   pkt.reset(datagram.size(), kHeadroom);
   pkt.write(0, datagram);
}

// What the benchmark needs of either double: the sends it recorded, then forgetting them,
// and sending directly (after the relay has set the socket up) to measure its own cost.
size_t takeSent(Platform::UdpTestPam& pam) {
   const size_t n = pam.sent().size();
   pam.clearSent();
   return n;
}
size_t takeSent(Platform::RawTxTestPam& pam) {
   const size_t n = pam.sent().size();
   pam.sentDelAll();
   return n;
}
void sendDirect(Platform::UdpTestPam& pam, const Pkt& pkt) {
   pam.send(pkt);
}
void sendDirect(Platform::RawTxTestPam& pam, const Pkt& pkt) {
   pam.send(5, pkt);
}

// Runs `received` through the relay every iteration and forgets what `pam` recorded.
// `relayed` checks, once, that the packet the relay sent is the one this benchmark is about.
template <typename Pam, typename Check>
void relayLoop(benchmark::State& state, Relay& relay, Pam& pam, const Bytes& received, IpAddr src,
               IpAddr dst, const IntfId& intf, Check relayed) {
   Ptr<Pkt> pkt = Pkt::copyOf(received, kHeadroom);
   const VrfName vrf("default");
   // One pass outside the count: it sets the socket up and sizes the double's record.
   relay.sm->doProcessPacket(*pkt, src, dst, intf, vrf);
   if (takeSent(pam) != 1 || !relayed(*pkt)) {
      state.SkipWithError("the relay did not send what it should: the setup no longer fits");
      return;
   }
   size_t costPerSend = Bench::allocations();
   sendDirect(pam, *pkt);
   costPerSend = Bench::allocations() - costPerSend;
   if (takeSent(pam) != 1) {
      state.SkipWithError("the double did not record a direct send");
      return;
   }

   size_t sent = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      restore(*pkt, received);
      relay.sm->doProcessPacket(*pkt, src, dst, intf, vrf);
      sent += takeSent(pam);
   }
   const size_t allocs = Bench::allocations() - before;
   if (sent != static_cast<size_t>(state.iterations())) {
      state.SkipWithError("some iteration sent nothing");
      return;
   }
   state.counters["allocs"] =
       benchmark::Counter(static_cast<double>(allocs), benchmark::Counter::kAvgIterations);
   state.counters["relayAllocs"] = benchmark::Counter(
       static_cast<double>(allocs - sent * costPerSend), benchmark::Counter::kAvgIterations);
}

void requestLoop(benchmark::State& state, bool infoOption) {
   Relay relay(infoOption);
   relayLoop(state, relay, *relay.udp, message(bootRequest, 1, IpAddr(), IpAddr()), IpAddr(),
             IpAddr::broadcast(), IntfId("Ethernet1"), [&](Pkt& sent) {
                const auto hdr = DhcpHdr::of(sent);
                return hdr && hdr->giaddr() == ip("10.0.0.1") && infoOptPresent(sent) == infoOption;
             });
}

void BM_Discover(benchmark::State& state) {
   requestLoop(state, false);
}
BENCHMARK(BM_Discover);

void BM_DiscoverOption82(benchmark::State& state) {
   requestLoop(state, true);
}
BENCHMARK(BM_DiscoverOption82);

// The OFFER carries the option 82 the relay added to the DISCOVER; the frame goes to the
// client's MAC (no broadcast flag) from Ethernet1.
void BM_Offer(benchmark::State& state) {
   Relay relay(true);
   Ptr<Pkt> offer = Pkt::copyOf(message(bootReply, 2, ip("10.0.0.50"), ip("10.0.0.1")), kHeadroom);
   if (!preparePacket(*offer, bootRequest, true, "Ethernet1", {}, {}, IpAddr(), ip("10.0.0.0"),
                      0)) {
      state.SkipWithError("could not add option 82 to the offer");
      return;
   }
   relayLoop(state, relay, *relay.raw, Bytes(offer->span().begin(), offer->span().end()),
             ip("192.168.1.10"), ip("10.0.0.1"), IntfId(), [&](const Pkt& frame) {
                // Ethernet, IPv4 and UDP headers before the BOOTP message, option 82 gone.
                return frame.sub(0, 6).size() == 6 &&
                       std::equal(kClientMac.bytes().begin(), kClientMac.bytes().end(),
                                  frame.data()) &&
                       !infoOptPresent(frame, Codec::kUdp4FrameHeaders);
             });
}
BENCHMARK(BM_Offer);

// The loop around the relay alone: restoring the datagram, one send recorded by the double
// and forgotten.
void BM_Harness(benchmark::State& state) {
   Relay relay(false);
   const Bytes discover = message(bootRequest, 1, IpAddr(), IpAddr());
   Ptr<Pkt> pkt = Pkt::copyOf(discover, kHeadroom);
   relay.sm->doProcessPacket(*pkt, IpAddr(), IpAddr::broadcast(), IntfId("Ethernet1"),
                             VrfName("default"));
   relay.udp->clearSent();
   for (auto _ : state) {
      restore(*pkt, discover);
      relay.udp->send(*pkt);
      relay.udp->clearSent();
   }
}
BENCHMARK(BM_Harness);

}  // namespace
