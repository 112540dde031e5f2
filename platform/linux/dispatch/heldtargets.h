#pragma once

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace tarvex::itx::rtn::linux_platform {

// The targets a scope open on this thread (WakeBatch, CallerHelps) holds
// back, each once, for the outermost scope to act on. One per thread and
// kind of scope.
template <typename Target>
struct HeldTargets {
  // True when a scope is open and now holds the target.
  bool hold(const std::shared_ptr<Target>& target) {
    if (depth == 0 || !target) return false;
    if (std::find(targets.begin(), targets.end(), target) == targets.end()) {
      targets.push_back(target);
    }
    return true;
  }
  std::vector<std::shared_ptr<Target>> release() { return std::exchange(targets, {}); }

  int depth = 0;  // scopes open
  std::vector<std::shared_ptr<Target>> targets;
};

}  // namespace tarvex::itx::rtn::linux_platform
