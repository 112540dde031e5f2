#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace lumo::bench {

// Sets the p50_us, p90_us, p99_us and max_us counters of a run from its latencies.
inline void reportLatencies(benchmark::State& state, std::vector<double> latenciesUs) {
  if (latenciesUs.empty()) return;
  std::sort(latenciesUs.begin(), latenciesUs.end());
  auto pct = [&](double q) {
    return latenciesUs[std::min(latenciesUs.size() - 1,
                                static_cast<size_t>(q * static_cast<double>(latenciesUs.size())))];
  };
  state.counters["p50_us"] = pct(0.50);
  state.counters["p90_us"] = pct(0.90);
  state.counters["p99_us"] = pct(0.99);
  state.counters["max_us"] = latenciesUs.back();
}

}  // namespace lumo::bench
