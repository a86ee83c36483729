// Cost of the timer wheel at the agent's scale: one armed timer per DHCP client.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "platform/loop/TimerWheel.h"

namespace {

using Platform::ManualClock;
using Platform::Timer;
using Platform::TimerWheel;

constexpr int kTimers = 100000;

struct Population {
   Population() {
      std::mt19937_64 rng(42);
      std::uniform_real_distribution<double> deadline(1.0, 1000.0);
      for (auto* set : {&first, &second}) {
         set->resize(kTimers);
         for (double& d : *set)
            d = deadline(rng);
      }
      order.resize(kTimers);
      for (int i = 0; i < kTimers; ++i)
         order[i] = i;
      std::shuffle(order.begin(), order.end(), rng);
      timers.reserve(kTimers);
      for (int i = 0; i < kTimers; ++i) {
         timers.push_back(std::make_unique<Timer>(wheel, [this] { ++fired; }));
      }
   }
   ~Population() {
      for (auto& t : timers)
         t->cancel();
   }
   void armAll(const std::vector<double>& deadlines) {
      for (int i = 0; i < kTimers; ++i)
         timers[i]->armAt(deadlines[i]);
   }

   ManualClock clock;
   ManualClock utc;
   TimerWheel wheel{clock, utc};
   std::vector<double> first;
   std::vector<double> second;
   std::vector<int> order;  // a random visiting order, so cancels hit all heap depths
   std::vector<std::unique_ptr<Timer>> timers;
   int64_t fired = 0;
};

void perOp(benchmark::State& state) {
   state.counters["per_op"] = benchmark::Counter(
       kTimers, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_ArmUnarmed(benchmark::State& state) {
   Population p;
   for (auto _ : state) {
      p.armAll(p.first);
      state.PauseTiming();
      for (auto& t : p.timers)
         t->cancel();
      state.ResumeTiming();
   }
   perOp(state);
}
BENCHMARK(BM_ArmUnarmed)->Unit(benchmark::kMillisecond);

void BM_RearmArmed(benchmark::State& state) {
   Population p;
   p.armAll(p.first);
   bool flip = false;
   for (auto _ : state) {
      p.armAll(flip ? p.first : p.second);
      flip = !flip;
   }
   perOp(state);
}
BENCHMARK(BM_RearmArmed)->Unit(benchmark::kMillisecond);

void BM_CancelArmed(benchmark::State& state) {
   Population p;
   for (auto _ : state) {
      state.PauseTiming();
      p.armAll(p.first);
      state.ResumeTiming();
      for (int i : p.order)
         p.timers[i]->cancel();
   }
   perOp(state);
}
BENCHMARK(BM_CancelArmed)->Unit(benchmark::kMillisecond);

void BM_FireAll(benchmark::State& state) {
   Population p;
   for (auto _ : state) {
      state.PauseTiming();
      p.clock.set(0);
      p.armAll(p.first);
      p.clock.set(1000);
      state.ResumeTiming();
      p.wheel.runExpired();
   }
   benchmark::DoNotOptimize(p.fired);
   perOp(state);
}
BENCHMARK(BM_FireAll)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
