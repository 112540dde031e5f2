#include "dispatch/wakebatch.h"

#include "dispatch/heldtargets.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

thread_local HeldTargets<Wakeable> pending;

}  // namespace

WakeBatch::WakeBatch() { ++pending.depth; }

WakeBatch::~WakeBatch() {
  if (--pending.depth > 0) return;
  for (const auto& target : pending.release()) target->wakeForQueued();
}

bool WakeBatch::defer(const std::shared_ptr<Wakeable>& target) { return pending.hold(target); }

}  // namespace tarvex::itx::rtn::linux_platform
