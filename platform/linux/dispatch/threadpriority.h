#pragma once

#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// The nice value a QoS class runs at: authorisation, which the machine's
// execs wait on, ahead of batch work; background work behind it.
int nicenessOf(QosClass qos);

// Sets the calling thread's policy and nice value for qos. Raising it needs
// privilege, which the service has; without, the thread keeps its own.
void prioritiseThread(QosClass qos);

}  // namespace tarvex::itx::rtn::linux_platform
