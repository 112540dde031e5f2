#pragma once

#include <memory>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "setup/facility.h"

namespace lumo::testing {

// The Linux facility on the real kernel, in the test's own process, for
// tests that act as its client directly.
struct RealFacility {
  tarvex::itx::rtn::linux_platform::MonotonicClock clock;
  tarvex::itx::rtn::linux_platform::LinuxDispatch dispatch{clock};
  tarvex::itx::rtn::IOpenScope* opens = nullptr;
  std::unique_ptr<endpointsecurity::IEndpointSecurityApi> es{
      tarvex::itx::rtn::linux_platform::makeEndpointSecurity(clock, dispatch, &opens)};
};

}  // namespace lumo::testing
