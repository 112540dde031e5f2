#pragma once

#include <memory>

namespace tarvex::itx::rtn::linux_platform {

class WorkerPool;

// While one of these lives on a thread, what the thread posts to a pool
// that lets its callers help (the interactive ones) is queued without
// waking a worker, and help() runs it on this thread as one of the pool's
// workers would: the answer to a waiting exec costs no wake-up of another
// thread. Should a task hold the helper, the pool's stall check brings a
// worker for the tasks behind it. Posts to other pools are not held back.
// Only for a thread whose own duty is taken up elsewhere while it helps
// (see LoopRelay); what help() was not called for is woken for at the end.
class CallerHelps {
 public:
  CallerHelps();
  ~CallerHelps();
  CallerHelps(const CallerHelps&) = delete;
  CallerHelps& operator=(const CallerHelps&) = delete;

  // Whether anything was held back for help().
  bool holding() const;
  // Runs what was held back so far, in the order it was posted.
  void help();

  // For the pools: true when the caller took the task over.
  static bool take(const std::shared_ptr<WorkerPool>& pool);
};

}  // namespace tarvex::itx::rtn::linux_platform
