#pragma once

#include <memory>

namespace tarvex::itx::rtn::linux_platform {

// A queue whose consumer can be woken later than its producer posts.
class Wakeable {
 public:
  virtual ~Wakeable() = default;
  // Brings the consumer to what was queued under a WakeBatch.
  virtual void wakeForQueued() = 0;
};

// While one of these lives on a thread, what it posts is queued at once but
// the consumers are woken when the outermost one ends: an event source that
// hands over a batch wakes each queue once for the batch, not once per
// message. Only for threads that never wait on what they post.
class WakeBatch {
 public:
  WakeBatch();
  ~WakeBatch();
  WakeBatch(const WakeBatch&) = delete;
  WakeBatch& operator=(const WakeBatch&) = delete;

  // For the producers: true when the wake-up was taken over.
  static bool defer(const std::shared_ptr<Wakeable>& target);
};

}  // namespace tarvex::itx::rtn::linux_platform
