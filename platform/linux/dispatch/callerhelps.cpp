#include "dispatch/callerhelps.h"

#include <utility>

#include "dispatch/heldtargets.h"
#include "dispatch/workerpool.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

thread_local HeldTargets<WorkerPool> helping;

}  // namespace

CallerHelps::CallerHelps() { ++helping.depth; }

CallerHelps::~CallerHelps() {
  if (--helping.depth > 0) return;
  for (const auto& pool : helping.release()) pool->wakeForQueued();
}

bool CallerHelps::holding() const { return !helping.targets.empty(); }

void CallerHelps::help() {
  const auto pools = helping.release();
  // The tasks run here post as any worker's do: one that waits on what it
  // posts must not find it held back for a help that never comes.
  const int depth = std::exchange(helping.depth, 0);
  for (const auto& pool : pools) pool->runQueuedHere();
  helping.depth = depth;
}

bool CallerHelps::take(const std::shared_ptr<WorkerPool>& pool) { return helping.hold(pool); }

}  // namespace tarvex::itx::rtn::linux_platform
