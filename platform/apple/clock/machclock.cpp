#include "clock/machclock.h"

namespace tarvex::itx::rtn::apple_platform {

MachClock::MachClock() : timebase_{1, 1} {
  mach_timebase_info_data_t info{};
  // A failure leaves the 1/1 base of Intel Macs rather than a zero divisor.
  if (mach_timebase_info(&info) == KERN_SUCCESS && info.numer != 0 && info.denom != 0) {
    timebase_ = info;
  }
}

uint64_t MachClock::now() { return mach_absolute_time(); }

}  // namespace tarvex::itx::rtn::apple_platform
