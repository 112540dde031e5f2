#pragma once

#include <cstdint>

#include "rtn/clock.h"

namespace tarvex::itx::rtn::apple_platform {

// mach_absolute_time: the units of message deadlines and of dispatch_time
// on this platform. It stops while the machine sleeps, as deadlines do.
class MachClock final : public IClock {
 public:
  MachClock();
  uint64_t now() override;
  mach_timebase_info_data_t timebase() override { return timebase_; }

 private:
  mach_timebase_info_data_t timebase_;  // fixed for the boot; read once
};

}  // namespace tarvex::itx::rtn::apple_platform
