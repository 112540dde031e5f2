#include "dispatch/workerpool.h"

#include <algorithm>
#include <optional>
#include <system_error>
#include <utility>

#include "dispatch/callerhelps.h"
#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "memory/freedmemory.h"

namespace tarvex::itx::rtn::linux_platform {

WorkerPool::WorkerPool(std::string name, unsigned maxThreads, std::chrono::milliseconds idleTimeout,
                       std::chrono::microseconds spin, Recruiting recruiting, QosClass qos,
                       bool batchWakes)
    : name_(std::move(name)),
      maxThreads_(std::max(maxThreads, 1u)),
      idleTimeout_(idleTimeout),
      spin_(spin),
      recruiting_(recruiting),
      qos_(qos),
      batchWakes_(batchWakes),
      meanGap_(4 * spin) {}

WorkerPool::~WorkerPool() { shutdown(); }

void WorkerPool::post(Task task) {
  std::list<std::thread> exited;
  SleeperRef waiter;
  bool arm = false;
  // Pools made on the stack (tests) have no owner to keep them for later.
  const std::shared_ptr<WorkerPool> self = weak_from_this().lock();
  const bool deferred =
      (qos_ == QosClass::UserInteractive && CallerHelps::take(self)) || WakeBatch::defer(self);
  // Read once, outside the lock; a deferred post of a pool that doesn't
  // spin needs no time at all.
  const bool timed = spin_.count() > 0 || !deferred;
  const auto now =
      timed ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point();
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    if (spin_.count() > 0) notePostLocked(now);
    tasks_.push_back(std::move(task));
    queued_.store(tasks_.size(), std::memory_order_relaxed);
    if (!exited_.empty()) exited.swap(exited_);  // rare: workers that timed out
    // A spinning worker will find the task without being woken.
    if (!deferred && spinning_ == 0) waiter = recruitLocked(now, &arm);
  }
  wake(waiter);
  if (arm) armStallCheck();
  joinAll(exited);
}

void WorkerPool::wakeForQueued() {
  SleeperRef waiter;
  bool arm = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || tasks_.empty()) return;
    if (spinning_ == 0) waiter = recruitLocked(std::chrono::steady_clock::now(), &arm);
  }
  wake(waiter);
  if (arm) armStallCheck();
}

void WorkerPool::armStallCheck() {
  TimerRef check = recruiting_.arm(recruiting_.stall, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->stallCheck();
  });
  {
    std::lock_guard lock(mutex_);
    // Still wanted: kept for cancelling once the queue drains.
    if (checkArmed_ && !check_) {
      check_ = std::move(check);
      return;
    }
  }
  if (check) check->cancel();
}

TimerRef WorkerPool::disarmLocked() {
  if (!checkArmed_ || !tasks_.empty()) return nullptr;
  checkArmed_ = false;
  return std::move(check_);
}

// Tasks were left queued for a busy worker: if it has taken none since,
// it is stuck and another worker comes; if it is still getting through
// them, look again later.
void WorkerPool::stallCheck() {
  SleeperRef waiter;
  bool arm = false;
  {
    std::lock_guard lock(mutex_);
    checkArmed_ = false;
    check_.reset();
    if (stopping_ || tasks_.empty()) return;
    if (busy_ > 0 && std::chrono::steady_clock::now() - lastTaken_ < recruiting_.stall) {
      checkArmed_ = arm = true;
    } else {
      waiter = bringWorkerLocked();
    }
  }
  wake(waiter);
  if (arm) armStallCheck();
}

void WorkerPool::release() {
  std::lock_guard lock(mutex_);
  released_ = true;
  // Queued work must not be stranded when an earlier spawn failed.
  if (!stopping_ && live_ == 0 && !tasks_.empty()) wake(bringWorkerLocked());
  wakeAllLocked();
}

void WorkerPool::wakeAllLocked() {
  for (const SleeperRef& sleeper : sleepers_) sleeper->cv.notify_one();
}

void WorkerPool::shutdown() {
  std::deque<Task> dropped;
  std::list<std::thread> threads;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
    queued_.store(0, std::memory_order_relaxed);
    threads.swap(workers_);
    threads.splice(threads.end(), exited_);
    wakeAllLocked();
  }
  // Captures may post or drop queues on destruction; no lock is held here.
  dropped.clear();
  joinAll(threads);
}

bool WorkerPool::reap() {
  std::list<std::thread> exited;
  bool done;
  {
    std::lock_guard lock(mutex_);
    exited.swap(exited_);
    done = released_ && live_ == 0;
  }
  joinAll(exited);
  return done;
}

unsigned WorkerPool::liveThreads() {
  std::lock_guard lock(mutex_);
  return live_;
}

// Brings one more worker to the queue: a waiting one if there is one, else a
// new thread. Only one is brought at a time; it recruits the next when it
// finds more work behind its own. That keeps a steady stream of posts from
// waking or spawning a thread per task, while a backlog (or workers stuck in
// tasks) still grows the pool to its cap. The waiter to wake, if one.
WorkerPool::SleeperRef WorkerPool::recruitLocked(std::chrono::steady_clock::time_point now,
                                                 bool* arm) {
  if (recruiting_.stall.count() > 0 && recruiting_.arm && busy_ > 0 &&
      tasks_.size() < recruiting_.backlog && now - lastTaken_ < recruiting_.stall) {
    // A busy worker is getting through them; a check makes sure it does.
    if (!checkArmed_) checkArmed_ = *arm = true;
    return nullptr;
  }
  return bringWorkerLocked();
}

