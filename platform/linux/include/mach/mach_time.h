// Time base of absolute time for non-Apple builds. The Linux clock counts
// nanoseconds, so its time base is 1/1; the clock seam reports it.
#pragma once

#include <stdint.h>

typedef struct {
  uint32_t numer;
  uint32_t denom;
} mach_timebase_info_data_t;
