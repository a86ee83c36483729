// Smart relay on one interface (primary and two secondaries), its machine driven directly
// through the request step with one DHCPDISCOVER per client:
//  - BM_CreateClients: 100,000 new clients; "bytesPerClient" (malloc's in-use bytes, from
//    mallinfo2) and "allocsPerClient" (the allocation counter) are what one client's state
//    costs, map growth included;
//  - BM_DiscoverExistingClient: one DISCOVER of a client that has state; "allocs" must be 0;
//  - BM_Expire100k: the wheel firing the expiry of 100,000 clients at once.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <vector>

#include "bench/AllocationCounter.h"
#include "codec/DhcpHdr.h"
#include "relay4/DhcpSmartRelayIntfSm.h"

namespace {

using namespace Ip::Helper::DhcpRelay;
using Platform::EthAddr;
using Platform::IntfId;
using Platform::IpAddrWithMask;

constexpr uint32_t kClients = 100000;

EthAddr mac(uint32_t n) {
   return EthAddr({0x02, 0x00, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
}

Ptr<Platform::Pkt> discover() {
   std::vector<uint8_t> b(240, 0);
   b[0] = bootRequest;
   b[1] = 1;
   b[2] = 6;
   b[236] = 99;
   b[237] = 130;
   b[238] = 83;
   b[239] = 99;
   b.insert(b.end(), {53, 1, 1, 255});
   b.resize(300, 0);
   return Platform::Pkt::copyOf(b);
}

struct Bed {
   Bed() {
      intf->activeAddrWithMaskIs(*IpAddrWithMask::parse("10.0.0.1/24"));
      intf->activeSecondaryWithMaskIs(*IpAddrWithMask::parse("10.0.1.1/24"));
      intf->activeSecondaryWithMaskIs(*IpAddrWithMask::parse("10.0.2.1/24"));
      sm = std::make_unique<DhcpSmartRelayIntfSm>(wheel, status, intf);
      sm->handleInitialized();
   }
   void createClients() {
      for (uint32_t n = 0; n < kClients; ++n)
         benchmark::DoNotOptimize(sm->smartRelayRequest(name, mac(n), {}, *pkt));
   }

   Platform::ManualClock clock{1000.0};
   Platform::TimerWheel wheel{clock, clock};
   Ptr<Status> status = Platform::make<Status>("status");
   Ptr<Ip::IpIntfStatus> intf = Platform::make<Ip::IpIntfStatus>(IntfId("Ethernet1"));
   IntfId name{"Ethernet1"};
   Ptr<Platform::Pkt> pkt = discover();
   std::unique_ptr<DhcpSmartRelayIntfSm> sm;
};

void BM_CreateClients(benchmark::State& state) {
   double bytes = 0, allocs = 0;
   for (auto _ : state) {
      state.PauseTiming();
      auto bed = std::make_unique<Bed>();
      const size_t heapBefore = mallinfo2().uordblks;
      const size_t allocsBefore = Bench::allocations();
      state.ResumeTiming();
      bed->createClients();
      state.PauseTiming();
      bytes += double(mallinfo2().uordblks - heapBefore) / kClients;
      allocs += double(Bench::allocations() - allocsBefore) / kClients;
      bed.reset();
      state.ResumeTiming();
   }
   state.counters["bytesPerClient"] = bytes / double(state.iterations());
   state.counters["allocsPerClient"] = allocs / double(state.iterations());
   state.counters["clients"] = kClients;
}
BENCHMARK(BM_CreateClients)->Unit(benchmark::kMillisecond);

void BM_DiscoverExistingClient(benchmark::State& state) {
   Bed bed;
   bed.createClients();
   uint32_t n = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      benchmark::DoNotOptimize(bed.sm->smartRelayRequest(bed.name, mac(n), {}, *bed.pkt));
      n = n + 1 == kClients ? 0 : n + 1;
   }
   state.counters["allocs"] = benchmark::Counter(double(Bench::allocations() - before),
                                                 benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_DiscoverExistingClient);

void BM_Expire100k(benchmark::State& state) {
   for (auto _ : state) {
      state.PauseTiming();
      Bed bed;
      bed.createClients();
      bed.clock.advance(DhcpSmartRelayIntfSm::kExpiryTime);
      state.ResumeTiming();
      bed.wheel.runExpired();
      state.PauseTiming();
      if (bed.status->numSmartRelayedHosts() != 0)
         state.SkipWithError("clients left after expiry");
      state.ResumeTiming();
   }
   state.counters["clients"] = kClients;
}
BENCHMARK(BM_Expire100k)->Unit(benchmark::kMillisecond);

}  // namespace