WorkerPool::SleeperRef WorkerPool::bringWorkerLocked() {
  if (wakeups_ + starting_ > 0) return nullptr;
  if (!sleepers_.empty()) {
    SleeperRef sleeper = std::move(sleepers_.back());
    sleepers_.pop_back();
    sleeper->woken = true;
    ++wakeups_;
    return sleeper;
  }
  if (live_ < maxThreads_) spawnLocked();
  return nullptr;
}

void WorkerPool::spawnLocked() {
  // Created under the lock so the thread is in workers_ before it can look
  // itself up there on exit.
  try {
    workers_.emplace_back(&WorkerPool::workerMain, this);
    ++live_;
    ++starting_;
  } catch (const std::system_error&) {
    // Out of threads: the task waits for a running worker or the next post.
  }
}

void WorkerPool::workerMain() {
  nameThread(name_);
  prioritiseThread(qos_);
  const auto self = std::make_shared<Sleeper>();
  std::unique_lock lock(mutex_);
  --starting_;
  // Open while this worker gets through a run of tasks; always closed,
  // without the lock, before it waits or exits.
  std::optional<WakeBatch> batch;
  unsigned batched = 0;
  for (;;) {
    if (!tasks_.empty()) {
      if (batchWakes_ && (!batch || batched++ == kTasksPerBatch)) {
        lock.unlock();
        batch.reset();
        batch.emplace();
        batched = 0;
        lock.lock();
        continue;
      }
      runNextLocked(lock);
      continue;
    }
    if (batch) {
      lock.unlock();
      batch.reset();
      lock.lock();
      continue;
    }
    if (TimerRef check = disarmLocked()) {
      lock.unlock();
      check->cancel();
      lock.lock();
      continue;
    }
    if (stopping_ || released_) break;
    // One spinner is enough to catch the next task: more would only take
    // the CPUs from the thread that posts it, and from each other.
    if (spinning_ == 0) {
      const auto spin = spinLengthLocked();
      if (spin.count() > 0 && spinForWork(lock, spin)) continue;
    }
    self->woken = false;
    sleepers_.push_back(self);
    const bool woken = self->cv.wait_for(
        lock, idleTimeout_, [&] { return self->woken || stopping_ || released_; });
    if (self->woken) {
      --wakeups_;  // whoever woke us already took us off sleepers_
      continue;
    }
    sleepers_.erase(std::find(sleepers_.begin(), sleepers_.end(), self));
    if (!woken) break;
  }
  const bool idleExit = !stopping_ && !released_;
  retireLocked();
  lock.unlock();
  // A burst is over: what its tasks allocated goes back to the system
  // rather than staying resident until the next one.
  if (idleExit) returnFreedMemory();
}

void WorkerPool::runNextLocked(std::unique_lock<std::mutex>& lock) {
  {
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    queued_.store(tasks_.size(), std::memory_order_relaxed);
    ++busy_;
    lastTaken_ = std::chrono::steady_clock::now();
    bool arm = false;
    const SleeperRef waiter = tasks_.empty() ? nullptr : recruitLocked(lastTaken_, &arm);
    lock.unlock();
    wake(waiter);
    if (arm) armStallCheck();
    task();
  }
  lock.lock();
  --busy_;
}

void WorkerPool::runQueuedHere() {
  std::unique_lock lock(mutex_);
  while (!tasks_.empty() && !stopping_) runNextLocked(lock);
  TimerRef check = disarmLocked();
  lock.unlock();
  if (check) check->cancel();
}

void WorkerPool::notePostLocked(std::chrono::steady_clock::time_point now) {
  // Gaps far beyond the spin all count alike: one long pause must not take
  // many posts to forget.
  const auto gap = std::min<std::chrono::nanoseconds>(now - lastPosted_, 4 * spin_);
  lastPosted_ = now;
  meanGap_ += (gap - meanGap_) / 4;
}

// Spinning pays only while tasks come closer together than the spin: then
// the next is caught without a wake-up. Spread out, they would only burn
// the CPU the programs being watched need.
std::chrono::nanoseconds WorkerPool::spinLengthLocked() const {
  if (spin_.count() == 0 || meanGap_ > spin_) return std::chrono::nanoseconds(0);
  return std::min<std::chrono::nanoseconds>(2 * meanGap_, spin_);
}

bool WorkerPool::spinForWork(std::unique_lock<std::mutex>& lock, std::chrono::nanoseconds spin) {
  ++spinning_;
  lock.unlock();
  const auto until = std::chrono::steady_clock::now() + spin;
  while (queued_.load(std::memory_order_relaxed) == 0 &&
         std::chrono::steady_clock::now() < until) {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  lock.lock();
  --spinning_;
  // Whatever the spin saw, the queue is judged under the lock: a post that
  // relied on us spinning is never left behind.
  return !tasks_.empty();
}

void WorkerPool::retireLocked() {
  --live_;
  if (stopping_) return;  // shutdown() owns the thread objects now
  const auto self = std::this_thread::get_id();
  auto it = std::find_if(workers_.begin(), workers_.end(),
                         [self](const std::thread& t) { return t.get_id() == self; });
  if (it != workers_.end()) exited_.splice(exited_.end(), workers_, it);
}

void WorkerPool::joinAll(std::list<std::thread>& threads) {
  for (std::thread& thread : threads) {
    if (thread.joinable()) thread.join();
  }
  threads.clear();
}

}  // namespace tarvex::itx::rtn::linux_platform
