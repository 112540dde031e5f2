#pragma once

#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// Logs one line of the registered counters once a minute, and only when
// some of them moved since the last line: what was delivered, dropped or
// allowed unseen, for an admin reading the journal.
void startCounterSummary(IClock& clock, IDispatch& dispatch);

}  // namespace tarvex::itx::rtn::linux_platform
