#include "es/hub/heldmoves.h"

namespace endpointsecurity::linux_es {

void HeldMoves::held(uint64_t seq) {
  std::lock_guard<std::mutex> lock(mutex_);
  held_.insert(seq);
}

void HeldMoves::released(uint64_t seq) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (held_.erase(seq) == 0) return;
  }
  changed_.notify_all();
}

bool HeldMoves::waitFor(uint64_t seq) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto done = [&] { return held_.empty() || *held_.begin() > seq; };
  if (changed_.wait_for(lock, patience_, done)) return true;
  held_.erase(held_.begin(), held_.upper_bound(seq));
  return false;
}

}  // namespace endpointsecurity::linux_es
