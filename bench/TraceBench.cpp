// Cost of TRACE on the per-packet paths: a line no sink keeps, and a line only the ring keeps.
// Both must stay well under 100 ns and allocate nothing (the "allocs" counter, per iteration).

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/AllocationCounter.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/trace/Trace.h"

namespace {

// Renders the way an address type on the packet path should: into one short string.
struct Address {
   uint32_t value;
   std::string toString() const {
      char text[16];
      char* end = text;
      for (int shift = 24; shift >= 0; shift -= 8) {
         end = std::to_chars(end, text + sizeof(text), (value >> shift) & 0xff).ptr;
         if (shift)
            *end++ = '.';
      }
      return std::string(text, end);
   }
};

// Ring in a scratch directory, text sink at its default level into /dev/null.
class Sinks {
 public:
   explicit Sinks(bool ring) {
      ::setenv("DHCP_RELAY_TRACE_FILE", "/dev/null", 1);
      ::unsetenv("DHCP_RELAY_TRACE");
      ::unsetenv("BLIPJETSIZE");
      ::unsetenv("BLIPJETLEVEL");
      if (ring) {
         char pattern[] = "/tmp/trace-bench-XXXXXX";
         dir_ = ::mkdtemp(pattern);
         ::setenv("BLIPJETDIR", dir_.c_str(), 1);
         ::unsetenv("BLIPJET_DISABLE");
      } else {
         ::setenv("BLIPJET_DISABLE", "1", 1);
      }
      Platform::Trace::init("TraceBench");
   }
   ~Sinks() {
      Platform::Trace::shutdown();
      if (!dir_.empty())
         std::filesystem::remove_all(dir_);
   }

 private:
   std::string dir_;
};

void reportAllocations(benchmark::State& state, size_t before) {
   state.counters["allocs"] = benchmark::Counter(static_cast<double>(Bench::allocations() - before),
                                                 benchmark::Counter::kAvgIterations);
}

void BM_TraceNotKept(benchmark::State& state) {
   Sinks sinks(false);
   const std::string name = "eth0";
   Address address{0x0a000001};
   int count = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      TRACE(8, "interface ", name, " count ", count, " from ", address);
      benchmark::DoNotOptimize(++count);
   }
   reportAllocations(state, before);
}
BENCHMARK(BM_TraceNotKept);

void BM_TraceRingOnly(benchmark::State& state) {
   Sinks sinks(true);
   const std::string name = "eth0";
   Address address{0x0a000001};
   int count = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      TRACE(6, name, count, address);
      benchmark::DoNotOptimize(++count);
   }
   reportAllocations(state, before);
}
BENCHMARK(BM_TraceRingOnly);

// The DHCPv6 relay's pieces: addresses of either family and a DUID, stored as raw bytes.
void BM_TraceRingOnlyIp6(benchmark::State& state) {
   Sinks sinks(true);
   const Platform::Ip6Addr peer = *Platform::Ip6Addr::parse("fe80::1");
   const Platform::IpGenAddr server = *Platform::IpGenAddr::parse("2001:db8::1");
   const uint8_t duid[] = {0, 1, 0, 1, 0x2a, 0x3b, 0x4c, 0x5d, 0x02, 0x0a, 0xb0, 0xff, 0, 1};
   int count = 0;
   const size_t before = Bench::allocations();
   for (auto _ : state) {
      TRACE(6, peer, server, Platform::TraceArg::ofHexBytes(duid), count);
      benchmark::DoNotOptimize(++count);
   }
   reportAllocations(state, before);
}
BENCHMARK(BM_TraceRingOnlyIp6);

}  // namespace
