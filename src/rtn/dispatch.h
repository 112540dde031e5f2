#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace tarvex::itx::rtn {

// Quality-of-service classes with the platform's numeric values.
enum class QosClass : unsigned {
  UserInteractive = 0x21,
  UserInitiated = 0x19,
  Default = 0x15,
  Utility = 0x11,
  Background = 0x09,
};

// What the global "high priority" and "default priority" queues map to.
constexpr QosClass kPriorityHigh = QosClass::UserInitiated;
constexpr QosClass kPriorityDefault = QosClass::Default;

using Task = std::function<void()>;

class IQueue {
 public:
  virtual ~IQueue() = default;
  virtual void async(Task task) = 0;
  virtual const char* label() const = 0;
};

using QueueRef = std::shared_ptr<IQueue>;

// A timer set by after(). Cancelled before it is due, its task is dropped
// unrun: a deadline met early costs nothing when its time comes.
class ITimer {
 public:
  virtual ~ITimer() = default;
  virtual void cancel() = 0;
};

using TimerRef = std::shared_ptr<ITimer>;

// Dispatch queues and timers. Work on a concurrent queue may run in
// parallel with itself. A queue made by createConcurrentQueue never shares
// threads with another such queue, so one that is blocked cannot starve the
// others (the AUTH deadline watchdog relies on this).
class IDispatch {
 public:
  virtual ~IDispatch() = default;
  virtual QueueRef createConcurrentQueue(const char* label, QosClass target) = 0;
  virtual QueueRef globalQueue(QosClass qos) = 0;
  // Runs task on queue once the clock (IClock::now) reaches when, unless
  // the timer returned is cancelled first. Never null.
  virtual TimerRef after(uint64_t when, const QueueRef& queue, Task task) = 0;
  // Parks the calling thread for good (dispatch_main).
  [[noreturn]] virtual void main() = 0;
};

}  // namespace tarvex::itx::rtn
