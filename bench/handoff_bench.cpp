// The floor under the AUTH answer latency: the same paced delivery handing
// each message to one waiting thread that only stamps it, with nothing of
// the client in between. What this shows at the 99th percentile is the
// machine's (wake-ups and the scheduler), not the pipeline's.
#include <benchmark/benchmark.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include "latencycounters.h"

namespace {

uint64_t nowNanos() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// Arg 0: messages a second; arg 1: how long the taker spins before it
// sleeps on the futex, in microseconds (the AUTH workers' default is 50).
void BM_HandoffFloor(benchmark::State& state) {
  const int64_t rate = state.range(0);
  const auto spin = std::chrono::microseconds(state.range(1));
  const int64_t count = rate / 2;
  std::vector<uint64_t> sentAt(static_cast<size_t>(count));
  std::vector<uint64_t> takenAt(static_cast<size_t>(count));
  std::atomic<int64_t> posted{0};
  std::atomic<bool> done{false};
  prctl(PR_SET_TIMERSLACK, 1000UL);
  std::vector<double> latenciesUs;
  for (auto _ : state) {
    posted.store(0);
    done.store(false);
    std::thread taker([&] {
      int64_t taken = 0;
      while (taken < count) {
        int64_t seen = posted.load(std::memory_order_acquire);
        const auto until = std::chrono::steady_clock::now() + spin;
        while (seen == taken && std::chrono::steady_clock::now() < until) {
          seen = posted.load(std::memory_order_acquire);
        }
        if (seen == taken) {
          posted.wait(taken, std::memory_order_acquire);
          continue;
        }
        for (; taken < seen; ++taken) takenAt[static_cast<size_t>(taken)] = nowNanos();
      }
    });
    const auto gap = std::chrono::nanoseconds(1'000'000'000 / rate);
    auto next = std::chrono::steady_clock::now();
    for (int64_t i = 0; i < count; ++i) {
      if (std::chrono::steady_clock::now() < next) std::this_thread::sleep_until(next);
      next += gap;
      sentAt[static_cast<size_t>(i)] = nowNanos();
      posted.store(i + 1, std::memory_order_release);
      posted.notify_one();
    }
    taker.join();
    for (int64_t i = 0; i < count; ++i) {
      latenciesUs.push_back(static_cast<double>(takenAt[static_cast<size_t>(i)] -
                                                sentAt[static_cast<size_t>(i)]) /
                            1000.0);
    }
  }
  lumo::bench::reportLatencies(state, std::move(latenciesUs));
}
BENCHMARK(BM_HandoffFloor)
    ->Args({50000, 0})
    ->Args({50000, 50})
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
