#include "dispatch/callerhelps.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "dispatch/workerpool.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

struct Helping {
  int depth = 0;
  std::vector<std::shared_ptr<WorkerPool>> pools;
};

thread_local Helping helping;

}  // namespace

CallerHelps::CallerHelps() { ++helping.depth; }

CallerHelps::~CallerHelps() {
  if (--helping.depth > 0) return;
  std::vector<std::shared_ptr<WorkerPool>> pools;
  pools.swap(helping.pools);
  for (const auto& pool : pools) pool->wakeForQueued();
}

bool CallerHelps::holding() const { return !helping.pools.empty(); }

void CallerHelps::help() {
  std::vector<std::shared_ptr<WorkerPool>> pools;
  pools.swap(helping.pools);
  // The tasks run here post as any worker's do: one that waits on what it
  // posts must not find it held back for a help that never comes.
  const int depth = std::exchange(helping.depth, 0);
  for (const auto& pool : pools) pool->runQueuedHere();
  helping.depth = depth;
}

bool CallerHelps::take(const std::shared_ptr<WorkerPool>& pool) {
  if (helping.depth == 0 || !pool) return false;
  if (std::find(helping.pools.begin(), helping.pools.end(), pool) == helping.pools.end()) {
    helping.pools.push_back(pool);
  }
  return true;
}

}  // namespace tarvex::itx::rtn::linux_platform
