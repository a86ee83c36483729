// Cost of counting on the DHCPv4 packet paths: pktReceived + pktForwarded of a request on a
// local Status with 100 interfaces, bare and with the publishing machine watching it. Must
// allocate nothing (the "allocs" counter, per iteration).

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench/AllocationCounter.h"
#include "codec/DhcpHdr.h"
#include "counters/DhcpRelayCounters.h"
#include "counters/DhcpRelayCountersSm.h"
#include "platform/loop/Clock.h"

namespace {

using Ip::Helper::DhcpRelay::Status;
using Platform::IntfId;

constexpr int kInterfaces = 100;

struct LocalStatus {
   LocalStatus() {
      for (int i = 1; i <= kInterfaces; ++i) {
         intfs.emplace_back("Ethernet1/" + std::to_string(i));
         status->intfStatusIs(intfs.back());
      }
   }
   Platform::Ptr<Status> status = Platform::make<Status>("LocalDhcpRelayStatus");
   std::vector<IntfId> intfs;
};

void countRequests(benchmark::State& state, LocalStatus& local) {
   using namespace Ip::Helper::DhcpRelay;
   size_t i = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      const IntfId& intf = local.intfs[i];
      pktReceived(*local.status, bootRequest, intf);
      pktForwarded(*local.status, bootRequest, intf);
      i = i + 1 == local.intfs.size() ? 0 : i + 1;
   }
   state.counters["allocs"] = benchmark::Counter(static_cast<double>(Bench::allocations() - before),
                                                 benchmark::Counter::kAvgIterations);
   benchmark::DoNotOptimize(local.status->totalRequestsForwarded());
}

void BM_CountRequest(benchmark::State& state) {
   LocalStatus local;
   countRequests(state, local);
}
BENCHMARK(BM_CountRequest);

// Every count notifies the machine, which keeps one publication pending.
void BM_CountRequestWatched(benchmark::State& state) {
   using namespace Ip::Helper::DhcpRelay;
   Platform::ManualClock monotonic;
   Platform::ManualClock utc(1.7e9);
   Platform::TimerWheel wheel(monotonic, utc);
   LocalStatus local;
   DhcpRelayCountersSm sm(Platform::make<CounterConfig>("counterConfig"),
                          Platform::make<Status>("status"), local.status, wheel);
   sm.handleInitialized();
   countRequests(state, local);
}
BENCHMARK(BM_CountRequestWatched);

}  // namespace
