#pragma once

#include <cstdint>

#include "rtn/clock.h"

namespace tarvex::itx::rtn::linux_platform {

// CLOCK_MONOTONIC in nanoseconds: it keeps counting across wall-clock changes
// (deadlines must not move when the time is set) and ticks are already
// nanoseconds, hence the 1/1 time base.
class MonotonicClock final : public IClock {
 public:
  uint64_t now() override;
  mach_timebase_info_data_t timebase() override { return {1, 1}; }
};

}  // namespace tarvex::itx::rtn::linux_platform
