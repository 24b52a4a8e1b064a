// Cost of the main queue on the host's thread.
//
//  - post() while the worker is busy: each call is timed on its own with the
//    steady clock into a histogram (median and p99), once with the worker held
//    in one long item and once with it draining short items as fast as they
//    come (so posts contend with its swaps). Target: median at most 150 ns.
//  - wake-up of a sleeping worker: post() cost (it now makes one system call
//    to notify) and the latency from post() to the item starting to run.
//
// A summary with the figures and targets is printed after the benchmarks.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "telvo/thread_executor.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

std::int64_t nanos(SteadyClock::time_point t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

struct Figures {
  double median = 0;
  double p99 = 0;
};

Figures summarize(std::vector<std::int64_t> samples) {
  if (samples.empty()) return {};
  std::sort(samples.begin(), samples.end());
  auto at = [&](double q) {
    return static_cast<double>(samples[static_cast<std::size_t>(q * (samples.size() - 1))]);
  };
  return {at(0.5), at(0.99)};
}

std::map<std::string, Figures>& results() {
  static std::map<std::string, Figures> r;
  return r;
}

void report(benchmark::State& state, const std::string& name, const Figures& f) {
  state.counters["median_ns"] = f.median;
  state.counters["p99_ns"] = f.p99;
  results()[name] = f;
}

// The cost of reading the clock twice, included in every sample below.
void BM_ClockOverhead(benchmark::State& state) {
  std::vector<std::int64_t> samples;
  samples.reserve(state.max_iterations);
  for (auto _ : state) {
    auto t0 = SteadyClock::now();
    auto t1 = SteadyClock::now();
    samples.push_back(nanos(t1) - nanos(t0));
  }
  report(state, "clock overhead", summarize(std::move(samples)));
}
BENCHMARK(BM_ClockOverhead)->Iterations(200000);

// Worker held in one long item: the pure cost of queueing on the caller.
template <bool kTypicalClosure>
void BM_PostWorkerBlocked(benchmark::State& state) {
  telvo::ThreadExecutor executor;
  std::atomic<bool> release{false};
  executor.post([&] {
    while (!release.load(std::memory_order_acquire)) std::this_thread::yield();
  });
  auto client = std::make_shared<int>(1);  // what a client's closure captures
  std::vector<std::int64_t> samples;
  samples.reserve(state.max_iterations);
  for (auto _ : state) {
    auto t0 = SteadyClock::now();
    if constexpr (kTypicalClosure) {
      executor.post([client] { benchmark::DoNotOptimize(*client); });
    } else {
      executor.post([] {});
    }
    auto t1 = SteadyClock::now();
    samples.push_back(nanos(t1) - nanos(t0));
  }
  release.store(true, std::memory_order_release);
  executor.shutdown(30);
  report(state,
         kTypicalClosure ? "post, worker blocked, closure holds a shared_ptr"
                         : "post, worker blocked, empty closure",
         summarize(std::move(samples)));
}
BENCHMARK_TEMPLATE(BM_PostWorkerBlocked, false)->Iterations(1000000);
BENCHMARK_TEMPLATE(BM_PostWorkerBlocked, true)->Iterations(1000000);

// Worker draining: each item does a little work, so the worker stays busy and
// keeps swapping the queue while the caller posts.
void BM_PostWorkerDraining(benchmark::State& state) {
  telvo::ThreadExecutor executor;
  auto client = std::make_shared<int>(1);
  std::vector<std::int64_t> samples;
  samples.reserve(state.max_iterations);
  for (auto _ : state) {
    auto t0 = SteadyClock::now();
    executor.post([client] {
      for (int i = 0; i < 20; ++i) benchmark::DoNotOptimize(*client + i);
    });
    auto t1 = SteadyClock::now();
    samples.push_back(nanos(t1) - nanos(t0));
  }
  executor.shutdown(30);
  report(state, "post, worker draining", summarize(std::move(samples)));
}
BENCHMARK(BM_PostWorkerDraining)->Iterations(1000000);

// Worker asleep before every post: the post notifies it, and the item's start
// is timed against the moment post() was called.
void BM_PostWakesSleepingWorker(benchmark::State& state) {
  telvo::ThreadExecutor executor;
  std::vector<std::int64_t> postCost, latency;
  postCost.reserve(state.max_iterations);
  latency.reserve(state.max_iterations);
  for (auto _ : state) {
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::microseconds(300));  // let the worker wait
    state.ResumeTiming();
    std::atomic<std::int64_t> started{0};
    auto t0 = SteadyClock::now();
    executor.post([&] { started.store(nanos(SteadyClock::now()), std::memory_order_release); });
    auto t1 = SteadyClock::now();
    std::int64_t ran;
    while ((ran = started.load(std::memory_order_acquire)) == 0) std::this_thread::yield();
    postCost.push_back(nanos(t1) - nanos(t0));
    latency.push_back(ran - nanos(t0));
  }
  executor.shutdown(30);
  Figures cost = summarize(std::move(postCost));
  Figures wake = summarize(std::move(latency));
  results()["post, worker sleeping (notifies)"] = cost;
  results()["post-to-run latency, worker sleeping"] = wake;
  state.counters["post_median_ns"] = cost.median;
  state.counters["post_p99_ns"] = cost.p99;
  state.counters["latency_median_ns"] = wake.median;
  state.counters["latency_p99_ns"] = wake.p99;
}
BENCHMARK(BM_PostWakesSleepingWorker)->Iterations(3000);

void printSummary() {
  constexpr double kTargetMedian = 150;  // ns, post() with a busy worker
  std::printf("\nMain queue summary (steady clock, per call; includes clock overhead)\n");
  std::printf("%-52s %10s %10s %s\n", "measurement", "median ns", "p99 ns", "target");
  for (const auto& [name, f] : results()) {
    std::string target;
    if (name.rfind("post, worker blocked", 0) == 0 || name == "post, worker draining") {
      target = f.median <= kTargetMedian ? "median <= 150 ns: met" : "median <= 150 ns: MISSED";
    }
    std::printf("%-52s %10.0f %10.0f %s\n", name.c_str(), f.median, f.p99, target.c_str());
  }
  auto busy = results().find("post, worker draining");
  auto sleeping = results().find("post, worker sleeping (notifies)");
  if (busy != results().end() && sleeping != results().end() && busy->second.median > 0) {
    std::printf("post to a sleeping worker costs %.1fx a post to a busy one (median)\n",
                sleeping->second.median / busy->second.median);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();
  return 0;
}
