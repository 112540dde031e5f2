#include "dispatch/timerthread.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "dispatch/threadname.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {
// Waits are cut into slices no longer than this so that a far-off deadline
// cannot overflow the condition variable's time arithmetic.
constexpr uint64_t kMaxWaitNanos = 3600ull * 1000 * 1000 * 1000;
}  // namespace

TimerThread::TimerThread(IClock& clock)
    : clock_(clock), maxWaitTicks_(clock.nanosToTicks(kMaxWaitNanos)), thread_([this] { run(); }) {}

TimerThread::~TimerThread() { stop(); }

bool TimerThread::later(const Entry& a, const Entry& b) {
  return a.when != b.when ? a.when > b.when : a.seq > b.seq;
}

void TimerThread::schedule(uint64_t when, QueueRef queue, Task task) {
  bool earliest;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    const uint64_t seq = nextSeq_++;
    heap_.push_back(Entry{when, seq, std::move(queue), std::move(task)});
    std::push_heap(heap_.begin(), heap_.end(), later);
    earliest = heap_.front().seq == seq;
  }
  // Only a new earliest deadline shortens the current wait.
  if (earliest) changed_.notify_one();
}

void TimerThread::stop() {
  std::vector<Entry> dropped;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    dropped.swap(heap_);
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void TimerThread::run() {
  nameThread("lumo.timer");
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (heap_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const uint64_t now = clock_.now();
    const uint64_t when = heap_.front().when;
    if (when > now) {
      const uint64_t ticks = std::min(when - now, maxWaitTicks_);
      changed_.wait_for(lock, std::chrono::nanoseconds(clock_.ticksToNanos(ticks)));
      continue;
    }
    std::pop_heap(heap_.begin(), heap_.end(), later);
    {
      Entry due = std::move(heap_.back());
      heap_.pop_back();
      lock.unlock();
      due.queue->async(std::move(due.task));
    }
    lock.lock();
  }
}

}  // namespace tarvex::itx::rtn::linux_platform
