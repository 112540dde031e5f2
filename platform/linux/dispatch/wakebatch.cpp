#include "dispatch/wakebatch.h"

#include <algorithm>
#include <vector>

namespace tarvex::itx::rtn::linux_platform {

namespace {

struct Pending {
  int depth = 0;
  std::vector<std::shared_ptr<Wakeable>> targets;
};

thread_local Pending pending;

}  // namespace

WakeBatch::WakeBatch() { ++pending.depth; }

WakeBatch::~WakeBatch() {
  if (--pending.depth > 0) return;
  std::vector<std::shared_ptr<Wakeable>> targets;
  targets.swap(pending.targets);
  for (const auto& target : targets) target->wakeForQueued();
}

bool WakeBatch::defer(const std::shared_ptr<Wakeable>& target) {
  if (pending.depth == 0 || !target) return false;
  if (std::find(pending.targets.begin(), pending.targets.end(), target) == pending.targets.end()) {
    pending.targets.push_back(target);
  }
  return true;
}

}  // namespace tarvex::itx::rtn::linux_platform
