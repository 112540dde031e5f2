#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarvex::itx::rtn::linux_platform {

// One count an admin reads, in the log's summary and in the metrics file.
// Names follow the Prometheus conventions (`lumo_es_..._total` for counts
// that only grow); labels are written as they go between the braces, e.g.
// `type="exec"`, or left empty.
struct CounterReading {
  std::string name;
  std::string help;
  std::string labels;
  uint64_t value = 0;
};

using CounterSource = std::function<void(std::vector<CounterReading>& out)>;

// Keeps a source registered while it lives.
class CounterRegistration {
 public:
  CounterRegistration() = default;
  explicit CounterRegistration(std::shared_ptr<void> token) : token_(std::move(token)) {}

 private:
  std::shared_ptr<void> token_;
};

// Components that count register a source of readings; a reading is taken
// from every live source, in the order they registered.
[[nodiscard]] CounterRegistration registerCounters(CounterSource source);
std::vector<CounterReading> readCounters();

}  // namespace tarvex::itx::rtn::linux_platform
