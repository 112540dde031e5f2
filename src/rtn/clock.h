#pragma once

#include <mach/mach_time.h>

#include <cstdint>

namespace tarvex::itx::rtn {

// Absolute time in the units of message deadlines and mach_time.
class IClock {
 public:
  virtual ~IClock() = default;
  virtual uint64_t now() = 0;
  virtual mach_timebase_info_data_t timebase() = 0;

  uint64_t nanosToTicks(uint64_t nanos) {
    const mach_timebase_info_data_t tb = timebase();
    return static_cast<uint64_t>(static_cast<double>(nanos) * tb.denom / tb.numer);
  }
  uint64_t ticksToNanos(uint64_t ticks) {
    const mach_timebase_info_data_t tb = timebase();
    return static_cast<uint64_t>(static_cast<double>(ticks) * tb.numer / tb.denom);
  }
};

}  // namespace tarvex::itx::rtn
