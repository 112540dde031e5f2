#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "rtn/clock.h"
#include "rtn/dispatch.h"

namespace lumo::testing {

// A clock the test moves by hand.
class FakeClock : public tarvex::itx::rtn::IClock {
 public:
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
  uint64_t now_ = 1'000'000'000;
};

// Dispatch that runs nothing until the test says so, on the test's thread.
// A cancelled timer leaves the pending list with its task.
class ManualDispatch : public tarvex::itx::rtn::IDispatch {
 public:
  using QueueRef = tarvex::itx::rtn::QueueRef;
  using Task = tarvex::itx::rtn::Task;
  explicit ManualDispatch(tarvex::itx::rtn::IClock& clock) : clock_(clock) {}

  QueueRef createConcurrentQueue(const char* label, tarvex::itx::rtn::QosClass) override {
    return std::make_shared<Queue>(*this, label);
  }
  QueueRef globalQueue(tarvex::itx::rtn::QosClass qos) override {
    return std::make_shared<Queue>(*this, "global." + std::to_string(static_cast<int>(qos)));
  }
  tarvex::itx::rtn::TimerRef after(uint64_t when, const QueueRef& queue, Task task) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t id = nextTimer_++;
    timers_.emplace(when, Due{id, queue, std::move(task)});
    return std::make_shared<Timer>([weak = std::weak_ptr<ManualDispatch*>(self_), id] {
      const auto self = weak.lock();
      if (!self) return;
      Task dropped;  // let go of outside the lock
      std::lock_guard<std::mutex> lock((*self)->mutex_);
      auto& timers = (*self)->timers_;
      auto it = std::find_if(timers.begin(), timers.end(),
                             [&](const auto& t) { return t.second.id == id; });
      if (it == timers.end()) return;
      dropped = std::move(it->second.task);
      timers.erase(it);
    });
  }
  [[noreturn]] void main() override { std::abort(); }

  // Runs queued tasks (and tasks they queue) of every queue, or of one.
  size_t runQueued(const std::string& label = "") {
    for (size_t ran = 0;; ++ran) {
      Task task;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find_if(tasks_.begin(), tasks_.end(),
                               [&](const auto& t) { return label.empty() || t.first == label; });
        if (it == tasks_.end()) return ran;
        task = std::move(it->second);
        tasks_.erase(it);
      }
      task();
    }
  }
  // Moves due timers (clock now) to their queues; returns how many.
  size_t fireDueTimers() {
    std::vector<Due> due;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto end = timers_.upper_bound(clock_.now());
      for (auto it = timers_.begin(); it != end; ++it) due.push_back(std::move(it->second));
      timers_.erase(timers_.begin(), end);
    }
    for (Due& d : due) d.queue->async(std::move(d.task));
    return due.size();
  }
  size_t pendingTasks(const std::string& label = "") const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::count_if(tasks_.begin(), tasks_.end(),
                         [&](const auto& t) { return label.empty() || t.first == label; });
  }
  // When the pending timers are due.
  std::vector<uint64_t> pendingTimers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<uint64_t> times;
    for (const auto& [when, due] : timers_) times.push_back(when);
    return times;
  }

 private:
  class Queue : public tarvex::itx::rtn::IQueue {
   public:
    Queue(ManualDispatch& owner, std::string label) : owner_(owner), label_(std::move(label)) {}
    void async(Task task) override {
      std::lock_guard<std::mutex> lock(owner_.mutex_);
      owner_.tasks_.emplace_back(label_, std::move(task));
    }
    const char* label() const override { return label_.c_str(); }

   private:
    ManualDispatch& owner_;
    std::string label_;
  };
  struct Timer : tarvex::itx::rtn::ITimer {
    explicit Timer(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
    void cancel() override { cancel_(); }
    std::function<void()> cancel_;
  };
  struct Due {
    uint64_t id;
    QueueRef queue;
    Task task;
  };

  tarvex::itx::rtn::IClock& clock_;
  mutable std::mutex mutex_;
  std::deque<std::pair<std::string, Task>> tasks_;
  std::multimap<uint64_t, Due> timers_;
  uint64_t nextTimer_ = 0;
  // Timers reach the dispatch through this; gone with it.
  std::shared_ptr<ManualDispatch*> self_ = std::make_shared<ManualDispatch*>(this);
};

}  // namespace lumo::testing
