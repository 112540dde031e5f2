#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// One thread serving deadline timers from a timerfd. The kernel timer is
// set by whoever schedules or cancels the earliest timer, so the thread
// wakes only when a timer is really due: AUTH deadlines and stall checks,
// nearly all cancelled well before their time, cost no wakeup at all. A due
// timer is posted to its queue; the thread never runs tasks, so a slow one
// cannot make other timers late.
class TimerThread {
 public:
  explicit TimerThread(IClock& clock);
  ~TimerThread();
  TimerThread(const TimerThread&) = delete;
  TimerThread& operator=(const TimerThread&) = delete;

  // when is absolute, in IClock::now() units. Timers due at the same time
  // are posted in the order they were scheduled.
  TimerRef schedule(uint64_t when, QueueRef queue, Task task);
  // What stands for a timer that was never set.
  static TimerRef unset();

  // Discards pending timers and joins the thread; later timers are dropped.
  void stop();

 private:
  struct Book;
  class Handle;
  void run();

  const std::shared_ptr<Book> book_;
  std::thread thread_;  // last, so it starts after the rest is built
};

}  // namespace tarvex::itx::rtn::linux_platform
