#pragma once

#include "esclient/esapi.h"
#include "rtn/clock.h"
#include "rtn/dispatch.h"
#include "rtn/openscope.h"

namespace tarvex::itx::rtn::linux_platform {

// The Endpoint Security facility this executable runs on; each executable
// links one definition (the kernel-backed facility, or a scripted one in
// test builds). Null when it can't be had; the reason is logged. *opens is
// set to where the facility takes its open scope, when it takes one.
endpointsecurity::IEndpointSecurityApi* makeEndpointSecurity(IClock& clock, IDispatch& dispatch,
                                                             IOpenScope** opens = nullptr);

}  // namespace tarvex::itx::rtn::linux_platform
