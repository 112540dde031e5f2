#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace lumo::testing {

// A clock the test moves by hand.
class FakeClock : public tarvex::itx::rtn::IClock {
 public:
  explicit FakeClock(uint64_t start = 1'000'000'000) : now_(start) {}
  uint64_t now() override {
    std::lock_guard<std::mutex> lock(mutex_);
    return now_;
  }
  mach_timebase_info_data_t timebase() override { return {1, 1}; }
  void advance(uint64_t ticks) {
    std::lock_guard<std::mutex> lock(mutex_);
    now_ += ticks;
  }

 private:
  std::mutex mutex_;
  uint64_t now_;
};

// Dispatch that runs nothing until the test says so, on the test's thread.
class ManualDispatch : public tarvex::itx::rtn::IDispatch {
 public:
  explicit ManualDispatch(tarvex::itx::rtn::IClock& clock) : clock_(clock) {}

  struct PendingTimer {
    uint64_t when;
    std::string queue;
  };

  tarvex::itx::rtn::QueueRef createConcurrentQueue(const char* label,
                                                    tarvex::itx::rtn::QosClass target) override;
  tarvex::itx::rtn::QueueRef globalQueue(tarvex::itx::rtn::QosClass qos) override;
  tarvex::itx::rtn::TimerRef after(uint64_t when, const tarvex::itx::rtn::QueueRef& queue,
                                   tarvex::itx::rtn::Task task) override;
  [[noreturn]] void main() override;

  // Runs queued tasks (and tasks they queue) of every queue, or of one.
  size_t runQueued(const std::string& label = "");
  // Moves due timers (clock now) to their queues; returns how many.
  size_t fireDueTimers();
  size_t pendingTasks(const std::string& label = "") const;
  std::vector<PendingTimer> pendingTimers() const;
  std::vector<std::string> createdQueues() const;
  tarvex::itx::rtn::QosClass targetOf(const std::string& label) const;

 private:
  class Queue;
  friend class Queue;
  class Timer;
  struct Due {
    uint64_t id;
    tarvex::itx::rtn::QueueRef queue;
    tarvex::itx::rtn::Task task;
  };
  void enqueue(const std::string& label, tarvex::itx::rtn::Task task);

  tarvex::itx::rtn::IClock& clock_;
  mutable std::mutex mutex_;
  std::deque<std::pair<std::string, tarvex::itx::rtn::Task>> tasks_;
  std::multimap<uint64_t, Due> timers_;
  uint64_t nextTimer_ = 0;
  // Timers reach the dispatch through this; gone with it.
  std::shared_ptr<ManualDispatch*> self_ = std::make_shared<ManualDispatch*>(this);
  std::vector<std::pair<std::string, tarvex::itx::rtn::QosClass>> created_;
  std::map<tarvex::itx::rtn::QosClass, tarvex::itx::rtn::QueueRef> globals_;
};

}  // namespace lumo::testing
