#include "clock/machclock.h"

#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

using tarvex::itx::rtn::apple_platform::MachClock;

TEST(MachClock, TimebaseIsTheSystems) {
  MachClock clock;
  mach_timebase_info_data_t info{};
  ASSERT_EQ(mach_timebase_info(&info), KERN_SUCCESS);
  EXPECT_EQ(clock.timebase().numer, info.numer);
  EXPECT_EQ(clock.timebase().denom, info.denom);
}

// Deadline watchdogs are scheduled in clock units with dispatch_after: the
// two must be one time scale.
TEST(MachClock, NowIsDispatchTimeNow) {
  MachClock clock;
  const uint64_t before = clock.now();
  const dispatch_time_t now = dispatch_time(DISPATCH_TIME_NOW, 0);
  const uint64_t after = clock.now();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(MachClock, TicksAndNanosecondsConvertBack) {
  MachClock clock;
  const uint64_t second = 1'000'000'000;
  EXPECT_NEAR(static_cast<double>(clock.ticksToNanos(clock.nanosToTicks(second))),
              static_cast<double>(second), 1000.0);
  const uint64_t start = clock.now();
  EXPECT_GT(clock.now() + clock.nanosToTicks(second), start);
}
