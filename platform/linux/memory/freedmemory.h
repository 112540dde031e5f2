#pragma once

namespace tarvex::itx::rtn::linux_platform {

// Hands the heap's free pages back to the system once a burst of work is
// over, so the service's resident size follows its load down again.
void returnFreedMemory();

}  // namespace tarvex::itx::rtn::linux_platform
