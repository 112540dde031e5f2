#include "support/manual_dispatch.h"

#include <cstdlib>
#include <memory>

namespace lumo::testing {

using tarvex::itx::rtn::QosClass;
using tarvex::itx::rtn::QueueRef;
using tarvex::itx::rtn::Task;

class ManualDispatch::Queue : public tarvex::itx::rtn::IQueue {
 public:
  Queue(ManualDispatch& owner, std::string label) : owner_(owner), label_(std::move(label)) {}
  void async(Task task) override { owner_.enqueue(label_, std::move(task)); }
  const char* label() const override { return label_.c_str(); }

 private:
  ManualDispatch& owner_;
  std::string label_;
};

QueueRef ManualDispatch::createConcurrentQueue(const char* label, QosClass target) {
  std::lock_guard<std::mutex> lock(mutex_);
  created_.emplace_back(label, target);
  return std::make_shared<Queue>(*this, label);
}

QueueRef ManualDispatch::globalQueue(QosClass qos) {
  std::lock_guard<std::mutex> lock(mutex_);
  QueueRef& queue = globals_[qos];
  if (!queue) {
    queue = std::make_shared<Queue>(*this, "global." + std::to_string(static_cast<int>(qos)));
  }
  return queue;
}

class ManualDispatch::Timer : public tarvex::itx::rtn::ITimer {
 public:
  Timer(std::weak_ptr<ManualDispatch*> owner, uint64_t when, uint64_t id)
      : owner_(std::move(owner)), when_(when), id_(id) {}
  void cancel() override {
    const auto owner = owner_.lock();
    if (!owner) return;
    Task dropped;
    std::lock_guard<std::mutex> lock((*owner)->mutex_);
    auto& timers = (*owner)->timers_;
    auto [first, last] = timers.equal_range(when_);
    for (auto it = first; it != last; ++it) {
      if (it->second.id != id_) continue;
      dropped = std::move(it->second.task);
      timers.erase(it);
      return;
    }
  }

 private:
  const std::weak_ptr<ManualDispatch*> owner_;
  const uint64_t when_;
  const uint64_t id_;
};

tarvex::itx::rtn::TimerRef ManualDispatch::after(uint64_t when, const QueueRef& queue, Task task) {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t id = nextTimer_++;
  timers_.emplace(when, Due{id, queue, std::move(task)});
  return std::make_shared<Timer>(self_, when, id);
}

void ManualDispatch::main() { std::abort(); }

void ManualDispatch::enqueue(const std::string& label, Task task) {
  std::lock_guard<std::mutex> lock(mutex_);
  tasks_.emplace_back(label, std::move(task));
}

size_t ManualDispatch::runQueued(const std::string& label) {
  size_t ran = 0;
  for (;;) {
    Task task;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = tasks_.begin();
      while (it != tasks_.end() && !label.empty() && it->first != label) ++it;
      if (it == tasks_.end()) return ran;
      task = std::move(it->second);
      tasks_.erase(it);
    }
    task();
    ++ran;
  }
}

size_t ManualDispatch::fireDueTimers() {
  const uint64_t now = clock_.now();
  std::vector<std::pair<QueueRef, Task>> due;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto end = timers_.upper_bound(now);
    for (auto it = timers_.begin(); it != end; ++it) {
      due.emplace_back(std::move(it->second.queue), std::move(it->second.task));
    }
    timers_.erase(timers_.begin(), end);
  }
  for (auto& [queue, task] : due) queue->async(std::move(task));
  return due.size();
}

size_t ManualDispatch::pendingTasks(const std::string& label) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const auto& t : tasks_) n += label.empty() || t.first == label;
  return n;
}

std::vector<ManualDispatch::PendingTimer> ManualDispatch::pendingTimers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<PendingTimer> timers;
  for (const auto& [when, entry] : timers_) timers.push_back({when, entry.queue->label()});
  return timers;
}

std::vector<std::string> ManualDispatch::createdQueues() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> labels;
  for (const auto& [label, qos] : created_) labels.push_back(label);
  return labels;
}

QosClass ManualDispatch::targetOf(const std::string& label) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [l, qos] : created_) {
    if (l == label) return qos;
  }
  return QosClass::Background;
}

}  // namespace lumo::testing
