#include "dispatch/linuxdispatch.h"

#include <unistd.h>

#include <utility>

#include "dispatch/concurrentqueue.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

const char* qosName(QosClass qos) {
  switch (qos) {
    case QosClass::UserInteractive:
      return "interactive";
    case QosClass::UserInitiated:
      return "initiated";
    case QosClass::Default:
      return "default";
    case QosClass::Utility:
      return "utility";
    case QosClass::Background:
      return "background";
  }
  return "other";
}

class InlineQueue final : public IQueue {
 public:
  void async(Task task) override { task(); }
  const char* label() const override { return "lumo.inline"; }
};

}  // namespace

LinuxDispatch::LinuxDispatch(IClock& clock, DispatchLimits limits)
    : clock_(clock),
      limits_(std::move(limits)),
      inline_(std::make_shared<InlineQueue>()),
      timers_(clock) {}

LinuxDispatch::~LinuxDispatch() {
  timers_.stop();
  std::vector<std::shared_ptr<WorkerPool>> pools;
  std::map<QosClass, QueueRef> globals;
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
    pools.swap(pools_);
    globals.swap(globals_);
  }
  for (const auto& pool : pools) pool->shutdown();
}

QueueRef LinuxDispatch::createConcurrentQueue(const char* label, QosClass target) {
  std::lock_guard lock(mutex_);
  return makeQueueLocked(label ? label : "", target, target != QosClass::UserInteractive);
}

QueueRef LinuxDispatch::globalQueue(QosClass qos) {
  std::lock_guard lock(mutex_);
  QueueRef& queue = globals_[qos];
  if (!queue) queue = makeQueueLocked(std::string("lumo.global.") + qosName(qos), qos, false);
  return queue;
}

TimerRef LinuxDispatch::after(uint64_t when, const QueueRef& queue, Task task) {
  if (!queue) return TimerThread::unset();
  return timers_.schedule(when, queue, std::move(task));
}

void LinuxDispatch::main() {
  for (;;) pause();
}

QueueRef LinuxDispatch::makeQueueLocked(std::string label, QosClass qos, bool batchWakes) {
  const unsigned cap =
      qos == QosClass::UserInteractive ? limits_.interactiveThreads : limits_.otherThreads;
  const auto spin =
      qos == QosClass::UserInteractive ? limits_.interactiveSpin : std::chrono::microseconds(0);
  // Short work is got through faster by one busy thread than by many woken
  // ones; authorisation may wait on its queue, so stuck looks sooner there.
  Recruiting recruiting =
      qos == QosClass::UserInteractive ? limits_.interactiveRecruiting : limits_.otherRecruiting;
  if (recruiting.stall.count() > 0) {
    // The check runs on the timer thread itself: it only looks and wakes.
    recruiting.arm = [this](std::chrono::microseconds delay, Task check) {
      const auto nanos = static_cast<uint64_t>(delay.count()) * 1000;
      return timers_.schedule(clock_.now() + clock_.nanosToTicks(nanos), inline_,
                              std::move(check));
    };
  }
  auto pool = std::make_shared<WorkerPool>(label, cap, limits_.idleTimeout, spin, recruiting, qos,
                                           batchWakes);
  if (closing_) {
    pool->shutdown();  // no threads yet, so nothing is joined under the lock
  } else {
    // Forget pools whose queue is gone and whose workers have all exited.
    std::erase_if(pools_, [](const std::shared_ptr<WorkerPool>& p) { return p->reap(); });
    pools_.push_back(pool);
  }
  return std::make_shared<ConcurrentQueue>(std::move(label), std::move(pool));
}

}  // namespace tarvex::itx::rtn::linux_platform
