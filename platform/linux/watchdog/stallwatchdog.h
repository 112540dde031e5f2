#pragma once

#include <sys/types.h>

namespace tarvex::itx::rtn::linux_platform {

// Every exec and open on the machine waits for the permission group's
// answer, and the kernel waits without limit. The deadline fail-safe lives
// in this process, so a stopped, deadlocked or spinning extension would
// stall the machine. The stall watchdog is a small process of its own,
// forked at start while this one is single-threaded, that reads the
// heartbeat page: when the permission reader is silent or a timer is
// overdue while a group is open, it takes the group from this process
// (pidfd_getfd), removes its marks so that nothing new waits, and allows
// every event still pending. The extension puts its marks back, and says
// so, once both run again (see PermissionRecovery). Where the group can't
// be taken, the stalled process is killed instead, which releases it too.
//
// Returns the watchdog's pid, or -1 when it could not start (logged).
pid_t startStallWatchdog();

// The watchdog's pid once started, else -1: its own accesses are allowed
// at once, like the extension's.
pid_t stallWatchdogPid();

}  // namespace tarvex::itx::rtn::linux_platform
