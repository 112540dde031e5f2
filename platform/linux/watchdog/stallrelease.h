#pragma once

#include <sys/types.h>

#include <cstdint>

namespace tarvex::itx::rtn::linux_platform {

struct ReleaseCounts {
  uint64_t unseen = 0;   // queued events the extension never read
  uint64_t pending = 0;  // events it read and had not answered
};

// Allows what a stalled permission group holds, through `group` (this
// process's copy of it): first its marks go, so nothing new waits; then
// the queued events are read and allowed; then the events the owner read,
// whose descriptors are numbered in its table: an answer names the event
// by that number, so every number open in `owner` is answered until the
// kernel knows it no more.
ReleaseCounts releasePermissionGroup(int group, pid_t owner);

}  // namespace tarvex::itx::rtn::linux_platform
