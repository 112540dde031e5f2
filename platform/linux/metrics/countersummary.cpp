#include "metrics/countersummary.h"

#include <map>
#include <memory>
#include <string>

#include "log/log.h"
#include "metrics/counters.h"

LUMO_LOG_MODULE("MAC_SPECIFIC")

namespace tarvex::itx::rtn::linux_platform {

namespace {

constexpr uint64_t kPeriodNanos = 60'000'000'000ull;

struct Summary {
  IClock& clock;
  IDispatch& dispatch;
  QueueRef queue;
  std::map<std::string, uint64_t> last;
};

std::string keyOf(const CounterReading& r) {
  return r.labels.empty() ? r.name : r.name + "{" + r.labels + "}";
}

void logIfMoved(Summary& summary) {
  std::string line;
  bool moved = false;
  for (const CounterReading& reading : readCounters()) {
    const std::string key = keyOf(reading);
    uint64_t& last = summary.last[key];
    if (reading.value == 0) continue;
    moved = moved || reading.value != last;
    line += line.empty() ? "" : ", ";
    line += key + " " + std::to_string(reading.value);
    if (reading.value != last) line += " (+" + std::to_string(reading.value - last) + ")";
    last = reading.value;
  }
  if (moved) LOG_INFO("Counters: %{public}s", line.c_str());
}

void schedule(const std::shared_ptr<Summary>& summary) {
  const uint64_t when = summary->clock.now() + summary->clock.nanosToTicks(kPeriodNanos);
  summary->dispatch.after(when, summary->queue, [summary] {
    logIfMoved(*summary);
    schedule(summary);
  });
}

}  // namespace

void startCounterSummary(IClock& clock, IDispatch& dispatch) {
  schedule(std::make_shared<Summary>(
      Summary{clock, dispatch, dispatch.globalQueue(QosClass::Background), {}}));
}

}  // namespace tarvex::itx::rtn::linux_platform
