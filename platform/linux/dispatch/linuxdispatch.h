#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "dispatch/timerthread.h"
#include "dispatch/workerpool.h"
#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

struct DispatchLimits {
  unsigned interactiveThreads = 64;  // per queue targeting UserInteractive
  unsigned otherThreads = 16;        // per queue of any other class
  std::chrono::milliseconds idleTimeout{5000};
  // How long at most an idle worker of a UserInteractive queue keeps
  // looking for work before it sleeps, while tasks come closer together
  // than that: AUTH messages must not wait for a thread to wake.
  std::chrono::microseconds interactiveSpin{50};
  // Queues of the other classes add a worker only when theirs seem stuck.
  Recruiting otherRecruiting{std::chrono::milliseconds(2), 64, nullptr};
  // UserInteractive ones much sooner: their tasks may wait on the daemon,
  // but a worker about to finish its task is quicker than one woken.
  Recruiting interactiveRecruiting{std::chrono::microseconds(100), 8, nullptr};
};

// Dispatch on plain threads: every queue, global ones included, has its own
// elastic pool, and one timer thread serves after().
//
// Queues made by createConcurrentQueue for a class other than
// UserInteractive batch the wake-ups of what their tasks post (see
// WorkerPool): their tasks must never wait on work they post. The
// observers' notification work never does; global queues don't batch.
//
// Destruction discards pending timers and queued tasks, waits for running
// tasks to return and joins every thread; it must not run on one of its own
// workers. Queues that outlive it drop whatever is posted to them.
class LinuxDispatch final : public IDispatch {
 public:
  explicit LinuxDispatch(IClock& clock, DispatchLimits limits = {});
  ~LinuxDispatch() override;
  LinuxDispatch(const LinuxDispatch&) = delete;
  LinuxDispatch& operator=(const LinuxDispatch&) = delete;

  QueueRef createConcurrentQueue(const char* label, QosClass target) override;
  QueueRef globalQueue(QosClass qos) override;
  TimerRef after(uint64_t when, const QueueRef& queue, Task task) override;
  [[noreturn]] void main() override;

 private:
  QueueRef makeQueueLocked(std::string label, QosClass qos, bool batchWakes);

  IClock& clock_;
  const DispatchLimits limits_;
  // Runs what the timer thread posts to it right there: the pools' stall
  // checks, which only look and wake.
  const QueueRef inline_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<WorkerPool>> pools_;
  std::map<QosClass, QueueRef> globals_;
  bool closing_ = false;
  TimerThread timers_;
};

}  // namespace tarvex::itx::rtn::linux_platform
