#include "clock/monotonicclock.h"

#include <time.h>

namespace tarvex::itx::rtn::linux_platform {

uint64_t MonotonicClock::now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace tarvex::itx::rtn::linux_platform
