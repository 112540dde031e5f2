#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// One thread holding deadline timers in a min-heap. A due timer is posted to
// its queue; the timer thread never runs tasks, so a slow task cannot make
// other timers late.
class TimerThread {
 public:
  explicit TimerThread(IClock& clock);
  ~TimerThread();
  TimerThread(const TimerThread&) = delete;
  TimerThread& operator=(const TimerThread&) = delete;

  // when is absolute, in IClock::now() units. Timers due at the same time
  // are posted in the order they were scheduled.
  void schedule(uint64_t when, QueueRef queue, Task task);

  // Discards pending timers and joins the thread; later timers are dropped.
  void stop();

 private:
  struct Entry {
    uint64_t when;
    uint64_t seq;
    QueueRef queue;
    Task task;
  };
  static bool later(const Entry& a, const Entry& b);
  void run();

  IClock& clock_;
  const uint64_t maxWaitTicks_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Entry> heap_;
  uint64_t nextSeq_ = 0;
  bool stopping_ = false;
  std::thread thread_;  // last, so it starts after the rest is built
};

}  // namespace tarvex::itx::rtn::linux_platform
