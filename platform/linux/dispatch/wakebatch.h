#pragma once

#include <memory>

namespace tarvex::itx::rtn::linux_platform {

class WorkerPool;

// While one of these lives on a thread, the tasks it posts are queued at
// once but their workers are woken when the outermost one ends: an event
// source that hands over a batch wakes each queue once for the batch, not
// once per message. Only for threads that never wait on what they post.
class WakeBatch {
 public:
  WakeBatch();
  ~WakeBatch();
  WakeBatch(const WakeBatch&) = delete;
  WakeBatch& operator=(const WakeBatch&) = delete;

  // For WorkerPool::post: true when the wake-up was taken over.
  static bool defer(const std::shared_ptr<WorkerPool>& pool);
};

}  // namespace tarvex::itx::rtn::linux_platform
