#include "metrics/counters.h"

#include <algorithm>
#include <mutex>

namespace tarvex::itx::rtn::linux_platform {

namespace {

struct Registry {
  std::mutex mutex;
  std::vector<std::shared_ptr<CounterSource>> sources;
};

Registry& registry() {
  static Registry* const instance = new Registry;  // outlives late unregistrations
  return *instance;
}

}  // namespace

CounterRegistration registerCounters(CounterSource source) {
  auto shared = std::make_shared<CounterSource>(std::move(source));
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().sources.push_back(shared);
  }
  CounterSource* key = shared.get();
  // The token's deleter unregisters; the source itself stays alive while a
  // reading is under way.
  return CounterRegistration(std::shared_ptr<void>(key, [](CounterSource* gone) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::erase_if(r.sources, [gone](const auto& s) { return s.get() == gone; });
  }));
}

std::vector<CounterReading> readCounters() {
  std::vector<std::shared_ptr<CounterSource>> sources;
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    sources = registry().sources;
  }
  std::vector<CounterReading> out;
  for (const auto& source : sources) (*source)(out);
  return out;
}

}  // namespace tarvex::itx::rtn::linux_platform
