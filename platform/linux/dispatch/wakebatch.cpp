#include "dispatch/wakebatch.h"

#include <algorithm>
#include <vector>

#include "dispatch/workerpool.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

struct Pending {
  int depth = 0;
  std::vector<std::shared_ptr<WorkerPool>> pools;
};

thread_local Pending pending;

}  // namespace

WakeBatch::WakeBatch() { ++pending.depth; }

WakeBatch::~WakeBatch() {
  if (--pending.depth > 0) return;
  std::vector<std::shared_ptr<WorkerPool>> pools;
  pools.swap(pending.pools);
  for (const auto& pool : pools) pool->wakeForQueued();
}

bool WakeBatch::defer(const std::shared_ptr<WorkerPool>& pool) {
  if (pending.depth == 0 || !pool) return false;
  if (std::find(pending.pools.begin(), pending.pools.end(), pool) == pending.pools.end()) {
    pending.pools.push_back(pool);
  }
  return true;
}

}  // namespace tarvex::itx::rtn::linux_platform
